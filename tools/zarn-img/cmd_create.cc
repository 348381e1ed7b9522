#include <cctype>
#include <cstdio>
#include <set>

#include "commands.h"
#include "foreign.h"
#include "kx/error.h"
#include "kx/log.h"
#include "zarn/descriptor.h"
#include "zarn/descriptor_accessor.h"
#include "zarn/extent_info.h"
#include "zarn/file_reference.h"

namespace zarn_img {

const char* const kCommonHelp =
    "  --password-file F     the password of encrypted disks, from file F\n"
    "  --confine DIR         every file opened (disks, the files they name, raw\n"
    "                        images) must lie under DIR\n"
    "  -q                    quiet: nothing on stdout but what was asked for\n"
    "\n"
    "Passwords come from --password-file, else from the environment variable\n"
    "ZARN_PASSWORD, else from a prompt on the terminal; never from an argument.\n";

namespace {

const char* const kForceShareHelp =
    "  -U, --force-share     read the disk without taking its lock, while another\n"
    "                        process may write it (with a warning)\n";

// The largest disk of one file: 32-bit sector numbers.
constexpr int64_t kLargestSingleFileBytes = int64_t(1) << 41;

// Names of the parts of a split disk: "<title>-s<digits><extension>" beside it.
bool isPartName(const std::string& name, const std::string& title, const std::string& extension) {
  const std::string head = title + "-s";
  if (name.size() <= head.size() + extension.size() || name.compare(0, head.size(), head) != 0 ||
      name.compare(name.size() - extension.size(), extension.size(), extension) != 0) {
    return false;
  }
  for (size_t i = head.size(); i < name.size() - extension.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(name[i]))) return false;
  }
  return true;
}

// The extent files of the disk at `uri` before it is made anew that are parts
// of it by their names. Empty when there is no such disk or it doesn't read.
std::set<kx::CURI> listOldParts(CToolContext& context, const kx::CURI& uri) {
  std::set<kx::CURI> parts;
  try {
    if (!context.getFileSystem()->fileExists(uri)) return parts;
    int flags = 0;
    kx::P<kx::IIOStream> stream = context.getFileSystem()->openFile(uri, kx::IIOStream::ACCESS_READ, flags);
    auto accessor = kx::create<zarn::CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ);
    kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
    accessor->getDescriptor()->getExtentEntries(extents);
    const std::string title = uri.getTitle().toUTF8();
    const std::string extension = uri.getExtension().toUTF8();
    for (const auto& extent : extents) {
      const kx::CURI part = zarn::vmdkFileReferenceToURI(uri.getParent(), extent->getFilename()).toNormalized();
      if (part.getParent() == uri.getParent().toNormalized() && isPartName(part.getName().toUTF8(), title, extension)) {
        parts.insert(part);
      }
    }
  } catch (const kx::CError&) {
    // Whatever was there is no disk whose parts could be told apart.
  }
  return parts;
}

}  // namespace

std::vector<COptionDef> withCommonOptions(std::vector<COptionDef> definitions) {
  definitions.push_back({0, "password-file", true, false});
  definitions.push_back({0, "confine", true, false});
  definitions.push_back({'q', "quiet", false, false});
  return definitions;
}

std::vector<COptionDef> withReadingOptions(std::vector<COptionDef> definitions) {
  definitions.push_back({'U', "force-share", false, false});
  return withCommonOptions(definitions);
}

void applyCommonOptions(CToolContext& context, const CArguments& arguments, const std::string& optionsConfine) {
  if (arguments.has("password-file")) context.getPasswords().setFile(arguments.get("password-file"));
  const std::string confine = optionsConfine.empty() ? arguments.get("confine") : optionsConfine;
  if (!confine.empty()) context.setConfine(confine);
  if (arguments.has("force-share")) context.setForceShare(true);
}

bool isQuiet(const CArguments& arguments) { return arguments.has("quiet"); }

bool parseOutputFormat(const CArguments& arguments) {
  const std::string format = arguments.get("output", "human");
  if (format != "human" && format != "json") {
    throw CUsageError(arguments.command(), "invalid output format '" + format + "': expecting human or json");
  }
  return format == "json";
}

std::string formatSize(int64_t bytes) {
  static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024 && unit < 6) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.3g %s", value, units[unit]);
  return text;
}

int64_t noteDiskSize(int64_t sizeBytes, bool quiet) {
  const int64_t actual = zarn::CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(sizeBytes);
  if (actual != sizeBytes && !quiet) {
    std::fprintf(stderr, "zarn-img: note: the disk gets %lld bytes, not %lld: at least 8 MiB, in whole grains of 64 KiB\n",
                 static_cast<long long>(actual), static_cast<long long>(sizeBytes));
  }
  return actual;
}

kx::P<zarn::CVMDKDisk> createDisk(CToolContext& context, const std::string& path, int64_t sizeBytes,
                                  const CDiskOptions& options, bool quiet, bool* encryptedOut) {
  const kx::CURI uri = CToolContext::pathToURI(path);
  context.setDisplayName(uri, path);
  // The descriptor ends a file name at a double quote, and reads a name with
  // a backslash as a Windows path: such a disk would not open again.
  const std::string name = uri.getName().toUTF8();
  if (name.find_first_of("\"\\") != std::string::npos) {
    throw kx::CError("A VMDK file name can't hold a double quote or a backslash.", kx::String(), -1,
                     kx::CProps().add("name", name));
  }
  // The parent first: it may ask for the password that an encrypted child
  // then shares.
  uint32_t parentContentID = 0xFFFFFFFF;
  bool parentEncrypted = false;
  if (!options.backingFile.empty()) {
    const kx::CURI parentURI = zarn::vmdkFileReferenceToURI(uri.getParent(), kx::String::fromUTF8(options.backingFile));
    kx::P<zarn::CVMDKDisk> parent;
    try {
      parent = context.openDiskChecked(parentURI, kx::IIOStream::ACCESS_READ, options.backingFile);
    } catch (const kx::CError& error) {
      if (isRefusalOfTheUser(error)) throw;
      // A child reads through its parent with the library's own reader, which
      // a disk of another tool doesn't open.
      if (kx::P<zarn::CVMDKForeignDisk> foreign = openForeignAfter(context, CToolContext::uriToPath(parentURI), error)) {
        throw kx::CError(kx::String::fromUTF8(options.backingFile + " is a disk of another tool (" +
                                              foreign->getForeignReason().toUTF8() +
                                              "): a new disk can't read through it; convert it first, e.g. "
                                              "zarn-img convert " + options.backingFile + " base.vmdk"));
      }
      const std::string what = "Could not open backing file '" + options.backingFile + "'";
      if (hasFileSystemProblem(error, kx::FSPROB_NOT_FOUND) && !context.getFileSystem()->fileExists(parentURI)) {
        throw kx::CError(kx::String::fromUTF8(what + ": No such file or directory"));
      }
      throw kx::CError(kx::String::fromUTF8(what + ": " + context.describe(error)));
    }
    parentContentID = parent->getDescriptor()->getContentID();
    parentEncrypted = !parent->getDescriptor()->getKxEncryptionAlgorithm().isEmpty();
    if (sizeBytes < 0) sizeBytes = parent->getSizeBytes();
  }
  const bool encrypted = options.encrypted.value_or(parentEncrypted);
  if (parentEncrypted && !encrypted) {
    std::fprintf(stderr,
                 "zarn-img: warning: %s is encrypted but its new child %s is not (encrypted=off): the grains the "
                 "child copies from it are stored in clear\n",
                 options.backingFile.c_str(), path.c_str());
  }
  kx::String password;
  if (encrypted) {
    password = context.getPasswordFor(path, true);
    if (password.isEmpty()) {
      throw kx::CError("encrypted=on needs a password: give --password-file, set ZARN_PASSWORD or run on a terminal.");
    }
  }
  if (encryptedOut) *encryptedOut = encrypted;
  sizeBytes = noteDiskSize(sizeBytes, quiet);
  const int64_t fileSizeLimit = options.getFileSizeLimit();
  try {
    zarn::CVMDKDisk::calcCreationLayout(sizeBytes, options.isCompressed(), fileSizeLimit, uri.getName());
  } catch (const kx::CInvalidArgError& error) {
    if (fileSizeLimit != -1 || sizeBytes <= kLargestSingleFileBytes) throw;
    throw kx::CError(kx::String::fromUTF8(
        "A disk of " + formatSize(sizeBytes) + " doesn't fit into one file, which holds at most 2 TiB (" +
        std::to_string(kLargestSingleFileBytes) + " bytes): split it with -o " +
        (options.isCompressed() ? "split-size=SIZE" : "subformat=twoGbMaxExtentSparse")));
  }
  const std::set<kx::CURI> oldParts = listOldParts(context, uri);
  kx::P<zarn::CVMDKDisk> disk =
      zarn::CVMDKDisk::create(context.getFileSystem(), uri, sizeBytes, password, options.isCompressed(),
                              options.getCompressionLevel(), fileSizeLimit, kx::String::fromUTF8(options.backingFile),
                              parentContentID, options.onDemand);
  if (parentEncrypted && !encrypted) {
    // A clear disk hands its own password, none, to the parents it opens:
    // opened again with the run's password it reads through its parent.
    disk = nullptr;
    disk = context.openDisk(uri, kx::IIOStream::ACCESS_READ_WRITE, path);
  }
  if (!oldParts.empty()) {
    kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
    disk->getDescriptor()->getExtentEntries(extents);
    std::set<kx::CURI> kept;
    for (const auto& extent : extents) {
      kept.insert(zarn::vmdkFileReferenceToURI(uri.getParent(), extent->getFilename()).toNormalized());
    }
    for (const kx::CURI& part : oldParts) {
      if (kept.count(part) != 0) continue;
      try {
        context.getFileSystem()->deleteFile(part, true);
      } catch (const kx::CError& error) {
        kx::logWarning(error, "Cannot remove a part of the disk that the new one replaces");
      }
    }
  }
  return disk;
}

int runCreate(CToolContext& context, const Args& args) {
  const CArguments arguments("create",
                             withCommonOptions({{'o', "options", true, true},
                                                {'f', "format", true, false},
                                                {'b', "backing-file", true, false},
                                                {'F', "backing-format", true, false}}),
                             args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img create [-f vmdk] [-o OPTIONS] [-b BACKING_FILE [-F vmdk]] [-q]\n"
        "                       [--password-file F] [--confine DIR] FILE [SIZE]\n"
        "\n"
        "Makes a new, empty VMDK disk FILE of SIZE bytes (suffixes K, M, G, T, P, E\n"
        "are powers of 1024, 1.5G works; at least 8M, in whole grains of 64K: any\n"
        "other size is rounded up, with a note). With a backing file the disk is a\n"
        "differencing disk over it, and SIZE defaults to its size; the child of an\n"
        "encrypted disk is encrypted with the same password unless encrypted=off.\n"
        "\n"
        "  -f vmdk               the format, for qemu-img's sake: only vmdk\n"
        "  -o OPTIONS            comma-separated KEY=VALUE (see -o help)\n"
        "  -b BACKING_FILE       as -o backing-file=BACKING_FILE\n"
        "  -F vmdk               the format of the backing file: only vmdk\n"
        "%s\n%s",
        kCommonHelp, getDiskOptionsHelp());
    return 0;
  }
  if (isDiskOptionsHelp(arguments.get("options"))) {
    std::printf("%s", getDiskOptionsHelp());
    return 0;
  }
  if (arguments.get("format", "vmdk") != "vmdk") {
    throw CUsageError("create", "unknown format '" + arguments.get("format") + "': zarn-img makes vmdk disks");
  }
  if (arguments.get("backing-format", "vmdk") != "vmdk") {
    throw CUsageError("create", "invalid backing format '" + arguments.get("backing-format") + "': a parent is a vmdk disk");
  }
  CDiskOptions options;
  parseDiskOptions("create", arguments.get("options"), options);
  if (arguments.has("backing-file")) {
    if (arguments.get("backing-file").empty()) throw CUsageError("create", "-b needs a path");
    options.backingFile = arguments.get("backing-file");
  }
  arguments.expectPositional(options.backingFile.empty() ? 2 : 1, 2, "FILE and SIZE");
  const std::string& path = arguments.positional()[0];
  const int64_t sizeBytes = arguments.positional().size() > 1 ? parseSize("create", "SIZE", arguments.positional()[1]) : -1;
  applyCommonOptions(context, arguments, options.confine);
  bool encrypted = false;
  kx::P<zarn::CVMDKDisk> disk = createDisk(context, path, sizeBytes, options, isQuiet(arguments), &encrypted);
  if (!isQuiet(arguments)) {
    std::printf("Formatting '%s', fmt=vmdk size=%lld subformat=%s%s%s%s\n", path.c_str(),
                static_cast<long long>(disk->getSizeBytes()), options.subformat.c_str(),
                options.backingFile.empty() ? "" : " backing_file=", options.backingFile.c_str(),
                encrypted ? " encrypted=on" : "");
  }
  return 0;
}

const char* getForceShareHelp() { return kForceShareHelp; }

}  // namespace zarn_img
