// zarn-img as a user meets it: every command, its refusals with their exit
// status, round trips through every layout against a byte model, writes at
// odd places into a differencing disk, and an interrupted convert.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/disk.h"

extern char** environ;

namespace {

using Bytes = std::vector<unsigned char>;
constexpr size_t kMiB = 1 << 20;

class ZarnImgTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef ZARN_IMG_PATH
    GTEST_SKIP() << "zarn-img is not built";
#endif
  }
  // Runs the tool in the temp folder, away from any terminal so that no
  // password prompt can wait; `env` goes before the command ("A=b "), and a
  // redirection in `arguments` wins over the empty stdin.
  int run(const std::string& arguments, std::string& output, const std::string& env = "") {
#ifdef ZARN_IMG_PATH
    return test::runPeerTool("cd " + test::shellQuote(dir_.getPath()) + " && " + env + "setsid -w " +
                                 ZARN_IMG_PATH + " </dev/null " + arguments,
                             output);
#else
    return -1;
#endif
  }
  void ok(const std::string& arguments, const std::string& env = "") {
    std::string output;
    ASSERT_EQ(run(arguments, output, env), 0) << arguments << "\n" << output;
  }
  std::string path(const std::string& name) const { return dir_.getPath() + "/" + name; }
  Bytes read(const std::string& name) { return test::readFileBytes(*fs_, dir_.getFileURI(name)); }
  void write(const std::string& name, const Bytes& bytes) { test::writeFileBytes(*fs_, dir_.getFileURI(name), bytes); }
  // What a disk reads, through zarn-img convert -O raw.
  Bytes content(const std::string& disk, const std::string& env = "") {
    ok("convert -O raw " + disk + " out.raw", env);
    return read("out.raw");
  }
  // 12 MiB: zeros, noise, text, zeros, a little noise at the end.
  static Bytes sample() {
    Bytes bytes(12 * kMiB, 0);
    const Bytes noise = test::noiseGrain(3 * kMiB, 7);
    const Bytes text = test::textGrain(2 * kMiB, 3);
    std::copy(noise.begin(), noise.end(), bytes.begin() + kMiB);
    std::copy(text.begin(), text.end(), bytes.begin() + 4 * kMiB);
    std::copy(noise.begin(), noise.begin() + 70000, bytes.end() - 70000);
    return bytes;
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
};

TEST_F(ZarnImgTest, RefusalsAndTheirExitStatus) {
  write("src.raw", sample());
  ok("create base.vmdk 12M");
  ok("create -o encrypted=on enc.vmdk 8M", "ZARN_PASSWORD=right ");
  std::ofstream(path("pw")) << "right\n";
  std::filesystem::create_directory(path("jail"));
  ok("create -o backing-file=../base.vmdk jail/child.vmdk");
  const struct {
    const char* arguments;
    const char* env;
    int status;
    const char* output;
  } cases[] = {
      {"", "", 2, "missing command"},
      {"frobnicate x", "", 2, "unknown command 'frobnicate'"},
      {"--help", "", 0, "convert"},
      {"map --help", "", 0, "Usage: zarn-img map"},
      {"create -o help", "", 0, "subformat="},
      {"info missing.vmdk", "", 1, "No such file or directory"},
      {"info --output=xml base.vmdk", "", 2, "invalid output format 'xml'"},
      {"create d.vmdk 10Q", "", 2, "invalid SIZE '10Q'"},
      {"create d.vmdk 1.5G", "", 2, "invalid SIZE '1.5G'"},
      {"create d.vmdk 99999999999T", "", 2, "too large"},
      {"create d.vmdk", "", 2, "expecting FILE and SIZE"},
      {"create -o subformat=flat d.vmdk 8M", "", 2, "invalid subformat 'flat'"},
      {"create -o colour=red d.vmdk 8M", "", 2, "unknown option 'colour'"},
      {"create -o split-size=4M d.vmdk 8M", "", 2, "split-size needs"},
      {"create -o encrypted=on d.vmdk 8M", "", 1, "encrypted=on needs a password"},
      {"create 'a\"b.vmdk' 8M", "", 1, "can't hold a double quote"},
      {"convert -x src.raw d.vmdk", "", 2, "invalid option -- 'x'"},
      {"convert -j 0 src.raw d.vmdk", "", 2, "invalid thread count '0'"},
      {"convert -n -o subformat=streamOptimized src.raw base.vmdk", "", 2, "-n writes into an existing target"},
      {"convert src.raw src.raw", "", 1, "same file"},
      {"convert -n src.raw none.vmdk", "", 1, "No such file or directory"},
      {"info enc.vmdk", "", 1, "VMDK is encrypted but no password provided"},
      {"info enc.vmdk", "ZARN_PASSWORD=wrong ", 1, "Specified VMDK encryption password is not correct."},
      {"info --password-file pw enc.vmdk", "", 0, "encrypted: yes"},
      {"info --password-file nothere enc.vmdk", "", 1, "Cannot read the password file."},
      {"write --offset 12M base.vmdk src.raw", "", 1, "doesn't fit into the disk"},
      {"write --offset 1Z base.vmdk src.raw", "", 2, "invalid offset '1Z'"},
      {"rebase jail/child.vmdk", "", 2, "expecting -b PARENT_REFERENCE"},
      {"rebase -b base.vmdk base.vmdk", "", 1, "no parent"},
      {"rebase -b ../enc.vmdk jail/child.vmdk", "ZARN_PASSWORD=right ", 1, "content ID differs"},
      {"map --confine jail jail/child.vmdk", "", 1, "lies outside the allowed folder"},
      {"convert --confine jail jail/child.vmdk jail/out.raw", "", 1, "lies outside the allowed folder"},
      {"create -o confine=jail,backing-file=../base.vmdk jail/c2.vmdk", "", 1, "lies outside the allowed folder"},
      {"check missing.vmdk", "", 1, "No such file or directory"},
  };
  for (const auto& c : cases) {
    std::string output;
    EXPECT_EQ(run(c.arguments, output, c.env), c.status) << c.arguments << "\n" << output;
    EXPECT_NE(output.find(c.output), std::string::npos) << c.arguments << "\n" << output;
    if (c.status == 2) {
      EXPECT_NE(output.find("--help' for more information"), std::string::npos) << c.arguments;
    } else if (c.status == 1) {
      EXPECT_EQ(output.rfind("zarn-img: ", 0), 0u) << c.arguments << "\n" << output;
    }
  }
}

TEST_F(ZarnImgTest, EveryLayoutRoundTripsByteForByte) {
  const Bytes model = sample();
  write("src.raw", model);
  const struct {
    const char* options;
    int files;
  } layouts[] = {
      {"-o subformat=monolithicSparse", 1},
      {"-o subformat=twoGbMaxExtentSparse,split-size=4M -p", 5},
      {"-o subformat=streamOptimized,compression-level=9 -j 3", 1},
      {"-o subformat=streamOptimized,split-size=16M -j 2", 2},
      {"-o encrypted=on", 1},
      {"-o subformat=twoGbMaxExtentSparse,split-size=4M,on-demand=on", 4},
  };
  for (const auto& l : layouts) {
    SCOPED_TRACE(l.options);
    for (const auto& entry : std::filesystem::directory_iterator(dir_.getPath())) {
      if (entry.path().extension() == ".vmdk") std::filesystem::remove(entry.path());
    }
    ok(std::string("convert -O vmdk ") + l.options + " src.raw d.vmdk", "ZARN_PASSWORD=pw ");
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.getPath())) files += entry.path().extension() == ".vmdk";
    EXPECT_EQ(files, l.files);
    EXPECT_TRUE(content("d.vmdk", "ZARN_PASSWORD=pw ") == model);
    // Into another disk, by prepared grains where the layouts agree, and out
    // again with unpacking on threads.
    ok(std::string("convert -O vmdk ") + l.options + " d.vmdk e.vmdk", "ZARN_PASSWORD=pw ");
    ok("convert -j 2 e.vmdk e.raw", "ZARN_PASSWORD=pw ");
    EXPECT_TRUE(read("e.raw") == model);
    std::string output;
    EXPECT_EQ(run("check e.vmdk", output, "ZARN_PASSWORD=pw "), 0) << output;
  }
  // Zero grains stay holes of a raw target and unallocated in a disk.
  std::string map;
  ok("convert src.raw p.vmdk");
  ASSERT_EQ(run("map --output=json p.vmdk", map), 0);
  EXPECT_NE(map.find("\"start\": 1048576,\n        \"length\": 5242880,\n        \"depth\": 0"), std::string::npos) << map;
}

TEST_F(ZarnImgTest, WritesAtOddPlacesKeepTheParentAroundThem) {
  Bytes model = sample();
  write("src.raw", model);
  ok("convert src.raw base.vmdk");
  ok("create -o backing-file=base.vmdk child.vmdk");
  const struct {
    size_t offset;
    size_t size;
    bool viaStdin;
  } writes[] = {{1, 10, false}, {65535, 2, true}, {3 * kMiB + 12345, 200000, false}, {12 * kMiB - 7, 7, true}, {0, 0, false}};
  for (const auto& w : writes) {
    const Bytes data = test::noiseGrain(w.size, w.offset);
    write("in.bin", data);
    ok("write --offset " + std::to_string(w.offset) + (w.viaStdin ? " child.vmdk - < in.bin" : " child.vmdk in.bin"));
    std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(w.offset));
  }
  EXPECT_TRUE(content("child.vmdk") == model);
  std::string map;
  ASSERT_EQ(run("map child.vmdk", map), 0);
  EXPECT_NE(map.find("0x0             0x20000         0      child.vmdk"), std::string::npos) << map;
  EXPECT_NE(map.find("0x100000        0x200000        1      "), std::string::npos) << map;
  // The parent moves; rebase follows it once the content ID is checked.
  std::filesystem::create_directory(path("old"));
  std::filesystem::rename(path("base.vmdk"), path("old/base.vmdk"));
  std::string output;
  EXPECT_EQ(run("convert child.vmdk out.raw", output), 1);
  ok("rebase -b old/base.vmdk child.vmdk");
  EXPECT_TRUE(content("child.vmdk") == model);
  ASSERT_EQ(run("info --output=json child.vmdk", output), 0);
  EXPECT_NE(output.find("\"backing-filename\": \"old/base.vmdk\""), std::string::npos) << output;
}

TEST_F(ZarnImgTest, ConvertIntoAnExistingTargetMakesItReadAsTheSource) {
  const Bytes model = sample();
  write("src.raw", model);
  ok("create t.vmdk 16M");
  write("junk.bin", test::noiseGrain(3 * kMiB, 99));
  ok("write --offset 100 t.vmdk junk.bin");  // over zeros and data of the source
  ok("convert -n -p src.raw t.vmdk");
  Bytes expected = model;
  expected.resize(16 * kMiB, 0);
  EXPECT_TRUE(content("t.vmdk") == expected);
  // The source's zero grains beyond the junk weren't written into the target.
  std::string map;
  ASSERT_EQ(run("map --output=json t.vmdk", map), 0);
  EXPECT_EQ(map.find("\"start\": 7340032"), std::string::npos) << map;
  // Over a parent, a new disk gets only the grains that differ from it.
  Bytes patched = model;
  patched[5 * kMiB + 3] ^= 1;
  write("patched.raw", patched);
  ok("convert src.raw base.vmdk");
  ok("convert -o backing-file=base.vmdk patched.raw child.vmdk");
  ASSERT_EQ(run("map --output=json child.vmdk", map), 0);
  EXPECT_NE(map.find("\"start\": 5242880,\n        \"length\": 65536,\n        \"depth\": 0"), std::string::npos) << map;
  EXPECT_TRUE(content("child.vmdk") == patched);
  // A raw target too, and a target too small is refused before any write.
  write("t.raw", Bytes(17 * kMiB, 0xee));
  ok("convert -n t.vmdk t.raw");
  expected.resize(17 * kMiB, 0xee);
  EXPECT_TRUE(read("t.raw") == expected);
  ok("create small.vmdk 8M");
  std::string output;
  EXPECT_EQ(run("convert -n src.raw small.vmdk", output), 1);
  EXPECT_NE(output.find("The target is smaller than the source."), std::string::npos) << output;
}

TEST_F(ZarnImgTest, InfoAndCheckTellWhatIsThere) {
  write("src.raw", sample());
  std::filesystem::create_directory(path("we\"ird\\"));
  const std::string name = "we\"ird\\/name.vmdk";
  ok("convert -o subformat=twoGbMaxExtentSparse,split-size=4M src.raw " + test::shellQuote(name));
  std::string json;
  ASSERT_EQ(run("info --output=json " + test::shellQuote(name), json), 0);
  for (const char* field :
       {"\"filename\": \"we\\\"ird\\\\/name.vmdk\"", "\"format\": \"vmdk\"", "\"create-type\": \"twoGbMaxExtentSparse\"",
        "\"virtual-size\": 12582912", "\"grain-size\": 65536", "\"compressed\": false", "\"encrypted\": false",
        "\"parent-cid\": \"ffffffff\"", "\"backing-filename\": null", "\"filename\": \"name-s00003.vmdk\"",
        "\"payloadSize\": 5373952", "\"headerSize\": ", "\"deadSpaceSize\": 0"}) {
    EXPECT_NE(json.find(field), std::string::npos) << field << "\n" << json;
  }
  // A damaged compressed grain: check lists it and exits with 2.
  ok("convert -o subformat=streamOptimized src.raw c.vmdk");
  std::string output;
  ASSERT_EQ(run("check c.vmdk", output), 0) << output;
  EXPECT_NE(output.find("No errors were found"), std::string::npos);
  Bytes file = read("c.vmdk");
  const uint64_t directory = test::le64(file, 56) * 512;
  const uint64_t table = test::le32(file, directory) * uint64_t(512);
  const uint64_t grain = test::le32(file, table + 16 * 4) * uint64_t(512);  // the grain at 1 MiB
  ASSERT_GT(grain, 0u);
  std::fill(file.begin() + static_cast<std::ptrdiff_t>(grain + 12), file.begin() + static_cast<std::ptrdiff_t>(grain + 40), 0xff);
  write("c.vmdk", file);
  EXPECT_EQ(run("check c.vmdk", output), 2) << output;
  EXPECT_NE(output.find("ERROR grain 16 (offset 0x100000): Damaged compressed data"), std::string::npos) << output;
  EXPECT_NE(output.find("1 damaged grains were found"), std::string::npos) << output;
}

TEST_F(ZarnImgTest, InterruptedConvertLeavesADiskThatOpens) {
#ifdef ZARN_IMG_PATH
  // 64 GiB of holes behind 1 MiB of data: far more than can pass before the signal.
  const Bytes head = test::noiseGrain(kMiB, 5);
  write("big.raw", head);
  std::filesystem::resize_file(path("big.raw"), uint64_t(64) << 30);
  const std::string tool = ZARN_IMG_PATH;
  const std::string source = path("big.raw");
  const std::string target = path("big.vmdk");
  char* argv[] = {const_cast<char*>(tool.c_str()), const_cast<char*>("convert"), const_cast<char*>(source.c_str()),
                  const_cast<char*>(target.c_str()), nullptr};
  pid_t pid;
  ASSERT_EQ(posix_spawn(&pid, tool.c_str(), nullptr, nullptr, argv, environ), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!std::filesystem::exists(target) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ::kill(pid, SIGINT);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 130);
  auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), dir_.getFileURI("big.vmdk"), kx::IIOStream::ACCESS_READ, "");
  Bytes back(kMiB);
  disk->read(back.data(), static_cast<int>(back.size()));
  // It stopped at a grain border: each grain is the source's, or not there yet.
  for (size_t at = 0; at < back.size(); at += 65536) {
    const bool copied = std::equal(back.begin() + at, back.begin() + at + 65536, head.begin() + at);
    const bool absent = std::all_of(back.begin() + at, back.begin() + at + 65536, [](unsigned char b) { return b == 0; });
    EXPECT_TRUE(copied || absent) << "grain at " << at;
  }
#endif
}

}  // namespace
