// zarn-img as a user meets it: every command, its refusals with their exit
// status, the same verdict from every command on a damaged disk, round trips
// through every layout against a byte model, writes at odd places into a
// differencing disk, failed and interrupted runs.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/descriptor.h"
#include "zarn/disk.h"

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
  // Replaces the first `from` in the descriptor text of `name` (a descriptor
  // file, or an extent with the descriptor embedded) by `to`; the zeros
  // behind the text make room, and fill what the text gives up.
  void editDescriptor(const std::string& name, const std::string& from, const std::string& to) {
    Bytes file = read(name);
    const std::string bytes(file.begin(), file.end());
    const size_t start = bytes.find("# Disk DescriptorFile");
    ASSERT_NE(start, std::string::npos) << name;
    const size_t end = std::min(bytes.find('\0', start), bytes.size());
    std::string text = bytes.substr(start, end - start);
    const size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << name << ": " << from;
    text.replace(at, from.size(), to);
    const size_t room = std::max(text.size(), end - start);
    ASSERT_LE(start + room, file.size()) << name;
    text.resize(room, '\0');
    std::copy(text.begin(), text.end(), file.begin() + static_cast<std::ptrdiff_t>(start));
    write(name, file);
  }
  void patch(const std::string& name, size_t at, uint64_t value, int width) {
    Bytes file = read(name);
    test::putLE(file, at, value, width);
    write(name, file);
  }
  // The CID of a disk's descriptor, as the descriptor writes it.
  std::string contentID(const std::string& name) {
    auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), dir_.getFileURI(name), kx::IIOStream::ACCESS_READ, "");
    char text[16];
    std::snprintf(text, sizeof text, "%x", disk->getDescriptor()->getContentID());
    return text;
  }
  // Runs the tool with stdout and stderr apart; `env` entries are "NAME=value".
  test::CProcessEnd runApart(const std::vector<std::string>& arguments, const std::vector<std::string>& env = {}) {
#ifdef ZARN_IMG_PATH
    std::vector<std::string> argv{ZARN_IMG_PATH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return test::CChildProcess::run(argv, env, dir_.getPath());
#else
    return test::CProcessEnd();
#endif
  }
  // The names in the temp folder.
  std::vector<std::string> listFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.getPath())) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
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
      {"frobnicate x", "", 2, "unknown command 'frobnicate'; see zarn-img --help"},
      {"--help", "", 0, "convert"},
      {"map --help", "", 0, "Usage: zarn-img map"},
      {"create -o help", "", 0, "subformat="},
      {"info missing.vmdk", "", 1, "No such file or directory"},
      {"info --output=xml base.vmdk", "", 2, "invalid output format 'xml'"},
      {"create d.vmdk 10Q", "", 2, "invalid SIZE '10Q'"},
      {"create d.vmdk 1.5", "", 2, "invalid SIZE '1.5'"},
      {"create d.vmdk 2.5b", "", 2, "invalid SIZE '2.5b'"},
      {"create d.vmdk 8E", "", 2, "invalid SIZE '8E': too large"},
      {"create -f qcow2 d.vmdk 8M", "", 2, "unknown format 'qcow2'"},
      {"create -o backing_fmt=raw,backing_file=base.vmdk d.vmdk", "", 2, "invalid backing_fmt 'raw'"},
      {"create -b base.vmdk -F qcow2 d.vmdk", "", 2, "invalid backing format 'qcow2'"},
      {"create d.vmdk 3T", "", 1, "doesn't fit into one file, which holds at most 2 TiB (2199023255552 bytes): "
                                  "split it with -o subformat=twoGbMaxExtentSparse"},
      {"resize base.vmdk -1M", "", 2, "doesn't shrink disks"},
      {"resize base.vmdk 8M", "", 1, "doesn't shrink disks (qemu-img does with --shrink)"},
      {"resize base.vmdk 33M", "", 1, "base.vmdk can grow in place to at most 33554432 bytes (32 MiB)"},
      {"commit base.vmdk", "", 1, "base.vmdk has no parent"},
      {"measure", "", 2, "expecting FILE or --size SIZE"},
      {"measure --size 8M src.raw", "", 2, "unexpected argument 'src.raw'"},
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
      {"info enc.vmdk", "", 1,
       "VMDK is encrypted but no password provided for enc.vmdk: give --password-file FILE or set ZARN_PASSWORD"},
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
  };
  for (const auto& c : cases) {
    std::string output;
    EXPECT_EQ(run(c.arguments, output, c.env), c.status) << c.arguments << "\n" << output;
    EXPECT_NE(output.find(c.output), std::string::npos) << c.arguments << "\n" << output;
    if (c.status == 2) {
      EXPECT_NE(output.find("--help"), std::string::npos) << c.arguments;
    } else if (c.status == 1) {
      EXPECT_EQ(output.rfind("zarn-img: ", 0), 0u) << c.arguments << "\n" << output;
    }
  }
}

// Damaged and odd files: info, check, map and convert open them one way and
// agree on whether the disk can be used. A disk that opens but can't be read
// is damage to check (2); one that doesn't open at all is 1 everywhere.
TEST_F(ZarnImgTest, EveryCommandReachesTheSameVerdictOnADamagedDisk) {
  write("noise.bin", test::noiseGrain(kMiB, 21));
  ok("create base.vmdk 8M");
  ok("write base.vmdk noise.bin");
  const auto child = [this](const std::string& name, const std::string& parentReference) {
    ok("create -o backing-file=base.vmdk " + name);
    if (parentReference != "base.vmdk") {
      editDescriptor(name, "parentFileNameHint=\"base.vmdk\"", "parentFileNameHint=\"" + parentReference + "\"");
    }
  };
  const auto plain = [this](const std::string& name) {
    ok("create " + name + " 8M");
    ok("write " + name + " noise.bin");
  };
  const size_t kCapacity = 12, kDirectory = 56;  // header fields
  const struct {
    const char* file;
    std::function<void()> make;
    int info, check, map, convert;
    const char* reason;  // in the output of every command that fails
  } cases[] = {
      {"ok.vmdk", [&] { child("ok.vmdk", "base.vmdk"); }, 0, 0, 0, 0, ""},
      {"self.vmdk", [&] { child("self.vmdk", "self.vmdk"); }, 1, 2, 1, 1, "leads back to"},
      {"devnull.vmdk", [&] { child("devnull.vmdk", "/dev/null"); }, 1, 2, 1, 1, "not a regular file"},
      {"orphan.vmdk", [&] { child("orphan.vmdk", "gone.vmdk"); }, 1, 2, 1, 1,
       "Could not open backing file 'gone.vmdk' of orphan.vmdk: No such file or directory"},
      {"stale.vmdk",
       [&] {
         plain("moved.vmdk");
         ok("create -o backing-file=moved.vmdk stale.vmdk");
         ok("write --offset 5M moved.vmdk noise.bin");  // a new content ID
       },
       1, 2, 1, 1, "The parent of stale.vmdk has changed since stale.vmdk was made over it"},
      {"b.vmdk",
       [&] {
         plain("a.vmdk");
         ok("create -o backing-file=a.vmdk b.vmdk");
         editDescriptor("a.vmdk", "parentCID=ffffffff", "parentCID=" + contentID("b.vmdk") + "\nparentFileNameHint=\"b.vmdk\"");
       },
       1, 2, 1, 1, "leads back to"},
      {"badcid.vmdk", [&] { plain("badcid.vmdk"); editDescriptor("badcid.vmdk", "CID=", "CID=zz"); }, 1, 2, 1, 1,
       "The descriptor of badcid.vmdk is damaged"},
      {"badparentcid.vmdk",
       [&] {
         child("badparentcid.vmdk", "base.vmdk");
         editDescriptor("badparentcid.vmdk", "parentCID=", "parentCID=zz");
       },
       1, 1, 1, 1, "Invalid hex number: 'zz"},
      {"split.vmdk",
       [&] {
         write("split.raw", test::noiseGrain(12 * kMiB, 3));
         ok("convert -o subformat=twoGbMaxExtentSparse,split-size=4M split.raw split.vmdk");
         std::filesystem::remove(path("split-s00002.vmdk"));
       },
       1, 2, 1, 1, "The extent file split-s00002.vmdk of split.vmdk doesn't open"},
      {"cap0.vmdk", [&] { plain("cap0.vmdk"); patch("cap0.vmdk", kCapacity, 0, 8); }, 1, 2, 1, 1,
       "VMDK extent file is smaller than its extent line (capacity: 0 sectors"},
      {"loopdir.vmdk",
       [&] {
         plain("loopdir.vmdk");
         const uint64_t directory = test::le64(read("loopdir.vmdk"), kDirectory);
         patch("loopdir.vmdk", directory * 512, directory, 4);  // table 0 is the directory itself
       },
       1, 2, 1, 1, "of loopdir.vmdk doesn't open"},
      {"magic.vmdk", [&] { plain("magic.vmdk"); patch("magic.vmdk", 0, 0x58585858, 4); }, 1, 1, 1, 1, "magic.vmdk"},
      {"cut.vmdk", [&] { write("cut.vmdk", Bytes(4, 'K')); }, 1, 1, 1, 1, "cut.vmdk"},
      {"cutheader.vmdk", [&] { plain("cutheader.vmdk"); std::filesystem::resize_file(path("cutheader.vmdk"), 100); },
       1, 2, 1, 1, "VMDK file is too short for a sparse extent header"},
      {"empty.vmdk", [&] { write("empty.vmdk", Bytes()); }, 1, 1, 1, 1, "empty.vmdk"},
      {"descriptor.img",
       [&] {
         const std::string text = "# Disk DescriptorFile\nCID=1\nparentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n"
                                  "RW 16384 SPARSE \"nothere.vmdk\"\n";
         write("descriptor.img", Bytes(text.begin(), text.end()));
       },
       1, 1, 1, 1, "No such file or directory"},
      {"lines.bin",
       [&] {
         const std::string text = "# made by hand\r\n  createType = \"monolithicSparse\"\r\n";
         write("lines.bin", Bytes(text.begin(), text.end()));
       },
       1, 2, 1, 1, "VMDK disk has no extents"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    c.make();
    const std::string file = c.file;
    const struct {
      std::string arguments;
      int status;
    } commands[] = {{"info " + file, c.info}, {"check " + file, c.check}, {"map " + file, c.map},
                    {"convert " + file + " out.raw", c.convert}};
    for (const auto& command : commands) {
      std::string output;
      EXPECT_EQ(run(command.arguments, output), command.status) << command.arguments << "\n" << output;
      if (command.status == 0) continue;
      EXPECT_NE(output.find(c.reason), std::string::npos) << command.arguments << "\n" << output;
      if (command.status == 1) {
        // One line: the error, nothing the destructors met after it.
        EXPECT_EQ(output.rfind("zarn-img: ", 0), 0u) << command.arguments << "\n" << output;
        EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << command.arguments << "\n" << output;
      } else {
        EXPECT_NE(output.find("ERROR "), std::string::npos) << output;
      }
    }
    // A refused source leaves no target behind, and one that looks like a disk
    // isn't taken for raw bytes: the user gets the way to do that.
    EXPECT_EQ(std::filesystem::exists(path("out.raw")), c.convert == 0);
    std::filesystem::remove(path("out.raw"));
    if (c.convert == 1) {
      std::string output;
      run("convert " + file + " out.raw", output);
      EXPECT_NE(output.find("use -f raw to copy its bytes as they are"), std::string::npos) << output;
    }
  }
  // Raw bytes stay raw, and -f raw copies even a file that looks like a disk.
  write("noise.img", test::noiseGrain(100000, 5));
  ok("convert noise.img out.raw");
  EXPECT_TRUE(read("out.raw") == read("noise.img"));
  ok("convert -f raw cut.vmdk out.raw");
  EXPECT_TRUE(read("out.raw") == Bytes(4, 'K'));
}

// What check finds after the disk opened is damage: the space use walks the
// tables as a whole, after the grains, and its failure is no reason to say
// that the disk doesn't open.
TEST_F(ZarnImgTest, CheckReportsEveryFailureAfterOpeningAsDamage) {
  ok("create three.vmdk 80M");  // three grain tables
  write("noise.bin", test::noiseGrain(kMiB, 8));
  ok("write three.vmdk noise.bin");
  const uint64_t directory = test::le64(read("three.vmdk"), 56);
  patch("three.vmdk", directory * 512 + 4, 0x7fffffff, 4);  // table 1 lies far beyond the file's end
  std::string output;
  EXPECT_EQ(run("check three.vmdk", output), 2) << output;
  EXPECT_NE(output.find("ERROR grain 512 (offset 0x2000000): VMDK grain table lies beyond the end of the file."),
            std::string::npos)
      << output;
  EXPECT_NE(output.find("ERROR space use: VMDK grain table lies beyond the end of the file."), std::string::npos) << output;
  EXPECT_NE(output.find("... and 412 more damaged grains"), std::string::npos) << output;
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
      {"-o subformat=streamOptimized,encrypted=on -j 2", 1},
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
    ok("convert -j 16 e.vmdk f.raw", "ZARN_PASSWORD=pw ");
    EXPECT_TRUE(read("f.raw") == model);
    std::string output;
    EXPECT_EQ(run("check e.vmdk", output, "ZARN_PASSWORD=pw "), 0) << output;
  }
}

// Grains sealed together on the threads, the last one short of a grain and
// padded: every thread count reads back the source.
TEST_F(ZarnImgTest, EncryptedConvertOfASourceEndingMidGrain) {
  const Bytes model = test::noiseGrain(20 * 65536 + 4096, 11);
  write("odd.raw", model);
  for (const char* jobs : {"1", "2", "3"}) {
    SCOPED_TRACE(jobs);
    std::filesystem::remove(path("d.vmdk"));
    ok(std::string("convert -O vmdk -o encrypted=on -j ") + jobs + " odd.raw d.vmdk", "ZARN_PASSWORD=pw ");
    // The disk is whole grains, at least 8 MiB: zeros behind the source.
    const Bytes back = content("d.vmdk", "ZARN_PASSWORD=pw ");
    ASSERT_GE(back.size(), model.size());
    EXPECT_TRUE(std::equal(model.begin(), model.end(), back.begin()));
    EXPECT_TRUE(std::all_of(back.begin() + model.size(), back.end(), [](unsigned char b) { return b == 0; }));
  }
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
  // The parent moves; rebase follows it once the content ID is checked.
  std::filesystem::create_directory(path("old"));
  std::filesystem::rename(path("base.vmdk"), path("old/base.vmdk"));
  ok("rebase -b old/base.vmdk child.vmdk");
  EXPECT_TRUE(content("child.vmdk") == model);
  std::string output;
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

TEST_F(ZarnImgTest, InfoNamesEveryExtentAndNoFieldWithoutAValue) {
  write("src.raw", sample());
  std::filesystem::create_directory(path("we\"ird\\"));
  const std::string name = "we\"ird\\/name.vmdk";
  ok("convert -o subformat=twoGbMaxExtentSparse,split-size=4M src.raw " + test::shellQuote(name));
  std::string json;
  ASSERT_EQ(run("info --output=json " + test::shellQuote(name), json), 0);
  // qemu-img's names where the meaning is the same, numbers as numbers; no
  // null: a disk without parent has no backing fields at all.
  for (const char* field :
       {"\"filename\": \"we\\\"ird\\\\/name.vmdk\"", "\"virtual-size\": 12582912", "\"encrypted\": false",
        "\"create-type\": \"twoGbMaxExtentSparse\"", "\"filename\": \"name-s00003.vmdk\"", "\"format\": \"SPARSE\"",
        "\"virtual-size\": 4063232", "\"payload\": 5373952", "\"dead-space\": 0"}) {
    EXPECT_NE(json.find(field), std::string::npos) << field << "\n" << json;
  }
  for (const char* absent : {"null", "backing", "\"compressed\"", "other-tools"}) {
    EXPECT_EQ(json.find(absent), std::string::npos) << absent << "\n" << json;
  }
}

// The objects of a JSON array as zarn-img writes it (one member a line), each
// as its members' texts by name: enough for map's runs.
std::vector<std::map<std::string, std::string>> parseObjects(const std::string& json) {
  std::vector<std::map<std::string, std::string>> objects;
  std::istringstream lines(json);
  for (std::string line; std::getline(lines, line);) {
    const size_t open = line.find('{');
    if (open != std::string::npos) {
      objects.emplace_back();
      continue;
    }
    const size_t colon = line.find("\": ");
    const size_t quote = line.find('"');
    if (objects.empty() || colon == std::string::npos || quote == std::string::npos) continue;
    std::string value = line.substr(colon + 3);
    if (!value.empty() && value.back() == ',') value.pop_back();
    objects.back()[line.substr(quote + 1, colon - quote - 1)] = value;
  }
  return objects;
}

// Whether each grain of `disk` reads as the same grain of `before` or of
// `after`; `what` names the first grain that reads as neither.
bool eachGrainIsOldOrNew(const Bytes& disk, const Bytes& before, const Bytes& after, std::string& what) {
  for (size_t at = 0; at < disk.size(); at += 65536) {
    const size_t length = std::min<size_t>(65536, disk.size() - at);
    const auto grain = disk.begin() + static_cast<std::ptrdiff_t>(at);
    if (!std::equal(grain, grain + static_cast<std::ptrdiff_t>(length), before.begin() + static_cast<std::ptrdiff_t>(at)) &&
        !std::equal(grain, grain + static_cast<std::ptrdiff_t>(length), after.begin() + static_cast<std::ptrdiff_t>(at))) {
      what = "grain at " + std::to_string(at);
      return false;
    }
  }
  return true;
}

#ifdef ZARN_WRITE_FAULT_SHIM
// A full or failing disk: one line says what failed, the disks' destructors
// that fail after it only with ZARN_IMG_DEBUG=1, and a new target is removed
// with every file it had, whichever write failed.
TEST_F(ZarnImgTest, FailedWritesEndInOneLineAndRemoveANewTarget) {
  write("src.raw", sample());
  const std::string shim = std::string("LD_PRELOAD=") + ZARN_WRITE_FAULT_SHIM;
  const std::string asan = "ASAN_OPTIONS=verify_asan_link_order=0";
  ok("create t.vmdk 16M");
  for (const char* debug : {"ZARN_IMG_DEBUG=0", "ZARN_IMG_DEBUG=1"}) {
    const test::CProcessEnd end = runApart({"write", "--offset", "1000", "t.vmdk", "src.raw"},
                                           {shim, asan, "ZARN_FAULT_AT=2", "ZARN_FAULT_MODE=enospc", debug});
    EXPECT_EQ(end.exitStatus, 1) << end.err;
    std::vector<std::string> lines = end.errLines();
    const size_t debugLines =
        std::count_if(lines.begin(), lines.end(), [](const std::string& l) { return l.rfind("zarn-img: debug: ", 0) == 0; });
    EXPECT_EQ(lines.size() - debugLines, 1u) << end.err;
    if (std::string(debug) == "ZARN_IMG_DEBUG=0") {
      EXPECT_EQ(debugLines, 0u) << end.err;
    }
    EXPECT_EQ(lines.back().rfind("zarn-img: Writing to the file failed (No space left on device): t.vmdk (", 0), 0u)
        << end.err;
  }
  const std::vector<std::string> before = listFiles();
  const struct {
    const char* options;
    const char* target;
  } layouts[] = {{"-O vmdk", "d.vmdk"},
                 {"-O vmdk -o subformat=twoGbMaxExtentSparse,split-size=4M", "d.vmdk"},
                 {"-O vmdk -o subformat=streamOptimized,split-size=8M -j 2", "d.vmdk"},
                 {"-O raw", "d.raw"}};
  for (const auto& layout : layouts) {
    SCOPED_TRACE(layout.options);
    std::vector<std::string> arguments{"convert"};
    std::istringstream words(layout.options);
    for (std::string word; words >> word;) arguments.push_back(word);
    arguments.push_back("src.raw");
    arguments.push_back(layout.target);
    const std::string countFile = path("writes");
    ASSERT_EQ(runApart(arguments, {shim, asan, "ZARN_FAULT_COUNT_FILE=" + countFile}).exitStatus, 0);
    long writes = 0;
    std::ifstream(countFile) >> writes;
    std::filesystem::remove(countFile);
    ASSERT_GT(writes, 1);
    for (const std::string& name : listFiles()) {
      if (std::find(before.begin(), before.end(), name) == before.end()) std::filesystem::remove(path(name));
    }
    for (const char* mode : {"enospc", "eio"}) {
      for (long at = 1; at <= writes; at += std::max(1L, writes / 6)) {
        const test::CProcessEnd end =
            runApart(arguments, {shim, asan, "ZARN_FAULT_AT=" + std::to_string(at), std::string("ZARN_FAULT_MODE=") + mode});
        const std::string where = std::string(mode) + " at write " + std::to_string(at) + " of " + std::to_string(writes);
        EXPECT_EQ(end.exitStatus, 1) << where << "\n" << end.err;
        ASSERT_EQ(end.errLines().size(), 1u) << where << "\n" << end.err;
        const std::string line = end.errLines()[0];
        if (std::string(mode) == "enospc") {
          EXPECT_EQ(line.rfind("zarn-img: No space left on the device after writing ", 0), 0u) << where << "\n" << line;
          const long long bytes = std::atoll(line.c_str() + std::strlen("zarn-img: No space left on the device after writing "));
          EXPECT_TRUE(bytes >= 0 && bytes <= static_cast<long long>(12 * kMiB) && bytes % 65536 == 0) << line;
          EXPECT_NE(line.find(" bytes of the target; the target was removed. (file: d"), std::string::npos) << line;
        } else {
          EXPECT_NE(line.find("(Input/output error)"), std::string::npos) << where << "\n" << line;
          EXPECT_NE(line.find("; the target was removed"), std::string::npos) << where << "\n" << line;
        }
        EXPECT_EQ(listFiles(), before) << where;
      }
    }
  }
  // An existing target stays; what it holds then, the crash tests judge.
  ok("create e.vmdk 16M");
  const test::CProcessEnd end =
      runApart({"convert", "-n", "src.raw", "e.vmdk"}, {shim, asan, "ZARN_FAULT_AT=3", "ZARN_FAULT_MODE=enospc"});
  EXPECT_NE(end.err.find("bytes of the target; the grains written before stay, each whole."), std::string::npos) << end.err;
}
#endif

// Ctrl-C: a new target goes with everything it had; an existing one stays,
// each grain as it was or as the source has it, and opens.
TEST_F(ZarnImgTest, InterruptedConvertRemovesANewTargetAndKeepsAnExistingOne) {
#if defined(ZARN_IMG_PATH) && defined(ZARN_WRITE_FAULT_SHIM)
  // 16 MiB of data behind which lie 64 GiB of holes, onto a disk that takes
  // 5 ms a write: far more than can pass before the signal.
  const Bytes head = test::noiseGrain(16 * kMiB, 5);
  write("big.raw", head);
  std::filesystem::resize_file(path("big.raw"), uint64_t(64) << 30);
  const std::vector<std::string> before = listFiles();
  const std::vector<std::string> slow = {std::string("LD_PRELOAD=") + ZARN_WRITE_FAULT_SHIM,
                                         "ASAN_OPTIONS=verify_asan_link_order=0", "ZARN_WRITE_DELAY_US=5000"};
  {
    test::CChildProcess convert({ZARN_IMG_PATH, "convert", "big.raw", "big.vmdk"}, slow, dir_.getPath());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!std::filesystem::exists(path("big.vmdk")) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    convert.sendSignal(SIGINT);
    const test::CProcessEnd end = convert.wait();
    EXPECT_EQ(end.exitStatus, 130) << end.err;
    EXPECT_EQ(end.err, "zarn-img: interrupted; the unfinished target was removed\n");
    EXPECT_EQ(listFiles(), before);
  }
  ok("create -o subformat=twoGbMaxExtentSparse big.vmdk 64G");
  test::CChildProcess convert({ZARN_IMG_PATH, "convert", "-n", "big.raw", "big.vmdk"}, slow, dir_.getPath());
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  convert.sendSignal(SIGTERM);
  const test::CProcessEnd end = convert.wait();
  EXPECT_EQ(end.exitStatus, 143) << end.err;
  EXPECT_EQ(end.err, "zarn-img: interrupted; what was written so far is flushed\n");
  auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), dir_.getFileURI("big.vmdk"), kx::IIOStream::ACCESS_READ, "");
  Bytes back(kMiB);
  disk->read(back.data(), static_cast<int>(back.size()));
  std::string what;
  EXPECT_TRUE(eachGrainIsOldOrNew(back, Bytes(kMiB, 0), head, what)) << what;
#endif
}

// Ctrl-C while write waits for its input: the grains that were whole are in,
// the piece of the next one that came is not.
TEST_F(ZarnImgTest, InterruptedWriteStopsAtAGrainBorder) {
#ifdef ZARN_IMG_PATH
  ok("create d.vmdk 8M");
  int pipeEnds[2];
  ASSERT_EQ(::pipe(pipeEnds), 0);
  test::CChildProcess writer({ZARN_IMG_PATH, "write", "--offset", "1000", "d.vmdk", "-"}, {}, dir_.getPath(),
                             pipeEnds[0]);
  ::close(pipeEnds[0]);
  const Bytes data = test::noiseGrain(65536 - 1000 + 30000, 9);
  ASSERT_EQ(::write(pipeEnds[1], data.data(), data.size()), static_cast<ssize_t>(data.size()));
  // Until the tool waits in read(0, ...) for the rest of the second grain.
  const std::string syscall = "/proc/" + std::to_string(writer.getPid()) + "/syscall";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (std::string text; std::chrono::steady_clock::now() < deadline;) {
    std::ifstream(syscall) >> text;
    if (text == "0") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  writer.sendSignal(SIGINT);
  const test::CProcessEnd end = writer.wait();
  ::close(pipeEnds[1]);
  EXPECT_EQ(end.exitStatus, 130) << end.err;
  Bytes expected(8 * kMiB, 0);
  std::copy(data.begin(), data.begin() + (65536 - 1000), expected.begin() + 1000);
  EXPECT_TRUE(content("d.vmdk") == expected);
#endif
}

TEST_F(ZarnImgTest, SizesReadAsQemuImgReadsThemAndRoundWithANote) {
  const struct {
    const char* size;
    long long bytes;
    bool note;
  } cases[] = {
      {"12.5M", 13107200, false}, {"0.5G", 536870912, false}, {"12582912b", 12582912, false},
      {"12.3M", 12910592, true},  // 12897485 bytes, up to whole grains
      {"1000", 8388608, true},    // below the least size
      {"8m", 8388608, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    const test::CProcessEnd end = runApart({"create", "d.vmdk", c.size});
    ASSERT_EQ(end.exitStatus, 0) << end.err;
    EXPECT_NE(end.out.find("size=" + std::to_string(c.bytes) + " "), std::string::npos) << end.out;
    EXPECT_EQ(end.err.find("zarn-img: note: the disk gets " + std::to_string(c.bytes) + " bytes, not ") == 0, c.note)
        << end.err;
    EXPECT_EQ(runApart({"create", "-q", "d.vmdk", c.size}).out, "");
  }
  // P and E, through the size of a raw image, which takes any size.
  for (const auto& c : {std::make_pair("1P", 1125899906842624LL), std::make_pair("1.5E", 1729382256910270464LL)}) {
    const test::CProcessEnd end = runApart({"measure", "-O", "raw", "--size", c.first});
    EXPECT_EQ(end.out, "required size: " + std::to_string(c.second) + "\nfully allocated size: " +
                           std::to_string(c.second) + "\n");
  }
}

// create, convert into a new disk and the -b of qemu-img's habit: the child of
// an encrypted disk is encrypted with the run's password unless encrypted=off
// says otherwise, which a warning follows. A partial write copies a grain of
// the parent into the child: in clear only where the user asked for that.
TEST_F(ZarnImgTest, AChildOfAnEncryptedDiskIsEncryptedUnlessToldOtherwise) {
  std::ofstream(path("pw")) << "right\n";
  const std::string marker = "PLAINTEXT-OF-THE-PARENT ";
  std::string text;
  while (text.size() < 3 * 65536) text += marker;
  write("text.raw", Bytes(text.begin(), text.end()));
  ok("convert -O vmdk -o encrypted=on --password-file pw text.raw enc.vmdk");
  write("patch.bin", Bytes(100, 'x'));
  const struct {
    std::string command;
    bool encrypted;
  } cases[] = {
      {"create --password-file pw -o backing-file=enc.vmdk c.vmdk", true},
      {"create --password-file pw -f vmdk -b enc.vmdk -F vmdk c.vmdk", true},
      {"create --password-file pw -o backing_file=enc.vmdk,backing_fmt=vmdk,encrypted=off c.vmdk", false},
      {"convert --password-file pw -O vmdk -o backing-file=enc.vmdk enc.vmdk c.vmdk", true},
      {"convert --password-file pw -O vmdk -o backing-file=enc.vmdk,encrypted=off enc.vmdk c.vmdk", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    std::filesystem::remove(path("c.vmdk"));
    std::string output;
    ASSERT_EQ(run(c.command, output), 0) << output;
    EXPECT_EQ(output.find("zarn-img: warning: enc.vmdk is encrypted but its new child c.vmdk is not (encrypted=off)") !=
                  std::string::npos,
              !c.encrypted)
        << output;
    ok("write --password-file pw --offset 65636 c.vmdk patch.bin");
    const Bytes file = read("c.vmdk");
    EXPECT_EQ(std::string(file.begin(), file.end()).find(marker) == std::string::npos, c.encrypted);
    ASSERT_EQ(run("info --output=json --password-file pw c.vmdk", output), 0) << output;
    EXPECT_NE(output.find(std::string("\"encrypted\": ") + (c.encrypted ? "true" : "false")), std::string::npos);
    Bytes expected(text.begin(), text.end());
    expected.resize(8 * kMiB, 0);
    std::fill(expected.begin() + 65636, expected.begin() + 65736, 'x');
    EXPECT_TRUE(content("c.vmdk", "ZARN_PASSWORD=right ") == expected);
  }
  // A clear child reads through its encrypted parent: the password is the
  // parent's to ask for, and without a terminal the error says where it comes from.
  std::string output;
  EXPECT_EQ(run("convert c.vmdk out.raw", output), 1);
  EXPECT_NE(output.find("no password provided for enc.vmdk: give --password-file FILE or set ZARN_PASSWORD"),
            std::string::npos)
      << output;
}

// Re-made with fewer parts, a split disk takes the parts it no longer has
// with it; files that only look like parts stay.
TEST_F(ZarnImgTest, ASplitDiskMadeAnewLeavesNoOldPartBehind) {
  ok("create -o subformat=twoGbMaxExtentSparse,split-size=4M d.vmdk 20M");
  const std::vector<std::string> five = listFiles();
  ASSERT_EQ(std::count_if(five.begin(), five.end(), [](const std::string& n) { return n.rfind("d-s", 0) == 0; }), 6);
  write("d-s00099.vmdk", Bytes(10, 1));  // named like a part, but no part of the disk
  ok("create -o subformat=twoGbMaxExtentSparse,split-size=4M d.vmdk 8M");
  EXPECT_EQ(listFiles(), (std::vector<std::string>{"d-s00000.vmdk", "d-s00001.vmdk", "d-s00002.vmdk",
                                                   "d-s00099.vmdk", "d.vmdk"}));
  // And a single file in place of a split disk: none of the parts stays.
  ok("create d.vmdk 8M");
  EXPECT_EQ(listFiles(), (std::vector<std::string>{"d-s00099.vmdk", "d.vmdk"}));
}

// compare's options and its errors; its verdicts on pairs of disks and raw
// images are held against qemu-img compare's in the interoperability tests.
TEST_F(ZarnImgTest, CompareTakesFormatsAndQuietAndGives2ForAnError) {
  const Bytes model = sample();
  write("a.raw", model);
  ok("convert a.raw a.vmdk");
  Bytes changed = model;
  changed[5 * kMiB + 1234] ^= 0x40;
  write("b.raw", changed);
  const struct {
    const char* arguments;
    int status;
    const char* out;
  } cases[] = {
      {"-f raw -F raw a.raw b.raw", 1, "Content mismatch at offset 5243904!\n"},
      {"-q a.vmdk b.raw", 1, ""},
      {"a.vmdk none.raw", 2, ""},
      {"-F vmdk a.vmdk b.raw", 2, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    std::vector<std::string> arguments{"compare"};
    std::istringstream words(c.arguments);
    for (std::string word; words >> word;) arguments.push_back(word);
    const test::CProcessEnd end = runApart(arguments);
    EXPECT_EQ(end.exitStatus, c.status) << end.err;
    EXPECT_EQ(end.out, c.out);
    EXPECT_EQ(end.err.empty(), c.status != 2) << end.err;
  }
}

// measure against the files themselves: an empty disk's files in every
// layout, a converted disk byte for byte where grains keep their size, an
// upper bound (and said so) where they are compressed or a descriptor file
// shrinks after it was made.
TEST_F(ZarnImgTest, MeasureGivesTheBytesOfTheFilesAConversionMakes) {
  write("disk.raw", sample());
  const auto bytesOfDisk = [this]() {
    int64_t bytes = 0;
    for (const std::string& name : listFiles()) {
      if (name.rfind("disk", 0) == 0 && name.size() > 5 && name.compare(name.size() - 5, 5, ".vmdk") == 0) {
        bytes += static_cast<int64_t>(std::filesystem::file_size(path(name)));
      }
    }
    return bytes;
  };
  const auto measure = [this](const std::string& arguments, int64_t& required, int64_t& full, bool& bound) {
    std::string output;
    ASSERT_EQ(run("measure --output=json " + arguments, output, "ZARN_PASSWORD=pw "), 0) << output;
    const auto objects = parseObjects(output);
    ASSERT_EQ(objects.size(), 1u) << output;
    required = std::stoll(objects[0].at("required"));
    full = std::stoll(objects[0].at("fully-allocated"));
    bound = objects[0].count("upper-bound") != 0;
  };
  const struct {
    const char* options;
    bool compressed;
    bool descriptorFile;
  } layouts[] = {
      {"-o subformat=monolithicSparse", false, false},
      {"-o subformat=twoGbMaxExtentSparse,split-size=3M", false, true},
      {"-o subformat=twoGbMaxExtentSparse,encrypted=on", false, true},
      {"-o subformat=streamOptimized", true, false},
      {"-o subformat=streamOptimized,split-size=5M", true, false},
  };
  for (const auto& l : layouts) {
    SCOPED_TRACE(l.options);
    for (const std::string& name : listFiles()) {
      if (name != "disk.raw") std::filesystem::remove(path(name));
    }
    int64_t required = 0, full = 0;
    bool bound = false;
    measure(std::string(l.options) + " --size 40M", required, full, bound);
    ok(std::string("create ") + l.options + " disk.vmdk 40M", "ZARN_PASSWORD=pw ");
    EXPECT_EQ(required, bytesOfDisk());
    EXPECT_EQ(bound, l.compressed);
    EXPECT_EQ(full - required, (l.compressed ? 129 : 128) * 512 * 640LL);  // every grain, at its most
    // Made anew over the empty one, which takes its parts with it.
    measure(std::string(l.options) + " disk.raw", required, full, bound);
    ok(std::string("convert -O vmdk ") + l.options + " disk.raw disk.vmdk", "ZARN_PASSWORD=pw ");
    EXPECT_EQ(bound, l.compressed || l.descriptorFile);
    if (l.compressed) {
      EXPECT_LE(bytesOfDisk(), required);
      EXPECT_GT(bytesOfDisk(), required / 2);
    } else if (l.descriptorFile) {
      // The reserve of a descriptor file, 32 KiB and a little.
      EXPECT_LE(bytesOfDisk(), required);
      EXPECT_GT(bytesOfDisk(), required - 34000);
    } else {
      EXPECT_EQ(bytesOfDisk(), required);
    }
    // A disk as the source: the grains it holds are what a conversion writes.
    int64_t fromDisk = 0;
    measure(std::string(l.options) + " -f vmdk disk.vmdk", fromDisk, full, bound);
    EXPECT_EQ(fromDisk, required);
  }
}

// The child's grains go into the parent; the child, and a child of the
// child, read as before, a sibling is refused (its parent changed), and
// check finds every disk clean. Grains move in stored form where the two
// store them alike, else unpacked.
TEST_F(ZarnImgTest, CommitWritesTheChildsGrainsIntoItsParent) {
  const Bytes model = sample();
  write("src.raw", model);
  for (const char* childOptions : {"", "-o subformat=streamOptimized "}) {
    SCOPED_TRACE(childOptions);
    for (const std::string& name : listFiles()) {
      if (name != "src.raw") std::filesystem::remove(path(name));
    }
    ok("convert src.raw base.vmdk");
    // A child of the same layout, or a compressed one, written at odd places.
    ok(std::string("convert -O vmdk ") + childOptions + "-o backing-file=base.vmdk src.raw child.vmdk");
    Bytes expected = model;
    for (const auto& w : {std::make_pair<size_t, size_t>(3, 70000), std::make_pair<size_t, size_t>(9 * kMiB - 5, 10)}) {
      const Bytes data = test::noiseGrain(w.second, w.first);
      write("in.bin", data);
      ok("write --offset " + std::to_string(w.first) + " child.vmdk in.bin");
      std::copy(data.begin(), data.end(), expected.begin() + static_cast<std::ptrdiff_t>(w.first));
    }
    ok("create -o backing-file=child.vmdk grandchild.vmdk");
    ok("create -o backing-file=base.vmdk sibling.vmdk");
    const std::string childID = contentID("child.vmdk");
    std::string output;
    ASSERT_EQ(run("commit child.vmdk", output), 0) << output;
    EXPECT_EQ(output, "Image committed.\n");
    EXPECT_TRUE(content("base.vmdk") == expected);
    EXPECT_TRUE(content("child.vmdk") == expected);
    EXPECT_TRUE(content("grandchild.vmdk") == expected);
    EXPECT_EQ(contentID("child.vmdk"), childID);
    for (const char* disk : {"base.vmdk", "child.vmdk", "grandchild.vmdk"}) {
      EXPECT_EQ(run(std::string("check ") + disk, output), 0) << disk << "\n" << output;
    }
    EXPECT_EQ(run("info sibling.vmdk", output), 1);
    EXPECT_NE(output.find("The parent of sibling.vmdk has changed since sibling.vmdk was made over it"),
              std::string::npos)
        << output;
  }
}

// resize in every layout: up to the room of the last extent's tables (and
// the size of a split disk's first part), the content kept, the new bytes
// zeros, what every command relies on intact.
TEST_F(ZarnImgTest, ResizeGrowsWhereTheTablesHaveRoomAndRefusesBeyond) {
  const Bytes model = sample();
  write("src.raw", model);
  const struct {
    const char* options;
    const char* grow;     // within the room
    int64_t grownBytes;
    const char* beyond;   // refused
    const char* limit;
  } layouts[] = {
      {"-o subformat=monolithicSparse", "+19M", 32505856, "33M", "at most 33554432 bytes"},
      {"-o subformat=streamOptimized", "32M", 33554432, "+64K", "at most 33554432 bytes"},
      {"-o subformat=twoGbMaxExtentSparse,split-size=4M", "13M", 13631488, "+4M",
       "its last extent file would grow larger than the first"},
  };
  for (const auto& l : layouts) {
    SCOPED_TRACE(l.options);
    for (const std::string& name : listFiles()) {
      if (name != "src.raw") std::filesystem::remove(path(name));
    }
    ok(std::string("convert -O vmdk ") + l.options + " src.raw d.vmdk");
    ok("create -o backing-file=d.vmdk child.vmdk");
    std::string output;
    ASSERT_EQ(run(std::string("resize d.vmdk ") + l.grow, output), 0) << output;
    EXPECT_EQ(output, "Image resized.\n");
    Bytes expected = model;
    expected.resize(static_cast<size_t>(l.grownBytes), 0);
    EXPECT_TRUE(content("d.vmdk") == expected);
    EXPECT_EQ(run("check d.vmdk", output), 0) << output;
    EXPECT_TRUE(content("child.vmdk") == model);
    EXPECT_EQ(run(std::string("resize d.vmdk ") + l.beyond, output), 1) << output;
    EXPECT_NE(output.find(l.limit), std::string::npos) << output;
    EXPECT_TRUE(content("d.vmdk") == expected);
  }
}

// map's JSON lists every run, allocated or not, with qemu-img's fields, and
// an offset where the bytes stand in a file as they read.
TEST_F(ZarnImgTest, MapListsEveryRunWithQemuImgsFields) {
  const Bytes model = sample();
  write("src.raw", model);
  ok("convert -o subformat=twoGbMaxExtentSparse,split-size=4M src.raw base.vmdk");
  ok("create -o backing-file=base.vmdk child.vmdk");
  write("in.bin", test::noiseGrain(1000, 1));
  ok("write --offset 4200000 child.vmdk in.bin");
  ok("convert -o subformat=streamOptimized src.raw packed.vmdk");
  const Bytes expected = content("child.vmdk");
  for (const char* disk : {"child.vmdk", "packed.vmdk"}) {
    SCOPED_TRACE(disk);
    std::string json;
    ASSERT_EQ(run(std::string("map --output=json ") + disk, json), 0);
    int64_t next = 0;
    size_t withOffset = 0;
    for (const auto& run : parseObjects(json)) {
      const int64_t start = std::stoll(run.at("start")), length = std::stoll(run.at("length"));
      EXPECT_EQ(start, next) << json;
      next = start + length;
      const bool data = run.at("data") == "true";
      EXPECT_EQ(run.at("present"), data ? "true" : "false");
      EXPECT_EQ(run.at("zero"), data ? "false" : "true");
      // Unallocated runs lie at the bottom of the chain, as qemu-img puts them.
      if (!data) {
        EXPECT_EQ(run.at("depth"), std::string(disk) == "child.vmdk" ? "1" : "0");
        EXPECT_TRUE(std::all_of(expected.begin() + start, expected.begin() + start + length,
                                [](unsigned char c) { return c == 0; }));
      }
      if (run.count("offset") == 0) continue;
      ++withOffset;
      // The bytes at the offset in the file named are what the disk reads.
      const Bytes file = read(run.at("filename").substr(1, run.at("filename").size() - 2));
      const int64_t offset = std::stoll(run.at("offset"));
      ASSERT_LE(offset + length, static_cast<int64_t>(file.size()));
      EXPECT_TRUE(std::equal(file.begin() + offset, file.begin() + offset + length, expected.begin() + start));
    }
    EXPECT_EQ(next, 12 * static_cast<int64_t>(kMiB));
    // Compressed grains have no offset to give.
    EXPECT_EQ(withOffset > 0, std::string(disk) == "child.vmdk");
  }
}

TEST_F(ZarnImgTest, InfoFollowsTheChainAndCheckSpeaksJson) {
  ok("create base.vmdk 8M");
  ok("create -o backing-file=base.vmdk child.vmdk");
  std::string json;
  ASSERT_EQ(run("info --backing-chain --output=json child.vmdk", json), 0);
  const auto levels = parseObjects(json);
  std::vector<std::string> names;
  for (const auto& level : levels) {
    if (level.count("format") && level.at("format") == "\"vmdk\"" && level.count("virtual-size")) {
      names.push_back(level.at("filename"));
    }
  }
  EXPECT_EQ(names, (std::vector<std::string>{"\"child.vmdk\"", "\"base.vmdk\""})) << json;
  EXPECT_NE(json.find("\"backing-filename\": \"base.vmdk\",\n        \"full-backing-filename\": \"base.vmdk\""),
            std::string::npos)
      << json;
  std::string human;
  ASSERT_EQ(run("info --backing-chain child.vmdk", human), 0);
  EXPECT_NE(human.find("image: child.vmdk\n"), std::string::npos);
  EXPECT_NE(human.find("\n\nimage: base.vmdk\n"), std::string::npos) << human;
  ASSERT_EQ(run("check --output=json child.vmdk", json), 0) << json;
  const auto report = parseObjects(json);
  ASSERT_FALSE(report.empty());
  EXPECT_EQ(report[0].at("corruptions"), "0");
  EXPECT_EQ(report[0].at("total-clusters"), "128");
  std::filesystem::remove(path("base.vmdk"));
  EXPECT_EQ(run("check --output=json child.vmdk", json), 2);
  EXPECT_NE(json.find("\"corruptions\": 1,\n    \"damage\": \"Could not open backing file 'base.vmdk' of child.vmdk"),
            std::string::npos)
      << json;
  EXPECT_EQ(run("check -q child.vmdk", human), 2);
  EXPECT_EQ(human, "");
  // An encrypted disk says what other tools make of it.
  ok("create -o encrypted=on enc.vmdk 8M", "ZARN_PASSWORD=pw ");
  ASSERT_EQ(run("info enc.vmdk", human, "ZARN_PASSWORD=pw "), 0);
  EXPECT_NE(human.find("other tools: see raw bytes (encrypted); use zarn-img to read it\n"), std::string::npos) << human;
}

// -U reads a disk that a writer holds; without it the refusal points at -U.
TEST_F(ZarnImgTest, ForceShareReadsADiskThatAWriterHolds) {
  ok("create d.vmdk 8M");
  // This process is the writer: its exclusive lock refuses a reader.
  auto writer = kx::create<zarn::CVMDKDisk>(fs_.get(), dir_.getFileURI("d.vmdk"), kx::IIOStream::ACCESS_READ_WRITE, "");
  std::string output;
  EXPECT_EQ(run("info d.vmdk", output), 1);
  EXPECT_NE(output.find("zarn-img: d.vmdk is in use by another process, which holds its lock file; -U reads it anyway"),
            std::string::npos)
      << output;
  for (const char* command : {"info -U d.vmdk", "map -U d.vmdk", "check -U d.vmdk", "convert -U d.vmdk out.raw",
                              "compare -U d.vmdk d.vmdk", "measure -U d.vmdk"}) {
    const test::CProcessEnd end = runApart([&] {
      std::vector<std::string> words;
      std::istringstream in(command);
      for (std::string word; in >> word;) words.push_back(word);
      return words;
    }());
    EXPECT_EQ(end.exitStatus, 0) << command << "\n" << end.err;
    EXPECT_EQ(end.err, "zarn-img: warning: -U: disks are read without their lock; what another process writes "
                       "meanwhile may read half old, half new\n")
        << command;
  }
  // A write is no read: -U isn't there for it.
  EXPECT_EQ(run("write -U d.vmdk out.raw", output), 2);
}

// Messages name files as the user typed them: no file:// and no name twice;
// a refusal of --confine names the disk, not its lock file; a raw file is no
// VMDK disk; a damaged grain of convert has its place on the disk; every
// command finds a moved parent beside its child and names it so.
TEST_F(ZarnImgTest, MessagesNameFilesAsTheUserTypedThem) {
  std::filesystem::create_directories(path("sub/jail"));
  write("sub/noise.raw", test::noiseGrain(kMiB, 2));
  ok("create sub/d.vmdk 8M");
  ok("convert -o subformat=streamOptimized sub/noise.raw sub/c.vmdk");
  Bytes file = read("sub/c.vmdk");
  const uint64_t directory = test::le64(file, 56) * 512;
  const uint64_t table = test::le32(file, directory) * uint64_t(512);
  const uint64_t grain = test::le32(file, table + 5 * 4) * uint64_t(512);
  std::fill(file.begin() + static_cast<std::ptrdiff_t>(grain + 12), file.begin() + static_cast<std::ptrdiff_t>(grain + 40), 0xff);
  write("sub/c.vmdk", file);
  std::filesystem::create_directory(path("old"));
  ok("create old/base.vmdk 8M");
  ok("write old/base.vmdk sub/noise.raw");
  ok("create -o backing-file=../old/base.vmdk sub/child.vmdk");
  std::filesystem::rename(path("old/base.vmdk"), path("sub/base.vmdk"));
  const struct {
    const char* arguments;
    const char* message;
  } cases[] = {
      {"info sub/none.vmdk", "zarn-img: Opening the file failed (No such file or directory): sub/none.vmdk ("},
      {"info --confine sub/jail sub/d.vmdk", "zarn-img: The file 'sub/d.vmdk' lies outside the allowed folder 'sub/jail'."},
      {"map sub/noise.raw", "zarn-img: sub/noise.raw is no VMDK disk: it starts neither with a sparse extent header nor "
                            "with descriptor lines\n"},
      {"convert -O raw sub/c.vmdk out.raw", "diskOffset: 327680"},
      {"check sub/c.vmdk", "ERROR grain 5 (offset 0x50000): Damaged compressed data"},
      {"check sub/c.vmdk", "\n1 damaged grain was found on the image."},
      {"create -o backing-file=gone.vmdk sub/e.vmdk", "zarn-img: Could not open backing file 'gone.vmdk': No such file or directory\n"},
      {"info sub/child.vmdk", "backing file: ../old/base.vmdk (actual path: sub/base.vmdk)\n"},
      {"map sub/child.vmdk", "0x0             0x100000        1      sub/base.vmdk\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    std::string output;
    run(c.arguments, output);
    EXPECT_NE(output.find(c.message), std::string::npos) << output;
    EXPECT_EQ(output.find("file://"), std::string::npos) << output;
    EXPECT_EQ(output.find(".lock"), std::string::npos) << output;
  }
  std::string output;
  ASSERT_EQ(run("convert sub/child.vmdk out.raw", output), 0) << output;
}

}  // namespace
