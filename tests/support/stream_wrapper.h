// test::CStreamWrapper: the base of the streams of the test file systems.
#pragma once

#include "kx/stream_wrapper.h"

namespace test {

using CStreamWrapper = kx::CStreamWrapper;

}  // namespace test
