#!/bin/sh
# Prints each change in words, with nothing but a shell and awk: action, kind, path, and the path before a rename.
#
# usage: words.sh FOLDER [TOOL]
#
# Paths stay percent-encoded, one change a line; docs/recipes.md shows how to decode them. No name can break the line of a
# change, but the path of a folder that cannot be read comes as it is, and a name made for it can look like a change:
# docs/records.md, on the lines of a problem.
set -eu
[ $# -gt 0 ] || {
  echo "usage: words.sh FOLDER [TOOL]" >&2
  exit 2
}
folder=$1 tool=${2:-Dirwarden}
export folder tool

# One of the awks waits for a full buffer of input otherwise.
case $(awk -W version 2>&1 </dev/null) in
  mawk*) at_once='-W interactive' ;;
  *) at_once= ;;
esac

# awk takes the place of the shell and starts the tool, which ends soon after its reader does, however that is ended.
# shellcheck disable=SC2086 # two words or none
exec awk $at_once -F '[<>]' 'BEGIN {
  records = "exec \"$tool\" \"$folder\" false"
  while ((records | getline) > 0) {
    if ($0 !~ / action="(create|delete|change|rename)" /) continue
    split($2, word, /[ "]/)
    old = ""
    if (match($2, / oldValue="[^"]*"/)) old = " " substr($2, RSTART + 11, RLENGTH - 12)
    print word[3], word[1], $3 old
    fflush()
  }
  exit (close(records) != 0)
}'
