// Writers of new sparse extent files.
//
// A sparse extent file is born complete: header, optional descriptor, both
// grain directories with all their (empty) tables and, in a compressed
// extent, the slot directory with its slot tables and the trail. Grains are
// only ever appended behind this head, and grain tables never move. The two
// layouts are described in doc/format.md.
#pragma once

#include <cstdint>

#include "kx/buffer.h"
#include "kx/file_system.h"
#include "kx/uri.h"
#include "zarn/format_constants.h"

namespace kx {
class CDataOutStream;
}

namespace zarn {

class CVMDKDescriptor;

// Writes a complete new extent file of `grainCount` grains of
// `grainSizeSectors` sectors at `uri`, plain or compressed, with `descriptor`
// (may be null) stored in an area of `descriptorSizeSectors` behind the
// header, and the encryption extension in the header when `keyHash` is not
// empty. `zeros` serves all padding: at least 512 zero bytes; the larger, the
// fewer writes. A file of that name should not exist.
//
// On any failure the half-made file is deleted (a failing delete is logged)
// and the first error goes on to the caller. Raises kx::CInvalidArgError,
// before any file is made, on a negative grain count, a grain size below 1,
// a `zeros` buffer below 512 bytes, a compressed extent without grains, and
// whatever the file's own fields could not hold: a grain above 2 GiB (above
// 65535 sectors when compressed, as slot sizes are 16 bits), a capacity above
// 2^63 bytes, directories or a head that reach past sector 2^32 - 1, a
// descriptor area above 5 MiB, a key hash above 427 bytes.
void createEmptyVMDKSparseExtentFile(kx::IFileSystem* fileSystem, const kx::CURI& uri, bool compressed,
                                     int64_t grainCount, int64_t grainSizeSectors,
                                     const kx::TBuffer<unsigned char>& zeros, CVMDKDescriptor* descriptor,
                                     int64_t descriptorSizeSectors, const kx::TBuffer<unsigned char>& keyHash);

// Writes one grain directory and its `tableCount` empty tables at the
// stream's position, which must be on a sector border; with `withMarkers`
// each table has a MARKER_GT before it and the directory words point behind
// the markers.
void writeEmptyVMDKGrainDirectoryAndTables(kx::CDataOutStream& stream, int64_t tableCount,
                                           const kx::TBuffer<unsigned char>& zeros, bool withMarkers);

// Writes the slot directory's marker, the slot directory, and `tableCount`
// empty slot tables, each behind its marker.
void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(kx::CDataOutStream& stream, int64_t tableCount,
                                                                   const kx::TBuffer<unsigned char>& zeros);

}  // namespace zarn
