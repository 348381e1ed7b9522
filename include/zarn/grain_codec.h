// CVMDKGrainCodec: the cipher work between a grain's prepared form and its
// stored form in an encrypted extent.
//
// Prepared data (see CVMDKDataPreparer) is never encrypted; the stored form
// is (see CVMDKGrain): a plain grain is the ciphertext of its bytes, padded to
// the grain size; a compressed one keeps its 12-byte header in the clear and
// encrypts the rest, rounded up to cipher blocks. Each grain goes by a vector
// of its own, made from the disk's base vector and its disk-wide index.
//
// A disk's grain encrypts through one codec; CVMDKDisk::createGrainCodec gives
// a caller one of its own, with a cipher object of its own, so grains can be
// encrypted and decrypted on other threads beside the disk, which then stores
// them as they are (CVMDKDisk::writeStoredGrainData).
//
// Reference counting as for every kx::CBase. One thread at a time per object;
// separate objects share nothing. Scratch buffers are reused from grain to
// grain, so steady work allocates nothing. Key material lives in buffers that
// are wiped when released.
#pragma once

#include <cstdint>
#include <vector>

#include "brix/cipher.h"
#include "kx/base.h"
#include "kx/buffer.h"

namespace zarn {

class CVMDKGrainCodec : public kx::CBase {
 public:
  // Takes a reference on `cipher`, which must not be null; copies `key` and
  // `baseIV`.
  CVMDKGrainCodec(int64_t grainSizeSectors, bool compressed, brix::ICipher* cipher,
                  const kx::TCryptBuffer<unsigned char>& key, const kx::TBuffer<unsigned char>& baseIV);
  ~CVMDKGrainCodec() override;
  CVMDKGrainCodec(const CVMDKGrainCodec&) = delete;
  CVMDKGrainCodec& operator=(const CVMDKGrainCodec&) = delete;

  // `stored` becomes the stored form of the prepared grain `prepared` (which
  // must not overlap it) of disk grain `diskGrainIndex`. Raises
  // kx::CIOError code 5 for compressed prepared data shorter than its header,
  // an internal kx::CError when a plain grain's ciphertext comes out another
  // size than the grain, and what the cipher raises.
  void encrypt(int64_t diskGrainIndex, const unsigned char* prepared, int64_t preparedBytes,
               kx::TBuffer<unsigned char>& stored);
  // One grain of encryptMany, with the arguments of encrypt.
  struct CJob {
    int64_t diskGrainIndex;
    const unsigned char* prepared;
    int64_t preparedBytes;
    kx::TBuffer<unsigned char>* stored;
  };
  // encrypt of every job, each into its own `stored`, which no job's
  // `prepared` may overlap. Grains are serial chains, so several at once let
  // the cipher run them side by side. Raises what encrypt raises, before any
  // grain is encrypted for bad input.
  void encryptMany(const CJob* jobs, size_t count);
  // `prepared` becomes the prepared form of the stored grain `stored`:
  // `storedBytes` of ciphertext (behind the header for a compressed grain,
  // whose first 12 bytes `stored` holds in the clear). For a compressed grain
  // `compressedSize` is the header's size of the compressed data, and
  // `storedBytes` must reach its end rounded up to cipher blocks, plus the
  // header; the result holds exactly that header and data. Raises what the
  // cipher raises, and an internal kx::CError for a plain grain whose
  // plaintext comes out another size than the grain.
  void decrypt(int64_t diskGrainIndex, const unsigned char* stored, int64_t storedBytes, int64_t compressedSize,
               kx::TBuffer<unsigned char>& prepared);

  // The cipher's block size in bytes, by which ciphertext is rounded.
  int getBlockLength() const { return blockLength_; }
  bool getCompressed() const { return compressed_; }

 private:
  int64_t grainSizeBytes_;
  bool compressed_;
  kx::P<brix::ICipher> cipher_;
  int blockLength_;
  kx::TCryptBuffer<unsigned char> key_;
  kx::TBuffer<unsigned char> baseIV_;
  kx::TBuffer<unsigned char> grainIV_;
  // Per job of encryptMany: vectors, cipher jobs, and plain grains shorter
  // than a grain padded with zeros (wiped: they are the disk's content).
  kx::TBuffer<unsigned char> grainIVs_;
  std::vector<brix::CDataJob> cipherJobs_;
  std::vector<kx::TCryptBuffer<unsigned char>> paddedPlains_;
};

}  // namespace zarn
