#include "zarn/grain.h"

#include <cstring>

#include "kx/error.h"
#include "kx/log.h"
#include "zarn/grain_codec.h"
#include "zarn/format_constants.h"

namespace zarn {
namespace {

using Slice = kx::TConstBufferSlice<unsigned char>;

// A slice over a buffer the caller owns and keeps for as long as the slice is
// used; see kx::TBuffer on sharing a member. Such slices only go to calls that
// are done with the bytes when they return.
Slice sliceOf(const kx::TBuffer<unsigned char>& buffer) {
  return Slice(kx::P<const kx::TBuffer<unsigned char>>::share(&buffer), 0, buffer.getUsed());
}

bool isAllZero(const unsigned char* data, size_t size) {
  size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    uint64_t word;
    std::memcpy(&word, data + i, 8);
    if (word != 0) return false;
  }
  for (; i < size; ++i) {
    if (data[i] != 0) return false;
  }
  return true;
}

int64_t roundUp(int64_t value, int64_t unit) { return (value + unit - 1) / unit * unit; }

}  // namespace

CVMDKGrain::CVMDKGrain(kx::IIOStream* stream, kx::IIOStream::Access access, int64_t grainSizeSectors,
                       IVMDKGrainAllocator* allocator, bool compressed, int compressionLevel,
                       IVMDKDataProvider* fallbackProvider, brix::ICipher* cipher,
                       const kx::TCryptBuffer<unsigned char>& key, const kx::TBuffer<unsigned char>& baseIV)
    : stream_(kx::P<kx::IIOStream>::share(stream)),
      access_(access),
      allocator_(kx::P<IVMDKGrainAllocator>::share(allocator)),
      grainSizeSectors_(grainSizeSectors),
      grainSizeBytes_(grainSizeSectors * kSectorSizeBytes),
      compressed_(compressed),
      compressionLevel_(compressionLevel),
      fallbackProvider_(kx::P<IVMDKDataProvider>::share(fallbackProvider)),
      cipher_(kx::P<brix::ICipher>::share(cipher)) {
  if (grainSizeSectors < 1 || grainSizeSectors > kVMDKMaxGrainSizeSectors) {
    throw kx::CInvalidArgError("CVMDKGrain", kx::String::Format("Invalid grain size: %lld sectors",
                                                                static_cast<long long>(grainSizeSectors)));
  }
  if (cipher_) {
    codec_ = kx::create<CVMDKGrainCodec>(grainSizeSectors, compressed, cipher, key, baseIV);
    cipherBlockSize_ = codec_->getBlockLength();
  }
  preparer_ = createDataPreparer();
  worstCaseSectors_ = preparer_->getWorstCaseGrainSizeSectors();
  if (cipher_) {
    // The ciphertext behind the clear header is rounded up to whole blocks.
    const int64_t header = compressed_ ? kVMDKGrainHeaderSize : 0;
    const int64_t bytes = roundUp(worstCaseSectors_ * kSectorSizeBytes - header, cipherBlockSize_) + header;
    worstCaseSectors_ = (bytes + kSectorSize - 1) / kSectorSize;
  }
  parentPrepared_.ensureAllocated(static_cast<size_t>(worstCaseSectors_ * kSectorSize));
}

CVMDKGrain::~CVMDKGrain() {
  try {
    close();
  } catch (const std::exception& error) {
    kx::onExceptionInDestructorIgnored("zarn::CVMDKGrain", error, true);
  }
}

kx::CProps CVMDKGrain::uriProps() const { return kx::CProps().add("uri", stream_->getURI().toString(true)); }

void CVMDKGrain::checkOpen(const char* operation) const {
  if (!isOpen()) {
    throw kx::CError(kx::String("Internal error: CVMDKGrain::") + operation + " was called on a closed grain.");
  }
}

kx::P<CVMDKDataPreparer> CVMDKGrain::createDataPreparer() const {
  return kx::create<CVMDKDataPreparer>(grainSizeSectors_, compressed_, compressionLevel_);
}

void CVMDKGrain::setFallbackDataProvider(IVMDKDataProvider* provider) {
  fallbackProvider_ = kx::P<IVMDKDataProvider>::share(provider);
}

void CVMDKGrain::open(int64_t extentGrainIndex, int64_t diskGrainIndex, int64_t posSectors,
                      int64_t slotSizeSectors) {
  close();
  if (posSectors < 1) {
    slotSizeSectors = 0;
  } else if (!compressed_ && slotSizeSectors < grainSizeSectors_) {
    throw kx::CInvalidArgError(
        "CVMDKGrain::open",
        kx::String::Format("Slot size for allocated uncompressed grain is smaller than the grain size (slot size: "
                           "%lld sectors, grain size: %lld sectors",
                           static_cast<long long>(slotSizeSectors), static_cast<long long>(grainSizeSectors_)));
  } else if (compressed_ && slotSizeSectors < 0) {
    throw kx::CInvalidArgError(
        "CVMDKGrain::open", kx::String::Format("Invalid slot size for allocated compressed grain: %lld sectors",
                                               static_cast<long long>(slotSizeSectors)));
  }
  extentGrainIndex_ = extentGrainIndex;
  diskGrainIndex_ = diskGrainIndex;
  posSectors_ = posSectors < 1 ? 0 : posSectors;
  slotSizeSectors_ = slotSizeSectors;
  posInGrain_ = 0;
}

void CVMDKGrain::close() {
  flushChangesToStream();
  posSectors_ = slotSizeSectors_ = extentGrainIndex_ = diskGrainIndex_ = -1;
  grainData_.setUsed(0);
  preparedData_.setUsed(0);
  posInGrain_ = 0;
  dirty_ = false;
}

void CVMDKGrain::seek(int64_t position) {
  if (position < 0 || position >= grainSizeBytes_) {
    throw kx::CInvalidArgError(
        "CVMDKGrain::seek",
        kx::String::Format("Invalid seek position in VMDK grain: %lld", static_cast<long long>(position)),
        uriProps().add("position", position).add("grainSize", grainSizeBytes_));
  }
  posInGrain_ = position;
}

void CVMDKGrain::read(void* buffer, int size) {
  if (size == 0) return;
  if (size < 0) {
    throw kx::CInvalidArgError("CVMDKGrain::read", kx::String::Format("Invalid number of bytes to read: %d", size),
                               uriProps());
  }
  if (posInGrain_ + size > grainSizeBytes_) {
    throw kx::CIOError(kx::IOERR_READ_PAST_END,
                       kx::String::Format("Unexpected end of data trying to read %d bytes from VMDK grain.", size),
                       uriProps().add("position", posInGrain_).add("bytesToRead", size));
  }
  checkOpen("read");
  if (!compressed_ && !cipher_ && posSectors_ > 0 && grainData_.isEmpty()) {
    // A plain grain's bytes are its stored form: read straight from the slot,
    // as much as is asked, into the caller's memory.
    seekToSlot();
    stream_->seek(posSectors_ * kSectorSizeBytes + posInGrain_);
    stream_->read(buffer, size);
    posInGrain_ += size;
    return;
  }
  if (posSectors_ < 1 && grainData_.isEmpty()) {
    // A hole costs no memory, and a parent's bytes pass straight through.
    if (fallbackProvider_) {
      fallbackProvider_->getData(grainSizeBytes_ * diskGrainIndex_ + posInGrain_, buffer, size);
    } else {
      std::memset(buffer, 0, static_cast<size_t>(size));
    }
  } else {
    if (grainData_.isEmpty()) readGrainData();
    std::memcpy(buffer, grainData_.getData() + posInGrain_, static_cast<size_t>(size));
  }
  posInGrain_ += size;
}

void CVMDKGrain::readGrainData() {
  grainData_.setUsed(static_cast<size_t>(grainSizeBytes_));
  try {
    if (posSectors_ < 1) {
      if (fallbackProvider_) {
        fallbackProvider_->getData(grainSizeBytes_ * diskGrainIndex_, grainData_.getData(),
                                   static_cast<int>(grainSizeBytes_));
      } else {
        grainData_.fill(0);
      }
      return;
    }
    seekToSlot();
    if (!compressed_) {
      readUncompressedGrain(grainData_);
      return;
    }
    readCompressedGrain(preparedData_);
    if (preparer_->unprepareGrainData(&preparedData_, &grainData_).get() != &grainData_) {
      throw kx::CError(
          "Internal error. VMDK data unprepare returned original buffer instead of aux buffer, even though "
          "compression is used.");
    }
  } catch (...) {
    // Half-read bytes must never be served as the grain.
    grainData_.setUsed(0);
    preparedData_.setUsed(0);
    throw;
  }
}

bool CVMDKGrain::isStaleSlotSize(int64_t bytes, uint64_t lba) const {
  // The tables reach the file before the slot table (see CVMDKGrainTable), so
  // a writer that stopped in between leaves a new grain with the slot size 0
  // and a moved one with the size of the slot it left. The grain's own header
  // tells that the form is this grain's; its slot is then at least as large
  // as the form and at most the worst case, which is all a reader needs. A
  // rewrite goes by the recorded size, so it moves rather than overwrite
  // what may follow.
  return compressed_ && lba == static_cast<uint64_t>(diskGrainIndex_ * grainSizeSectors_) &&
         bytes <= worstCaseSectors_ * kSectorSizeBytes;
}

void CVMDKGrain::checkStoredFormFits(int64_t bytes, uint64_t lba, int64_t compressedSize, bool withSlot) {
  const char* problem = nullptr;
  if (withSlot && bytes > slotSizeSectors_ * kSectorSizeBytes && !isStaleSlotSize(bytes, lba)) {
    problem = "Stored VMDK grain is larger than its slot.";
  } else if (posSectors_ * kSectorSizeBytes + bytes > stream_->getLength()) {
    problem = "Stored VMDK grain lies beyond the end of the file.";
  }
  if (!problem) return;
  kx::CProps props = uriProps().add("position", posSectors_ * kSectorSizeBytes);
  props.add("slotSizeSectors", slotSizeSectors_);
  if (compressed_) props.add("lba", lba).add("compressedGrainSize", compressedSize);
  throw kx::CIOError(kx::IOERR_DAMAGED_DATA, problem, props);
}

void CVMDKGrain::seekToSlot() {
  // The first read of a stored form must lie in the file (and a plain one in
  // its slot), so a damaged table entry is reported as such rather than as a
  // bad seek. A compressed form is held against its slot once its header is
  // read.
  checkStoredFormFits(compressed_ ? kSectorSize : grainSizeBytes_, 0, 0, !compressed_);
  stream_->seek(posSectors_ * kSectorSizeBytes);
}

void CVMDKGrain::readUncompressedGrain(kx::TBuffer<unsigned char>& buffer) {
  buffer.setUsed(static_cast<size_t>(grainSizeBytes_));
  if (!cipher_) {
    stream_->read(buffer.getData(), static_cast<int>(grainSizeBytes_));
    return;
  }
  encrypted_.setUsed(static_cast<size_t>(grainSizeBytes_));
  stream_->read(encrypted_.getData(), static_cast<int>(grainSizeBytes_));
  codec_->decrypt(diskGrainIndex_, encrypted_.getData(), grainSizeBytes_, 0, buffer);
}

void CVMDKGrain::readCompressedGrain(kx::TBuffer<unsigned char>& buffer) {
  kx::TBuffer<unsigned char>& work = cipher_ ? encrypted_ : buffer;
  int64_t compressedSize = 0;
  const int64_t storedBytes = readStoredCompressedGrain(work, compressedSize);
  if (cipher_) codec_->decrypt(diskGrainIndex_, encrypted_.getData(), storedBytes, compressedSize, buffer);
}

int64_t CVMDKGrain::readStoredCompressedGrain(kx::TBuffer<unsigned char>& work, int64_t& compressedSize) {
  work.setUsed(kSectorSize);
  stream_->read(work.getData(), kSectorSize);
  const uint64_t lba = readLE64(work.getData());
  compressedSize = readLE32(work.getData() + 8);
  if (compressedSize > 2 * grainSizeBytes_) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Error reading compressed data from VMDK. Invalid compressed grain size.",
                       uriProps()
                           .add("position", posSectors_ * kSectorSizeBytes)
                           .add("lba", lba)
                           .add("compressedGrainSize", compressedSize));
  }
  const int64_t dataBytes = cipher_ ? roundUp(compressedSize, cipherBlockSize_) : compressedSize;
  const int64_t storedBytes = roundUp(dataBytes + kVMDKGrainHeaderSize, kSectorSize);
  checkStoredFormFits(storedBytes, lba, compressedSize);
  work.setUsed(static_cast<size_t>(storedBytes));
  if (storedBytes > kSectorSize) {
    stream_->read(work.getData() + kSectorSize, static_cast<int>(storedBytes - kSectorSize));
  }
  return storedBytes;
}

bool CVMDKGrain::readStoredGrainData(kx::TBuffer<unsigned char>& buffer) {
  buffer.setUsed(0);
  checkOpen("readStoredGrainData");
  if (posInGrain_ != 0) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET,
                       "CVMDKGrain::readStoredGrainData can only be called when the position in the grain is 0.",
                       uriProps().add("posInGrain", posInGrain_).add("diskGrainIndex", diskGrainIndex_));
  }
  flushChangesToStream();
  posInGrain_ = grainSizeBytes_;
  if (posSectors_ < 1) return false;
  seekToSlot();
  if (!compressed_) {
    buffer.setUsed(static_cast<size_t>(grainSizeBytes_));
    stream_->read(buffer.getData(), static_cast<int>(grainSizeBytes_));
    return true;
  }
  int64_t compressedSize = 0;
  readStoredCompressedGrain(buffer, compressedSize);
  // Without the zeros that pad the slot's last sector: what a codec takes.
  const int64_t dataBytes = cipher_ ? roundUp(compressedSize, cipherBlockSize_) : compressedSize;
  buffer.setUsed(static_cast<size_t>(dataBytes + kVMDKGrainHeaderSize));
  return true;
}

void CVMDKGrain::writeStoredGrainData(const kx::TBuffer<unsigned char>& data) {
  writePreparedGrainDataImpl(sliceOf(data), false, true);
}

void CVMDKGrain::readPreparedGrainData(kx::TBuffer<unsigned char>& buffer) {
  buffer.setUsed(0);
  checkOpen("readPreparedGrainData");
  if (posInGrain_ != 0) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET,
                       "CVMDKGrain::tryReadPreparedGrainData can only be called when the position in the grain is 0.",
                       uriProps()
                           .add("posInGrain", posInGrain_)
                           .add("diskGrainIndex", diskGrainIndex_)
                           .add("extentGrainIndex", extentGrainIndex_));
  }
  flushChangesToStream();
  if (posSectors_ < 1) {
    if (fallbackProvider_) {
      fallbackProvider_->getPreparedGrainData(grainSizeBytes_ * diskGrainIndex_, buffer,
                                              static_cast<int>(grainSizeBytes_), compressed_);
    } else {
      initZeroGrainData(diskGrainIndex_);
      buffer = *preparedZeroGrain_;
    }
  } else {
    const kx::TBuffer<unsigned char>& held = compressed_ ? preparedData_ : grainData_;
    if (!held.isEmpty()) {
      buffer = held;
    } else {
      seekToSlot();
      if (compressed_) {
        readCompressedGrain(buffer);
      } else {
        readUncompressedGrain(buffer);
      }
    }
  }
  posInGrain_ = grainSizeBytes_;
}

void CVMDKGrain::initZeroGrainData(int64_t grainIndex) {
  if (!zeroGrain_) {
    zeroGrain_ = kx::create<kx::TBuffer<unsigned char>>(static_cast<size_t>(grainSizeBytes_));
    zeroGrain_->fill(0);
  }
  if (!preparedZeroGrain_) {
    zeroGrainAux_ = kx::create<kx::TBuffer<unsigned char>>();
    preparedZeroGrain_ = preparer_->prepareGrainData(zeroGrain_.get(), 0, zeroGrainAux_.get());
  }
  preparer_->patchGrainIndexInPreparedGrainData(*preparedZeroGrain_, grainIndex);
}

bool CVMDKGrain::isGrainWritten() {
  if (dirty_ || posSectors_ != 0) return true;
  return fallbackProvider_ && fallbackProvider_->isGrainWritten(grainSizeBytes_ * diskGrainIndex_);
}

bool CVMDKGrain::isGrainWrittenAndIndependentOfParent() const { return dirty_ || posSectors_ != 0; }

void CVMDKGrain::makeGrainEncryptIV(kx::TBuffer<unsigned char>& target, const kx::TBuffer<unsigned char>& baseIV,
                                    int64_t grainIndex) {
  target.assign(baseIV.getData(), baseIV.getUsed());
  const auto index = static_cast<uint64_t>(grainIndex);
  for (size_t i = 0; i < target.getUsed(); ++i) {
    target.getData()[i] ^= static_cast<unsigned char>(index >> (8 * (i % 8)));
  }
}

// --- writing ---------------------------------------------------------------

void CVMDKGrain::write(const void* buffer, int size) {
  if (size == 0) return;
  if (size < 0) {
    throw kx::CInvalidArgError("CVMDKGrain::write", kx::String::Format("Invalid number of bytes to write: %d", size),
                               uriProps());
  }
  if (posInGrain_ + size > grainSizeBytes_) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET,
                       kx::String::Format("Cannot write %d bytes to grain. Grain size exceeded.", size), uriProps());
  }
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError("Internal error: CVMDKGrain::write was called, but the grain was not opened for writing.");
  }
  checkOpen("write");
  if (!compressed_ && !cipher_ && !dirty_ && grainData_.isEmpty() && (posSectors_ > 0 || size == grainSizeBytes_)) {
    // A plain grain's stored form is its bytes: what changes goes straight to
    // its slot, with no read of the rest and no copy through the buffer.
    writeThrough(buffer, size);
    return;
  }
  if (size == grainSizeBytes_) {
    grainData_.setUsed(static_cast<size_t>(grainSizeBytes_));
  } else if (grainData_.isEmpty()) {
    readGrainData();
  }
  std::memcpy(grainData_.getData() + posInGrain_, buffer, static_cast<size_t>(size));
  posInGrain_ += size;
  dirty_ = true;
}

void CVMDKGrain::writeThrough(const void* buffer, int size) {
  if (posSectors_ > 0) {
    stream_->seek(posSectors_ * kSectorSizeBytes + posInGrain_);
    stream_->write(buffer, size, nullptr);
  } else if (fallbackProvider_ || !isAllZero(static_cast<const unsigned char*>(buffer), static_cast<size_t>(size))) {
    // A whole grain without a slot (a partial one never comes here).
    posSectors_ = allocator_->allocNewGrain(extentGrainIndex_, buffer, size, static_cast<int>(grainSizeSectors_));
    slotSizeSectors_ = grainSizeSectors_;
  }
  posInGrain_ += size;
}

void CVMDKGrain::flushChangesToStream() {
  if (!dirty_) return;
  // No slot for zeros: a disk doesn't grow for them. With a parent behind the
  // grain the zeros must be stored, or the parent's bytes would show again.
  if (posSectors_ == 0 && !fallbackProvider_ && isAllZero(grainData_.getData(), grainData_.getUsed())) {
    dirty_ = false;
    return;
  }
  kx::P<kx::TBuffer<unsigned char>> prepared =
      preparer_->prepareGrainData(&grainData_, diskGrainIndex_, &preparedData_);
  writePreparedGrainDataInternal(sliceOf(*prepared), false, false);
  dirty_ = false;
}

void CVMDKGrain::writePreparedGrainData(const kx::TBuffer<unsigned char>& data) {
  writePreparedGrainDataImpl(sliceOf(data), false, false);
}

void CVMDKGrain::writePreparedGrainDataKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data) {
  writePreparedGrainDataImpl(data, true, false);
}

void CVMDKGrain::writePreparedGrainDataImpl(const kx::TConstBufferSlice<unsigned char>& data, bool keepBuffer,
                                            bool stored) {
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError(
        "Internal error: CVMDKGrain::writePreparedGrainData was called, but the grain was not opened for writing.");
  }
  const auto props = [&] {
    return uriProps()
        .add("posInGrain", posInGrain_)
        .add("diskGrainIndex", diskGrainIndex_)
        .add("extentGrainIndex", extentGrainIndex_)
        .add("preparedDataSize", static_cast<uint64_t>(data.getLength()));
  };
  if (posInGrain_ != 0) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET,
                       "CVMDKGrain::writePreparedGrainData can only be called when the position in the grain is 0.",
                       props());
  }
  if (data.getLength() == 0) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET,
                       "CVMDKGrain::writePreparedGrainData called with zero-length prepared data.", props());
  }
  checkOpen("writePreparedGrainData");
  grainData_.setUsed(0);
  preparedData_.setUsed(0);
  dirty_ = false;
  writePreparedGrainDataInternal(data, keepBuffer, stored);
  posInGrain_ = grainSizeBytes_;
}

void CVMDKGrain::encryptInto(const kx::TConstBufferSlice<unsigned char>& data) {
  codec_->encrypt(diskGrainIndex_, data.getData(), static_cast<int64_t>(data.getLength()), encrypted_);
}

void CVMDKGrain::writePreparedGrainDataInternal(kx::TConstBufferSlice<unsigned char> data, bool keepBuffer,
                                                bool stored) {
  if (compressed_ && data.getLength() < static_cast<size_t>(kVMDKGrainHeaderSize)) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Prepared VMDK grain data is shorter than its header.",
                       uriProps().add("preparedDataSize", static_cast<uint64_t>(data.getLength())));
  }
  if (stored && cipher_ && !compressed_ && static_cast<int64_t>(data.getLength()) != grainSizeBytes_) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Stored VMDK grain data of an encrypted plain grain must fill the grain.",
                       uriProps().add("storedDataSize", static_cast<uint64_t>(data.getLength())));
  }
  if (cipher_ && !stored) {
    // The ciphertext lives in a buffer reused for the next grain: it is
    // written, never kept.
    encryptInto(data);
    data = sliceOf(encrypted_);
    keepBuffer = false;
  } else if (!compressed_ && static_cast<int64_t>(data.getLength()) < grainSizeBytes_ && posSectors_ > 0) {
    // A short plain grain rewritten in place must not leave the old tail.
    paddedPlain_.setUsed(static_cast<size_t>(grainSizeBytes_));
    std::memcpy(paddedPlain_.getData(), data.getData(), data.getLength());
    std::memset(paddedPlain_.getData() + data.getLength(), 0, static_cast<size_t>(grainSizeBytes_) - data.getLength());
    data = sliceOf(paddedPlain_);
    keepBuffer = false;
  }

  const auto length = static_cast<int64_t>(data.getLength());
  int64_t newSlotSectors = grainSizeSectors_;
  if (compressed_) {
    const int64_t needed = (length + kSectorSize - 1) / kSectorSize;
    if (posSectors_ == 0) {
      newSlotSectors = needed;
    } else if (needed > slotSizeSectors_) {
      // Moved once, to a slot that no later form of this grain outgrows.
      posSectors_ = slotSizeSectors_ = 0;
      newSlotSectors = worstCaseSectors_;
    }
  }
  if (posSectors_ == 0) {
    posSectors_ = keepBuffer ? allocator_->allocNewGrainKeepBuffer(extentGrainIndex_, data,
                                                                   static_cast<int>(newSlotSectors))
                             : allocator_->allocNewGrain(extentGrainIndex_, data.getData(), static_cast<int>(length),
                                                         static_cast<int>(newSlotSectors));
    slotSizeSectors_ = newSlotSectors;
  } else {
    stream_->seek(posSectors_ * kSectorSizeBytes);
    if (keepBuffer) {
      stream_->writeKeepBuffer(data, nullptr);
    } else {
      stream_->write(data.getData(), static_cast<int>(length), nullptr);
    }
  }
  dirty_ = false;
}

int64_t CVMDKGrain::makeIndependentOfParent() {
  if (posInGrain_ != 0) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET,
                       "CVMDKGrain::makeIndependentOfParent can only be called when the position in the grain is 0.",
                       uriProps()
                           .add("posInGrain", posInGrain_)
                           .add("diskGrainIndex", diskGrainIndex_)
                           .add("extentGrainIndex", extentGrainIndex_));
  }
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError(
        "Internal error: CVMDKGrain::makeIndependentOfParent was called, but the grain was not opened for writing.");
  }
  checkOpen("makeIndependentOfParent");
  if (!fallbackProvider_) return 0;
  // Unstored bytes of this grain win over the parent's: store them first.
  flushChangesToStream();
  if (posSectors_ > 0) {
    posInGrain_ = grainSizeBytes_;
    return grainSizeBytes_;
  }
  fallbackProvider_->getPreparedGrainData(grainSizeBytes_ * diskGrainIndex_, parentPrepared_,
                                          static_cast<int>(grainSizeBytes_), compressed_);
  writePreparedGrainData(parentPrepared_);
  return static_cast<int64_t>(parentPrepared_.getUsed());
}

}  // namespace zarn
