// Makes a growing heap cheaper. This header has a namesake for each system.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>

// Asks for the pages by which the heap has grown since the last call, all at once. They are about
// to be filled, and would cost a page fault each, which is dear on virtual machines. A kernel older
// than 5.14 refuses, and nothing changes. Main thread only: other threads' heaps lie elsewhere.
inline void populateHeapGrowth() {
  constexpr int kPopulateWrite = 23;  // MADV_POPULATE_WRITE, which older headers lack
  static char* populated = static_cast<char*>(sbrk(0));
  char* const top = static_cast<char*>(sbrk(0));
  if (top > populated) madvise(populated, static_cast<size_t>(top - populated), kPopulateWrite);
  populated = top;
}
