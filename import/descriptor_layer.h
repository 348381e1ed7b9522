// CVMDKForeignDescriptorLayer: one foreign disk without its parents: its
// descriptor, its extent lines and, as they are needed, its extent files.
//
// Extent lines are read in descriptor order, with the same grammar as
// CVMDKExtentInfo, plus zero lines, which name no file:
//   RW 2048 SPARSE "disk-s001.vmdk"
//   RW 2048 FLAT "disk-flat.vmdk" 0      (a sector offset in the file)
//   RW 2048 VMFS "disk-flat.vmdk"
//   RW 2048 ZERO
// The access word is not looked at: nothing is ever written.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "import/foreign_extent.h"
#include "import/foreign_layer.h"
#include "import/grain_map.h"
#include "import/grain_unpacker.h"
#include "kx/base.h"
#include "kx/containers.h"
#include "kx/file_system.h"
#include "kx/lock_file.h"
#include "kx/mru_cache.h"
#include "kx/string.h"
#include "kx/uri.h"
#include "zarn/descriptor.h"
#include "zarn/format_constants.h"

namespace zarn {

class CVMDKForeignDescriptorLayer : public kx::CBase, public IVMDKForeignLayer {
 public:
  // Extent files held open at a time; the others are opened again when the
  // position comes back to them.
  static constexpr int32_t kOpenExtentLimit = 4;
  // Grain maps kept for files that may be named again, in later lines.
  static constexpr int32_t kGrainMapLimit = 16;
  // The grain size reported for a disk without sparse extents.
  static constexpr int64_t kFlatGrainSizeSectors = 128;

  enum class ExtentKind { Sparse, Flat, Zero };
  struct CExtentLine {
    ExtentKind kind;
    kx::CURI uri;  // empty for a zero extent
    int64_t startSector;
    int64_t sizeSectors;
    int64_t offsetSectors;  // into a flat file
  };

  // Takes a shared lock on "<name>.lock" as a reading CVMDKDisk does, reads
  // the descriptor of `mainFile`, checks create type and extent lines, and
  // opens the first sparse extent to learn grain size and compression.
  // `unpacker` unpacks compressed grains; it is kept, may be shared with
  // other layers of one chain (one thread at a time) and must not be null.
  // Raises as CVMDKForeignDisk's constructor says.
  CVMDKForeignDescriptorLayer(kx::IFileSystem* fileSystem, const kx::CURI& mainFile,
                              CVMDKForeignGrainUnpacker* unpacker);
  ~CVMDKForeignDescriptorLayer() override;
  CVMDKForeignDescriptorLayer(const CVMDKForeignDescriptorLayer&) = delete;
  CVMDKForeignDescriptorLayer& operator=(const CVMDKForeignDescriptorLayer&) = delete;

  kx::CURI getMainFileURI() const override { return mainURI_; }
  int64_t getSizeBytes() const override { return sizeSectors_ * kSectorSizeBytes; }
  kx::P<CVMDKDescriptor> getDescriptor() const override { return descriptor_; }
  VMDKForeignGrainState getState(int64_t position, int64_t maxBytes, bool exact, int64_t& runBytes) override;
  void read(int64_t position, void* buffer, int bytes) override;
  bool tryReadStoredGrain(int64_t position, int64_t grainBytes, kx::TBuffer<unsigned char>& data) override;

  const std::vector<CExtentLine>& getExtentLines() const { return lines_; }
  // The files of all extent lines in descriptor order, empty ones included.
  const kx::TArray<kx::CURI>& getExtentFiles() const { return files_; }
  const kx::String& getCreateType() const { return createType_; }
  int64_t getGrainSizeSectors() const { return grainSizeSectors_; }
  bool getCompressed() const { return compressed_; }
  // See CVMDKForeignDisk::getForeignReason.
  const kx::String& getForeignReason() const { return reason_; }

 private:
  kx::CProps uriProps() const;
  void readExtentLines();
  void addExtentLine(const kx::String& type, int64_t sectors, const kx::String& fileName, int64_t offset,
                     int64_t& runningSectors);
  // The line that holds disk byte `position`. REQUIRES: below the size.
  size_t findLine(int64_t position) const;
  kx::P<IVMDKForeignExtent> getExtent(size_t line);

  kx::P<kx::IFileSystem> fileSystem_;
  kx::CURI mainURI_;
  kx::P<kx::CLockFile> lockFile_;
  kx::P<CVMDKDescriptor> descriptor_;
  kx::String createType_;
  std::vector<CExtentLine> lines_;  // lines with at least one sector, by start
  std::optional<CExtentLine> firstSparse_;
  int64_t firstSparseIndex_ = -1;  // in lines_
  kx::TArray<kx::CURI> files_;
  int64_t sizeSectors_ = 0;
  int64_t grainSizeSectors_ = kFlatGrainSizeSectors;
  bool compressed_ = false;
  kx::String reason_;
  kx::P<CVMDKForeignGrainUnpacker> unpacker_;
  kx::TMostRecentlyUsedCache<size_t, IVMDKForeignExtent> extents_;
  kx::P<CVMDKForeignGrainMapCache> grainMaps_;
};

}  // namespace zarn
