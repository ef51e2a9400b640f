// Large pieces of memory straight from the system, and back to it. This header has a namesake for
// each system.
#pragma once

#include <sys/mman.h>

#include <cstddef>

// So many bytes, all zero; null when there is no memory. They are wanted all at once, which is
// cheaper than one page fault after the other. Any thread.
inline void* mapFresh(size_t size) {
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

inline void unmapFresh(void* memory, size_t size) { munmap(memory, size); }
