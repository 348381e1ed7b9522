// kx::CConfinedFileSystem: keeps every file access inside one folder tree.
//
// For applications that open disks received from elsewhere: a descriptor can
// name any file ("/etc/passwd" as an extent, "../../x" as a parent, a file
// the disk may create), and this wrapper refuses every name that leads out of
// the allowed folder. Each URI is taken apart into path segments, each
// segment percent-decoded on its own (a segment that decodes to a "/" or a NUL
// is refused, so "%2F" and "%00" can't smuggle a separator past the check),
// dot segments ("." , "..", also when encoded as "%2E") are resolved, and the
// result must lie strictly below the folder, compared segment by segment, not
// as a string prefix ("/data/vms2" is not inside "/data/vms"). The target is
// then given the resolved name, never the original text.
//
// Over a kx::CLocalFileSystem the files are opened, tested and deleted beneath
// a descriptor of the folder, so a symbolic link inside the tree that points
// out of it is refused too, also one swapped in between a check and a use.
//
// A refusal is a kx::CFileSystemError FSPROB_ACCESS_DENIED whose message names
// the URI and says that it lies outside the allowed folder, with the
// properties "uri" and "folder". Covers openFile, fileExists and deleteFile,
// and so the disk's lock file too. Streams report the URI they were opened by.
#pragma once

#include <string>
#include <vector>

#include "kx/file_system.h"

namespace kx {

class CConfinedFileSystem final : public CBase, public IFileSystem {
 public:
  // `folder` is an absolute URI of the allowed folder (a trailing "/" is
  // optional). Raises kx::CInvalidArgError for a relative one, and what the
  // local file system raises when the folder of a local target can't be
  // opened.
  CConfinedFileSystem(const P<IFileSystem>& target, const CURI& folder);
  ~CConfinedFileSystem() override;
  CConfinedFileSystem(const CConfinedFileSystem&) = delete;
  CConfinedFileSystem& operator=(const CConfinedFileSystem&) = delete;

  P<IIOStream> openFile(const CURI& uri, IIOStream::Access access, int& flags) override;
  bool fileExists(const CURI& uri) override;
  void deleteFile(const CURI& uri, bool missingIsOk) override;
  void renameFile(const CURI& from, const CURI& to) override;

  // The name the target is given for `uri`, or the refusal.
  CURI resolve(const CURI& uri) const;

 private:
  [[noreturn]] void throwOutside(const CURI& uri) const;
  // The segments below the folder of an accepted `uri`.
  std::vector<std::string> getRelativeSegments(const CURI& uri) const;

  P<IFileSystem> target_;
  CURI folder_;
  std::vector<std::string> folderSegments_;
  int folderFd_ = -1;  // for a local target: the folder, opened once
};

}  // namespace kx
