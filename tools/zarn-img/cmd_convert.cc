#include <cstdio>
#include <cctype>
#include <cstring>

#include "commands.h"
#include "convert.h"
#include "kx/error.h"
#include "zarn/sparse_extent_header.h"

namespace zarn_img {

namespace {

const char* const kConvertHelp =
    "Usage: zarn-img convert [-f raw|vmdk] [-O raw|vmdk] [-o OPTIONS] [-p] [-j THREADS]\n"
    "                        [-n] [--password-file F] [--confine DIR] SOURCE TARGET\n"
    "\n"
    "Copies the content of SOURCE into TARGET, grain by grain. Zero grains are\n"
    "passed over: a raw TARGET is a sparse file. Between two VMDK disks with the\n"
    "same grain size and compression, grains move as they are stored, without\n"
    "being unpacked. A differencing SOURCE is read through its parents.\n"
    "\n"
    "  -f FORMAT             format of SOURCE (default: found from its content)\n"
    "  -O FORMAT             format of TARGET (default: vmdk for a name ending\n"
    "                        in .vmdk, else raw; with -n found from its content)\n"
    "  -o OPTIONS            options of a new VMDK TARGET (see -o help); with\n"
    "                        backing-file only grains that differ are written\n"
    "  -p                    show progress on stderr\n"
    "  -j THREADS            compress or decompress on THREADS threads (1 to 16)\n"
    "  -n                    write into the existing TARGET instead of making it\n"
    "                        anew; afterwards it reads exactly as SOURCE\n";

// "vmdk" when the file starts like a sparse extent (plain or encrypted) or a
// descriptor file.
std::string probeFormat(CToolContext& context, const kx::CURI& uri) {
  int flags = 0;
  kx::P<kx::IIOStream> stream = context.getFileSystem()->openFile(uri, kx::IIOStream::ACCESS_READ, flags);
  char head[32] = {};
  const int got = stream->readLax(head, sizeof head);
  static const char kDescriptorStart[] = "# Disk DescriptorFile";
  if (got >= 4) {
    const uint32_t magic = static_cast<uint32_t>(static_cast<unsigned char>(head[0])) |
                           static_cast<uint32_t>(static_cast<unsigned char>(head[1])) << 8 |
                           static_cast<uint32_t>(static_cast<unsigned char>(head[2])) << 16 |
                           static_cast<uint32_t>(static_cast<unsigned char>(head[3])) << 24;
    if (magic == zarn::CVMDKSparseExtentHeader::kMagic || magic == zarn::CVMDKSparseExtentHeader::kMagicEncrypted) {
      return "vmdk";
    }
  }
  if (got >= static_cast<int>(sizeof kDescriptorStart) - 1 &&
      std::memcmp(head, kDescriptorStart, sizeof kDescriptorStart - 1) == 0) {
    return "vmdk";
  }
  return "raw";
}

std::string checkFormat(const std::string& format) {
  if (format != "raw" && format != "vmdk") {
    throw CUsageError("convert", "unknown format '" + format + "': expecting raw or vmdk");
  }
  return format;
}

bool endsWithVmdk(const std::string& path) {
  if (path.size() < 5) return false;
  std::string tail = path.substr(path.size() - 5);
  for (char& c : tail) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return tail == ".vmdk";
}

}  // namespace

int runConvert(CToolContext& context, const Args& args) {
  const CArguments arguments("convert",
                             withCommonOptions({{'f', "source-format", true, false},
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
  settings.showProgress = arguments.has("progress");
  if (noCreate && options.setsCreation) throw CUsageError("convert", "-n writes into an existing target: -o can only confine");
  std::string sourceFormat = arguments.has("source-format") ? checkFormat(arguments.get("source-format")) : "";
  std::string targetFormat = arguments.has("target-format") ? checkFormat(arguments.get("target-format")) : "";
  applyCommonOptions(context, arguments, options.confine);

  const kx::CURI sourceURI = CToolContext::pathToURI(sourcePath);
  const kx::CURI targetURI = CToolContext::pathToURI(targetPath);
  if (sourceURI == targetURI) throw kx::CError("SOURCE and TARGET are the same file.");
  if (sourceFormat.empty()) sourceFormat = probeFormat(context, sourceURI);
  if (targetFormat.empty()) {
    targetFormat = noCreate ? probeFormat(context, targetURI) : endsWithVmdk(targetPath) ? "vmdk" : "raw";
  }
  if (targetFormat == "raw" && options.setsCreation) throw CUsageError("convert", "-o shapes a VMDK target: add -O vmdk");

  CConvertEnds ends;
  int flags = 0;
  if (sourceFormat == "vmdk") {
    ends.sourceDisk = context.openDisk(sourcePath, kx::IIOStream::ACCESS_READ);
    ends.sourceSizeBytes = ends.sourceDisk->getSizeBytes();
  } else {
    ends.sourceRaw = context.getFileSystem()->openFile(sourceURI, kx::IIOStream::ACCESS_READ, flags);
    ends.sourceSizeBytes = ends.sourceRaw->getLength();
  }
  int64_t targetSize = 0;
  if (targetFormat == "vmdk") {
    if (noCreate) {
      ends.targetDisk = context.openDisk(targetPath, kx::IIOStream::ACCESS_READ_WRITE);
    } else {
      ends.targetDisk = createDisk(context, targetPath, ends.sourceSizeBytes, options);
    }
    targetSize = ends.targetDisk->getSizeBytes();
  } else {
    if (noCreate && !context.getFileSystem()->fileExists(targetURI)) {
      throw kx::CError("The target of -n doesn't exist.", kx::String(), -1, kx::CProps().add("uri", targetURI.toString(true)));
    }
    ends.targetRaw = context.getFileSystem()->openFile(targetURI, kx::IIOStream::ACCESS_READ_WRITE, flags);
    if (!noCreate) {
      // Cut to nothing first, so that the holes of the new length are holes
      // on the disk too.
      ends.targetRaw->setLength(0);
      ends.targetRaw->setLength(ends.sourceSizeBytes);
    }
    targetSize = ends.targetRaw->getLength();
  }
  if (targetSize < ends.sourceSizeBytes) {
    throw kx::CError("The target is smaller than the source.", kx::String(), -1,
                     kx::CProps().add("sourceSize", ends.sourceSizeBytes).add("targetSize", targetSize));
  }
  settings.compareWithTarget = noCreate || !options.backingFile.empty();
  convertGrains(ends, settings);
  return 0;
}

}  // namespace zarn_img
