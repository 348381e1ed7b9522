#include "tests/shim/counting_allocator.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

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
  return __libc_realloc(block, size);
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
void free(void* block) { __libc_free(block); }
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

}  // namespace test
