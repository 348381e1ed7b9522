// What the two deflate wrappers share: argument checks and the errors of a
// decompression that fails, so both report alike.
#pragma once

namespace dfz {
namespace detail {

// Raises kx::CInvalidArgError with `context` for a negative size, or a null
// pointer beside a positive size.
void checkSingleStepArgs(const char* context, const void* source, int sourceSize, const void* target,
                         int targetCapacity);

// Raises kx::CIOError IOERR_DAMAGED_DATA: "Damaged compressed data: " + reason.
[[noreturn]] void throwDamagedData(const char* engine, const char* reason, int sourceSize,
                                   int targetCapacity);

// The reason for output that would run past the target.
inline constexpr const char* kOutputTooLarge = "the output doesn't fit the target";

// Checks that a size_t bound fits an int.
int checkedBound(const char* context, unsigned long long bound, int sourceSize);

}  // namespace detail
}  // namespace dfz
