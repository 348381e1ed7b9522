// The grain pump of `convert`: from a raw file or a disk into a raw file or a
// disk, grain by grain, in bounded batches.
#pragma once

#include <cstdint>
#include <memory>

#include "grain_locator.h"
#include "kx/stream.h"
#include "zarn/disk.h"
#include "zarn/foreign_disk.h"

namespace zarn_img {

// Exactly one of each pair is set. A raw target is already as long as the
// source (longer for -n).
struct CConvertEnds {
  kx::P<zarn::CVMDKDisk> sourceDisk;
  kx::P<zarn::CVMDKForeignDisk> sourceForeign;  // a disk of another tool, instead
  // Whether every parent of the source stores grains as the source does: a
  // grain of a parent that doesn't can't be read in the source's stored form.
  bool sourceChainStoresAlike = true;
  // Where the source's own grains lie in its files, when they lie there as
  // they read: a raw target copies them from file to file.
  std::shared_ptr<CGrainLocator> sourceLocator;
  kx::P<kx::IIOStream> sourceRaw;
  int64_t sourceSizeBytes = 0;
  kx::P<zarn::CVMDKDisk> targetDisk;
  kx::P<kx::IIOStream> targetRaw;
};

struct CConvertSettings {
  int threads = 1;
  // The target has content already (-n, or a parent under a new disk): a grain
  // is written only where the target reads otherwise. Without it the target
  // reads as zeros and zero grains are passed over.
  bool compareWithTarget = false;
  bool showProgress = false;
};

struct CConvertResult {
  int64_t grainsWritten = 0;
  int64_t grainsMoved = 0;  // of those, copied in prepared form
  int64_t bytesWritten = 0;  // of the source's content, into the target
  double seconds = 0;
};

// Runs the copy. Grains are read in the source's grain size (64 KiB for a raw
// source into a raw file, the target's for a raw source into a disk).
// vmdk to vmdk with equal grain size and compression, into a fresh target,
// moves grains in prepared form; otherwise a compressed source is read in
// prepared form and unpacked, and a compressed target gets its grains
// packed, on `threads` threads with a preparer each, the disks being used by
// the calling thread alone. Raises CInterrupted at the next grain after a
// signal, and what the disks and streams raise; what was written before stays.
// `result` counts as the work goes, so that a caller that catches knows how
// far it got.
void convertGrains(const CConvertEnds& ends, const CConvertSettings& settings, CConvertResult& result);

}  // namespace zarn_img
