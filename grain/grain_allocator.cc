#include "zarn/grain_allocator.h"

#include <algorithm>
#include <limits>

#include "kx/error.h"
#include "kx/log.h"
#include "zarn/format_constants.h"
#include "zarn/grain_directory.h"

namespace zarn {

CVMDKGrainAllocator::CVMDKGrainAllocator(kx::IIOStream* stream, kx::IIOStream::Access access,
                                         int64_t grainSizeSectors, int64_t alignmentSectors,
                                         CVMDKGrainDirectory* directory, const kx::TBuffer<unsigned char>& trailData)
    : stream_(kx::P<kx::IIOStream>::share(stream)),
      access_(access),
      directory_(kx::P<CVMDKGrainDirectory>::share(directory)),
      grainSizeSectors_(grainSizeSectors),
      grainSizeBytes_(grainSizeSectors * kSectorSizeBytes),
      alignmentSectors_(alignmentSectors),
      alignmentBytes_(alignmentSectors * kSectorSizeBytes) {
  if (!stream_ || !directory_ || grainSizeSectors_ < 1 || grainSizeSectors_ > kVMDKMaxGrainSizeSectors ||
      alignmentSectors_ < 1 || alignmentSectors_ > kVMDKMaxGrainSizeSectors) {
    throw kx::CError("Internal error: CVMDKGrainAllocator needs a stream, a directory and a valid geometry.");
  }
  const int64_t length = stream_->getLength();
  if (trailData.isEmpty()) {
    endPosition_ = length;
    return;
  }
  const auto trailBytes = static_cast<int64_t>(trailData.getUsed());
  if (length >= trailBytes) {
    const int64_t position = stream_->getPosition();
    trailData_.setUsed(trailData.getUsed());
    stream_->seek(length - trailBytes);
    stream_->read(trailData_.getData(), static_cast<int>(trailBytes));
    stream_->seek(position);
  }
  if (length >= trailBytes && trailData_ == trailData) {
    endPosition_ = length - trailBytes;
    return;
  }
  kx::logWarning("VMDK trail data is not what we expected. Assuming that it is not trail data - we won't overwrite it.");
  trailData_ = trailData;
  endPosition_ = length;
  trailDirty_ = access_ != kx::IIOStream::ACCESS_READ;
}

CVMDKGrainAllocator::~CVMDKGrainAllocator() {
  try {
    flushChangesToStream();
  } catch (const std::exception& error) {
    kx::onExceptionInDestructorIgnored("zarn::CVMDKGrainAllocator", error, true);
  }
}

void CVMDKGrainAllocator::flushChangesToStream() {
  if (!trailDirty_ || trailData_.isEmpty()) return;
  stream_->seek(endPosition_);
  stream_->write(trailData_.getData(), static_cast<int>(trailData_.getUsed()), nullptr);
  trailDirty_ = false;
}

int64_t CVMDKGrainAllocator::allocNewGrain(int64_t grainIndex, const void* data, int size, int slotSizeSectors) {
  return allocNewGrainImpl(grainIndex, data, size, slotSizeSectors, nullptr);
}

int64_t CVMDKGrainAllocator::allocNewGrainKeepBuffer(int64_t grainIndex,
                                                     const kx::TConstBufferSlice<unsigned char>& data,
                                                     int slotSizeSectors) {
  return allocNewGrainImpl(grainIndex, data.getData(), static_cast<int>(data.getLength()), slotSizeSectors, &data);
}

void CVMDKGrainAllocator::writeZeros(int64_t count) {
  // Made at the first need: a reader never pays for twice its grain size.
  if (count > 0 && zeroFill_.isEmpty()) {
    zeroFill_.setUsed(static_cast<size_t>(std::max(grainSizeBytes_ * 2, alignmentBytes_)));
    zeroFill_.fill(0);
  }
  while (count > 0) {
    const int piece = static_cast<int>(std::min<int64_t>(count, static_cast<int64_t>(zeroFill_.getUsed())));
    stream_->write(zeroFill_.getData(), piece, nullptr);
    count -= piece;
  }
}

int64_t CVMDKGrainAllocator::allocNewGrainImpl(int64_t grainIndex, const void* data, int size,
                                               int slotSizeSectors, const kx::TConstBufferSlice<unsigned char>* slice) {
  const int64_t slotBytes = int64_t{slotSizeSectors} * kSectorSizeBytes;
  if (size > slotBytes) {
    throw kx::CInvalidArgError("CVMDKGrainAllocator::allocNewGrain",
                               kx::String::Format("Slot size is smaller than grain data size (slot size: %lld bytes, "
                                                  "grain data size: %d bytes)",
                                                  static_cast<long long>(slotBytes), size));
  }
  if (access_ == kx::IIOStream::ACCESS_READ) {
    throw kx::CError(
        "Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator was not opened for "
        "writing.");
  }
  const int64_t start = (endPosition_ + alignmentBytes_ - 1) / alignmentBytes_ * alignmentBytes_;
  // Checked before anything is written: a slot the table can't point at
  // would only be dead space.
  if (start / kSectorSizeBytes > std::numeric_limits<uint32_t>::max()) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET,
                       "VMDK extent file has reached the largest size its grain tables can address.",
                       kx::CProps()
                           .add("uri", stream_->getURI().toString(true))
                           .add("posSectors", start / kSectorSizeBytes));
  }
  // A table that can't take the slot (one the file doesn't have, say) is found
  // out before the data becomes dead space.
  directory_->verifyGrainInfo(grainIndex, start / kSectorSizeBytes, slotSizeSectors);
  stream_->seek(endPosition_);
  writeZeros(start - endPosition_);
  trailDirty_ = true;
  endPosition_ = start;
  if (slice) {
    stream_->writeKeepBuffer(*slice, nullptr);
  } else {
    stream_->write(data, size, nullptr);
  }
  endPosition_ = start + size;
  writeZeros(start + slotBytes - endPosition_);
  endPosition_ = start + slotBytes;
  directory_->setGrainInfo(grainIndex, start / kSectorSizeBytes, slotSizeSectors);
  return start / kSectorSizeBytes;
}

}  // namespace zarn
