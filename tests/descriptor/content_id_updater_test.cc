#include "zarn/content_id_updater.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/observed_file_system.h"
#include "zarn/descriptor_accessor.h"
#include "zarn/empty_extent_file.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/sparse_extent_file.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Which files were opened, and how often.
class COpenLog final : public test::CObservedFileSystem {
 public:
  using CObservedFileSystem::CObservedFileSystem;
  void onOperation(test::FileOp op, const kx::CURI& uri, int) override {
    if (op == test::FileOp::Open) opened.push_back(uri.toString().toUTF8());
  }
  int count(const char* uri) const { return static_cast<int>(std::count(opened.begin(), opened.end(), uri)); }
  std::vector<std::string> opened;
};

class ContentIDUpdaterTest : public ::testing::Test {
 protected:
  // A disk of two extents "a.vmdk" and "b.vmdk"; with `embedded` the
  // descriptor lives in a.vmdk, else in "d.vmdk" of `descriptorBytes`.
  void make(bool embedded, size_t descriptorBytes = 512) {
    kx::TBuffer<unsigned char> text, zeros(65536);
    const std::string s = "# Disk DescriptorFile\nversion=1\nCID=1234\nparentCID=ffffffff\n";
    text.assign(reinterpret_cast<const unsigned char*>(s.data()), s.size());
    descriptor_ = kx::create<zarn::CVMDKDescriptor>(text);
    for (const char* name : {"a", "b"}) {
      zarn::createEmptyVMDKSparseExtentFile(memory_.get(), uri(name), false, 8, 128, zeros,
                                            embedded && name[0] == 'a' ? descriptor_.get() : nullptr, 2, {});
    }
    if (!embedded) {
      Bytes bytes(s.begin(), s.end());
      bytes.resize(descriptorBytes, 0);
      test::writeFileBytes(*memory_, uri("d"), bytes);
    }
    updater_ = kx::create<zarn::CVMDKContentIDUpdater>(fs_.get(), embedded ? uri("a") : uri("d"), descriptor_.get());
  }
  static kx::CURI uri(const char* name) { return kx::CURI(kx::String("file:///vms/") + name + ".vmdk"); }
  kx::P<zarn::CVMDKSparseExtentFile> open(const char* name, kx::IIOStream::Access access, const kx::CURI* as = nullptr) {
    auto stream = zarn::openVMDKFileStream(fs_.get(), as ? *as : uri(name), access);
    return kx::create<zarn::CVMDKSparseExtentFile>(stream.get(), access, 0, -1, cache_.get(), nullptr, updater_.get(),
                                                   nullptr, kx::TCryptBuffer<unsigned char>(),
                                                   kx::TBuffer<unsigned char>());
  }
  uint32_t contentIDInFile(const char* name) {
    auto stream = zarn::openVMDKFileStream(memory_.get(), uri(name), kx::IIOStream::ACCESS_READ);
    return kx::create<zarn::CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ)
        ->getDescriptor()
        ->getContentID();
  }

  kx::P<kx::CMemoryFileSystem> memory_ = kx::create<kx::CMemoryFileSystem>();
  kx::P<COpenLog> fs_ = kx::create<COpenLog>(memory_);
  kx::P<zarn::CVMDKGrainTableCache> cache_ = kx::create<zarn::CVMDKGrainTableCache>();
  kx::P<zarn::CVMDKDescriptor> descriptor_;
  kx::P<zarn::CVMDKContentIDUpdater> updater_;
};

TEST_F(ContentIDUpdaterTest, OneUpdatePerOpeningInTheFileThatHoldsTheDescriptor) {
  for (bool embedded : {true, false}) {
    SCOPED_TRACE(embedded);
    make(embedded);
    const char* holder = embedded ? "a" : "d";
    {
      auto reader = open("a", kx::IIOStream::ACCESS_READ);
      char byte;
      reader->read(&byte, 1);
    }
    EXPECT_EQ(contentIDInFile(holder), 0x1234u) << "reading changes nothing";
    fs_->opened.clear();
    const kx::CURI otherSpelling(kx::String("file:///vms/./x/../a.vmdk"));
    auto a = open("a", kx::IIOStream::ACCESS_READ_WRITE, &otherSpelling);
    a->write("x", 0);  // a write of nothing is a change too
    const uint32_t first = contentIDInFile(holder);
    EXPECT_NE(first, 0x1234u);
    EXPECT_EQ(descriptor_->getContentID(), first);
    a->write("y", 1);
    open("b", kx::IIOStream::ACCESS_READ_WRITE)->write("z", 1);
    EXPECT_EQ(contentIDInFile(holder), first);
    EXPECT_EQ(fs_->count("file:///vms/d.vmdk"), embedded ? 0 : 1) << "the extent's own stream serves an embedded one";

    updater_ = kx::create<zarn::CVMDKContentIDUpdater>(fs_.get(), uri(holder), descriptor_.get());
    open("b", kx::IIOStream::ACCESS_READ_WRITE)->write("z", 1);  // the next opening draws again
    EXPECT_NE(contentIDInFile(holder), first);
  }
}

// A descriptor file grows with its text: it is written whole beside the old
// one and renamed over it. An embedded descriptor keeps its area, and one that
// no longer fits fails the first write before any data moves.
TEST_F(ContentIDUpdaterTest, ADescriptorFileGrowsAnEmbeddedOneThatNoLongerFitsFailsTheWrite) {
  make(false, 58);  // room for the text, not for a longer ID and "encoding"
  open("a", kx::IIOStream::ACCESS_READ_WRITE)->write("data", 4);
  EXPECT_NE(contentIDInFile("d"), 0x1234u);
  EXPECT_GT(test::readFileBytes(*memory_, uri("d")).size(), 58u);
  EXPECT_FALSE(memory_->fileExists(kx::CURI(kx::String("file:///vms/d.vmdk.new"))));

  make(true);
  // Fill the embedded area (2 sectors) so that the longer ID and "encoding"
  // no longer fit.
  descriptor_->addGenericLine(std::string(944, '#'), false);
  {
    auto stream = zarn::openVMDKFileStream(memory_.get(), uri("a"), kx::IIOStream::ACCESS_READ_WRITE);
    auto accessor = kx::create<zarn::CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ_WRITE);
    *accessor->getDescriptor() = *descriptor_;
    accessor->storeDescriptor(true);
  }
  updater_ = kx::create<zarn::CVMDKContentIDUpdater>(fs_.get(), uri("a"), descriptor_.get());
  const Bytes before = test::readFileBytes(*memory_, uri("a"));
  auto a = open("a", kx::IIOStream::ACCESS_READ_WRITE);
  EXPECT_THROW(a->write("data", 4), kx::CError);
  a = nullptr;
  EXPECT_EQ(test::readFileBytes(*memory_, uri("a")), before);

  updater_->setContentIDUpdatesEnabled(false);
  open("a", kx::IIOStream::ACCESS_READ_WRITE)->write("data", 4);
  EXPECT_NE(test::readFileBytes(*memory_, uri("a")), before);
  EXPECT_FALSE(updater_->getContentIDUpdated());
}

}  // namespace
