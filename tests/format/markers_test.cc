#include "zarn/markers.h"

#include <gtest/gtest.h>

#include <vector>

#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "tests/support/file_bytes.h"

namespace {

using Bytes = std::vector<unsigned char>;

// `dirtyAt` > 0 puts a stray byte into the sector.
Bytes markerSector(uint32_t type, int64_t numSectors, size_t dirtyAt = 0) {
  Bytes s(512, 0);
  test::putLE(s, 0, static_cast<uint64_t>(numSectors), 8);
  test::putLE(s, 12, type, 4);
  if (dirtyAt) s[dirtyAt] = 1;
  return s;
}

TEST(MarkersTest, RecognisesMarkersWhateverTheirCountButNothingBehindTheType) {
  const auto slots = zarn::MARKER_KX_SLOT_DIRECTORY;
  struct Case {
    Bytes sector;
    zarn::VMDKMarkerID asked;
    bool expected;
    int64_t count;
  } cases[] = {
      {markerSector(zarn::MARKER_GT, 4), zarn::MARKER_GT, true, 4},
      {markerSector(slots, -3), slots, true, -3},
      {markerSector(zarn::MARKER_GT, 4), zarn::MARKER_GD, false, 0},
      {Bytes(512, 0), zarn::MARKER_EOS, true, 0},
      {Bytes(512, 0), zarn::MARKER_FOOTER, false, 0},
      {markerSector(slots, 7, 8), slots, false, 0},
      {markerSector(slots, 7, 16), slots, false, 0},
      {markerSector(slots, 7, 300), slots, false, 0},
      {markerSector(slots, 7, 511), slots, false, 0},
  };
  for (const auto& c : cases) {
    int64_t count = 99;
    EXPECT_EQ(zarn::isVMDKMarker(c.sector.data(), c.asked, &count), c.expected);
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(zarn::isVMDKMarker(c.sector.data(), c.asked, nullptr), c.expected);
  }
}

TEST(MarkersTest, WritesExactBytesAndCountsOnlyWholeSectors) {
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
    stream->seek(512);
    EXPECT_EQ(zarn::getStreamPositionVMDKSectors(*stream), 1);
    stream->seek(513);
    try {
      zarn::getStreamPositionVMDKSectors(*stream);
      ADD_FAILURE() << "counted a part of a sector";
    } catch (const kx::CError& e) {
      EXPECT_EQ(e.getCode(), -1);
      EXPECT_EQ(
          e.getMessage(),
          "Internal error in zarn::getStreamPositionVMDKSectors. Stream position should be a multiple of "
          "512 but it is not.");
      EXPECT_EQ(e.getProps().get("uri"), "file:///m");
      EXPECT_EQ(e.getProps().get("position"), "513");
    }
    stream->seek(1023);
    EXPECT_THROW(zarn::getStreamPositionVMDKSectors(*stream), kx::CError);
  }
  Bytes expected = markerSector(0x18349001, 2);
  const Bytes second = markerSector(2, -1);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_EQ(test::readFileBytes(*fs, uri), expected);
}

}  // namespace
