// File operations beneath an open folder, so that no name, link or link
// swapped in between check and use leads out of it (confined_posix.cc).
#pragma once

#include <functional>
#include <string>

#include "kx/stream.h"
#include "kx/uri.h"

namespace kx {
namespace confined {

// Opens the folder at `path`; the descriptor is the caller's to close.
int openFolder(const std::string& path, const CURI& uri);
void closeFolder(int folderFd) noexcept;
// `relativePath` is a resolved path below the folder ("a/b.vmdk"). `uri` is
// what the stream reports and errors name. For a path that the system would
// resolve out of the folder `refuse` is called, which raises; other failures
// are raised as the local file system raises them.
P<IIOStream> openBeneath(int folderFd, const std::string& relativePath, const CURI& uri, IIOStream::Access access,
                         const std::function<void()>& refuse);
bool existsBeneath(int folderFd, const std::string& relativePath, const CURI& uri, const std::function<void()>& refuse);
void deleteBeneath(int folderFd, const std::string& relativePath, const CURI& uri, bool missingIsOk,
                   const std::function<void()>& refuse);
void renameBeneath(int folderFd, const std::string& fromPath, const std::string& toPath, const CURI& from,
                   const std::function<void()>& refuse);

}  // namespace confined
}  // namespace kx
