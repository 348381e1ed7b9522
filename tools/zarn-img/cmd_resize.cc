#include <cctype>
#include <cstdio>

#include "commands.h"
#include "kx/error.h"
#include "zarn/descriptor.h"
#include "zarn/disk_growth.h"
#include "zarn/extent_info.h"

namespace zarn_img {

int runResize(CToolContext& context, const Args& args) {
  // A size "-1G" at the end is no option, as with qemu-img.
  Args rest = args;
  std::string negativeSize;
  if (rest.size() >= 2 && rest.back().size() > 1 && rest.back()[0] == '-' &&
      std::isdigit(static_cast<unsigned char>(rest.back()[1]))) {
    negativeSize = rest.back();
    rest.pop_back();
  }
  const CArguments arguments("resize", withCommonOptions({{0, "shrink", false, false}}), rest);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img resize [-q] [--password-file F] [--confine DIR] FILE [+]SIZE\n"
        "\n"
        "Grows the disk FILE to SIZE bytes, or by SIZE bytes with '+' (suffixes as\n"
        "for create; rounded up to whole grains of 64K, with a note). The disk\n"
        "grows in place into the room that the grain tables of its last extent\n"
        "have beyond its end (a table covers 32 MiB), and the last part of a split\n"
        "disk no larger than its first; a size beyond that is refused, with the\n"
        "largest that fits: convert the disk into a new one of the size instead.\n"
        "The new bytes read as zeros, and children keep reading what they read.\n"
        "Shrinking is refused: qemu-img shrinks with --shrink, zarn-img not at all.\n"
        "\n%s",
        kCommonHelp);
    return 0;
  }
  if (arguments.has("shrink") || !negativeSize.empty()) {
    throw CUsageError("resize", "zarn-img doesn't shrink disks: what lies beyond the new end would be lost");
  }
  arguments.expectPositional(2, 2, "FILE and SIZE");
  const std::string& path = arguments.positional()[0];
  std::string sizeText = arguments.positional()[1];
  const bool relative = !sizeText.empty() && sizeText[0] == '+';
  if (relative) sizeText.erase(0, 1);
  const int64_t sizeBytes = parseSize("resize", "SIZE", sizeText);
  applyCommonOptions(context, arguments);
  const bool quiet = isQuiet(arguments);
  const kx::CURI uri = CToolContext::pathToURI(path);
  int64_t oldSizeBytes = 0;
  {
    kx::P<zarn::CVMDKDisk> disk = context.openDiskChecked(uri, kx::IIOStream::ACCESS_READ, path);
    oldSizeBytes = disk->getSizeBytes();
  }
  int64_t newSizeBytes = relative ? oldSizeBytes + sizeBytes : sizeBytes;
  if (relative && newSizeBytes < oldSizeBytes) throw CUsageError("resize", "invalid SIZE '" + sizeText + "': too large");
  if (newSizeBytes < oldSizeBytes) {
    throw kx::CError(kx::String::fromUTF8(
        path + " has " + std::to_string(oldSizeBytes) + " bytes; zarn-img doesn't shrink disks (qemu-img does with " +
        "--shrink): what lies beyond the new end would be lost"));
  }
  if (newSizeBytes > oldSizeBytes) newSizeBytes = noteDiskSize(newSizeBytes, quiet);
  {
    // Opened anew for writing: the check above read grains, and growth wants
    // a disk that no extent is open in.
    kx::P<zarn::CVMDKDisk> disk = context.openDisk(uri, kx::IIOStream::ACCESS_READ_WRITE, path);
    int64_t limitBytes = zarn::calcVMDKDiskGrowthLimitBytes(context.getFileSystem(), *disk);
    std::string beyond = "its last extent needs new grain tables, which resize doesn't make";
    // The parts of a split disk were made as large as its split size allowed:
    // the last grows no larger than the first.
    kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
    disk->getDescriptor()->getExtentEntries(extents);
    if (extents.size() > 1) {
      const int64_t partLimit =
          oldSizeBytes + (extents.front()->getSizeSectors() - extents.back()->getSizeSectors()) * 512;
      if (partLimit < limitBytes) {
        limitBytes = partLimit;
        beyond = "its last extent file would grow larger than the first, beyond the disk's split size";
      }
    }
    if (newSizeBytes > limitBytes) {
      throw kx::CError(kx::String::fromUTF8(path + " can grow in place to at most " + std::to_string(limitBytes) +
                                            " bytes (" + formatSize(limitBytes) + "): beyond that " + beyond +
                                            "; convert it into a new disk of that size instead"));
    }
    zarn::growVMDKDisk(context.getFileSystem(), *disk, newSizeBytes);
  }
  // What every command relies on holds for the new size too.
  context.openDiskChecked(uri, kx::IIOStream::ACCESS_READ, path);
  if (!quiet) std::printf("Image resized.\n");
  return 0;
}

}  // namespace zarn_img
