// CVMDKForeignDisk: a VMDK disk made by another tool, opened for reading only,
// so that its bytes can be copied into a disk of this library.
//
// CVMDKDisk opens only the layouts this library writes. Other tools write
// layouts that it refuses, and keeps refusing, since it couldn't keep them
// consistent when writing: the published stream-optimized layout (grains
// behind grain markers, grain tables and directory near the end, found
// through a footer, or tables at the head without the slot directory of this
// library), flat extents (raw files at a sector offset, and zero extents), and
// plain sparse extents with grain table entries of 1 (zeroed grains). This
// class reads all of these, and also the sparse layouts that CVMDKDisk reads
// itself when they aren't encrypted, through one chain of parents whose links
// may be this library's disks or foreign ones.
//
// Every number of a foreign file is untrusted. A file that can't be read gets
// kx::CIOError code 5 with the property "uri", at opening when the disk as a
// whole can't be used, or at the read of the grain that a damaged table or
// grain spoils, while the other grains stay readable. Memory stays within
// what the sizes of the files justify.
//
// A compressed extent whose footer is missing or damaged (a download cut
// short) is read from one forward scan of its grain markers, with a warning:
// what was stored before the damage reads, the rest as zeros.
//
// Reference counted (see kx/base.h). Not shared between threads: one thread
// at a time uses the disk with its parents.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/containers.h"
#include "kx/file_system.h"
#include "kx/string.h"
#include "kx/uri.h"
#include "zarn/data_preparer.h"
#include "zarn/descriptor.h"
#include "zarn/grain_table_cache.h"
#include "zarn/idisk.h"

namespace zarn {

class CVMDKForeignDescriptorLayer;
class CVMDKForeignGrainUnpacker;
class IVMDKForeignLayer;

class CVMDKForeignDisk : public kx::CBase, public IDisk {
 public:
  // Parents below the disk itself; one more is refused as a loop in disguise.
  static constexpr int kMaxChainDepth = 255;

  // Opens the disk whose main file is `mainFile` (a descriptor file, or a
  // sparse extent with its descriptor embedded) read-only, under a shared
  // lock on "<name>.lock" like a reading CVMDKDisk (a folder where no lock
  // file can be made, and where none exists, is no error). Reads the
  // descriptor, checks every extent line and opens the first sparse extent;
  // other extents open at their first use and parents at their first need.
  // `password` is handed to parents that are this library's encrypted
  // disks; the disk itself must not be encrypted.
  //
  // Raises kx::CIOError code 5 ("uri" names the file) for a descriptor or
  // first extent that can't be read, an unknown create type or extent type,
  // an extent line beyond its file's capacity, a parent reference that names
  // no file (a missing parent is found missing when needed); code 13 for an
  // encrypted disk (CVMDKDisk opens those); code 6 for a sparse extent
  // version other than 1 to 3; what the file system raises for a missing
  // file, and kx::CLockFileError while a writer holds the disk. A failure
  // holds nothing open.
  CVMDKForeignDisk(kx::IFileSystem* fileSystem, const kx::CURI& mainFile, const kx::String& password = kx::String());
  ~CVMDKForeignDisk() override;
  CVMDKForeignDisk(const CVMDKForeignDisk&) = delete;
  CVMDKForeignDisk& operator=(const CVMDKForeignDisk&) = delete;

  // Reads `bytes` from the position, which then moves on by `bytes`. Bytes
  // that neither the disk nor a parent holds read as zeros, as do zero
  // grains and zero extents (which hide the parent's bytes). Raises
  // kx::CIOError code 4 for a range beyond the disk, before anything is read;
  // code 5 when a grain, table or parent in the range is damaged (the other
  // grains stay readable); kx::CInvalidArgError for a negative count. On
  // failure the position stays and `buffer` may hold anything.
  void read(void* buffer, int bytes) override;
  // Always raises kx::CIOError code 13: a foreign disk is converted into a
  // disk of this library before it is changed.
  void write(const void* buffer, int bytes) override;
  // 0 to the size, both included; else kx::CIOError code 7.
  void seek(int64_t position) override;
  // The byte position of the next read.
  int64_t getPosition() override { return position_; }
  // The sum of the extent lines' sizes, as the descriptor gives them.
  int64_t getSizeBytes() override { return sizeBytes_; }
  // Nothing to do: nothing is ever changed.
  void flushChanges() override {}

  // The grain size of the first sparse extent; 64 KiB for a disk of flat and
  // zero extents only, as a unit for grain-wise copies.
  int64_t getGrainSizeBytes() const { return grainSizeBytes_; }
  // Whether the first sparse extent stores its grains compressed; what
  // readPreparedGrainData gives follows this.
  bool getCompressed() const { return compressed_; }

  // Whether the grain at the position (rounded down to a grain border) holds
  // data in this disk or a parent. Zero grains (table entry 1, or a
  // compressed grain that unpacks to zeros) and zero extents don't count.
  // Raises as read does for a damaged table or parent; a compressed grain
  // that doesn't unpack counts as written, and its read fails.
  bool isGrainWritten();
  // Where the data of the grain at the position comes from: 0 this disk, 1
  // its parent, and so on; -1 when it reads as zeros with nothing written.
  // A grain made of pieces from several depths (parents of other grain
  // sizes) gives the smallest. Raises as isGrainWritten.
  int getAllocationDepth();
  // The main file of the disk at `depth` of the chain (0 this disk), opening
  // the chain down to it if need be. Raises kx::CInvalidArgError for a depth
  // beyond the chain, and what opening a parent raises.
  kx::CURI getChainDiskURI(int depth);

  // One whole grain in prepared form at a grain border (see
  // CVMDKDataPreparer): with getCompressed(), the 12-byte grain header with
  // this disk's grain address, then the deflate data, padded with zeros to
  // whole sectors; a grain stored compressed is handed on as stored, without
  // unpacking it, so that a caller can unpack grains on threads of its own
  // with preparers from createDataPreparer. Without compression, the plain
  // grain. The position moves on by one grain. Raises kx::CIOError code 11
  // off a grain border, code 3 when the grain doesn't lie wholly in the
  // disk, and as read does. `data` is replaced; on failure it may hold anything.
  void readPreparedGrainData(kx::TBuffer<unsigned char>& data);
  // A preparer that matches readPreparedGrainData (grain size, compression).
  kx::P<CVMDKDataPreparer> createDataPreparer() const;

  // The disk's own descriptor, as read; not to be changed.
  kx::P<CVMDKDescriptor> getDescriptor() const;
  // The descriptor's "createType": one of "monolithicSparse",
  // "twoGbMaxExtentSparse", "streamOptimized", "monolithicFlat",
  // "twoGbMaxExtentFlat", "vmfs".
  kx::String getCreateType() const;
  // The main file, normalized.
  kx::CURI getMainFileURI() const { return mainURI_; }
  // The files of the extent lines in descriptor order; zero extents have none.
  kx::TArray<kx::CURI> getExtentFiles() const;
  // The parent's main file as the descriptor names it, resolved against this
  // disk's folder; empty without one. Raises kx::CIOError code 5 as the
  // constructor does for a reference that names no file.
  kx::CURI getParentDiskMainURI() const;
  // Why CVMDKDisk refuses the disk, in a few words, several joined by "; ":
  // "flat extents", "published stream-optimized layout", "grain table
  // entries of 1 (zeroed grains)", ... Judged from the descriptor and the
  // first sparse extent. Empty when nothing there needs this class; the
  // library's own opening may then read the disk.
  kx::String getForeignReason() const;

 private:
  // Opens the chain down to layer `depth` unless done; false when the chain
  // ends above it.
  bool ensureLayer(int depth);
  kx::P<IVMDKForeignLayer> openParentLayer(const kx::CURI& uri);
  // The depth that serves `position` (-1: zeros) and in `runBytes` how many
  // bytes from there, at most `maxBytes`, it serves alike. `exact` unpacks a
  // compressed grain to learn whether it is all zeros.
  int resolve(int64_t position, int64_t maxBytes, bool exact, int64_t& runBytes);
  void readAt(int64_t position, unsigned char* out, int64_t bytes);
  kx::CProps mainProps() const;

  kx::P<kx::IFileSystem> fileSystem_;
  kx::CURI mainURI_;
  kx::String password_;
  kx::P<CVMDKForeignGrainUnpacker> unpacker_;  // shared by the foreign disks of the chain
  kx::P<CVMDKForeignDescriptorLayer> ownLayer_;
  kx::TArray<kx::P<IVMDKForeignLayer>> layers_;  // [0] is ownLayer_, then the parents opened so far
  bool chainComplete_ = false;
  kx::P<CVMDKGrainTableCache> grainTableCache_;  // for parents of this library, made at the first
  int64_t sizeBytes_ = 0;
  int64_t grainSizeBytes_ = 0;
  bool compressed_ = false;
  int64_t position_ = 0;
  kx::P<CVMDKDataPreparer> preparer_;
  kx::P<kx::TBuffer<unsigned char>> plainGrain_;
  kx::P<kx::TBuffer<unsigned char>> preparedZeroGrain_;
};

}  // namespace zarn
