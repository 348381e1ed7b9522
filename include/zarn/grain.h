// CVMDKGrain: the working view of the grain at an extent's position.
//
// Each sparse extent has exactly one. The extent opens it on a grain index
// with the slot that the directory gave, then reads, writes and seeks within
// the grain; the next grain is reached by opening the same object again,
// which first stores what is pending. All bytes of an extent pass through it.
//
// Reading: a grain without a slot reads from the fallback provider, or as
// zeros, without loading anything; an allocated grain is read once (decrypted
// and decompressed) into the grain's buffer and served from there, but for a
// plain grain without a cipher, whose stored form is its bytes, which is read
// from the file into the caller's memory directly.
// Writing is late: `write` only changes the buffer; the grain is prepared
// (compressed), encrypted and stored when it is closed or flushed. In a plain
// extent without a cipher, whose stored form is the bytes themselves, a write
// into a grain with a slot and a whole-grain write go straight to the file
// instead (unless changes are pending in the buffer): a random 4 KiB write
// then costs a 4 KiB write, and a whole grain no copy. It stays
// in its slot if the new form fits, else (compressed extents only) it moves
// once to a new slot of the worst-case size, which any later form fits; the
// old slot becomes dead space. An all-zero grain without a slot and without a
// provider gets no slot.
// Prepared data (see CVMDKDataPreparer) moves whole grains without unpacking.
//
// Stored forms: in a plain extent the grain's bytes (or their ciphertext, the
// same size) fill a slot of the grain size. In a compressed extent the 12-byte
// header stays in the clear and the compressed bytes follow (encrypted behind
// the header, rounded up to cipher blocks), padded with zeros in a new slot.
// Each grain is encrypted from its own vector, see makeGrainEncryptIV.
//
// Every buffer belongs to the object and is reused from grain to grain:
// steady sequential work allocates nothing. Buffers handed to the stream for
// keeping are only the caller's own (writePreparedGrainDataKeepBuffer).
// Reference counting as for every kx::CBase. One thread at a time.
#pragma once

#include <cstdint>

#include "brix/cipher.h"
#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/error.h"
#include "kx/stream.h"
#include "zarn/data_preparer.h"
#include "zarn/data_provider.h"
#include "zarn/grain_allocator_interface.h"

namespace zarn {

class CVMDKGrainCodec;

class CVMDKGrain : public kx::CBase {
 public:
  // Starts closed. `key` and `baseIV` are copied; references are taken on
  // `stream`, `allocator`, `fallbackProvider` and `cipher`, the last two of
  // which may be null. Raises kx::CInvalidArgError for a grain size outside
  // 1 to kVMDKMaxGrainSizeSectors.
  CVMDKGrain(kx::IIOStream* stream, kx::IIOStream::Access access, int64_t grainSizeSectors,
             IVMDKGrainAllocator* allocator, bool compressed, int compressionLevel,
             IVMDKDataProvider* fallbackProvider, brix::ICipher* cipher, const kx::TCryptBuffer<unsigned char>& key,
             const kx::TBuffer<unsigned char>& baseIV);
  // Closes, storing what is pending; an error goes to
  // kx::onExceptionInDestructorIgnored.
  ~CVMDKGrain() override;
  CVMDKGrain(const CVMDKGrain&) = delete;
  CVMDKGrain& operator=(const CVMDKGrain&) = delete;

  // Stores the grain that was open, then opens this one at position 0. A
  // `posSectors` below 1 means no slot (the slot size is then taken as 0).
  // Raises kx::CInvalidArgError for a slot smaller than the grain in a plain
  // extent or a negative one in a compressed one; the grain is then closed. A
  // compressed slot of 0 sectors is one whose size an interrupted flush never
  // wrote: it reads when the stored form proves to be this grain's, and a
  // rewrite moves it. A failure to store the previous grain leaves it open.
  void open(int64_t extentGrainIndex, int64_t diskGrainIndex, int64_t posSectors, int64_t slotSizeSectors);
  // Stores what is pending and empties the buffers (keeping their memory).
  void close();
  bool isOpen() const { return posSectors_ != -1; }

  // 0 to below the grain size; else kx::CInvalidArgError.
  void seek(int64_t position);
  int64_t getPosition() const { return isOpen() ? posInGrain_ : 0; }
  int32_t getBytesLeft() const { return isOpen() ? static_cast<int32_t>(grainSizeBytes_ - posInGrain_) : 0; }
  int64_t getGrainStartPositionSectors() const { return posSectors_; }

  // Reads `size` bytes at the position and moves on. Raises
  // kx::CInvalidArgError for a negative size, kx::CIOError code 4 past the
  // grain, code 5 for a stored grain that is damaged (a compressed size above
  // twice the grain, a form larger than its slot, a slot beyond the end of
  // the file), and what the stream, cipher and decompressor raise. The
  // position stays on failure.
  void read(void* buffer, int size);
  // Changes the grain's buffer at the position and moves on. A whole-grain
  // write reads nothing; a partial one first loads the grain (from its slot,
  // the provider or zeros). Raises kx::CInvalidArgError for a negative size,
  // kx::CIOError code 3 past the grain, an internal kx::CError when read-only.
  void write(const void* buffer, int size);
  // Stores the grain if it changed. On failure it stays dirty, so this can
  // run again.
  void flushChangesToStream();

  // The prepared form of the whole grain (never encrypted); the position must
  // be 0 (else kx::CIOError code 3) and ends at the grain's end. Stores
  // pending changes first.
  void readPreparedGrainData(kx::TBuffer<unsigned char>& buffer);
  // Replaces the whole grain by prepared data (whose header the caller has
  // set, see CVMDKDataPreparer::patchGrainIndexInPreparedGrainData) and stores
  // it at once; unstored changes are dropped. Position 0 only; ends at the
  // grain's end. The KeepBuffer form lets the stream keep `data` on a clear
  // extent: its bytes must then not change until they reached the file.
  void writePreparedGrainData(const kx::TBuffer<unsigned char>& data);
  void writePreparedGrainDataKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data);
  // Copies the provider's prepared grain into a slot of this extent, so the
  // grain no longer needs the parent. Returns 0 without a provider (nothing
  // done), the grain size when the grain has its slot already, else the size
  // of the prepared data copied. Position 0 only.
  int64_t makeIndependentOfParent();

  // The whole grain as its slot stores it (ciphertext on an encrypted
  // extent; a compressed grain's header and data without the zeros of its
  // last sector): true; false with `buffer` empty for a grain without a slot.
  // Position 0 only (else kx::CIOError code 3); stores pending changes first;
  // ends at the grain's end. Damage is refused as by read.
  bool readStoredGrainData(kx::TBuffer<unsigned char>& buffer);
  // Stores `data`, already in this extent's stored form (see CVMDKGrainCodec),
  // as the whole grain, slot decided as for prepared data. Position 0 only.
  void writeStoredGrainData(const kx::TBuffer<unsigned char>& data);

  // Written here, or (without a slot) in a disk behind the provider.
  bool isGrainWritten();
  // Written here; the provider isn't asked.
  bool isGrainWrittenAndIndependentOfParent() const;

  // Takes effect at the next read of a grain without a slot.
  void setFallbackDataProvider(IVMDKDataProvider* provider);
  kx::P<CVMDKDataPreparer> createDataPreparer() const;

  // `target` becomes `baseIV` with byte i XORed with byte (i mod 8) of
  // `grainIndex`, byte 0 being the least significant.
  static void makeGrainEncryptIV(kx::TBuffer<unsigned char>& target, const kx::TBuffer<unsigned char>& baseIV,
                                 int64_t grainIndex);

 protected:
  void readGrainData();
  void readCompressedGrain(kx::TBuffer<unsigned char>& buffer);
  void readUncompressedGrain(kx::TBuffer<unsigned char>& buffer);
  void initZeroGrainData(int64_t grainIndex);
  // `stored`: the data is in the stored form already, no cipher work is due.
  void writePreparedGrainDataImpl(const kx::TConstBufferSlice<unsigned char>& data, bool keepBuffer, bool stored);
  void writePreparedGrainDataInternal(kx::TConstBufferSlice<unsigned char> data, bool keepBuffer, bool stored);
  // Reads a compressed grain's stored form, whole sectors, into `work`;
  // returns its bytes and sets the header's compressed size.
  int64_t readStoredCompressedGrain(kx::TBuffer<unsigned char>& work, int64_t& compressedSize);

 private:
  kx::CProps uriProps() const;
  void checkOpen(const char* operation) const;
  // Raises kx::CIOError code 5 unless `bytes` from the slot's start lie within
  // the file and (`withSlot`) the slot. A compressed form whose header names
  // this grain may exceed a slot size that an interrupted flush left stale
  // (isStaleSlotSize).
  void checkStoredFormFits(int64_t bytes, uint64_t lba, int64_t compressedSize, bool withSlot = true);
  bool isStaleSlotSize(int64_t bytes, uint64_t lba) const;
  // Checks that the slot's first read fits, then seeks to the slot.
  void seekToSlot();
  void encryptInto(const kx::TConstBufferSlice<unsigned char>& data);
  // Stores the bytes of a write at once, in a plain extent without a cipher:
  // into the slot, or a whole grain into a new one (none for zeros, as in
  // flushChangesToStream).
  void writeThrough(const void* buffer, int size);

  kx::P<kx::IIOStream> stream_;
  kx::IIOStream::Access access_;
  kx::P<IVMDKGrainAllocator> allocator_;
  int64_t posSectors_ = -1;
  int64_t slotSizeSectors_ = -1;
  int64_t extentGrainIndex_ = -1;
  int64_t diskGrainIndex_ = -1;
  int64_t grainSizeSectors_;
  int64_t grainSizeBytes_;
  bool compressed_;
  int compressionLevel_;
  kx::P<IVMDKDataProvider> fallbackProvider_;
  kx::TBuffer<unsigned char> grainData_;
  bool dirty_ = false;
  int64_t posInGrain_ = 0;
  kx::P<CVMDKDataPreparer> preparer_;
  int64_t worstCaseSectors_;
  kx::TBuffer<unsigned char> preparedData_;
  kx::P<kx::TBuffer<unsigned char>> zeroGrain_;
  kx::P<kx::TBuffer<unsigned char>> zeroGrainAux_;
  kx::P<kx::TBuffer<unsigned char>> preparedZeroGrain_;
  kx::TBuffer<unsigned char> parentPrepared_;
  kx::P<brix::ICipher> cipher_;
  kx::P<CVMDKGrainCodec> codec_;  // with a cipher
  int32_t cipherBlockSize_ = 0;
  kx::TBuffer<unsigned char> encrypted_;
  kx::TBuffer<unsigned char> paddedPlain_;
};

}  // namespace zarn
