#include "zarn/markers.h"

#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/stream.h"
#include "zarn/format_constants.h"

namespace zarn {

void writeVMDKMarker(kx::CDataOutStream& stream, VMDKMarkerID id, int64_t numSectors,
                     const kx::TBuffer<unsigned char>& zeros) {
  stream.writeInt64(numSectors);
  stream.writeUInt32(0);
  stream.writeUInt32(id);
  stream.getStream().write(zeros.getData(), kVMDKMarkerPaddingSize, nullptr);
}

bool isVMDKMarker(const unsigned char* sector, VMDKMarkerID id, int64_t* numSectors) {
  if (numSectors) *numSectors = 0;
  if (readLE32(sector + 8) != 0 || readLE32(sector + 12) != static_cast<uint32_t>(id)) return false;
  for (int at = kVMDKMarkerFieldsSize; at < kSectorSize; at += 4) {
    if (readLE32(sector + at) != 0) return false;
  }
  if (numSectors) *numSectors = static_cast<int64_t>(readLE64(sector));
  return true;
}

int64_t getStreamPositionVMDKSectors(kx::IStreamBase& stream) {
  const int64_t position = stream.getPosition();
  if (position % kSectorSize != 0) {
    throw kx::CError(
        "Internal error in zarn::getStreamPositionVMDKSectors. Stream position should be a multiple of 512 but it "
        "is not.",
        "", -1, kx::CProps().add("uri", stream.getURI().toString(true)).add("position", position));
  }
  return position / kSectorSize;
}

}  // namespace zarn
