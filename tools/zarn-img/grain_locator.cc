#include "grain_locator.h"

#include <algorithm>

#include "kx/data_stream.h"
#include "zarn/descriptor.h"
#include "zarn/extent_info.h"
#include "zarn/file_reference.h"
#include "zarn/sparse_extent_header.h"

namespace zarn_img {

namespace {

constexpr int64_t kSectorBytes = 512;

}  // namespace

CGrainLocator::CGrainLocator(CToolContext& context, const CChainLevel& level) : context_(context) {
  const kx::P<zarn::CVMDKDescriptor> descriptor = level.disk->getDescriptor();
  plain_ = !level.disk->getCompressed() && descriptor->getKxEncryptionAlgorithm().isEmpty();
  kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
  descriptor->getExtentEntries(extents);
  const kx::CURI folder = level.disk->getMainFileURI().getParent();
  int64_t start = 0;
  for (const auto& extent : extents) {
    extents_.push_back({start, extent->getSizeSectors() * kSectorBytes,
                        zarn::vmdkFileReferenceToURI(folder, extent->getFilename()).toNormalized()});
    start += extent->getSizeSectors() * kSectorBytes;
  }
}

bool CGrainLocator::locate(int64_t position, std::string& file, int64_t& offset) {
  const CExtent* extent = find(position, offset);
  if (!extent) return false;
  file = context_.getDisplayName(extent->uri);
  return true;
}

bool CGrainLocator::locate(int64_t position, kx::P<kx::IIOStream>& stream, int64_t& offset) {
  if (!find(position, offset)) return false;
  stream = stream_;
  return true;
}

const CGrainLocator::CExtent* CGrainLocator::find(int64_t position, int64_t& offset) {
  if (!plain_) return nullptr;
  const auto extent = std::find_if(extents_.begin(), extents_.end(), [position](const CExtent& e) {
    return position >= e.startBytes && position < e.startBytes + e.sizeBytes;
  });
  if (extent == extents_.end()) return nullptr;
  const size_t index = static_cast<size_t>(extent - extents_.begin());
  if (index != openIndex_) open(index);
  const int64_t within = position - extent->startBytes;
  int64_t slotSectors = 0;
  int64_t slotSize = 0;
  directory_->getGrainInfo(within / grainBytes_, slotSectors, slotSize);
  if (slotSectors <= 0) return nullptr;
  offset = slotSectors * kSectorBytes + within % grainBytes_;
  return &*extent;
}

void CGrainLocator::open(size_t index) {
  directory_ = nullptr;
  openIndex_ = static_cast<size_t>(-1);
  int flags = 0;
  stream_ = context_.getFileSystem()->openFile(extents_[index].uri, kx::IIOStream::ACCESS_READ, flags);
  zarn::CVMDKSparseExtentHeader header;
  kx::CDataInStream in(*stream_);
  header.load(in);
  grainBytes_ = static_cast<int64_t>(header.getGrainSizeSectors()) * kSectorBytes;
  directory_ = kx::create<zarn::CVMDKGrainDirectory>(
      stream_.get(), kx::IIOStream::ACCESS_READ, static_cast<int64_t>(header.getGrainDirectoryOffsetSectors()),
      static_cast<int64_t>(header.getRedundantGrainDirectoryOffsetSectors()),
      static_cast<int64_t>(header.getCapacitySectors()), static_cast<int64_t>(header.getGrainSizeSectors()),
      static_cast<int32_t>(header.getGrainTableEntryCount()), false, cache_.get());
  openIndex_ = index;
}

}  // namespace zarn_img
