// zarn-img beside independent VMDK tools: what it makes, qemu-img reads byte
// for byte and finds clean and vmdkinfo parses; what qemu-img makes, zarn-img
// reads, writes into (also as a copy, also where its descriptor file must
// grow), and qemu-img reads back as written; compare, map and info --output=json
// say what qemu-img says of the same disks.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <algorithm>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr size_t kMiB = 1 << 20;
const std::string kQemuImg = "/usr/bin/qemu-img";
const std::string kVmdkInfo = "/usr/bin/vmdkinfo";
const std::string kQemuIo = "/usr/bin/qemu-io";

// The members of every object in `json` whose value is a number, true or
// false, in order of appearance, as "key=value" lines: what two tools' JSON
// share can be compared without a parser, whatever the layout.
std::vector<std::string> scalarMembers(const std::string& json, const std::vector<std::string>& keys) {
  std::vector<std::string> found;
  size_t at = 0;
  while ((at = json.find('"', at)) != std::string::npos) {
    const size_t end = json.find('"', at + 1);
    if (end == std::string::npos) break;
    const std::string key = json.substr(at + 1, end - at - 1);
    size_t value = end + 1;
    if (json.compare(value, 1, ":") != 0) {
      at = end + 1;
      continue;
    }
    ++value;
    while (value < json.size() && json[value] == ' ') ++value;
    size_t stop = value;
    while (stop < json.size() && json[stop] != ',' && json[stop] != '}' && json[stop] != '\n') ++stop;
    if (std::find(keys.begin(), keys.end(), key) != keys.end()) found.push_back(key + "=" + json.substr(value, stop - value));
    at = value;
  }
  return found;
}

class ZarnImgInteropTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef ZARN_IMG_PATH
    GTEST_SKIP() << "zarn-img is not built";
#endif
    if (!test::hasPeerTool(kQemuImg.c_str())) GTEST_SKIP() << "qemu-img not installed (qemu-utils)";
    if (!test::hasPeerTool(kVmdkInfo.c_str())) GTEST_SKIP() << "vmdkinfo not installed (libvmdk-utils)";
    // 34 MiB: zeros, noise and text, in runs that cross grain borders and the
    // border of the first grain table (32 MiB).
    model_.assign(34 * kMiB, 0);
    const Bytes noise = test::noiseGrain(3 * kMiB + 4321, 17);
    const Bytes text = test::textGrain(kMiB, 4);
    std::copy(noise.begin(), noise.end(), model_.begin() + kMiB + 99);
    std::copy(text.begin(), text.end(), model_.begin() + 32 * kMiB - 300000);
    test::writeFileBytes(*fs_, dir_.getFileURI("model.raw"), model_);
  }
  // Runs a command in the temp folder and expects `status`; gives the output.
  std::string run(const std::string& command, int status = 0) {
    std::string output;
    EXPECT_EQ(test::runPeerTool("cd " + test::shellQuote(dir_.getPath()) + " && " + command, output), status)
        << command << "\n" << output;
    return output;
  }
  std::string zarnImg(const std::string& arguments, int status = 0) {
#ifdef ZARN_IMG_PATH
    return run(std::string(ZARN_IMG_PATH) + " " + arguments, status);
#else
    return std::string();
#endif
  }
  Bytes readRaw(const std::string& name) { return test::readFileBytes(*fs_, dir_.getFileURI(name)); }
  // What qemu-img reads from the disk, after a clean check.
  Bytes qemuRead(const std::string& disk) {
    EXPECT_NE(run(kQemuImg + " check " + disk).find("No errors were found"), std::string::npos) << disk;
    run(kQemuImg + " convert -O raw " + disk + " qemu.raw");
    return readRaw("qemu.raw");
  }
  Bytes zarnRead(const std::string& disk) {
    zarnImg("convert -O raw " + disk + " zarn.raw");
    return readRaw("zarn.raw");
  }
  // Writes noise at an odd offset with zarn-img write, into the model too.
  void zarnWrite(const std::string& disk, size_t offset, size_t size, Bytes& model) {
    const Bytes data = test::noiseGrain(size, offset);
    test::writeFileBytes(*fs_, dir_.getFileURI("patch.bin"), data);
    zarnImg("write --offset " + std::to_string(offset) + " " + disk + " patch.bin");
    std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
  Bytes model_;
};

TEST_F(ZarnImgInteropTest, DisksMadeByZarnImgReadByQemuImgAndVmdkinfo) {
  const struct {
    const char* name;
    const char* options;
    const char* vmdkinfoType;
  } layouts[] = {
      {"plain.vmdk", "-o subformat=monolithicSparse", "Monolithic sparse"},
      {"split.vmdk", "-o subformat=twoGbMaxExtentSparse,split-size=4M", "2GB extent sparse"},
      {"stream.vmdk", "-o subformat=streamOptimized -j 2", "Stream optimized"},
  };
  for (const auto& l : layouts) {
    SCOPED_TRACE(l.name);
    zarnImg(std::string("convert -O vmdk ") + l.options + " model.raw " + l.name);
    EXPECT_TRUE(qemuRead(l.name) == model_);
    const std::string info = run(kVmdkInfo + " " + l.name);
    EXPECT_NE(info.find(l.vmdkinfoType), std::string::npos) << info;
    EXPECT_NE(info.find("(35651584 bytes)"), std::string::npos) << info;
  }
  // A differencing child over a zarn parent, written at odd places.
  zarnImg("create -o backing-file=plain.vmdk child.vmdk");
  Bytes expected = model_;
  zarnWrite("child.vmdk", 12345, 200000, expected);
  zarnWrite("child.vmdk", 32 * kMiB - 2500, 5000, expected);
  EXPECT_TRUE(qemuRead("child.vmdk") == expected);
  EXPECT_NE(run(kVmdkInfo + " child.vmdk").find("Parent content identifier"), std::string::npos);
}

TEST_F(ZarnImgInteropTest, DisksMadeByQemuImgReadAndWrittenByZarnImg) {
  for (const char* subformat : {"monolithicSparse", "twoGbMaxExtentSparse"}) {
    SCOPED_TRACE(subformat);
    run(kQemuImg + " convert -f raw -O vmdk -o subformat=" + subformat + " model.raw q.vmdk");
    EXPECT_TRUE(zarnRead("q.vmdk") == model_);
    Bytes expected = model_;
    zarnWrite("q.vmdk", 3, 70000, expected);
    zarnWrite("q.vmdk", 8 * kMiB - 100, 300000, expected);
    EXPECT_TRUE(qemuRead("q.vmdk") == expected);
    EXPECT_TRUE(zarnRead("q.vmdk") == expected);
  }
  // A qemu-img child over a qemu-img base: zarn-img reads through the chain,
  // writes partial grains that keep the base's bytes around them.
  run(kQemuImg + " convert -f raw -O vmdk model.raw base.vmdk");
  run(kQemuImg + " create -f vmdk -b base.vmdk -F vmdk child.vmdk");
  EXPECT_TRUE(zarnRead("child.vmdk") == model_);
  Bytes expected = model_;
  zarnWrite("child.vmdk", kMiB + 7, 1000, expected);
  zarnWrite("child.vmdk", 32 * kMiB - 3, 65536, expected);
  EXPECT_TRUE(qemuRead("child.vmdk") == expected);
  EXPECT_TRUE(zarnRead("child.vmdk") == expected);
  EXPECT_NE(zarnImg("map child.vmdk").find("0x100000        0x10000         0      child.vmdk"), std::string::npos);
}

// Disks of qemu-img that the library's own opening refuses come in as
// sources: info says why they are foreign, map and check read them, convert
// gets every byte out (unpacking on threads), and writing into one, or over it
// as a parent, says to convert it first.
TEST_F(ZarnImgInteropTest, QemuImgDisksTheLibraryRefusesComeInReadOnly) {
  const struct {
    const char* options;
    const char* reason;
  } kinds[] = {
      {"-o subformat=streamOptimized", "published stream-optimized layout"},
      {"-o subformat=monolithicFlat", "flat extents"},
      {"-o subformat=twoGbMaxExtentFlat", "flat extents"},
  };
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.options);
    run(kQemuImg + " convert -f raw -O vmdk " + kind.options + " model.raw q.vmdk");
    EXPECT_NE(zarnImg("info q.vmdk").find(std::string("foreign, read-only: ") + kind.reason), std::string::npos);
    EXPECT_NE(zarnImg("map q.vmdk").find("0      q.vmdk"), std::string::npos);
    EXPECT_NE(zarnImg("check q.vmdk").find("No errors were found"), std::string::npos);
    run(kQemuImg + " convert -O raw q.vmdk qemu.raw");
    for (const char* threads : {"-j 1", "-j 2"}) {
      zarnImg(std::string("convert ") + threads + " -O raw q.vmdk zarn.raw");
      EXPECT_TRUE(readRaw("zarn.raw") == readRaw("qemu.raw")) << threads;
    }
    zarnImg("convert q.vmdk copy.vmdk");
    EXPECT_TRUE(zarnRead("copy.vmdk") == readRaw("qemu.raw"));
    for (const std::string& refused : {std::string("write q.vmdk model.raw"), std::string("convert -n model.raw q.vmdk"),
                                       std::string("create -o backing-file=q.vmdk child.vmdk")}) {
      EXPECT_NE(zarnImg(refused, 1).find("q.vmdk is a disk of another tool"), std::string::npos) << refused;
    }
    EXPECT_TRUE(zarnRead("q.vmdk") == readRaw("qemu.raw"));
    for (const auto& entry : std::filesystem::directory_iterator(dir_.getPath())) {
      if (entry.path().filename().string().rfind("q", 0) == 0) std::filesystem::remove(entry.path());
    }
  }
}

// A copy of a qemu-img disk is the copy: zarn-img reads it, writes into it,
// and qemu-img reads it back as written, while the original stays as it was.
// The same for a renamed qemu-img child over its parent.
TEST_F(ZarnImgInteropTest, ACopyOfAQemuImgDiskIsReadAndWrittenAsTheCopy) {
  run(kQemuImg + " convert -f raw -O vmdk model.raw q.vmdk");
  std::filesystem::copy_file(dir_.getPath() + "/q.vmdk", dir_.getPath() + "/copy.vmdk");
  EXPECT_TRUE(zarnRead("copy.vmdk") == model_);
  Bytes expected = model_;
  zarnWrite("copy.vmdk", 12345, 100000, expected);
  EXPECT_TRUE(qemuRead("copy.vmdk") == expected);
  EXPECT_TRUE(qemuRead("q.vmdk") == model_);
  EXPECT_NE(run(kVmdkInfo + " copy.vmdk").find("(35651584 bytes)"), std::string::npos);

  run(kQemuImg + " create -f vmdk -b q.vmdk -F vmdk child.vmdk");
  std::filesystem::rename(dir_.getPath() + "/child.vmdk", dir_.getPath() + "/renamed.vmdk");
  EXPECT_TRUE(zarnRead("renamed.vmdk") == model_);
  expected = model_;
  zarnWrite("renamed.vmdk", 3 * kMiB - 7, 20, expected);
  EXPECT_TRUE(qemuRead("renamed.vmdk") == expected);
  EXPECT_FALSE(std::filesystem::exists(dir_.getPath() + "/child.vmdk"));
}

// qemu-img's split disk has a descriptor file with no room for a longer
// line: it grows when zarn-img writes, and qemu-img and qemu-io read what was
// written.
TEST_F(ZarnImgInteropTest, WritesIntoAQemuImgSplitDiskGrowItsDescriptorFile) {
  if (!test::hasPeerTool(kQemuIo.c_str())) GTEST_SKIP() << "qemu-io not installed (qemu-utils)";
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=twoGbMaxExtentSparse model.raw q.vmdk");
  // The text, without the zeros that pad qemu-img's file.
  const auto text = [this]() {
    const Bytes file = readRaw("q.vmdk");
    return std::string(file.begin(), std::find(file.begin(), file.end(), 0));
  };
  const std::string before = text();
  test::writeFileBytes(*fs_, dir_.getFileURI("pattern.bin"), Bytes(70000, 0x5a));
  zarnImg("write --offset 5000 q.vmdk pattern.bin");
  const std::string after = text();
  EXPECT_GT(after.size(), before.size()) << after;
  EXPECT_NE(after.find("encoding=\"UTF-8\""), std::string::npos) << after;
  const size_t cid = before.find("\nCID=");
  ASSERT_NE(cid, std::string::npos) << before;
  EXPECT_EQ(after.find(before.substr(cid, before.find('\n', cid + 1) - cid + 1)), std::string::npos) << after;
  Bytes expected = model_;
  std::fill(expected.begin() + 5000, expected.begin() + 75000, 0x5a);
  EXPECT_TRUE(qemuRead("q.vmdk") == expected);
  const std::string io = run(kQemuIo + " -r -c 'read -P 0x5a 5000 70000' q.vmdk");
  EXPECT_NE(io.find("read 70000/70000 bytes at offset 5000"), std::string::npos) << io;
  EXPECT_EQ(io.find("Pattern verification failed"), std::string::npos) << io;
}

// compare says what qemu-img compare says, on the same pairs, with the same
// exit status: the same, a difference in one sector, a size mismatch with a
// zero tail and with data in the tail, disks of both tools over each other.
TEST_F(ZarnImgInteropTest, CompareAgreesWithQemuImgCompare) {
  zarnImg("convert model.raw z.vmdk");
  run(kQemuImg + " convert -f raw -O vmdk model.raw q.vmdk");
  Bytes other = model_;
  other[20 * kMiB + 777] ^= 1;
  test::writeFileBytes(*fs_, dir_.getFileURI("other.raw"), other);
  Bytes longer = model_;
  longer.resize(model_.size() + kMiB, 0);
  test::writeFileBytes(*fs_, dir_.getFileURI("long.raw"), longer);
  longer[model_.size() + 4096 + 3] = 7;
  test::writeFileBytes(*fs_, dir_.getFileURI("tail.raw"), longer);
  run(kQemuImg + " create -f vmdk -b q.vmdk -F vmdk qchild.vmdk");
  run(kQemuIo + " -c 'write -P 0x11 1048576 512' qchild.vmdk");
  const char* pairs[] = {"model.raw z.vmdk",  "z.vmdk q.vmdk",     "z.vmdk other.raw", "other.raw q.vmdk",
                         "z.vmdk long.raw",   "tail.raw z.vmdk",   "q.vmdk tail.raw",  "qchild.vmdk z.vmdk",
                         "qchild.vmdk q.vmdk"};
  for (const char* pair : pairs) {
    SCOPED_TRACE(pair);
    std::string qemu, zarn;
    const int qemuStatus =
        test::runPeerTool("cd " + test::shellQuote(dir_.getPath()) + " && " + kQemuImg + " compare " + pair + " 2>/dev/null", qemu);
#ifdef ZARN_IMG_PATH
    const int zarnStatus = test::runPeerTool(
        "cd " + test::shellQuote(dir_.getPath()) + " && " + std::string(ZARN_IMG_PATH) + " compare " + pair, zarn);
#else
    const int zarnStatus = -1;
#endif
    EXPECT_EQ(zarnStatus, qemuStatus);
    EXPECT_EQ(zarn, qemu);
  }
}

// map --output=json gives qemu-img's runs for qemu-img's disks, offsets too;
// info --output=json gives the same values under the same names.
TEST_F(ZarnImgInteropTest, MapAndInfoSpeakQemuImgsJson) {
  run(kQemuImg + " convert -f raw -O vmdk model.raw q.vmdk");
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=twoGbMaxExtentSparse model.raw s.vmdk");
  run(kQemuImg + " create -f vmdk -b q.vmdk -F vmdk child.vmdk");
  run(kQemuIo + " -c 'write -P 0x22 2097152 131072' child.vmdk");
  const std::vector<std::string> mapKeys{"start", "length", "depth", "present", "zero", "data", "offset"};
  const std::vector<std::string> infoKeys{"virtual-size", "cluster-size", "cid", "parent-cid"};
  for (const char* disk : {"q.vmdk", "s.vmdk", "child.vmdk"}) {
    SCOPED_TRACE(disk);
    EXPECT_EQ(scalarMembers(zarnImg(std::string("map --output=json ") + disk), mapKeys),
              scalarMembers(run(kQemuImg + " map --output=json " + disk), mapKeys));
    const std::string zarn = zarnImg(std::string("info --output=json ") + disk);
    const std::string qemu = run(kQemuImg + " info --output=json " + disk);
    EXPECT_EQ(scalarMembers(zarn, infoKeys), scalarMembers(qemu, infoKeys)) << zarn << "\n" << qemu;
    for (const char* text : {"\"format\": \"vmdk\"", "\"create-type\": ", "\"type\": \"vmdk\""}) {
      EXPECT_NE(zarn.find(text), std::string::npos) << text << "\n" << zarn;
    }
  }
  const std::string child = zarnImg("info --output=json child.vmdk");
  EXPECT_NE(child.find("\"backing-filename\": \"q.vmdk\""), std::string::npos) << child;
  EXPECT_NE(child.find("\"backing-filename-format\": \"vmdk\""), std::string::npos) << child;
}

}  // namespace
