// What every command of zarn-img shares: the file system (the local one, or
// confined to a folder), names turned into URIs, passwords, and disks opened
// with a password asked for only when the disk wants one.
#pragma once

#include <string>

#include "kx/file_system.h"
#include "kx/uri.h"
#include "password.h"
#include "zarn/disk.h"

namespace zarn_img {

class CToolContext {
 public:
  // Every file goes through a kx::CConfinedFileSystem over `folder` (a path,
  // made absolute) from now on. Raises kx::CError when the folder can't be
  // opened.
  void setConfine(const std::string& folder);
  kx::IFileSystem* getFileSystem();
  CPasswordSource& getPasswords() { return passwords_; }

  // A path, made absolute against the working folder and normalized, as a
  // "file:" URI.
  static kx::CURI pathToURI(const std::string& path);
  // The local path of a "file:" URI, for messages and listings.
  static std::string uriToPath(const kx::CURI& uri);

  // Opens the disk at `path`. An encrypted disk (or an encrypted parent met
  // on the way) that got no password from the file or the environment is
  // opened again after a prompt on the terminal.
  kx::P<zarn::CVMDKDisk> openDisk(const std::string& path, kx::IIOStream::Access access);
  kx::P<zarn::CVMDKDisk> openDisk(const kx::CURI& uri, kx::IIOStream::Access access, const std::string& name);
  // The password for a disk that is known to need one ("" when none can be had).
  kx::String getPasswordFor(const std::string& name, bool confirm);

  // The size of a file in bytes, -1 when it doesn't exist.
  int64_t getFileSize(const kx::CURI& uri);

 private:
  kx::P<kx::IFileSystem> fileSystem_;
  CPasswordSource passwords_;
};

// Whether `error` is the refusal of an encrypted disk opened without password.
bool isMissingPasswordError(const kx::CError& error);

}  // namespace zarn_img
