// CVMDKDisk: a virtual disk stored as VMDK sparse files.
//
// One object stands for one disk: a flat run of bytes, cut into grains, whose
// contents live in one or more extent files and, for grains that a
// differencing disk has not written, in a chain of parent disks. It is opened
// by the URI of its main file (a descriptor file, or the first extent with the
// descriptor embedded), or made by `create`.
//
// Opening takes the lock file beside the main file ("<name>.lock"; shared for
// reading, exclusive for writing), reads the descriptor, unlocks an encrypted
// disk's key with the password, and maps sector ranges to extent files. Only
// one extent file is open at a time: the position decides which, and leaving
// an extent flushes and closes it. Parents are opened when first needed and
// checked against the content ID the child recorded. The first change of an
// opening gives the disk a new content ID, in the file, before any data moves.
//
// There is no close: the last reference flushes the open extent and releases
// the lock. All objects of a disk, its parents and the grain table cache they
// share are used by one thread at a time.
#pragma once

#include <cstdint>

#include "brix/cipher.h"
#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/containers.h"
#include "kx/file_system.h"
#include "kx/lock_file.h"
#include "kx/stream.h"
#include "kx/uri.h"
#include "zarn/content_id_updater.h"
#include "zarn/data_preparer.h"
#include "zarn/data_provider.h"
#include "zarn/descriptor.h"
#include "zarn/descriptor_accessor.h"
#include "zarn/extent_file.h"
#include "zarn/extent_info.h"
#include "zarn/grain_table_cache.h"
#include "zarn/grain_codec.h"
#include "zarn/space_info.h"

namespace zarn {

class CVMDKSparseExtentFile;

class CVMDKDisk : public kx::CBase {
 public:
  // A range of sectors. Keys order by range: overlapping keys are
  // equivalent, so (sector, 1) finds the extent that holds the sector.
  class CExtentKey {
   public:
    int64_t startSector = 0;
    int64_t lengthSectors = 0;
    bool operator<(const CExtentKey& other) const { return startSector + lengthSectors <= other.startSector; }
  };
  class CExtentValue {
   public:
    kx::CURI fileURI;
    int64_t startGrainIndex = -1;  // the disk's grain index of the extent's first grain
  };

  // Opens the disk whose main file is `uri`, for reading (access 1) or reading
  // and writing (3). `password` unlocks an encrypted disk and goes on to the
  // parents. `grainTableCache` is shared if given (else a new one of 1024
  // tables); `parentDisk` is an open parent to use instead of opening the one
  // the descriptor names. A failure releases everything taken so far.
  CVMDKDisk(kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access,
            const kx::String& password = kx::String(), int compressionLevel = -1,
            CVMDKGrainTableCache* grainTableCache = nullptr, CVMDKDisk* parentDisk = nullptr);
  ~CVMDKDisk() override;
  CVMDKDisk(const CVMDKDisk&) = delete;
  CVMDKDisk& operator=(const CVMDKDisk&) = delete;

  // Makes a new, empty disk of at least `sizeBytes` and opens it for
  // writing: "monolithicSparse" (one file), "twoGbMaxExtentSparse" (a
  // descriptor file and extents of at most `fileSizeLimit` bytes) or, with
  // `compressed`, "streamOptimized" (one file, or split by `fileSizeLimit`).
  // A non-empty `password` encrypts it; a parent path and content ID make it a
  // differencing disk; `createExtentFilesOnDemand` leaves all but the first
  // extent file to the first write into them. Existing files of the same
  // names are replaced.
  static kx::P<CVMDKDisk> create(kx::IFileSystem* fileSystem, const kx::CURI& uri, int64_t sizeBytes,
                                 const kx::String& password, bool compressed, int compressionLevel,
                                 int64_t fileSizeLimit, const kx::String& sParentRelPath, uint32_t parentContentID,
                                 bool createExtentFilesOnDemand);
  // PBKDF2-HMAC-SHA1 of the password's UTF-8 bytes as "kxEncKeyDerivAlg"
  // ("pkcs5-pbkdf2-hmac-sha1:<iterations>", at least 1000) and a salt of at
  // least 8 bytes say.
  static void deriveEncryptKey(kx::TCryptBuffer<unsigned char>& derivedKey, int keyLength,
                               const kx::String& password, const kx::String& algorithm,
                               const kx::TBuffer<unsigned char>& salt);
  // 2 GiB: the file size limit of a split disk.
  static int64_t getDefaultFileSizeLimit() { return 0x80000000LL; }
  // 128 sectors: the grain size of every disk `create` makes.
  static int64_t getGrainSizeSectors() { return 128; }
  // At least 8 MiB, rounded up to whole grains of 64 KiB.
  static int64_t getVirtualDiskSizeBytesFromMinSizeBytes(int64_t minSizeBytes);

  // How `create` lays a disk out over its files, worked out without touching
  // one: for the same arguments `create` makes exactly this.
  struct CCreationLayout {
    int64_t virtualSizeBytes = 0;  // the disk's size
    bool descriptorEmbedded = true;  // in the first extent, else a file of its own
    int64_t grainsPerExtent = 0;   // of every extent but the last
    int64_t extentCount = 0;
    int64_t descriptorSectors = 0;  // reserved for the descriptor
  };
  // Raises what `create` raises for its sizes: kx::CInvalidArgError for a size
  // that one file can't hold or that needs more extent files than a
  // descriptor can name (with "sizeBytes", and "extentCount"), and the
  // internal error of a file size limit too small for its metadata.
  // `mainFileName` is the main file's name, whose length the extent lines
  // take.
  static CCreationLayout calcCreationLayout(int64_t sizeBytes, bool compressed, int64_t fileSizeLimit,
                                            const kx::String& mainFileName);

  // Bytes at the position, which moves on. Raises kx::CIOError code 4 (read)
  // or 3 (write) beyond the disk, before anything moves; a write on a disk
  // opened for reading raises an internal kx::CError.
  void read(void* buffer, int bytes);
  void write(const void* buffer, int bytes);
  // 0 to the size, both included; else kx::CIOError code 7.
  void seek(int64_t position);
  int64_t getPosition() const { return position_; }
  int64_t getSizeBytes() const { return sizeBytes_; }
  int64_t getGrainSizeBytes() const { return grainSizeBytes_; }
  bool getCompressed() const { return compressed_; }

  // Whole grains in prepared form (see CVMDKDataPreparer) at a grain border;
  // the position moves on one grain. Raise kx::CIOError code 3 beyond the
  // disk and code 11 off a grain border.
  void readPreparedGrainData(kx::TBuffer<unsigned char>& data);
  void writePreparedGrainData(const kx::TBuffer<unsigned char>& data);
  // A whole grain at the position (on a grain border) as this disk's slot
  // stores it, ciphertext on an encrypted disk: true; false, with `data`
  // empty, when this disk holds no slot for it (it comes from a parent or is
  // zeros). Moves on one grain. With createGrainCodec, the cipher work of a
  // copy can run on other threads than the disk's.
  bool readStoredGrainData(kx::TBuffer<unsigned char>& data);
  // Stores a whole grain given in this disk's stored form: prepared data (see
  // CVMDKDataPreparer) that went through this disk's CVMDKGrainCodec when the
  // disk is encrypted. Write access and a grain border needed, as for
  // writePreparedGrainData.
  void writeStoredGrainData(const kx::TBuffer<unsigned char>& data);
  // A codec with the key of this encrypted disk and a cipher of its own, for
  // use on any one thread; null for a disk without encryption, whose stored
  // form is its prepared form.
  kx::P<CVMDKGrainCodec> createGrainCodec() const;
  // Copies disk grain `grainIndex` from the parent into this disk if it
  // doesn't hold it; see CVMDKGrain::makeIndependentOfParent for the result.
  int64_t makeGrainIndependentOfParent(int64_t grainIndex);
  // About the grain at the position: stored here or in a parent / here.
  bool isGrainWritten();
  bool isGrainWrittenAndIndependentOfParent();

  // Brings the open extent's changes into its file. Nothing on a read-only disk.
  void flushChanges();
  // Adds up the space use of all extent files; the position stays.
  kx::P<CVMDKSpaceInfo> gatherSpaceInfo();
  // Off: grain tables reach the files only when flushed (see
  // CVMDKGrainTableCache::setAutoEnforceLimit).
  void setAutomaticGrainTableFlushingEnabled(bool enabled);
  void setContentIDUpdatesEnabled(bool enabled);
  kx::P<CVMDKDataPreparer> createDataPreparer() const;
  // Writes the disk's document back into its place in the main file.
  void storeDescriptor();
  // Changes the parent reference for the next opening, and stores it.
  void changeParentRelPath(const kx::String& path);

  kx::P<CVMDKDescriptor> getDescriptor() const { return descriptor_; }
  kx::P<CVMDKGrainTableCache> getGrainTableCache() const { return grainTableCache_; }
  kx::CURI getMainFileURI() const { return mainURI_; }
  kx::CURI getFirstExtentFileURI() const { return firstExtentURI_; }
  kx::CURI getParentDiskMainURI() const { return parentDiskMainURI_; }

 protected:
  // A descriptor accessor on the main file, through the open extent's stream
  // when that extent is the main file.
  kx::P<CVMDKDescriptorAccessor> openDescriptorAccessor();
  // Makes the extent that holds the position the open one, positioned;
  // `available` says how many of `bytes` it can serve.
  void beginIOOp(int64_t bytes, kx::P<IVMDKExtentFile>& extent, int64_t& available);

 private:
  kx::CProps mainProps() const;
  void unlockEncryption(const kx::String& password, const kx::CURI& uri);
  void checkPreparedRange(bool reading);
  // kx::CIOError code 5 when the extent's header holds fewer sectors than its
  // extent line gives it.
  static void checkExtentCapacity(const CVMDKSparseExtentFile& extent, int64_t lineSectors);
  // beginIOOp for a whole grain at the position; an internal error if the
  // extent can't serve all of it.
  kx::P<IVMDKExtentFile> beginWholeGrain(const char* operation);
  template <class Piece>
  void forEachExtentPiece(int64_t bytes, Piece piece);

  kx::P<kx::IFileSystem> fileSystem_;
  kx::CURI mainURI_;
  kx::IIOStream::Access access_;
  kx::CURI firstExtentURI_;
  int compressionLevel_;
  kx::P<CVMDKGrainTableCache> grainTableCache_;
  kx::CURI parentDiskMainURI_;
  kx::P<IVMDKDataProvider> parentDataProvider_;
  kx::P<CVMDKDescriptor> descriptor_;
  kx::TArray<kx::P<CVMDKExtentInfo>> extentInfos_;
  kx::TMap<CExtentKey, CExtentValue> extentMap_;
  int64_t sizeSectors_ = 0;
  int64_t sizeBytes_ = 0;
  int64_t grainSizeSectors_ = 0;
  int64_t grainSizeBytes_ = 0;
  bool compressed_ = false;
  int64_t position_ = 0;
  kx::P<IVMDKExtentFile> currentExtent_;
  kx::CURI currentExtentURI_;
  int64_t currentExtentStartBytes_ = -1;
  int64_t currentExtentLengthBytes_ = 0;
  kx::P<CVMDKContentIDUpdater> contentIDUpdater_;
  bool createExtentFilesOnDemand_ = false;
  kx::P<kx::CLockFile> lockFile_;
  kx::P<brix::ICipher> cipher_;
  kx::TCryptBuffer<unsigned char> encryptionKey_;
  kx::TBuffer<unsigned char> encryptionIV_;
  kx::TBuffer<unsigned char> encryptionKeyHash_;
};

}  // namespace zarn
