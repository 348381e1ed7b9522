#include "import/sparse_extent.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include "kx/data_stream.h"
#include "zarn/format_constants.h"
#include "zarn/low_level_file_stream.h"

namespace zarn {
CVMDKForeignSparseExtent::CVMDKForeignSparseExtent(kx::IFileSystem* fileSystem, const kx::CURI& uri,
                                                   int64_t lineSectors, int64_t diskStartSector,
                                                   CVMDKForeignGrainUnpacker* unpacker,
                                                   CVMDKForeignGrainMapCache* maps)
    : uri_(uri), unpacker_(kx::P<CVMDKForeignGrainUnpacker>::share(unpacker)) {
  if (!unpacker_) throw kx::CError("Internal error: CVMDKForeignSparseExtent needs an unpacker.");
  stream_ = openVMDKFileStream(fileSystem, uri, kx::IIOStream::ACCESS_READ);
  try {
    verifyVMDKSparseExtentHeaderFits(*stream_);
    stream_->seek(0);
    kx::CDataInStream in(*stream_);
    header_.load(in);
    checkHeader(lineSectors);
    startGrainIndex_ = (diskStartSector + grainSizeSectors_ - 1) / grainSizeSectors_;
    const std::string key = uri_.toNormalized().toString().toUTF8();
    if (maps) map_ = maps->get(key);
    if (!map_) {
      map_ = kx::create<CVMDKForeignGrainMap>(stream_.get(), header_, compressed_);
      if (maps) maps->set(key, map_);
    }
  } catch (kx::CError& error) {
    if (!error.getProps().has("uri")) error.getParams().add("uri", uri_.toString(true));
    throw;
  }
}

CVMDKForeignSparseExtent::~CVMDKForeignSparseExtent() { unpacker_->forget(this); }

kx::CProps CVMDKForeignSparseExtent::uriProps() const { return kx::CProps().add("uri", uri_.toString(true)); }

// Every size that reading allocates or multiplies by must be one the file can
// hold, before it is used.
void CVMDKForeignSparseExtent::checkHeader(int64_t lineSectors) {
  if (header_.getEncryptionExtensionEnabled() && header_.getEncryptionAlgorithm() != CVMDKSparseExtentHeader::kEncryptionNone) {
    throw kx::CIOError(kx::IOERR_NOT_SUPPORTED,
                       "VMDK extent file is encrypted; only this library's own disks are, and CVMDKDisk opens them.",
                       uriProps());
  }
  if (header_.getVersion() < 1 || header_.getVersion() > 3) {
    throw kx::CIOError(kx::IOERR_UNSUPPORTED_VERSION,
                       kx::String::Format("VMDK file has an unsupported version: %u", header_.getVersion()),
                       uriProps());
  }
  lengthBytes_ = stream_->getLength();
  const auto refuse = [&](const char* what, uint64_t value) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                       kx::String::Format("VMDK file has an invalid %s: %llu", what,
                                          static_cast<unsigned long long>(value)),
                       uriProps());
  };
  const uint64_t grainSize = header_.getGrainSizeSectors();
  if (grainSize < 1 || grainSize > static_cast<uint64_t>(kVMDKMaxGrainSizeSectors)) refuse("grain size", grainSize);
  const uint64_t entries = header_.getGrainTableEntryCount();
  if (entries < 1 || entries > static_cast<uint64_t>(kVMDKMaxGrainTableEntryCount) ||
      entries > static_cast<uint64_t>(lengthBytes_) / 4) {
    refuse("number of grain table entries", entries);
  }
  const uint64_t capacity = header_.getCapacitySectors();
  if (capacity > static_cast<uint64_t>(std::numeric_limits<int64_t>::max() / kSectorSizeBytes)) {
    refuse("capacity", capacity);
  }
  if (lineSectors < 0 || static_cast<uint64_t>(lineSectors) > capacity) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                       kx::String::Format("VMDK extent file is smaller than its extent line (capacity: %llu "
                                          "sectors, extent line: %lld sectors).",
                                          static_cast<unsigned long long>(capacity),
                                          static_cast<long long>(lineSectors)),
                       uriProps());
  }
  grainSizeSectors_ = static_cast<int64_t>(grainSize);
  grainSizeBytes_ = grainSizeSectors_ * kSectorSizeBytes;
  lineBytes_ = lineSectors * kSectorSizeBytes;
  compressed_ = (header_.getFlags() & CVMDKSparseExtentHeader::kFlagCompressedGrains) != 0;
}

int64_t CVMDKForeignSparseExtent::getDataPosition(int64_t grainIndex, uint64_t entry) const {
  // The head holds the header, descriptor and (in most layouts) the tables:
  // data read from there is no grain's, whatever the table says.
  if (entry < header_.getOverheadSectors()) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK grain table entry points into the file's metadata.",
                       uriProps().add("grainIndex", grainIndex).add("posSectors", entry));
  }
  int64_t position = 0;
  if (!tryVMDKSectorsToBytes(entry, position) || position > lengthBytes_) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK grain lies beyond the end of the file.",
                       uriProps().add("grainIndex", grainIndex).add("posSectors", entry));
  }
  return position;
}

void CVMDKForeignSparseExtent::readStoredForm(int64_t grainIndex, uint64_t entry, kx::TBuffer<unsigned char>& out) {
  const int64_t position = getDataPosition(grainIndex, entry);
  const auto damaged = [&](const char* problem, uint64_t lba, uint64_t size) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, problem,
                       uriProps()
                           .add("grainIndex", grainIndex)
                           .add("posSectors", entry)
                           .add("lba", lba)
                           .add("compressedGrainSize", size));
  };
  if (lengthBytes_ - position < kVMDKGrainHeaderSize) damaged("VMDK grain lies beyond the end of the file.", 0, 0);
  out.setUsed(kVMDKGrainHeaderSize);
  stream_->seek(position);
  stream_->read(out.getData(), kVMDKGrainHeaderSize);
  const uint64_t lba = readLE64(out.getData());
  const uint32_t size = readLE32(out.getData() + 8);
  if (size == 0) damaged("VMDK grain table entry points at a marker, not at a grain.", lba, size);
  if (size > grainSizeBytes_ * CVMDKForeignGrainMap::kMaxCompressedPerGrainByte + kSectorSize) {
    damaged("VMDK compressed grain has an invalid size.", lba, size);
  }
  if (size > lengthBytes_ - position - kVMDKGrainHeaderSize) {
    damaged("VMDK grain lies beyond the end of the file.", lba, size);
  }
  // Writers give the grain's address in the extent or, in a split disk of
  // this library, in the whole disk; any other is a table entry gone astray.
  const auto extentLBA = static_cast<uint64_t>(grainIndex * grainSizeSectors_);
  const auto diskLBA = static_cast<uint64_t>((startGrainIndex_ + grainIndex) * grainSizeSectors_);
  if (lba != extentLBA && lba != diskLBA) damaged("VMDK grain header names another grain.", lba, size);
  out.setUsed(kVMDKGrainHeaderSize + size);
  stream_->read(out.getData() + kVMDKGrainHeaderSize, static_cast<int>(size));
}

const unsigned char* CVMDKForeignSparseExtent::unpackGrain(int64_t grainIndex, uint64_t entry) {
  if (unpacker_->holds(this, grainIndex)) return unpacker_->getGrain();
  try {
    readStoredForm(grainIndex, entry, unpacker_->getStoredBuffer());
    unpacker_->unpack(this, grainIndex, grainSizeBytes_);
  } catch (kx::CIOError& error) {
    if (!error.getProps().has("uri")) error.getParams().add("uri", uri_.toString(true));
    if (!error.getProps().has("grainIndex")) error.getParams().add("grainIndex", grainIndex);
    // Damage stays damage; a failing file system may do better next time.
    if (error.getCode() == kx::IOERR_DAMAGED_DATA) unpacker_->keepDamage(this, grainIndex, error);
    throw;
  }
  return unpacker_->getGrain();
}

VMDKForeignGrainState CVMDKForeignSparseExtent::getState(int64_t offset, int64_t maxBytes, bool exact,
                                                          int64_t& runBytes) {
  const int64_t grainIndex = offset / grainSizeBytes_;
  runBytes = std::min({maxBytes, grainSizeBytes_ - offset % grainSizeBytes_, lineBytes_ - offset});
  const uint64_t entry = map_->getEntry(grainIndex);
  if (entry == CVMDKForeignGrainMap::kEntryAbsent) return VMDKForeignGrainState::Absent;
  if (entry == CVMDKForeignGrainMap::kEntryZero) return VMDKForeignGrainState::Zero;
  if (compressed_ && exact) {
    try {
      unpackGrain(grainIndex, entry);
    } catch (const kx::CIOError& error) {
      if (error.getCode() != kx::IOERR_DAMAGED_DATA) throw;
      return VMDKForeignGrainState::Stored;
    }
    if (unpacker_->isZero()) return VMDKForeignGrainState::Zero;
  }
  return VMDKForeignGrainState::Stored;
}

void CVMDKForeignSparseExtent::read(int64_t offset, void* buffer, int bytes) {
  auto* out = static_cast<unsigned char*>(buffer);
  for (int done = 0; done < bytes;) {
    const int64_t at = offset + done;
    const int64_t grainIndex = at / grainSizeBytes_;
    const int64_t within = at % grainSizeBytes_;
    const int piece = static_cast<int>(std::min<int64_t>(bytes - done, grainSizeBytes_ - within));
    const uint64_t entry = map_->getEntry(grainIndex);
    if (entry == CVMDKForeignGrainMap::kEntryAbsent || entry == CVMDKForeignGrainMap::kEntryZero) {
      std::memset(out + done, 0, static_cast<size_t>(piece));
    } else if (compressed_) {
      std::memcpy(out + done, unpackGrain(grainIndex, entry) + within, static_cast<size_t>(piece));
    } else {
      const int64_t position = getDataPosition(grainIndex, entry);
      if (within + piece > lengthBytes_ - position) {
        throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK grain lies beyond the end of the file.",
                           uriProps().add("grainIndex", grainIndex).add("posSectors", entry));
      }
      stream_->seek(position + within);
      stream_->read(out + done, piece);
    }
    done += piece;
  }
}

bool CVMDKForeignSparseExtent::tryReadStoredGrain(int64_t offset, int64_t grainBytes,
                                                  kx::TBuffer<unsigned char>& data) {
  if (!compressed_ || grainBytes != grainSizeBytes_ || offset % grainSizeBytes_ != 0 ||
      grainBytes > lineBytes_ - offset) {
    return false;
  }
  const int64_t grainIndex = offset / grainSizeBytes_;
  const uint64_t entry = map_->getEntry(grainIndex);
  if (entry == CVMDKForeignGrainMap::kEntryAbsent || entry == CVMDKForeignGrainMap::kEntryZero) return false;
  readStoredForm(grainIndex, entry, data);
  return true;
}

}  // namespace zarn
