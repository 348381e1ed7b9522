#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "kx/error.h"

namespace zarn_img {

namespace {

// Reads of raw images go in pieces of this size.
constexpr int64_t kRawChunkBytes = 64 * 1024;
// A difference is reported at the sector it lies in, as qemu-img does.
constexpr int64_t kSectorBytes = 512;

// One side of the comparison: a disk, or a raw image.
class CImage {
 public:
  // `option` is the flag that gives this image's format.
  CImage(CToolContext& context, const std::string& path, const std::string& format, const char* option) {
    const kx::CURI uri = CToolContext::pathToURI(path);
    context.setDisplayName(uri, path);
    const bool vmdk = format.empty() ? looksLikeVmdk(context, uri, path) : format == "vmdk";
    if (vmdk) {
      disk_ = openLookalike(context, uri, path, kx::IIOStream::ACCESS_READ, option);
      sizeBytes_ = disk_->getSizeBytes();
    } else {
      int flags = 0;
      raw_ = context.getFileSystem()->openFile(uri, kx::IIOStream::ACCESS_READ, flags);
      sizeBytes_ = raw_->getLength();
    }
  }

  int64_t getSizeBytes() const { return sizeBytes_; }
  // The unit of isKnownZero: a grain of a disk.
  int64_t getChunkBytes() const { return disk_ ? disk_->getGrainSizeBytes() : kRawChunkBytes; }
  // Whether the chunk at `position` reads as zeros without reading it: no
  // disk of the chain holds its grain.
  bool isKnownZero(int64_t position) {
    if (!disk_) return false;
    disk_->seek(position);
    return !disk_->isGrainWritten();
  }
  void read(int64_t position, unsigned char* buffer, int64_t bytes) {
    if (disk_) {
      disk_->seek(position);
      disk_->read(buffer, static_cast<int>(bytes));
    } else {
      raw_->seek(position);
      raw_->read(buffer, static_cast<int>(bytes));
    }
  }

 private:
  kx::P<zarn::CVMDKDisk> disk_;
  kx::P<kx::IIOStream> raw_;
  int64_t sizeBytes_ = 0;
};

// The offset of the sector of the first byte where the two differ, or -1.
int64_t findDifference(const unsigned char* a, const unsigned char* b, int64_t bytes, int64_t position) {
  if (std::memcmp(a, b, static_cast<size_t>(bytes)) == 0) return -1;
  int64_t at = 0;
  while (a[at] == b[at]) ++at;
  return (position + at) / kSectorBytes * kSectorBytes;
}

// The offset of the sector of the first byte that isn't zero, or -1.
int64_t findNonZero(const unsigned char* data, int64_t bytes, int64_t position) {
  for (int64_t at = 0; at < bytes; ++at) {
    if (data[at] != 0) return (position + at) / kSectorBytes * kSectorBytes;
  }
  return -1;
}

// The first offset where the two images differ, or -1. Beyond the smaller
// image's end the larger one must read as zeros.
int64_t compareImages(CImage& first, CImage& second) {
  // A chunk never spans two grains of either disk.
  const int64_t chunk = std::min(first.getChunkBytes(), second.getChunkBytes());
  const int64_t common = std::min(first.getSizeBytes(), second.getSizeBytes());
  std::vector<unsigned char> a(static_cast<size_t>(chunk)), b(static_cast<size_t>(chunk));
  for (int64_t position = 0; position < common; position += chunk) {
    checkInterrupted();
    const int64_t bytes = std::min(chunk, common - position);
    const bool zeroA = first.isKnownZero(position);
    const bool zeroB = second.isKnownZero(position);
    if (zeroA && zeroB) continue;
    if (zeroA) {
      std::fill(a.begin(), a.end(), 0);
    } else {
      first.read(position, a.data(), bytes);
    }
    if (zeroB) {
      std::fill(b.begin(), b.end(), 0);
    } else {
      second.read(position, b.data(), bytes);
    }
    const int64_t at = findDifference(a.data(), b.data(), bytes, position);
    if (at >= 0) return at;
  }
  CImage& longer = first.getSizeBytes() > common ? first : second;
  for (int64_t position = common; position < longer.getSizeBytes(); position += chunk - position % chunk) {
    checkInterrupted();
    const int64_t bytes = std::min(chunk - position % chunk, longer.getSizeBytes() - position);
    if (longer.isKnownZero(position)) continue;
    longer.read(position, a.data(), bytes);
    const int64_t at = findNonZero(a.data(), bytes, position);
    if (at >= 0) return at;
  }
  return -1;
}

}  // namespace

int runCompare(CToolContext& context, const Args& args) {
  const CArguments arguments(
      "compare", withReadingOptions({{'f', "format", true, false}, {'F', "second-format", true, false}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img compare [-U] [-f raw|vmdk] [-F raw|vmdk] [-q] [--password-file F]\n"
        "                        [--confine DIR] FILE1 FILE2\n"
        "\n"
        "Tells whether FILE1 and FILE2 read the same, each a disk (read through its\n"
        "parents) or a raw image. Of images of different sizes the common part is\n"
        "compared, and the rest of the larger one must read as zeros; a size\n"
        "mismatch is noted. The first difference is reported as the offset of the\n"
        "sector it lies in, as qemu-img does.\n"
        "Exit status: 0 the same, 1 different, 2 an error.\n"
        "\n"
        "  -f FORMAT             format of FILE1 (default: found from its name and\n"
        "                        content, as convert does)\n"
        "  -F FORMAT             format of FILE2\n"
        "%s%s",
        getForceShareHelp(), kCommonHelp);
    return 0;
  }
  const std::string firstFormat =
      arguments.has("format") ? checkFormat("compare", arguments.get("format")) : std::string();
  const std::string secondFormat =
      arguments.has("second-format") ? checkFormat("compare", arguments.get("second-format")) : std::string();
  arguments.expectPositional(2, 2, "FILE1 and FILE2");
  const bool quiet = isQuiet(arguments);
  int64_t difference = -1;
  bool sizesDiffer = false;
  try {
    applyCommonOptions(context, arguments);
    CImage first(context, arguments.positional()[0], firstFormat, "-f");
    CImage second(context, arguments.positional()[1], secondFormat, "-F");
    sizesDiffer = first.getSizeBytes() != second.getSizeBytes();
    difference = compareImages(first, second);
  } catch (const CInterrupted&) {
    throw;
  } catch (const std::exception& error) {
    // 1 says "different": an error must not look like an answer.
    std::fprintf(stderr, "zarn-img: %s\n", context.describe(error).c_str());
    return 2;
  }
  if (!quiet) {
    if (sizesDiffer) std::printf("Warning: Image size mismatch!\n");
    if (difference >= 0) {
      std::printf("Content mismatch at offset %lld!\n", static_cast<long long>(difference));
    } else {
      std::printf("Images are identical.\n");
    }
  }
  return difference >= 0 ? 1 : 0;
}

}  // namespace zarn_img
