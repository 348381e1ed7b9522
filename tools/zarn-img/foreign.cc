#include "foreign.h"

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

std::string nameOf(CToolContext& context, const kx::CURI& uri) { return context.getDisplayName(uri); }

}  // namespace

kx::P<zarn::CVMDKForeignDisk> openForeignAfter(CToolContext& context, const std::string& path,
                                               const kx::CError& refusal) {
  if (isRefusalOfTheUser(refusal)) return nullptr;
  const kx::CURI uri = CToolContext::pathToURI(path);
  if (!context.getFileSystem()->fileExists(uri)) return nullptr;
  try {
    auto disk = kx::create<zarn::CVMDKForeignDisk>(context.getFileSystemFor(kx::IIOStream::ACCESS_READ), uri);
    if (disk->getForeignReason().isEmpty()) return nullptr;
    return disk;
  } catch (const kx::CError&) {
    return nullptr;  // the library's own refusal says more
  }
}

void refuseWritingIfForeign(CToolContext& context, const kx::CURI& uri, const std::string& name) {
  kx::P<zarn::CVMDKForeignDisk> disk;
  try {
    disk = kx::create<zarn::CVMDKForeignDisk>(context.getFileSystemFor(kx::IIOStream::ACCESS_READ), uri);
  } catch (const kx::CError&) {
    return;
  }
  if (disk->getForeignReason().isEmpty()) return;
  throw kx::CIOError(kx::IOERR_NOT_SUPPORTED,
                     kx::String::fromUTF8(name + " is a disk of another tool (" + disk->getForeignReason().toUTF8() +
                                          "): zarn-img reads it but doesn't write into it; convert it first, e.g. "
                                          "zarn-img convert " + name + " copy.vmdk"));
}

std::string describeForeign(const zarn::CVMDKForeignDisk& disk) {
  return "foreign, read-only: " + disk.getForeignReason().toUTF8();
}

int showForeignInfo(CToolContext& context, zarn::CVMDKForeignDisk& disk, const std::string& path, bool json) {
  int64_t actualSize = 0;
  std::vector<std::pair<std::string, int64_t>> files;
  for (const kx::CURI& file : disk.getExtentFiles()) {
    const int64_t size = context.getFileSize(file);
    files.push_back({nameOf(context, file), size});
    actualSize += std::max<int64_t>(0, size);
  }
  const kx::CURI parent = disk.getParentDiskMainURI();
  if (json) {
    CJsonWriter out;
    out.beginObject();
    out.addString("filename", path);
    out.addString("format", "vmdk");
    out.addNumber("virtual-size", disk.getSizeBytes());
    out.addNumber("actual-size", actualSize);
    out.addNumber("cluster-size", disk.getGrainSizeBytes());
    if (!parent.isEmpty()) out.addString("backing-filename", nameOf(context, parent));
    out.beginObject("format-specific");
    out.addString("type", "vmdk");
    out.beginObject("data");
    out.addString("create-type", disk.getCreateType().toUTF8());
    out.beginArray("extents");
    for (const auto& file : files) {
      out.beginObject();
      out.addString("filename", file.first);
      out.addBool("compressed", disk.getCompressed());
      out.endObject();
    }
    out.endArray();
    out.endObject();
    out.endObject();
    out.beginObject("foreign");
    out.addBool("read-only", true);
    out.addString("reason", disk.getForeignReason().toUTF8());
    out.endObject();
    out.endObject();
    std::fputs(out.getText().c_str(), stdout);
    return 0;
  }
  std::printf("image: %s\nfile format: vmdk (%s)\nvirtual size: %lld bytes\ncreate type: %s\ngrain size: %lld\n"
              "compressed: %s\n",
              path.c_str(), describeForeign(disk).c_str(), static_cast<long long>(disk.getSizeBytes()),
              disk.getCreateType().toUTF8().c_str(), static_cast<long long>(disk.getGrainSizeBytes()),
              disk.getCompressed() ? "yes" : "no");
  if (!parent.isEmpty()) std::printf("parent: %s\n", nameOf(context, parent).c_str());
  std::printf("extents:\n");
  for (const auto& file : files) {
    std::printf("    %s: %lld bytes\n", file.first.c_str(), static_cast<long long>(file.second));
  }
  std::printf("zarn-img reads this disk but doesn't write into it: convert it to write.\n");
  return 0;
}

int showForeignMap(CToolContext& context, zarn::CVMDKForeignDisk& disk, const std::string& path, bool json) {
  std::vector<CMapRun> runs;
  const int64_t size = disk.getSizeBytes(), grain = disk.getGrainSizeBytes();
  std::vector<std::string> names;  // by depth, as they are met
  for (int64_t position = 0; position < size; position += grain) {
    checkInterrupted();
    disk.seek(position);
    const int depth = disk.getAllocationDepth();
    const int64_t length = std::min(grain, size - position);
    const int level = std::max(depth, 0);
    if (!runs.empty() && runs.back().depth == level && runs.back().data == (depth >= 0) &&
        runs.back().start + runs.back().length == position) {
      runs.back().length += length;
      continue;
    }
    while (names.size() <= static_cast<size_t>(level)) {
      const int at = static_cast<int>(names.size());
      names.push_back(at == 0 ? path : nameOf(context, disk.getChainDiskURI(at)));
    }
    const std::string& name = names[static_cast<size_t>(level)];
    runs.push_back({position, length, level, depth >= 0, -1, depth >= 0 ? name : std::string(), name});
  }
  return printMap(runs, json);
}

int checkForeign(CToolContext& context, zarn::CVMDKForeignDisk& disk, const std::string& path, bool json) {
  const int64_t size = disk.getSizeBytes(), grain = disk.getGrainSizeBytes();
  std::vector<unsigned char> buffer(static_cast<size_t>(grain));
  int64_t allocated = 0, damaged = 0;
  std::vector<std::string> errors;
  for (int64_t position = 0; position < size; position += grain) {
    checkInterrupted();
    try {
      disk.seek(position);
      if (disk.getAllocationDepth() != 0) continue;
      ++allocated;
      disk.seek(position);
      disk.read(buffer.data(), static_cast<int>(std::min(grain, size - position)));
    } catch (const std::exception& error) {
      if (damaged++ < 100) {
        errors.push_back("grain " + std::to_string(position / grain) + " (offset " + std::to_string(position) +
                         "): " + context.describe(error));
      }
    }
  }
  if (json) {
    CJsonWriter out;
    out.beginObject();
    out.addString("filename", path);
    out.addString("format", "vmdk");
    out.addBool("foreign", true);
    out.addNumber("check-errors", damaged);
    out.addNumber("allocated-clusters", allocated);
    out.addNumber("total-clusters", (size + grain - 1) / grain);
    out.endObject();
    std::fputs(out.getText().c_str(), stdout);
  } else {
    for (const std::string& error : errors) std::printf("ERROR %s\n", error.c_str());
    std::printf("%s (%s)\n", damaged == 0 ? "No errors were found on the image." : "The image is damaged.",
                describeForeign(disk).c_str());
    if (damaged > 0) std::printf("%lld damaged grain%s\n", static_cast<long long>(damaged), damaged == 1 ? "" : "s");
  }
  return damaged == 0 ? 0 : 2;
}

}  // namespace zarn_img
