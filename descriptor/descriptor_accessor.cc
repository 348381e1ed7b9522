#include "zarn/descriptor_accessor.h"

#include <string>

#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/log.h"
#include "kx/random.h"
#include "zarn/format_constants.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/sparse_extent_header.h"

namespace zarn {
namespace {

kx::CProps uriProps(kx::IIOStream& stream) { return kx::CProps().add("uri", stream.getURI().toString(true)); }

// Puts the stream back after a failure. The error that brought us here is
// the one worth reporting, so a second one from the seek is dropped.
void seekBackQuietly(kx::IIOStream& stream, int64_t position) noexcept {
  try {
    stream.seek(position);
  } catch (const std::exception&) {
  }
}

}  // namespace

CVMDKDescriptorAccessor::CVMDKDescriptorAccessor(kx::IIOStream* stream, kx::IIOStream::Access access)
    : stream_(kx::P<kx::IIOStream>::share(stream)), access_(access) {
  if (!stream_) throw kx::CError("Internal error: CVMDKDescriptorAccessor was given no stream.");
  const int64_t startPosition = stream_->getPosition();
  try {
    readDescriptor();
    stream_->seek(startPosition);
  } catch (const kx::CError&) {
    seekBackQuietly(*stream_, startPosition);
    throw;
  }
}

CVMDKDescriptorAccessor::~CVMDKDescriptorAccessor() = default;

void CVMDKDescriptorAccessor::readDescriptor() {
  kx::IIOStream& stream = *stream_;
  kx::CDataInStream in(stream);
  stream.seek(0);
  unsigned char head[4] = {};
  const uint32_t magic = stream.readLax(head, sizeof head) == sizeof head
                             ? uint32_t{head[0]} | uint32_t{head[1]} << 8 | uint32_t{head[2]} << 16 |
                                   uint32_t{head[3]} << 24
                             : 0;
  if (magic == CVMDKSparseExtentHeader::kMagic || magic == CVMDKSparseExtentHeader::kMagicEncrypted) {
    embeddedInSparseExtentFile_ = true;
    verifyVMDKSparseExtentHeaderFits(stream);
    stream.seek(0);
    CVMDKSparseExtentHeader header;
    header.load(in);
    const uint32_t version = header.getVersion();
    if (version < 1 || version > 3) {
      throw kx::CIOError(
          kx::IOERR_UNSUPPORTED_VERSION,
          kx::String("VMDK file has an unsupported version: ") + kx::String(std::to_string(version)),
          uriProps(stream));
    }
    const uint64_t offsetSectors = header.getDescriptorOffsetSectors();
    const uint64_t sizeSectors = header.getDescriptorSizeSectors();
    if (offsetSectors < 1 || sizeSectors < 1) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "No VMDK descriptor found in VMDK file.", uriProps(stream));
    }
    // Counted in sectors first: in bytes, a count far beyond any file would
    // wrap round to a small one that looks right.
    if (!tryVMDKSectorsToBytes(sizeSectors, descriptorSize_)) {
      throw kx::CIOError(
          kx::IOERR_DAMAGED_DATA,
          kx::String("VMDK descriptor is too big (") + kx::String(std::to_string(sizeSectors)) + " sectors).",
          uriProps(stream));
    }
    checkSize(stream);
    const int64_t length = stream.getLength();
    if (!tryVMDKSectorsToBytes(offsetSectors, descriptorOffset_) || descriptorOffset_ > length ||
        descriptorSize_ > length - descriptorOffset_) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK descriptor area lies beyond the end of the file.",
                         uriProps(stream)
                             .add("descriptorOffsetSectors", offsetSectors)
                             .add("descriptorSizeSectors", sizeSectors)
                             .add("length", length));
    }
  } else {
    // Descriptor files are plain text, so not finding a header is the normal
    // case for them.
    kx::logInfo(kx::String("Unsupported VMDK type identifier (0x") + kx::String::Format("%x", magic) +
                "). Handle as not embedded descriptor...");
    embeddedInSparseExtentFile_ = false;
    descriptorOffset_ = 0;
    descriptorSize_ = stream.getLength();
    checkSize(stream);
  }
  kx::TBuffer<unsigned char> area(static_cast<size_t>(descriptorSize_));
  stream.seek(descriptorOffset_);
  stream.read(area.getData(), static_cast<int>(descriptorSize_));
  descriptor_ = kx::create<CVMDKDescriptor>(area);
}

void CVMDKDescriptorAccessor::checkSize(kx::IIOStream& stream) const {
  if (descriptorSize_ > kMaxDescriptorSizeBytes) {
    throw kx::CIOError(
        kx::IOERR_DAMAGED_DATA,
        kx::String("VMDK descriptor is too big (") + kx::String(std::to_string(descriptorSize_)) + " bytes).",
        uriProps(stream));
  }
}

uint32_t CVMDKDescriptorAccessor::changeContentID() {
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError(
        "Internal error: CVMDKDescriptorAccessor::changeContentID was called, but the accessor was not "
        "opened for writing.");
  }
  const uint32_t oldContentID = descriptor_->getContentID();
  uint32_t contentID = 0;
  do {
    kx::CMutexLock lock(kx::CMTRand::getGlobalInstanceMutex());
    contentID = kx::CMTRand::getGlobal().rand32();
  } while (contentID == 0 || contentID == kNoParentContentID || contentID == oldContentID);
  descriptor_->setContentID(contentID);
  return contentID;
}

void CVMDKDescriptorAccessor::setReplaceableFile(kx::IFileSystem* fileSystem, const kx::CURI& uri) {
  fileSystem_ = kx::P<kx::IFileSystem>::share(fileSystem);
  fileURI_ = uri;
}

void CVMDKDescriptorAccessor::replaceDescriptorFile() {
  descriptor_->setEncodingUTF8();
  const int64_t size = static_cast<int64_t>(descriptor_->toString().toUTF8().size());
  if (size > kMaxDescriptorSizeBytes) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                       kx::String("VMDK descriptor is too big (") + kx::String(std::to_string(size)) + " bytes).",
                       kx::CProps().add("uri", fileURI_.toString(true)));
  }
  const kx::CURI newURI = fileURI_.getParent() << (fileURI_.getName() + ".new");
  try {
    fileSystem_->deleteFile(newURI, true);
    {
      kx::P<kx::IIOStream> stream = openVMDKFileStream(fileSystem_.get(), newURI, kx::IIOStream::ACCESS_READ_WRITE);
      descriptor_->store(*stream, static_cast<int>(size), kx::TBuffer<unsigned char>());
      // The new text is on the device before its name replaces the old one.
      stream->flush();
      stream->close();
    }
    fileSystem_->renameFile(newURI, fileURI_);
  } catch (const kx::CError&) {
    try {
      fileSystem_->deleteFile(newURI, true);
    } catch (const kx::CError& error) {
      kx::logWarning(error, "Could not remove the unfinished new VMDK descriptor file. Ignoring.");
    }
    throw;
  }
  descriptorSize_ = size;
}

void CVMDKDescriptorAccessor::storeDescriptor(bool flush) {
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError(
        "Internal error: CVMDKDescriptorAccessor::storeDescriptor was called, but the accessor was not "
        "opened for writing.");
  }
  if (!embeddedInSparseExtentFile_ && fileSystem_) {
    replaceDescriptorFile();
    return;
  }
  const int64_t position = stream_->getPosition();
  try {
    stream_->seek(descriptorOffset_);
    const kx::TBuffer<unsigned char> padBuffer(static_cast<size_t>(descriptorSize_));
    descriptor_->store(*stream_, static_cast<int>(descriptorSize_), padBuffer);
    if (flush) stream_->flush();
    stream_->seek(position);
  } catch (const kx::CError&) {
    seekBackQuietly(*stream_, position);
    throw;
  }
}

}  // namespace zarn
