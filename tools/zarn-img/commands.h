// The commands of zarn-img. Each takes the arguments behind its name, prints
// its own --help, and returns the exit status; errors leave as exceptions
// (CUsageError, CInterrupted, kx::CError) for main to report.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "arguments.h"
#include "context.h"
#include "zarn/disk.h"

namespace zarn_img {

using Args = std::vector<std::string>;

int runCreate(CToolContext& context, const Args& args);
int runConvert(CToolContext& context, const Args& args);
int runWrite(CToolContext& context, const Args& args);
int runInfo(CToolContext& context, const Args& args);
int runMap(CToolContext& context, const Args& args);
int runCheck(CToolContext& context, const Args& args);
int runRebase(CToolContext& context, const Args& args);
int runCompare(CToolContext& context, const Args& args);
int runMeasure(CToolContext& context, const Args& args);
int runCommit(CToolContext& context, const Args& args);
int runResize(CToolContext& context, const Args& args);

// One run of a disk's map, as map prints it.
struct CMapRun {
  int64_t start;
  int64_t length;
  int depth;           // the level of the chain that holds it; for zeros, the bottom
  bool data;           // some level of the chain holds it; else it reads as zeros
  int64_t offset;      // where the bytes of `start` lie in `file`; -1 unknown
  std::string file;    // the file that holds the bytes; empty for zeros
  std::string disk;    // the disk of that level, as the user named it
};
// Prints a map: in JSON every run with qemu-img's fields, else the runs that
// hold data, neighbours of one depth as one line. Returns the exit status.
int printMap(const std::vector<CMapRun>& runs, bool json);

// --password-file, --confine and -q, which every command takes.
std::vector<COptionDef> withCommonOptions(std::vector<COptionDef> definitions);
// The same and -U (--force-share), for the commands that only read disks.
std::vector<COptionDef> withReadingOptions(std::vector<COptionDef> definitions);
// Applies them; `optionsConfine` is a confine= of -o, which wins.
void applyCommonOptions(CToolContext& context, const CArguments& arguments,
                        const std::string& optionsConfine = std::string());
// Whether -q was given: no chatter on success, no notices.
bool isQuiet(const CArguments& arguments);
// --output=human|json; true for json.
bool parseOutputFormat(const CArguments& arguments);
// The help block on passwords and confinement that the commands share.
extern const char* const kCommonHelp;
// The help line of -U.
const char* getForceShareHelp();

// Makes the disk at `path` as `options` say. `sizeBytes` -1 takes the size
// of the backing file. A parent named by backing-file is opened read-only for
// its content ID and stored as written, relative to the new disk's folder; an
// encrypted parent makes an encrypted child with the same password unless
// encrypted=off (then with a warning). A size that the disk can't have as it
// is gets a notice on stderr (unless `quiet`) of the size it gets. Parts of
// an older split disk of the same name that the new disk doesn't replace are
// removed. `encrypted`, if given, learns whether the new disk is.
kx::P<zarn::CVMDKDisk> createDisk(CToolContext& context, const std::string& path, int64_t sizeBytes,
                                  const CDiskOptions& options, bool quiet, bool* encrypted = nullptr);
// The size a new disk of at least `sizeBytes` gets; a notice on stderr when
// it differs, unless `quiet`.
int64_t noteDiskSize(int64_t sizeBytes, bool quiet);

// Whether the file is meant to be a VMDK disk: by its name (*.vmdk, any case),
// or by its first bytes (see CToolContext::startsLikeVmdk). Such a file is
// opened as a disk or refused, never taken for raw bytes because it is
// damaged.
bool looksLikeVmdk(CToolContext& context, const kx::CURI& uri, const std::string& path);
// Opens and checks a file that looks like a disk; one that doesn't open is
// refused with the way out: `option` ("-f") raw copies it as bytes. The
// chain goes to `chain` if given.
kx::P<zarn::CVMDKDisk> openLookalike(CToolContext& context, const kx::CURI& uri, const std::string& path,
                                     kx::IIOStream::Access access, const char* option,
                                     std::vector<CChainLevel>* chain = nullptr);
// `format` when it is raw or vmdk; CUsageError otherwise.
std::string checkFormat(const std::string& command, const std::string& format);

// "256 MiB", "1.5 GiB", "512 B".
std::string formatSize(int64_t bytes);

}  // namespace zarn_img
