// CVMDKParentDiskDataProvider: a differencing disk's grains that the child
// doesn't hold, read from its parent disk.
//
// The parent is opened read-only at the first need, with the child's password
// and grain table cache, and checked against the content ID the child
// recorded; a parent that changed since is refused, while the child's own
// grains keep reading. A parent smaller than the child reads as zeros past
// its end. Chains arise by themselves (the parent has a provider of its own);
// one that goes deeper than kMaxChainDepth or comes back to a disk already in
// it is refused with kx::CIOError code 5.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/file_system.h"
#include "zarn/data_preparer.h"
#include "zarn/data_provider.h"
#include "zarn/grain_table_cache.h"

namespace zarn {

class CVMDKDisk;

class CVMDKParentDiskDataProvider : public kx::CBase, public IVMDKDataProvider {
 public:
  static constexpr int kMaxChainDepth = 255;

  // Works out the parent's URI from the child's folder and the hint; opens
  // nothing. A non-null `parentDisk` is taken as the open parent, unchecked.
  CVMDKParentDiskDataProvider(kx::IFileSystem* fileSystem, const kx::CURI& childMainFileURI,
                              uint32_t parentContentID, const kx::String& parentFileNameHint, int64_t grainSizeSectors,
                              const kx::String& password, int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                              CVMDKDisk* parentDisk);
  ~CVMDKParentDiskDataProvider() override;

  kx::CURI getParentDiskMainFileURI() const { return parentDiskMainFileURI_; }
  // Opens and checks the parent unless that was done; errors are logged and
  // raised, and the next call tries again.
  void ensureParentDiskOpen();

  void getData(int64_t position, void* buffer, int size) override;
  // Raises "Parent disk is incompatible with diff disk." when grain size or
  // compression differ from what the child asks for.
  void getPreparedGrainData(int64_t position, kx::TBuffer<unsigned char>& buffer, int grainSizeBytes,
                            bool compressed) override;
  bool isGrainWritten(int64_t position) override;

 private:
  kx::P<kx::IFileSystem> fileSystem_;
  kx::CURI childMainFileURI_;
  uint32_t parentContentID_;
  kx::String parentFileNameHint_;
  int64_t grainSizeSectors_;
  int compressionLevel_;
  kx::P<CVMDKGrainTableCache> grainTableCache_;
  kx::CURI parentDiskMainFileURI_;
  kx::P<CVMDKDisk> parentDisk_;
  int64_t parentDiskSize_ = -1;
  kx::String password_;
  kx::P<CVMDKDataPreparer> zeroGrainPreparer_;
  kx::P<kx::TBuffer<unsigned char>> zeroGrainSource_;
  kx::P<kx::TBuffer<unsigned char>> zeroGrainAuxBuffer_;
  kx::P<kx::TBuffer<unsigned char>> preparedZeroGrain_;
};

}  // namespace zarn
