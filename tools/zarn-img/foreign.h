// Disks of other tools that the library's own opening refuses (the published
// stream-optimized layout, flat extents, zeroed grains): zarn-img reads them
// through zarn::CVMDKForeignDisk, as sources of info, map, check and convert,
// and refuses to write into them.
#pragma once

#include <string>

#include "context.h"
#include "zarn/foreign_disk.h"

namespace zarn_img {

// The disk at `path` read as a foreign disk, after the library refused it
// with `refusal`; null when it isn't one: it doesn't open that way either, or
// nothing foreign is found in it (then the refusal stands: it is damage), or
// the refusal was the user's (a password, a lock).
kx::P<zarn::CVMDKForeignDisk> openForeignAfter(CToolContext& context, const std::string& path,
                                               const kx::CError& refusal);

// Raises the refusal to write into a foreign disk, when `uri` is one: a
// kx::CIOError code 13 that says to convert it first.
void refuseWritingIfForeign(CToolContext& context, const kx::CURI& uri, const std::string& name);

// "foreign, read-only: " and why the library's own opening refuses it.
std::string describeForeign(const zarn::CVMDKForeignDisk& disk);

// The commands' ways with a foreign disk; each returns the exit status.
int showForeignInfo(CToolContext& context, zarn::CVMDKForeignDisk& disk, const std::string& path, bool json);
int showForeignMap(CToolContext& context, zarn::CVMDKForeignDisk& disk, const std::string& path, bool json);
// Reads every grain the disk holds itself; 0 clean, 2 damaged grains.
int checkForeign(CToolContext& context, zarn::CVMDKForeignDisk& disk, const std::string& path, bool json);

}  // namespace zarn_img
