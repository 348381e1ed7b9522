"""zarn: VMDK sparse disks as Python files.

    import shutil, zarn
    with zarn.open("disk.vmdk") as disk, open("disk.raw", "wb") as out:
        shutil.copyfileobj(disk, out, 1 << 20)

zarn.open gives a zarn.Disk, an io.RawIOBase over the disk's bytes; zarn.create
makes a new disk and gives it open for writing. Errors of the library are
zarn.Error (an OSError) and its subclasses; a closed disk raises ValueError
as Python files do.

A Disk holds the disk's lock file from open to close: any number of readers,
or one writer. Calls release the GIL while they work, so threads on
different disks run in parallel; calls on one disk from several threads run
one at a time, each whole.
"""

import collections
import io
import os

from . import _zarn

__all__ = ["open", "create", "Disk", "SpaceInfo", "Error", "IOError", "InvalidArgError", "FileSystemError",
           "BadPathError", "LockFileError", "LAYOUTS"]


class Error(OSError):
    """An error of the library: `code` (its number, -1 for most), `message`,
    `properties` (a dict of names to text, such as "uri"), and the errno of
    the nearest system error."""

    code = -1
    message = ""
    properties = {}
    context = ""

    def __str__(self):
        if not self.properties:
            return self.message
        return "%s (%s)" % (self.message, ", ".join("%s: %s" % item for item in self.properties.items()))


class IOError(Error):  # noqa: A001 - the library's name for it
    """Reading or writing failed, or the data is damaged (`code` 5)."""


class InvalidArgError(Error):
    """An argument the library refuses, such as a size no layout can hold."""


class FileSystemError(Error):
    """A file operation failed; `problem` says what (FSPROB_* below)."""

    problem = 0


class BadPathError(Error):
    """A file name that can't be made valid; `path` holds it."""

    path = ""


class LockFileError(Error):
    """The disk is in use by a writer, or one can't be locked."""


FSPROB_OTHER, FSPROB_NOT_FOUND, FSPROB_ACCESS_DENIED, FSPROB_ALREADY_EXISTS, FSPROB_NO_SPACE, FSPROB_IO, \
    FSPROB_NOT_SUPPORTED, FSPROB_LOCKED, FSPROB_BAD_NAME = range(9)

_zarn._set_error_classes(Error, IOError, InvalidArgError, FileSystemError, BadPathError, LockFileError)

SpaceInfo = collections.namedtuple("SpaceInfo", "payload_size payload_size_in_file header_size dead_space_size")
SpaceInfo.__doc__ = """How the bytes of a disk's files are used: guest data held, the room its
grains take, the files' heads (headers, descriptors, tables), and everything else."""

LAYOUTS = ("monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized")


class Disk(io.RawIOBase):
    """An open disk: a file of fixed size. Seeking beyond the end and writing
    past it raise zarn.IOError; reading at the end gives b""."""

    def __init__(self, handle, name, mode):
        super().__init__()
        self._closing = False
        self._handle = handle
        self.name = name
        self.mode = mode
        self._info = handle.info()

    def __repr__(self):
        state = " closed" if self.closed else ""
        return "<zarn.Disk%s name=%r mode=%r>" % (state, self.name, self.mode)

    def _check_open(self):
        if self._handle.closed:
            raise ValueError("I/O operation on closed disk.")

    @property
    def closed(self):
        return self._handle.closed

    def close(self):
        """Flushes, then releases the disk and its lock. Closed afterwards
        even when the flush raises."""
        if not self.closed:
            self._closing = True
            try:
                self._handle.close()
            finally:
                super().close()
                self._closing = False

    def readable(self):
        self._check_open()
        return True

    def writable(self):
        self._check_open()
        return self._handle.writable

    def seekable(self):
        self._check_open()
        return True

    def readinto(self, buffer):
        """Reads straight into `buffer` (any writable contiguous buffer);
        returns the byte count, 0 at the end."""
        return self._handle.readinto(buffer)

    def read(self, size=-1):
        return self._handle.read(-1 if size is None else size)

    def readall(self):
        return self._handle.read(-1)

    def write(self, data):
        if not self._handle.writable:
            self._check_open()
            raise io.UnsupportedOperation("write: the disk is open for reading")
        return self._handle.write(data)

    def seek(self, offset, whence=io.SEEK_SET):
        return self._handle.seek(offset, whence)

    def tell(self):
        return self._handle.tell()

    def truncate(self, size=None):
        raise io.UnsupportedOperation("truncate: a disk has a fixed size")

    def flush(self):
        """Brings every change into the files, down to the device."""
        if self._closing:
            return  # io's close() calls flush() after the handle closed
        self._handle.flush()

    @property
    def size(self):
        return self._info["size"]

    @property
    def grain_size(self):
        return self._info["grain_size"]

    @property
    def create_type(self):
        return self._info["create_type"]

    @property
    def compressed(self):
        return self._info["compressed"]

    @property
    def encrypted(self):
        return bool(self._info["encryption"])

    @property
    def content_id(self):
        """The content ID of the disk when opened; the first write of an
        opening gives the disk a new one."""
        self._check_open()
        return self._handle.info()["content_id"]

    @property
    def parent(self):
        """The parent reference the disk records (relative to its folder), or
        None for a disk without parent."""
        return self._info["parent"]

    @property
    def extent_files(self):
        """The paths of the extent files, in order."""
        return list(self._info["extent_files"])

    def space(self):
        """The space use of all extent files, as a SpaceInfo."""
        return SpaceInfo(*self._handle.space())

    def allocated(self):
        """Yields (offset, length, depth) for each run of grains some disk of
        the chain holds, as zarn-img map lists them: depth 0 is this disk, 1
        its parent, and so on. Runs not listed read as zeros."""
        return iter(self._handle.allocated())


def _absolute(path):
    return os.path.abspath(os.fsdecode(path))


def open(path, mode="rb", password=None, confine=None):  # noqa: A001 - zarn.open as io.open
    """Opens the disk whose main file is `path`, for reading ("rb") or for
    reading and writing ("r+b"). `password` unlocks an encrypted disk and its
    parents; with `confine`, every file the disk names must lie inside that
    folder."""
    if mode not in ("rb", "r+b"):
        raise ValueError("mode must be 'rb' or 'r+b', not %r" % (mode,))
    handle = _zarn.open_disk(_absolute(path), mode == "r+b", password or "",
                             _absolute(confine) if confine is not None else "")
    return Disk(handle, os.fsdecode(path), mode)


def create(path, size, *, layout="monolithicSparse", split_size=None, compression_level=None, password=None,
           parent=None, on_demand=False):
    """Makes a new disk of at least `size` bytes (rounded up to whole grains,
    8 MiB at least; None takes the parent's size) and returns it open "r+b".

    layout: "monolithicSparse" (one file), "twoGbMaxExtentSparse" (a descriptor
    file and extent files of `split_size` bytes, 2 GiB by default) or
    "streamOptimized" (compressed; one file, or split by `split_size`).
    compression_level 0..9 for the compressed layout; `password` encrypts;
    `parent` (a path) makes a differencing disk over it, recorded relative to
    the new disk's folder; `on_demand` makes the extent files of a split disk
    at their first write. Files of the same names are replaced."""
    if layout not in LAYOUTS:
        raise ValueError("layout must be one of %s, not %r" % (", ".join(LAYOUTS), layout))
    if split_size is not None and layout == "monolithicSparse":
        raise ValueError("split_size needs layout twoGbMaxExtentSparse or streamOptimized")
    if compression_level is not None and not 0 <= compression_level <= 9:
        raise ValueError("compression_level must be 0..9, not %r" % (compression_level,))
    if compression_level is not None and layout != "streamOptimized":
        raise ValueError("compression_level needs layout streamOptimized")
    if size is None and parent is None:
        raise ValueError("size is needed for a disk without parent")
    if size is not None and size <= 0:
        raise ValueError("size must be positive, not %r" % (size,))
    if split_size is not None and split_size <= 0:
        raise ValueError("split_size must be positive, not %r" % (split_size,))
    if on_demand and layout == "monolithicSparse":
        raise ValueError("on_demand needs a split layout")
    file_size_limit = -1
    if split_size is not None:
        file_size_limit = split_size
    elif layout == "twoGbMaxExtentSparse":
        file_size_limit = _zarn.DEFAULT_SPLIT_SIZE
    target = _absolute(path)
    parent_path = parent_reference = ""
    if parent is not None:
        parent_path = _absolute(parent)
        parent_reference = os.path.relpath(parent_path, os.path.dirname(target))
    handle = _zarn.create_disk(target, -1 if size is None else size, layout == "streamOptimized",
                               -1 if compression_level is None else compression_level, file_size_limit,
                               password or "", parent_path, parent_reference, on_demand)
    return Disk(handle, os.fsdecode(path), "r+b")
