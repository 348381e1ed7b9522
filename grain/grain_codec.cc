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
  const CJob job{diskGrainIndex, prepared, preparedBytes, &stored};
  encryptMany(&job, 1);
}

void CVMDKGrainCodec::encryptMany(const CJob* jobs, size_t count) {
  const size_t ivBytes = static_cast<size_t>(blockLength_);
  grainIVs_.setUsed(count * ivBytes);
  cipherJobs_.resize(count);
  if (paddedPlains_.size() < count) paddedPlains_.resize(count);
  for (size_t i = 0; i < count; ++i) {
    const CJob& job = jobs[i];
    CVMDKGrain::makeGrainEncryptIV(grainIV_, baseIV_, job.diskGrainIndex);
    std::memcpy(grainIVs_.getData() + i * ivBytes, grainIV_.getData(), ivBytes);
    brix::CDataJob& cipherJob = cipherJobs_[i];
    cipherJob.target = job.stored;
    if (compressed_) {
      if (job.preparedBytes < kVMDKGrainHeaderSize) {
        throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Prepared VMDK grain data is shorter than its header.",
                           kx::CProps().add("preparedDataSize", job.preparedBytes));
      }
      job.stored->assign(job.prepared, kVMDKGrainHeaderSize);
      cipherJob.source = job.prepared + kVMDKGrainHeaderSize;
      cipherJob.sourceSize = static_cast<int>(job.preparedBytes - kVMDKGrainHeaderSize);
      cipherJob.append = true;
    } else if (job.preparedBytes < grainSizeBytes_) {
      kx::TCryptBuffer<unsigned char>& padded = paddedPlains_[i];
      padded.setUsed(static_cast<size_t>(grainSizeBytes_));
      std::memcpy(padded.getData(), job.prepared, static_cast<size_t>(job.preparedBytes));
      std::memset(padded.getData() + job.preparedBytes, 0, static_cast<size_t>(grainSizeBytes_ - job.preparedBytes));
      cipherJob.source = padded.getData();
      cipherJob.sourceSize = static_cast<int>(grainSizeBytes_);
      cipherJob.append = false;
    } else {
      cipherJob.source = job.prepared;
      cipherJob.sourceSize = static_cast<int>(job.preparedBytes);
      cipherJob.append = false;
    }
  }
  // The vectors' buffer doesn't move from here on.
  for (size_t i = 0; i < count; ++i) cipherJobs_[i].iv = grainIVs_.getData() + i * ivBytes;
  cipher_->encryptDataMany(key_, cipherJobs_.data(), static_cast<int>(count));
  if (compressed_) return;
  for (size_t i = 0; i < count; ++i) {
    if (static_cast<int64_t>(jobs[i].stored->getUsed()) != grainSizeBytes_) {
      throw kx::CError(
          "Internal error. Encrypted data in CVMDKGrain::writePreparedGrainDataInternal has an unexpected size.", "",
          -1,
          kx::CProps()
              .add("originalSize", jobs[i].preparedBytes)
              .add("encryptedSize", static_cast<uint64_t>(jobs[i].stored->getUsed())));
    }
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
