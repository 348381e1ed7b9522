// Loads any bytes as a sparse extent header. A sector that loads must store
// as 512 bytes, and loading what was stored must give the same sector again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kx/buffer_stream.h"
#include "kx/data_stream.h"
#include "kx/error.h"
#include "zarn/sparse_extent_header.h"

namespace {

kx::P<kx::TBuffer<unsigned char>> storeHeader(zarn::CVMDKSparseExtentHeader& header) {
  auto stream = kx::create<kx::CBufferStream>();
  kx::CDataOutStream out(*stream);
  header.store(out);
  if (stream->getLength() != 512) std::abort();
  return stream->getBuffer();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 1024) return 0;
  auto bytes = kx::create<kx::TBuffer<unsigned char>>(size);
  if (size > 0) std::memcpy(bytes->getData(), data, size);
  auto stream = kx::create<kx::CBufferStream>(bytes, 2.0);
  kx::CDataInStream in(*stream);
  zarn::CVMDKSparseExtentHeader header;
  try {
    header.load(in);
  } catch (const kx::CError&) {
    return 0;
  }
  if (stream->getPosition() != 512) std::abort();

  const auto first = storeHeader(header);
  auto again = kx::create<kx::CBufferStream>(first, 2.0);
  kx::CDataInStream againIn(*again);
  zarn::CVMDKSparseExtentHeader reloaded;
  reloaded.load(againIn);  // what we stored must load; a raise here is a finding
  const auto second = storeHeader(reloaded);
  if (std::memcmp(first->getData(), second->getData(), 512) != 0) std::abort();
  return 0;
}
