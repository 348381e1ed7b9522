// The code of the kx::CIOError an operation raises, or 0 when it raises none;
// other errors pass through and fail the test.
#pragma once

#include <functional>

#include "kx/error.h"

namespace test {

inline int ioErrorCode(const std::function<void()>& op) {
  try {
    op();
  } catch (const kx::CIOError& e) {
    return e.getCode();
  }
  return 0;
}

}  // namespace test
