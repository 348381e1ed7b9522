// CVMDKSparseExtentHeader: the 512-byte sector at the head of every sparse
// extent file, which a compressed extent repeats as its footer.
//
// The object decides nothing about its fields: which versions, flags and
// algorithms are acceptable is the opener's to judge. It keeps the padding of
// the sector byte for byte, so load followed by store reproduces any sector
// this library wrote. The sector layout is described in doc/format.md.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "zarn/format_constants.h"

namespace kx {
class CDataInStream;
class CDataOutStream;
class IStreamBase;
}  // namespace kx

namespace zarn {

class CVMDKSparseExtentHeader : public kx::CBase {
 public:
  // Magic numbers as little-endian words: "KDMV" for the published form, and
  // the form that carries the encryption extension.
  static constexpr uint32_t kMagic = 0x564D444B;
  static constexpr uint32_t kMagicEncrypted = 0x05644B45;

  // Flag bits that this library gives a meaning; all others are carried.
  static constexpr uint32_t kFlagValidNewLineDetection = 0x00000001;
  static constexpr uint32_t kFlagUseRedundantGrainDirectory = 0x00000002;
  static constexpr uint32_t kFlagCompressedGrains = 0x00010000;
  static constexpr uint32_t kFlagHasMarkers = 0x00020000;

  static constexpr uint16_t kCompressNone = 0;
  static constexpr uint16_t kCompressDeflate = 1;
  static constexpr uint16_t kEncryptionNone = 0;
  static constexpr uint16_t kEncryptionAES256CBC = 1;
  static constexpr uint16_t kKeyHashSHA256 = 1;

  static constexpr int kSectorSize = zarn::kSectorSize;
  // Fields up to and including compressAlgorithm: 4+4+4+8*4+4+8*3+1+4+2.
  static constexpr int kCommonPartSize = 79;
  static constexpr int kPlainPaddingSize = kSectorSize - kCommonPartSize;  // 433
  // Encryption algorithm, key hash algorithm and key hash length: 2+2+2.
  static constexpr int kEncryptionFieldsSize = 6;
  static constexpr int kMaxKeyHashSize = kPlainPaddingSize - kEncryptionFieldsSize;  // 427

  // All numbers 0, both flags false, empty key hash, 433 bytes of zero padding.
  CVMDKSparseExtentHeader();
  CVMDKSparseExtentHeader(const CVMDKSparseExtentHeader&) = default;
  CVMDKSparseExtentHeader& operator=(const CVMDKSparseExtentHeader&) = default;
  ~CVMDKSparseExtentHeader() override;

  // Reads one sector from the stream's present position. Raises kx::CIOError
  // code 5 on an unknown magic, on check bytes that the flags say are valid
  // but are not, and on a key hash longer than the sector can hold; a short
  // file raises what the stream raises. On failure the object is partly
  // filled and must not be used further.
  void load(kx::CDataInStream& stream);
  // Writes one sector at the stream's present position.
  void store(kx::CDataOutStream& stream);

  uint32_t getVersion() const { return version_; }
  void setVersion(uint32_t value) { version_ = value; }
  uint32_t getFlags() const { return flags_; }
  void setFlags(uint32_t value) { flags_ = value; }
  uint64_t getCapacitySectors() const { return capacitySectors_; }
  void setCapacitySectors(uint64_t value) { capacitySectors_ = value; }
  uint64_t getGrainSizeSectors() const { return grainSizeSectors_; }
  void setGrainSizeSectors(uint64_t value) { grainSizeSectors_ = value; }
  uint64_t getDescriptorOffsetSectors() const { return descriptorOffsetSectors_; }
  void setDescriptorOffsetSectors(uint64_t value) { descriptorOffsetSectors_ = value; }
  uint64_t getDescriptorSizeSectors() const { return descriptorSizeSectors_; }
  void setDescriptorSizeSectors(uint64_t value) { descriptorSizeSectors_ = value; }
  uint32_t getGrainTableEntryCount() const { return grainTableEntryCount_; }
  void setGrainTableEntryCount(uint32_t value) { grainTableEntryCount_ = value; }
  uint64_t getRedundantGrainDirectoryOffsetSectors() const { return redundantGrainDirectoryOffsetSectors_; }
  void setRedundantGrainDirectoryOffsetSectors(uint64_t value) { redundantGrainDirectoryOffsetSectors_ = value; }
  uint64_t getGrainDirectoryOffsetSectors() const { return grainDirectoryOffsetSectors_; }
  void setGrainDirectoryOffsetSectors(uint64_t value) { grainDirectoryOffsetSectors_ = value; }
  uint64_t getOverheadSectors() const { return overheadSectors_; }
  void setOverheadSectors(uint64_t value) { overheadSectors_ = value; }
  bool getUncleanShutdown() const { return uncleanShutdown_; }
  void setUncleanShutdown(bool value) { uncleanShutdown_ = value; }
  unsigned short getCompressAlgorithm() const { return compressAlgorithm_; }
  void setCompressAlgorithm(unsigned short value) { compressAlgorithm_ = value; }
  bool getEncryptionExtensionEnabled() const { return encryptionExtensionEnabled_; }
  void setEncryptionExtensionEnabled(bool value) { encryptionExtensionEnabled_ = value; }
  unsigned short getEncryptionAlgorithm() const { return encryptionAlgorithm_; }
  // The exported spelling of these two setters is part of the interface.
  void setEncryptionAlgorthm(unsigned short value) { encryptionAlgorithm_ = value; }
  unsigned short getEncryptionKeyHashAlgorithm() const { return encryptionKeyHashAlgorithm_; }
  void setEncryptionKeyHashAlgorthm(unsigned short value) { encryptionKeyHashAlgorithm_ = value; }
  const kx::TBuffer<unsigned char>& getEncryptionKeyHash() const { return encryptionKeyHash_; }
  // Copies the bytes.
  void setEncryptionKeyHash(const kx::TBuffer<unsigned char>& value) { encryptionKeyHash_ = value; }

  // The padding behind the last field, as read or as it will be written.
  const kx::TBuffer<unsigned char>& getPadding() const { return padding_; }

 private:
  uint32_t version_ = 0;
  uint32_t flags_ = 0;
  uint64_t capacitySectors_ = 0;
  uint64_t grainSizeSectors_ = 0;
  uint64_t descriptorOffsetSectors_ = 0;
  uint64_t descriptorSizeSectors_ = 0;
  uint32_t grainTableEntryCount_ = 0;
  uint64_t redundantGrainDirectoryOffsetSectors_ = 0;
  uint64_t grainDirectoryOffsetSectors_ = 0;
  uint64_t overheadSectors_ = 0;
  bool uncleanShutdown_ = false;
  uint16_t compressAlgorithm_ = 0;
  kx::TBuffer<unsigned char> padding_;
  bool encryptionExtensionEnabled_ = false;
  uint16_t encryptionAlgorithm_ = 0;
  uint16_t encryptionKeyHashAlgorithm_ = 0;
  kx::TBuffer<unsigned char> encryptionKeyHash_;
};

// Raises kx::CIOError code 5 ("VMDK file is too short for a sparse extent
// header.", with "uri" and "length") when the stream can't hold a header
// sector: a file cut short is damage, not a read past its end.
void verifyVMDKSparseExtentHeaderFits(kx::IStreamBase& stream);

}  // namespace zarn
