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

// A chain longer than this is taken for a loop of parent references.
constexpr size_t kMaxChainLength = 256;

struct CLevel {
  kx::P<zarn::CVMDKDisk> disk;
  std::string name;
};

struct CRun {
  int64_t start;
  int64_t length;
  int depth;
};

// The disk and its parents, each opened read-only on its own and checked
// against the content ID that its child recorded.
std::vector<CLevel> openChain(CToolContext& context, const std::string& path) {
  std::vector<CLevel> chain;
  chain.push_back({context.openDisk(path, kx::IIOStream::ACCESS_READ), path});
  for (;;) {
    const CLevel& child = chain.back();
    const kx::CURI parentURI = child.disk->getParentDiskMainURI();
    if (parentURI.isEmpty()) break;
    if (chain.size() >= kMaxChainLength) {
      throw kx::CError("The chain of parent disks is too long.", kx::String(), -1,
                       kx::CProps().add("uri", child.disk->getMainFileURI().toString(true)));
    }
    const std::string name = CToolContext::uriToPath(parentURI);
    kx::P<zarn::CVMDKDisk> parent = context.openDisk(parentURI, kx::IIOStream::ACCESS_READ, name);
    const uint32_t expected = child.disk->getDescriptor()->getParentContentID();
    const uint32_t actual = parent->getDescriptor()->getContentID();
    if (expected != actual) {
      char expectedText[16], actualText[16];
      std::snprintf(expectedText, sizeof expectedText, "%x", expected);
      std::snprintf(actualText, sizeof actualText, "%x", actual);
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK parent disk has changed, but a child disk depended on it.",
                         kx::CProps()
                             .add("parentURI", parentURI.toString(true))
                             .add("childURI", child.disk->getMainFileURI().toString(true))
                             .add("expectedContentID", expectedText)
                             .add("actualContentID", actualText));
    }
    chain.push_back({parent, name});
  }
  return chain;
}

// Where the grain at `position` comes from: the depth of the first disk of
// the chain that holds it, or -1 when none does.
int findDepth(const std::vector<CLevel>& chain, int64_t position) {
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
  const std::vector<CLevel> chain = openChain(context, arguments.positional()[0]);
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
