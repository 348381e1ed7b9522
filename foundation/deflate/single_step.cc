#include "foundation/deflate/single_step.h"

#include <climits>

#include "kx/error.h"

namespace dfz {
namespace detail {

void checkSingleStepArgs(const char* context, const void* source, int sourceSize, const void* target,
                         int targetCapacity) {
  if (sourceSize < 0 || targetCapacity < 0) {
    throw kx::CInvalidArgError(
        context, "Negative size",
        kx::CProps().add("sourceSize", sourceSize).add("targetCapacity", targetCapacity));
  }
  if ((sourceSize > 0 && !source) || (targetCapacity > 0 && !target)) {
    throw kx::CInvalidArgError(context, "Null buffer with a non-zero size");
  }
}

void throwDamagedData(const char* engine, const char* reason, int sourceSize, int targetCapacity) {
  throw kx::CIOError(
      kx::IOERR_DAMAGED_DATA, kx::String("Damaged compressed data: ") + reason,
      kx::CProps().add("engine", engine).add("sourceSize", sourceSize).add("targetCapacity", targetCapacity));
}

int checkedBound(const char* context, unsigned long long bound, int sourceSize) {
  if (bound > static_cast<unsigned long long>(INT_MAX)) {
    throw kx::CInvalidArgError(context, "Source too large for a single step",
                               kx::CProps().add("sourceSize", sourceSize));
  }
  return static_cast<int>(bound);
}

}  // namespace detail
}  // namespace dfz
