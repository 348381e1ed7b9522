// kx::CFileSystemWrapper: a file system that hands every call to another one.
//
// The base of file systems that change a few operations of a target and leave
// the rest alone (fault injection, counting, tracing): derive, override what
// differs, and call the wrapper's operation for the rest.
#pragma once

#include "kx/error.h"
#include "kx/file_system.h"

namespace kx {

class CFileSystemWrapper : public CBase, public IFileSystem {
 public:
  // Takes a reference to `target`, which must not be null.
  explicit CFileSystemWrapper(const P<IFileSystem>& target) : target_(target) {
    if (!target_) throw CError("Internal error: CFileSystemWrapper needs a target file system");
  }

  // The file system that calls go to; never null.
  IFileSystem* getTarget() const { return target_.get(); }

  P<IIOStream> openFile(const CURI& uri, IIOStream::Access access, int& flags) override {
    return target_->openFile(uri, access, flags);
  }
  bool fileExists(const CURI& uri) override { return target_->fileExists(uri); }
  void deleteFile(const CURI& uri, bool missingIsOk) override { target_->deleteFile(uri, missingIsOk); }
  void renameFile(const CURI& from, const CURI& to) override { target_->renameFile(from, to); }

 private:
  P<IFileSystem> target_;
};

}  // namespace kx
