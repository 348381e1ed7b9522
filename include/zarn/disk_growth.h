// Growing a disk in place, into the room its last extent's grain tables have.
//
// Grain tables are made whole (512 grains each), so the last table of an
// extent usually covers grains beyond the extent's end. A disk grows into that
// room without new metadata: the last extent's header (and the footer of a
// compressed extent) and its extent line take the larger capacity, in this
// order, so that a crash in between leaves a header larger than its line,
// which opens as the old size. Beyond that room the disk would need new grain
// tables, and this doesn't make them.
#pragma once

#include <cstdint>

#include "kx/file_system.h"
#include "zarn/disk.h"

namespace zarn {

// The largest size in bytes that growVMDKDisk can give `disk`: the last
// extent's tables full. `fileSystem` is the one the disk was opened through.
// Raises kx::CIOError code 5 when the last extent's header doesn't agree
// with its extent line, and what opening the extent file raises.
int64_t calcVMDKDiskGrowthLimitBytes(kx::IFileSystem* fileSystem, CVMDKDisk& disk);

// Grows `disk`, opened for writing through `fileSystem` and not yet written
// through, to `newSizeBytes`, and stores its descriptor. The object keeps its
// old size: let it go and open the disk again to use the new one. Children
// keep reading what they read: the new bytes read as zeros. Raises
// kx::CInvalidArgError before anything changes for a size below the disk's
// own, one that is no whole number of sectors, and one beyond
// calcVMDKDiskGrowthLimitBytes (with "limitBytes"); kx::CIOError code 5 when
// the last table holds entries beyond the extent's end, or a compressed
// extent's footer isn't at the file's end; errors of the files pass through.
void growVMDKDisk(kx::IFileSystem* fileSystem, CVMDKDisk& disk, int64_t newSizeBytes);

}  // namespace zarn
