#include "zarn/sparse_extent_file.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <unordered_map>
#include <vector>

#include "brix/digest.h"
#include "kx/buffer_stream.h"
#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/log.h"
#include "zarn/format_constants.h"
#include "zarn/markers.h"
#include "extent/prepared_range.h"

namespace zarn {
namespace {

const char kConstructor[] = "CVMDKSparseExtentFile constructor";

const char* boolText(bool value) { return value ? "true" : "false"; }

}  // namespace

CVMDKSparseExtentFile::CVMDKSparseExtentFile(kx::IIOStream* stream, kx::IIOStream::Access access,
                                             int64_t startGrainIndex, int compressionLevel,
                                             CVMDKGrainTableCache* cache, IVMDKDataProvider* provider,
                                             CVMDKContentIDUpdater* contentIDUpdater, brix::ICipher* cipher,
                                             const kx::TCryptBuffer<unsigned char>& key,
                                             const kx::TBuffer<unsigned char>& baseIV)
    : stream_(kx::P<kx::IIOStream>::share(stream)),
      access_(access),
      cache_(kx::P<CVMDKGrainTableCache>::share(cache)),
      startGrainIndex_(startGrainIndex),
      fallbackProvider_(kx::P<IVMDKDataProvider>::share(provider)),
      contentIDUpdater_(kx::P<CVMDKContentIDUpdater>::share(contentIDUpdater)),
      header_(kx::create<CVMDKSparseExtentHeader>()),
      compressionLevel_(compressionLevel) {
  if (!stream_ || !cache_) throw kx::CError("Internal error: CVMDKSparseExtentFile needs a stream and a cache.");
  verifyVMDKSparseExtentHeaderFits(*stream_);
  kx::CDataInStream in(*stream_);
  header_->load(in);
  cipher_ = kx::P<brix::ICipher>::share(cipher);
  key_ = key;
  baseIV_ = baseIV;

  const bool encrypted = header_->getEncryptionExtensionEnabled() && header_->getEncryptionAlgorithm() != 0;
  if (!encrypted && cipher_) {
    throw kx::CInvalidArgError(kConstructor, "VMDK extent file is NOT encrypted but a cipher object was specified.",
                               uriProps());
  }
  if (encrypted) {
    if (!cipher_) {
      throw kx::CInvalidArgError(kConstructor, "VMDK extent file is encrypted but no cipher object was specified.",
                                 uriProps());
    }
    if (cipher_->getID() != "aes256cbc") {
      throw kx::CInvalidArgError(kConstructor, "Cipher object has an unsupported ID: " + cipher_->getID(),
                                 uriProps());
    }
    if (static_cast<int64_t>(key_.getUsed()) != cipher_->getKeyLength()) {
      throw kx::CInvalidArgError(kConstructor, "Specified encryption key has an incorrect size for the cipher",
                                 uriProps()
                                     .add("expectedKeySize", cipher_->getKeyLength())
                                     .add("keySize", static_cast<uint64_t>(key_.getUsed()))
                                     .add("cipherID", cipher_->getID()));
    }
    if (header_->getEncryptionAlgorithm() != CVMDKSparseExtentHeader::kEncryptionAES256CBC) {
      throw kx::CError(kx::String::Format("Unsupported encryption algorithm used by VMDK extent file: %u",
                                          unsigned{header_->getEncryptionAlgorithm()}),
                       "", -1, uriProps());
    }
    if (header_->getEncryptionKeyHashAlgorithm() != CVMDKSparseExtentHeader::kKeyHashSHA256) {
      throw kx::CError(kx::String::Format("Unsupported key hash algorithm used in VMDK: %u",
                                          unsigned{header_->getEncryptionKeyHashAlgorithm()}),
                       "", -1, uriProps());
    }
    kx::P<brix::IDigest> digest = kx::create<brix::CDigestType_SHA256>()->createDigest();
    digest->update(key_.getData(), static_cast<int>(key_.getUsed()));
    digest->finish();
    const kx::TBuffer<unsigned char>& stored = header_->getEncryptionKeyHash();
    if (static_cast<int64_t>(stored.getUsed()) != digest->getLength() ||
        std::memcmp(stored.getData(), digest->getData(), stored.getUsed()) != 0) {
      throw kx::CError("Specified VMDK extent file encryption key is not correct.", "", -1, uriProps());
    }
  }
  if (header_->getVersion() < 1 || header_->getVersion() > 3) {
    throw kx::CIOError(kx::IOERR_UNSUPPORTED_VERSION,
                       kx::String::Format("VMDK file has an unsupported version: %u", header_->getVersion()),
                       uriProps());
  }
  compressed_ = (header_->getFlags() & CVMDKSparseExtentHeader::kFlagCompressedGrains) != 0;
  const bool markers = (header_->getFlags() & CVMDKSparseExtentHeader::kFlagHasMarkers) != 0;
  if (compressed_ != markers) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                       kx::String::Format("VMDK flags 'compressed' and 'metaMarkers' are different (compressed: %s, "
                                          "metaMarkers: %s).",
                                          boolText(compressed_), boolText(markers)),
                       uriProps());
  }
  if (header_->getGrainDirectoryOffsetSectors() == std::numeric_limits<uint64_t>::max()) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                       "VMDK file uses an unsupported variant of the 'stream optimized' format.", uriProps());
  }
  checkGeometry();

  grainDirectory_ = kx::create<CVMDKGrainDirectory>(
      stream_.get(), access_, static_cast<int64_t>(header_->getGrainDirectoryOffsetSectors()),
      static_cast<int64_t>(header_->getRedundantGrainDirectoryOffsetSectors()), capacitySectors_, grainSizeSectors_,
      static_cast<int32_t>(header_->getGrainTableEntryCount()), compressed_, cache_.get());
  checkMetadataLayout();
  grainAllocator_ = kx::create<CVMDKGrainAllocator>(stream_.get(), access_, grainSizeSectors_,
                                                    compressed_ ? 1 : grainSizeSectors_, grainDirectory_.get(),
                                                    makeTrail());
  grain_ = kx::create<CVMDKGrain>(stream_.get(), access_, grainSizeSectors_, grainAllocator_.get(), compressed_,
                                  compressionLevel_, fallbackProvider_.get(), cipher_.get(), key_, baseIV_);
}

CVMDKSparseExtentFile::~CVMDKSparseExtentFile() {
  try {
    flushChanges();
  } catch (const std::exception& error) {
    kx::onExceptionInDestructorIgnored("zarn::CVMDKSparseExtentFile", error, true);
  }
}

kx::CProps CVMDKSparseExtentFile::uriProps() const {
  return kx::CProps().add("uri", stream_->getURI().toString(true));
}

// Every size that opening allocates by must be justified by the file: a
// damaged or hostile header is refused here, before memory is spent on it.
void CVMDKSparseExtentFile::checkGeometry() {
  const int64_t length = stream_->getLength();
  const auto refuse = [&](const char* what, uint64_t value) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                       kx::String::Format("VMDK file has an invalid %s: %llu", what,
                                          static_cast<unsigned long long>(value)),
                       uriProps());
  };
  const uint64_t grainSize = header_->getGrainSizeSectors();
  if (grainSize < 1 || grainSize > static_cast<uint64_t>(kVMDKMaxGrainSizeSectors)) refuse("grain size", grainSize);
  const uint64_t entries = header_->getGrainTableEntryCount();
  // Tables live in a cache of up to 1024 of them: their size must stay sane
  // whatever the header says (every writer uses 512 entries).
  if (entries < 1 || entries > kVMDKMaxGrainTableEntryCount || entries > static_cast<uint64_t>(length) / 4) {
    refuse("number of grain table entries", entries);
  }
  const uint64_t capacity = header_->getCapacitySectors();
  if (capacity > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) / kSectorSizeBytes) {
    refuse("capacity", capacity);
  }
  const uint64_t directory = header_->getGrainDirectoryOffsetSectors();
  if (directory < 1 || directory > static_cast<uint64_t>(length) / kSectorSizeBytes) {
    refuse("grain directory offset", directory);
  }
  const uint64_t redundant = header_->getRedundantGrainDirectoryOffsetSectors();
  if (redundant > static_cast<uint64_t>(length) / kSectorSizeBytes) refuse("redundant grain directory offset", redundant);

  capacitySectors_ = static_cast<int64_t>(capacity);
  extentSizeBytes_ = capacitySectors_ * kSectorSizeBytes;
  grainSizeSectors_ = static_cast<int64_t>(grainSize);
  grainSizeBytes_ = grainSizeSectors_ * kSectorSizeBytes;
}

// Every piece of metadata has a place of its own in the head of the file,
// where no grain may lie. Pieces that overlap would be written over each
// other: a descriptor stored over a directory, a table over the descriptor.
// A reader writes nothing, so it goes on where only tables overlap or leave
// the head (what it can't read fails at that grain); the descriptor area,
// which every opening of a writer stores into, is held to its place always.
void CVMDKSparseExtentFile::checkMetadataLayout() {
  const bool writer = access_ == kx::IIOStream::ACCESS_READ_WRITE;
  std::vector<CVMDKFileArea> areas;
  areas.push_back({0, 1, "header", -1});
  const uint64_t descriptorSectors = header_->getDescriptorSizeSectors();
  if (descriptorSectors > 0) {
    const uint64_t offset = header_->getDescriptorOffsetSectors();
    // Both were checked against the file when the descriptor was read; a file
    // opened as a later extent may never have been read that way.
    const auto limit = static_cast<uint64_t>(stream_->getLength() / kSectorSizeBytes + 1);
    if (offset > limit || descriptorSectors > limit) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK descriptor area lies beyond the end of the file.",
                         uriProps()
                             .add("descriptorOffsetSectors", offset)
                             .add("descriptorSizeSectors", descriptorSectors));
    }
    areas.push_back({static_cast<int64_t>(offset), static_cast<int64_t>(descriptorSectors), "descriptor area", -1});
  }
  grainDirectory_->appendMetadataAreas(areas);
  std::sort(areas.begin(), areas.end(), [](const CVMDKFileArea& a, const CVMDKFileArea& b) {
    return a.startSectors < b.startSectors;
  });
  const auto describe = [](const CVMDKFileArea& area) {
    kx::String text = kx::String("the ") + area.what;
    if (area.index >= 0) text += kx::String::Format(" %lld", static_cast<long long>(area.index));
    return text + kx::String::Format(" (sectors %lld to %lld)", static_cast<long long>(area.startSectors),
                                     static_cast<long long>(area.startSectors + area.sizeSectors - 1));
  };
  const auto head = static_cast<int64_t>(std::min<uint64_t>(header_->getOverheadSectors(), INT64_MAX / 2));
  const CVMDKFileArea* reaching = nullptr;  // of the areas so far, the one that ends last
  const auto matters = [&](const CVMDKFileArea& area) {
    return writer || std::strcmp(area.what, "descriptor area") == 0 || std::strcmp(area.what, "header") == 0;
  };
  for (const CVMDKFileArea& area : areas) {
    if (area.sizeSectors < 1) continue;
    if (reaching && area.startSectors < reaching->startSectors + reaching->sizeSectors &&
        (matters(area) || matters(*reaching))) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK metadata areas overlap: " + describe(*reaching) + " and " +
                                                     describe(area) + ".",
                         uriProps());
    }
    if (area.startSectors + area.sizeSectors > head && matters(area)) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                         "VMDK metadata reaches beyond the head of the file, where grains lie: " + describe(area) +
                             kx::String::Format(", head: %lld sectors.", static_cast<long long>(head)),
                         uriProps());
    }
    if (!reaching || area.startSectors + area.sizeSectors > reaching->startSectors + reaching->sizeSectors) {
      reaching = &area;
    }
  }
}

// The bytes that end a compressed file: footer marker, the header, end marker.
kx::TBuffer<unsigned char> CVMDKSparseExtentFile::makeTrail() {
  auto trail = kx::create<kx::TBuffer<unsigned char>>();
  if (!compressed_) return *trail;
  kx::TBuffer<unsigned char> zeros(kVMDKTrailSize);
  auto stream = kx::create<kx::CBufferStream>(trail, 2.0);
  kx::CDataOutStream out(*stream);
  writeVMDKMarker(out, MARKER_FOOTER, 1, zeros);
  header_->store(out);
  writeVMDKMarker(out, MARKER_EOS, 0, zeros);
  return *trail;
}

void CVMDKSparseExtentFile::verifyHaveWriteAccess() {
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError(
        "Internal error: VMDK sparse extent file is about to be changed, but it was not opened for writing.", "", -1,
        uriProps());
  }
}

void CVMDKSparseExtentFile::onAboutToChange() {
  if (!contentIDUpdater_) {
    throw kx::CError(
        "Internal error: VMDK sparse extent file is about to be changed, but it does not have a content ID updater.",
        "", -1, uriProps());
  }
  verifyHaveWriteAccess();
  contentIDUpdater_->onDiskAboutToChange(*this);
}

void CVMDKSparseExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
  fallbackProvider_ = kx::P<IVMDKDataProvider>::share(provider);
  grain_->setFallbackDataProvider(provider);
}

void CVMDKSparseExtentFile::seek(int64_t position) {
  if (position < 0 || position > extentSizeBytes_) {
    throw kx::CInvalidArgError("CVMDKSparseExtentFile::seek",
                               kx::String::Format("Invalid position: %lld", static_cast<long long>(position)),
                               uriProps());
  }
  if (position == extentSizeBytes_) {
    // The end holds no grain: nothing to open until the position moves back.
    position_ = position;
    return;
  }
  const int64_t index = position / grainSizeBytes_;
  if (index != currentGrainIndex_ || !grain_->isOpen()) {
    int64_t posSectors = 0, slotSizeSectors = 0;
    grainDirectory_->getGrainInfo(index, posSectors, slotSizeSectors);
    // A slot inside the head would be written over the file's own metadata.
    if (posSectors > 0 && static_cast<uint64_t>(posSectors) < header_->getOverheadSectors()) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK grain table entry points into the file's metadata.",
                         uriProps().add("grainIndex", index).add("posSectors", posSectors));
    }
    grain_->open(index, startGrainIndex_ + index, posSectors, slotSizeSectors);
    currentGrainIndex_ = index;
  }
  grain_->seek(position % grainSizeBytes_);
  position_ = position;
}

int64_t CVMDKSparseExtentFile::beginIOOp(int64_t size) {
  int64_t left = grain_->getBytesLeft();
  if (left == 0) {
    seek(position_);
    left = grain_->getBytesLeft();
    if (left == 0) {
      throw kx::CError(kx::String::Format("Internal error. After seeking to grain at position %lld there are still "
                                          "no bytes left in the grain.",
                                          static_cast<long long>(position_)),
                       "", -1, uriProps());
    }
  }
  return std::min(size, left);
}

void CVMDKSparseExtentFile::read(void* data, int size) {
  if (size < 0) {
    throw kx::CInvalidArgError("CVMDKSparseExtentFile::read",
                               kx::String::Format("Invalid number of bytes to read: %d", size), uriProps());
  }
  if (position_ + size > extentSizeBytes_) {
    throw kx::CIOError(kx::IOERR_READ_PAST_END, "Unexpected end of data reading from VMDK sparse extent file.",
                       uriProps().add("position", position_).add("bytesToRead", size));
  }
  auto* out = static_cast<unsigned char*>(data);
  while (size > 0) {
    const auto n = static_cast<int>(beginIOOp(size));
    grain_->read(out, n);
    out += n;
    size -= n;
    position_ += n;
  }
}

void CVMDKSparseExtentFile::write(const void* data, int size) {
  if (size < 0) {
    throw kx::CInvalidArgError("CVMDKSparseExtentFile::write",
                               kx::String::Format("Invalid number of bytes to write: %d", size), uriProps());
  }
  if (position_ + size > extentSizeBytes_) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET, "Write exceeded VMDK extent size.",
                       uriProps().add("position", position_).add("bytesToWrite", size));
  }
  onAboutToChange();
  const auto* in = static_cast<const unsigned char*>(data);
  while (size > 0) {
    const auto n = static_cast<int>(beginIOOp(size));
    grain_->write(in, n);
    in += n;
    size -= n;
    position_ += n;
  }
}

// The grain of a prepared transfer, opened at the position; all of it must be
// there, since prepared data can't cross a grain border.
void CVMDKSparseExtentFile::beginWholeGrain(const char* operation) {
  const int64_t n = beginIOOp(grainSizeBytes_);
  if (n == grainSizeBytes_) return;
  throw kx::CError(kx::String("Internal error: CVMDKSparseExtentFile::beginIOOp in CVMDKSparseExtentFile::") +
                       operation + " returned less than the grain size.",
                   "", -1,
                   uriProps()
                       .add("position", position_)
                       .add("grainSize", grainSizeBytes_)
                       .add("toWrite", n)
                       .add("extentSize", extentSizeBytes_));
}

void CVMDKSparseExtentFile::readPreparedGrainData(kx::TBuffer<unsigned char>& data) {
  checkPreparedGrainRange(true, position_, grainSizeBytes_, extentSizeBytes_, uriProps());
  beginWholeGrain("tryReadPreparedGrainData");
  grain_->readPreparedGrainData(data);
  position_ += grainSizeBytes_;
}

void CVMDKSparseExtentFile::writePreparedGrainData(const kx::TBuffer<unsigned char>& data) {
  checkPreparedGrainRange(false, position_, grainSizeBytes_, extentSizeBytes_, uriProps());
  onAboutToChange();
  beginWholeGrain("writePreparedGrainData");
  grain_->writePreparedGrainData(data);
  position_ += grainSizeBytes_;
}

bool CVMDKSparseExtentFile::readStoredGrainData(kx::TBuffer<unsigned char>& data) {
  checkPreparedGrainRange(true, position_, grainSizeBytes_, extentSizeBytes_, uriProps());
  beginWholeGrain("readStoredGrainData");
  const bool stored = grain_->readStoredGrainData(data);
  position_ += grainSizeBytes_;
  return stored;
}

void CVMDKSparseExtentFile::writeStoredGrainData(const kx::TBuffer<unsigned char>& data) {
  checkPreparedGrainRange(false, position_, grainSizeBytes_, extentSizeBytes_, uriProps());
  onAboutToChange();
  beginWholeGrain("writeStoredGrainData");
  grain_->writeStoredGrainData(data);
  position_ += grainSizeBytes_;
}

int64_t CVMDKSparseExtentFile::makeGrainIndependentOfParent(int64_t grainIndex) {
  verifyHaveWriteAccess();
  seek(grainIndex * grainSizeBytes_);
  const int64_t result = grain_->makeIndependentOfParent();
  position_ += grainSizeBytes_;
  return result;
}

bool CVMDKSparseExtentFile::isGrainWritten() {
  beginIOOp(1);
  return grain_->isGrainWritten();
}

bool CVMDKSparseExtentFile::isGrainWrittenAndIndependentOfParent() {
  beginIOOp(1);
  return grain_->isGrainWrittenAndIndependentOfParent();
}

kx::P<CVMDKDataPreparer> CVMDKSparseExtentFile::createDataPreparer() {
  return kx::create<CVMDKDataPreparer>(grainSizeSectors_, compressed_, compressionLevel_);
}

void CVMDKSparseExtentFile::flushChanges() {
  if (access_ == kx::IIOStream::ACCESS_READ) return;
  // Data and trail reach the file before any table points at them.
  if (grain_->isOpen()) grain_->flushChangesToStream();
  grainAllocator_->flushChangesToStream();
  stream_->flush();
  grainDirectory_->flushChangesToStream();
  stream_->flush();
}

kx::P<CVMDKSpaceInfo> CVMDKSparseExtentFile::gatherSpaceInfo() {
  flushChanges();
  const int64_t grains = CVMDKGrainDirectory::calcExtentGrainCount(capacitySectors_, grainSizeSectors_);
  const int64_t entries = static_cast<int64_t>(header_->getGrainTableEntryCount());
  // The walk goes by table, not by grain: a table the file doesn't have costs
  // nothing, and a table that several directory words name is counted once,
  // so a header that claims a huge capacity over a small file can't make
  // this take longer than the file justifies.
  struct CCount {
    int64_t grains = 0;
    int64_t slotSectors = 0;
  };
  std::unordered_map<int64_t, CCount> counted;
  int64_t payload = 0, payloadInFile = 0;
  for (int64_t table = 0; table < grainDirectory_->getGrainTableCount(); ++table) {
    const int64_t tablePos = grainDirectory_->getGrainTablePosSectors(table);
    if (tablePos == 0) continue;
    const int64_t inTable = std::min(entries, grains - table * entries);
    CCount count;
    const auto known = counted.find(tablePos);
    if (known != counted.end() && inTable == entries) {
      count = known->second;
    } else {
      const kx::P<CVMDKGrainTable> loaded = grainDirectory_->getGrainTable(table);
      for (int64_t i = 0; i < inTable; ++i) {
        int64_t posSectors = 0, slotSizeSectors = 0;
        loaded->getGrainInfo(i, posSectors, slotSizeSectors);
        if (posSectors <= 0) continue;
        ++count.grains;
        count.slotSectors += compressed_ ? slotSizeSectors : grainSizeSectors_;
      }
      if (inTable == entries) counted.emplace(tablePos, count);
    }
    payload += count.grains * grainSizeBytes_;
    payloadInFile += count.slotSectors * kSectorSizeBytes;
  }
  // A reader may have opened a head that claims more than the file holds.
  const int64_t length = stream_->getLength();
  const uint64_t overheadSectors = header_->getOverheadSectors();
  const int64_t headerSize = overheadSectors > static_cast<uint64_t>(length / kSectorSizeBytes)
                                 ? length
                                 : static_cast<int64_t>(overheadSectors) * kSectorSizeBytes;
  int64_t deadSpace = length - headerSize - payloadInFile;
  if (deadSpace < 0) {
    kx::logWarning("Calculated negative dead space value for VMDK extent file '" + stream_->getURI().toString(true) +
                   kx::String::Format("' (deadSpace: %lld, headerSize: %lld, payloadSize: %lld, payloadSizeInFile: "
                                      "%lld)",
                                      static_cast<long long>(deadSpace), static_cast<long long>(headerSize),
                                      static_cast<long long>(payload), static_cast<long long>(payloadInFile)));
    deadSpace = 0;
  }
  auto info = kx::create<CVMDKSpaceInfo>();
  info->setPayloadSize(payload);
  info->setPayloadSizeInFile(payloadInFile);
  info->setHeaderSize(headerSize);
  info->setDeadSpaceSize(deadSpace);
  return info;
}

}  // namespace zarn
