// Included before any source that is type-checked for macOS on Linux: gives `stat` the names of its
// times there, and takes away what only Linux has.
#pragma once

#define st_mtim st_mtimespec
#define st_ctim st_ctimespec
#include <fcntl.h>
#include <sys/stat.h>
#undef st_mtim
#undef st_ctim

#undef O_PATH
#undef O_TMPFILE
#undef O_NOATIME
#undef AT_EMPTY_PATH
#undef AT_NO_AUTOMOUNT
#pragma GCC poison statx inotify_init1 inotify_add_watch
