// test::CTempDir: a fresh folder under the system's temp folder, removed with
// everything in it when the object goes.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "kx/path.h"
#include "kx/uri.h"

namespace test {

class CTempDir {
 public:
  CTempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zarn-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~CTempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  // The folder's path, without a trailing "/".
  const std::string& getPath() const { return path_; }
  // The folder as a "file:" URI ending in "/", so that `<< name` gives a child.
  kx::CURI getURI() const { return kx::CURI(kx::CUnixPath(kx::String::fromUTF8(path_ + "/")), false); }
  // The URI of a file in the folder; "/" in `name` leads into sub-folders.
  kx::CURI getFileURI(const std::string& name) const {
    return getURI() << kx::CURI(kx::CUnixPath(kx::String::fromUTF8(name)), false);
  }

 private:
  std::string path_;
};

}  // namespace test
