#include "zarn/disk.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include "brix/digest.h"
#include "brix/key_derivation.h"
#include "kx/error.h"
#include "kx/log.h"
#include "kx/parse.h"
#include "kx/random.h"
#include "zarn/empty_extent_file.h"
#include "zarn/file_reference.h"
#include "zarn/format_constants.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/on_demand_extent_file.h"
#include "zarn/parent_disk_data_provider.h"
#include "zarn/sparse_extent_file.h"

namespace zarn {
namespace {

constexpr int64_t kGrainBytes = 0x10000;
constexpr int64_t kMinDiskBytes = 0x800000;
constexpr int64_t kLargestFileBytes = 0x20000000000LL;  // 2 TiB: 32-bit sector numbers in one file
constexpr int kKeyDerivationIterations = 10000;
const char kKeyDerivationPrefix[] = "pkcs5-pbkdf2-hmac-sha1:";
const char kCipherID[] = "aes256cbc";
const char kKeyHashAlgorithm[] = "sha256";

kx::CProps uriProps(const kx::CURI& uri) { return kx::CProps().add("uri", uri.toString(true)); }

uint32_t drawContentID() {
  kx::CMutexLock lock(kx::CMTRand::getGlobalInstanceMutex());
  uint32_t value;
  do {
    value = kx::CMTRand::getGlobal().rand32();
  } while (value == 0 || value == kNoParentContentID);
  return value;
}

void fillRandom(kx::TBuffer<unsigned char>& buffer, size_t size) {
  buffer.setUsed(size);
  kx::CMutexLock lock(kx::CMTRand::getGlobalInstanceMutex());
  kx::CMTRand::getGlobal().randData(buffer.getData(), size);
}

kx::TBuffer<unsigned char> sha256(const kx::TBuffer<unsigned char>& data) {
  kx::P<brix::IDigest> digest = kx::create<brix::CDigestType_SHA256>()->createDigest();
  digest->update(data.getData(), static_cast<int>(data.getUsed()));
  digest->finish();
  kx::TBuffer<unsigned char> hash;
  hash.assign(digest->getData(), static_cast<size_t>(digest->getLength()));
  return hash;
}

// The keys of a new encrypted disk; see deriveEncryptKey. Only the hash of
// the grain key stays, for the extent headers.
kx::TBuffer<unsigned char> makeEncryptionKeys(CVMDKDescriptor& descriptor, const kx::String& password) {
  auto cipher = kx::create<brix::CCipher_AES256CBC>();
  const int keyLength = cipher->getKeyLength(), blockLength = cipher->getBlockLength();
  descriptor.setKxEncryptionAlgorithm(kCipherID);
  kx::TBuffer<unsigned char> iv, salt;
  fillRandom(iv, static_cast<size_t>(blockLength));
  descriptor.setKxEncryptionIV(iv);
  const kx::String algorithm = kx::String(kKeyDerivationPrefix) << kKeyDerivationIterations;
  descriptor.setKxEncryptionKeyDerivationAlgorithm(algorithm);
  fillRandom(salt, static_cast<size_t>(keyLength));
  descriptor.setKxEncryptionKeyDerivationSalt(salt);
  kx::TCryptBuffer<unsigned char> derivedKey, plainKey;
  CVMDKDisk::deriveEncryptKey(derivedKey, keyLength, password, algorithm, salt);
  fillRandom(plainKey, static_cast<size_t>(keyLength));
  kx::TBuffer<unsigned char> encryptedKey(static_cast<size_t>(keyLength));
  cipher->encrypt(derivedKey, plainKey.getData(), static_cast<int>(plainKey.getUsed()), encryptedKey, false,
                  iv.getData());
  descriptor.setKxEncryptedEncryptionKey(encryptedKey);
  descriptor.setKxEncryptionKeyHashAlgorithm(kKeyHashAlgorithm);
  kx::TBuffer<unsigned char> keyHash = sha256(plainKey);
  descriptor.setKxEncryptionKeyHash(keyHash);
  return keyHash;
}

}  // namespace

// --- opening ----------------------------------------------------------------

CVMDKDisk::CVMDKDisk(kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access,
                     const kx::String& password, int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                     CVMDKDisk* parentDisk)
    : fileSystem_(kx::P<kx::IFileSystem>::share(fileSystem)),
      mainURI_(uri.toNormalized()),
      access_(access),
      compressionLevel_(compressionLevel) {
  if (!fileSystem_) throw kx::CError("Internal error: CVMDKDisk needs a file system.");
  const kx::CURI lockURI = uri.getParent() << (uri.getName() + ".lock");
  try {
    lockFile_ = kx::create<kx::CLockFile>(fileSystem, lockURI, access == kx::IIOStream::ACCESS_READ_WRITE ? 2 : 1,
                                          false, true);
  } catch (const kx::CError&) {
    // A reader may open a disk in a folder where it can't make a lock file.
    if (access_ != kx::IIOStream::ACCESS_READ || fileSystem_->fileExists(lockURI)) throw;
  }
  grainTableCache_ = grainTableCache ? kx::P<CVMDKGrainTableCache>::share(grainTableCache)
                                     : kx::create<CVMDKGrainTableCache>(CVMDKGrainTableCache::kDefaultLimit);

  bool embedded = false;
  {
    kx::P<CVMDKDescriptorAccessor> accessor = openDescriptorAccessor();
    descriptor_ = accessor->getDescriptor();
    embedded = accessor->getEmbeddedInSparseExtentFile();
  }
  if (!descriptor_) throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "No descriptor found in main VMDK file.", uriProps(uri));
  // A single-file disk that was copied or renamed reads and writes itself,
  // not the file its line still names; the first store corrects the line.
  if (embedded) descriptor_->correctSingleExtentFilename(mainURI_.getName());
  const kx::String createType = descriptor_->getCreateType();
  if (createType != "twoGbMaxExtentSparse" && createType != "streamOptimized" && createType != "monolithicSparse") {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK disk has an unsupported create type: '" + createType + "'.",
                       uriProps(uri));
  }
  if (!descriptor_->getKxEncryptionAlgorithm().isEmpty()) unlockEncryption(password, uri);
  createExtentFilesOnDemand_ = descriptor_->getKxCreateExtentFilesOnDemand();

  descriptor_->getExtentEntries(extentInfos_);
  int64_t runningSectors = 0;
  for (const auto& info : extentInfos_) {
    if (info->getType() != "SPARSE") {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                         "VMDK disk has an unsupported extent type: '" + info->getType() + "'.", uriProps(uri));
    }
    const int64_t sectors = info->getSizeSectors();
    if (sectors < 0 || sectors > std::numeric_limits<int64_t>::max() / kSectorSizeBytes - runningSectors) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                         kx::String::Format("VMDK disk has an invalid extent size: %lld sectors",
                                            static_cast<long long>(sectors)),
                         uriProps(uri));
    }
    const kx::CURI fileURI = vmdkFileReferenceToURI(mainURI_.getParent(), info->getFilename());
    if (firstExtentURI_.isEmpty()) firstExtentURI_ = fileURI;
    // An empty range holds no sector, and would be equivalent to its neighbour.
    if (sectors > 0) extentMap_.emplace(CExtentKey{runningSectors, sectors}, CExtentValue{fileURI, -1});
    runningSectors += sectors;
  }
  if (extentMap_.empty()) throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK disk has no extents.", uriProps(uri));

  {
    auto stream = openVMDKFileStream(fileSystem, firstExtentURI_, kx::IIOStream::ACCESS_READ);
    auto first = kx::create<CVMDKSparseExtentFile>(stream.get(), kx::IIOStream::ACCESS_READ, 0, compressionLevel_,
                                                   grainTableCache_.get(), nullptr, nullptr, cipher_.get(),
                                                   encryptionKey_, encryptionIV_);
    const auto& firstEntry = *extentMap_.begin();
    if (firstEntry.second.fileURI == firstExtentURI_) {
      checkExtentCapacity(*first, firstEntry.first.lengthSectors);
    }
    grainSizeSectors_ = first->getGrainSizeSectors();
    grainSizeBytes_ = grainSizeSectors_ * kSectorSizeBytes;
    compressed_ = first->getCompressed();
  }
  for (auto& entry : extentMap_) {
    entry.second.startGrainIndex = (entry.first.startSector + grainSizeSectors_ - 1) / grainSizeSectors_;
  }

  const uint32_t parentContentID = descriptor_->getParentContentID();
  if (parentContentID != kNoParentContentID) {
    auto provider = kx::create<CVMDKParentDiskDataProvider>(
        fileSystem, mainURI_, parentContentID, descriptor_->getParentFileNameHint(), grainSizeSectors_, password,
        compressionLevel_, grainTableCache_.get(), parentDisk);
    parentDiskMainURI_ = provider->getParentDiskMainFileURI();
    parentDataProvider_ = provider;
  }
  contentIDUpdater_ = kx::create<CVMDKContentIDUpdater>(fileSystem, mainURI_, descriptor_.get());
  sizeSectors_ = runningSectors;
  sizeBytes_ = sizeSectors_ * kSectorSizeBytes;
}

CVMDKDisk::~CVMDKDisk() {
  if (access_ != kx::IIOStream::ACCESS_READ && currentExtent_) {
    try {
      currentExtent_->flushChanges();
    } catch (const std::exception& error) {
      kx::onExceptionInDestructorIgnored("zarn::CVMDKDisk", error, true);
    }
  }
}

void CVMDKDisk::unlockEncryption(const kx::String& password, const kx::CURI& uri) {
  const kx::String algorithm = descriptor_->getKxEncryptionAlgorithm();
  if (algorithm != kCipherID) {
    throw kx::CError("Unsupported encryption algorithm used in VMDK: " + algorithm, "", -1, uriProps(uri));
  }
  cipher_ = kx::create<brix::CCipher_AES256CBC>();
  if (password.isEmpty()) throw kx::CError("VMDK is encrypted but no password provided", "", -1, uriProps(uri));
  kx::TCryptBuffer<unsigned char> derivedKey;
  deriveEncryptKey(derivedKey, cipher_->getKeyLength(), password,
                   descriptor_->getKxEncryptionKeyDerivationAlgorithm(),
                   descriptor_->getKxEncryptionKeyDerivationSalt());
  const kx::TBuffer<unsigned char> encryptedKey = descriptor_->getKxEncryptedEncryptionKey();
  encryptionIV_ = descriptor_->getKxEncryptionIV();
  if (static_cast<int>(encryptionIV_.getUsed()) != cipher_->getBlockLength()) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Invalid VMDK encryption vector.", uriProps(uri));
  }
  cipher_->decrypt(derivedKey, encryptedKey.getData(), static_cast<int>(encryptedKey.getUsed()), encryptionKey_,
                   false, encryptionIV_.getData());
  const kx::String hashAlgorithm = descriptor_->getKxEncryptionKeyHashAlgorithm();
  if (hashAlgorithm != kKeyHashAlgorithm) {
    throw kx::CError("Unsupported key hash algorithm used in VMDK: " + hashAlgorithm, "", -1, uriProps(uri));
  }
  const kx::TBuffer<unsigned char> expected = sha256(encryptionKey_);
  encryptionKeyHash_ = descriptor_->getKxEncryptionKeyHash();
  if (encryptionKeyHash_ != expected) {
    throw kx::CError("Specified VMDK encryption password is not correct.", "", -1, uriProps(uri));
  }
}

void CVMDKDisk::deriveEncryptKey(kx::TCryptBuffer<unsigned char>& derivedKey, int keyLength,
                                 const kx::String& password, const kx::String& algorithm,
                                 const kx::TBuffer<unsigned char>& salt) {
  const char* context = "CVMDKDisk::deriveEncryptKey";
  // The password ends at its first NUL character, as a C string would.
  const size_t end = password.find(wxUniChar(0));
  const kx::String text = end == kx::String::npos ? password : kx::String(password.Left(end));
  derivedKey.setUsed(static_cast<size_t>(keyLength));
  if (!algorithm.StartsWith(kKeyDerivationPrefix)) {
    throw kx::CInvalidArgError(context, "Unknown encryption key derivation algorithm: " + algorithm);
  }
  const int64_t iterations = kx::parseInt64(algorithm.Mid(std::strlen(kKeyDerivationPrefix)), false);
  if (salt.getUsed() < 8) {
    throw kx::CInvalidArgError(context, kx::String::Format("Key derivation salt is too small: %llu bytes",
                                                           static_cast<unsigned long long>(salt.getUsed())));
  }
  if (iterations < 1000) {
    throw kx::CInvalidArgError(
        context, kx::String::Format("Key derivation iterations are too small: %lld", static_cast<long long>(iterations)));
  }
  // A count beyond an int would only let a descriptor stall the opening.
  if (iterations > std::numeric_limits<int32_t>::max()) {
    throw kx::CInvalidArgError(
        context, kx::String::Format("Key derivation iterations are too large: %lld", static_cast<long long>(iterations)));
  }
  // Made into UTF-8 in wiped memory: no copy of the password is left behind.
  brix::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(text, salt.getData(), static_cast<int>(salt.getUsed()),
                                         static_cast<int>(iterations), keyLength, derivedKey.getData());
}

kx::P<CVMDKDescriptorAccessor> CVMDKDisk::openDescriptorAccessor() {
  if (currentExtent_ && currentExtentURI_.toNormalized() == mainURI_) {
    if (auto* sparse = dynamic_cast<CVMDKSparseExtentFile*>(currentExtent_.get())) {
      return kx::create<CVMDKDescriptorAccessor>(sparse->getStream().get(), access_);
    }
  }
  auto stream = openVMDKFileStream(fileSystem_.get(), mainURI_, access_);
  auto accessor = kx::create<CVMDKDescriptorAccessor>(stream.get(), access_);
  if (access_ == kx::IIOStream::ACCESS_READ_WRITE) accessor->setReplaceableFile(fileSystem_.get(), mainURI_);
  return accessor;
}

// An extent line may name fewer sectors than the file holds, never more: the
// rest of the range would belong to no grain.
void CVMDKDisk::checkExtentCapacity(const CVMDKSparseExtentFile& extent, int64_t lineSectors) {
  if (extent.getCapacitySectors() >= lineSectors) return;
  throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                     kx::String::Format("VMDK extent file is smaller than its extent line (capacity: %lld sectors, "
                                        "extent line: %lld sectors).",
                                        static_cast<long long>(extent.getCapacitySectors()),
                                        static_cast<long long>(lineSectors)),
                     kx::CProps().add("uri", extent.getStream()->getURI().toString(true)));
}

// --- I/O --------------------------------------------------------------------

kx::CProps CVMDKDisk::mainProps() const { return kx::CProps().add("mainFileURI", mainURI_.toString(true)); }

void CVMDKDisk::beginIOOp(int64_t bytes, kx::P<IVMDKExtentFile>& extent, int64_t& available) {
  if (currentExtent_ && (position_ < currentExtentStartBytes_ ||
                         position_ >= currentExtentStartBytes_ + currentExtentLengthBytes_)) {
    currentExtent_->flushChanges();
    currentExtent_ = nullptr;
    currentExtentURI_ = kx::CURI();
  }
  if (!currentExtent_) {
    const auto entry = extentMap_.find(CExtentKey{position_ / kSectorSizeBytes, 1});
    if (entry == extentMap_.end()) {
      throw kx::CError(kx::String::Format("Internal error: cannot find VMDK extent for position %lld",
                                          static_cast<long long>(position_)),
                       "", -1, kx::CProps().add("mainURI", mainURI_.toString(true)));
    }
    currentExtentURI_ = entry->second.fileURI.toNormalized();
    kx::P<IVMDKExtentFile> opened;
    try {
      if (createExtentFilesOnDemand_ &&
          !CVMDKOnDemandExtentFile::isExtentFileMade(fileSystem_.get(), currentExtentURI_)) {
        opened = kx::create<CVMDKOnDemandExtentFile>(
            fileSystem_.get(), currentExtentURI_, access_, entry->second.startGrainIndex, grainSizeSectors_,
            entry->first.lengthSectors, kSectorSizeBytes, compressed_, compressionLevel_, parentDataProvider_.get(),
            grainTableCache_.get(), contentIDUpdater_.get(), cipher_.get(), encryptionKey_, encryptionIV_,
            encryptionKeyHash_);
      } else {
        auto stream = openVMDKFileStream(fileSystem_.get(), currentExtentURI_, access_);
        auto sparse = kx::create<CVMDKSparseExtentFile>(stream.get(), access_, entry->second.startGrainIndex,
                                                        compressionLevel_, grainTableCache_.get(),
                                                        parentDataProvider_.get(), contentIDUpdater_.get(),
                                                        cipher_.get(), encryptionKey_, encryptionIV_);
        checkExtentCapacity(*sparse, entry->first.lengthSectors);
        opened = sparse;
      }
    } catch (const kx::CError& error) {
      kx::logError(error, "Error opening VMDK extent file on demand (path: '" + entry->second.fileURI.toString(true) +
                              "'). Letting exception through.");
      throw;
    }
    currentExtent_ = opened;
    currentExtentStartBytes_ = entry->first.startSector * kSectorSizeBytes;
    currentExtentLengthBytes_ = entry->first.lengthSectors * kSectorSizeBytes;
  }
  const int64_t offset = position_ - currentExtentStartBytes_;
  if (currentExtent_->getPosition() != offset) currentExtent_->seek(offset);
  available = std::min(currentExtentLengthBytes_ - offset, bytes);
  extent = currentExtent_;
}

// Cuts `bytes` from the position at extent borders: a request that crosses
// an extent's end is one more round, which closes that extent and opens the
// next. The position counts the rounds that were done.
template <class Piece>
void CVMDKDisk::forEachExtentPiece(int64_t bytes, Piece piece) {
  for (int64_t done = 0; done < bytes;) {
    kx::P<IVMDKExtentFile> extent;
    int64_t available = 0;
    beginIOOp(bytes - done, extent, available);
    piece(*extent, done, static_cast<int>(available));
    position_ += available;
    done += available;
  }
}

void CVMDKDisk::read(void* buffer, int bytes) {
  if (int64_t{bytes} + position_ > sizeBytes_) {
    throw kx::CIOError(kx::IOERR_READ_PAST_END, "Read exceeds VMDK disk size.",
                       mainProps().add("position", position_).add("bytesToRead", bytes));
  }
  auto* out = static_cast<unsigned char*>(buffer);
  forEachExtentPiece(bytes, [&](IVMDKExtentFile& extent, int64_t done, int count) { extent.read(out + done, count); });
}


void CVMDKDisk::write(const void* buffer, int bytes) {
  if (int64_t{bytes} + position_ > sizeBytes_) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET, "Write exceeds VMDK disk size.",
                       mainProps().add("position", position_).add("bytesToWrite", bytes));
  }
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError("Internal error: CVMDKDisk::write was called, but the disk was not opened for writing.");
  }
  const auto* in = static_cast<const unsigned char*>(buffer);
  forEachExtentPiece(bytes, [&](IVMDKExtentFile& extent, int64_t done, int count) { extent.write(in + done, count); });
}

void CVMDKDisk::seek(int64_t position) {
  if (position < 0 || position > sizeBytes_) {
    throw kx::CIOError(kx::IOERR_BAD_SEEK_POSITION,
                       kx::String::Format("Bad seek position in VMDK disk: %lld", static_cast<long long>(position)),
                       mainProps().add("diskSize", sizeBytes_));
  }
  position_ = position;
}

void CVMDKDisk::checkPreparedRange(bool reading) {
  const char* what = reading ? "read" : "write";
  if (grainSizeBytes_ + position_ > sizeBytes_) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET, kx::String::Format("Prepared grain %s exceeds VMDK disk size.", what),
                       mainProps().add("position", position_).add("grainSize", grainSizeBytes_).add("diskSize", sizeBytes_));
  }
  if (position_ % grainSizeBytes_ != 0) {
    throw kx::CIOError(kx::IOERR_NOT_ON_GRAIN_BOUNDARY,
                       kx::String::Format("Prepared grain %s in VMDK disk can only be done on a grain boundary.", what),
                       mainProps().add("position", position_).add("grainSize", grainSizeBytes_));
  }
}

kx::P<IVMDKExtentFile> CVMDKDisk::beginWholeGrain(const char* operation) {
  kx::P<IVMDKExtentFile> extent;
  int64_t available = 0;
  beginIOOp(grainSizeBytes_, extent, available);
  if (available == grainSizeBytes_) return extent;
  throw kx::CError(
      kx::String("Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::") + operation + " returned less than the grain size.",
      "", -1,
      mainProps().add("position", position_).add("grainSize", grainSizeBytes_).add("opBytes", available).add("diskSize", sizeBytes_));
}

void CVMDKDisk::readPreparedGrainData(kx::TBuffer<unsigned char>& data) {
  checkPreparedRange(true);
  kx::P<IVMDKExtentFile> extent = beginWholeGrain("tryRreparedGrainData");
  extent->readPreparedGrainData(data);
  position_ += grainSizeBytes_;
}

void CVMDKDisk::writePreparedGrainData(const kx::TBuffer<unsigned char>& data) {
  checkPreparedRange(false);
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError("Internal error: CVMDKDisk::write was called, but the disk was not opened for writing.");
  }
  kx::P<IVMDKExtentFile> extent = beginWholeGrain("writePreparedGrainData");
  extent->writePreparedGrainData(data);
  position_ += grainSizeBytes_;
}

bool CVMDKDisk::readStoredGrainData(kx::TBuffer<unsigned char>& data) {
  checkPreparedRange(true);
  kx::P<IVMDKExtentFile> extent = beginWholeGrain("readStoredGrainData");
  const bool stored = extent->readStoredGrainData(data);
  position_ += grainSizeBytes_;
  return stored;
}

void CVMDKDisk::writeStoredGrainData(const kx::TBuffer<unsigned char>& data) {
  checkPreparedRange(false);
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError("Internal error: CVMDKDisk::write was called, but the disk was not opened for writing.");
  }
  kx::P<IVMDKExtentFile> extent = beginWholeGrain("writeStoredGrainData");
  extent->writeStoredGrainData(data);
  position_ += grainSizeBytes_;
}

kx::P<CVMDKGrainCodec> CVMDKDisk::createGrainCodec() const {
  if (!cipher_) return nullptr;
  return kx::create<CVMDKGrainCodec>(grainSizeSectors_, compressed_, kx::create<brix::CCipher_AES256CBC>().get(),
                                     encryptionKey_, encryptionIV_);
}

int64_t CVMDKDisk::makeGrainIndependentOfParent(int64_t grainIndex) {
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError(
        "Internal error: CVMDKDisk::makeGrainIndependentOfParent was called, but the disk was not opened for "
        "writing.");
  }
  const int64_t largest = std::numeric_limits<int64_t>::max() / grainSizeBytes_;
  seek(grainIndex > largest ? std::numeric_limits<int64_t>::max() : grainIndex * grainSizeBytes_);
  kx::P<IVMDKExtentFile> extent = beginWholeGrain("makeGrainIndependentOfParent");
  const int64_t result = extent->makeGrainIndependentOfParent(grainIndex - extent->getStartGrainIndex());
  position_ += grainSizeBytes_;
  return result;
}

bool CVMDKDisk::isGrainWritten() {
  kx::P<IVMDKExtentFile> extent;
  int64_t available = 0;
  beginIOOp(1, extent, available);
  return extent->isGrainWritten();
}

bool CVMDKDisk::isGrainWrittenAndIndependentOfParent() {
  kx::P<IVMDKExtentFile> extent;
  int64_t available = 0;
  beginIOOp(1, extent, available);
  return extent->isGrainWrittenAndIndependentOfParent();
}

void CVMDKDisk::flushChanges() {
  if (access_ == kx::IIOStream::ACCESS_READ || !currentExtent_) return;
  currentExtent_->flushChanges();
}

kx::P<CVMDKSpaceInfo> CVMDKDisk::gatherSpaceInfo() {
  const int64_t remembered = position_;
  auto total = kx::create<CVMDKSpaceInfo>();
  try {
    seek(0);
    while (position_ < sizeBytes_) {
      kx::P<IVMDKExtentFile> extent;
      int64_t available = 0;
      beginIOOp(sizeBytes_ - position_, extent, available);
      total->addSpaceInfo(*extent->gatherSpaceInfo());
      position_ += available;
    }
  } catch (const std::exception&) {
    seek(remembered);
    throw;
  }
  seek(remembered);
  return total;
}

void CVMDKDisk::setAutomaticGrainTableFlushingEnabled(bool enabled) { grainTableCache_->setAutoEnforceLimit(enabled); }

void CVMDKDisk::setContentIDUpdatesEnabled(bool enabled) { contentIDUpdater_->setContentIDUpdatesEnabled(enabled); }

kx::P<CVMDKDataPreparer> CVMDKDisk::createDataPreparer() const {
  return kx::create<CVMDKDataPreparer>(grainSizeSectors_, compressed_, compressionLevel_);
}

void CVMDKDisk::storeDescriptor() {
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError("Internal error: CVMDKDisk::storeDescriptor was called, but the disk was not opened for writing.");
  }
  auto accessor = openDescriptorAccessor();
  *accessor->getDescriptor() = *descriptor_;
  accessor->storeDescriptor(true);
}

void CVMDKDisk::changeParentRelPath(const kx::String& path) {
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError(
        "Internal error: CVMDKDisk::changeParentRelPath was called, but the disk was not opened for writing.");
  }
  descriptor_->setParentFileNameHint(path);
  storeDescriptor();
}

// --- creation ---------------------------------------------------------------

int64_t CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(int64_t minSizeBytes) {
  constexpr int64_t kLargest = std::numeric_limits<int64_t>::max() / kGrainBytes * kGrainBytes;
  const int64_t size = std::max(minSizeBytes, kMinDiskBytes);
  return size > kLargest ? kLargest : (size + kGrainBytes - 1) / kGrainBytes * kGrainBytes;
}

CVMDKDisk::CCreationLayout CVMDKDisk::calcCreationLayout(int64_t sizeBytes, bool compressed, int64_t fileSizeLimit,
                                                          const kx::String& mainFileName) {
  const char* context = "CVMDKDisk::create";
  if (fileSizeLimit == 0 || fileSizeLimit < -1) {
    throw kx::CInvalidArgError(context, kx::String::Format("Invalid VMDK file size limit: %lld bytes",
                                                           static_cast<long long>(fileSizeLimit)));
  }
  fileSizeLimit = std::min(fileSizeLimit, kLargestFileBytes);
  const int64_t virtualBytes = getVirtualDiskSizeBytesFromMinSizeBytes(sizeBytes);
  if (virtualBytes > kLargestFileBytes && fileSizeLimit == -1) {
    throw kx::CInvalidArgError(context,
                               kx::String::Format("Invalid VMDK disk size for single unsplittable disk file: %lld bytes.",
                                                  static_cast<long long>(virtualBytes)),
                               kx::CProps().add("sizeBytes", virtualBytes));
  }
  const int64_t totalGrains = virtualBytes / kGrainBytes;

  // How much one extent file may hold, from the largest metadata it can need.
  int64_t maxExtentBytes;
  bool descriptorEmbedded = true;
  if (fileSizeLimit == -1) {
    maxExtentBytes = (virtualBytes + 0x100000) * 10;
  } else if (compressed) {
    maxExtentBytes = (fileSizeLimit - 1) / 2;
  } else {
    maxExtentBytes = fileSizeLimit - 1;
    descriptorEmbedded = false;
  }
  const int64_t maxGrainsPerExtent = maxExtentBytes / kGrainBytes;
  const int64_t grainTableCount = (maxGrainsPerExtent + 511) / 512;
  const int64_t directorySectors = (grainTableCount * 4 + 511) / 512;
  int64_t metadataBytes = (directorySectors + grainTableCount * 4) * 1024 + 512;
  if (compressed) metadataBytes += (grainTableCount * 5 + directorySectors + 3) * 512;
  const auto lineBytes = static_cast<int64_t>(mainFileName.toUTF8().size()) + 48;
  // The first extent keeps room for the descriptor: at first for 32768 extent
  // lines, and for as many as the disk turns out to need beyond that.
  int64_t reservedDescriptorBytes = (lineBytes + 1) * 32768;
  CCreationLayout layout;
  layout.virtualSizeBytes = virtualBytes;
  layout.descriptorEmbedded = descriptorEmbedded;
  for (;;) {
    int64_t overheadBytes = metadataBytes + (descriptorEmbedded ? reservedDescriptorBytes : 0);
    overheadBytes = (overheadBytes + kGrainBytes - 1) / kGrainBytes * kGrainBytes;
    if (compressed) overheadBytes += (maxGrainsPerExtent + 3) * 512;
    const int64_t payloadRoom = maxExtentBytes - overheadBytes;
    // Whole grains, rounded down also below zero.
    const int64_t maxExtentPayloadBytes =
        (payloadRoom >= 0 ? payloadRoom / kGrainBytes : -((-payloadRoom + kGrainBytes - 1) / kGrainBytes)) * kGrainBytes;
    if (maxExtentPayloadBytes < kGrainBytes) {
      throw kx::CError(kx::String::Format("Internal error: calculated VMDK maxExtentPayloadBytes is less than grain "
                                          "size: %lld",
                                          static_cast<long long>(maxExtentPayloadBytes)));
    }
    layout.grainsPerExtent = maxExtentPayloadBytes / kGrainBytes;
    layout.extentCount = std::max<int64_t>(1, (totalGrains + layout.grainsPerExtent - 1) / layout.grainsPerExtent);
    const int64_t extentCountEstimate = virtualBytes / maxExtentPayloadBytes + 1;
    layout.descriptorSectors = (lineBytes * extentCountEstimate + 0x81FF) / 512;
    if (layout.descriptorSectors * 512 > kVMDKMaxDescriptorSizeBytes) {
      throw kx::CInvalidArgError(
          context,
          kx::String::Format("The VMDK disk would need %lld extent files, more than a descriptor can name; a larger "
                             "file size limit needs fewer.",
                             static_cast<long long>(layout.extentCount)),
          kx::CProps().add("sizeBytes", virtualBytes).add("extentCount", layout.extentCount));
    }
    if (!descriptorEmbedded || layout.descriptorSectors * 512 <= reservedDescriptorBytes) return layout;
    reservedDescriptorBytes = layout.descriptorSectors * 512;
  }
}

kx::P<CVMDKDisk> CVMDKDisk::create(kx::IFileSystem* fileSystem, const kx::CURI& uri, int64_t sizeBytes,
                                   const kx::String& password, bool compressed, int compressionLevel,
                                   int64_t fileSizeLimit, const kx::String& sParentRelPath, uint32_t parentContentID,
                                   bool createExtentFilesOnDemand) {
  const char* context = "CVMDKDisk::create";
  if (sParentRelPath.isEmpty() != (parentContentID == kNoParentContentID)) {
    throw kx::CInvalidArgError(
        context, "sParentRelPath and parentContentID must either both be specified or both have the default values.",
        kx::CProps().add("parentRelPath", sParentRelPath).add("parentContentID", kx::String(kx::String::Format("%x", parentContentID))));
  }
  // An extent line quotes its file name without escapes, and a backslash
  // would make the name a Windows path when it is read back.
  const kx::String name = uri.getName();
  for (const wxUniChar c : {wxUniChar('"'), wxUniChar('\\'), wxUniChar('\n'), wxUniChar('\r'), wxUniChar(0)}) {
    if (name.find(c) != kx::String::npos || name.isEmpty()) {
      throw kx::CInvalidArgError(context, "The main file's name can't be written into a VMDK descriptor: '" + name + "'",
                                 kx::CProps().add("uri", uri.toString(true)));
    }
  }
  const CCreationLayout layout = calcCreationLayout(sizeBytes, compressed, fileSizeLimit, name);
  const int64_t virtualBytes = layout.virtualSizeBytes;
  const int64_t totalSectors = virtualBytes / kSectorSizeBytes, totalGrains = virtualBytes / kGrainBytes;
  const bool descriptorEmbedded = layout.descriptorEmbedded;
  const int64_t descriptorSectors = layout.descriptorSectors;

  // The descriptor.
  auto descriptor = kx::create<CVMDKDescriptor>();
  descriptor->addGenericLine("# Disk DescriptorFile", true);
  descriptor->setVersion(1);
  descriptor->setEncodingUTF8();
  descriptor->setContentID(drawContentID());
  if (!sParentRelPath.isEmpty()) descriptor->setParentFileNameHint(sParentRelPath);
  descriptor->setParentContentID(sParentRelPath.isEmpty() ? kNoParentContentID : parentContentID);
  const char* createType = compressed ? "streamOptimized" : fileSizeLimit == -1 ? "monolithicSparse" : "twoGbMaxExtentSparse";
  descriptor->setCreateType(createType);
  if (createExtentFilesOnDemand) descriptor->setKxCreateExtentFilesOnDemand(true);
  kx::TBuffer<unsigned char> keyHash;
  if (!password.isEmpty()) keyHash = makeEncryptionKeys(*descriptor, password);
  descriptor->addGenericLine("", true);
  descriptor->addGenericLine("# Extent description", false);
  struct Extent {
    kx::String name;
    int64_t grains;
  };
  kx::TArray<Extent> extents;
  const int64_t grainsPerExtent = layout.grainsPerExtent;
  for (int64_t first = 0, i = 0; first < totalGrains; first += grainsPerExtent, ++i) {
    const int64_t grains = std::min(grainsPerExtent, totalGrains - first);
    const kx::String name = i == 0 && descriptorEmbedded
                                ? uri.getName()
                                : uri.getTitle() + kx::String::Format("-s%05lld", static_cast<long long>(i)) +
                                      uri.getExtension();
    descriptor->addExtentEntry(
        kx::create<CVMDKExtentInfo>("RW", grains * getGrainSizeSectors(), "SPARSE", name, -1).get());
    extents.push_back(Extent{name, grains});
  }
  descriptor->addGenericLine("", false);
  descriptor->addGenericLine("# The Disk Data Base", false);
  descriptor->addGenericLine("#DDB", false);
  descriptor->setAdapterType("lsilogic");
  descriptor->setGeometrySectors(63);
  descriptor->setGeometryHeads(255);
  descriptor->setGeometryCylinders((totalSectors + 16064) / 16065);

  // The files. Whatever moment a crash picks, no descriptor names an extent
  // file that isn't complete: every old file goes first, then the extents are
  // made, and the file that holds the descriptor comes last.
  kx::TBuffer<unsigned char> zeroBuffer(static_cast<size_t>(std::max<int64_t>(descriptorSectors * 512, kGrainBytes)));
  const kx::CURI folder = uri.getParent();
  if (!descriptorEmbedded) fileSystem->deleteFile(uri, true);
  for (const Extent& extent : extents) fileSystem->deleteFile(folder << extent.name, true);
  for (size_t n = 0; n < extents.size(); ++n) {
    const size_t i = descriptorEmbedded ? (n + 1) % extents.size() : n;
    if (i > 0 && createExtentFilesOnDemand) continue;
    createEmptyVMDKSparseExtentFile(fileSystem, folder << extents[i].name, compressed, extents[i].grains,
                                    getGrainSizeSectors(), zeroBuffer,
                                    i == 0 && descriptorEmbedded ? descriptor.get() : nullptr, descriptorSectors,
                                    keyHash);
  }
  if (!descriptorEmbedded) {
    auto stream = openVMDKFileStream(fileSystem, uri, kx::IIOStream::ACCESS_READ_WRITE);
    descriptor->store(*stream, static_cast<int>(descriptorSectors * 512), zeroBuffer);
    stream->flush();
  }
  descriptor = nullptr;
  return kx::create<CVMDKDisk>(fileSystem, uri, kx::IIOStream::ACCESS_READ_WRITE, password, compressionLevel, nullptr,
                               nullptr);
}

}  // namespace zarn
