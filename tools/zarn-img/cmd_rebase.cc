#include <cstdio>

#include "commands.h"
#include "kx/error.h"
#include "zarn/descriptor.h"
#include "zarn/file_reference.h"

namespace zarn_img {

int runRebase(CToolContext& context, const Args& args) {
  const CArguments arguments("rebase", withCommonOptions({{'b', "backing", true, false}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img rebase -b PARENT_REFERENCE [-q] [--password-file F] [--confine DIR] FILE\n"
        "\n"
        "Changes the reference of the differencing disk FILE to its parent, for a\n"
        "parent that was moved or renamed. PARENT_REFERENCE is stored as given and\n"
        "read relative to FILE's folder. The parent it names must be the one that\n"
        "FILE was made over: its content ID must be the one FILE recorded.\n"
        "\n%s",
        kCommonHelp);
    return 0;
  }
  arguments.expectPositional(1, 1, "FILE");
  if (!arguments.has("backing") || arguments.get("backing").empty()) {
    throw CUsageError("rebase", "expecting -b PARENT_REFERENCE");
  }
  const std::string reference = arguments.get("backing");
  applyCommonOptions(context, arguments);
  const std::string& path = arguments.positional()[0];
  kx::P<zarn::CVMDKDisk> disk = context.openDisk(path, kx::IIOStream::ACCESS_READ_WRITE);
  // The old parent is what rebase replaces: it may well be gone.
  context.checkOpenedDisk(disk, path, false);
  const uint32_t expected = disk->getDescriptor()->getParentContentID();
  if (expected == 0xFFFFFFFF) {
    throw kx::CError("The disk has no parent: only the parent reference of a differencing disk can change.",
                     kx::String(), -1, kx::CProps().add("uri", disk->getMainFileURI().toString(true)));
  }
  const kx::CURI parentURI =
      zarn::vmdkFileReferenceToURI(disk->getMainFileURI().getParent(), kx::String::fromUTF8(reference));
  {
    kx::P<zarn::CVMDKDisk> parent = context.openDiskChecked(parentURI, kx::IIOStream::ACCESS_READ, reference);
    const uint32_t actual = parent->getDescriptor()->getContentID();
    if (actual != expected) {
      char expectedText[16], actualText[16];
      std::snprintf(expectedText, sizeof expectedText, "%x", expected);
      std::snprintf(actualText, sizeof actualText, "%x", actual);
      throw kx::CError("The new parent is not the disk that this one was made over: its content ID differs.",
                       kx::String(), -1,
                       kx::CProps()
                           .add("parentURI", parentURI.toString(true))
                           .add("expectedContentID", expectedText)
                           .add("actualContentID", actualText));
    }
  }
  disk->changeParentRelPath(kx::String::fromUTF8(reference));
  return 0;
}

}  // namespace zarn_img
