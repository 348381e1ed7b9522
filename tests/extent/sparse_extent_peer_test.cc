// An extent written by an independent VMDK implementation opens in zarn, reads
// byte for byte, takes writes, and reads back in that implementation as zarn
// wrote it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/sparse_extent_file.h"

namespace {

using Bytes = std::vector<unsigned char>;
const std::string kQemuImg = "/usr/bin/qemu-img";

TEST(SparseExtentPeerTest, AMonolithicSparseFileOfAnotherWriterReadsAndTakesWrites) {
  if (!test::hasPeerTool(kQemuImg.c_str())) GTEST_SKIP() << "qemu-utils not installed";
  test::CTempDir dir;
  auto fs = kx::create<kx::CLocalFileSystem>();
  const std::string raw = dir.getPath() + "/raw.img", vmdk = dir.getPath() + "/q.vmdk", back = dir.getPath() + "/back.img";
  // 8 MiB: text, noise, and a hole of zeros in the middle.
  Bytes image = test::textGrain(8 << 20, 1);
  const Bytes noise = test::noiseGrain(1 << 20, 2);
  std::copy(noise.begin(), noise.end(), image.begin() + (5 << 20));
  std::fill(image.begin() + (2 << 20), image.begin() + (4 << 20), 0);
  test::writeFileBytes(*fs, dir.getFileURI("raw.img"), image);
  std::string output;
  ASSERT_EQ(test::runPeerTool(kQemuImg + " convert -f raw -O vmdk -o subformat=monolithicSparse " +
                                  test::shellQuote(raw) + " " + test::shellQuote(vmdk), output), 0) << output;

  auto cache = kx::create<zarn::CVMDKGrainTableCache>();
  const kx::CURI uri = dir.getFileURI("q.vmdk");
  const auto open = [&](kx::IIOStream::Access access, zarn::CVMDKContentIDUpdater* updater) {
    auto stream = zarn::openVMDKFileStream(fs.get(), uri, access);
    return kx::create<zarn::CVMDKSparseExtentFile>(stream.get(), access, 0, -1, cache.get(), nullptr, updater, nullptr,
                                                   kx::TCryptBuffer<unsigned char>(), kx::TBuffer<unsigned char>());
  };
  {
    Bytes read(image.size());
    open(kx::IIOStream::ACCESS_READ, nullptr)->read(read.data(), static_cast<int>(read.size()));
    ASSERT_EQ(read, image);
  }
  {
    auto updater = kx::create<zarn::CVMDKContentIDUpdater>(fs.get(), uri, kx::create<zarn::CVMDKDescriptor>().get());
    auto extent = open(kx::IIOStream::ACCESS_READ_WRITE, updater.get());
    // Across grain borders, into the hole, and over data.
    for (const auto& [at, size] : std::vector<std::pair<int64_t, int>>{{100000, 200000}, {(3 << 20) - 7, 70000}, {(5 << 20) + 1, 3}}) {
      const Bytes data = test::noiseGrain(static_cast<size_t>(size), static_cast<uint64_t>(at));
      extent->seek(at);
      extent->write(data.data(), size);
      std::copy(data.begin(), data.end(), image.begin() + at);
    }
    extent->flushChanges();
  }
  EXPECT_EQ(test::runPeerTool(kQemuImg + " check " + test::shellQuote(vmdk), output), 0) << output;
  ASSERT_EQ(test::runPeerTool(kQemuImg + " convert -O raw " + test::shellQuote(vmdk) + " " + test::shellQuote(back),
                              output), 0) << output;
  EXPECT_TRUE(test::readFileBytes(*fs, dir.getFileURI("back.img")) == image);
}

}  // namespace
