// CVMDKOwnDiskLayer: a disk of this library as a link of a foreign disk's
// chain. It answers for the grains the disk holds itself (the chain below it
// is the foreign disk's to walk, since its links may be foreign), so the
// disk's own parent provider is never asked.
#pragma once

#include <cstdint>

#include "import/foreign_layer.h"
#include "kx/base.h"
#include "zarn/disk.h"

namespace zarn {

class CVMDKOwnDiskLayer : public kx::CBase, public IVMDKForeignLayer {
 public:
  // `disk` is open for reading; the layer takes a reference.
  explicit CVMDKOwnDiskLayer(CVMDKDisk* disk);
  ~CVMDKOwnDiskLayer() override;

  kx::CURI getMainFileURI() const override { return disk_->getMainFileURI(); }
  int64_t getSizeBytes() const override { return disk_->getSizeBytes(); }
  kx::P<CVMDKDescriptor> getDescriptor() const override { return disk_->getDescriptor(); }
  // Stored or Absent, by the disk's grain; the disk has no zero grains.
  VMDKForeignGrainState getState(int64_t position, int64_t maxBytes, bool exact, int64_t& runBytes) override;
  void read(int64_t position, void* buffer, int bytes) override;
  // The disk's prepared data, when it is compressed with grains of
  // `grainBytes` and holds the grain itself.
  bool tryReadStoredGrain(int64_t position, int64_t grainBytes, kx::TBuffer<unsigned char>& data) override;

 private:
  kx::P<CVMDKDisk> disk_;
};

}  // namespace zarn
