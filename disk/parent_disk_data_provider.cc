#include "zarn/parent_disk_data_provider.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "kx/error.h"
#include "kx/log.h"
#include "zarn/disk.h"
#include "zarn/file_reference.h"

namespace zarn {
namespace {

// The children whose reads are passing through this thread right now, from
// the disk the caller opened to the one asking. A parent is reached through
// such nested calls, so this is the chain above it: its depth bounds the
// recursion, and a parent already in it closes a loop.
thread_local std::vector<kx::CURI> t_activeChain;

class CChainLink {
 public:
  explicit CChainLink(const kx::CURI& child) { t_activeChain.push_back(child); }
  ~CChainLink() { t_activeChain.pop_back(); }
  CChainLink(const CChainLink&) = delete;
  CChainLink& operator=(const CChainLink&) = delete;
};

}  // namespace

CVMDKParentDiskDataProvider::CVMDKParentDiskDataProvider(kx::IFileSystem* fileSystem, const kx::CURI& childMainFileURI,
                                                         uint32_t parentContentID, const kx::String& parentFileNameHint,
                                                         int64_t grainSizeSectors, const kx::String& password,
                                                         int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                                                         CVMDKDisk* parentDisk)
    : fileSystem_(kx::P<kx::IFileSystem>::share(fileSystem)),
      childMainFileURI_(childMainFileURI.toNormalized()),
      parentContentID_(parentContentID),
      parentFileNameHint_(parentFileNameHint),
      grainSizeSectors_(grainSizeSectors),
      compressionLevel_(compressionLevel),
      grainTableCache_(kx::P<CVMDKGrainTableCache>::share(grainTableCache)),
      parentDiskMainFileURI_(vmdkFileReferenceToURI(childMainFileURI_.getParent(), parentFileNameHint)),
      parentDisk_(kx::P<CVMDKDisk>::share(parentDisk)),
      password_(password) {
  if (parentDisk_) parentDiskSize_ = parentDisk_->getSizeBytes();
}

CVMDKParentDiskDataProvider::~CVMDKParentDiskDataProvider() = default;

void CVMDKParentDiskDataProvider::ensureParentDiskOpen() {
  if (parentDisk_) return;
  try {
    // A disk moved from another machine keeps an absolute parent path that
    // means nothing here; a parent of that name beside the child is the one.
    if (!fileSystem_->fileExists(parentDiskMainFileURI_)) {
      const kx::CURI beside = childMainFileURI_.getParent() << parentDiskMainFileURI_.getName();
      if (fileSystem_->fileExists(beside)) parentDiskMainFileURI_ = beside.toNormalized();
    }
    const auto& chain = t_activeChain;
    if (std::find(chain.begin(), chain.end(), parentDiskMainFileURI_) != chain.end()) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent chain leads back to a disk already in it.",
                         kx::CProps().add("parentURI", parentDiskMainFileURI_.toString(true)));
    }
    if (chain.size() > static_cast<size_t>(kMaxChainDepth)) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent chain is too deep.",
                         kx::CProps()
                             .add("parentURI", parentDiskMainFileURI_.toString(true))
                             .add("maxDepth", kMaxChainDepth));
    }
    auto parent = kx::create<CVMDKDisk>(fileSystem_.get(), parentDiskMainFileURI_, kx::IIOStream::ACCESS_READ,
                                        password_, compressionLevel_, grainTableCache_.get(), nullptr);
    const uint32_t actual = parent->getDescriptor()->getContentID();
    if (actual != parentContentID_) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent disk has changed, but a child disk depended on it.",
                         kx::CProps()
                             .add("parentURI", parentDiskMainFileURI_.toString(true))
                             .add("childURI", childMainFileURI_.toString(true))
                             .add("expectedContentID", kx::String(kx::String::Format("%x", parentContentID_)))
                             .add("actualContentID", kx::String(kx::String::Format("%x", actual))));
    }
    parentDisk_ = parent;
    parentDiskSize_ = parentDisk_->getSizeBytes();
  } catch (const kx::CError& error) {
    kx::logError(error, "Error while opening VMDK parent disk (parent URI: '" + parentDiskMainFileURI_.toString(true) +
                            "', child URI: '" + childMainFileURI_.toString(true) + "')");
    throw;
  }
}

void CVMDKParentDiskDataProvider::getData(int64_t position, void* buffer, int size) {
  CChainLink link(childMainFileURI_);
  ensureParentDiskOpen();
  auto* out = static_cast<unsigned char*>(buffer);
  if (position >= parentDiskSize_) {
    std::memset(out, 0, static_cast<size_t>(size));
    return;
  }
  parentDisk_->seek(position);
  const int64_t available = parentDiskSize_ - position;
  const int fromParent = static_cast<int>(std::min<int64_t>(size, available));
  parentDisk_->read(out, fromParent);
  if (size > fromParent) std::memset(out + fromParent, 0, static_cast<size_t>(size - fromParent));
}

bool CVMDKParentDiskDataProvider::isGrainWritten(int64_t position) {
  CChainLink link(childMainFileURI_);
  ensureParentDiskOpen();
  if (position >= parentDiskSize_) return false;
  parentDisk_->seek(position);
  return parentDisk_->isGrainWritten();
}

void CVMDKParentDiskDataProvider::getPreparedGrainData(int64_t position, kx::TBuffer<unsigned char>& buffer,
                                                       int grainSizeBytes, bool compressed) {
  CChainLink link(childMainFileURI_);
  ensureParentDiskOpen();
  if (parentDisk_->getGrainSizeBytes() != grainSizeBytes || parentDisk_->getCompressed() != compressed) {
    throw kx::CError("Parent disk is incompatible with diff disk.", "", -1,
                     kx::CProps()
                         .add("parentURI", parentDiskMainFileURI_.toString(true))
                         .add("childURI", childMainFileURI_.toString(true))
                         .add("expectedGrainSize", grainSizeBytes)
                         .add("expectedCompressed", compressed ? "true" : "false")
                         .add("actualGrainSize", parentDisk_->getGrainSizeBytes())
                         .add("actualCompressed", parentDisk_->getCompressed() ? "true" : "false"));
  }
  if (position < parentDiskSize_) {
    parentDisk_->seek(position);
    parentDisk_->readPreparedGrainData(buffer);
    return;
  }
  // Past a smaller parent's end a grain is zeros, prepared once.
  if (!zeroGrainPreparer_) zeroGrainPreparer_ = parentDisk_->createDataPreparer();
  if (!zeroGrainSource_) {
    zeroGrainSource_ = kx::create<kx::TBuffer<unsigned char>>(static_cast<size_t>(grainSizeBytes));
    zeroGrainSource_->fill(0);
  }
  if (!zeroGrainAuxBuffer_) zeroGrainAuxBuffer_ = kx::create<kx::TBuffer<unsigned char>>();
  if (!preparedZeroGrain_) {
    preparedZeroGrain_ = zeroGrainPreparer_->prepareGrainData(zeroGrainSource_.get(), 0, zeroGrainAuxBuffer_.get());
  }
  buffer = *preparedZeroGrain_;
  zeroGrainPreparer_->patchGrainIndexInPreparedGrainData(buffer, position / grainSizeBytes);
}

}  // namespace zarn
