#include "kx/base.h"

#include "kx/error.h"

namespace kx {

void CBase::checkCastAllowed() const {
  if (refCount_.load(std::memory_order_acquire) <= 0) {
    throw CError("Internal error: an object was cast after its last reference was released.");
  }
}

}  // namespace kx
