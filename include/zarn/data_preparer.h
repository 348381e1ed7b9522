// CVMDKDataPreparer: between the plain bytes of one grain and prepared data,
// the form in which a whole grain moves between disks.
//
// Without compression prepared data is the plain grain itself: the stage is
// free, nothing is copied. With compression it is the 12-byte grain header
// (lba as 64-bit, compressed size S as 32-bit, little-endian) and S bytes of
// compressed data, padded with zeros to whole sectors, or ending right behind
// the S bytes (as read from an encrypted extent); both forms are valid input.
// Prepared data is never encrypted: each extent encrypts it with its own key.
//
// The caller owns the buffers; the preparer keeps no reference to them and no
// per-grain state, so separate preparers can run on separate threads.
// Reference counting as for every kx::CBase.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/simple_compressor.h"

namespace zarn {

class CVMDKDataPreparer : public kx::CBase {
 public:
  CVMDKDataPreparer(int64_t grainSizeSectors, bool compress, int compressionLevel);
  ~CVMDKDataPreparer() override;
  CVMDKDataPreparer(const CVMDKDataPreparer&) = delete;
  CVMDKDataPreparer& operator=(const CVMDKDataPreparer&) = delete;

  bool doesAnything() const { return static_cast<bool>(compressor_); }
  // The largest prepared grain, in sectors: the grain size without
  // compression; with it, room for the compressor's bound, the header and
  // the padding.
  int64_t getWorstCaseGrainSizeSectors() const { return worstCaseGrainSizeSectors_; }
  // The compressor, or null without compression; for its fallback count.
  kx::P<kx::ISimpleCompressor> getCompressor() const { return compressor_; }

  // `source` itself without compression; with it `aux`, holding the prepared
  // grain for disk grain index `grainIndex`, a multiple of 512 bytes long.
  // A `source` shorter than a grain is taken as zeros behind its end. Raises
  // kx::CInvalidArgError for a null buffer or a `source` beyond a grain.
  kx::P<kx::TBuffer<unsigned char>> prepareGrainData(kx::TBuffer<unsigned char>* source, int64_t grainIndex,
                                                      kx::TBuffer<unsigned char>* aux);
  // `source` itself without compression; with it `aux`, holding the whole
  // plain grain. Raises kx::CIOError code 5 on data that is no prepared grain.
  kx::P<kx::TBuffer<unsigned char>> unprepareGrainData(kx::TBuffer<unsigned char>* source,
                                                        kx::TBuffer<unsigned char>* aux);
  // Puts disk grain index `grainIndex` into the header of compressed prepared
  // data; does nothing without compression. The compressed bytes don't depend
  // on the index, so one prepared grain serves at any index.
  void patchGrainIndexInPreparedGrainData(kx::TBuffer<unsigned char>& data, int64_t grainIndex) const;

 private:
  int64_t grainSizeSectors_;
  int64_t grainSizeBytes_;
  kx::P<kx::ISimpleCompressor> compressor_;
  int64_t compressedSizeUpperBound_ = -1;
  int64_t worstCaseGrainSizeSectors_;
};

}  // namespace zarn
