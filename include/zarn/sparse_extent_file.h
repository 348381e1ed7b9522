// CVMDKSparseExtentFile: an extent over a real sparse extent file.
//
// Opening checks everything before it trusts anything, in a fixed order: the
// header's magic and check bytes, the encryption (cipher, key size,
// algorithms, key hash), the version, the flags, the geometry (grain size,
// entries per table, directory offsets, capacity against the file's length),
// the directories and, for a compressed extent, the slot directory. Opening
// writes nothing and allocates in proportion to the file's size and capacity.
//
// An opened extent owns one header, one grain directory, one allocator and one
// open grain over its one stream. Requests are cut at grain borders; a grain
// is stored when the position leaves it or at flushChanges, whose order keeps
// the file readable at every moment: the open grain and the trail, a stream
// flush, then the grain tables (each as CVMDKGrainTable says: primary,
// redundant, slot table), another flush. A new slot only ever lies behind the
// last one, and a grain rewritten in place is one write of its slot, so a
// process stopped at any write, or a machine that lost what no flush covered,
// leaves every grain old or new. A table that leaves the cache flushes the
// stream before it writes itself. Before the first change of an opening the
// content ID updater puts a new content ID into the file.
//
// Reference counting as for every kx::CBase. One thread at a time.
#pragma once

#include <cstdint>

#include "brix/cipher.h"
#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/stream.h"
#include "zarn/content_id_updater.h"
#include "zarn/extent_file.h"
#include "zarn/grain.h"
#include "zarn/grain_allocator.h"
#include "zarn/grain_directory.h"
#include "zarn/grain_table_cache.h"
#include "zarn/sparse_extent_header.h"

namespace zarn {

class CVMDKSparseExtentFile : public kx::CBase, public IVMDKExtentFile {
 public:
  // `stream` is the open file at its first byte (a reference is taken);
  // `access` as it was opened. `cipher` must be given exactly when the
  // extent is encrypted, with the raw grain `key` and the `baseIV` (copied).
  // `contentIDUpdater` may be null for an extent that is only read. Raises
  // the errors of the checks above; nothing is written or kept open then
  // beyond the caller's stream.
  CVMDKSparseExtentFile(kx::IIOStream* stream, kx::IIOStream::Access access, int64_t startGrainIndex,
                        int compressionLevel, CVMDKGrainTableCache* cache, IVMDKDataProvider* provider,
                        CVMDKContentIDUpdater* contentIDUpdater, brix::ICipher* cipher,
                        const kx::TCryptBuffer<unsigned char>& key, const kx::TBuffer<unsigned char>& baseIV);
  // flushChanges; an error goes to kx::onExceptionInDestructorIgnored.
  ~CVMDKSparseExtentFile() override;
  CVMDKSparseExtentFile(const CVMDKSparseExtentFile&) = delete;
  CVMDKSparseExtentFile& operator=(const CVMDKSparseExtentFile&) = delete;

  void setFallbackDataProvider(IVMDKDataProvider* provider) override;
  int64_t getStartGrainIndex() const override { return startGrainIndex_; }
  int64_t getGrainSizeSectors() const override { return grainSizeSectors_; }
  bool getCompressed() const override { return compressed_; }
  // The extent's size as its header gives it.
  int64_t getCapacitySectors() const { return capacitySectors_; }
  kx::CURI getURI() override { return stream_->getURI(); }
  // Raises kx::CInvalidArgError outside 0 to the extent's size.
  void seek(int64_t position) override;
  int64_t getPosition() const override { return position_; }
  // Raise kx::CIOError code 4 (read) or 3 (write) for a range beyond the
  // extent, before anything moves. A write, also of 0 bytes, first tells the
  // content ID updater.
  void read(void* data, int size) override;
  void write(const void* data, int size) override;
  // Does nothing on a read-only extent. Stops at the first failing step; a
  // later call repeats what is still pending.
  void flushChanges() override;
  kx::P<CVMDKDataPreparer> createDataPreparer() override;
  // Raise kx::CIOError code 3 beyond the extent and code 11 off a grain border.
  void writePreparedGrainData(const kx::TBuffer<unsigned char>& data) override;
  void readPreparedGrainData(kx::TBuffer<unsigned char>& data) override;
  bool readStoredGrainData(kx::TBuffer<unsigned char>& data) override;
  void writeStoredGrainData(const kx::TBuffer<unsigned char>& data) override;
  int64_t makeGrainIndependentOfParent(int64_t grainIndex) override;
  bool isGrainWritten() override;
  bool isGrainWrittenAndIndependentOfParent() override;
  // Flushes first, then walks every grain table of the extent.
  kx::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

  // The extent's stream; the content ID updater writes an embedded descriptor
  // through it.
  kx::P<kx::IIOStream> getStream() const { return stream_; }
  const CVMDKSparseExtentHeader& getHeader() const { return *header_; }

 protected:
  // Internal kx::CError unless the extent was opened for writing.
  void verifyHaveWriteAccess();
  // Requires a content ID updater and write access, then tells the updater.
  void onAboutToChange();
  // Opens the grain at the position if it has no bytes left there; returns
  // how many of `size` bytes it can take.
  int64_t beginIOOp(int64_t size);

 private:
  kx::CProps uriProps() const;
  void checkGeometry();
  void checkMetadataLayout();
  kx::TBuffer<unsigned char> makeTrail();
  void beginWholeGrain(const char* operation);

  // Declared in the order of release: the last ones go first.
  kx::P<kx::IIOStream> stream_;
  kx::IIOStream::Access access_;
  kx::P<CVMDKGrainTableCache> cache_;
  int64_t startGrainIndex_;
  kx::P<IVMDKDataProvider> fallbackProvider_;
  kx::P<CVMDKContentIDUpdater> contentIDUpdater_;
  kx::P<CVMDKSparseExtentHeader> header_;
  int64_t capacitySectors_ = 0;
  int64_t extentSizeBytes_ = 0;
  int64_t grainSizeSectors_ = 0;
  int64_t grainSizeBytes_ = 0;
  bool compressed_ = false;
  int compressionLevel_;
  kx::P<CVMDKGrainDirectory> grainDirectory_;
  kx::P<CVMDKGrainAllocator> grainAllocator_;
  kx::P<CVMDKGrain> grain_;
  int64_t currentGrainIndex_ = -1;
  int64_t position_ = 0;
  kx::P<brix::ICipher> cipher_;
  kx::TCryptBuffer<unsigned char> key_;
  kx::TBuffer<unsigned char> baseIV_;
};

}  // namespace zarn
