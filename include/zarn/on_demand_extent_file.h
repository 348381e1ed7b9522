// CVMDKOnDemandExtentFile: an extent whose file is made at its first change.
//
// Until then it reads as an empty extent (a CVMDKNullExtentFile inside);
// the first write, prepared write or makeGrainIndependentOfParent creates the
// file complete and closed, opens it as a CVMDKSparseExtentFile with every
// check, carries the position over, and forwards from then on. A file that
// already exists is used at once, unless its making never finished (a crash
// in between): such a file holds no grain yet, reads as not made, and is
// made anew at the first change. One thread at a time.
#pragma once

#include <cstdint>

#include "brix/cipher.h"
#include "kx/base.h"
#include "kx/file_system.h"
#include "zarn/content_id_updater.h"
#include "zarn/extent_file.h"
#include "zarn/grain_table_cache.h"

namespace zarn {

class CVMDKOnDemandExtentFile : public kx::CBase, public IVMDKExtentFile {
 public:
  // `keyHash` goes into the header of a new file: empty for a plain extent.
  CVMDKOnDemandExtentFile(kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access,
                          int64_t startGrainIndex, int64_t grainSizeSectors, int64_t extentSizeSectors,
                          int64_t bytesPerSector, bool compressed, int compressionLevel, IVMDKDataProvider* provider,
                          CVMDKGrainTableCache* cache, CVMDKContentIDUpdater* contentIDUpdater, brix::ICipher* cipher,
                          const kx::TCryptBuffer<unsigned char>& key, const kx::TBuffer<unsigned char>& baseIV,
                          const kx::TBuffer<unsigned char>& keyHash);
  ~CVMDKOnDemandExtentFile() override;

  void setFallbackDataProvider(IVMDKDataProvider* provider) override;
  int64_t getStartGrainIndex() const override { return startGrainIndex_; }
  int64_t getGrainSizeSectors() const override { return grainSizeSectors_; }
  bool getCompressed() const override { return compressed_; }
  kx::CURI getURI() override { return uri_; }
  void seek(int64_t position) override { inner_->seek(position); }
  int64_t getPosition() const override { return inner_->getPosition(); }
  void read(void* data, int size) override { inner_->read(data, size); }
  void write(const void* data, int size) override;
  void flushChanges() override { inner_->flushChanges(); }
  kx::P<CVMDKDataPreparer> createDataPreparer() override { return inner_->createDataPreparer(); }
  void writePreparedGrainData(const kx::TBuffer<unsigned char>& data) override;
  void readPreparedGrainData(kx::TBuffer<unsigned char>& data) override { inner_->readPreparedGrainData(data); }
  bool readStoredGrainData(kx::TBuffer<unsigned char>& data) override { return inner_->readStoredGrainData(data); }
  void writeStoredGrainData(const kx::TBuffer<unsigned char>& data) override;
  int64_t makeGrainIndependentOfParent(int64_t grainIndex) override;
  bool isGrainWritten() override { return inner_->isGrainWritten(); }
  bool isGrainWrittenAndIndependentOfParent() override { return inner_->isGrainWrittenAndIndependentOfParent(); }
  kx::P<CVMDKSpaceInfo> gatherSpaceInfo() override { return inner_->gatherSpaceInfo(); }

  bool isUsingNullExtent() const { return usingNullExtent_; }

  // Whether `uri` names an extent file whose making finished: one that exists
  // and whose header, written last when a file is made, names its metadata.
  // Raises what the file system raises for anything but a missing file.
  static bool isExtentFileMade(kx::IFileSystem* fileSystem, const kx::CURI& uri);

 protected:
  // Makes and opens the file before the first change; an internal kx::CError
  // without write access.
  void prepareWrite();
  void updateInnerFileObject(bool useNullExtent);

 private:
  kx::P<kx::IFileSystem> fileSystem_;
  kx::CURI uri_;
  kx::IIOStream::Access access_;
  int64_t startGrainIndex_;
  int64_t grainSizeSectors_;
  int64_t extentSizeSectors_;
  int64_t bytesPerSector_;
  bool compressed_;
  int compressionLevel_;
  kx::P<IVMDKDataProvider> fallbackProvider_;
  kx::P<CVMDKGrainTableCache> cache_;
  kx::P<CVMDKContentIDUpdater> contentIDUpdater_;
  bool usingNullExtent_ = false;
  kx::P<IVMDKExtentFile> inner_;
  kx::P<brix::ICipher> cipher_;
  kx::TCryptBuffer<unsigned char> key_;
  kx::TBuffer<unsigned char> baseIV_;
  kx::TBuffer<unsigned char> keyHash_;
};

}  // namespace zarn
