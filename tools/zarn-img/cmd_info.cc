#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "commands.h"
#include "foreign.h"
#include "json.h"
#include "kx/error.h"
#include "zarn/descriptor.h"
#include "zarn/extent_info.h"
#include "zarn/file_reference.h"
#include "zarn/space_info.h"

namespace zarn_img {

namespace {

std::string hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "%08x", value);
  return text;
}

struct CExtentFile {
  std::string name;       // as the extent line gives it
  std::string type;       // "SPARSE"
  int64_t sizeBytes;      // of the extent in the disk
  int64_t lengthBytes;    // of the file; -1: not made yet (an on-demand extent)
  int64_t allocatedBytes; // on the device
};

// The bytes that a local file takes on its device: holes take none.
int64_t getAllocatedBytes(const kx::CURI& uri, int64_t length) {
  struct stat info;
  if (::stat(CToolContext::uriToPath(uri).c_str(), &info) != 0) return length;
  return static_cast<int64_t>(info.st_blocks) * 512;
}

// What other VMDK tools make of an encrypted disk: its extents start with a
// magic that only zarn knows, so a tool that meets one as the main file takes
// the whole file for raw bytes, and one that meets it behind a descriptor
// file refuses it.
const char* describeForOtherTools(bool descriptorEmbedded) {
  return descriptorEmbedded ? "see raw bytes (encrypted); use zarn-img to read it"
                            : "refuse its extent files (encrypted); use zarn-img to read it";
}

void describeLevel(CToolContext& context, const CChainLevel& level, const CChainLevel* parent, CJsonWriter* out) {
  zarn::CVMDKDisk& disk = *level.disk;
  const kx::P<zarn::CVMDKDescriptor> descriptor = disk.getDescriptor();
  const std::string createType = descriptor->getCreateType().toUTF8();
  const bool encrypted = !descriptor->getKxEncryptionAlgorithm().isEmpty();
  const uint32_t parentContentID = descriptor->getParentContentID();
  kx::String backing;
  const bool hasBacking = parentContentID != 0xFFFFFFFF && descriptor->tryGetParentFileNameHint(backing);

  kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
  descriptor->getExtentEntries(extents);
  std::vector<CExtentFile> files;
  std::set<kx::CURI> counted;
  int64_t actualSize = 0;
  const kx::CURI folder = disk.getMainFileURI().getParent();
  const kx::CURI mainURI = disk.getMainFileURI().toNormalized();
  bool descriptorEmbedded = false;
  for (const auto& extent : extents) {
    const kx::CURI uri = zarn::vmdkFileReferenceToURI(folder, extent->getFilename()).toNormalized();
    const int64_t length = context.getFileSize(uri);
    const int64_t allocated = length < 0 ? 0 : getAllocatedBytes(uri, length);
    files.push_back({extent->getFilename().toUTF8(), extent->getType().toUTF8(),
                     extent->getSizeSectors() * 512, length, allocated});
    if (uri == mainURI) descriptorEmbedded = true;
    if (length >= 0 && counted.insert(uri).second) actualSize += allocated;
  }
  if (counted.insert(mainURI).second) {
    const int64_t length = context.getFileSize(mainURI);
    if (length >= 0) actualSize += getAllocatedBytes(mainURI, length);
  }
  const kx::P<zarn::CVMDKSpaceInfo> space = disk.gatherSpaceInfo();
  const std::string parentName = parent ? parent->name : std::string();

  if (out) {
    out->beginObject();
    out->addString("filename", level.name);
    out->addString("format", "vmdk");
    out->addNumber("virtual-size", disk.getSizeBytes());
    out->addNumber("actual-size", actualSize);
    out->addNumber("cluster-size", disk.getGrainSizeBytes());
    out->addBool("encrypted", encrypted);
    if (hasBacking) {
      out->addString("backing-filename", backing.toUTF8());
      if (parent) out->addString("full-backing-filename", parentName);
      out->addString("backing-filename-format", "vmdk");
    }
    out->beginObject("format-specific");
    out->addString("type", "vmdk");
    out->beginObject("data");
    out->addNumber("cid", descriptor->getContentID());
    out->addNumber("parent-cid", parentContentID);
    out->addString("create-type", createType);
    out->beginArray("extents");
    for (const CExtentFile& file : files) {
      out->beginObject();
      out->addString("filename", file.name);
      out->addString("format", file.type);
      out->addNumber("virtual-size", file.sizeBytes);
      out->addNumber("cluster-size", disk.getGrainSizeBytes());
      if (disk.getCompressed()) out->addBool("compressed", true);
      out->addBool("present", file.lengthBytes >= 0);
      if (file.lengthBytes >= 0) {
        out->addNumber("actual-size", file.allocatedBytes);
        out->addNumber("length", file.lengthBytes);
      }
      out->endObject();
    }
    out->endArray();
    out->endObject();
    out->endObject();
    out->beginObject("space-use");
    out->addNumber("payload", space->getPayloadSize());
    out->addNumber("payload-in-file", space->getPayloadSizeInFile());
    out->addNumber("header", space->getHeaderSize());
    out->addNumber("dead-space", space->getDeadSpaceSize());
    out->endObject();
    if (encrypted) out->addString("other-tools", describeForOtherTools(descriptorEmbedded));
    out->endObject();
    return;
  }
  std::printf("image: %s\n", level.name.c_str());
  std::printf("file format: vmdk\n");
  std::printf("virtual size: %s (%lld bytes)\n", formatSize(disk.getSizeBytes()).c_str(),
              static_cast<long long>(disk.getSizeBytes()));
  std::printf("disk size: %s\n", formatSize(actualSize).c_str());
  std::printf("create type: %s\n", createType.c_str());
  std::printf("grain size: %lld\n", static_cast<long long>(disk.getGrainSizeBytes()));
  std::printf("compressed: %s\n", disk.getCompressed() ? "yes" : "no");
  std::printf("encrypted: %s\n", encrypted ? "yes" : "no");
  if (encrypted) std::printf("other tools: %s\n", describeForOtherTools(descriptorEmbedded));
  std::printf("cid: %s\n", hex32(descriptor->getContentID()).c_str());
  std::printf("parent cid: %s\n", hex32(parentContentID).c_str());
  if (hasBacking) {
    if (parent) {
      std::printf("backing file: %s (actual path: %s)\n", backing.toUTF8().c_str(), parentName.c_str());
    } else {
      std::printf("backing file: %s\n", backing.toUTF8().c_str());
    }
  }
  std::printf("extents:\n");
  for (const CExtentFile& file : files) {
    if (file.lengthBytes < 0) {
      std::printf("    %s: not made yet\n", file.name.c_str());
    } else {
      std::printf("    %s: %lld bytes\n", file.name.c_str(), static_cast<long long>(file.lengthBytes));
    }
  }
  std::printf("space:\n");
  std::printf("    payload: %lld bytes\n", static_cast<long long>(space->getPayloadSize()));
  std::printf("    payload in file: %lld bytes\n", static_cast<long long>(space->getPayloadSizeInFile()));
  std::printf("    header: %lld bytes\n", static_cast<long long>(space->getHeaderSize()));
  std::printf("    dead space: %lld bytes\n", static_cast<long long>(space->getDeadSpaceSize()));
}

}  // namespace

int runInfo(CToolContext& context, const Args& args) {
  const CArguments arguments("info",
                             withReadingOptions({{0, "output", true, false}, {0, "backing-chain", false, false}}),
                             args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img info [-U] [--backing-chain] [--output=human|json] [--password-file F]\n"
        "                     [--confine DIR] FILE\n"
        "\n"
        "Shows the layout of the disk FILE: create type, size, grain size,\n"
        "compression, encryption, content IDs, parent, extent files and how\n"
        "their bytes are used. A disk that the other commands refuse (a broken\n"
        "parent chain, an extent file that doesn't open) is refused here too,\n"
        "with exit status 1 and the reason. The JSON form uses qemu-img's names\n"
        "where the meaning is the same.\n"
        "\n"
        "  --backing-chain       the same for every parent, FILE first\n"
        "%s%s",
        getForceShareHelp(), kCommonHelp);
    return 0;
  }
  const bool json = parseOutputFormat(arguments);
  arguments.expectPositional(1, 1, "FILE");
  const std::string& path = arguments.positional()[0];
  applyCommonOptions(context, arguments);
  std::vector<CChainLevel> chain;
  try {
    context.openDiskChecked(path, kx::IIOStream::ACCESS_READ, &chain);
  } catch (const kx::CError& error) {
    kx::P<zarn::CVMDKForeignDisk> foreign = openForeignAfter(context, path, error);
    if (!foreign) throw;
    return showForeignInfo(context, *foreign, path, json);
  }
  const size_t levels = arguments.has("backing-chain") ? chain.size() : 1;
  CJsonWriter out;
  if (json && levels > 1) out.beginArray();
  for (size_t i = 0; i < levels; ++i) {
    if (!json && i > 0) std::printf("\n");
    describeLevel(context, chain[i], i + 1 < chain.size() ? &chain[i + 1] : nullptr, json ? &out : nullptr);
  }
  if (json && levels > 1) out.endArray();
  if (json) std::fputs(out.getText().c_str(), stdout);
  return 0;
}

}  // namespace zarn_img
