// What every command of zarn-img shares: the file system (the local one, or
// confined to a folder), names turned into URIs, passwords, and disks opened
// with a password asked for only when the disk wants one.
#pragma once

#include <exception>
#include <string>
#include <vector>

#include "kx/file_system.h"
#include "kx/uri.h"
#include "password.h"
#include "zarn/disk.h"

namespace zarn_img {

// One disk of a chain: the disk a command names is level 0, its parent
// level 1, and so on.
struct CChainLevel {
  kx::P<zarn::CVMDKDisk> disk;
  std::string name;  // as the user gave it for level 0, else the local path
};

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
  // Opens the disk as every command does that reads or writes one, and
  // checks, before anything is written, what reading will rely on later, so
  // that every command reaches the same verdict on the same file (see
  // checkOpenedDisk). The chain, level 0 first, goes to `chain` if given.
  kx::P<zarn::CVMDKDisk> openDiskChecked(const std::string& path, kx::IIOStream::Access access,
                                         std::vector<CChainLevel>* chain = nullptr);
  kx::P<zarn::CVMDKDisk> openDiskChecked(const kx::CURI& uri, kx::IIOStream::Access access, const std::string& name,
                                         std::vector<CChainLevel>* chain = nullptr);
  // The checks of openDiskChecked on a disk that opened: the content IDs of
  // its descriptor parse, every extent file opens, and with `withParents`
  // every parent opens read-only where reading would find it, isn't a disk
  // already in the chain, has the content ID its child recorded and passes
  // the same checks. Raises kx::CIOError code 5 that names the disk and the
  // reason, with the library's error as inner error (password and lock
  // refusals of a parent pass through as they are). `chain` gets the levels
  // that opened, `disk` first.
  void checkOpenedDisk(const kx::P<zarn::CVMDKDisk>& disk, const std::string& name, bool withParents,
                       std::vector<CChainLevel>* chain = nullptr);
  // Where reading looks for the parent of `disk`: the reference it records,
  // or, when nothing is there, a file of that name beside the disk (a disk
  // moved from another machine). Empty for a disk without parent.
  kx::CURI findParentURI(const zarn::CVMDKDisk& disk);
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
// Whether `error`, or an error inside it, refuses the user rather than the
// disk's content: a missing or wrong password, a lock held by somebody else,
// a file the user may not open.
bool isRefusalOfTheUser(const kx::CError& error);

// "message (key: value, ...)" of a kx::CError, what() of anything else.
std::string describeError(const std::exception& error);

}  // namespace zarn_img
