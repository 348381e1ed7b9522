// Markers of compressed extents, and stream positions in sectors.
//
// A marker is one sector: numSectors (signed 64-bit), a size word that is
// always 0, the type word, and 496 zero bytes. It says what metadata follows.
#pragma once

#include <cstdint>

#include "kx/buffer.h"
#include "zarn/format_constants.h"

namespace kx {
class CDataOutStream;
class IStreamBase;
}  // namespace kx

namespace zarn {

enum VMDKMarkerID : uint32_t {
  MARKER_EOS = 0,
  MARKER_GT = 1,
  MARKER_GD = 2,
  MARKER_FOOTER = 3,
  MARKER_KX_SLOT_TABLE = 0x18349001,
  MARKER_KX_SLOT_DIRECTORY = 0x18349002,
};

// numSectors (8) + size (4) + type (4).
constexpr int kVMDKMarkerFieldsSize = 16;
constexpr int kVMDKMarkerPaddingSize = kSectorSize - kVMDKMarkerFieldsSize;

// Writes a marker at the stream's position. REQUIRES: `zeros` holds at least
// 496 zero bytes (not checked). Raises what the stream raises.
void writeVMDKMarker(kx::CDataOutStream& stream, VMDKMarkerID id, int64_t numSectors,
                     const kx::TBuffer<unsigned char>& zeros);

// Whether the 512 bytes at `sector` are a marker of type `id`: size word 0,
// type word `id`, padding all zero; numSectors takes no part in the test.
// `numSectors` may be null; otherwise it is set to 0, and to the marker's
// count when the result is true.
bool isVMDKMarker(const unsigned char* sector, VMDKMarkerID id, int64_t* numSectors);

// The stream's position in sectors. Raises an internal kx::CError with the
// properties "uri" and "position" when the position is no multiple of 512.
int64_t getStreamPositionVMDKSectors(kx::IStreamBase& stream);

}  // namespace zarn
