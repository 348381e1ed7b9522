#include <cstdio>

#include "commands.h"
#include "kx/error.h"
#include "zarn/descriptor.h"
#include "zarn/file_reference.h"

namespace zarn_img {

const char* const kCommonHelp =
    "  --password-file F     the password of encrypted disks, from file F\n"
    "  --confine DIR         every file opened (disks, the files they name, raw\n"
    "                        images) must lie under DIR\n"
    "\n"
    "Passwords come from --password-file, else from the environment variable\n"
    "ZARN_PASSWORD, else from a prompt on the terminal; never from an argument.\n";

std::vector<COptionDef> withCommonOptions(std::vector<COptionDef> definitions) {
  definitions.push_back({0, "password-file", true, false});
  definitions.push_back({0, "confine", true, false});
  return definitions;
}

void applyCommonOptions(CToolContext& context, const CArguments& arguments, const std::string& optionsConfine) {
  if (arguments.has("password-file")) context.getPasswords().setFile(arguments.get("password-file"));
  const std::string confine = optionsConfine.empty() ? arguments.get("confine") : optionsConfine;
  if (!confine.empty()) context.setConfine(confine);
}

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

kx::P<zarn::CVMDKDisk> createDisk(CToolContext& context, const std::string& path, int64_t sizeBytes,
                                  const CDiskOptions& options) {
  const kx::CURI uri = CToolContext::pathToURI(path);
  // The descriptor ends a file name at a double quote, and reads a name with
  // a backslash as a Windows path: such a disk would not open again.
  const std::string name = uri.getName().toUTF8();
  if (name.find_first_of("\"\\") != std::string::npos) {
    throw kx::CError("A VMDK file name can't hold a double quote or a backslash.", kx::String(), -1,
                     kx::CProps().add("name", name));
  }
  kx::String password;
  if (options.encrypted) {
    password = context.getPasswordFor(path, true);
    if (password.isEmpty()) {
      throw kx::CError("encrypted=on needs a password: give --password-file, set ZARN_PASSWORD or run on a terminal.");
    }
  }
  uint32_t parentContentID = 0xFFFFFFFF;
  if (!options.backingFile.empty()) {
    const kx::CURI parentURI = zarn::vmdkFileReferenceToURI(uri.getParent(), kx::String::fromUTF8(options.backingFile));
    kx::P<zarn::CVMDKDisk> parent = context.openDiskChecked(parentURI, kx::IIOStream::ACCESS_READ, options.backingFile);
    parentContentID = parent->getDescriptor()->getContentID();
    if (sizeBytes < 0) sizeBytes = parent->getSizeBytes();
  }
  return zarn::CVMDKDisk::create(context.getFileSystem(), uri, sizeBytes, password, options.isCompressed(),
                                 options.compressionLevel, options.getFileSizeLimit(),
                                 kx::String::fromUTF8(options.backingFile), parentContentID, options.onDemand);
}

int runCreate(CToolContext& context, const Args& args) {
  const CArguments arguments("create", withCommonOptions({{'o', "options", true, true}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img create [-o OPTIONS] [--password-file F] [--confine DIR] FILE [SIZE]\n"
        "\n"
        "Makes a new, empty VMDK disk FILE of SIZE bytes (suffixes K, M, G, T are\n"
        "powers of 1024; at least 8M, rounded up to 64K). With backing-file=PATH the\n"
        "disk is a differencing disk over PATH, and SIZE defaults to its size.\n"
        "\n"
        "  -o OPTIONS            comma-separated KEY=VALUE (see -o help)\n"
        "%s\n%s",
        kCommonHelp, getDiskOptionsHelp());
    return 0;
  }
  if (isDiskOptionsHelp(arguments.get("options"))) {
    std::printf("%s", getDiskOptionsHelp());
    return 0;
  }
  CDiskOptions options;
  parseDiskOptions("create", arguments.get("options"), options);
  arguments.expectPositional(options.backingFile.empty() ? 2 : 1, 2, "FILE and SIZE");
  const std::string& path = arguments.positional()[0];
  const int64_t sizeBytes = arguments.positional().size() > 1 ? parseSize("create", "SIZE", arguments.positional()[1]) : -1;
  applyCommonOptions(context, arguments, options.confine);
  kx::P<zarn::CVMDKDisk> disk = createDisk(context, path, sizeBytes, options);
  std::printf("Formatting '%s', fmt=vmdk size=%lld subformat=%s%s%s%s\n", path.c_str(),
              static_cast<long long>(disk->getSizeBytes()), options.subformat.c_str(),
              options.backingFile.empty() ? "" : " backing_file=", options.backingFile.c_str(),
              options.encrypted ? " encrypted=on" : "");
  return 0;
}

}  // namespace zarn_img
