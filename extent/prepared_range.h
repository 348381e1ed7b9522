// The checks that every extent makes before it moves a whole grain in
// prepared form: the grain must lie within the extent (kx::CIOError code 3),
// then start on a grain border (code 11). `uriProps` holds the extent's "uri".
#pragma once

#include <cstdint>

#include "kx/error.h"

namespace zarn {

inline void checkPreparedGrainRange(bool reading, int64_t position, int64_t grainSizeBytes, int64_t extentSizeBytes,
                                    const kx::CProps& uriProps) {
  const char* what = reading ? "read" : "write";
  if (position + grainSizeBytes > extentSizeBytes) {
    kx::CProps props = uriProps;
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET, kx::String::Format("Prepared grain %s exceeds VMDK extent size.", what),
                       props.add("position", position).add("grainSize", grainSizeBytes).add("extentSize", extentSizeBytes));
  }
  if (position % grainSizeBytes != 0) {
    kx::CProps props = uriProps;
    throw kx::CIOError(
        kx::IOERR_NOT_ON_GRAIN_BOUNDARY,
        kx::String::Format("Prepared grain %s in VMDK extent file can only be done on a grain boundary.", what),
        props.add("position", position).add("grainSize", grainSizeBytes));
  }
}

}  // namespace zarn
