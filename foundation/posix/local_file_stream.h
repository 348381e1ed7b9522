// The local file system's stream and error mapping, for the other POSIX code
// of the base library (the confined file system opens files beneath a folder).
#pragma once

#include <string>

#include "kx/stream.h"
#include "kx/uri.h"

namespace kx {
namespace posix {

// Takes over `fd`, an open regular file, as a stream that reports `uri`.
P<IIOStream> adoptLocalFileStream(int fd, const CURI& uri, IIOStream::Access access);
// The kx::CFileSystemError for a failed system call, as the local file system
// raises it.
[[noreturn]] void throwLocalSystemError(const char* operation, int error, const CURI& uri);
// Flushes the folder that holds `path`, so that a new name in it lasts; does
// nothing where the folder can't be opened.
void syncFolderOf(const std::string& path);

}  // namespace posix
}  // namespace kx
