#include "zarn/on_demand_extent_file.h"

#include "kx/data_stream.h"
#include "kx/error.h"
#include "zarn/format_constants.h"
#include "zarn/empty_extent_file.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/null_extent_file.h"
#include "zarn/sparse_extent_file.h"
#include "zarn/sparse_extent_header.h"

namespace zarn {

CVMDKOnDemandExtentFile::CVMDKOnDemandExtentFile(
    kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access, int64_t startGrainIndex,
    int64_t grainSizeSectors, int64_t extentSizeSectors, int64_t bytesPerSector, bool compressed,
    int compressionLevel, IVMDKDataProvider* provider, CVMDKGrainTableCache* cache,
    CVMDKContentIDUpdater* contentIDUpdater, brix::ICipher* cipher, const kx::TCryptBuffer<unsigned char>& key,
    const kx::TBuffer<unsigned char>& baseIV, const kx::TBuffer<unsigned char>& keyHash)
    : fileSystem_(kx::P<kx::IFileSystem>::share(fileSystem)),
      uri_(uri),
      access_(access),
      startGrainIndex_(startGrainIndex),
      grainSizeSectors_(grainSizeSectors),
      extentSizeSectors_(extentSizeSectors),
      bytesPerSector_(bytesPerSector),
      compressed_(compressed),
      compressionLevel_(compressionLevel),
      fallbackProvider_(kx::P<IVMDKDataProvider>::share(provider)),
      cache_(kx::P<CVMDKGrainTableCache>::share(cache)),
      contentIDUpdater_(kx::P<CVMDKContentIDUpdater>::share(contentIDUpdater)),
      cipher_(kx::P<brix::ICipher>::share(cipher)),
      key_(key),
      baseIV_(baseIV),
      keyHash_(keyHash) {
  updateInnerFileObject(!isExtentFileMade(fileSystem_.get(), uri_));
}

bool CVMDKOnDemandExtentFile::isExtentFileMade(kx::IFileSystem* fileSystem, const kx::CURI& uri) {
  if (!fileSystem->fileExists(uri)) return false;
  auto stream = openVMDKFileStream(fileSystem, uri, kx::IIOStream::ACCESS_READ);
  const int64_t length = stream->getLength();
  if (length < kSectorSizeBytes) return false;
  CVMDKSparseExtentHeader header;
  try {
    kx::CDataInStream in(*stream);
    header.load(in);
  } catch (const kx::CIOError&) {
    // A header that doesn't load isn't one that a finished making left.
    return false;
  }
  return header.getGrainDirectoryOffsetSectors() != 0 && header.getOverheadSectors() != 0 &&
         header.getOverheadSectors() <= static_cast<uint64_t>(length / kSectorSizeBytes);
}

CVMDKOnDemandExtentFile::~CVMDKOnDemandExtentFile() = default;

void CVMDKOnDemandExtentFile::updateInnerFileObject(bool useNullExtent) {
  const int64_t position = inner_ ? inner_->getPosition() : -1;
  kx::P<IVMDKExtentFile> fresh;
  if (useNullExtent) {
    fresh = kx::create<CVMDKNullExtentFile>(uri_, startGrainIndex_, grainSizeSectors_, extentSizeSectors_,
                                            bytesPerSector_, compressed_, compressionLevel_, fallbackProvider_.get());
  } else {
    auto stream = openVMDKFileStream(fileSystem_.get(), uri_, access_);
    fresh = kx::create<CVMDKSparseExtentFile>(stream.get(), access_, startGrainIndex_, compressionLevel_, cache_.get(),
                                              fallbackProvider_.get(), contentIDUpdater_.get(), cipher_.get(), key_,
                                              baseIV_);
  }
  inner_ = fresh;
  usingNullExtent_ = useNullExtent;
  if (position != -1) inner_->seek(position);
}

void CVMDKOnDemandExtentFile::prepareWrite() {
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError("Internal error: VMDK extent file is about to be changed, but it was not opened for writing.", "",
                     -1, kx::CProps().add("uri", uri_.toString(true)));
  }
  if (!usingNullExtent_) return;
  if (!isExtentFileMade(fileSystem_.get(), uri_)) {
    fileSystem_->deleteFile(uri_, true);
    kx::TBuffer<unsigned char> zeros(2048);
    createEmptyVMDKSparseExtentFile(fileSystem_.get(), uri_, compressed_, extentSizeSectors_ / grainSizeSectors_,
                                    grainSizeSectors_, zeros, nullptr, 0, keyHash_);
  }
  updateInnerFileObject(false);
}

void CVMDKOnDemandExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
  fallbackProvider_ = kx::P<IVMDKDataProvider>::share(provider);
  inner_->setFallbackDataProvider(provider);
}

void CVMDKOnDemandExtentFile::write(const void* data, int size) {
  prepareWrite();
  inner_->write(data, size);
}

void CVMDKOnDemandExtentFile::writePreparedGrainData(const kx::TBuffer<unsigned char>& data) {
  prepareWrite();
  inner_->writePreparedGrainData(data);
}

void CVMDKOnDemandExtentFile::writeStoredGrainData(const kx::TBuffer<unsigned char>& data) {
  prepareWrite();
  inner_->writeStoredGrainData(data);
}

int64_t CVMDKOnDemandExtentFile::makeGrainIndependentOfParent(int64_t grainIndex) {
  prepareWrite();
  return inner_->makeGrainIndependentOfParent(grainIndex);
}

}  // namespace zarn
