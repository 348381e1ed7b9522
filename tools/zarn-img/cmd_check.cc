#include <algorithm>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "kx/error.h"
#include "zarn/space_info.h"

namespace zarn_img {

namespace {

// Damaged grains listed one by one; beyond this only counted.
constexpr int64_t kMaxListed = 100;

}  // namespace

int runCheck(CToolContext& context, const Args& args) {
  const CArguments arguments("check", withCommonOptions({}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img check [--password-file F] [--confine DIR] FILE\n"
        "\n"
        "Checks what every command relies on (the descriptor, every extent file,\n"
        "each parent: that it opens, isn't already in the chain and has the\n"
        "content ID its child recorded), then reads every grain that the disk FILE\n"
        "holds itself, reports each that can't be read, and shows the space use.\n"
        "Exit status: 0 clean, 2 damage found (also a disk that doesn't open\n"
        "because it is damaged), 1 the disk can't be checked (missing, locked, or\n"
        "a password that wasn't given).\n"
        "\n%s",
        kCommonHelp);
    return 0;
  }
  arguments.expectPositional(1, 1, "FILE");
  applyCommonOptions(context, arguments);
  const std::string& path = arguments.positional()[0];
  kx::P<zarn::CVMDKDisk> disk;
  try {
    disk = context.openDisk(path, kx::IIOStream::ACCESS_READ);
  } catch (const kx::CIOError& error) {
    // A disk that the library refuses as damaged is damage found too.
    if (error.getCode() != kx::IOERR_DAMAGED_DATA) throw;
    std::printf("ERROR %s\n", describeError(error).c_str());
    std::printf("\nThe image is damaged; it doesn't open.\n");
    return 2;
  }
  // What opened can still be damaged where the other commands would fail
  // before reading a grain: that is damage found, not a disk that doesn't open.
  try {
    context.checkOpenedDisk(disk, path, true);
  } catch (const kx::CError& error) {
    if (isRefusalOfTheUser(error)) throw;
    std::printf("ERROR %s\n", describeError(error).c_str());
    std::printf("\nThe image is damaged; its grains were not read.\n");
    return 2;
  }
  const int64_t size = disk->getSizeBytes();
  const int64_t grain = disk->getGrainSizeBytes();
  const int64_t grains = (size + grain - 1) / grain;
  std::vector<unsigned char> buffer(static_cast<size_t>(grain));
  int64_t allocated = 0;
  int64_t damaged = 0;
  for (int64_t index = 0; index < grains; ++index) {
    checkInterrupted();
    const int64_t position = index * grain;
    try {
      disk->seek(position);
      if (!disk->isGrainWrittenAndIndependentOfParent()) continue;
      ++allocated;
      disk->seek(position);
      disk->read(buffer.data(), static_cast<int>(std::min(grain, size - position)));
    } catch (const std::exception& error) {
      if (damaged++ < kMaxListed) {
        std::printf("ERROR grain %lld (offset 0x%llx): %s\n", static_cast<long long>(index),
                    static_cast<unsigned long long>(position), describeError(error).c_str());
      }
    }
  }
  if (damaged > kMaxListed) std::printf("... and %lld more damaged grains\n", static_cast<long long>(damaged - kMaxListed));
  // The space use walks the grain directories and tables as a whole, which
  // the grain reads above don't: a table that overlaps metadata shows here.
  kx::P<zarn::CVMDKSpaceInfo> space;
  try {
    space = disk->gatherSpaceInfo();
  } catch (const std::exception& error) {
    std::printf("ERROR space use: %s\n", describeError(error).c_str());
  }
  if (damaged == 0 && space) {
    std::printf("No errors were found on the image.\n");
  } else if (damaged > 0) {
    std::printf("\n%lld damaged grains were found on the image.\n", static_cast<long long>(damaged));
  } else {
    std::printf("\nThe grains read, but the image's grain tables are damaged.\n");
  }
  std::printf("%lld/%lld = %.2f%% allocated\n", static_cast<long long>(allocated), static_cast<long long>(grains),
              grains > 0 ? 100.0 * static_cast<double>(allocated) / static_cast<double>(grains) : 0.0);
  if (space) {
    std::printf("Space: payload %lld bytes in %lld bytes of slots, header %lld bytes, dead space %lld bytes\n",
                static_cast<long long>(space->getPayloadSize()),
                static_cast<long long>(space->getPayloadSizeInFile()), static_cast<long long>(space->getHeaderSize()),
                static_cast<long long>(space->getDeadSpaceSize()));
  }
  return damaged == 0 && space ? 0 : 2;
}

}  // namespace zarn_img
