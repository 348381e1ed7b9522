// Counts heap allocations of the whole process: the C allocator, which
// operator new also goes through, is replaced by a counting shim when
// counting_allocator.cc is linked in. Only for binaries built without the
// sanitizers, which bring their own allocator.
#pragma once

#include <functional>

namespace test {

// Heap allocations (malloc, calloc, realloc, aligned forms) made by `work`.
long countAllocations(const std::function<void()>& work);
// The same as a switch, for code that can't be wrapped in one call.
void startCountingAllocations();
long stopCountingAllocations();

}  // namespace test
