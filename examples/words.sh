#!/bin/sh
# Prints each change in words, with nothing but a shell and awk: action, kind, path, and the path before a rename.
#
# usage: words.sh FOLDER [TOOL]
#
# Paths stay percent-encoded, one change a line: no name can break a line. docs/recipes.md shows how to decode them.
set -eu
[ $# -gt 0 ] || {
  echo "usage: words.sh FOLDER [TOOL]" >&2
  exit 2
}

# One of the awks waits for a full buffer of input otherwise.
case $(awk -W version 2>&1 </dev/null) in
  mawk*) at_once='-W interactive' ;;
  *) at_once= ;;
esac

# shellcheck disable=SC2086 # two words or none
"${2:-Dirwarden}" "$1" false | awk $at_once -F '[<>]' '
  / action="(create|delete|change|rename)" / {
    split($2, word, /[ "]/)
    old = ""
    if (match($2, / oldValue="[^"]*"/)) old = " " substr($2, RSTART + 11, RLENGTH - 12)
    print word[3], word[1], $3 old
    fflush()
  }'
