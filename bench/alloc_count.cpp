#include "alloc_count.h"

#include <cstdlib>
#include <new>

namespace {
thread_local size_t tAllocations = 0;
}  // namespace

// Every other form of operator new in libstdc++ ends up here.
void* operator new(size_t size) {
  ++tAllocations;
  if (void* p = malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }

namespace zelk::bench {

size_t allocationCount() { return tAllocations; }

}  // namespace zelk::bench
