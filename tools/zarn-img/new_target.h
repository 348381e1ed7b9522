// The files that a convert into a new target makes. A convert that fails or
// is interrupted removes them all: a target cut off halfway reads like a copy
// of the source without being one.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "context.h"
#include "kx/uri.h"
#include "zarn/disk.h"

namespace zarn_img {

class CNewTarget {
 public:
  // Notes the files of the target's folder named like the target (its title,
  // then anything, then its extension), before anything is made: a disk
  // whose making failed halfway left files that only this tells apart from
  // older ones.
  CNewTarget(CToolContext& context, const kx::CURI& uri);

  // The target is a new raw file.
  void setRaw() { raw_ = true; }
  // The target is `disk`: its main file, the extent files of its descriptor
  // and its lock file. Call it while the disk is open.
  void setDisk(const zarn::CVMDKDisk& disk);
  // Removes every file that the convert made: the ones named above, or, when
  // the disk's making failed before there was a disk, those named like the
  // target that are new or replaced since construction. The disk must be let
  // go before. Never raises; a file that stays is a warning. Returns whether
  // there was anything to remove.
  bool remove();

 private:
  using Identity = std::pair<unsigned long long, long long>;  // inode, change time in ns
  // The files of the folder named like the target, by name.
  std::map<std::string, Identity> listLookalikes() const;

  CToolContext& context_;
  kx::CURI uri_;
  std::string folder_;
  std::string title_;
  std::string extension_;
  std::map<std::string, Identity> before_;
  bool raw_ = false;
  std::vector<kx::CURI> diskFiles_;
};

}  // namespace zarn_img
