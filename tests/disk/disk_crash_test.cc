// Crash and fault sweeps over the work that changes a disk: a process killed
// before each change that reaches the file system, a machine that loses what
// no flush covered, and a file system that fails the Nth operation of each
// kind. After every point the disk must open (or, while it is being made, be
// refused or read as zeros), every grain must read as one of the values it
// held during the work, and what a completed flush covered must read back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/crash_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/grain_data.h"
#include "tests/support/log_capture.h"
#include "zarn/disk.h"

namespace {

using Bytes = std::vector<unsigned char>;
using BytesP = std::shared_ptr<const Bytes>;  // null: a zero grain
constexpr int kGrain = 65536;
constexpr int64_t kMiB = 1 << 20;
constexpr int64_t kDiskBytes = 40 * kMiB;  // 640 grains: two grain tables
constexpr int64_t kGrains = kDiskBytes / kGrain;

// What each grain held over the work, in order, and where completed flushes
// put a floor under it.
class CHistory {
 public:
  CHistory() : versions_(kGrains, std::vector<BytesP>{nullptr}) {}

  void setGrain(int64_t grain, BytesP value) { versions_[grain].push_back(std::move(value)); }
  // After a flush that completed when `changes` changes had been made.
  void markFlushed(int changes) {
    std::vector<size_t> floor(kGrains);
    for (int64_t g = 0; g < kGrains; ++g) floor[g] = versions_[g].size() - 1;
    marks_.push_back({changes, std::move(floor)});
  }
  // The first version a crash before change `n` may show.
  size_t getFloor(int64_t grain, int n) const {
    size_t floor = 0;
    for (const auto& mark : marks_) {
      if (mark.changes <= n) floor = mark.floor[grain];
    }
    return floor;
  }
  bool isAllowed(int64_t grain, const Bytes& value, size_t floor) const {
    for (size_t v = floor; v < versions_[grain].size(); ++v) {
      const BytesP& version = versions_[grain][v];
      if (version ? *version == value : std::all_of(value.begin(), value.end(), [](unsigned char c) { return c == 0; })) {
        return true;
      }
    }
    return false;
  }
  // Forgets everything but the latest version: the start of a new piece of work.
  void settle() {
    for (auto& grain : versions_) grain.erase(grain.begin(), grain.end() - 1);
    marks_.clear();
  }

 private:
  struct Mark {
    int changes;
    std::vector<size_t> floor;
  };
  std::vector<std::vector<BytesP>> versions_;
  std::vector<Mark> marks_;
};

// What a piece of work sees: the file system to work on, and how to tell the
// history what it did.
struct CWork {
  kx::IFileSystem* fs;
  CHistory* history;
  std::function<int()> changeCount;

  void write(zarn::CVMDKDisk& disk, int64_t grain, const Bytes& data) const {
    disk.seek(grain * kGrain);
    disk.write(data.data(), kGrain);
    history->setGrain(grain, std::make_shared<const Bytes>(data));
  }
  void flush(zarn::CVMDKDisk& disk) const {
    disk.flushChanges();
    history->markFlushed(changeCount());
  }
};

const kx::CURI kMain{kx::String("file:///vms/disk.vmdk")};
const kx::CURI kParent{kx::String("file:///vms/parent.vmdk")};

struct Layout {
  const char* name;
  bool compressed;
  int64_t fileSizeLimit;
  const char* password;
};

const Layout kLayouts[] = {
    {"monolithicSparse", false, -1, ""},
    {"twoGbMaxExtentSparse", false, 16 * kMiB, ""},
    {"streamOptimized", true, -1, ""},
    {"streamOptimized split", true, 32 * kMiB, ""},
    {"encrypted streamOptimized", true, -1, "secret"},
};

kx::P<zarn::CVMDKDisk> createDisk(kx::IFileSystem* fs, const Layout& layout, bool onDemand = false) {
  return zarn::CVMDKDisk::create(fs, kMain, kDiskBytes, layout.password, layout.compressed, -1,
                                 layout.fileSizeLimit, "", 0xFFFFFFFF, onDemand);
}

kx::P<zarn::CVMDKDisk> openDisk(kx::IFileSystem* fs, const Layout& layout, kx::IIOStream::Access access) {
  return kx::create<zarn::CVMDKDisk>(fs, kMain, access, kx::String(layout.password));
}

Bytes text(int seed) { return test::textGrain(kGrain, seed); }
Bytes noise(int seed) { return test::noiseGrain(kGrain, static_cast<uint64_t>(seed)); }

// A disk with data in both tables, some of it compressible.
void writeBase(const CWork& work, const Layout& layout) {
  auto disk = createDisk(work.fs, layout);
  for (int64_t g : {0, 1, 2, 3, 509, 510, 600}) work.write(*disk, g, text(static_cast<int>(g)));
}

// Grains across the table border, compressed grains that grow (text into
// noise: they move) and shrink in place (noise into text), a flush in the
// middle and one at the end.
void writeAcrossTheBorder(const CWork& work, const Layout& layout) {
  auto disk = openDisk(work.fs, layout, kx::IIOStream::ACCESS_READ_WRITE);
  for (int64_t g : {510, 511, 512, 513}) work.write(*disk, g, noise(static_cast<int>(g)));
  work.write(*disk, 1, noise(1));
  work.flush(*disk);
  work.write(*disk, 1, text(100));
  work.write(*disk, 2, noise(2));
  work.write(*disk, 600, noise(600));
  work.write(*disk, 3, Bytes(kGrain, 0));
  work.flush(*disk);
}

struct Scenario {
  std::string name;
  Layout layout;
  std::function<void(const CWork&)> setUp;  // the disk before the work; empty: none
  std::function<void(const CWork&)> work;
  bool made = false;  // the work makes the disk: before it completes, none may open
};

std::vector<Scenario> scenarios() {
  std::vector<Scenario> all;
  for (const Layout& layout : kLayouts) {
    all.push_back({std::string("create ") + layout.name, layout, nullptr,
                   [layout](const CWork& work) {
                     auto disk = createDisk(work.fs, layout);
                     work.history->markFlushed(work.changeCount());
                   },
                   true});
    all.push_back({std::string("write ") + layout.name, layout,
                   [layout](const CWork& work) { writeBase(work, layout); },
                   [layout](const CWork& work) { writeAcrossTheBorder(work, layout); }});
  }
  const Layout split = kLayouts[1];
  all.push_back({"first write into an on-demand extent", split,
                 [split](const CWork& work) { createDisk(work.fs, split, true); },
                 [split](const CWork& work) {
                   auto disk = openDisk(work.fs, split, kx::IIOStream::ACCESS_READ_WRITE);
                   work.write(*disk, 300, noise(300));
                   work.write(*disk, 301, text(301));
                   work.flush(*disk);
                 }});
  for (const Layout& layout : {kLayouts[0], kLayouts[1], kLayouts[2]}) {
    // The child reads its parent's grains before and after: only where they
    // come from changes.
    const auto makeChild = [layout](const CWork& work) {
      uint32_t parentCID;
      {
        auto parent = zarn::CVMDKDisk::create(work.fs, kParent, kDiskBytes, "", layout.compressed, -1,
                                              layout.fileSizeLimit, "", 0xFFFFFFFF, false);
        for (int64_t g : {0, 1, 2, 511, 512}) work.write(*parent, g, text(static_cast<int>(g) + 7));
        parentCID = parent->getDescriptor()->getContentID();
      }
      zarn::CVMDKDisk::create(work.fs, kMain, kDiskBytes, "", layout.compressed, -1, layout.fileSizeLimit,
                              "parent.vmdk", parentCID, false);
    };
    all.push_back({std::string("makeGrainIndependentOfParent ") + layout.name, layout, makeChild,
                   [](const CWork& work) {
                     auto disk = kx::create<zarn::CVMDKDisk>(work.fs, kMain, kx::IIOStream::ACCESS_READ_WRITE, "");
                     for (int64_t g : {0, 1, 2, 3, 511, 512}) disk->makeGrainIndependentOfParent(g);
                     work.flush(*disk);
                   }});
    all.push_back({std::string("storeDescriptor ") + layout.name, layout, makeChild,
                   [](const CWork& work) {
                     auto disk = kx::create<zarn::CVMDKDisk>(work.fs, kMain, kx::IIOStream::ACCESS_READ_WRITE, "");
                     disk->changeParentRelPath("./parent.vmdk");
                     work.flush(*disk);
                   }});
  }
  return all;
}

// Checks the disk that `fs` holds against the history, for a crash before
// change `n`.
void checkDisk(kx::IFileSystem* fs, const Scenario& scenario, const CHistory& history, int n, bool complete,
               const std::string& point) {
  SCOPED_TRACE(point);
  kx::P<zarn::CVMDKDisk> disk;
  try {
    disk = openDisk(fs, scenario.layout, kx::IIOStream::ACCESS_READ);
  } catch (const kx::CError& error) {
    if (scenario.made && !complete) return;  // no disk yet is a state from before the work
    FAIL() << "the disk doesn't open: " << error.what();
  }
  Bytes grain(kGrain);
  for (int64_t g = 0; g < kGrains; ++g) {
    try {
      disk->seek(g * kGrain);
      disk->read(grain.data(), kGrain);
    } catch (const kx::CError& error) {
      FAIL() << "grain " << g << " doesn't read: " << error.what();
    }
    ASSERT_TRUE(history.isAllowed(g, grain, history.getFloor(g, n))) << "grain " << g << " is neither old nor new";
  }
}

class DiskCrashTest : public ::testing::TestWithParam<size_t> {};

TEST_P(DiskCrashTest, EveryCrashPointLeavesEveryGrainOldOrNew) {
  const Scenario scenario = scenarios()[GetParam()];
  SCOPED_TRACE(scenario.name);
  test::CLogCapture quiet;
  auto base = kx::create<kx::CMemoryFileSystem>();
  CHistory history;
  if (scenario.setUp) scenario.setUp({base.get(), &history, [] { return 0; }});
  history.settle();
  auto recorder = kx::create<test::CCrashRecordingFileSystem>(base);
  scenario.work({recorder.get(), &history, [&] { return recorder->getChangeCount(); }});
  const int changes = recorder->getChangeCount();
  for (int n = 0; n <= changes; ++n) {
    for (test::CrashKind kind : {test::CrashKind::ProcessKilled, test::CrashKind::PowerLost}) {
      const bool killed = kind == test::CrashKind::ProcessKilled;
      checkDisk(recorder->rebuild(n, kind).get(), scenario, history, n, n == changes,
                std::string(killed ? "killed" : "power lost") + " before change " + std::to_string(n));
      if (HasFatalFailure()) return;
    }
  }
  // A power loss can only take back what no flush covered: with everything
  // flushed at the end, the last point holds all of it.
  checkDisk(recorder->rebuild(changes, test::CrashKind::PowerLost).get(), scenario, history, changes, true,
            "power lost after the work");
  std::cout << "[ crash    ] " << scenario.name << ": " << changes + 1 << " points, killed and power lost\n";
}

TEST_P(DiskCrashTest, EveryFaultIsRaisedAndLeavesEveryGrainOldOrNew) {
  const Scenario scenario = scenarios()[GetParam()];
  SCOPED_TRACE(scenario.name);
  test::CLogCapture quiet;
  auto base = kx::create<kx::CMemoryFileSystem>();
  CHistory settled;
  if (scenario.setUp) scenario.setUp({base.get(), &settled, [] { return 0; }});
  settled.settle();
  int points = 0, absorbed = 0;
  for (test::FileOp op : {test::FileOp::Open, test::FileOp::Read, test::FileOp::Write, test::FileOp::Seek,
                          test::FileOp::Flush, test::FileOp::SetLength, test::FileOp::Lock, test::FileOp::Delete,
                          test::FileOp::Rename}) {
    for (bool sticky : {false, true}) {
      for (int n = 1;; ++n) {
        auto copy = kx::create<kx::CMemoryFileSystem>();
        for (const kx::CURI& uri : base->listFiles()) {
          const kx::TBuffer<unsigned char> data = base->getFileData(uri);
          copy->setFileData(uri, data.getData(), data.getUsed());
        }
        auto faulty = kx::create<test::CFaultInjectionFileSystem>(copy);
        faulty->failNth(op, n, sticky);
        CHistory history = settled;
        bool raised = false;
        try {
          scenario.work({faulty.get(), &history, [] { return 0; }});
        } catch (const kx::CError&) {
          raised = true;
        }
        if (faulty->getFaultCount() == 0) break;
        ++points;
        const std::string point = std::string(test::getFileOpName(op)) + " " + std::to_string(n) +
                                  (sticky ? " and every later one" : "") + " fails";
        // A fault that the work absorbed (a lock file a reader goes on
        // without, a flush with nothing left to write) must have lost nothing:
        // without an error every flush returned, and all of it reads back.
        absorbed += raised ? 0 : 1;
        // Every flush that returned put its floor under what must read back.
        checkDisk(copy.get(), scenario, history, 0, !raised, point);
        if (HasFatalFailure()) return;
      }
    }
  }
  std::cout << "[ faults   ] " << scenario.name << ": " << points << " failing operations, " << absorbed
            << " absorbed without loss\n";
}

INSTANTIATE_TEST_SUITE_P(Work, DiskCrashTest, ::testing::Range<size_t>(0, scenarios().size()),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                           std::string name = scenarios()[info.param].name;
                           for (char& c : name) {
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });

}  // namespace
