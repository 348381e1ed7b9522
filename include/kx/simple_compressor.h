// A compressor that handles a whole input in one call.
#pragma once

#include "kx/base.h"
#include "kx/string.h"

namespace kx {

class ISimpleCompressor : public virtual IBase {
 public:
  // Names the engine and level, for logs.
  virtual String getInternalDesc() = 0;
  // The largest size compressSingleStep can give for `sourceSize` bytes.
  virtual int getCompressedSizeUpperBound(int sourceSize) const = 0;
  // Compresses all of `source` into `target`; returns the compressed size, or
  // -1 when the output doesn't fit into `targetCapacity`. Raises kx::CError on
  // an engine failure. No state is carried to the next call.
  virtual int compressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) = 0;
  // Decompresses one stream; bytes behind its end are ignored (zero padding of
  // a sector). Returns the number of bytes produced. Raises kx::CIOError code
  // 5 on damaged input or when the output doesn't fit.
  virtual int decompressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) = 0;
};

}  // namespace kx
