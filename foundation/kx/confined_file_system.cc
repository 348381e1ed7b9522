#include "kx/confined_file_system.h"

#include "foundation/kx/confined_local.h"
#include "kx/error.h"
#include "kx/file_identity.h"
#include "kx/local_file_system.h"
#include "kx/stream_wrapper.h"

namespace kx {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// One escaped path segment as bytes; false on a broken escape.
bool decodeSegment(const std::string& escaped, std::string& out) {
  out.clear();
  for (size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] != '%') {
      out += escaped[i];
      continue;
    }
    if (i + 2 >= escaped.size() || hexValue(escaped[i + 1]) < 0 || hexValue(escaped[i + 2]) < 0) return false;
    out += static_cast<char>(hexValue(escaped[i + 1]) * 16 + hexValue(escaped[i + 2]));
    i += 2;
  }
  return true;
}

String segmentText(const std::string& bytes) {
  const String text = String::fromUTF8(bytes);
  return text.isEmpty() && !bytes.empty() ? String(wxString::From8BitData(bytes.data(), bytes.size())) : text;
}

bool sameAuthority(const CURI& a, const CURI& b) {
  const auto host = [](const CURI& uri) {
    const auto& h = uri.getHostOptRef();
    return h && !h->IsSameAs("localhost", false) ? h->Lower() : String();
  };
  return a.getScheme().IsSameAs(b.getScheme(), false) && host(a) == host(b) && a.getPort() == b.getPort();
}

// Reports the URI that the caller opened the file by, whatever name reached
// the target, and checks identities by the resolved name.
class CReportedURIStream final : public CStreamWrapper {
 public:
  CReportedURIStream(const P<IIOStream>& target, const CURI& uri, const CConfinedFileSystem* fileSystem)
      : CStreamWrapper(target), uri_(uri), fileSystem_(fileSystem) {}

  CURI getURI() override { return uri_; }
  int checkSameFile(const CURI& uri) override { return CStreamWrapper::checkSameFile(fileSystem_->resolve(uri)); }

 private:
  CURI uri_;
  const CConfinedFileSystem* fileSystem_;  // the caller holds it while it uses the stream
};

}  // namespace

CConfinedFileSystem::CConfinedFileSystem(const P<IFileSystem>& target, const CURI& folder)
    : target_(target), folder_(folder.toNormalized()) {
  if (!target_ || !folder_.isAbsolute()) {
    throw CInvalidArgError("CConfinedFileSystem", "The allowed folder must be an absolute URI: " + folder.toString(true));
  }
  const std::string path = folder_.getEscapedPath().ToStdString();
  size_t start = 0;
  while (start <= path.size()) {
    const size_t slash = path.find('/', start);
    const std::string piece = path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    std::string decoded;
    if (!piece.empty() && decodeSegment(piece, decoded)) folderSegments_.push_back(decoded);
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  if (dynamic_cast<CLocalFileSystem*>(target_.get())) {
    folderFd_ = confined::openFolder(CLocalFileSystem::getLocalPath(folder_), folder_);
  }
}

CConfinedFileSystem::~CConfinedFileSystem() { confined::closeFolder(folderFd_); }

void CConfinedFileSystem::throwOutside(const CURI& uri) const {
  throw CFileSystemError(FSPROB_ACCESS_DENIED,
                         CError("The file '" + uri.toString(true) + "' lies outside the allowed folder '" +
                                    folder_.toString(true) + "'.",
                                String(), -1, CProps().add("uri", uri.toString(true)).add("folder", folder_.toString(true))));
}

std::vector<std::string> CConfinedFileSystem::getRelativeSegments(const CURI& uri) const {
  const auto refuse = [&] { throwOutside(uri); };
  if (!uri.isAbsolute() || !sameAuthority(uri, folder_)) refuse();
  const std::string path = uri.getEscapedPath().ToStdString();
  if (path.empty() || path[0] != '/') refuse();
  std::vector<std::string> segments;
  size_t start = 1;
  while (start <= path.size()) {
    const size_t slash = path.find('/', start);
    const std::string piece = path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    start = slash == std::string::npos ? path.size() + 1 : slash + 1;
    std::string segment;
    // A segment that decodes to a separator or a NUL would be read as another
    // path than the one checked.
    if (!decodeSegment(piece, segment) || segment.find('/') != std::string::npos ||
        segment.find('\0') != std::string::npos) {
      refuse();
    }
    if (segment.empty() || segment == ".") continue;
    if (segment == "..") {
      if (segments.empty()) refuse();
      segments.pop_back();
      continue;
    }
    segments.push_back(segment);
  }
  if (segments.size() <= folderSegments_.size() ||
      !std::equal(folderSegments_.begin(), folderSegments_.end(), segments.begin())) {
    refuse();
  }
  return std::vector<std::string>(segments.begin() + static_cast<std::ptrdiff_t>(folderSegments_.size()),
                                  segments.end());
}

CURI CConfinedFileSystem::resolve(const CURI& uri) const {
  String path;
  for (const std::string& segment : folderSegments_) path += "/" + segmentText(segment);
  for (const std::string& segment : getRelativeSegments(uri)) path += "/" + segmentText(segment);
  return CURI(folder_.getScheme(), path, std::nullopt, std::nullopt, folder_.getHostOptRef(), folder_.getPort(),
              std::nullopt, std::nullopt);
}

namespace {
std::string joinSegments(const std::vector<std::string>& segments) {
  std::string path;
  for (const std::string& segment : segments) path += (path.empty() ? "" : "/") + segment;
  return path;
}
}  // namespace

P<IIOStream> CConfinedFileSystem::openFile(const CURI& uri, IIOStream::Access access, int& flags) {
  if (folderFd_ >= 0) {
    const std::string relative = joinSegments(getRelativeSegments(uri));
    return confined::openBeneath(folderFd_, relative, uri, access, [&] { throwOutside(uri); });
  }
  return P<IIOStream>(create<CReportedURIStream>(target_->openFile(resolve(uri), access, flags), uri, this));
}

bool CConfinedFileSystem::fileExists(const CURI& uri) {
  if (folderFd_ >= 0) {
    return confined::existsBeneath(folderFd_, joinSegments(getRelativeSegments(uri)), uri, [&] { throwOutside(uri); });
  }
  return target_->fileExists(resolve(uri));
}

void CConfinedFileSystem::renameFile(const CURI& from, const CURI& to) {
  if (folderFd_ >= 0) {
    const std::string toPath = joinSegments(getRelativeSegments(to));
    confined::renameBeneath(folderFd_, joinSegments(getRelativeSegments(from)), toPath, from,
                            [&] { throwOutside(from); });
    return;
  }
  target_->renameFile(resolve(from), resolve(to));
}

void CConfinedFileSystem::deleteFile(const CURI& uri, bool missingIsOk) {
  if (folderFd_ >= 0) {
    confined::deleteBeneath(folderFd_, joinSegments(getRelativeSegments(uri)), uri, missingIsOk,
                            [&] { throwOutside(uri); });
    return;
  }
  target_->deleteFile(resolve(uri), missingIsOk);
}

}  // namespace kx
