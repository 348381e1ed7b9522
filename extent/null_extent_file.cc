#include "zarn/null_extent_file.h"

#include <cstring>

#include "extent/prepared_range.h"
#include "kx/error.h"

namespace zarn {

CVMDKNullExtentFile::CVMDKNullExtentFile(const kx::CURI& uri, int64_t startGrainIndex, int64_t grainSizeSectors,
                                         int64_t extentSizeSectors, int64_t bytesPerSector, bool compressed,
                                         int compressionLevel, IVMDKDataProvider* provider)
    : uri_(uri),
      startGrainIndex_(startGrainIndex),
      grainSizeSectors_(grainSizeSectors),
      extentSizeSectors_(extentSizeSectors),
      bytesPerSector_(bytesPerSector),
      compressed_(compressed),
      compressionLevel_(compressionLevel),
      grainSizeBytes_(bytesPerSector * grainSizeSectors),
      extentSizeBytes_(bytesPerSector * extentSizeSectors),
      fallbackProvider_(kx::P<IVMDKDataProvider>::share(provider)) {}

CVMDKNullExtentFile::~CVMDKNullExtentFile() = default;

kx::CProps CVMDKNullExtentFile::uriProps() const { return kx::CProps().add("uri", uri_.toString(true)); }

void CVMDKNullExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
  fallbackProvider_ = kx::P<IVMDKDataProvider>::share(provider);
}

void CVMDKNullExtentFile::seek(int64_t position) {
  if (position < 0 || position > extentSizeBytes_) {
    throw kx::CInvalidArgError("CVMDKNullExtentFile::seek",
                               kx::String::Format("Invalid position: %lld", static_cast<long long>(position)),
                               uriProps());
  }
  position_ = position;
}

void CVMDKNullExtentFile::read(void* data, int size) {
  if (size < 0 || position_ + size > extentSizeBytes_) {
    throw kx::CIOError(kx::IOERR_READ_PAST_END, "Unexpected end of data reading from VMDK null extent file.",
                       uriProps().add("position", position_).add("bytesToRead", size));
  }
  if (fallbackProvider_) {
    fallbackProvider_->getData(startGrainIndex_ * grainSizeBytes_ + position_, data, size);
  } else {
    std::memset(data, 0, static_cast<size_t>(size));
  }
  position_ += size;
}

void CVMDKNullExtentFile::write(const void*, int) {
  throw kx::CError("Internal error: write method called on VMDK null extent file.", "", -1, uriProps());
}

void CVMDKNullExtentFile::writePreparedGrainData(const kx::TBuffer<unsigned char>&) {
  throw kx::CError("Internal error: writePreparedGrainData method called on VMDK null extent file.", "", -1,
                   uriProps());
}

void CVMDKNullExtentFile::writeStoredGrainData(const kx::TBuffer<unsigned char>&) {
  throw kx::CError("Internal error: writeStoredGrainData method called on VMDK null extent file.", "", -1,
                   uriProps());
}

bool CVMDKNullExtentFile::readStoredGrainData(kx::TBuffer<unsigned char>& data) {
  checkPreparedGrainRange(true, position_, grainSizeBytes_, extentSizeBytes_, uriProps());
  data.setUsed(0);
  position_ += grainSizeBytes_;
  return false;
}

int64_t CVMDKNullExtentFile::makeGrainIndependentOfParent(int64_t) {
  throw kx::CError("Internal error: makeGrainIndependentOfParent method called on VMDK null extent file.", "", -1,
                   uriProps());
}

kx::P<CVMDKDataPreparer> CVMDKNullExtentFile::createDataPreparer() {
  return kx::create<CVMDKDataPreparer>(grainSizeSectors_, compressed_, compressionLevel_);
}

void CVMDKNullExtentFile::readPreparedGrainData(kx::TBuffer<unsigned char>& data) {
  checkPreparedGrainRange(true, position_, grainSizeBytes_, extentSizeBytes_, uriProps());
  const int64_t diskGrainIndex = startGrainIndex_ + position_ / grainSizeBytes_;
  if (fallbackProvider_) {
    fallbackProvider_->getPreparedGrainData(diskGrainIndex * grainSizeBytes_, data,
                                            static_cast<int>(grainSizeBytes_), compressed_);
  } else {
    // The zero grain is compressed once; each grain costs a copy and a patch.
    if (!preparer_) preparer_ = createDataPreparer();
    if (!preparedZeroGrain_) {
      auto zeros = kx::create<kx::TBuffer<unsigned char>>(static_cast<size_t>(grainSizeBytes_));
      zeros->fill(0);
      auto aux = kx::create<kx::TBuffer<unsigned char>>();
      preparedZeroGrain_ = kx::create<kx::TBuffer<unsigned char>>(*preparer_->prepareGrainData(zeros.get(), 0, aux.get()));
    }
    data = *preparedZeroGrain_;
    preparer_->patchGrainIndexInPreparedGrainData(data, diskGrainIndex);
  }
  position_ += grainSizeBytes_;
}

bool CVMDKNullExtentFile::isGrainWritten() {
  if (!fallbackProvider_) return false;
  return fallbackProvider_->isGrainWritten((position_ / grainSizeBytes_ + startGrainIndex_) * grainSizeBytes_);
}

}  // namespace zarn
