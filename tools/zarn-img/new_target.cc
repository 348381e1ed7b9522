#include "new_target.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <set>

#include "kx/error.h"
#include "kx/log.h"
#include "zarn/descriptor.h"
#include "zarn/extent_info.h"
#include "zarn/file_reference.h"

namespace zarn_img {

CNewTarget::CNewTarget(CToolContext& context, const kx::CURI& uri)
    : context_(context),
      uri_(uri.toNormalized()),
      folder_(CToolContext::uriToPath(uri_.getParent())),
      title_(uri_.getTitle().toUTF8()),
      extension_(uri_.getExtension().toUTF8()),
      before_(listLookalikes()) {}

std::map<std::string, CNewTarget::Identity> CNewTarget::listLookalikes() const {
  std::map<std::string, Identity> found;
  DIR* dir = ::opendir(folder_.c_str());
  if (!dir) return found;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.size() < title_.size() + extension_.size() || name.compare(0, title_.size(), title_) != 0 ||
        name.compare(name.size() - extension_.size(), extension_.size(), extension_) != 0) {
      continue;
    }
    struct stat info;
    if (::fstatat(::dirfd(dir), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode)) continue;
    found[name] = {static_cast<unsigned long long>(info.st_ino),
                   static_cast<long long>(info.st_ctim.tv_sec) * 1000000000LL + info.st_ctim.tv_nsec};
  }
  ::closedir(dir);
  return found;
}

void CNewTarget::setDisk(const zarn::CVMDKDisk& disk) {
  const kx::CURI main = disk.getMainFileURI();
  diskFiles_.push_back(main);
  diskFiles_.push_back(main.getParent() << (main.getName() + ".lock"));
  kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
  disk.getDescriptor()->getExtentEntries(extents);
  for (const auto& extent : extents) {
    diskFiles_.push_back(zarn::vmdkFileReferenceToURI(main.getParent(), extent->getFilename()));
  }
}

bool CNewTarget::remove() {
  std::set<kx::CURI> doomed;
  for (const kx::CURI& uri : diskFiles_) doomed.insert(uri.toNormalized());
  if (raw_) doomed.insert(uri_);
  // Only a disk whose making failed leaves files without a descriptor that
  // names them.
  if (diskFiles_.empty() && !raw_) {
    for (const auto& entry : listLookalikes()) {
      const auto old = before_.find(entry.first);
      if (old == before_.end() || old->second != entry.second) {
        doomed.insert((uri_.getParent() << kx::String::fromUTF8(entry.first)).toNormalized());
      }
    }
  }
  bool found = false;
  for (const kx::CURI& uri : doomed) {
    try {
      if (!context_.getFileSystem()->fileExists(uri)) continue;
      found = true;
      context_.getFileSystem()->deleteFile(uri, true);
    } catch (const kx::CError& error) {
      kx::logWarning(error, "Cannot remove a file of the unfinished target");
    }
  }
  return found;
}

}  // namespace zarn_img
