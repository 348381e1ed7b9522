// IVMDKExtentFile: one piece of a disk's address space, as a run of bytes of
// fixed size with a position, plus a few operations on whole grains.
//
// Positions count bytes from the extent's own start; grain indexes passed in
// count within the extent. Implemented by CVMDKSparseExtentFile (a real
// file), CVMDKNullExtentFile (no file: reads as zeros or from the fallback
// provider) and CVMDKOnDemandExtentFile (a file made at the first write).
// One thread at a time.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/uri.h"
#include "zarn/data_preparer.h"
#include "zarn/data_provider.h"
#include "zarn/space_info.h"

namespace zarn {

class IVMDKExtentFile : public virtual kx::IBase {
 public:
  // Replaces what grains without a slot read from; null means zeros.
  virtual void setFallbackDataProvider(IVMDKDataProvider* provider) = 0;
  // The disk's grain index of this extent's first grain.
  virtual int64_t getStartGrainIndex() const = 0;
  virtual int64_t getGrainSizeSectors() const = 0;
  virtual bool getCompressed() const = 0;
  virtual kx::CURI getURI() = 0;
  // 0 to the extent's size, both included.
  virtual void seek(int64_t position) = 0;
  virtual int64_t getPosition() const = 0;
  // All `size` bytes at the position, or an error; moves the position on.
  virtual void read(void* data, int size) = 0;
  virtual void write(const void* data, int size) = 0;
  // Brings every change into the file in an order that keeps it readable
  // (grain data and trail, flush, tables, flush).
  virtual void flushChanges() = 0;
  // A preparer that fits this extent's grains (see CVMDKDataPreparer).
  virtual kx::P<CVMDKDataPreparer> createDataPreparer() = 0;
  // One whole grain in prepared form at the position, which must be on a grain
  // border; moves on one grain.
  virtual void writePreparedGrainData(const kx::TBuffer<unsigned char>& data) = 0;
  virtual void readPreparedGrainData(kx::TBuffer<unsigned char>& data) = 0;
  // One whole grain as its slot stores it (see CVMDKGrain), at a grain border:
  // true; false, with `data` empty, when this extent has no slot for it (its
  // bytes come from the provider or are zeros). Moves on one grain.
  virtual bool readStoredGrainData(kx::TBuffer<unsigned char>& data) = 0;
  // Stores one whole grain given in this extent's stored form (encrypted with
  // a CVMDKGrainCodec of the disk, if the disk is encrypted).
  virtual void writeStoredGrainData(const kx::TBuffer<unsigned char>& data) = 0;
  // Copies grain `grainIndex` from the fallback provider into this extent;
  // returns the bytes dealt with (see CVMDKGrain::makeIndependentOfParent).
  virtual int64_t makeGrainIndependentOfParent(int64_t grainIndex) = 0;
  // Whether the grain at the position is stored here or behind the provider.
  virtual bool isGrainWritten() = 0;
  // Whether it is stored here.
  virtual bool isGrainWrittenAndIndependentOfParent() = 0;
  virtual kx::P<CVMDKSpaceInfo> gatherSpaceInfo() = 0;

 protected:
  ~IVMDKExtentFile() override = default;
};

}  // namespace zarn
