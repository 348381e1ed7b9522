#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

#include "commands.h"
#include "foreign.h"
#include "convert.h"
#include "interrupt.h"
#include "kx/error.h"
#include "new_target.h"
#include "zarn/sparse_extent_header.h"

namespace zarn_img {

namespace {

const char* const kConvertHelp =
    "Usage: zarn-img convert [-U] [-f raw|vmdk] [-O raw|vmdk] [-o OPTIONS] [-p] [-j THREADS]\n"
    "                        [-n] [-q] [--password-file F] [--confine DIR] SOURCE TARGET\n"
    "\n"
    "Copies the content of SOURCE into TARGET, grain by grain. Zero grains are\n"
    "passed over: a raw TARGET is a sparse file. Between two VMDK disks with the\n"
    "same grain size and compression, grains move as they are stored, without\n"
    "being unpacked. A differencing SOURCE is read through its parents.\n"
    "\n"
    "A SOURCE named *.vmdk, or that starts like a sparse extent or a descriptor,\n"
    "is opened as a disk and refused when it doesn't open; -f raw copies its\n"
    "bytes. A new TARGET that can't be finished (an error, Ctrl-C) is removed\n"
    "with all its files; with -n the existing TARGET stays, each grain as it\n"
    "was or as SOURCE has it.\n"
    "\n"
    "  -f FORMAT             format of SOURCE (default: found from its name\n"
    "                        and content)\n"
    "  -O FORMAT             format of TARGET (default: vmdk for a name ending\n"
    "                        in .vmdk, else raw; with -n found from its name\n"
    "                        and content, as for SOURCE)\n"
    "  -o OPTIONS            options of a new VMDK TARGET (see -o help); with\n"
    "                        backing-file only grains that differ are written\n"
    "  -p                    show progress on stderr\n"
    "  -j THREADS            compress or decompress on THREADS threads (1 to 16)\n"
    "  -n                    write into the existing TARGET instead of making it\n"
    "                        anew; afterwards it reads exactly as SOURCE\n"
    "  -U, --force-share     read SOURCE without taking its lock, while another\n"
    "                        process may write it (with a warning)\n";

bool endsWithVmdk(const std::string& path) {
  if (path.size() < 5) return false;
  std::string tail = path.substr(path.size() - 5);
  for (char& c : tail) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return tail == ".vmdk";
}

}  // namespace

bool looksLikeVmdk(CToolContext& context, const kx::CURI& uri, const std::string& path) {
  return endsWithVmdk(path) || context.startsLikeVmdk(uri);
}

kx::P<zarn::CVMDKDisk> openLookalike(CToolContext& context, const kx::CURI& uri, const std::string& path,
                                     kx::IIOStream::Access access, const char* option,
                                     std::vector<CChainLevel>* chain) {
  try {
    return context.openDiskChecked(uri, access, path, chain);
  } catch (const kx::CError& error) {
    const auto* unsupported = dynamic_cast<const kx::CIOError*>(&error);
    if (isRefusalOfTheUser(error) || !context.getFileSystem()->fileExists(uri) ||
        (unsupported && unsupported->getCode() == kx::IOERR_NOT_SUPPORTED)) {
      throw;
    }
    std::string reason = context.describe(error);
    if (reason.compare(0, path.size() + 1, path + " ") != 0) reason = path + " doesn't open as a VMDK disk: " + reason;
    if (!reason.empty() && reason.back() == '.') reason.pop_back();
    throw kx::CError(kx::String::fromUTF8(reason + "; use " + option + " raw to " +
                                          (access == kx::IIOStream::ACCESS_READ ? "copy" : "write") +
                                          " its bytes as they are"));
  }
}

std::string checkFormat(const std::string& command, const std::string& format) {
  if (format != "raw" && format != "vmdk") {
    throw CUsageError(command, "unknown format '" + format + "': expecting raw or vmdk");
  }
  return format;
}

int runConvert(CToolContext& context, const Args& args) {
  const CArguments arguments("convert",
                             withReadingOptions({{'f', "source-format", true, false},
                                                {'O', "target-format", true, false},
                                                {'o', "options", true, true},
                                                {'p', "progress", false, false},
                                                {'j', "threads", true, false},
                                                {'n', "no-create", false, false}}),
                             args);
  if (arguments.wantsHelp()) {
    std::printf("%s\n%s\n%s", kConvertHelp, kCommonHelp, getDiskOptionsHelp());
    return 0;
  }
  if (isDiskOptionsHelp(arguments.get("options"))) {
    std::printf("%s", getDiskOptionsHelp());
    return 0;
  }
  CDiskOptions options;
  parseDiskOptions("convert", arguments.get("options"), options);
  arguments.expectPositional(2, 2, "SOURCE and TARGET");
  const std::string& sourcePath = arguments.positional()[0];
  const std::string& targetPath = arguments.positional()[1];
  const bool noCreate = arguments.has("no-create");
  CConvertSettings settings;
  settings.threads = static_cast<int>(parseCount("convert", "thread count", arguments.get("threads", "1"), 1, 16));
  settings.showProgress = arguments.has("progress") && !isQuiet(arguments);
  if (noCreate && options.setsCreation) throw CUsageError("convert", "-n writes into an existing target: -o can only confine");
  std::string sourceFormat = arguments.has("source-format") ? checkFormat("convert", arguments.get("source-format")) : "";
  std::string targetFormat = arguments.has("target-format") ? checkFormat("convert", arguments.get("target-format")) : "";
  applyCommonOptions(context, arguments, options.confine);

  const kx::CURI sourceURI = CToolContext::pathToURI(sourcePath);
  const kx::CURI targetURI = CToolContext::pathToURI(targetPath);
  context.setDisplayName(sourceURI, sourcePath);
  context.setDisplayName(targetURI, targetPath);
  if (sourceURI == targetURI) throw kx::CError("SOURCE and TARGET are the same file.");
  const bool sourceIsVmdk =
      sourceFormat.empty() ? looksLikeVmdk(context, sourceURI, sourcePath) : sourceFormat == "vmdk";
  bool targetIsVmdk = targetFormat == "vmdk";
  if (targetFormat.empty()) {
    targetIsVmdk = noCreate ? looksLikeVmdk(context, targetURI, targetPath) : endsWithVmdk(targetPath);
  }
  if (!targetIsVmdk && options.setsCreation) throw CUsageError("convert", "-o shapes a VMDK target: add -O vmdk");

  CConvertEnds ends;
  int flags = 0;
  if (sourceIsVmdk) {
    std::vector<CChainLevel> chain;
    try {
      ends.sourceDisk = openLookalike(context, sourceURI, sourcePath, kx::IIOStream::ACCESS_READ, "-f", &chain);
      ends.sourceSizeBytes = ends.sourceDisk->getSizeBytes();
    } catch (const kx::CError& error) {
      ends.sourceForeign = openForeignAfter(context, sourcePath, error);
      if (!ends.sourceForeign) throw;
      ends.sourceSizeBytes = ends.sourceForeign->getSizeBytes();
    }
    if (!targetIsVmdk && !noCreate && !chain.empty()) ends.sourceLocator = std::make_shared<CGrainLocator>(context, chain[0]);
    for (const CChainLevel& level : chain) {
      ends.sourceChainStoresAlike = ends.sourceChainStoresAlike &&
                                    level.disk->getGrainSizeBytes() == ends.sourceDisk->getGrainSizeBytes() &&
                                    level.disk->getCompressed() == ends.sourceDisk->getCompressed();
    }
  } else {
    ends.sourceRaw = context.getFileSystem()->openFile(sourceURI, kx::IIOStream::ACCESS_READ, flags);
    ends.sourceSizeBytes = ends.sourceRaw->getLength();
  }
  if (noCreate && targetIsVmdk) {
    ends.targetDisk = openLookalike(context, targetURI, targetPath, kx::IIOStream::ACCESS_READ_WRITE, "-O");
  } else if (noCreate && !context.getFileSystem()->fileExists(targetURI)) {
    throw kx::CError("The target of -n doesn't exist.", kx::String(), -1, kx::CProps().add("uri", targetURI.toString(true)));
  }
  settings.compareWithTarget = noCreate || !options.backingFile.empty();

  std::unique_ptr<CNewTarget> made;  // what this run makes; none with -n
  CConvertResult result;
  // Whether the run had made files that are gone now.
  const auto letGo = [&ends, &made]() {
    ends = CConvertEnds();
    return made && made->remove();
  };
  try {
    checkInterrupted();
    if (!noCreate) made = std::make_unique<CNewTarget>(context, targetURI);
    if (targetIsVmdk && !noCreate) {
      ends.targetDisk = createDisk(context, targetPath, ends.sourceSizeBytes, options, isQuiet(arguments));
      // Nothing can have recorded the content ID of a disk made a moment ago:
      // it needn't change, which saves a descriptor store and a device flush.
      ends.targetDisk->setContentIDUpdatesEnabled(false);
      made->setDisk(*ends.targetDisk);
    } else if (!targetIsVmdk) {
      if (made) made->setRaw();
      ends.targetRaw = context.getFileSystem()->openFile(targetURI, kx::IIOStream::ACCESS_READ_WRITE, flags);
      if (!noCreate) {
        // Cut to nothing first, so that the holes of the new length are holes
        // on the disk too. Only a file that holds something: ext4 takes a cut
        // to 0 as a file being replaced and writes it back at its close, which
        // cost a 1 GiB target a third of the convert's time.
        if (ends.targetRaw->getLength() != 0) ends.targetRaw->setLength(0);
        ends.targetRaw->setLength(ends.sourceSizeBytes);
      }
    }
    const int64_t targetSize = ends.targetDisk ? ends.targetDisk->getSizeBytes() : ends.targetRaw->getLength();
    if (targetSize < ends.sourceSizeBytes) {
      throw kx::CError("The target is smaller than the source.", kx::String(), -1,
                       kx::CProps().add("sourceSize", ends.sourceSizeBytes).add("targetSize", targetSize));
    }
    convertGrains(ends, settings, result);
  } catch (const CInterrupted& interruption) {
    if (!letGo()) throw;
    throw CInterrupted(interruption.getSignal(), "interrupted; the unfinished target was removed");
  } catch (const kx::CError& error) {
    const bool noSpace = hasFileSystemProblem(error, kx::FSPROB_NO_SPACE);
    // A write that failed had begun the target, even when its making took
    // its first file away again.
    const bool removed = letGo() || (made && (noSpace || hasFileSystemProblem(error, kx::FSPROB_IO)));
    if (!removed && !(noSpace && noCreate)) throw;
    std::string message = error.getMessage().toUTF8();
    if (noSpace) {
      message = "No space left on the device after writing " + std::to_string(result.bytesWritten) + " bytes of the target";
    }
    if (!message.empty() && message.back() == '.') message.pop_back();
    message += removed ? "; the target was removed." : "; the grains written before stay, each whole.";
    throw kx::CError(kx::String::fromUTF8(message), error.getContext(), error.getCode(), error.getProps());
  } catch (...) {
    letGo();
    throw;
  }
  return 0;
}

}  // namespace zarn_img
