// The commands of zarn-img. Each takes the arguments behind its name, prints
// its own --help, and returns the exit status; errors leave as exceptions
// (CUsageError, CInterrupted, kx::CError) for main to report.
#pragma once

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

// --password-file and --confine, which every command that opens a disk takes.
std::vector<COptionDef> withCommonOptions(std::vector<COptionDef> definitions);
// Applies them; `optionsConfine` is a confine= of -o, which wins.
void applyCommonOptions(CToolContext& context, const CArguments& arguments,
                        const std::string& optionsConfine = std::string());
// --output=human|json; true for json.
bool parseOutputFormat(const CArguments& arguments);
// The help block on passwords and confinement that the commands share.
extern const char* const kCommonHelp;

// Makes the disk at `path` as `options` say. `sizeBytes` -1 takes the size
// of the backing file. A parent named by backing-file is opened read-only for
// its content ID and stored as written, relative to the new disk's folder.
kx::P<zarn::CVMDKDisk> createDisk(CToolContext& context, const std::string& path, int64_t sizeBytes,
                                  const CDiskOptions& options);

// "256 MiB", "1.5 GiB", "512 B".
std::string formatSize(int64_t bytes);

}  // namespace zarn_img
