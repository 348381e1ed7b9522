#include <algorithm>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "foreign.h"
#include "interrupt.h"
#include "json.h"
#include "kx/error.h"
#include "zarn/space_info.h"

namespace zarn_img {

namespace {

// Damaged grains listed one by one; beyond this only counted.
constexpr int64_t kMaxListed = 100;

struct CDamagedGrain {
  int64_t index;
  int64_t position;
  std::string error;
};

// What check found, for either form of output.
struct CCheckReport {
  std::string filename;
  std::string damage;  // of the disk as a whole: it doesn't open, or not all of it
  std::vector<CDamagedGrain> grains;
  int64_t damagedGrains = 0;
  int64_t allocatedGrains = 0;
  int64_t totalGrains = 0;
  std::string spaceError;
  kx::P<zarn::CVMDKSpaceInfo> space;

  int getStatus() const { return damage.empty() && damagedGrains == 0 && space ? 0 : 2; }
};

void printJson(const CCheckReport& report) {
  CJsonWriter out;
  out.beginObject();
  out.addString("filename", report.filename);
  out.addString("format", "vmdk");
  out.addNumber("check-errors", 0);
  const bool tablesDamaged = report.damage.empty() && !report.space;
  out.addNumber("corruptions", (report.damage.empty() ? 0 : 1) + report.damagedGrains + (tablesDamaged ? 1 : 0));
  if (report.damage.empty()) {
    out.addNumber("total-clusters", report.totalGrains);
    out.addNumber("allocated-clusters", report.allocatedGrains);
  } else {
    out.addString("damage", report.damage);
  }
  if (!report.grains.empty()) {
    out.beginArray("damaged-grains");
    for (const CDamagedGrain& grain : report.grains) {
      out.beginObject();
      out.addNumber("grain", grain.index);
      out.addNumber("offset", grain.position);
      out.addString("error", grain.error);
      out.endObject();
    }
    out.endArray();
  }
  if (!report.spaceError.empty()) out.addString("space-use-error", report.spaceError);
  if (report.space) {
    out.beginObject("space-use");
    out.addNumber("payload", report.space->getPayloadSize());
    out.addNumber("payload-in-file", report.space->getPayloadSizeInFile());
    out.addNumber("header", report.space->getHeaderSize());
    out.addNumber("dead-space", report.space->getDeadSpaceSize());
    out.endObject();
  }
  out.endObject();
  std::fputs(out.getText().c_str(), stdout);
}

void printHuman(const CCheckReport& report, bool opened) {
  if (!report.damage.empty()) {
    std::printf("ERROR %s\n", report.damage.c_str());
    std::printf(opened ? "\nThe image is damaged; its grains were not read.\n" : "\nThe image is damaged; it doesn't open.\n");
    return;
  }
  for (const CDamagedGrain& grain : report.grains) {
    std::printf("ERROR grain %lld (offset 0x%llx): %s\n", static_cast<long long>(grain.index),
                static_cast<unsigned long long>(grain.position), grain.error.c_str());
  }
  if (report.damagedGrains > kMaxListed) {
    std::printf("... and %lld more damaged grains\n", static_cast<long long>(report.damagedGrains - kMaxListed));
  }
  if (!report.spaceError.empty()) std::printf("ERROR space use: %s\n", report.spaceError.c_str());
  if (report.damagedGrains == 0 && report.space) {
    std::printf("No errors were found on the image.\n");
  } else if (report.damagedGrains > 0) {
    std::printf("\n%lld damaged grain%s found on the image.\n", static_cast<long long>(report.damagedGrains),
                report.damagedGrains == 1 ? " was" : "s were");
  } else {
    std::printf("\nThe grains read, but the image's grain tables are damaged.\n");
  }
  const int64_t grains = report.totalGrains;
  std::printf("%lld/%lld = %.2f%% allocated\n", static_cast<long long>(report.allocatedGrains),
              static_cast<long long>(grains),
              grains > 0 ? 100.0 * static_cast<double>(report.allocatedGrains) / static_cast<double>(grains) : 0.0);
  if (report.space) {
    std::printf("Space: payload %lld bytes in %lld bytes of slots, header %lld bytes, dead space %lld bytes\n",
                static_cast<long long>(report.space->getPayloadSize()),
                static_cast<long long>(report.space->getPayloadSizeInFile()),
                static_cast<long long>(report.space->getHeaderSize()),
                static_cast<long long>(report.space->getDeadSpaceSize()));
  }
}

}  // namespace

int runCheck(CToolContext& context, const Args& args) {
  const CArguments arguments("check", withReadingOptions({{0, "output", true, false}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img check [-U] [--output=human|json] [--password-file F] [--confine DIR] FILE\n"
        "\n"
        "Checks what every command relies on (the descriptor, every extent file,\n"
        "each parent: that it opens, isn't already in the chain and has the\n"
        "content ID its child recorded), then reads every grain that the disk FILE\n"
        "holds itself, reports each that can't be read, and shows the space use.\n"
        "Exit status: 0 clean, 2 damage found (also a disk that doesn't open\n"
        "because it is damaged), 1 the disk can't be checked (missing, locked, or\n"
        "a password that wasn't given). The JSON form uses qemu-img's names\n"
        "(corruptions, total-clusters, allocated-clusters) where they mean the same.\n"
        "\n%s%s",
        getForceShareHelp(), kCommonHelp);
    return 0;
  }
  const bool json = parseOutputFormat(arguments);
  arguments.expectPositional(1, 1, "FILE");
  applyCommonOptions(context, arguments);
  const bool quiet = isQuiet(arguments);
  const std::string& path = arguments.positional()[0];
  CCheckReport report;
  report.filename = path;
  const auto finish = [&](bool opened) {
    if (quiet) return report.getStatus();
    if (json) {
      printJson(report);
    } else {
      printHuman(report, opened);
    }
    return report.getStatus();
  };
  kx::P<zarn::CVMDKDisk> disk;
  try {
    disk = context.openDisk(path, kx::IIOStream::ACCESS_READ);
  } catch (const kx::CError& error) {
    if (kx::P<zarn::CVMDKForeignDisk> foreign = openForeignAfter(context, path, error)) {
      return checkForeign(context, *foreign, path, json);
    }
    // A disk that the library refuses as damaged is damage found too.
    const auto* damage = dynamic_cast<const kx::CIOError*>(&error);
    if (!damage || damage->getCode() != kx::IOERR_DAMAGED_DATA) throw;
    report.damage = context.describe(error);
    return finish(false);
  }
  // What opened can still be damaged where the other commands would fail
  // before reading a grain: that is damage found, not a disk that doesn't open.
  try {
    context.checkOpenedDisk(disk, path, true);
  } catch (const kx::CError& error) {
    if (isRefusalOfTheUser(error)) throw;
    report.damage = context.describe(error);
    return finish(true);
  }
  const int64_t size = disk->getSizeBytes();
  const int64_t grain = disk->getGrainSizeBytes();
  report.totalGrains = (size + grain - 1) / grain;
  std::vector<unsigned char> buffer(static_cast<size_t>(grain));
  for (int64_t index = 0; index < report.totalGrains; ++index) {
    checkInterrupted();
    const int64_t position = index * grain;
    try {
      disk->seek(position);
      if (!disk->isGrainWrittenAndIndependentOfParent()) continue;
      ++report.allocatedGrains;
      disk->seek(position);
      disk->read(buffer.data(), static_cast<int>(std::min(grain, size - position)));
    } catch (const std::exception& error) {
      if (report.damagedGrains++ < kMaxListed) report.grains.push_back({index, position, context.describe(error)});
    }
  }
  // The space use walks the grain directories and tables as a whole, which
  // the grain reads above don't: a table that overlaps metadata shows here.
  try {
    report.space = disk->gatherSpaceInfo();
  } catch (const std::exception& error) {
    report.spaceError = context.describe(error);
  }
  return finish(true);
}

}  // namespace zarn_img
