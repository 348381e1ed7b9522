#include "zarn/grain_codec.h"

#include <cstring>

#include "kx/error.h"
#include "zarn/format_constants.h"
#include "zarn/grain.h"

namespace zarn {

CVMDKGrainCodec::CVMDKGrainCodec(int64_t grainSizeSectors, bool compressed, brix::ICipher* cipher,
                                 const kx::TCryptBuffer<unsigned char>& key, const kx::TBuffer<unsigned char>& baseIV)
    : grainSizeBytes_(grainSizeSectors * kSectorSizeBytes),
      compressed_(compressed),
      cipher_(kx::P<brix::ICipher>::share(cipher)),
      key_(key),
      baseIV_(baseIV) {
  if (!cipher_) throw kx::CError("Internal error: CVMDKGrainCodec needs a cipher.");
  blockLength_ = cipher_->getBlockLength();
}

CVMDKGrainCodec::~CVMDKGrainCodec() = default;

void CVMDKGrainCodec::encrypt(int64_t diskGrainIndex, const unsigned char* prepared, int64_t preparedBytes,
                              kx::TBuffer<unsigned char>& stored) {
  CVMDKGrain::makeGrainEncryptIV(grainIV_, baseIV_, diskGrainIndex);
  if (compressed_) {
    if (preparedBytes < kVMDKGrainHeaderSize) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Prepared VMDK grain data is shorter than its header.",
                         kx::CProps().add("preparedDataSize", preparedBytes));
    }
    stored.assign(prepared, kVMDKGrainHeaderSize);
    cipher_->encryptData(key_, prepared + kVMDKGrainHeaderSize, static_cast<int>(preparedBytes - kVMDKGrainHeaderSize),
                         stored, true, grainIV_.getData());
    return;
  }
  if (preparedBytes < grainSizeBytes_) {
    paddedPlain_.setUsed(static_cast<size_t>(grainSizeBytes_));
    std::memcpy(paddedPlain_.getData(), prepared, static_cast<size_t>(preparedBytes));
    std::memset(paddedPlain_.getData() + preparedBytes, 0, static_cast<size_t>(grainSizeBytes_ - preparedBytes));
    cipher_->encryptData(key_, paddedPlain_.getData(), static_cast<int>(grainSizeBytes_), stored, false,
                         grainIV_.getData());
  } else {
    cipher_->encryptData(key_, prepared, static_cast<int>(preparedBytes), stored, false, grainIV_.getData());
  }
  if (static_cast<int64_t>(stored.getUsed()) != grainSizeBytes_) {
    throw kx::CError(
        "Internal error. Encrypted data in CVMDKGrain::writePreparedGrainDataInternal has an unexpected size.", "",
        -1, kx::CProps().add("originalSize", preparedBytes).add("encryptedSize", static_cast<uint64_t>(stored.getUsed())));
  }
}

void CVMDKGrainCodec::decrypt(int64_t diskGrainIndex, const unsigned char* stored, int64_t storedBytes,
                              int64_t compressedSize, kx::TBuffer<unsigned char>& prepared) {
  CVMDKGrain::makeGrainEncryptIV(grainIV_, baseIV_, diskGrainIndex);
  if (!compressed_) {
    cipher_->decryptData(key_, stored, static_cast<int>(storedBytes), prepared, false, grainIV_.getData());
    if (static_cast<int64_t>(prepared.getUsed()) != grainSizeBytes_) {
      throw kx::CError("Internal error: CVMDKGrain::readUncompressedGrain decrypted data size is not uncompressed grain size",
                       "", -1,
                       kx::CProps()
                           .add("decryptedSize", static_cast<uint64_t>(prepared.getUsed()))
                           .add("uncompressedGrainSize", grainSizeBytes_));
    }
    return;
  }
  const int64_t dataBytes = (compressedSize + blockLength_ - 1) / blockLength_ * blockLength_;
  if (storedBytes < dataBytes + kVMDKGrainHeaderSize) {
    throw kx::CError("Internal error: CVMDKGrainCodec::decrypt was given less than the grain's ciphertext.", "", -1,
                     kx::CProps().add("storedBytes", storedBytes).add("compressedGrainSize", compressedSize));
  }
  prepared.setUsed(static_cast<size_t>(dataBytes + kVMDKGrainHeaderSize));
  std::memcpy(prepared.getData(), stored, kVMDKGrainHeaderSize);
  prepared.setUsed(kVMDKGrainHeaderSize);
  cipher_->decryptData(key_, stored + kVMDKGrainHeaderSize, static_cast<int>(dataBytes), prepared, true,
                       grainIV_.getData());
  prepared.setUsed(static_cast<size_t>(compressedSize + kVMDKGrainHeaderSize));
}

}  // namespace zarn
