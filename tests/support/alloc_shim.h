// The allocator shim of the *_alloctest executables and of the benchmarks that
// count allocations: alloc_shim.cc replaces
// the C allocator (which operator new also goes through), so these tests are
// built without the sanitizers, which bring their own allocator.
#pragma once

#include <cstddef>
#include <functional>

namespace test {

// Heap allocations made by `work`.
long countAllocations(const std::function<void()>& work);
// The same as a switch, for work that can't be wrapped in one call.
void startCountingAllocations();
long stopCountingAllocations();

// Shows `observer` every block, with its usable size, just before it goes
// back to the C allocator (a realloc that moves counts as a free); null ends
// the watch.
using FreeObserver = void (*)(const unsigned char* block, size_t size);
void setFreeObserver(FreeObserver observer);

}  // namespace test
