#define ZLIB_CONST
#include "dfz/zlib_compressor.h"

#include <zlib.h>

#include <memory>
#include <string>

#include "foundation/deflate/single_step.h"
#include "kx/error.h"

namespace dfz {
namespace {

constexpr int kWindowBits = 15;  // the zlib format's largest window
constexpr int kMemLevel = 8;     // zlib's default; the bound below depends on it
constexpr int kDefaultLevel = 6;

[[noreturn]] void throwEngineError(const char* context, const char* call, int rc, const z_stream* stream) {
  kx::CProps props;
  props.add("result", rc);
  if (stream && stream->msg) props.add("reason", stream->msg);
  throw kx::CError(kx::String("zlib ") + call + " failed", context, -1, props);
}

}  // namespace

CZLibCompressor::CZLibCompressor(int level) : level_(level == -1 ? kDefaultLevel : level) {
  constexpr const char* kContext = "CZLibCompressor::CZLibCompressor";
  if (level_ < 0 || level_ > 9) {
    throw kx::CInvalidArgError(kContext, "Compression level out of range", kx::CProps().add("level", level));
  }
  auto deflater = std::make_unique<z_stream>();
  auto inflater = std::make_unique<z_stream>();
  int rc = deflateInit2(deflater.get(), level_, Z_DEFLATED, kWindowBits, kMemLevel, Z_DEFAULT_STRATEGY);
  if (rc != Z_OK) throwEngineError(kContext, "deflateInit2", rc, nullptr);
  rc = inflateInit2(inflater.get(), kWindowBits);
  if (rc != Z_OK) {
    deflateEnd(deflater.get());
    throwEngineError(kContext, "inflateInit2", rc, nullptr);
  }
  deflater_ = std::move(deflater);
  inflater_ = std::move(inflater);
}

CZLibCompressor::~CZLibCompressor() {
  deflateEnd(deflater_.get());
  inflateEnd(inflater_.get());
}

kx::String CZLibCompressor::getInternalDesc() { return kx::String("zlib-") + std::to_string(level_); }

int CZLibCompressor::getCompressedSizeUpperBound(int sourceSize) const {
  constexpr const char* kContext = "CZLibCompressor::getCompressedSizeUpperBound";
  if (sourceSize < 0) {
    throw kx::CInvalidArgError(kContext, "Negative size", kx::CProps().add("sourceSize", sourceSize));
  }
  // zlib's own bound for a 15-bit window and memory level 8 (the deflate
  // stream, 2 bytes of header, 4 of Adler-32). deflateBound() can't serve:
  // it adds 4 bytes once the stream has been used, and it isn't const.
  const unsigned long long n = static_cast<unsigned long long>(sourceSize);
  return detail::checkedBound(kContext, n + (n >> 12) + (n >> 14) + (n >> 25) + 7 + 6, sourceSize);
}

int CZLibCompressor::compressSingleStep(const void* source, int sourceSize, void* target,
                                        int targetCapacity) {
  constexpr const char* kContext = "CZLibCompressor::compressSingleStep";
  detail::checkSingleStepArgs(kContext, source, sourceSize, target, targetCapacity);
  int rc = deflateReset(deflater_.get());
  if (rc != Z_OK) throwEngineError(kContext, "deflateReset", rc, deflater_.get());
  // zlib refuses a null output pointer even with no room.
  Bytef noRoom = 0;
  deflater_->next_in = static_cast<const Bytef*>(source);
  deflater_->avail_in = static_cast<uInt>(sourceSize);
  deflater_->next_out = target ? static_cast<Bytef*>(target) : &noRoom;
  deflater_->avail_out = static_cast<uInt>(targetCapacity);
  rc = deflate(deflater_.get(), Z_FINISH);
  if (rc == Z_STREAM_END) return static_cast<int>(deflater_->total_out);
  if (rc == Z_OK || rc == Z_BUF_ERROR) return -1;  // ran out of room
  throwEngineError(kContext, "deflate", rc, deflater_.get());
}

int CZLibCompressor::decompressSingleStep(const void* source, int sourceSize, void* target,
                                          int targetCapacity) {
  constexpr const char* kContext = "CZLibCompressor::decompressSingleStep";
  detail::checkSingleStepArgs(kContext, source, sourceSize, target, targetCapacity);
  int rc = inflateReset(inflater_.get());
  if (rc != Z_OK) throwEngineError(kContext, "inflateReset", rc, inflater_.get());
  Bytef noRoom = 0;
  inflater_->next_in = static_cast<const Bytef*>(source);
  inflater_->avail_in = static_cast<uInt>(sourceSize);
  inflater_->next_out = target ? static_cast<Bytef*>(target) : &noRoom;
  inflater_->avail_out = static_cast<uInt>(targetCapacity);
  // Whatever follows the end of the stream (sector padding) stays unread.
  rc = inflate(inflater_.get(), Z_FINISH);
  switch (rc) {
    case Z_STREAM_END:
      return static_cast<int>(inflater_->total_out);
    case Z_OK:
    case Z_BUF_ERROR:
      detail::throwDamagedData(
          "zlib", inflater_->avail_out == 0 ? detail::kOutputTooLarge : "the stream is cut short", sourceSize,
          targetCapacity);
    case Z_DATA_ERROR:
      detail::throwDamagedData("zlib", inflater_->msg ? inflater_->msg : "invalid deflate data", sourceSize,
                               targetCapacity);
    case Z_NEED_DICT:
      detail::throwDamagedData("zlib", "the stream asks for a preset dictionary", sourceSize, targetCapacity);
    default:
      throwEngineError(kContext, "inflate", rc, inflater_.get());
  }
}

}  // namespace dfz
