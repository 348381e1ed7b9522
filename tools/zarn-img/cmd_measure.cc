#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "json.h"
#include "kx/error.h"
#include "zarn/data_preparer.h"

namespace zarn_img {

namespace {

constexpr int64_t kSectorBytes = 512;
// Every table of a new extent: 512 entries of 4 bytes; a slot table 2 bytes
// an entry; a directory word of 4 bytes a table (see doc/format.md).
constexpr int64_t kTableEntries = 512;
constexpr int64_t kTableSectors = kTableEntries * 4 / kSectorBytes;
constexpr int64_t kSlotTableSectors = kTableEntries * 2 / kSectorBytes;
constexpr int64_t kMarkerSectors = 1;
constexpr int64_t kHeaderSectors = 1;
constexpr int64_t kTrailSectors = 3;
// Of a new encrypted compressed grain, the bytes behind the clear grain
// header fill whole cipher blocks.
constexpr int64_t kGrainHeaderBytes = 12;
constexpr int64_t kCipherBlockBytes = 16;

int64_t roundUp(int64_t value, int64_t unit) { return (value + unit - 1) / unit * unit; }

// The bytes of a new extent file of `grains` grains without any grain: its
// head of metadata, padded to whole grains, and the trail of a compressed one.
int64_t calcEmptyExtentBytes(int64_t grains, int64_t grainSectors, bool compressed, int64_t descriptorSectors) {
  const int64_t tables = (grains + kTableEntries - 1) / kTableEntries;
  const int64_t directorySectors = (tables * 4 + kSectorBytes - 1) / kSectorBytes;
  int64_t sectors = kHeaderSectors + descriptorSectors;
  if (compressed) {
    // Two directories with their tables, then the slot directory with its
    // tables, each behind its marker.
    sectors += 2 * (kMarkerSectors + directorySectors + tables * (kMarkerSectors + kTableSectors)) + kMarkerSectors +
               directorySectors + tables * (kMarkerSectors + kSlotTableSectors);
  } else {
    sectors += 2 * (directorySectors + tables * kTableSectors);
  }
  sectors = roundUp(sectors, grainSectors);
  if (compressed) sectors += kTrailSectors;
  return sectors * kSectorBytes;
}

// The bytes of every file that `create` makes for an empty disk of this
// layout.
int64_t calcEmptyDiskBytes(const zarn::CVMDKDisk::CCreationLayout& layout, bool compressed) {
  const int64_t grainSectors = zarn::CVMDKDisk::getGrainSizeSectors();
  const int64_t totalGrains = layout.virtualSizeBytes / (grainSectors * kSectorBytes);
  int64_t bytes = layout.descriptorEmbedded ? 0 : layout.descriptorSectors * kSectorBytes;
  for (int64_t index = 0, first = 0; first < totalGrains; ++index, first += layout.grainsPerExtent) {
    const int64_t grains = std::min(layout.grainsPerExtent, totalGrains - first);
    bytes += calcEmptyExtentBytes(grains, grainSectors, compressed,
                                  index == 0 && layout.descriptorEmbedded ? layout.descriptorSectors : 0);
  }
  return bytes;
}

// The most bytes one grain takes in a new disk of these options.
int64_t calcGrainBytes(const CDiskOptions& options, bool encrypted) {
  const int64_t grainSectors = zarn::CVMDKDisk::getGrainSizeSectors();
  if (!options.isCompressed()) return grainSectors * kSectorBytes;
  auto preparer = kx::create<zarn::CVMDKDataPreparer>(grainSectors, true, options.getCompressionLevel());
  int64_t bytes = preparer->getWorstCaseGrainSizeSectors() * kSectorBytes;
  if (encrypted) bytes = roundUp(bytes - kGrainHeaderBytes, kCipherBlockBytes) + kGrainHeaderBytes;
  return roundUp(bytes, kSectorBytes);
}

// How many grains of a new disk's grain size a conversion of the source
// writes: the grains that hold anything, through the parents of a disk; of a
// raw image those that aren't zeros.
int64_t countSourceGrains(CToolContext& context, const std::string& path, const std::string& format,
                          int64_t& sizeBytes) {
  const kx::CURI uri = CToolContext::pathToURI(path);
  context.setDisplayName(uri, path);
  const int64_t grain = zarn::CVMDKDisk::getGrainSizeSectors() * kSectorBytes;
  const bool vmdk = format.empty() ? looksLikeVmdk(context, uri, path) : format == "vmdk";
  int64_t count = 0;
  if (vmdk) {
    kx::P<zarn::CVMDKDisk> disk = openLookalike(context, uri, path, kx::IIOStream::ACCESS_READ, "-f");
    sizeBytes = disk->getSizeBytes();
    const int64_t step = std::min(grain, disk->getGrainSizeBytes());
    for (int64_t position = 0; position < sizeBytes; position += grain) {
      checkInterrupted();
      for (int64_t at = position; at < std::min(position + grain, sizeBytes); at += step) {
        disk->seek(at);
        if (disk->isGrainWritten()) {
          ++count;
          break;
        }
      }
    }
    return count;
  }
  int flags = 0;
  kx::P<kx::IIOStream> raw = context.getFileSystem()->openFile(uri, kx::IIOStream::ACCESS_READ, flags);
  sizeBytes = raw->getLength();
  std::vector<unsigned char> buffer(static_cast<size_t>(grain));
  for (int64_t position = 0; position < sizeBytes; position += grain) {
    checkInterrupted();
    const int64_t bytes = std::min(grain, sizeBytes - position);
    raw->seek(position);
    raw->read(buffer.data(), static_cast<int>(bytes));
    count += std::any_of(buffer.begin(), buffer.begin() + bytes, [](unsigned char c) { return c != 0; });
  }
  return count;
}

}  // namespace

int runMeasure(CToolContext& context, const Args& args) {
  const CArguments arguments("measure",
                             withReadingOptions({{0, "output", true, false},
                                                 {'O', "target-format", true, false},
                                                 {'o', "options", true, true},
                                                 {'f', "source-format", true, false},
                                                 {0, "size", true, false}}),
                             args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img measure [--output=human|json] [-O raw|vmdk] [-o OPTIONS]\n"
        "                        (--size SIZE | [-U] [-f raw|vmdk] FILE)\n"
        "\n"
        "Tells how many bytes the files of a new disk take that 'zarn-img convert'\n"
        "makes from FILE with the same -O and -o (default -O vmdk), or that an\n"
        "empty disk of SIZE takes: \"required size\" for the grains FILE holds (of a\n"
        "raw FILE those that aren't zeros), \"fully allocated size\" once every\n"
        "grain is written. Sizes are those of the files, holes included, for a\n"
        "target named like FILE (disk.vmdk with --size). Upper bounds, and said\n"
        "so: a compressed target's grains (subformat=streamOptimized) counted at\n"
        "the most they can take, the descriptor file of a split disk, which\n"
        "shrinks to its text at the first write, and with backing-file the\n"
        "grains that equal the parent's, which aren't stored.\n"
        "\n"
        "  -O FORMAT             vmdk (default) or raw\n"
        "  -o OPTIONS            options of the new disk (see 'zarn-img create -o help')\n"
        "  --size SIZE           an empty disk of SIZE instead of FILE\n"
        "%s%s",
        getForceShareHelp(), kCommonHelp);
    return 0;
  }
  const bool json = parseOutputFormat(arguments);
  const std::string targetFormat = checkFormat("measure", arguments.get("target-format", "vmdk"));
  const std::string sourceFormat =
      arguments.has("source-format") ? checkFormat("measure", arguments.get("source-format")) : std::string();
  CDiskOptions options;
  parseDiskOptions("measure", arguments.get("options"), options);
  if (targetFormat == "raw" && options.setsCreation) throw CUsageError("measure", "-o shapes a VMDK target: add -O vmdk");
  const bool bySize = arguments.has("size");
  arguments.expectPositional(bySize ? 0 : 1, bySize ? 0 : 1, bySize ? "no FILE with --size" : "FILE or --size SIZE");
  int64_t sizeBytes = bySize ? parseSize("measure", "size", arguments.get("size")) : 0;
  applyCommonOptions(context, arguments, options.confine);
  int64_t grains = 0;
  std::string name = "disk.vmdk";
  if (!bySize) {
    const std::string& path = arguments.positional()[0];
    grains = countSourceGrains(context, path, sourceFormat, sizeBytes);
    name = CToolContext::pathToURI(path).getTitle().toUTF8() + ".vmdk";
  }
  int64_t required = sizeBytes;
  int64_t full = sizeBytes;
  std::vector<std::string> bounds;  // why the numbers are upper bounds
  if (targetFormat == "vmdk") {
    const zarn::CVMDKDisk::CCreationLayout layout = zarn::CVMDKDisk::calcCreationLayout(
        sizeBytes, options.isCompressed(), options.getFileSizeLimit(), kx::String::fromUTF8(name));
    const int64_t metadata = calcEmptyDiskBytes(layout, options.isCompressed());
    const int64_t grainBytes = calcGrainBytes(options, options.encrypted.value_or(false));
    const int64_t totalGrains = layout.virtualSizeBytes / (zarn::CVMDKDisk::getGrainSizeSectors() * kSectorBytes);
    required = metadata + grains * grainBytes;
    full = metadata + totalGrains * grainBytes;
    if (options.isCompressed()) bounds.push_back("compressed grains at their largest");
    // A descriptor file is made with room to spare, and shrinks to its text
    // at the first write; an empty disk still has it whole.
    if (!layout.descriptorEmbedded && !bySize) bounds.push_back("the descriptor file at its size when made");
    if (!options.backingFile.empty()) bounds.push_back("also the grains that equal the parent's");
  }
  const bool upperBound = !bounds.empty();
  if (json) {
    CJsonWriter out;
    out.beginObject();
    out.addNumber("required", required);
    out.addNumber("fully-allocated", full);
    if (upperBound) out.addBool("upper-bound", true);
    out.endObject();
    std::fputs(out.getText().c_str(), stdout);
    return 0;
  }
  std::printf("required size: %lld\n", static_cast<long long>(required));
  std::printf("fully allocated size: %lld\n", static_cast<long long>(full));
  if (upperBound) {
    std::string why;
    for (const std::string& bound : bounds) why += (why.empty() ? "" : ", ") + bound;
    std::printf("(upper bounds: %s)\n", why.c_str());
  }
  return 0;
}

}  // namespace zarn_img
