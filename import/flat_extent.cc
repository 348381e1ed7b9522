#include "import/flat_extent.h"

#include <algorithm>
#include <cstring>

#include "kx/error.h"
#include "zarn/format_constants.h"
#include "zarn/low_level_file_stream.h"

namespace zarn {

CVMDKForeignFlatExtent::CVMDKForeignFlatExtent(kx::IFileSystem* fileSystem, const kx::CURI& uri,
                                               int64_t lineSectors, int64_t offsetSectors)
    : stream_(openVMDKFileStream(fileSystem, uri, kx::IIOStream::ACCESS_READ)),
      uri_(uri),
      lineBytes_(lineSectors * kSectorSizeBytes),
      offsetBytes_(offsetSectors * kSectorSizeBytes),
      lengthBytes_(stream_->getLength()) {}

CVMDKForeignFlatExtent::~CVMDKForeignFlatExtent() = default;

VMDKForeignGrainState CVMDKForeignFlatExtent::getState(int64_t offset, int64_t maxBytes, bool, int64_t& runBytes) {
  runBytes = std::min(maxBytes, lineBytes_ - offset);
  return VMDKForeignGrainState::Stored;
}

void CVMDKForeignFlatExtent::read(int64_t offset, void* buffer, int bytes) {
  const int64_t position = offsetBytes_ + offset;
  if (position > lengthBytes_ || bytes > lengthBytes_ - position) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK flat extent file ends before its extent line does.",
                       kx::CProps()
                           .add("uri", uri_.toString(true))
                           .add("position", position)
                           .add("bytesToRead", bytes)
                           .add("length", lengthBytes_));
  }
  stream_->seek(position);
  stream_->read(buffer, bytes);
}

bool CVMDKForeignFlatExtent::tryReadStoredGrain(int64_t, int64_t, kx::TBuffer<unsigned char>&) { return false; }

CVMDKForeignZeroExtent::CVMDKForeignZeroExtent(int64_t lineSectors) : lineBytes_(lineSectors * kSectorSizeBytes) {}

CVMDKForeignZeroExtent::~CVMDKForeignZeroExtent() = default;

VMDKForeignGrainState CVMDKForeignZeroExtent::getState(int64_t offset, int64_t maxBytes, bool, int64_t& runBytes) {
  runBytes = std::min(maxBytes, lineBytes_ - offset);
  return VMDKForeignGrainState::Zero;
}

void CVMDKForeignZeroExtent::read(int64_t, void* buffer, int bytes) {
  std::memset(buffer, 0, static_cast<size_t>(bytes));
}

bool CVMDKForeignZeroExtent::tryReadStoredGrain(int64_t, int64_t, kx::TBuffer<unsigned char>&) { return false; }

}  // namespace zarn
