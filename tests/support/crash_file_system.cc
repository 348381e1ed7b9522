#include "tests/support/crash_file_system.h"

#include <algorithm>
#include <cstring>

#include "tests/support/stream_wrapper.h"

namespace test {

namespace {

std::string keyOf(const kx::CURI& uri) { return uri.toNormalized().toString(false).toUTF8(); }

// Streams keep their file system alive, so a stream may outlive the caller's
// last reference to it.
class CRecordingStream final : public CStreamWrapper {
 public:
  CRecordingStream(const kx::P<CCrashRecordingFileSystem>& fileSystem, const kx::P<kx::IIOStream>& target)
      : CStreamWrapper(target), fileSystem_(fileSystem), uri_(target->getURI()) {}

  void write(const void* data, int size, kx::IWriteBarrier* barrier) override {
    const int64_t position = getPosition();
    CStreamWrapper::write(data, size, barrier);
    fileSystem_->recordWrite(uri_, position, data, size);
  }
  void writeKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data, kx::IWriteBarrier* barrier) override {
    const int64_t position = getPosition();
    CStreamWrapper::writeKeepBuffer(data, barrier);
    fileSystem_->recordWrite(uri_, position, data.getData(), static_cast<int>(data.getLength()));
  }
  void setLength(int64_t length) override {
    CStreamWrapper::setLength(length);
    fileSystem_->recordSetLength(uri_, length);
  }
  void flush() override {
    CStreamWrapper::flush();
    fileSystem_->recordFlush(uri_);
  }

 private:
  kx::P<CCrashRecordingFileSystem> fileSystem_;
  kx::CURI uri_;
};

void applyWrite(std::vector<unsigned char>& file, int64_t position, const std::vector<unsigned char>& bytes) {
  const auto end = static_cast<size_t>(position) + bytes.size();
  if (file.size() < end) file.resize(end, 0);
  std::copy(bytes.begin(), bytes.end(), file.begin() + position);
}

}  // namespace

CCrashRecordingFileSystem::CCrashRecordingFileSystem(const kx::P<kx::CMemoryFileSystem>& target)
    : CFileSystemWrapper(target), target_(target) {
  for (const kx::CURI& uri : target_->listFiles()) {
    const kx::TBuffer<unsigned char> data = target_->getFileData(uri);
    initial_[keyOf(uri)] = {uri, std::vector<unsigned char>(data.getData(), data.getData() + data.getUsed())};
  }
}

kx::P<kx::IIOStream> CCrashRecordingFileSystem::openFile(const kx::CURI& uri, kx::IIOStream::Access access,
                                                         int& flags) {
  const bool creates = access != kx::IIOStream::ACCESS_READ && !target_->fileExists(uri);
  kx::P<kx::IIOStream> target = CFileSystemWrapper::openFile(uri, access, flags);
  if (creates) record(Change(Change::Create, uri));
  return kx::P<kx::IIOStream>::adopt(new CRecordingStream(kx::P<CCrashRecordingFileSystem>::share(this), target));
}

void CCrashRecordingFileSystem::deleteFile(const kx::CURI& uri, bool missingIsOk) {
  const bool exists = target_->fileExists(uri);
  CFileSystemWrapper::deleteFile(uri, missingIsOk);
  if (exists) record(Change(Change::Delete, uri));
}

void CCrashRecordingFileSystem::renameFile(const kx::CURI& from, const kx::CURI& to) {
  CFileSystemWrapper::renameFile(from, to);
  record(Change(Change::Rename, from, 0, {}, to));
}

void CCrashRecordingFileSystem::recordWrite(const kx::CURI& uri, int64_t position, const void* data, int size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  record(Change(Change::Write, uri, position, std::vector<unsigned char>(bytes, bytes + size)));
}

void CCrashRecordingFileSystem::recordSetLength(const kx::CURI& uri, int64_t length) {
  record(Change(Change::SetLength, uri, length));
}

void CCrashRecordingFileSystem::recordFlush(const kx::CURI& uri) { record(Change(Change::Flush, uri)); }

CCrashRecordingFileSystem::Change::Change(Kind kind, const kx::CURI& uri, int64_t position,
                                          std::vector<unsigned char> bytes, const kx::CURI& to)
    : kind(kind), key(keyOf(uri)), uri(uri), position(position), bytes(std::move(bytes)), to(to) {}

void CCrashRecordingFileSystem::record(Change change) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (change.kind != Change::Flush) ++changeCount_;
  changes_.push_back(std::move(change));
}

int CCrashRecordingFileSystem::getChangeCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return changeCount_;
}

kx::P<kx::CMemoryFileSystem> CCrashRecordingFileSystem::rebuild(int n, CrashKind kind) const {
  std::lock_guard<std::mutex> lock(mutex_);
  struct File {
    kx::CURI uri;
    std::vector<unsigned char> durable;  // what survives a power loss
    std::vector<unsigned char> current;  // what the process saw
  };
  std::map<std::string, File> files;
  for (const auto& entry : initial_) files[entry.first] = {entry.second.first, entry.second.second, entry.second.second};
  int seen = 0;
  for (const Change& change : changes_) {
    if (change.kind != Change::Flush && seen++ == n) break;
    switch (change.kind) {
      case Change::Create:
        files.emplace(change.key, File{change.uri, {}, {}});
        break;
      case Change::Delete:
        files.erase(change.key);
        break;
      case Change::Rename: {
        auto found = files.find(change.key);
        const std::string toKey = keyOf(change.to);
        if (found == files.end() || change.key == toKey) break;
        File moved = std::move(found->second);
        moved.uri = change.to;
        files.erase(found);
        files[toKey] = std::move(moved);
        break;
      }
      case Change::Write:
        applyWrite(files[change.key].current, change.position, change.bytes);
        break;
      case Change::SetLength:
        files[change.key].current.resize(static_cast<size_t>(change.position), 0);
        break;
      case Change::Flush: {
        auto found = files.find(change.key);
        if (found != files.end()) found->second.durable = found->second.current;
        break;
      }
    }
  }
  auto result = kx::create<kx::CMemoryFileSystem>();
  for (const auto& entry : files) {
    const std::vector<unsigned char>& bytes = kind == CrashKind::PowerLost ? entry.second.durable : entry.second.current;
    result->setFileData(entry.second.uri, bytes.data(), bytes.size());
  }
  return result;
}

}  // namespace test
