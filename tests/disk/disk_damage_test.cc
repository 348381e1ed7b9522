// Damaged and hostile disks, one change at a time: every header field at 0, 1
// and its largest value, directory and table words that point past the end,
// into the head or at each other, slot sizes and compressed lengths that lie,
// truncations, extent lines and parents that can't be. Each disk is refused
// with a damage error (kx::CIOError code 5) when it is opened or when the
// grain it spoils is read, or it reads, in bounded time and memory: never a
// crash, a hang, an internal error or an allocation the file doesn't justify.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "kx/local_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/log_capture.h"
#include "zarn/disk.h"
#include "zarn/space_info.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int kGrain = 65536;
constexpr int64_t kMiB = 1 << 20;
constexpr uint64_t kMax = ~uint64_t{0};

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Header fields by byte offset.
enum Field : size_t {
  kCapacity = 12, kGrainSize = 20, kDescriptorOffset = 28, kDescriptorSize = 36, kEntries = 44,
  kRedundantDirectory = 48, kDirectory = 56, kOverhead = 64,
};

const kx::CURI kMain{kx::String("file:///vms/disk.vmdk")};
const kx::CURI kParent{kx::String("file:///vms/parent.vmdk")};

// The files of one disk, by name, as bytes.
struct Files {
  std::vector<std::pair<std::string, Bytes>> files;
  Bytes& get(const std::string& name) {
    for (auto& file : files) {
      if (file.first == name) return file.second;
    }
    files.push_back({name, {}});
    return files.back().second;
  }
};

Files makeDisk(bool compressed, bool child = false) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  uint32_t parentCID = 0xFFFFFFFF;
  if (child) {
    auto parent = zarn::CVMDKDisk::create(fs.get(), kParent, 40 * kMiB, "", compressed, -1, -1, "", 0xFFFFFFFF, false);
    parentCID = parent->getDescriptor()->getContentID();
  }
  {
    auto disk = zarn::CVMDKDisk::create(fs.get(), kMain, 40 * kMiB, "", compressed, -1, -1,
                                        child ? "parent.vmdk" : "", parentCID, false);
    for (int64_t g : {0, 1, 2, 600}) {
      const Bytes data = g == 1 ? test::noiseGrain(kGrain, 1) : test::textGrain(kGrain, static_cast<int>(g));
      disk->seek(g * kGrain);
      disk->write(data.data(), kGrain);
    }
  }
  Files files;
  for (const kx::CURI& uri : fs->listFiles()) {
    if (uri.getName().EndsWith(".lock")) continue;
    const kx::TBuffer<unsigned char> data = fs->getFileData(uri);
    files.get(uri.getName().toUTF8()).assign(data.getData(), data.getData() + data.getUsed());
  }
  return files;
}

uint64_t field(const Bytes& file, size_t at, int width = 8) {
  return width == 8 ? test::le64(file, at) : test::le32(file, at);
}

// The sector of grain `g`'s table entry in the primary table.
size_t tableEntryAt(const Bytes& file, int64_t g) {
  const uint64_t directory = field(file, kDirectory);
  const uint32_t table = test::le32(file, directory * 512 + (g / 512) * 4);
  return table * 512 + (g % 512) * 4;
}

// "open", "read" or "ok": where the disk was refused, with a damage error.
// Anything but kx::CIOError code 5 (or a refusal of the file system for a
// parent that is no regular file) fails the test.
std::string verdict(Files& files) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  for (const auto& file : files.files) {
    fs->setFileData(kMain.getParent() << kx::String::FromUTF8(file.first.c_str()), file.second.data(),
                    file.second.size());
  }
  // Damage, a file the file system refuses, or a descriptor value that doesn't
  // parse (the parser's own error).
  const auto isDamage = [](const kx::CError& error) {
    const auto* io = dynamic_cast<const kx::CIOError*>(&error);
    return (io && io->getCode() == 5) || dynamic_cast<const kx::CFileSystemError*>(&error) ||
           error.getMessage().StartsWith("Invalid hex number") || error.getMessage().StartsWith("VMDK descriptor value");
  };
  kx::P<zarn::CVMDKDisk> disk;
  try {
    disk = kx::create<zarn::CVMDKDisk>(fs.get(), kMain, kx::IIOStream::ACCESS_READ, "");
  } catch (const kx::CError& error) {
    EXPECT_TRUE(isDamage(error)) << error.what();
    return "open";
  }
  std::string result = "ok";
  Bytes grain(kGrain);
  for (int64_t position = 0; position < disk->getSizeBytes(); position += kGrain) {
    try {
      disk->seek(position);
      disk->read(grain.data(), static_cast<int>(std::min<int64_t>(kGrain, disk->getSizeBytes() - position)));
    } catch (const kx::CError& error) {
      EXPECT_TRUE(isDamage(error)) << error.what();
      result = "read";
    }
  }
  try {
    disk->gatherSpaceInfo();
  } catch (const kx::CError& error) {
    EXPECT_TRUE(isDamage(error)) << error.what();
    result = "read";
  }
  return result;
}

struct Case {
  const char* name;
  bool compressed;
  std::function<void(Files&)> damage;
  const char* expected;  // for a reader: "open", "read" or "ok"
  bool child = false;
  // A writer is refused at opening, where a reader goes on: metadata that
  // overlaps or leaves the head would be written over.
  bool writerRefused = false;
};

// Whether a writer is refused with a damage error before it writes.
bool writerRefused(Files& files) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  for (const auto& file : files.files) {
    fs->setFileData(kMain.getParent() << kx::String::FromUTF8(file.first.c_str()), file.second.data(),
                    file.second.size());
  }
  try {
    auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), kMain, kx::IIOStream::ACCESS_READ_WRITE, "");
    disk->seek(3 * kGrain);
    disk->write("x", 1);
    disk->flushChanges();
  } catch (const kx::CIOError& error) {
    return error.getCode() == 5;
  }
  return false;
}

std::function<void(Files&)> setField(size_t at, uint64_t value, int width = 8) {
  return [=](Files& f) { test::putLE(f.get("disk.vmdk"), at, value, width); };
}

// Replaces `from` (with `toLineEnd`, and the rest of its line) by `to` in the
// embedded descriptor of `name`.
std::function<void(Files&)> setDescriptor(const std::string& from, const std::string& to,
                                          const std::string& name = "disk.vmdk", bool toLineEnd = false) {
  return [=](Files& f) {
    Bytes& file = f.get(name);
    const uint64_t offset = field(file, kDescriptorOffset) * 512;
    std::string text(reinterpret_cast<const char*>(file.data() + offset), field(file, kDescriptorSize) * 512);
    text = text.substr(0, text.find('\0'));
    const size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    text.replace(at, toLineEnd ? text.find('\n', at) - at : from.size(), to);
    ASSERT_LE(text.size(), field(file, kDescriptorSize) * 512);
    std::fill(file.begin() + offset, file.begin() + offset + field(file, kDescriptorSize) * 512, 0);
    std::copy(text.begin(), text.end(), file.begin() + offset);
  };
}

const Case kCases[] = {
    {"capacity 0", false, setField(kCapacity, 0), "open"},
    {"capacity 1", false, setField(kCapacity, 1), "open"},
    {"capacity beyond the line", false, setField(kCapacity, 1ULL << 32), "read", false, true},
    {"capacity max", false, setField(kCapacity, kMax), "open"},
    {"grain size 0", false, setField(kGrainSize, 0), "open"},
    {"grain size 1", false, setField(kGrainSize, 1), "read", false, true},
    {"grain size max", false, setField(kGrainSize, kMax), "open"},
    {"descriptor offset 0", false, setField(kDescriptorOffset, 0), "open"},
    {"descriptor offset max", false, setField(kDescriptorOffset, kMax), "open"},
    {"descriptor size 0", false, setField(kDescriptorSize, 0), "open"},
    {"descriptor size max", false, setField(kDescriptorSize, kMax), "open"},
    {"descriptor area over the directories", false,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       test::putLE(file, kDescriptorSize, field(file, kDirectory) + 1 - field(file, kDescriptorOffset), 8);
     },
     "open"},
    {"entries per table 0", false, setField(kEntries, 0, 4), "open"},
    {"entries per table 1", false, setField(kEntries, 1, 4), "read", false, true},
    {"entries per table max", false, setField(kEntries, 0xFFFFFFFF, 4), "open"},
    {"no redundant directory", false, setField(kRedundantDirectory, 0), "ok"},
    {"redundant directory is the primary", false,
     [](Files& f) { test::putLE(f.get("disk.vmdk"), kRedundantDirectory, field(f.get("disk.vmdk"), kDirectory), 8); },
     "ok", false, true},
    {"directory offset 0", false, setField(kDirectory, 0), "open"},
    {"directory offset 1", false, setField(kDirectory, 1), "open"},
    {"directory offset max", false, setField(kDirectory, kMax), "open"},
    {"overhead 0", false, setField(kOverhead, 0), "open"},
    {"overhead 1", false, setField(kOverhead, 1), "open"},
    {"overhead max", false, setField(kOverhead, kMax), "read"},
    {"directory word past the end", false,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       test::putLE(file, field(file, kDirectory) * 512, 0x7FFFFFFF, 4);
     },
     "read", false, true},
    {"directory word at the header", false,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       test::putLE(file, field(file, kDirectory) * 512, 0, 4);  // a table the file doesn't have
       test::putLE(file, field(file, kDirectory) * 512 + 4, 1, 4);
     },
     "open"},
    {"two directory words name one table", false,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       const size_t at = field(file, kDirectory) * 512;
       test::putLE(file, at + 4, test::le32(file, at), 4);
     },
     "ok", false, true},
    {"directory word 0", false,
     [](Files& f) { test::putLE(f.get("disk.vmdk"), field(f.get("disk.vmdk"), kDirectory) * 512, 0, 4); }, "ok"},
    {"table entry past the end", false,
     [](Files& f) { test::putLE(f.get("disk.vmdk"), tableEntryAt(f.get("disk.vmdk"), 0), 0x7FFFFFF0, 4); }, "read"},
    {"table entry into the head", false,
     [](Files& f) { test::putLE(f.get("disk.vmdk"), tableEntryAt(f.get("disk.vmdk"), 0), 1, 4); }, "read"},
    {"two table entries name one slot", false,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       test::putLE(file, tableEntryAt(file, 2), test::le32(file, tableEntryAt(file, 0)), 4);
     },
     "ok"},
    {"compressed length above twice the grain", true,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       test::putLE(file, test::le32(file, tableEntryAt(file, 0)) * 512 + 8, 3 * kGrain, 4);
     },
     "read"},
    {"compressed length that lies short", true,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       const size_t at = test::le32(file, tableEntryAt(file, 0)) * 512 + 8;
       test::putLE(file, at, test::le32(file, at) - 1000, 4);
     },
     "read"},
    // The stream ends where it ends: bytes behind it are never looked at.
    {"compressed length that lies long", true,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       const size_t at = test::le32(file, tableEntryAt(file, 0)) * 512 + 8;
       test::putLE(file, at, test::le32(file, at) + 700, 4);
     },
     "ok"},
    {"compressed data that lies", true,
     [](Files& f) {
       Bytes& file = f.get("disk.vmdk");
       const size_t at = test::le32(file, tableEntryAt(file, 0)) * 512 + 12;
       for (size_t i = 0; i < 64; ++i) file[at + i] ^= 0x5A;
     },
     "read"},
    {"compressed table entry into the head", true,
     [](Files& f) { test::putLE(f.get("disk.vmdk"), tableEntryAt(f.get("disk.vmdk"), 2), 3, 4); }, "read"},
    {"extent line of 2^62 sectors", false, setDescriptor("RW 81920 SPARSE", "RW 4611686018427387904 SPARSE"), "open"},
    {"extent line of a negative size", false, setDescriptor("RW 81920 SPARSE", "RW -5 SPARSE"), "open"},
    // A single-file disk is the file that holds its descriptor, whatever the
    // one line names.
    {"extent line naming another file", false, setDescriptor("\"disk.vmdk\"", "\"gone.vmdk\""), "ok"},
    {"thousands of extent lines", false,
     [](Files& f) {
       // A descriptor file of its own whose lines all name the one extent.
       std::string text =
           "# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n";
       for (int i = 0; i < 4000; ++i) text += "RW 128 SPARSE \"disk-s00000.vmdk\"\n";
       Bytes extent = f.get("disk.vmdk");
       f.get("disk-s00000.vmdk") = std::move(extent);
       f.get("disk.vmdk").assign(text.begin(), text.end());
     },
     "ok"},
    {"parent is the disk itself", false, setDescriptor("parent.vmdk", "./disk.vmdk"), "read", true},
    {"parent is missing", false, setDescriptor("\"parent.vmdk\"", "\"gone.vmdk\""), "read", true},
    {"parent's content ID changed", false, setDescriptor("parentCID=", "parentCID=0badf00d", "disk.vmdk", true), "read",
     true},
    {"parent content ID that isn't hex", false, setDescriptor("parentCID=", "parentCID=zzzzzzzz", "disk.vmdk", true),
     "open", true},
};

TEST(DiskDamageTest, EveryDamageIsRefusedOrReadInBoundedTime) {
  const auto peakKiB = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
  };
  const Files plain = makeDisk(false), compressed = makeDisk(true), child = makeDisk(false, true);
  const long before = peakKiB();
  test::CLogCapture quiet;
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    Files files = c.child ? child : c.compressed ? compressed : plain;
    c.damage(files);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(verdict(files), c.expected);
    if (c.writerRefused) {
      EXPECT_TRUE(writerRefused(files));
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    if (!kSanitized) {
      EXPECT_LT(took.count(), 5.0);
    }
  }
  // A grain for a table the file doesn't have is refused before its data is
  // written: the file doesn't grow by a slot nothing can point at.
  {
    Files files = plain;
    Bytes& file = files.get("disk.vmdk");
    test::putLE(file, field(file, kDirectory) * 512 + 4, 0, 4);  // table 1: grains 512 to 639
    auto fs = kx::create<kx::CMemoryFileSystem>();
    for (const auto& f : files.files) {
      fs->setFileData(kMain.getParent() << kx::String::FromUTF8(f.first.c_str()), f.second.data(), f.second.size());
    }
    const size_t before = file.size();
    auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), kMain, kx::IIOStream::ACCESS_READ_WRITE, "");
    const Bytes data = test::noiseGrain(kGrain, 9);
    disk->seek(520 * int64_t{kGrain});
    EXPECT_EQ(test::ioErrorCode([&] {
                disk->write(data.data(), kGrain);
                disk->flushChanges();
              }),
              13);
    EXPECT_EQ(fs->getFileData(kMain).getUsed(), before);
  }
  // Every cut of the file, at sector and odd lengths.
  for (const Files* base : {&plain, &compressed}) {
    const size_t length = base->files.front().second.size();
    for (size_t cut = 0; cut < length; cut += cut < 4096 ? 97 : 65536 + 512) {
      SCOPED_TRACE("cut at " + std::to_string(cut));
      Files files = *base;
      files.get("disk.vmdk").resize(cut);
      const std::string result = verdict(files);
      EXPECT_NE(result, "ok");
    }
  }
  if (!kSanitized) {
    EXPECT_LT(peakKiB() - before, 128 * 1024);
  }
}

}  // namespace
