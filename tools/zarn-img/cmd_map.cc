#include <algorithm>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "foreign.h"
#include "grain_locator.h"
#include "interrupt.h"
#include "json.h"
#include "kx/error.h"
#include "zarn/descriptor.h"

namespace zarn_img {

namespace {

// Where the grain at `position` comes from: the depth of the first disk of
// the chain that holds it, or -1 when none does.
int findDepth(const std::vector<CChainLevel>& chain, int64_t position) {
  chain[0].disk->seek(position);
  if (!chain[0].disk->isGrainWritten()) return -1;
  for (size_t depth = 0; depth < chain.size(); ++depth) {
    zarn::CVMDKDisk& disk = *chain[depth].disk;
    if (position >= disk.getSizeBytes()) return -1;
    disk.seek(position);
    if (disk.isGrainWrittenAndIndependentOfParent()) return static_cast<int>(depth);
  }
  return -1;
}

}  // namespace

int runMap(CToolContext& context, const Args& args) {
  const CArguments arguments("map", withReadingOptions({{0, "output", true, false}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img map [-U] [--output=human|json] [--password-file F] [--confine DIR] FILE\n"
        "\n"
        "Lists the allocated runs of the disk FILE and where each comes from:\n"
        "depth 0 is FILE itself, 1 its parent, and so on. Runs not listed read\n"
        "as zeros. The JSON form lists every run, allocated or not, with\n"
        "qemu-img's fields (start, length, depth, present, zero, data, and the\n"
        "offset in the extent file named by filename where the grain is stored\n"
        "neither compressed nor encrypted).\n"
        "\n%s%s",
        getForceShareHelp(), kCommonHelp);
    return 0;
  }
  const bool json = parseOutputFormat(arguments);
  arguments.expectPositional(1, 1, "FILE");
  applyCommonOptions(context, arguments);
  std::vector<CChainLevel> chain;
  try {
    context.openDiskChecked(arguments.positional()[0], kx::IIOStream::ACCESS_READ, &chain);
  } catch (const kx::CError& error) {
    kx::P<zarn::CVMDKForeignDisk> foreign = openForeignAfter(context, arguments.positional()[0], error);
    if (!foreign) throw;
    return showForeignMap(context, *foreign, arguments.positional()[0], json);
  }
  std::vector<CGrainLocator> locators;
  for (const CChainLevel& level : chain) locators.emplace_back(context, level);
  const int64_t size = chain[0].disk->getSizeBytes();
  const int64_t grain = chain[0].disk->getGrainSizeBytes();
  const int bottom = static_cast<int>(chain.size()) - 1;
  std::vector<CMapRun> runs;
  for (int64_t position = 0; position < size; position += grain) {
    checkInterrupted();
    const int depth = findDepth(chain, position);
    CMapRun run{position, std::min(grain, size - position), depth < 0 ? bottom : depth, depth >= 0, -1,
                std::string(), std::string()};
    if (run.data && !locators[static_cast<size_t>(depth)].locate(position, run.file, run.offset)) {
      run.file = chain[static_cast<size_t>(depth)].name;
    }
    if (!runs.empty()) {
      CMapRun& last = runs.back();
      const bool sameKind = last.depth == run.depth && last.data == run.data && last.file == run.file &&
                            (last.offset < 0) == (run.offset < 0);
      if (sameKind && last.start + last.length == position &&
          (run.offset < 0 || last.offset + last.length == run.offset)) {
        last.length += run.length;
        continue;
      }
    }
    run.disk = chain[static_cast<size_t>(run.depth)].name;
    runs.push_back(run);
  }
  return printMap(runs, json);
}

int printMap(const std::vector<CMapRun>& runs, bool json) {
  if (json) {
    CJsonWriter out;
    out.beginArray();
    for (const CMapRun& run : runs) {
      out.beginObject();
      out.addNumber("start", run.start);
      out.addNumber("length", run.length);
      out.addNumber("depth", run.depth);
      out.addBool("present", run.data);
      out.addBool("zero", !run.data);
      out.addBool("data", run.data);
      if (run.offset >= 0) out.addNumber("offset", run.offset);
      if (run.data) out.addString("filename", run.file);
      out.endObject();
    }
    out.endArray();
    std::fputs(out.getText().c_str(), stdout);
    return 0;
  }
  // By disk: the runs of one depth that follow each other are one line.
  std::vector<CMapRun> lines;
  for (const CMapRun& run : runs) {
    if (!run.data) continue;
    if (!lines.empty() && lines.back().depth == run.depth && lines.back().start + lines.back().length == run.start) {
      lines.back().length += run.length;
    } else {
      lines.push_back(run);
    }
  }
  std::printf("%-16s%-16s%-7s%s\n", "Offset", "Length", "Depth", "File");
  for (const CMapRun& line : lines) {
    std::printf("0x%-14llx0x%-14llx%-7d%s\n", static_cast<unsigned long long>(line.start),
                static_cast<unsigned long long>(line.length), line.depth, line.disk.c_str());
  }
  return 0;
}

}  // namespace zarn_img
