// Standard output, which is a pipe to the program that reads the records, and may refuse them for a
// while or for good. The emitter thread writes to it, and main before that thread runs.
#pragma once

#include <string_view>

namespace FSStandardOutput {

// Restores the default action of SIGPIPE, which the parent process may have changed. Before any
// other thread runs.
void EndWithReader();

// Ends the process, as the next line would, when nobody can read it any more.
void EndIfUnread();

// Writes as much of the text as can be written now, and returns how many bytes that is. Where
// standard output blocks, or would, it waits. Fewer than all: the rest is refused for now, for
// example because a disk is full. Does not return when nobody can ever read it: the process ends as
// it does when its reader has gone.
size_t Write(std::string_view text);

// Writes the text whole, trying again once a second.
void WriteAll(std::string_view text);

}  // namespace FSStandardOutput
