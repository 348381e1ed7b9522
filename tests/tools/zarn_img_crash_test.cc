// zarn-img stopped at every write it makes: killed before the write, or
// with that write and every later one failing as on a full or broken disk.
// Whichever write it was, the disk afterwards opens, check finds it clean,
// and each grain reads as it was before the run or as the run meant it to;
// a run that ended well leaves exactly the new content. The cases write
// across the border of the first grain table, and over compressed grains
// with data that packs smaller and larger than what they held.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "zarn/disk.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr size_t kMiB = 1 << 20;
constexpr size_t kGrain = 65536;
constexpr size_t kDiskBytes = 40 * kMiB;
// 2 MiB from a little past 31 MiB: partial grains at both ends, the border
// of the first grain table (512 grains, 32 MiB) in the middle.
constexpr size_t kWriteOffset = 31 * kMiB + 4096;
constexpr size_t kWriteBytes = 2 * kMiB;
const char* const kPassword = "crash";

struct CLayout {
  const char* name;
  const char* options;
};

void PrintTo(const CLayout& layout, std::ostream* out) { *out << layout.name; }

const CLayout kLayouts[] = {
    {"monolithicSparse", "subformat=monolithicSparse"},
    {"twoGbMaxExtentSparse", "subformat=twoGbMaxExtentSparse,split-size=4M"},
    {"streamOptimized", "subformat=streamOptimized"},
    {"encrypted", "subformat=monolithicSparse,encrypted=on"},
};

// The grain of a model at `index`: text packs to a few hundred bytes, noise
// not at all, zeros stay unallocated.
Bytes modelGrain(size_t index, int kind, uint32_t seed) {
  switch (kind) {
    case 0: return test::textGrain(kGrain, seed + static_cast<uint32_t>(index));
    case 1: return test::noiseGrain(kGrain, seed * 1000 + index);
    default: return Bytes(kGrain, 0);
  }
}

// Before the run: from 29 MiB to 35 MiB text, noise and holes in turns.
Bytes oldModel() {
  Bytes model(kDiskBytes, 0);
  for (size_t index = 29 * kMiB / kGrain; index < 35 * kMiB / kGrain; ++index) {
    const Bytes grain = modelGrain(index, static_cast<int>(index % 3), 1);
    std::copy(grain.begin(), grain.end(), model.begin() + static_cast<std::ptrdiff_t>(index * kGrain));
  }
  return model;
}

// After the run: over text noise (the grain grows and moves), over noise
// text (it shrinks in place), over holes text, and zeros now and then; the
// grains at both ends keep what lies outside the write.
Bytes newModel() {
  Bytes model = oldModel();
  for (size_t index = kWriteOffset / kGrain; index * kGrain < kWriteOffset + kWriteBytes; ++index) {
    const int oldKind = static_cast<int>(index % 3);
    const Bytes grain = modelGrain(index, index % 7 == 0 ? 2 : oldKind == 0 ? 1 : 0, 2);
    const size_t from = std::max(index * kGrain, kWriteOffset);
    const size_t to = std::min((index + 1) * kGrain, kWriteOffset + kWriteBytes);
    std::copy(grain.begin() + static_cast<std::ptrdiff_t>(from - index * kGrain),
              grain.begin() + static_cast<std::ptrdiff_t>(to - index * kGrain),
              model.begin() + static_cast<std::ptrdiff_t>(from));
  }
  return model;
}

class ZarnImgCrashTest : public ::testing::TestWithParam<std::tuple<CLayout, bool>> {
 protected:
  void SetUp() override {
#if !defined(ZARN_IMG_PATH) || !defined(ZARN_WRITE_FAULT_SHIM)
    GTEST_SKIP() << "zarn-img or the write fault shim is not built";
#endif
  }

  test::CProcessEnd tool(const std::string& folder, const std::vector<std::string>& arguments,
                         std::vector<std::string> env = {}) {
#ifdef ZARN_IMG_PATH
    std::vector<std::string> argv{ZARN_IMG_PATH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    env.push_back(std::string("ZARN_PASSWORD=") + kPassword);
    return test::CChildProcess::run(argv, env, folder);
#else
    return test::CProcessEnd();
#endif
  }
  std::vector<std::string> shimEnv() const {
#ifdef ZARN_WRITE_FAULT_SHIM
    return {std::string("LD_PRELOAD=") + ZARN_WRITE_FAULT_SHIM, "ASAN_OPTIONS=verify_asan_link_order=0",
            "ZARN_FAULT_SKIP_SYNC=1"};
#else
    return {};
#endif
  }
  // Calls `piece(offset, length)` for each run of data in the open file
  // `fd` of `size` bytes, passing over holes: a split disk is mostly holes,
  // and copying or reading them would cost more than the tool's run.
  template <class Piece>
  static void forEachDataRun(int fd, off_t size, Piece piece) {
    for (off_t at = 0; at < size;) {
      const off_t data = ::lseek(fd, at, SEEK_DATA);
      if (data < 0) break;
      off_t hole = ::lseek(fd, data, SEEK_HOLE);
      if (hole < 0) hole = size;
      piece(data, hole - data);
      at = hole;
    }
  }
  // Makes `folder` hold exactly the files of `from`, holes kept.
  static void copyFolder(const std::string& from, const std::string& folder) {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    for (const auto& entry : std::filesystem::directory_iterator(from)) {
      const int in = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
      const std::string target = folder + "/" + entry.path().filename().string();
      const int out = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      ASSERT_TRUE(in >= 0 && out >= 0) << target;
      const off_t size = static_cast<off_t>(entry.file_size());
      ASSERT_EQ(::ftruncate(out, size), 0);
      forEachDataRun(in, size, [&](off_t offset, off_t length) {
        loff_t inOffset = offset, outOffset = offset;
        while (length > 0) {
          const ssize_t done = ::copy_file_range(in, &inOffset, out, &outOffset, static_cast<size_t>(length), 0);
          ASSERT_GT(done, 0) << target;
          length -= done;
        }
      });
      ::close(in);
      ::close(out);
    }
  }
  // Reads the whole disk into `bytes`, which keeps its room from call to
  // call: touching 40 MiB of new memory each time would cost more than the
  // tool's run.
  void readDisk(const std::string& folder, Bytes& bytes) {
    auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), kx::CURI(kx::CUnixPath(kx::String::fromUTF8(folder + "/d.vmdk")), true),
                                            kx::IIOStream::ACCESS_READ, kPassword);
    bytes.resize(static_cast<size_t>(disk->getSizeBytes()));
    disk->read(bytes.data(), static_cast<int>(bytes.size()));
  }
  // Empty when a run that ended with `end` ended as it may, else what is wrong.
  static std::string judgeEnd(const test::CProcessEnd& end, bool killMode) {
    if (end.exitStatus == 0) return "";
    if (killMode && end.signal != SIGKILL) {
      return "ended with status " + std::to_string(end.exitStatus) + ", signal " + std::to_string(end.signal) + ": " + end.err;
    }
    if (!killMode && end.exitStatus != 1) return "exit status " + std::to_string(end.exitStatus) + ": " + end.err;
    if (!killMode && end.errLines().size() != 1) return "stderr is not one line:\n" + end.err;
    return "";
  }
  // Empty when the disk in `folder` is as it may be after a run that
  // `finished` or not, else what is wrong.
  std::string judgeDisk(const std::string& folder, bool finished, const Bytes& before, const Bytes& after) {
    const test::CProcessEnd check = tool(folder, {"check", "d.vmdk"});
    if (check.exitStatus != 0) return "check exits " + std::to_string(check.exitStatus) + ":\n" + check.out + check.err;
    Bytes& now = now_;
    try {
      readDisk(folder, now);
    } catch (const std::exception& error) {
      return std::string("the disk doesn't read: ") + error.what();
    }
    if (now.size() < after.size()) return "the disk shrank";
    if (finished) return now == after ? "" : "the run ended well, but the disk doesn't read as the new content";
    for (size_t at = 0; at < after.size(); at += kGrain) {
      const auto grain = now.begin() + static_cast<std::ptrdiff_t>(at);
      const auto is = [&](const Bytes& model) {
        return std::equal(grain, grain + static_cast<std::ptrdiff_t>(kGrain), model.begin() + static_cast<std::ptrdiff_t>(at));
      };
      if (!is(before) && !is(after)) return "the grain at " + std::to_string(at) + " reads neither old nor new";
    }
    return "";
  }
  // A digest of the disk's files (not its lock file), to know a state that
  // was judged already.
  size_t digestDisk(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().extension() == ".vmdk") names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    size_t digest = 0;
    for (const std::string& name : names) {
      const std::string path = folder + "/" + name;
      const off_t size = static_cast<off_t>(std::filesystem::file_size(path));
      digest = digest * 31 + std::hash<std::string>()(name + std::to_string(size));
      const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      forEachDataRun(fd, size, [&](off_t offset, off_t length) {
        file_.resize(static_cast<size_t>(length));
        if (::pread(fd, &file_[0], file_.size(), offset) != length) file_.clear();
        // A run of zeros written reads as a hole would: both are the same bytes.
        if (std::all_of(file_.begin(), file_.end(), [](char c) { return c == 0; })) return;
        digest = digest * 31 + std::hash<std::string>()(std::to_string(offset) + ':' + file_);
      });
      ::close(fd);
    }
    return digest;
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
  Bytes now_;
  std::string file_;
};

TEST_P(ZarnImgCrashTest, EveryWriteCutLeavesEachGrainOldOrNew) {
  const CLayout layout = std::get<0>(GetParam());
  const bool convert = std::get<1>(GetParam());
  const auto started = std::chrono::steady_clock::now();
  const std::string root = dir_.getPath();
  const std::string templateFolder = root + "/template";
  const std::string work = root + "/work";
  std::filesystem::create_directory(templateFolder);

  const Bytes before = oldModel();
  const Bytes after = newModel();
  const Bytes data(after.begin() + static_cast<std::ptrdiff_t>(kWriteOffset),
                   after.begin() + static_cast<std::ptrdiff_t>(kWriteOffset + kWriteBytes));
  test::writeFileBytes(*fs_, dir_.getFileURI("old.raw"), before);
  test::writeFileBytes(*fs_, dir_.getFileURI("new.raw"), after);
  test::writeFileBytes(*fs_, dir_.getFileURI("input.bin"), data);
  ASSERT_EQ(tool(templateFolder, {"create", "-o", layout.options, "d.vmdk", "40M"}).exitStatus, 0);
  ASSERT_EQ(tool(templateFolder, {"convert", "-n", root + "/old.raw", "d.vmdk"}).exitStatus, 0);
  readDisk(templateFolder, now_);
  ASSERT_TRUE(now_ == before);

  const std::vector<std::string> arguments =
      convert ? std::vector<std::string>{"convert", "-n", root + "/new.raw", "d.vmdk"}
              : std::vector<std::string>{"write", "--offset", std::to_string(kWriteOffset), "d.vmdk", root + "/input.bin"};
  copyFolder(templateFolder, work);
  std::vector<std::string> env = shimEnv();
  env.push_back("ZARN_FAULT_COUNT_FILE=" + root + "/count");
  ASSERT_EQ(tool(work, arguments, env).exitStatus, 0);
  readDisk(work, now_);
  ASSERT_TRUE(now_ == after);
  long writes = 0;
  std::ifstream(root + "/count") >> writes;
  ASSERT_GT(writes, 0);

  // A run stopped by a full or failing disk at write N leaves what a kill
  // before write N leaves, but for a lock file and lengths: the same files
  // need no second judgement.
  test::CLogCapture quiet;  // the in-process reads of damaged disks warn
  std::map<long, size_t> judged;
  int points = 0;
  for (const char* mode : {"kill", "enospc", "eio"}) {
    const bool killMode = std::string(mode) == "kill";
    for (long at = 1; at <= writes + 1; ++at) {
      copyFolder(templateFolder, work);
      env = shimEnv();
      env.push_back("ZARN_FAULT_AT=" + std::to_string(at));
      env.push_back(std::string("ZARN_FAULT_MODE=") + mode);
      const test::CProcessEnd end = tool(work, arguments, env);
      ++points;
      std::string wrong = judgeEnd(end, killMode);
      const size_t digest = digestDisk(work);
      if (wrong.empty() && (killMode || judged.count(at) == 0 || judged[at] != digest)) {
        wrong = judgeDisk(work, end.exitStatus == 0, before, after);
      }
      if (killMode) judged[at] = digest;
      // The first point that goes wrong tells the story; the ones behind it
      // would repeat it.
      ASSERT_EQ(wrong, "") << mode << " at write " << at << " of " << writes;
    }
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::cout << layout.name << (convert ? " convert -n" : " write") << ": " << writes << " writes, " << points
            << " points in " << seconds << " s\n";
  RecordProperty("points", points);
}

INSTANTIATE_TEST_SUITE_P(Layouts, ZarnImgCrashTest, ::testing::Combine(::testing::ValuesIn(kLayouts), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<CLayout, bool>>& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "_ConvertN" : "_Write");
                         });

}  // namespace
