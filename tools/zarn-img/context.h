// What every command of zarn-img shares: the file system (the local one, or
// confined to a folder), names turned into URIs and back into the names the
// user typed, passwords, and disks opened with a password asked for only when
// the disk or one of its parents wants one.
#pragma once

#include <exception>
#include <map>
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
  std::string name;  // as the user gave it for level 0, else see getDisplayName
};

class CToolContext {
 public:
  // Every file goes through a kx::CConfinedFileSystem over `folder` (a path,
  // made absolute) from now on. Raises kx::CError when the folder can't be
  // opened.
  void setConfine(const std::string& folder);
  kx::IFileSystem* getFileSystem();
  // With `on`, disks opened read-only from now on take no lock: their lock
  // files are opened as always, but locking them does nothing. Warns once on
  // stderr that a disk written meanwhile may read inconsistently.
  void setForceShare(bool on);
  CPasswordSource& getPasswords() { return passwords_; }

  // A path, made absolute against the working folder and normalized, as a
  // "file:" URI.
  static kx::CURI pathToURI(const std::string& path);
  // The local path of a "file:" URI.
  static std::string uriToPath(const kx::CURI& uri);

  // Messages name `uri` as `name` from now on (the path the user typed).
  void setDisplayName(const kx::CURI& uri, const std::string& name);
  // How messages name a file: as the user typed it; a file beside one the
  // user typed with the same folder part; else its path relative to the
  // working folder when it lies under it, else its absolute path.
  std::string getDisplayName(const kx::CURI& uri) const;
  // "message (key: value, ...)" of a kx::CError with every URI of the message
  // and its properties shown by getDisplayName, and a property left out whose
  // file the message names already; what() of anything else. A refusal of
  // --confine names the disk's file, not the lock file beside it.
  std::string describe(const std::exception& error) const;

  // Opens the disk at `path`. An encrypted disk (or an encrypted parent met
  // on the way) that got no password from the file or the environment is
  // opened again after a prompt on the terminal. A file that isn't a VMDK
  // disk by its first bytes is refused as such, whatever else failed.
  kx::P<zarn::CVMDKDisk> openDisk(const std::string& path, kx::IIOStream::Access access);
  kx::P<zarn::CVMDKDisk> openDisk(const kx::CURI& uri, kx::IIOStream::Access access, const std::string& name);
  // Opens the disk at `uri` over `parent`, an open disk that it reads
  // through instead of the one its descriptor names (see the CVMDKDisk
  // constructor); with the password the run knows by now.
  kx::P<zarn::CVMDKDisk> openDiskOver(const kx::CURI& uri, kx::IIOStream::Access access, zarn::CVMDKDisk* parent);
  // Opens the disk as every command does that reads or writes one, and
  // checks, before anything is written, what reading will rely on later, so
  // that every command reaches the same verdict on the same file (see
  // checkOpenedDisk). The chain, level 0 first, goes to `chain` if given. A
  // disk whose parent asked for the password is opened again with it, so
  // that it can read through the parent.
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
  // Whether the first bytes of the file are those of a VMDK disk: the magic
  // of a sparse extent (plain or encrypted), or descriptor lines
  // ("# Disk DescriptorFile", "createType=", an extent line) in its first
  // 8 KiB.
  bool startsLikeVmdk(const kx::CURI& uri);
  // The file system to open disks with for `access`: without the lock for
  // readers under -U.
  kx::IFileSystem* getFileSystemFor(kx::IIOStream::Access access);

 private:

  kx::P<kx::IFileSystem> fileSystem_;
  kx::P<kx::IFileSystem> unlockedFileSystem_;  // over fileSystem_, with -U
  bool forceShare_ = false;
  CPasswordSource passwords_;
  std::map<std::string, std::string> displayNames_;  // by URI text
};

// Whether `error` is the refusal of an encrypted disk opened without password.
bool isMissingPasswordError(const kx::CError& error);
// Whether `error`, or an error inside it, refuses the user rather than the
// disk's content: a missing or wrong password, a lock held by somebody else,
// a file the user may not open.
bool isRefusalOfTheUser(const kx::CError& error);
// Whether `error` or an error inside it is a file system error of `problem`.
bool hasFileSystemProblem(const kx::CError& error, int problem);

// "message (key: value, ...)" of a kx::CError, what() of anything else.
std::string describeError(const std::exception& error);

}  // namespace zarn_img
