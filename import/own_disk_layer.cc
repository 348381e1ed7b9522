#include "import/own_disk_layer.h"

#include <algorithm>

namespace zarn {

CVMDKOwnDiskLayer::CVMDKOwnDiskLayer(CVMDKDisk* disk) : disk_(kx::P<CVMDKDisk>::share(disk)) {}

CVMDKOwnDiskLayer::~CVMDKOwnDiskLayer() = default;

VMDKForeignGrainState CVMDKOwnDiskLayer::getState(int64_t position, int64_t maxBytes, bool, int64_t& runBytes) {
  const int64_t grain = disk_->getGrainSizeBytes();
  runBytes = std::min({maxBytes, grain - position % grain, disk_->getSizeBytes() - position});
  disk_->seek(position);
  return disk_->isGrainWrittenAndIndependentOfParent() ? VMDKForeignGrainState::Stored
                                                        : VMDKForeignGrainState::Absent;
}

void CVMDKOwnDiskLayer::read(int64_t position, void* buffer, int bytes) {
  disk_->seek(position);
  disk_->read(buffer, bytes);
}

bool CVMDKOwnDiskLayer::tryReadStoredGrain(int64_t position, int64_t grainBytes, kx::TBuffer<unsigned char>& data) {
  if (!disk_->getCompressed() || disk_->getGrainSizeBytes() != grainBytes || position % grainBytes != 0 ||
      grainBytes > disk_->getSizeBytes() - position) {
    return false;
  }
  disk_->seek(position);
  if (!disk_->isGrainWrittenAndIndependentOfParent()) return false;
  disk_->seek(position);
  disk_->readPreparedGrainData(data);
  return true;
}

}  // namespace zarn
