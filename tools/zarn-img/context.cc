#include "context.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <set>
#include <string>

#include "kx/confined_file_system.h"
#include "kx/error.h"
#include "kx/local_file_system.h"
#include "kx/path.h"
#include "zarn/descriptor.h"
#include "zarn/extent_info.h"
#include "zarn/file_reference.h"
#include "zarn/parent_disk_data_provider.h"

namespace zarn_img {

namespace {

constexpr uint32_t kNoParentContentID = 0xFFFFFFFF;
constexpr int64_t kSectorBytes = 512;

std::string hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "%08x", value);
  return text;
}

[[noreturn]] void throwDamage(const std::string& message, const kx::CProps& props = kx::CProps(),
                              const kx::CError* inner = nullptr) {
  throw kx::CIOError(kx::IOERR_DAMAGED_DATA, kx::String::fromUTF8(message), props, inner);
}

// The library's error as the reason of a damage report: its message leads,
// its properties stay.
[[noreturn]] void throwDamageBecause(const std::string& what, const kx::CError& error) {
  throwDamage(what + ": " + error.getMessage().toUTF8(), error.getProps(), &error);
}

// The content IDs and every extent file of one disk; gives the content IDs.
void checkDescriptorAndExtents(zarn::CVMDKDisk& disk, const std::string& name, uint32_t& contentID,
                               uint32_t& parentContentID) {
  const kx::P<zarn::CVMDKDescriptor> descriptor = disk.getDescriptor();
  try {
    contentID = descriptor->getContentID();
    parentContentID = descriptor->getParentContentID();
  } catch (const kx::CError& error) {
    throwDamageBecause("The descriptor of " + name + " is damaged", error);
  }
  kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
  descriptor->getExtentEntries(extents);
  int64_t startSector = 0;
  for (const auto& extent : extents) {
    // An extent file opens at the first access to one of its bytes; asking
    // for a grain opens it with every check of its header, and leaves the
    // parent alone. Its last grain too: a header that holds fewer grains
    // than the extent line promises fails there.
    if (extent->getSizeSectors() > 0) {
      try {
        disk.seek(startSector * kSectorBytes);
        disk.isGrainWrittenAndIndependentOfParent();
        disk.seek((startSector + extent->getSizeSectors()) * kSectorBytes - 1);
        disk.isGrainWrittenAndIndependentOfParent();
      } catch (const kx::CError& error) {
        if (isRefusalOfTheUser(error)) throw;
        throwDamageBecause("The extent file " + extent->getFilename().toUTF8() + " of " + name + " doesn't open",
                           error);
      }
    }
    startSector += extent->getSizeSectors();
  }
  disk.seek(0);
}

}  // namespace

bool isMissingPasswordError(const kx::CError& error) {
  return error.getMessage() == "VMDK is encrypted but no password provided";
}

bool isRefusalOfTheUser(const kx::CError& error) {
  for (const kx::CError* e = &error; e; e = e->getInner()) {
    if (isMissingPasswordError(*e) || e->getMessage() == "Specified VMDK encryption password is not correct.") {
      return true;
    }
    if (dynamic_cast<const kx::CLockFileError*>(e)) return true;
    if (const auto* fsError = dynamic_cast<const kx::CFileSystemError*>(e)) {
      if (fsError->getProblem() == kx::FSPROB_LOCKED || fsError->getProblem() == kx::FSPROB_ACCESS_DENIED) return true;
    }
  }
  return false;
}

std::string describeError(const std::exception& error) {
  const auto* kxError = dynamic_cast<const kx::CError*>(&error);
  if (!kxError) return error.what();
  std::string text = kxError->getMessage().toUTF8();
  if (!kxError->getProps().isEmpty()) text += " (" + kxError->getProps().toString().toUTF8() + ")";
  return text;
}

void CToolContext::setConfine(const std::string& folder) {
  fileSystem_ = kx::P<kx::IFileSystem>::adopt(
      new kx::CConfinedFileSystem(kx::create<kx::CLocalFileSystem>(), pathToURI(folder + "/")));
}

kx::IFileSystem* CToolContext::getFileSystem() {
  if (!fileSystem_) fileSystem_ = kx::create<kx::CLocalFileSystem>();
  return fileSystem_.get();
}

kx::CURI CToolContext::pathToURI(const std::string& path) {
  std::string absolute = path;
  if (absolute.empty() || absolute[0] != '/') {
    char buffer[PATH_MAX];
    if (!::getcwd(buffer, sizeof buffer)) throw kx::CError("Cannot find the working folder.");
    absolute = std::string(buffer) + "/" + path;
  }
  return kx::CURI(kx::CUnixPath(kx::String::fromUTF8(absolute)), true);
}

std::string CToolContext::uriToPath(const kx::CURI& uri) {
  try {
    return kx::CLocalFileSystem::getLocalPath(uri);
  } catch (const kx::CError&) {
    return uri.toString(true).toUTF8();
  }
}

kx::P<zarn::CVMDKDisk> CToolContext::openDisk(const std::string& path, kx::IIOStream::Access access) {
  return openDisk(pathToURI(path), access, path);
}

kx::P<zarn::CVMDKDisk> CToolContext::openDisk(const kx::CURI& uri, kx::IIOStream::Access access,
                                              const std::string& name) {
  // Opened for writing, a missing main file would be made, empty, and then
  // refused as damaged.
  if (access != kx::IIOStream::ACCESS_READ && !getFileSystem()->fileExists(uri)) {
    throw kx::CFileSystemError(kx::FSPROB_NOT_FOUND,
                               kx::CError(kx::String::fromUTF8("No such file or directory: " + name), kx::String(), -1,
                                          kx::CProps().add("uri", uri.toString(true))));
  }
  kx::String password = passwords_.isGiven() ? passwords_.get(std::string(), false) : kx::String();
  try {
    try {
      return kx::create<zarn::CVMDKDisk>(getFileSystem(), uri, access, password);
    } catch (const kx::CError& error) {
      if (!isMissingPasswordError(error) || !password.isEmpty() || !CPasswordSource::hasTerminal()) throw;
    }
    password = getPasswordFor(name, false);
    return kx::create<zarn::CVMDKDisk>(getFileSystem(), uri, access, password);
  } catch (kx::CError& error) {
    // Errors from deep inside a file ("Invalid hex number") don't say which
    // disk they come from.
    if (!error.getProps().has("uri")) error.getParams().add("disk", kx::String::fromUTF8(name));
    throw;
  }
}

kx::P<zarn::CVMDKDisk> CToolContext::openDiskChecked(const std::string& path, kx::IIOStream::Access access,
                                                     std::vector<CChainLevel>* chain) {
  return openDiskChecked(pathToURI(path), access, path, chain);
}

kx::P<zarn::CVMDKDisk> CToolContext::openDiskChecked(const kx::CURI& uri, kx::IIOStream::Access access,
                                                     const std::string& name, std::vector<CChainLevel>* chain) {
  kx::P<zarn::CVMDKDisk> disk = openDisk(uri, access, name);
  checkOpenedDisk(disk, name, true, chain);
  return disk;
}

void CToolContext::checkOpenedDisk(const kx::P<zarn::CVMDKDisk>& disk, const std::string& name, bool withParents,
                                   std::vector<CChainLevel>* chain) {
  std::vector<CChainLevel> levels{{disk, name}};
  std::set<kx::CURI> seen{disk->getMainFileURI().toNormalized()};
  uint32_t expectedContentID = 0;  // what the level below recorded
  for (;;) {
    const CChainLevel level = levels.back();
    uint32_t contentID = 0;
    uint32_t parentContentID = 0;
    checkDescriptorAndExtents(*level.disk, level.name, contentID, parentContentID);
    if (levels.size() > 1 && contentID != expectedContentID) {
      const std::string& child = levels[levels.size() - 2].name;
      throwDamage("The parent of " + child + " has changed since " + child + " was made over it: " + level.name +
                      " has content ID " + hex32(contentID) + ", not " + hex32(expectedContentID) + ".");
    }
    if (!withParents || parentContentID == kNoParentContentID) break;
    if (levels.size() > static_cast<size_t>(zarn::CVMDKParentDiskDataProvider::kMaxChainDepth)) {
      throwDamage("The parent chain of " + name + " is deeper than " +
                  std::to_string(zarn::CVMDKParentDiskDataProvider::kMaxChainDepth) + " disks.");
    }
    const auto parentFails = [&level](const kx::CError& error) {
      if (isRefusalOfTheUser(error)) throw;
      throwDamageBecause("The parent of " + level.name + " doesn't open", error);
    };
    kx::CURI parentURI;
    try {
      parentURI = findParentURI(*level.disk);
    } catch (const kx::CError& error) {
      parentFails(error);
    }
    const std::string parentName = uriToPath(parentURI);
    if (!seen.insert(parentURI).second) {
      throwDamage("The parent chain of " + level.name + " leads back to " + parentName + ", a disk already in it.");
    }
    kx::P<zarn::CVMDKDisk> parent;
    try {
      parent = openDisk(parentURI, kx::IIOStream::ACCESS_READ, parentName);
    } catch (const kx::CError& error) {
      parentFails(error);
    }
    levels.push_back({parent, parentName});
    expectedContentID = parentContentID;
  }
  if (chain) *chain = std::move(levels);
}

kx::CURI CToolContext::findParentURI(const zarn::CVMDKDisk& disk) {
  const kx::CURI recorded = disk.getParentDiskMainURI();
  if (recorded.isEmpty() || getFileSystem()->fileExists(recorded)) return recorded.toNormalized();
  const kx::CURI beside = disk.getMainFileURI().getParent() << recorded.getName();
  return getFileSystem()->fileExists(beside) ? beside.toNormalized() : recorded.toNormalized();
}

kx::String CToolContext::getPasswordFor(const std::string& name, bool confirm) {
  return passwords_.get("Password for " + name + ": ", confirm);
}

int64_t CToolContext::getFileSize(const kx::CURI& uri) {
  if (!getFileSystem()->fileExists(uri)) return -1;
  int flags = 0;
  return getFileSystem()->openFile(uri, kx::IIOStream::ACCESS_READ, flags)->getLength();
}

}  // namespace zarn_img
