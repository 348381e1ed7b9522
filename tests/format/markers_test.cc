#include "zarn/markers.h"

#include <gtest/gtest.h>

#include <vector>

#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "tests/support/file_bytes.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes markerSector(uint32_t type, int64_t numSectors) {
  Bytes s(512, 0);
  test::putLE(s, 0, static_cast<uint64_t>(numSectors), 8);
  test::putLE(s, 12, type, 4);
  return s;
}

TEST(MarkersTest, RecognisesMarkersWhateverTheirCount) {
  struct Case {
    Bytes sector;
    zarn::VMDKMarkerID asked;
    bool expected;
    int64_t count;
  } cases[] = {
      {markerSector(zarn::MARKER_GT, 4), zarn::MARKER_GT, true, 4},
      {markerSector(zarn::MARKER_KX_SLOT_DIRECTORY, -3), zarn::MARKER_KX_SLOT_DIRECTORY, true, -3},
      {markerSector(zarn::MARKER_GT, 4), zarn::MARKER_GD, false, 0},
      {Bytes(512, 0), zarn::MARKER_EOS, true, 0},
      {Bytes(512, 0), zarn::MARKER_FOOTER, false, 0},
  };
  for (const auto& c : cases) {
    int64_t count = 99;
    EXPECT_EQ(zarn::isVMDKMarker(c.sector.data(), c.asked, &count), c.expected);
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(zarn::isVMDKMarker(c.sector.data(), c.asked, nullptr), c.expected);
  }
}

TEST(MarkersTest, AnyNonZeroWordBehindTheTypeRefuses) {
  for (size_t at : {8u, 16u, 300u, 511u}) {
    Bytes s = markerSector(zarn::MARKER_KX_SLOT_DIRECTORY, 7);
    s[at] = 1;
    int64_t count = 99;
    EXPECT_FALSE(zarn::isVMDKMarker(s.data(), zarn::MARKER_KX_SLOT_DIRECTORY, &count)) << at;
    EXPECT_EQ(count, 0);
  }
}

TEST(MarkersTest, WrittenMarkerHasTheExactBytes) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  const kx::CURI uri(kx::String("file:///m"));
  kx::TBuffer<unsigned char> zeros(512);
  {
    int flags = 0;
    auto stream = fs->openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags);
    kx::CDataOutStream out(*stream);
    zarn::writeVMDKMarker(out, zarn::MARKER_KX_SLOT_TABLE, 2, zeros);
    zarn::writeVMDKMarker(out, zarn::MARKER_GD, -1, zeros);
    EXPECT_EQ(zarn::getStreamPositionVMDKSectors(*stream), 2);
  }
  const Bytes bytes = test::readFileBytes(*fs, uri);
  ASSERT_EQ(bytes.size(), 1024u);
  Bytes expected = markerSector(0x18349001, 2);
  Bytes second = markerSector(2, -1);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_EQ(bytes, expected);
}

TEST(MarkersTest, StreamPositionMustBeWholeSectors) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  int flags = 0;
  auto stream = fs->openFile(kx::CURI(kx::String("file:///p")), kx::IIOStream::ACCESS_READ_WRITE, flags);
  Bytes data(2048, 0);
  stream->write(data.data(), 2048, nullptr);
  struct Case {
    int64_t position;
    int64_t sectors;  // -1: error
  } cases[] = {{0, 0}, {1024, 2}, {1023, -1}, {513, -1}, {2048, 4}};
  for (const auto& c : cases) {
    stream->seek(c.position);
    if (c.sectors >= 0) {
      EXPECT_EQ(zarn::getStreamPositionVMDKSectors(*stream), c.sectors);
      continue;
    }
    try {
      zarn::getStreamPositionVMDKSectors(*stream);
      ADD_FAILURE() << "no error at " << c.position;
    } catch (const kx::CError& e) {
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_EQ(e.getMessage(),
                "Internal error in zarn::getStreamPositionVMDKSectors. Stream position should be a multiple of 512 "
                "but it is not.");
      EXPECT_EQ(e.getProps().get("uri"), "file:///p");
      EXPECT_EQ(e.getProps().get("position"), std::to_string(c.position));
    }
  }
}

}  // namespace
