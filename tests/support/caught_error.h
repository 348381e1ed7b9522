// The error of type E an operation raises, or `none` when it raises nothing;
// errors of other types pass through and fail the test.
#pragma once

#include <functional>

#include "kx/error.h"

namespace test {

template <class E, class Fn>
E caught(Fn fn, E none) {
  try {
    fn();
  } catch (const E& e) {
    return e;
  }
  return none;
}

// The code of the kx::CIOError an operation raises, or 0.
inline int ioErrorCode(const std::function<void()>& op) { return caught(op, kx::CIOError(0, "")).getCode(); }

}  // namespace test
