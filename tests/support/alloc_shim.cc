#include "tests/support/alloc_shim.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {
std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};
std::atomic<test::FreeObserver> g_freeObserver{nullptr};

inline void noteAllocation() {
  if (g_counting.load(std::memory_order_relaxed)) g_allocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

extern "C" {
void* malloc(size_t size) {
  noteAllocation();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  noteAllocation();
  return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
  noteAllocation();
  if (!block || !g_freeObserver.load() || size == 0) return __libc_realloc(block, size);
  // Watched: always move, so that the old block is seen as it is freed.
  void* moved = __libc_malloc(size);
  if (moved) {
    std::memcpy(moved, block, std::min(size, malloc_usable_size(block)));
    free(block);
  }
  return moved;
}
void* memalign(size_t alignment, size_t size) {
  noteAllocation();
  return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** result, size_t alignment, size_t size) {
  void* block = memalign(alignment, size);
  if (!block) return ENOMEM;
  *result = block;
  return 0;
}
void free(void* block) {
  const test::FreeObserver observer = g_freeObserver.load();
  if (block && observer) observer(static_cast<const unsigned char*>(block), malloc_usable_size(block));
  __libc_free(block);
}
}

namespace test {

void startCountingAllocations() {
  g_allocations = 0;
  g_counting = true;
}

long stopCountingAllocations() {
  g_counting = false;
  return g_allocations.load();
}

long countAllocations(const std::function<void()>& work) {
  startCountingAllocations();
  work();
  return stopCountingAllocations();
}

void setFreeObserver(FreeObserver observer) { g_freeObserver = observer; }

}  // namespace test
