#include "zarn/sparse_extent_header.h"

#include <cstring>

#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/stream.h"

namespace zarn {
namespace {

// "\n \r\n": damaged when a file went through a text-mode transfer.
constexpr unsigned char kCheckBytes[4] = {0x0A, 0x20, 0x0D, 0x0A};

}  // namespace

CVMDKSparseExtentHeader::CVMDKSparseExtentHeader() : padding_(kPlainPaddingSize) {}

CVMDKSparseExtentHeader::~CVMDKSparseExtentHeader() = default;

void CVMDKSparseExtentHeader::load(kx::CDataInStream& stream) {
  const uint32_t magic = stream.readUInt32();
  if (magic == kMagicEncrypted) {
    encryptionExtensionEnabled_ = true;
  } else if (magic == kMagic) {
    encryptionExtensionEnabled_ = false;
  } else {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Invalid magic number in VMDK sparse header",
                       kx::CProps().add("num", magic));
  }
  version_ = stream.readUInt32();
  flags_ = stream.readUInt32();
  capacitySectors_ = stream.readUInt64();
  grainSizeSectors_ = stream.readUInt64();
  descriptorOffsetSectors_ = stream.readUInt64();
  descriptorSizeSectors_ = stream.readUInt64();
  grainTableEntryCount_ = stream.readUInt32();
  redundantGrainDirectoryOffsetSectors_ = stream.readUInt64();
  if ((flags_ & kFlagUseRedundantGrainDirectory) == 0) redundantGrainDirectoryOffsetSectors_ = 0;
  grainDirectoryOffsetSectors_ = stream.readUInt64();
  overheadSectors_ = stream.readUInt64();
  uncleanShutdown_ = stream.readUInt8() != 0;
  unsigned char check[sizeof kCheckBytes];
  stream.read(check, sizeof check);
  if ((flags_ & kFlagValidNewLineDetection) != 0 && std::memcmp(check, kCheckBytes, sizeof check) != 0) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                       "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).");
  }
  compressAlgorithm_ = stream.readUInt16();
  size_t paddingSize = kPlainPaddingSize;
  if (encryptionExtensionEnabled_) {
    encryptionAlgorithm_ = stream.readUInt16();
    encryptionKeyHashAlgorithm_ = stream.readUInt16();
    const uint16_t hashSize = stream.readUInt16();
    if (hashSize > kMaxKeyHashSize) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Invalid key hash length in VMDK sparse header",
                         kx::CProps().add("length", static_cast<uint32_t>(hashSize)));
    }
    encryptionKeyHash_.setUsed(hashSize);
    if (hashSize) stream.read(encryptionKeyHash_.getData(), hashSize);
    paddingSize = kMaxKeyHashSize - hashSize;
  }
  padding_.setUsed(paddingSize);
  if (paddingSize) stream.read(padding_.getData(), paddingSize);
}

void CVMDKSparseExtentHeader::store(kx::CDataOutStream& stream) {
  size_t paddingSize = kPlainPaddingSize;
  if (encryptionExtensionEnabled_) {
    if (encryptionKeyHash_.getUsed() > static_cast<size_t>(kMaxKeyHashSize)) {
      throw kx::CError("Internal error: VMDK key hash too long for the sparse header", "", -1,
                       kx::CProps().add("length", static_cast<uint64_t>(encryptionKeyHash_.getUsed())));
    }
    paddingSize = kMaxKeyHashSize - encryptionKeyHash_.getUsed();
  }
  // The sector is built in memory and written in one call: a header is small,
  // and one write keeps it whole in the face of a failing stream.
  unsigned char sector[kSectorSize];
  size_t at = 0;
  auto put = [&](uint64_t value, int width) {
    for (int i = 0; i < width; ++i) sector[at++] = static_cast<unsigned char>(value >> (8 * i));
  };
  put(encryptionExtensionEnabled_ ? kMagicEncrypted : kMagic, 4);
  put(version_, 4);
  put(flags_, 4);
  put(capacitySectors_, 8);
  put(grainSizeSectors_, 8);
  put(descriptorOffsetSectors_, 8);
  put(descriptorSizeSectors_, 8);
  put(grainTableEntryCount_, 4);
  put(redundantGrainDirectoryOffsetSectors_, 8);
  put(grainDirectoryOffsetSectors_, 8);
  put(overheadSectors_, 8);
  put(uncleanShutdown_ ? 1 : 0, 1);
  std::memcpy(sector + at, kCheckBytes, sizeof kCheckBytes);
  at += sizeof kCheckBytes;
  put(compressAlgorithm_, 2);
  if (encryptionExtensionEnabled_) {
    put(encryptionAlgorithm_, 2);
    put(encryptionKeyHashAlgorithm_, 2);
    put(encryptionKeyHash_.getUsed(), 2);
    if (!encryptionKeyHash_.isEmpty()) {
      std::memcpy(sector + at, encryptionKeyHash_.getData(), encryptionKeyHash_.getUsed());
      at += encryptionKeyHash_.getUsed();
    }
  }
  padding_.setUsed(paddingSize);
  if (paddingSize) std::memcpy(sector + at, padding_.getData(), paddingSize);
  at += paddingSize;
  stream.write(sector, static_cast<int>(at));
}

void verifyVMDKSparseExtentHeaderFits(kx::IStreamBase& stream) {
  const int64_t length = stream.getLength();
  if (length >= kSectorSizeBytes) return;
  throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK file is too short for a sparse extent header.",
                     kx::CProps().add("uri", stream.getURI().toString(true)).add("length", length));
}

}  // namespace zarn
