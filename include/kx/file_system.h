// The library's one door to files.
#pragma once

#include "kx/base.h"
#include "kx/stream.h"
#include "kx/uri.h"

namespace kx {

class IFileSystem : public virtual IBase {
 public:
  // Opens the file named by `uri`. Access 1 opens an existing file read-only;
  // access 3 opens it for reading and writing and makes it if it is missing.
  // `flags` is reserved and passed as 0. Raises kx::CFileSystemError (problem
  // FSPROB_NOT_FOUND for a missing file) with the property "uri".
  virtual P<IIOStream> openFile(const CURI& uri, IIOStream::Access access, int& flags) = 0;
  virtual bool fileExists(const CURI& uri) = 0;
  // Deletes the file; a missing file is no error when `missingIsOk`.
  virtual void deleteFile(const CURI& uri, bool missingIsOk) = 0;
  // Gives the file `from` the name `to`, replacing any file of that name in
  // one step: whoever opens `to` finds the old file or the new one, never
  // none. Streams open on either keep the file they have. On return the new
  // name is durable where the system can make it so (its folder is flushed).
  // Raises kx::CFileSystemError (FSPROB_NOT_FOUND for a missing `from`) with
  // the property "uri".
  virtual void renameFile(const CURI& from, const CURI& to) = 0;
};

}  // namespace kx
