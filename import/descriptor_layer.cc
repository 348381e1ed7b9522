#include "import/descriptor_layer.h"

#include <algorithm>
#include <limits>
#include <string>

#include "import/flat_extent.h"
#include "import/sparse_extent.h"
#include "kx/error.h"
#include "kx/parse.h"
#include "zarn/descriptor_accessor.h"
#include "zarn/extent_info.h"
#include "zarn/file_reference.h"
#include "zarn/format_constants.h"
#include "zarn/low_level_file_stream.h"

namespace zarn {
namespace {

// Header flag bit 2: grain table entries of 1 are zeroed grains.
constexpr uint32_t kFlagZeroedGrainEntries = 0x00000004;

struct CCreateType {
  const char* name;
  bool flat;
};
const CCreateType kCreateTypes[] = {
    {"monolithicSparse", false}, {"twoGbMaxExtentSparse", false}, {"streamOptimized", false},
    {"monolithicFlat", true},    {"twoGbMaxExtentFlat", true},    {"vmfs", true},
};

const char kReasonFlat[] = "flat extents";
const char kReasonStream[] = "published stream-optimized layout";
const char kReasonScanned[] = "no usable grain directory or footer (cut short or damaged)";
const char kReasonFlags[] = "compression and marker flags that differ";
const char kReasonZeroed[] = "grain table entries of 1 (zeroed grains)";

void addReason(kx::String& reasons, const char* reason) {
  if (reasons.find(reason) != kx::String::npos) return;
  if (!reasons.isEmpty()) reasons += "; ";
  reasons += reason;
}

// Splits a line at blanks and tabs, dropping a "\r" at its end.
std::vector<std::string> splitWords(const std::string& line) {
  std::vector<std::string> words;
  std::string word;
  for (char c : line) {
    if (c == ' ' || c == '\t' || c == '\r') {
      if (!word.empty()) words.push_back(word);
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) words.push_back(word);
  return words;
}

}  // namespace

CVMDKForeignDescriptorLayer::CVMDKForeignDescriptorLayer(kx::IFileSystem* fileSystem, const kx::CURI& mainFile,
                                                         CVMDKForeignGrainUnpacker* unpacker)
    : fileSystem_(kx::P<kx::IFileSystem>::share(fileSystem)),
      mainURI_(mainFile.toNormalized()),
      unpacker_(kx::P<CVMDKForeignGrainUnpacker>::share(unpacker)),
      extents_(kOpenExtentLimit),
      grainMaps_(kx::create<CVMDKForeignGrainMapCache>(kGrainMapLimit)) {
  if (!fileSystem_ || !unpacker_) {
    throw kx::CError("Internal error: CVMDKForeignDescriptorLayer needs a file system and an unpacker.");
  }
  const kx::CURI lockURI = mainFile.getParent() << (mainFile.getName() + ".lock");
  try {
    lockFile_ = kx::create<kx::CLockFile>(fileSystem, lockURI, 1, false, true);
  } catch (const kx::CError&) {
    // A reader may open a disk in a folder where it can't make a lock file.
    if (fileSystem_->fileExists(lockURI)) throw;
  }
  {
    auto stream = openVMDKFileStream(fileSystem, mainURI_, kx::IIOStream::ACCESS_READ);
    descriptor_ = kx::create<CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ)->getDescriptor();
  }
  if (!descriptor_) throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "No descriptor found in main VMDK file.", uriProps());
  if (!descriptor_->getKxEncryptionAlgorithm().isEmpty()) {
    throw kx::CIOError(kx::IOERR_NOT_SUPPORTED, "VMDK disk is encrypted; encrypted disks open with CVMDKDisk.",
                       uriProps());
  }
  if (!descriptor_->tryGetValue("createType", createType_)) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK descriptor has no create type.", uriProps());
  }
  const CCreateType* type = nullptr;
  for (const CCreateType& known : kCreateTypes) {
    if (createType_ == known.name) type = &known;
  }
  if (!type) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK disk has an unsupported create type: '" + createType_ + "'.",
                       uriProps());
  }
  if (type->flat) addReason(reason_, kReasonFlat);
  readExtentLines();

  if (!firstSparse_) return;
  // An empty line holds no byte, but its file still tells what the disk is.
  kx::P<IVMDKForeignExtent> extent = firstSparseIndex_ >= 0
                                         ? getExtent(static_cast<size_t>(firstSparseIndex_))
                                         : kx::create<CVMDKForeignSparseExtent>(fileSystem_.get(), firstSparse_->uri, 0,
                                                                                firstSparse_->startSector,
                                                                                unpacker_.get(), grainMaps_.get());
  const auto* sparse = dynamic_cast<const CVMDKForeignSparseExtent*>(extent.get());
  grainSizeSectors_ = sparse->getGrainSizeSectors();
  compressed_ = sparse->getCompressed();
  const uint32_t flags = sparse->getHeader().getFlags();
  if (compressed_ != ((flags & CVMDKSparseExtentHeader::kFlagHasMarkers) != 0)) addReason(reason_, kReasonFlags);
  if (!compressed_ && (flags & kFlagZeroedGrainEntries) != 0) addReason(reason_, kReasonZeroed);
  if (compressed_) {
    const CVMDKForeignGrainMap& map = sparse->getGrainMap();
    if (map.getSource() != CVMDKForeignGrainMap::Source::HeaderDirectory || !map.hasSlotDirectory()) {
      addReason(reason_, kReasonStream);
    }
    if (map.getSource() == CVMDKForeignGrainMap::Source::MarkerScan) addReason(reason_, kReasonScanned);
  }
}

CVMDKForeignDescriptorLayer::~CVMDKForeignDescriptorLayer() = default;

kx::CProps CVMDKForeignDescriptorLayer::uriProps() const {
  return kx::CProps().add("uri", mainURI_.toString(true));
}

void CVMDKForeignDescriptorLayer::readExtentLines() {
  int64_t runningSectors = 0;
  const std::string text = descriptor_->toString().toUTF8();
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    if (line.find_first_not_of(" \t\r") == std::string::npos || line[line.find_first_not_of(" \t\r")] == '#') {
      continue;
    }
    if (const auto info = CVMDKExtentInfo::tryParseDescriptorLine(kx::String::fromUTF8(line))) {
      addExtentLine(info->getType(), info->getSizeSectors(), info->getFilename(), info->getOffset(),
                    runningSectors);
      continue;
    }
    // A zero extent has no file name, so it is no CVMDKExtentInfo.
    const std::vector<std::string> words = splitWords(line);
    if (words.size() != 3 || words[2] != "ZERO") continue;
    int64_t sectors = -1;
    try {
      sectors = kx::parseInt64(kx::String::fromUTF8(words[1]), false);
    } catch (const kx::CError&) {
      continue;
    }
    addExtentLine("ZERO", sectors, kx::String(), -1, runningSectors);
  }
  // A disk of 0 bytes has no extent lines, or lines of 0 sectors; other
  // tools make such disks, and they read as what they are.
  sizeSectors_ = runningSectors;
}

void CVMDKForeignDescriptorLayer::addExtentLine(const kx::String& type, int64_t sectors, const kx::String& fileName,
                                                int64_t offset, int64_t& runningSectors) {
  constexpr int64_t kMaxSectors = std::numeric_limits<int64_t>::max() / kSectorSizeBytes;
  if (sectors < 0 || sectors > kMaxSectors - runningSectors) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                       kx::String::Format("VMDK disk has an invalid extent size: %lld sectors",
                                          static_cast<long long>(sectors)),
                       uriProps());
  }
  CExtentLine line{ExtentKind::Zero, kx::CURI(), runningSectors, sectors, 0};
  if (type == "SPARSE") {
    line.kind = ExtentKind::Sparse;
  } else if (type == "FLAT" || type == "VMFS") {
    line.kind = ExtentKind::Flat;
    line.offsetSectors = offset < 0 ? 0 : offset;
    if (line.offsetSectors > kMaxSectors - sectors) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                         kx::String::Format("VMDK flat extent has an invalid offset: %lld sectors",
                                            static_cast<long long>(offset)),
                         uriProps());
    }
  } else if (type != "ZERO") {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK disk has an unsupported extent type: '" + type + "'.",
                       uriProps());
  }
  if (line.kind != ExtentKind::Sparse) addReason(reason_, kReasonFlat);
  if (line.kind != ExtentKind::Zero) {
    try {
      line.uri = vmdkFileReferenceToURI(mainURI_.getParent(), fileName);
    } catch (const kx::CError& error) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK extent line names no valid file: '" + fileName + "'.",
                         uriProps(), &error);
    }
    files_.push_back(line.uri);
  }
  runningSectors += sectors;
  if (line.kind == ExtentKind::Sparse && !firstSparse_) {
    firstSparse_ = line;
    firstSparseIndex_ = sectors > 0 ? static_cast<int64_t>(lines_.size()) : -1;
  }
  // An empty range holds no byte and would hide its neighbour in the search.
  if (sectors > 0) lines_.push_back(line);
}

size_t CVMDKForeignDescriptorLayer::findLine(int64_t position) const {
  const int64_t sector = position / kSectorSizeBytes;
  const auto next = std::upper_bound(lines_.begin(), lines_.end(), sector,
                                     [](int64_t s, const CExtentLine& line) { return s < line.startSector; });
  return static_cast<size_t>(next - lines_.begin()) - 1;
}

kx::P<IVMDKForeignExtent> CVMDKForeignDescriptorLayer::getExtent(size_t index) {
  kx::P<IVMDKForeignExtent> extent = extents_.get(index);
  if (extent) return extent;
  const CExtentLine& line = lines_[index];
  switch (line.kind) {
    case ExtentKind::Sparse:
      extent = kx::create<CVMDKForeignSparseExtent>(fileSystem_.get(), line.uri, line.sizeSectors, line.startSector,
                                                    unpacker_.get(), grainMaps_.get());
      break;
    case ExtentKind::Flat:
      extent = kx::create<CVMDKForeignFlatExtent>(fileSystem_.get(), line.uri, line.sizeSectors, line.offsetSectors);
      break;
    case ExtentKind::Zero:
      extent = kx::create<CVMDKForeignZeroExtent>(line.sizeSectors);
      break;
  }
  extents_.set(index, extent);
  return extent;
}

VMDKForeignGrainState CVMDKForeignDescriptorLayer::getState(int64_t position, int64_t maxBytes, bool exact,
                                                             int64_t& runBytes) {
  const size_t index = findLine(position);
  const CExtentLine& line = lines_[index];
  const int64_t start = line.startSector * kSectorSizeBytes;
  const int64_t end = start + line.sizeSectors * kSectorSizeBytes;
  return getExtent(index)->getState(position - start, std::min(maxBytes, end - position), exact, runBytes);
}

void CVMDKForeignDescriptorLayer::read(int64_t position, void* buffer, int bytes) {
  auto* out = static_cast<unsigned char*>(buffer);
  for (int done = 0; done < bytes;) {
    const size_t index = findLine(position + done);
    const CExtentLine& line = lines_[index];
    const int64_t start = line.startSector * kSectorSizeBytes;
    const int64_t end = start + line.sizeSectors * kSectorSizeBytes;
    const int piece = static_cast<int>(std::min<int64_t>(bytes - done, end - position - done));
    getExtent(index)->read(position + done - start, out + done, piece);
    done += piece;
  }
}

bool CVMDKForeignDescriptorLayer::tryReadStoredGrain(int64_t position, int64_t grainBytes,
                                                     kx::TBuffer<unsigned char>& data) {
  const size_t index = findLine(position);
  const CExtentLine& line = lines_[index];
  const int64_t start = line.startSector * kSectorSizeBytes;
  if (grainBytes > start + line.sizeSectors * kSectorSizeBytes - position) return false;
  return getExtent(index)->tryReadStoredGrain(position - start, grainBytes, data);
}

}  // namespace zarn
