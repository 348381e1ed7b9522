// nbdkit-zarn-plugin: serves a zarn disk over NBD through nbdkit.
//
//   nbdkit zarn file=disk.vmdk [password-file=F] [confine=DIR] [-r]
//
// Every connection opens the disk on its own, for writing unless nbdkit runs
// with -r, and so takes the disk's lock file for as long as it stays: a
// second writer, or a reader beside a writer, is refused when it connects,
// with the library's message in nbdkit's log. A handle is one CVMDKDisk with
// its parents and grain table cache, and nbdkit's SERIALIZE_REQUESTS model
// gives it to one thread at a time; connections share no library object, so
// two read-only connections run side by side.
//
// Errors of the library reach the client as an errno (see toErrno) and
// nbdkit's log as the library's message with its properties; the request
// fails, the connection stays.

#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include <errno.h>

#include <algorithm>
#include <cinttypes>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kx/confined_file_system.h"
#include "kx/error.h"
#include "kx/local_file_system.h"
#include "kx/log.h"
#include "kx/path.h"
#include "kx/uri.h"
#include "zarn/disk.h"

#define THREAD_MODEL NBDKIT_THREAD_MODEL_SERIALIZE_REQUESTS

namespace {

// What nbdkit was started with; set by config, read-only once the server runs.
struct CConfig {
  std::string file;          // absolute path of the main file
  std::string confine;       // absolute folder, or empty
  kx::String password;
};
CConfig g_config;

// Open handles of this process, so that a connection that comes while the
// one before it is still closing waits for the lock it left rather than
// being refused by its own server.
std::mutex g_handlesMutex;
std::condition_variable g_handlesChanged;
int g_openHandles = 0;

// How long a writer waits for a closing connection of this server.
constexpr auto kLockWait = std::chrono::seconds(2);

struct CHandle {
  kx::P<kx::IFileSystem> fileSystem;
  kx::P<zarn::CVMDKDisk> disk;
  bool writable = false;
};

std::string describeError(const std::exception& error) {
  const auto* kxError = dynamic_cast<const kx::CError*>(&error);
  if (!kxError) return error.what();
  std::string text = kxError->getMessage().toUTF8();
  if (!kxError->getProps().isEmpty()) text += " (" + kxError->getProps().toString().toUTF8() + ")";
  return text;
}

// NBD carries only a few error numbers (EPERM, EIO, ENOMEM, EINVAL, ENOSPC,
// EOVERFLOW, ENOTSUP, ESHUTDOWN); nbdkit turns others into EINVAL, which
// would tell a client that it asked wrongly when the disk failed it.
int toErrno(const std::exception& error) {
  if (const auto* fsError = dynamic_cast<const kx::CFileSystemError*>(&error)) {
    switch (fsError->getProblem()) {
      case kx::FSPROB_NO_SPACE:
        return ENOSPC;
      case kx::FSPROB_ACCESS_DENIED:
      case kx::FSPROB_LOCKED:
        return EPERM;
      case kx::FSPROB_NOT_SUPPORTED:
        return ENOTSUP;
      default:
        return EIO;
    }
  }
  if (dynamic_cast<const kx::CLockFileError*>(&error)) return EPERM;
  if (dynamic_cast<const kx::CInvalidArgError*>(&error)) return EINVAL;
  if (const auto* ioError = dynamic_cast<const kx::CIOError*>(&error)) {
    switch (ioError->getCode()) {
      case kx::IOERR_BEYOND_TARGET:
      case kx::IOERR_READ_PAST_END:
      case kx::IOERR_BAD_SEEK_POSITION:
        return EINVAL;
      case kx::IOERR_NOT_SUPPORTED:
        return ENOTSUP;
      default:
        return EIO;
    }
  }
  if (dynamic_cast<const std::bad_alloc*>(&error)) return ENOMEM;
  return EIO;
}

int fail(const char* operation, uint32_t count, uint64_t offset, const std::exception& error) {
  nbdkit_error("%s of %" PRIu32 " bytes at %" PRIu64 ": %s", operation, count, offset, describeError(error).c_str());
  nbdkit_set_error(toErrno(error));
  return -1;
}

kx::CURI pathToURI(const std::string& absolutePath) {
  return kx::CURI(kx::CUnixPath(kx::String::fromUTF8(absolutePath)), true);
}

kx::P<kx::IFileSystem> makeFileSystem() {
  kx::P<kx::IFileSystem> local = kx::create<kx::CLocalFileSystem>();
  if (g_config.confine.empty()) return local;
  return kx::P<kx::IFileSystem>::adopt(new kx::CConfinedFileSystem(local, pathToURI(g_config.confine + "/")));
}

kx::P<zarn::CVMDKDisk> openDisk(kx::IFileSystem* fileSystem, bool writable) {
  const kx::CURI uri = pathToURI(g_config.file);
  // Opened for writing, a missing main file would be made empty and then
  // refused as damaged, which hides the real reason.
  if (!fileSystem->fileExists(uri)) {
    throw kx::CFileSystemError(kx::FSPROB_NOT_FOUND,
                               kx::CError(kx::String::fromUTF8("No such file: " + g_config.file), kx::String(), -1,
                                          kx::CProps().add("uri", uri.toString(true))));
  }
  return kx::create<zarn::CVMDKDisk>(fileSystem, uri,
                                     writable ? kx::IIOStream::ACCESS_READ_WRITE : kx::IIOStream::ACCESS_READ,
                                     g_config.password);
}

void routeLibraryLog() {
  kx::setLogSink([](kx::LogLevel level, const kx::String& text, const std::exception* error) {
    std::string line = text.toUTF8();
    if (error) line += ": " + describeError(*error);
    if (level == kx::LogLevel::Info) {
      nbdkit_debug("%s", line.c_str());
    } else {
      nbdkit_error("%s%s", level == kx::LogLevel::Warning ? "warning: " : "", line.c_str());
    }
  });
}

void zarnUnload() { kx::setLogSink(kx::LogSink()); }

int zarnConfig(const char* key, const char* value) {
  const std::string name = key;
  if (name == "file" || name == "confine") {
    char* absolute = nbdkit_realpath(value);
    if (!absolute) return -1;
    (name == "file" ? g_config.file : g_config.confine) = absolute;
    std::free(absolute);
    return 0;
  }
  if (name == "password-file") {
    std::ifstream in(value, std::ios::binary);
    if (!in) {
      nbdkit_error("cannot read the password file %s", value);
      return -1;
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The first line is the password, as zarn-img --password-file reads it.
    text = text.substr(0, text.find('\n'));
    if (!text.empty() && text.back() == '\r') text.pop_back();
    g_config.password = kx::String::fromUTF8(text);
    return 0;
  }
  nbdkit_error("unknown parameter '%s' (the plugin takes file=, password-file= and confine=)", key);
  return -1;
}

int zarnConfigComplete() {
  if (g_config.file.empty()) {
    nbdkit_error("file=DISK.vmdk is required");
    return -1;
  }
  return 0;
}

// Opens the disk once, read-only, before the first client comes, so that a
// missing file, a wrong password or a damaged descriptor stops the server at
// its start instead of failing every connection.
int zarnGetReady() {
  routeLibraryLog();
  try {
    const kx::P<kx::IFileSystem> fileSystem = makeFileSystem();
    openDisk(fileSystem.get(), false);
  } catch (const std::exception& error) {
    nbdkit_error("%s: %s", g_config.file.c_str(), describeError(error).c_str());
    return -1;
  }
  return 0;
}

void* zarnOpen(int readonly) {
  auto handle = std::make_unique<CHandle>();
  handle->writable = !readonly;
  try {
    handle->fileSystem = makeFileSystem();
    try {
      handle->disk = openDisk(handle->fileSystem.get(), handle->writable);
    } catch (const kx::CLockFileError&) {
      std::unique_lock<std::mutex> lock(g_handlesMutex);
      const int before = g_openHandles;
      if (before == 0 ||
          !g_handlesChanged.wait_for(lock, kLockWait, [before] { return g_openHandles < before; })) {
        throw;
      }
      lock.unlock();
      handle->disk = openDisk(handle->fileSystem.get(), handle->writable);
    }
  } catch (const std::exception& error) {
    nbdkit_error("%s: %s", g_config.file.c_str(), describeError(error).c_str());
    nbdkit_set_error(toErrno(error));
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_handlesMutex);
  ++g_openHandles;
  return handle.release();
}

void zarnClose(void* opaque) {
  std::unique_ptr<CHandle> handle(static_cast<CHandle*>(opaque));
  try {
    // The destructor flushes too, but can only log what fails.
    if (handle->writable) handle->disk->flushChanges();
  } catch (const std::exception& error) {
    nbdkit_error("%s: closing: %s", g_config.file.c_str(), describeError(error).c_str());
  }
  handle.reset();
  std::lock_guard<std::mutex> lock(g_handlesMutex);
  --g_openHandles;
  g_handlesChanged.notify_all();
}

CHandle& handleOf(void* opaque) { return *static_cast<CHandle*>(opaque); }

int64_t zarnGetSize(void* opaque) { return handleOf(opaque).disk->getSizeBytes(); }

int zarnCanWrite(void* opaque) { return handleOf(opaque).writable ? 1 : 0; }
int zarnCanFlush(void*) { return 1; }
int zarnCanZero(void* opaque) { return handleOf(opaque).writable ? 1 : 0; }
int zarnCanExtents(void*) { return 1; }
// Each connection has a disk object of its own; the lock file keeps a second
// writer out, so clients must not spread one image over several connections.
int zarnCanMultiConn(void*) { return 0; }

// The library takes `int` counts; NBD requests stay below 4 GiB but can
// exceed that.
constexpr uint32_t kMaxPiece = 1u << 30;

int zarnPread(void* opaque, void* buffer, uint32_t count, uint64_t offset, uint32_t) {
  zarn::CVMDKDisk& disk = *handleOf(opaque).disk;
  try {
    disk.seek(static_cast<int64_t>(offset));
    for (uint32_t done = 0; done < count;) {
      const uint32_t piece = std::min(count - done, kMaxPiece);
      disk.read(static_cast<char*>(buffer) + done, static_cast<int>(piece));
      done += piece;
    }
  } catch (const std::exception& error) {
    return fail("read", count, offset, error);
  }
  return 0;
}

// Without a can_fua of its own the plugin gets no FUA flag: nbdkit follows
// such a write with a flush.
int zarnPwrite(void* opaque, const void* buffer, uint32_t count, uint64_t offset, uint32_t) {
  zarn::CVMDKDisk& disk = *handleOf(opaque).disk;
  try {
    disk.seek(static_cast<int64_t>(offset));
    for (uint32_t done = 0; done < count;) {
      const uint32_t piece = std::min(count - done, kMaxPiece);
      disk.write(static_cast<const char*>(buffer) + done, static_cast<int>(piece));
      done += piece;
    }
  } catch (const std::exception& error) {
    return fail("write", count, offset, error);
  }
  return 0;
}

int zarnFlush(void* opaque, uint32_t) {
  try {
    handleOf(opaque).disk->flushChanges();
  } catch (const std::exception& error) {
    nbdkit_error("flush: %s", describeError(error).c_str());
    nbdkit_set_error(toErrno(error));
    return -1;
  }
  return 0;
}

// Zeros are written like any data: the library gives an all-zero grain of a
// disk without parent no slot, and a child needs them stored to hide its
// parent's bytes. A grain that no disk of the chain holds already reads as
// zeros and is passed over, so zeroing an empty stretch costs no room.
int zarnZero(void* opaque, uint32_t count, uint64_t offset, uint32_t) {
  zarn::CVMDKDisk& disk = *handleOf(opaque).disk;
  try {
    const int64_t grain = disk.getGrainSizeBytes();
    static const std::vector<char> zeros(static_cast<size_t>(1) << 20);
    int64_t position = static_cast<int64_t>(offset);
    const int64_t end = position + count;
    while (position < end) {
      const int64_t grainEnd = (position / grain + 1) * grain;
      const int64_t pieceEnd = std::min({end, grainEnd, position + static_cast<int64_t>(zeros.size())});
      disk.seek(position);
      if (disk.isGrainWritten()) disk.write(zeros.data(), static_cast<int>(pieceEnd - position));
      position = pieceEnd;
    }
  } catch (const std::exception& error) {
    return fail("zero", count, offset, error);
  }
  return 0;
}

// Data where a grain is held by the disk or any of its parents, a hole that
// reads as zeros elsewhere: the allocated runs of zarn-img map, all depths
// taken together.
int zarnExtents(void* opaque, uint32_t count, uint64_t offset, uint32_t flags, struct nbdkit_extents* extents) {
  zarn::CVMDKDisk& disk = *handleOf(opaque).disk;
  try {
    const int64_t grain = disk.getGrainSizeBytes();
    const int64_t size = disk.getSizeBytes();
    const int64_t end = std::min(size, static_cast<int64_t>(offset) + count);
    int64_t runStart = static_cast<int64_t>(offset) / grain * grain;
    disk.seek(runStart);
    bool runIsData = disk.isGrainWritten();
    int64_t position = runStart + grain;
    for (; position < end; position += grain) {
      disk.seek(position);
      const bool isData = disk.isGrainWritten();
      if (isData == runIsData) continue;
      if (nbdkit_add_extent(extents, runStart, position - runStart,
                            runIsData ? 0 : NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO) == -1) {
        return -1;
      }
      if (flags & NBDKIT_FLAG_REQ_ONE) return 0;
      runStart = position;
      runIsData = isData;
    }
    const int64_t runEnd = std::min(size, std::max(position, end));
    return nbdkit_add_extent(extents, runStart, runEnd - runStart,
                             runIsData ? 0 : NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO);
  } catch (const std::exception& error) {
    return fail("block status", count, offset, error);
  }
}

struct nbdkit_plugin makePlugin() {
  struct nbdkit_plugin plugin = {};
  plugin.name = "zarn";
  plugin.longname = "zarn VMDK sparse disk plugin";
  plugin.version = ZARN_PLUGIN_VERSION;
  plugin.description = "Serves a VMDK sparse disk (plain, split, compressed, encrypted, differencing) read by zarn";
  plugin.unload = zarnUnload;
  plugin.config = zarnConfig;
  plugin.config_complete = zarnConfigComplete;
  plugin.config_help =
      "file=<DISK.vmdk>     (required) The main file of the disk.\n"
      "password-file=<F>    The password of an encrypted disk: the first line of F.\n"
      "confine=<DIR>        Refuse every file the disk names outside DIR.";
  plugin.magic_config_key = "file";
  plugin.get_ready = zarnGetReady;
  plugin.open = zarnOpen;
  plugin.close = zarnClose;
  plugin.get_size = zarnGetSize;
  plugin.can_write = zarnCanWrite;
  plugin.can_flush = zarnCanFlush;
  plugin.can_zero = zarnCanZero;
  plugin.can_extents = zarnCanExtents;
  plugin.can_multi_conn = zarnCanMultiConn;
  plugin.pread = zarnPread;
  plugin.pwrite = zarnPwrite;
  plugin.flush = zarnFlush;
  plugin.zero = zarnZero;
  plugin.extents = zarnExtents;
  return plugin;
}

struct nbdkit_plugin g_plugin = makePlugin();

}  // namespace

NBDKIT_REGISTER_PLUGIN(g_plugin)
