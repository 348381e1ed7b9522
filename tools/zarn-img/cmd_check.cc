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

std::string describe(const std::exception& error) {
  const auto* kxError = dynamic_cast<const kx::CError*>(&error);
  if (!kxError) return error.what();
  std::string text = kxError->getMessage().toUTF8();
  if (!kxError->getProps().isEmpty()) text += " (" + kxError->getProps().toString().toUTF8() + ")";
  return text;
}

}  // namespace

int runCheck(CToolContext& context, const Args& args) {
  const CArguments arguments("check", withCommonOptions({}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img check [--password-file F] [--confine DIR] FILE\n"
        "\n"
        "Reads every grain that the disk FILE holds itself (not those of its\n"
        "parents), reports each that can't be read, and shows the space use.\n"
        "Exit status: 0 clean, 2 damaged grains found, 1 the disk doesn't open.\n"
        "\n%s",
        kCommonHelp);
    return 0;
  }
  arguments.expectPositional(1, 1, "FILE");
  applyCommonOptions(context, arguments);
  kx::P<zarn::CVMDKDisk> disk = context.openDisk(arguments.positional()[0], kx::IIOStream::ACCESS_READ);
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
                    static_cast<unsigned long long>(position), describe(error).c_str());
      }
    }
  }
  if (damaged > kMaxListed) std::printf("... and %lld more damaged grains\n", static_cast<long long>(damaged - kMaxListed));
  if (damaged == 0) {
    std::printf("No errors were found on the image.\n");
  } else {
    std::printf("\n%lld damaged grains were found on the image.\n", static_cast<long long>(damaged));
  }
  std::printf("%lld/%lld = %.2f%% allocated\n", static_cast<long long>(allocated), static_cast<long long>(grains),
              grains > 0 ? 100.0 * static_cast<double>(allocated) / static_cast<double>(grains) : 0.0);
  const kx::P<zarn::CVMDKSpaceInfo> space = disk->gatherSpaceInfo();
  std::printf("Space: payload %lld bytes in %lld bytes of slots, header %lld bytes, dead space %lld bytes\n",
              static_cast<long long>(space->getPayloadSize()), static_cast<long long>(space->getPayloadSizeInFile()),
              static_cast<long long>(space->getHeaderSize()), static_cast<long long>(space->getDeadSpaceSize()));
  return damaged == 0 ? 0 : 2;
}

}  // namespace zarn_img
