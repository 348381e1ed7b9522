// CVMDKForeignGrainUnpacker: unpacks the compressed grains of all extents of
// one chain, and keeps the last grain it unpacked, or the damage that kept a
// grain from unpacking, so that reads of one grain in pieces unpack it once.
//
// One per chain, not one per extent: a grain may take 32 MiB whatever the
// size of its file, and the deflate engine costs more than a grain.
#pragma once

#include <cstdint>
#include <memory>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/error.h"
#include "kx/simple_compressor.h"

namespace zarn {

// Reference counted. One thread at a time, for all extents that share it.
class CVMDKForeignGrainUnpacker : public kx::CBase {
 public:
  CVMDKForeignGrainUnpacker();
  ~CVMDKForeignGrainUnpacker() override;
  CVMDKForeignGrainUnpacker(const CVMDKForeignGrainUnpacker&) = delete;
  CVMDKForeignGrainUnpacker& operator=(const CVMDKForeignGrainUnpacker&) = delete;

  // Where an extent puts the stored form (grain header and deflate data) of
  // the grain it is about to unpack. Filling it keeps the grain held.
  kx::TBuffer<unsigned char>& getStoredBuffer() { return stored_; }
  // Whether the grain held, unpacked or damaged, is grain `grainIndex` of
  // `owner`.
  bool holds(const void* owner, int64_t grainIndex) const {
    return owner_ == owner && grainIndex_ == grainIndex;
  }
  // The plain bytes of the grain held. REQUIRES: holds() for it. Raises the
  // kept damage, as a copy, for a grain that didn't unpack.
  const unsigned char* getGrain() const;
  // Whether the grain held is all zeros. REQUIRES: as getGrain.
  bool isZero() const { return isZero_; }
  // Unpacks the stored buffer into a grain of `grainBytes` bytes, zeros
  // behind what the data gives, and holds it as grain `grainIndex` of
  // `owner`. Raises kx::CIOError code 5 for deflate data that doesn't unpack
  // or gives more than a grain; nothing is held then.
  void unpack(const void* owner, int64_t grainIndex, int64_t grainBytes);
  // Holds `error` as the damage of grain `grainIndex` of `owner`.
  void keepDamage(const void* owner, int64_t grainIndex, const kx::CError& error);
  // Lets go of what `owner` holds; an extent calls it before it goes, so that
  // a later extent at the same address finds nothing of it.
  void forget(const void* owner);

 private:
  void clear();

  kx::P<kx::ISimpleCompressor> decompressor_;
  kx::TBuffer<unsigned char> stored_;
  kx::TBuffer<unsigned char> grain_;
  const void* owner_ = nullptr;
  int64_t grainIndex_ = -1;
  bool isZero_ = false;
  std::shared_ptr<kx::CError> damage_;
};

}  // namespace zarn
