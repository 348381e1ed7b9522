#include "context.h"

#include <unistd.h>

#include <climits>
#include <string>

#include "kx/confined_file_system.h"
#include "kx/error.h"
#include "kx/local_file_system.h"
#include "kx/path.h"

namespace zarn_img {

bool isMissingPasswordError(const kx::CError& error) {
  return error.getMessage() == "VMDK is encrypted but no password provided";
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
  kx::String password = passwords_.isGiven() ? passwords_.get(std::string(), false) : kx::String();
  try {
    return kx::create<zarn::CVMDKDisk>(getFileSystem(), uri, access, password);
  } catch (const kx::CError& error) {
    if (!isMissingPasswordError(error) || !password.isEmpty() || !CPasswordSource::hasTerminal()) throw;
  }
  password = getPasswordFor(name, false);
  return kx::create<zarn::CVMDKDisk>(getFileSystem(), uri, access, password);
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
