// The bytes that writeVMDKMarker puts out are checked in the compressed
// layouts of empty_extent_file_test.cc.
#include "zarn/markers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kx/buffer_stream.h"
#include "kx/error.h"
#include "tests/support/caught_error.h"
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
  const struct {
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
      {markerSector(slots, 7, 511), slots, false, 0},
  };
  for (const auto& c : cases) {
    int64_t count = 99;
    EXPECT_EQ(zarn::isVMDKMarker(c.sector.data(), c.asked, &count), c.expected);
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(zarn::isVMDKMarker(c.sector.data(), c.asked, nullptr), c.expected);
  }
}

TEST(MarkersTest, CountsOnlyWholeSectors) {
  kx::CBufferStream stream(kx::create<kx::TBuffer<unsigned char>>(1024), 2.0,
                           kx::CURI(kx::String("file:///m")));
  stream.seek(512);
  EXPECT_EQ(zarn::getStreamPositionVMDKSectors(stream), 1);
  for (int64_t position : {513, 1023}) {
    stream.seek(position);
    const kx::CError e = test::caught([&] { zarn::getStreamPositionVMDKSectors(stream); }, kx::CError(""));
    EXPECT_EQ(e.getMessage(),
              "Internal error in zarn::getStreamPositionVMDKSectors. Stream position should be a multiple of "
              "512 but it is not.");
    EXPECT_EQ(e.getProps().toString(), "uri: file:///m, position: " + std::to_string(position));
  }
}

}  // namespace
