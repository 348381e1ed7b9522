// zarn._zarn: the native half of the Python package `zarn` (python/zarn/).
//
// CDiskHandle owns one open CVMDKDisk. Every call that touches the disk lets
// go of the GIL first and then takes the handle's mutex, so calls on two
// disks run in parallel and calls on one disk from two threads run one after
// the other, each whole: a read or a write never interleaves with a seek. The
// GIL is never wanted while the mutex is held (the library's log goes to its
// own sink, not into Python), so the two can't deadlock.
//
// Library errors become the exception classes that zarn/__init__.py hands
// in through _set_error_classes: the class of the error's dynamic type, with
// errno, code, message and properties.
#include <Python.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <errno.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kx/confined_file_system.h"
#include "kx/error.h"
#include "kx/local_file_system.h"
#include "kx/path.h"
#include "kx/uri.h"
#include "zarn/descriptor.h"
#include "zarn/disk.h"
#include "zarn/extent_info.h"
#include "zarn/space_info.h"

namespace py = pybind11;

namespace {

constexpr uint32_t kNoParentContentID = 0xFFFFFFFF;
// The library's calls take `int` byte counts.
constexpr int64_t kMaxPiece = int64_t{1} << 30;

// Set once by zarn/__init__.py; the exception classes of the error family.
struct CErrorClasses {
  py::object error, ioError, invalidArgError, fileSystemError, badPathError, lockFileError;
};
CErrorClasses* g_errorClasses = nullptr;

int fileSystemErrno(int problem) {
  switch (problem) {
    case kx::FSPROB_NOT_FOUND:
      return ENOENT;
    case kx::FSPROB_ACCESS_DENIED:
      return EACCES;
    case kx::FSPROB_ALREADY_EXISTS:
      return EEXIST;
    case kx::FSPROB_NO_SPACE:
      return ENOSPC;
    case kx::FSPROB_NOT_SUPPORTED:
      return ENOTSUP;
    case kx::FSPROB_LOCKED:
      return EBUSY;
    case kx::FSPROB_BAD_NAME:
      return EINVAL;
    default:
      return EIO;
  }
}

int ioErrno(int code) {
  switch (code) {
    case kx::IOERR_BEYOND_TARGET:
      return ENOSPC;  // as a write past the end of a block device
    case kx::IOERR_READ_PAST_END:
    case kx::IOERR_BAD_SEEK_POSITION:
    case kx::IOERR_NOT_ON_GRAIN_BOUNDARY:
      return EINVAL;
    case kx::IOERR_NOT_SUPPORTED:
      return ENOTSUP;
    default:
      return EIO;
  }
}

void raiseError(const kx::CError& error) {
  if (!g_errorClasses) {
    PyErr_SetString(PyExc_OSError, error.what());
    return;
  }
  const CErrorClasses& classes = *g_errorClasses;
  py::object cls = classes.error;
  int errnoValue = EIO;
  py::dict extra;
  if (const auto* fsError = dynamic_cast<const kx::CFileSystemError*>(&error)) {
    cls = classes.fileSystemError;
    errnoValue = fileSystemErrno(fsError->getProblem());
    extra["problem"] = fsError->getProblem();
  } else if (const auto* pathError = dynamic_cast<const kx::CBadPathError*>(&error)) {
    cls = classes.badPathError;
    errnoValue = EINVAL;
    extra["path"] = pathError->getPath().toUTF8();
  } else if (dynamic_cast<const kx::CLockFileError*>(&error)) {
    cls = classes.lockFileError;
    errnoValue = EBUSY;
  } else if (dynamic_cast<const kx::CInvalidArgError*>(&error)) {
    cls = classes.invalidArgError;
    errnoValue = EINVAL;
  } else if (dynamic_cast<const kx::CIOError*>(&error)) {
    cls = classes.ioError;
    errnoValue = ioErrno(error.getCode());
  }
  py::dict properties;
  for (const auto& item : error.getProps().getItems()) {
    properties[py::str(item.first.toUTF8())] = py::str(item.second.toUTF8());
  }
  py::object exception = cls(errnoValue, error.getMessage().toUTF8());
  exception.attr("code") = error.getCode();
  exception.attr("message") = error.getMessage().toUTF8();
  exception.attr("properties") = properties;
  exception.attr("context") = error.getContext().toUTF8();
  for (const auto& item : extra) exception.attr(item.first) = item.second;
  PyErr_SetObject(cls.ptr(), exception.ptr());
}

kx::CURI pathToURI(const std::string& absolutePath) {
  return kx::CURI(kx::CUnixPath(kx::String::fromUTF8(absolutePath)), true);
}

std::string uriToPath(const kx::CURI& uri) {
  try {
    return kx::CLocalFileSystem::getLocalPath(uri);
  } catch (const kx::CError&) {
    return uri.toString(true).toUTF8();
  }
}

kx::P<kx::IFileSystem> makeFileSystem(const std::string& confine) {
  kx::P<kx::IFileSystem> local = kx::create<kx::CLocalFileSystem>();
  if (confine.empty()) return local;
  return kx::P<kx::IFileSystem>::adopt(new kx::CConfinedFileSystem(local, pathToURI(confine + "/")));
}

[[noreturn]] void throwNotFound(const std::string& path, const kx::CURI& uri) {
  throw kx::CFileSystemError(kx::FSPROB_NOT_FOUND,
                             kx::CError(kx::String::fromUTF8("No such file: " + path), kx::String(), -1,
                                        kx::CProps().add("uri", uri.toString(true))));
}

// A contiguous Python buffer held for the length of one call; the object
// can't resize or go away while it is held, also with the GIL released.
// Anything else is a TypeError, as for Python's own files.
class CHeldBuffer {
 public:
  CHeldBuffer(const py::object& object, bool writable) {
    if (PyObject_GetBuffer(object.ptr(), &view_, writable ? PyBUF_WRITABLE : PyBUF_SIMPLE) != 0) {
      PyErr_Clear();
      throw py::type_error(std::string(writable ? "readinto() needs a writable" : "write() needs a") +
                           " contiguous bytes-like object, not " + Py_TYPE(object.ptr())->tp_name);
    }
  }
  ~CHeldBuffer() { PyBuffer_Release(&view_); }
  CHeldBuffer(const CHeldBuffer&) = delete;
  CHeldBuffer& operator=(const CHeldBuffer&) = delete;
  char* data() const { return static_cast<char*>(view_.buf); }
  int64_t size() const { return static_cast<int64_t>(view_.len); }

 private:
  Py_buffer view_{};
};

class CDiskHandle {
 public:
  CDiskHandle(kx::P<kx::IFileSystem> fileSystem, kx::P<zarn::CVMDKDisk> disk, bool writable,
              const kx::String& password)
      : fileSystem_(std::move(fileSystem)), disk_(std::move(disk)), writable_(writable), password_(password) {}

  // Runs `work` on the open disk with the GIL released and the mutex held.
  // ValueError once the disk is closed.
  template <class Work>
  auto withDisk(Work work) -> decltype(work(std::declval<zarn::CVMDKDisk&>())) {
    py::gil_scoped_release released;
    std::lock_guard<std::mutex> lock(mutex_);
    // pybind11 raises these as ValueError once it holds the GIL again.
    if (!disk_) throw py::value_error("I/O operation on closed disk.");
    return work(*disk_);
  }

  bool isClosed() {
    std::lock_guard<std::mutex> lock(mutex_);
    return !disk_;
  }

  bool isWritable() const { return writable_; }

  // Reads up to the buffer's size from the position, less at the end;
  // returns the count (0 at the end).
  int64_t readInto(const py::object& buffer) {
    CHeldBuffer held(buffer, true);
    return withDisk([&](zarn::CVMDKDisk& disk) { return readAt(disk, held.data(), held.size()); });
  }

  // Up to `count` bytes (all that is left for a negative count) as bytes,
  // made in place without a copy.
  py::bytes read(int64_t count) {
    const int64_t left = withDisk([](zarn::CVMDKDisk& disk) { return disk.getSizeBytes() - disk.getPosition(); });
    if (count < 0 || count > left) count = left;
    PyObject* bytes = PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(count));
    if (!bytes) throw py::error_already_set();
    py::bytes result = py::reinterpret_steal<py::bytes>(bytes);
    const int64_t got = withDisk(
        [&](zarn::CVMDKDisk& disk) { return readAt(disk, PyBytes_AS_STRING(result.ptr()), count); });
    if (got != count) {
      PyObject* shrunk = result.release().ptr();
      if (_PyBytes_Resize(&shrunk, static_cast<Py_ssize_t>(got)) != 0) throw py::error_already_set();
      result = py::reinterpret_steal<py::bytes>(shrunk);
    }
    return result;
  }

  int64_t write(const py::object& buffer) {
    CHeldBuffer held(buffer, false);
    return withDisk([&](zarn::CVMDKDisk& disk) {
      if (!writable_) throw kx::CIOError(kx::IOERR_NOT_SUPPORTED, "The disk is open for reading only.");
      // Refused whole before anything is written, as the library refuses
      // one write past the end.
      if (held.size() > disk.getSizeBytes() - disk.getPosition()) {
        throw kx::CIOError(kx::IOERR_BEYOND_TARGET, "Write past the end of the disk.",
                           kx::CProps()
                               .add("position", disk.getPosition())
                               .add("bytes", held.size())
                               .add("sizeBytes", disk.getSizeBytes()));
      }
      for (int64_t done = 0; done < held.size();) {
        const int64_t piece = std::min(held.size() - done, kMaxPiece);
        disk.write(held.data() + done, static_cast<int>(piece));
        done += piece;
      }
      return held.size();
    });
  }

  int64_t seek(int64_t offset, int whence) {
    return withDisk([&](zarn::CVMDKDisk& disk) {
      int64_t base = 0;
      if (whence == 1) {
        base = disk.getPosition();
      } else if (whence == 2) {
        base = disk.getSizeBytes();
      } else if (whence != 0) {
        throw py::value_error("whence must be 0, 1 or 2, not " + std::to_string(whence));
      }
      disk.seek(base + offset);
      return disk.getPosition();
    });
  }

  int64_t tell() {
    return withDisk([](zarn::CVMDKDisk& disk) { return disk.getPosition(); });
  }

  void flush() {
    withDisk([](zarn::CVMDKDisk& disk) { disk.flushChanges(); });
  }

  // Flushes and lets go of the disk and its lock; closed afterwards also
  // when the flush fails, whose error is raised then.
  void close() {
    py::gil_scoped_release released;
    std::lock_guard<std::mutex> lock(mutex_);
    if (!disk_) return;
    const kx::P<zarn::CVMDKDisk> disk = std::move(disk_);
    disk_ = nullptr;
    if (writable_) disk->flushChanges();
  }

  py::dict info() {
    struct CInfo {
      int64_t size, grain;
      bool compressed;
      std::string createType, encryption, parent, mainFile;
      uint32_t contentID = 0, parentContentID = kNoParentContentID;
      std::vector<std::string> extentFiles;
    } values = withDisk([](zarn::CVMDKDisk& disk) {
      CInfo info;
      info.size = disk.getSizeBytes();
      info.grain = disk.getGrainSizeBytes();
      info.compressed = disk.getCompressed();
      const kx::P<zarn::CVMDKDescriptor> descriptor = disk.getDescriptor();
      info.createType = descriptor->getCreateType().toUTF8();
      info.encryption = descriptor->getKxEncryptionAlgorithm().toUTF8();
      info.contentID = descriptor->getContentID();
      info.parentContentID = descriptor->getParentContentID();
      kx::String hint;
      if (info.parentContentID != kNoParentContentID && descriptor->tryGetParentFileNameHint(hint)) {
        info.parent = hint.toUTF8();
      }
      info.mainFile = uriToPath(disk.getMainFileURI());
      kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
      descriptor->getExtentEntries(extents);
      for (const auto& extent : extents) {
        info.extentFiles.push_back(uriToPath(disk.getMainFileURI().getParent() << extent->getFilename()));
      }
      return info;
    });
    py::dict result;
    result["size"] = values.size;
    result["grain_size"] = values.grain;
    result["compressed"] = values.compressed;
    result["create_type"] = values.createType;
    result["encryption"] = values.encryption;
    result["content_id"] = values.contentID;
    result["parent"] = values.parent.empty() ? py::object(py::none()) : py::object(py::str(values.parent));
    result["parent_content_id"] =
        values.parentContentID == kNoParentContentID ? py::object(py::none()) : py::object(py::int_(values.parentContentID));
    result["main_file"] = values.mainFile;
    result["extent_files"] = values.extentFiles;
    return result;
  }

  std::tuple<int64_t, int64_t, int64_t, int64_t> space() {
    return withDisk([](zarn::CVMDKDisk& disk) {
      const kx::P<zarn::CVMDKSpaceInfo> info = disk.gatherSpaceInfo();
      return std::make_tuple(info->getPayloadSize(), info->getPayloadSizeInFile(), info->getHeaderSize(),
                             info->getDeadSpaceSize());
    });
  }

  // The allocated runs as zarn-img map lists them: (offset, length, depth),
  // depth 0 for this disk, 1 for its parent, and so on. The parents are
  // opened read-only for the walk and let go after it; the position stays.
  std::vector<std::tuple<int64_t, int64_t, int>> allocated() {
    return withDisk([this](zarn::CVMDKDisk& disk) {
      const int64_t position = disk.getPosition();
      std::vector<kx::P<zarn::CVMDKDisk>> chain{kx::P<zarn::CVMDKDisk>::share(&disk)};
      std::vector<std::tuple<int64_t, int64_t, int>> runs;
      const int64_t size = disk.getSizeBytes();
      const int64_t grain = disk.getGrainSizeBytes();
      for (int64_t offset = 0; offset < size; offset += grain) {
        const int depth = findDepth(chain, offset);
        if (depth < 0) continue;
        const int64_t length = std::min(grain, size - offset);
        if (!runs.empty() && std::get<2>(runs.back()) == depth &&
            std::get<0>(runs.back()) + std::get<1>(runs.back()) == offset) {
          std::get<1>(runs.back()) += length;
        } else {
          runs.emplace_back(offset, length, depth);
        }
      }
      disk.seek(position);
      return runs;
    });
  }

 private:
  static int64_t readAt(zarn::CVMDKDisk& disk, char* buffer, int64_t wanted) {
    const int64_t count = std::max<int64_t>(0, std::min(wanted, disk.getSizeBytes() - disk.getPosition()));
    for (int64_t done = 0; done < count;) {
      const int64_t piece = std::min(count - done, kMaxPiece);
      disk.read(buffer + done, static_cast<int>(piece));
      done += piece;
    }
    return count;
  }

  // Where reading finds a disk's parent: its recorded reference, else a file
  // of that name beside it, as the library itself looks.
  kx::CURI findParentURI(const zarn::CVMDKDisk& disk) {
    const kx::CURI recorded = disk.getParentDiskMainURI();
    if (fileSystem_->fileExists(recorded)) return recorded;
    const kx::CURI beside = disk.getMainFileURI().getParent() << recorded.getName();
    return fileSystem_->fileExists(beside) ? beside.toNormalized() : recorded;
  }

  // The depth of the first disk of the chain that holds the grain at
  // `offset`, -1 for none; parents are opened as the walk first needs them.
  int findDepth(std::vector<kx::P<zarn::CVMDKDisk>>& chain, int64_t offset) {
    chain[0]->seek(offset);
    if (!chain[0]->isGrainWritten()) return -1;
    for (size_t depth = 0;; ++depth) {
      if (depth == chain.size()) {
        const zarn::CVMDKDisk& child = *chain.back();
        if (child.getDescriptor()->getParentContentID() == kNoParentContentID) return -1;
        chain.push_back(
            kx::create<zarn::CVMDKDisk>(fileSystem_.get(), findParentURI(child), kx::IIOStream::ACCESS_READ, password_));
      }
      zarn::CVMDKDisk& disk = *chain[depth];
      if (offset >= disk.getSizeBytes()) return -1;
      disk.seek(offset);
      if (disk.isGrainWrittenAndIndependentOfParent()) return static_cast<int>(depth);
    }
  }

  std::mutex mutex_;
  kx::P<kx::IFileSystem> fileSystem_;
  kx::P<zarn::CVMDKDisk> disk_;
  bool writable_;
  kx::String password_;
};

std::unique_ptr<CDiskHandle> openDisk(const std::string& path, bool writable, const std::string& password,
                                      const std::string& confine) {
  py::gil_scoped_release released;
  kx::P<kx::IFileSystem> fileSystem = makeFileSystem(confine);
  const kx::CURI uri = pathToURI(path);
  // Opened for writing, a missing main file would be made empty and then
  // refused as damaged, which hides the real reason.
  if (!fileSystem->fileExists(uri)) throwNotFound(path, uri);
  const kx::String secret = kx::String::fromUTF8(password);
  kx::P<zarn::CVMDKDisk> disk = kx::create<zarn::CVMDKDisk>(
      fileSystem.get(), uri, writable ? kx::IIOStream::ACCESS_READ_WRITE : kx::IIOStream::ACCESS_READ, secret);
  return std::make_unique<CDiskHandle>(std::move(fileSystem), std::move(disk), writable, secret);
}

// `parentPath` is the parent as this process reaches it, `parentReference`
// what the child records (relative to the child's folder).
std::unique_ptr<CDiskHandle> createDisk(const std::string& path, int64_t sizeBytes, bool compressed,
                                        int compressionLevel, int64_t fileSizeLimit, const std::string& password,
                                        const std::string& parentPath, const std::string& parentReference,
                                        bool onDemand) {
  py::gil_scoped_release released;
  kx::P<kx::IFileSystem> fileSystem = makeFileSystem(std::string());
  const kx::String secret = kx::String::fromUTF8(password);
  uint32_t parentContentID = kNoParentContentID;
  if (!parentPath.empty()) {
    const kx::CURI parentURI = pathToURI(parentPath);
    if (!fileSystem->fileExists(parentURI)) throwNotFound(parentPath, parentURI);
    const kx::P<zarn::CVMDKDisk> parent =
        kx::create<zarn::CVMDKDisk>(fileSystem.get(), parentURI, kx::IIOStream::ACCESS_READ, secret);
    parentContentID = parent->getDescriptor()->getContentID();
    if (sizeBytes < 0) sizeBytes = parent->getSizeBytes();
  }
  if (sizeBytes < 0) throw kx::CInvalidArgError("zarn.create", "A size is needed for a disk without parent.");
  kx::P<zarn::CVMDKDisk> disk =
      zarn::CVMDKDisk::create(fileSystem.get(), pathToURI(path), sizeBytes, secret, compressed, compressionLevel,
                              fileSizeLimit, kx::String::fromUTF8(parentReference), parentContentID, onDemand);
  return std::make_unique<CDiskHandle>(std::move(fileSystem), std::move(disk), true, secret);
}

}  // namespace

PYBIND11_MODULE(_zarn, module) {
  module.doc() = "The native half of zarn; use the package zarn.";

  py::register_exception_translator([](std::exception_ptr pointer) {
    try {
      if (pointer) std::rethrow_exception(pointer);
    } catch (const kx::CError& error) {
      raiseError(error);
    }
  });

  module.def("_set_error_classes", [](py::object error, py::object ioError, py::object invalidArgError,
                                      py::object fileSystemError, py::object badPathError, py::object lockFileError) {
    // Kept for the life of the interpreter, as the module itself is.
    g_errorClasses = new CErrorClasses{error, ioError, invalidArgError, fileSystemError, badPathError, lockFileError};
  });

  module.def("open_disk", &openDisk, py::arg("path"), py::arg("writable"), py::arg("password"), py::arg("confine"));
  module.def("create_disk", &createDisk, py::arg("path"), py::arg("size"), py::arg("compressed"),
             py::arg("compression_level"), py::arg("file_size_limit"), py::arg("password"), py::arg("parent_path"),
             py::arg("parent_reference"), py::arg("on_demand"));
  module.attr("DEFAULT_SPLIT_SIZE") = zarn::CVMDKDisk::getDefaultFileSizeLimit();

  py::class_<CDiskHandle>(module, "DiskHandle")
      .def("readinto", &CDiskHandle::readInto)
      .def("read", &CDiskHandle::read)
      .def("write", &CDiskHandle::write)
      .def("seek", &CDiskHandle::seek)
      .def("tell", &CDiskHandle::tell)
      .def("flush", &CDiskHandle::flush)
      .def("close", &CDiskHandle::close)
      .def_property_readonly("closed", &CDiskHandle::isClosed)
      .def_property_readonly("writable", &CDiskHandle::isWritable)
      .def("info", &CDiskHandle::info)
      .def("space", &CDiskHandle::space)
      .def("allocated", &CDiskHandle::allocated);
}
