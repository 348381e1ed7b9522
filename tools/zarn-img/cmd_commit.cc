#include <algorithm>
#include <cstdio>

#include "commands.h"
#include "interrupt.h"
#include "kx/buffer.h"
#include "kx/error.h"
#include "progress.h"
#include "zarn/descriptor.h"

namespace zarn_img {

namespace {

// Copies every grain that `child` holds itself into `parent`; stops at the
// next grain after a signal. `committed` counts the grains as they go.
void commitGrains(zarn::CVMDKDisk& child, zarn::CVMDKDisk& parent, bool showProgress, int64_t& committed) {
  const int64_t size = child.getSizeBytes();
  const int64_t grain = child.getGrainSizeBytes();
  // Grains in stored form when both store them alike: no unpacking and
  // packing again. Prepared data is never encrypted, so passwords don't matter.
  const bool prepared = grain == parent.getGrainSizeBytes() && child.getCompressed() == parent.getCompressed();
  kx::TBuffer<unsigned char> buffer(static_cast<size_t>(grain));
  CProgress progress(showProgress, size);
  for (int64_t position = 0; position < size; position += grain) {
    checkInterrupted();
    progress.update(position);
    child.seek(position);
    if (!child.isGrainWrittenAndIndependentOfParent()) continue;
    const int64_t bytes = std::min(grain, size - position);
    child.seek(position);
    parent.seek(position);
    if (prepared && bytes == grain) {
      child.readPreparedGrainData(buffer);
      parent.writePreparedGrainData(buffer);
    } else {
      buffer.setUsed(static_cast<size_t>(bytes));
      child.read(buffer.getData(), static_cast<int>(bytes));
      parent.write(buffer.getData(), static_cast<int>(bytes));
    }
    ++committed;
  }
  progress.finish();
}

}  // namespace

int runCommit(CToolContext& context, const Args& args) {
  const CArguments arguments("commit", withCommonOptions({{'p', "progress", false, false}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img commit [-p] [-q] [--password-file F] [--confine DIR] FILE\n"
        "\n"
        "Writes every grain that the differencing disk FILE holds itself into its\n"
        "parent, so that the parent reads as FILE does. FILE stays as it is and\n"
        "keeps reading the same: its record of the parent's content ID follows the\n"
        "parent's new one. Other children of the parent no longer open over it\n"
        "(its content changed under them). Interrupted, the grains committed so\n"
        "far stay in the parent, and FILE is still valid over it.\n"
        "\n"
        "  -p                    show progress on stderr\n"
        "%s",
        kCommonHelp);
    return 0;
  }
  arguments.expectPositional(1, 1, "FILE");
  applyCommonOptions(context, arguments);
  const std::string& path = arguments.positional()[0];
  const kx::CURI uri = CToolContext::pathToURI(path);
  kx::CURI parentURI;
  std::string parentName;
  {
    // The whole chain is checked first, as every command does it.
    std::vector<CChainLevel> chain;
    context.openDiskChecked(uri, kx::IIOStream::ACCESS_READ, path, &chain);
    if (chain.size() < 2) {
      throw kx::CError(kx::String::fromUTF8(path + " has no parent: only a differencing disk can be committed."));
    }
    parentURI = chain[1].disk->getMainFileURI();
    parentName = chain[1].name;
    if (chain[0].disk->getSizeBytes() > chain[1].disk->getSizeBytes()) {
      throw kx::CError(kx::String::fromUTF8(path + " is larger than its parent " + parentName +
                                            ": grow the parent first (zarn-img resize)"),
                       kx::String(), -1,
                       kx::CProps()
                           .add("sizeBytes", chain[0].disk->getSizeBytes())
                           .add("parentSizeBytes", chain[1].disk->getSizeBytes()));
    }
  }
  // Both for writing, the child over the very parent object that takes its
  // grains: it never opens a second copy of it.
  kx::P<zarn::CVMDKDisk> parent = context.openDiskChecked(parentURI, kx::IIOStream::ACCESS_READ_WRITE, parentName);
  kx::P<zarn::CVMDKDisk> child = context.openDiskOver(uri, kx::IIOStream::ACCESS_READ_WRITE, parent.get());
  const kx::P<zarn::CVMDKDescriptor> descriptor = child->getDescriptor();
  if (descriptor->getParentContentID() != parent->getDescriptor()->getContentID()) {
    throw kx::CError(kx::String::fromUTF8("The parent of " + path + " changed while it was being opened."));
  }
  int64_t committed = 0;
  // Whatever reached the parent, the child holds too: it reads the same over
  // the changed parent once it records the parent's new content ID, also
  // after an error or a signal.
  const auto recordParent = [&]() {
    parent->flushChanges();
    const uint32_t contentID = parent->getDescriptor()->getContentID();
    if (descriptor->getParentContentID() != contentID) {
      descriptor->setParentContentID(contentID);
      child->storeDescriptor();
    }
  };
  try {
    commitGrains(*child, *parent, arguments.has("progress") && !isQuiet(arguments), committed);
  } catch (...) {
    if (committed > 0) {
      try {
        recordParent();
      } catch (const std::exception& error) {
        std::fprintf(stderr, "zarn-img: %s is refused over its parent now: %s\n", path.c_str(),
                     context.describe(error).c_str());
      }
    }
    throw;
  }
  recordParent();
  if (!isQuiet(arguments)) std::printf("Image committed.\n");
  return 0;
}

}  // namespace zarn_img
