#include <algorithm>
#include <cstdio>
#include <set>

#include "commands.h"
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
  std::string name;
  int64_t sizeBytes;  // -1: not made yet (an on-demand extent)
};

}  // namespace

int runInfo(CToolContext& context, const Args& args) {
  const CArguments arguments("info", withCommonOptions({{0, "output", true, false}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img info [--output=human|json] [--password-file F] [--confine DIR] FILE\n"
        "\n"
        "Shows the layout of the disk FILE: create type, size, grain size,\n"
        "compression, encryption, content IDs, parent, extent files and how\n"
        "their bytes are used. A disk that the other commands refuse (a broken\n"
        "parent chain, an extent file that doesn't open) is refused here too,\n"
        "with exit status 1 and the reason.\n"
        "\n%s",
        kCommonHelp);
    return 0;
  }
  const bool json = parseOutputFormat(arguments);
  arguments.expectPositional(1, 1, "FILE");
  const std::string& path = arguments.positional()[0];
  applyCommonOptions(context, arguments);
  kx::P<zarn::CVMDKDisk> disk = context.openDiskChecked(path, kx::IIOStream::ACCESS_READ);
  const kx::P<zarn::CVMDKDescriptor> descriptor = disk->getDescriptor();
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
  const kx::CURI folder = disk->getMainFileURI().getParent();
  const kx::CURI mainURI = disk->getMainFileURI().toNormalized();
  for (const auto& extent : extents) {
    const kx::CURI uri = zarn::vmdkFileReferenceToURI(folder, extent->getFilename()).toNormalized();
    const int64_t size = context.getFileSize(uri);
    files.push_back({extent->getFilename().toUTF8(), size});
    if (size > 0 && counted.insert(uri).second) actualSize += size;
  }
  if (counted.insert(mainURI).second) actualSize += std::max<int64_t>(0, context.getFileSize(mainURI));
  const kx::P<zarn::CVMDKSpaceInfo> space = disk->gatherSpaceInfo();

  if (json) {
    CJsonWriter out;
    out.beginObject();
    out.addString("filename", path);
    out.addString("format", "vmdk");
    out.addString("create-type", createType);
    out.addNumber("virtual-size", disk->getSizeBytes());
    out.addNumber("actual-size", actualSize);
    out.addNumber("grain-size", disk->getGrainSizeBytes());
    out.addBool("compressed", disk->getCompressed());
    out.addBool("encrypted", encrypted);
    out.addString("cid", hex32(descriptor->getContentID()));
    out.addString("parent-cid", hex32(parentContentID));
    if (hasBacking) {
      out.addString("backing-filename", backing.toUTF8());
      out.addString("full-backing-filename", CToolContext::uriToPath(disk->getParentDiskMainURI()));
    } else {
      out.addNull("backing-filename");
    }
    out.beginArray("extents");
    for (const CExtentFile& file : files) {
      out.beginObject();
      out.addString("filename", file.name);
      out.addNumber("size", std::max<int64_t>(0, file.sizeBytes));
      out.addBool("present", file.sizeBytes >= 0);
      out.endObject();
    }
    out.endArray();
    out.beginObject("space");
    out.addNumber("payloadSize", space->getPayloadSize());
    out.addNumber("payloadSizeInFile", space->getPayloadSizeInFile());
    out.addNumber("headerSize", space->getHeaderSize());
    out.addNumber("deadSpaceSize", space->getDeadSpaceSize());
    out.endObject();
    out.endObject();
    std::fputs(out.getText().c_str(), stdout);
    return 0;
  }
  std::printf("image: %s\n", path.c_str());
  std::printf("file format: vmdk\n");
  std::printf("virtual size: %s (%lld bytes)\n", formatSize(disk->getSizeBytes()).c_str(),
              static_cast<long long>(disk->getSizeBytes()));
  std::printf("disk size: %s\n", formatSize(actualSize).c_str());
  std::printf("create type: %s\n", createType.c_str());
  std::printf("grain size: %lld\n", static_cast<long long>(disk->getGrainSizeBytes()));
  std::printf("compressed: %s\n", disk->getCompressed() ? "yes" : "no");
  std::printf("encrypted: %s\n", encrypted ? "yes" : "no");
  std::printf("cid: %s\n", hex32(descriptor->getContentID()).c_str());
  std::printf("parent cid: %s\n", hex32(parentContentID).c_str());
  if (hasBacking) {
    std::printf("backing file: %s (actual path: %s)\n", backing.toUTF8().c_str(),
                CToolContext::uriToPath(disk->getParentDiskMainURI()).c_str());
  }
  std::printf("extents:\n");
  for (const CExtentFile& file : files) {
    if (file.sizeBytes < 0) {
      std::printf("    %s: not made yet\n", file.name.c_str());
    } else {
      std::printf("    %s: %lld bytes\n", file.name.c_str(), static_cast<long long>(file.sizeBytes));
    }
  }
  std::printf("space:\n");
  std::printf("    payload: %lld bytes\n", static_cast<long long>(space->getPayloadSize()));
  std::printf("    payload in file: %lld bytes\n", static_cast<long long>(space->getPayloadSizeInFile()));
  std::printf("    header: %lld bytes\n", static_cast<long long>(space->getHeaderSize()));
  std::printf("    dead space: %lld bytes\n", static_cast<long long>(space->getDeadSpaceSize()));
  return 0;
}

}  // namespace zarn_img
