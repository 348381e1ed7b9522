// Parses any bytes as a descriptor, and opens them through the accessor both
// as a descriptor file and as the descriptor area of a sparse extent. Text
// that was stored once must come back unchanged from a second round.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kx/buffer_stream.h"
#include "kx/error.h"
#include "kx/log.h"
#include "zarn/descriptor.h"
#include "zarn/descriptor_accessor.h"

namespace {

kx::P<kx::TBuffer<unsigned char>> toBuffer(const std::string& text) {
  auto buffer = kx::create<kx::TBuffer<unsigned char>>(text.size());
  if (!text.empty()) std::memcpy(buffer->getData(), text.data(), text.size());
  return buffer;
}

void openThroughAccessor(const uint8_t* data, size_t size) {
  auto bytes = kx::create<kx::TBuffer<unsigned char>>(size);
  if (size > 0) std::memcpy(bytes->getData(), data, size);
  auto stream = kx::create<kx::CBufferStream>(bytes, 2.0);
  try {
    auto accessor = kx::create<zarn::CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ_WRITE);
    if (stream->getPosition() != 0) std::abort();
    accessor->storeDescriptor(false);
    if (stream->getLength() != static_cast<int64_t>(size)) std::abort();  // the area never grows
  } catch (const kx::CError&) {
  }
  if (stream->getPosition() != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  static const bool quiet = (kx::setLogSink([](kx::LogLevel, const kx::String&, const std::exception*) {}), true);
  (void)quiet;
  kx::TBuffer<unsigned char> bytes(size);
  if (size > 0) std::memcpy(bytes.getData(), data, size);
  zarn::CVMDKDescriptor first(bytes);
  first.setEncodingUTF8();
  const std::string once = first.toString().toUTF8();
  zarn::CVMDKDescriptor second(*toBuffer(once));
  if (second.toString().toUTF8() != once) std::abort();

  openThroughAccessor(data, size);
  return 0;
}
