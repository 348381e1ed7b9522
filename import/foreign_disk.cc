#include "zarn/foreign_disk.h"

#include <algorithm>
#include <cstring>

#include "import/descriptor_layer.h"
#include "import/own_disk_layer.h"
#include "kx/data_stream.h"
#include "kx/error.h"
#include "zarn/disk.h"
#include "zarn/file_reference.h"
#include "zarn/format_constants.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/sparse_extent_header.h"

namespace zarn {
namespace {

// Header flag bit 2: grain table entries of 1 are zeroed grains.
constexpr uint32_t kFlagZeroedGrainEntries = 0x00000004;

kx::String hex(uint32_t value) { return kx::String::Format("%x", value); }

// Whether the first extent of a disk that CVMDKDisk opened announces zeroed
// grains: CVMDKDisk refuses those only when it meets one, so such a disk is
// read as a foreign one.
bool announcesZeroedGrains(kx::IFileSystem* fileSystem, CVMDKDisk& disk) {
  auto stream = openVMDKFileStream(fileSystem, disk.getFirstExtentFileURI(), kx::IIOStream::ACCESS_READ);
  verifyVMDKSparseExtentHeaderFits(*stream);
  stream->seek(0);
  kx::CDataInStream in(*stream);
  CVMDKSparseExtentHeader header;
  header.load(in);
  return (header.getFlags() & kFlagZeroedGrainEntries) != 0;
}

}  // namespace

CVMDKForeignDisk::CVMDKForeignDisk(kx::IFileSystem* fileSystem, const kx::CURI& mainFile, const kx::String& password)
    : fileSystem_(kx::P<kx::IFileSystem>::share(fileSystem)), password_(password) {
  if (!fileSystem_) throw kx::CError("Internal error: CVMDKForeignDisk needs a file system.");
  unpacker_ = kx::create<CVMDKForeignGrainUnpacker>();
  ownLayer_ = kx::create<CVMDKForeignDescriptorLayer>(fileSystem, mainFile, unpacker_.get());
  layers_.push_back(ownLayer_);
  mainURI_ = ownLayer_->getMainFileURI();
  sizeBytes_ = ownLayer_->getSizeBytes();
  grainSizeBytes_ = ownLayer_->getGrainSizeSectors() * kSectorSizeBytes;
  compressed_ = ownLayer_->getCompressed();
  // A parent reference that can't be understood spoils the disk as a whole,
  // so it is refused here, as CVMDKDisk does; the parent opens when needed.
  getParentDiskMainURI();
}

CVMDKForeignDisk::~CVMDKForeignDisk() = default;

kx::CProps CVMDKForeignDisk::mainProps() const { return kx::CProps().add("uri", mainURI_.toString(true)); }

kx::P<CVMDKDescriptor> CVMDKForeignDisk::getDescriptor() const { return ownLayer_->getDescriptor(); }

kx::String CVMDKForeignDisk::getCreateType() const { return ownLayer_->getCreateType(); }

kx::TArray<kx::CURI> CVMDKForeignDisk::getExtentFiles() const { return ownLayer_->getExtentFiles(); }

kx::String CVMDKForeignDisk::getForeignReason() const { return ownLayer_->getForeignReason(); }

kx::CURI CVMDKForeignDisk::getParentDiskMainURI() const {
  const kx::P<CVMDKDescriptor> descriptor = ownLayer_->getDescriptor();
  uint32_t parentContentID = kNoParentContentID;
  try {
    parentContentID = descriptor->getParentContentID();
  } catch (const kx::CError& error) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK descriptor has an invalid parent content ID.", mainProps(),
                       &error);
  }
  if (parentContentID == kNoParentContentID) return kx::CURI();
  kx::String hint;
  if (!descriptor->tryGetParentFileNameHint(hint) || hint.isEmpty()) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK disk has a parent content ID but names no parent file.",
                       mainProps());
  }
  try {
    return vmdkFileReferenceToURI(mainURI_.getParent(), hint);
  } catch (const kx::CError& error) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent file name is invalid: '" + hint + "'.", mainProps(),
                       &error);
  }
}

// --- the chain ---------------------------------------------------------------

kx::P<IVMDKForeignLayer> CVMDKForeignDisk::openParentLayer(const kx::CURI& uri) {
  kx::P<CVMDKDisk> own;
  try {
    if (!grainTableCache_) grainTableCache_ = kx::create<CVMDKGrainTableCache>(CVMDKGrainTableCache::kDefaultLimit);
    own = kx::create<CVMDKDisk>(fileSystem_.get(), uri, kx::IIOStream::ACCESS_READ, password_, -1,
                                grainTableCache_.get(), nullptr);
    if (!announcesZeroedGrains(fileSystem_.get(), *own)) return kx::create<CVMDKOwnDiskLayer>(own.get());
    own = nullptr;
  } catch (const kx::CError& ownError) {
    try {
      return kx::create<CVMDKForeignDescriptorLayer>(fileSystem_.get(), uri, unpacker_.get());
    } catch (const kx::CIOError& foreignError) {
      // Only this library's disks are encrypted: its own error says more.
      if (foreignError.getCode() == kx::IOERR_NOT_SUPPORTED) ownError.rethrowCopy();
      throw;
    }
  }
  return kx::create<CVMDKForeignDescriptorLayer>(fileSystem_.get(), uri, unpacker_.get());
}

bool CVMDKForeignDisk::ensureLayer(int depth) {
  while (static_cast<int>(layers_.size()) <= depth) {
    if (chainComplete_) return false;
    const IVMDKForeignLayer& child = *layers_.back();
    const kx::CURI childURI = child.getMainFileURI();
    const kx::P<CVMDKDescriptor> descriptor = child.getDescriptor();
    const auto childProps = [&] { return kx::CProps().add("uri", childURI.toString(true)); };
    uint32_t parentContentID = kNoParentContentID;
    kx::String hint;
    kx::CURI parentURI;
    try {
      parentContentID = descriptor->getParentContentID();
      if (parentContentID == kNoParentContentID) {
        chainComplete_ = true;
        return false;
      }
      if (!descriptor->tryGetParentFileNameHint(hint) || hint.isEmpty()) {
        throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK disk has a parent content ID but names no parent file.",
                           childProps());
      }
      parentURI = vmdkFileReferenceToURI(childURI.getParent(), hint);
    } catch (const kx::CIOError&) {
      throw;
    } catch (const kx::CError& error) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK disk has an invalid parent reference.", childProps(), &error);
    }
    // A disk moved from another machine keeps an absolute parent path that
    // means nothing here; a parent of that name beside the child is the one.
    if (!fileSystem_->fileExists(parentURI)) {
      const kx::CURI beside = childURI.getParent() << parentURI.getName();
      if (fileSystem_->fileExists(beside)) parentURI = beside;
    }
    parentURI = parentURI.toNormalized();
    for (const auto& layer : layers_) {
      if (layer->getMainFileURI() == parentURI) {
        throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent chain leads back to a disk already in it.",
                           childProps().add("parentURI", parentURI.toString(true)));
      }
    }
    if (layers_.size() > static_cast<size_t>(kMaxChainDepth)) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent chain is too deep.",
                         childProps().add("parentURI", parentURI.toString(true)).add("maxDepth", kMaxChainDepth));
    }
    kx::P<IVMDKForeignLayer> parent = openParentLayer(parentURI);
    uint32_t actual = 0;
    try {
      actual = parent->getDescriptor()->getContentID();
    } catch (const kx::CError& error) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent disk has no valid content ID.",
                         kx::CProps().add("uri", parentURI.toString(true)), &error);
    }
    if (actual != parentContentID) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent disk has changed, but a child disk depended on it.",
                         kx::CProps()
                             .add("uri", childURI.toString(true))
                             .add("parentURI", parentURI.toString(true))
                             .add("expectedContentID", hex(parentContentID))
                             .add("actualContentID", hex(actual)));
    }
    layers_.push_back(parent);
  }
  return true;
}

kx::CURI CVMDKForeignDisk::getChainDiskURI(int depth) {
  if (depth < 0 || !ensureLayer(depth)) {
    throw kx::CInvalidArgError("CVMDKForeignDisk::getChainDiskURI",
                               kx::String::Format("No disk at depth %d of the chain.", depth), mainProps());
  }
  return layers_[static_cast<size_t>(depth)]->getMainFileURI();
}

int CVMDKForeignDisk::resolve(int64_t position, int64_t maxBytes, bool exact, int64_t& runBytes) {
  runBytes = maxBytes;
  for (int depth = 0;; ++depth) {
    if (!ensureLayer(depth)) return -1;
    IVMDKForeignLayer& layer = *layers_[static_cast<size_t>(depth)];
    const int64_t size = layer.getSizeBytes();
    // Past the end of a smaller parent everything reads as zeros.
    if (position >= size) return -1;
    int64_t run = 0;
    const VMDKForeignGrainState state = layer.getState(position, std::min(runBytes, size - position), exact, run);
    runBytes = run;
    if (state == VMDKForeignGrainState::Stored) return depth;
    if (state == VMDKForeignGrainState::Zero) return -1;
  }
}

// --- reading -----------------------------------------------------------------

void CVMDKForeignDisk::readAt(int64_t position, unsigned char* out, int64_t bytes) {
  for (int64_t done = 0; done < bytes;) {
    int64_t run = 0;
    const int depth = resolve(position + done, bytes - done, false, run);
    if (depth < 0) {
      std::memset(out + done, 0, static_cast<size_t>(run));
    } else {
      layers_[static_cast<size_t>(depth)]->read(position + done, out + done, static_cast<int>(run));
    }
    done += run;
  }
}

void CVMDKForeignDisk::read(void* buffer, int bytes) {
  if (bytes < 0) {
    throw kx::CInvalidArgError("CVMDKForeignDisk::read", kx::String::Format("Invalid number of bytes to read: %d", bytes),
                               mainProps());
  }
  if (int64_t{bytes} > sizeBytes_ - position_) {
    throw kx::CIOError(kx::IOERR_READ_PAST_END, "Read exceeds VMDK disk size.",
                       mainProps().add("position", position_).add("bytesToRead", bytes));
  }
  readAt(position_, static_cast<unsigned char*>(buffer), bytes);
  position_ += bytes;
}

void CVMDKForeignDisk::write(const void*, int) {
  throw kx::CIOError(kx::IOERR_NOT_SUPPORTED,
                     "VMDK disk was made by another tool and is read-only here; convert it into a disk of this "
                     "library before changing it.",
                     mainProps());
}

void CVMDKForeignDisk::seek(int64_t position) {
  if (position < 0 || position > sizeBytes_) {
    throw kx::CIOError(kx::IOERR_BAD_SEEK_POSITION,
                       kx::String::Format("Bad seek position in VMDK disk: %lld", static_cast<long long>(position)),
                       mainProps().add("diskSize", sizeBytes_));
  }
  position_ = position;
}

bool CVMDKForeignDisk::isGrainWritten() { return getAllocationDepth() >= 0; }

int CVMDKForeignDisk::getAllocationDepth() {
  const int64_t start = position_ - position_ % grainSizeBytes_;
  const int64_t end = std::min(sizeBytes_, start + grainSizeBytes_);
  int found = -1;
  for (int64_t at = start; at < end;) {
    int64_t run = 0;
    const int depth = resolve(at, end - at, true, run);
    if (depth >= 0 && (found < 0 || depth < found)) found = depth;
    if (found == 0) break;
    at += run;
  }
  return found;
}

kx::P<CVMDKDataPreparer> CVMDKForeignDisk::createDataPreparer() const {
  return kx::create<CVMDKDataPreparer>(grainSizeBytes_ / kSectorSizeBytes, compressed_, -1);
}

void CVMDKForeignDisk::readPreparedGrainData(kx::TBuffer<unsigned char>& data) {
  if (grainSizeBytes_ > sizeBytes_ - position_) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET, "Prepared grain read exceeds VMDK disk size.",
                       mainProps().add("position", position_).add("grainSize", grainSizeBytes_).add("diskSize", sizeBytes_));
  }
  if (position_ % grainSizeBytes_ != 0) {
    throw kx::CIOError(kx::IOERR_NOT_ON_GRAIN_BOUNDARY,
                       "Prepared grain read in VMDK disk can only be done on a grain boundary.",
                       mainProps().add("position", position_).add("grainSize", grainSizeBytes_));
  }
  const int64_t grainIndex = position_ / grainSizeBytes_;
  const auto grainBytes = static_cast<size_t>(grainSizeBytes_);
  if (!compressed_) {
    data.setUsed(grainBytes);
    readAt(position_, data.getData(), grainSizeBytes_);
    position_ += grainSizeBytes_;
    return;
  }
  if (!preparer_) preparer_ = createDataPreparer();
  int64_t run = 0;
  const int depth = resolve(position_, grainSizeBytes_, false, run);
  if (run == grainSizeBytes_ && depth >= 0 &&
      layers_[static_cast<size_t>(depth)]->tryReadStoredGrain(position_, grainSizeBytes_, data)) {
    // As stored, with this disk's grain address and padded like a prepared
    // grain of this library.
    const size_t end = kVMDKGrainHeaderSize + size_t{readLE32(data.getData() + 8)};
    if (data.getUsed() < end) {
      throw kx::CError("Internal error: a stored VMDK grain is shorter than its header says.", "", -1, mainProps());
    }
    const size_t padded = (end + kSectorSize - 1) / kSectorSize * kSectorSize;
    data.setUsed(padded);
    std::memset(data.getData() + end, 0, padded - end);
    preparer_->patchGrainIndexInPreparedGrainData(data, grainIndex);
    position_ += grainSizeBytes_;
    return;
  }
  if (run == grainSizeBytes_ && depth < 0) {
    if (!preparedZeroGrain_) {
      kx::TBuffer<unsigned char> zeros(grainBytes), aux;
      preparedZeroGrain_ = kx::create<kx::TBuffer<unsigned char>>(*preparer_->prepareGrainData(&zeros, 0, &aux));
    }
    data = *preparedZeroGrain_;
  } else {
    if (!plainGrain_) plainGrain_ = kx::create<kx::TBuffer<unsigned char>>(grainBytes);
    readAt(position_, plainGrain_->getData(), grainSizeBytes_);
    const kx::P<kx::TBuffer<unsigned char>> prepared = preparer_->prepareGrainData(plainGrain_.get(), grainIndex, &data);
    if (prepared.get() != &data) data = *prepared;
  }
  preparer_->patchGrainIndexInPreparedGrainData(data, grainIndex);
  position_ += grainSizeBytes_;
}

}  // namespace zarn
