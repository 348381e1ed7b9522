// CVMDKNullExtentFile: an extent without a file. It reads like a sparse
// extent in which no grain was ever written (from the fallback provider, or
// zeros) and refuses every change. The inner object of an on-demand extent
// until its first write. One thread at a time.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/error.h"
#include "zarn/extent_file.h"

namespace zarn {

class CVMDKNullExtentFile : public kx::CBase, public IVMDKExtentFile {
 public:
  CVMDKNullExtentFile(const kx::CURI& uri, int64_t startGrainIndex, int64_t grainSizeSectors,
                      int64_t extentSizeSectors, int64_t bytesPerSector, bool compressed, int compressionLevel,
                      IVMDKDataProvider* provider);
  ~CVMDKNullExtentFile() override;

  void setFallbackDataProvider(IVMDKDataProvider* provider) override;
  int64_t getStartGrainIndex() const override { return startGrainIndex_; }
  int64_t getGrainSizeSectors() const override { return grainSizeSectors_; }
  bool getCompressed() const override { return compressed_; }
  kx::CURI getURI() override { return uri_; }
  void seek(int64_t position) override;
  int64_t getPosition() const override { return position_; }
  void read(void* data, int size) override;
  // The three changing operations raise an internal kx::CError.
  void write(const void* data, int size) override;
  void flushChanges() override {}
  kx::P<CVMDKDataPreparer> createDataPreparer() override;
  void writePreparedGrainData(const kx::TBuffer<unsigned char>& data) override;
  // The provider's prepared grain, or a prepared zero grain (compressed once).
  void readPreparedGrainData(kx::TBuffer<unsigned char>& data) override;
  // Nothing is stored here: false, and the position moves on.
  bool readStoredGrainData(kx::TBuffer<unsigned char>& data) override;
  // An internal error, as every write.
  void writeStoredGrainData(const kx::TBuffer<unsigned char>& data) override;
  int64_t makeGrainIndependentOfParent(int64_t grainIndex) override;
  bool isGrainWritten() override;
  bool isGrainWrittenAndIndependentOfParent() override { return false; }
  kx::P<CVMDKSpaceInfo> gatherSpaceInfo() override { return kx::create<CVMDKSpaceInfo>(); }

 private:
  kx::CProps uriProps() const;

  kx::CURI uri_;
  int64_t startGrainIndex_;
  int64_t grainSizeSectors_;
  int64_t extentSizeSectors_;
  int64_t bytesPerSector_;
  bool compressed_;
  int compressionLevel_;
  int64_t grainSizeBytes_;
  int64_t extentSizeBytes_;
  kx::P<IVMDKDataProvider> fallbackProvider_;
  int64_t position_ = 0;
  kx::P<CVMDKDataPreparer> preparer_;
  kx::P<kx::TBuffer<unsigned char>> preparedZeroGrain_;
};

}  // namespace zarn
