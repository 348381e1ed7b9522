#include <algorithm>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "json.h"
#include "kx/error.h"
#include "zarn/descriptor.h"

namespace zarn_img {

namespace {

struct CRun {
  int64_t start;
  int64_t length;
  int depth;
};

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
  const CArguments arguments("map", withCommonOptions({{0, "output", true, false}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img map [--output=human|json] [--password-file F] [--confine DIR] FILE\n"
        "\n"
        "Lists the allocated runs of the disk FILE and where each comes from:\n"
        "depth 0 is FILE itself, 1 its parent, and so on. Runs not listed read\n"
        "as zeros.\n"
        "\n%s",
        kCommonHelp);
    return 0;
  }
  const bool json = parseOutputFormat(arguments);
  arguments.expectPositional(1, 1, "FILE");
  applyCommonOptions(context, arguments);
  std::vector<CChainLevel> chain;
  context.openDiskChecked(arguments.positional()[0], kx::IIOStream::ACCESS_READ, &chain);
  const int64_t size = chain[0].disk->getSizeBytes();
  const int64_t grain = chain[0].disk->getGrainSizeBytes();
  std::vector<CRun> runs;
  for (int64_t position = 0; position < size; position += grain) {
    checkInterrupted();
    const int depth = findDepth(chain, position);
    if (depth < 0) continue;
    const int64_t length = std::min(grain, size - position);
    if (!runs.empty() && runs.back().depth == depth && runs.back().start + runs.back().length == position) {
      runs.back().length += length;
    } else {
      runs.push_back({position, length, depth});
    }
  }
  if (json) {
    CJsonWriter out;
    out.beginArray();
    for (const CRun& run : runs) {
      out.beginObject();
      out.addNumber("start", run.start);
      out.addNumber("length", run.length);
      out.addNumber("depth", run.depth);
      out.addString("filename", chain[run.depth].name);
      out.endObject();
    }
    out.endArray();
    std::fputs(out.getText().c_str(), stdout);
    return 0;
  }
  std::printf("%-16s%-16s%-7s%s\n", "Offset", "Length", "Depth", "File");
  for (const CRun& run : runs) {
    std::printf("0x%-14llx0x%-14llx%-7d%s\n", static_cast<unsigned long long>(run.start),
                static_cast<unsigned long long>(run.length), run.depth, chain[run.depth].name.c_str());
  }
  return 0;
}

}  // namespace zarn_img
