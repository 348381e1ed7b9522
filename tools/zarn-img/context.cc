#include "context.h"

#include "foreign.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "kx/confined_file_system.h"
#include "kx/error.h"
#include "kx/file_system_wrapper.h"
#include "kx/local_file_system.h"
#include "kx/stream_wrapper.h"
#include "kx/path.h"
#include "zarn/descriptor.h"
#include "zarn/extent_info.h"
#include "zarn/file_reference.h"
#include "zarn/parent_disk_data_provider.h"
#include "zarn/sparse_extent_header.h"

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

// A lock that holds nothing: what -U hands out for the range locks of lock
// files.
class CNoLock final : public kx::CBase, public kx::IStreamLock {};

class CUnlockedStream final : public kx::CStreamWrapper {
 public:
  explicit CUnlockedStream(const kx::P<kx::IIOStream>& target) : kx::CStreamWrapper(target) {}
  kx::P<kx::IStreamLock> lockRange(int64_t, int64_t, LockType) override { return kx::create<CNoLock>(); }
};

// Opens every file as its target does, and the lock files beside disks so
// that locking them does nothing: a reader that doesn't wait for, and doesn't
// stop, a writer of the same disk.
class CUnlockedFileSystem final : public kx::CFileSystemWrapper {
 public:
  explicit CUnlockedFileSystem(const kx::P<kx::IFileSystem>& target) : kx::CFileSystemWrapper(target) {}
  kx::P<kx::IIOStream> openFile(const kx::CURI& uri, kx::IIOStream::Access access, int& flags) override {
    kx::P<kx::IIOStream> stream = kx::CFileSystemWrapper::openFile(uri, access, flags);
    if (!uri.getName().EndsWith(".lock")) return stream;
    return kx::create<CUnlockedStream>(stream);
  }
};

bool isCharacterOfDescriptorWord(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }

bool startsWithWord(const std::string& line, size_t& at, const char* word) {
  const size_t length = std::strlen(word);
  if (line.compare(at, length, word) != 0) return false;
  at += length;
  return true;
}

size_t skipBlanks(const std::string& line, size_t at) {
  while (at < line.size() && (line[at] == ' ' || line[at] == '\t')) ++at;
  return at;
}

// A line "createType=..." (any case, blanks around the "=") or an extent line
// "RW 2048 SPARSE "name"".
bool isDescriptorLine(const std::string& line) {
  size_t at = skipBlanks(line, 0);
  std::string lower;
  for (char c : line.substr(at, 10)) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "createtype" && skipBlanks(line, at + 10) < line.size() && line[skipBlanks(line, at + 10)] == '=') {
    return true;
  }
  if (!startsWithWord(line, at, "RW") && !startsWithWord(line, at, "RDONLY") &&
      !startsWithWord(line, at, "NOACCESS")) {
    return false;
  }
  size_t next = skipBlanks(line, at);
  if (next == at || next >= line.size() || !std::isdigit(static_cast<unsigned char>(line[next]))) return false;
  while (next < line.size() && std::isdigit(static_cast<unsigned char>(line[next]))) ++next;
  at = skipBlanks(line, next);
  if (at == next) return false;
  while (at < line.size() && isCharacterOfDescriptorWord(line[at])) ++at;
  next = skipBlanks(line, at);
  return next > at && next < line.size() && line[next] == '"';
}

// How much of a file the probe reads: a descriptor's header lines and its
// first extent lines stand in its first few KiB.
constexpr int kProbeBytes = 8192;

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
  return error.getMessage().StartsWith("VMDK is encrypted but no password provided");
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

bool hasFileSystemProblem(const kx::CError& error, int problem) {
  for (const kx::CError* e = &error; e; e = e->getInner()) {
    const auto* fsError = dynamic_cast<const kx::CFileSystemError*>(e);
    if (fsError && fsError->getProblem() == problem) return true;
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
  const kx::CURI uri = pathToURI(folder + "/");
  fileSystem_ = kx::P<kx::IFileSystem>::adopt(new kx::CConfinedFileSystem(kx::create<kx::CLocalFileSystem>(), uri));
  unlockedFileSystem_ = nullptr;
  // The confined file system names the folder without its final slash.
  std::string text = uri.toString(true).toUTF8();
  if (text.size() > 1 && text.back() == '/') text.pop_back();
  displayNames_[text] = folder;
}

kx::IFileSystem* CToolContext::getFileSystem() {
  if (!fileSystem_) fileSystem_ = kx::create<kx::CLocalFileSystem>();
  return fileSystem_.get();
}

void CToolContext::setForceShare(bool on) {
  if (on && !forceShare_) {
    std::fprintf(stderr,
                 "zarn-img: warning: -U: disks are read without their lock; what another process writes "
                 "meanwhile may read half old, half new\n");
  }
  forceShare_ = on;
}

kx::IFileSystem* CToolContext::getFileSystemFor(kx::IIOStream::Access access) {
  if (!forceShare_ || access != kx::IIOStream::ACCESS_READ) return getFileSystem();
  if (!unlockedFileSystem_) unlockedFileSystem_ = kx::create<CUnlockedFileSystem>(kx::P<kx::IFileSystem>::share(getFileSystem()));
  return unlockedFileSystem_.get();
}

void CToolContext::setDisplayName(const kx::CURI& uri, const std::string& name) {
  displayNames_[uri.toNormalized().toString(true).toUTF8()] = name;
}

std::string CToolContext::getDisplayName(const kx::CURI& uri) const {
  const kx::CURI normalized = uri.toNormalized();
  const auto known = displayNames_.find(normalized.toString(true).toUTF8());
  if (known != displayNames_.end()) return known->second;
  const std::string folder = normalized.getParent().toString(true).toUTF8();
  for (const auto& entry : displayNames_) {
    const size_t slash = entry.first.rfind('/');
    if (slash == std::string::npos || entry.first.compare(0, slash + 1, folder) != 0 || slash + 1 != folder.size()) {
      continue;
    }
    const size_t typedSlash = entry.second.rfind('/');
    const std::string typedFolder = typedSlash == std::string::npos ? "" : entry.second.substr(0, typedSlash + 1);
    return typedFolder + normalized.getName().toUTF8();
  }
  const std::string path = uriToPath(normalized);
  char buffer[PATH_MAX];
  if (::getcwd(buffer, sizeof buffer)) {
    const std::string here = std::string(buffer) + (std::strcmp(buffer, "/") == 0 ? "" : "/");
    if (path.size() > here.size() && path.compare(0, here.size(), here) == 0) return path.substr(here.size());
  }
  return path;
}

std::string CToolContext::describe(const std::exception& error) const {
  const auto* kxError = dynamic_cast<const kx::CError*>(&error);
  if (!kxError) return error.what();
  std::string message = kxError->getMessage().toUTF8();
  // A refusal of --confine meets the lock file first, but it is the disk
  // beside it that lies outside.
  const bool confinement = message.find("lies outside the allowed folder") != std::string::npos;
  const auto nameOf = [&](const std::string& text) {
    kx::CURI uri;
    try {
      uri = kx::CURI(kx::String::fromUTF8(text));
    } catch (const kx::CError&) {
      return text;
    }
    const auto known = displayNames_.find(text);
    if (known != displayNames_.end()) return known->second;
    if (confinement && uri.getName().EndsWith(".lock")) {
      const std::string name = uri.getName().toUTF8();
      uri = uri.getParent() << kx::String::fromUTF8(name.substr(0, name.size() - 5));
    }
    return getDisplayName(uri);
  };
  std::vector<std::string> uris;
  for (const auto& item : kxError->getProps().getItems()) {
    if (item.second.StartsWith("file:")) uris.push_back(item.second.toUTF8());
  }
  for (const auto& entry : displayNames_) uris.push_back(entry.first);
  // The longer first: "x.vmdk.lock" holds "x.vmdk".
  std::sort(uris.begin(), uris.end(), [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
  std::set<std::string> named;  // URIs that the message names now
  for (const std::string& uri : uris) {
    size_t at = message.find(uri);
    if (at == std::string::npos) continue;
    const std::string name = nameOf(uri);
    for (; at != std::string::npos; at = message.find(uri, at + name.size())) message.replace(at, uri.size(), name);
    named.insert(uri);
  }
  std::string props;
  for (const auto& item : kxError->getProps().getItems()) {
    std::string key = item.first.toUTF8();
    std::string value = item.second.toUTF8();
    if (item.second.StartsWith("file:")) {
      if (named.count(value) != 0) continue;
      value = nameOf(value);
      if (message.find(value) != std::string::npos) continue;
      // What was a URI is a path now: "uri" a file, "parentURI" the parent.
      if (key == "uri") {
        key = "file";
      } else if (key.size() > 3 && key.compare(key.size() - 3, 3, "URI") == 0) {
        key.resize(key.size() - 3);
      }
    }
    props += (props.empty() ? "" : ", ") + key + ": " + value;
  }
  return props.empty() ? message : message + " (" + props + ")";
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
  if (!displayNames_.count(uri.toNormalized().toString(true).toUTF8())) setDisplayName(uri, name);
  // Opened for writing, a missing main file would be made, empty, and then
  // refused as damaged.
  if (access != kx::IIOStream::ACCESS_READ && !getFileSystem()->fileExists(uri)) {
    throw kx::CFileSystemError(kx::FSPROB_NOT_FOUND,
                               kx::CError(kx::String::fromUTF8("No such file or directory: " + name), kx::String(), -1,
                                          kx::CProps().add("uri", uri.toString(true))));
  }
  kx::String password =
      passwords_.isGiven() || passwords_.isKnown() ? passwords_.get(std::string(), false) : kx::String();
  try {
    try {
      return kx::create<zarn::CVMDKDisk>(getFileSystemFor(access), uri, access, password);
    } catch (const kx::CError& error) {
      if (!isMissingPasswordError(error) || !password.isEmpty() || !CPasswordSource::hasTerminal()) throw;
    }
    password = getPasswordFor(name, false);
    return kx::create<zarn::CVMDKDisk>(getFileSystemFor(access), uri, access, password);
  } catch (kx::CError& error) {
    if (isMissingPasswordError(error) && password.isEmpty()) {
      throw kx::CError(error.getMessage() + kx::String::fromUTF8(
                                                 " for " + name +
                                                 ": give --password-file FILE or set ZARN_PASSWORD (there is no "
                                                 "terminal to ask on)"),
                       error.getContext(), error.getCode(), kx::CProps(), &error);
    }
    if (dynamic_cast<const kx::CLockFileError*>(&error) && access == kx::IIOStream::ACCESS_READ && !forceShare_ &&
        error.getMessage().StartsWith("VMDK file is locked by another process")) {
      throw kx::CLockFileError(kx::String::fromUTF8(name + " is in use by another process, which holds its lock " +
                                                    "file; -U reads it anyway"),
                               kx::CProps(), &error);
    }
    if (access != kx::IIOStream::ACCESS_READ && !isRefusalOfTheUser(error)) refuseWritingIfForeign(*this, uri, name);
    if (!isRefusalOfTheUser(error) && getFileSystem()->fileExists(uri)) {
      bool vmdk = true;
      try {
        vmdk = startsLikeVmdk(uri);
      } catch (const kx::CError&) {
        // The first error tells more than this one.
      }
      if (!vmdk) {
        throw kx::CError(kx::String::fromUTF8(
                             name + " is no VMDK disk: it starts neither with a sparse extent header nor with "
                                    "descriptor lines"),
                         kx::String(), -1, kx::CProps(), &error);
      }
    }
    // Errors from deep inside a file ("Invalid hex number") don't say which
    // disk they come from.
    if (!error.getProps().has("uri")) error.getParams().add("disk", kx::String::fromUTF8(name));
    throw;
  }
}

kx::P<zarn::CVMDKDisk> CToolContext::openDiskOver(const kx::CURI& uri, kx::IIOStream::Access access,
                                                  zarn::CVMDKDisk* parent) {
  const kx::String password =
      passwords_.isGiven() || passwords_.isKnown() ? passwords_.get(std::string(), false) : kx::String();
  return kx::create<zarn::CVMDKDisk>(getFileSystemFor(access), uri, access, password, -1, nullptr, parent);
}

kx::P<zarn::CVMDKDisk> CToolContext::openDiskChecked(const std::string& path, kx::IIOStream::Access access,
                                                     std::vector<CChainLevel>* chain) {
  return openDiskChecked(pathToURI(path), access, path, chain);
}

kx::P<zarn::CVMDKDisk> CToolContext::openDiskChecked(const kx::CURI& uri, kx::IIOStream::Access access,
                                                     const std::string& name, std::vector<CChainLevel>* chain) {
  const bool hadPassword = passwords_.isGiven() || passwords_.isKnown();
  kx::P<zarn::CVMDKDisk> disk = openDisk(uri, access, name);
  checkOpenedDisk(disk, name, true, chain);
  if (!hadPassword && passwords_.isKnown() && disk->getDescriptor()->getKxEncryptionAlgorithm().isEmpty()) {
    // A clear disk got no password, which its encrypted parent asked for
    // during the check: the disk hands its own to the parents it opens.
    if (chain) chain->clear();
    disk = nullptr;
    disk = openDisk(uri, access, name);
    checkOpenedDisk(disk, name, true, chain);
  }
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
    kx::String reference;
    level.disk->getDescriptor()->tryGetParentFileNameHint(reference);
    const auto parentFails = [&](const kx::CError& error, const std::string& parentName) {
      if (isRefusalOfTheUser(error)) throw;
      const std::string what = "Could not open backing file '" + parentName + "' of " + level.name;
      if (hasFileSystemProblem(error, kx::FSPROB_NOT_FOUND)) {
        throwDamage(what + ": No such file or directory", kx::CProps(), &error);
      }
      throwDamage(what + ": " + describe(error), kx::CProps(), &error);
    };
    kx::CURI parentURI;
    try {
      parentURI = findParentURI(*level.disk);
    } catch (const kx::CError& error) {
      parentFails(error, reference.toUTF8());
    }
    const std::string parentName = getDisplayName(parentURI);
    if (!seen.insert(parentURI).second) {
      throwDamage("The parent chain of " + level.name + " leads back to " + parentName + ", a disk already in it.");
    }
    kx::P<zarn::CVMDKDisk> parent;
    try {
      parent = openDisk(parentURI, kx::IIOStream::ACCESS_READ, parentName);
    } catch (const kx::CError& error) {
      parentFails(error, parentName);
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

bool CToolContext::startsLikeVmdk(const kx::CURI& uri) {
  int flags = 0;
  kx::P<kx::IIOStream> stream = getFileSystem()->openFile(uri, kx::IIOStream::ACCESS_READ, flags);
  std::string head(kProbeBytes, '\0');
  head.resize(static_cast<size_t>(std::max(0, stream->readLax(&head[0], kProbeBytes))));
  if (head.size() >= 4) {
    const uint32_t magic = static_cast<uint32_t>(static_cast<unsigned char>(head[0])) |
                           static_cast<uint32_t>(static_cast<unsigned char>(head[1])) << 8 |
                           static_cast<uint32_t>(static_cast<unsigned char>(head[2])) << 16 |
                           static_cast<uint32_t>(static_cast<unsigned char>(head[3])) << 24;
    if (magic == zarn::CVMDKSparseExtentHeader::kMagic || magic == zarn::CVMDKSparseExtentHeader::kMagicEncrypted) {
      return true;
    }
  }
  if (head.compare(0, 21, "# Disk DescriptorFile") == 0) return true;
  for (size_t start = 0; start < head.size();) {
    size_t end = head.find('\n', start);
    if (end == std::string::npos) end = head.size();
    if (isDescriptorLine(head.substr(start, end - start))) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace zarn_img
