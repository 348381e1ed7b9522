// CVMDKContentIDUpdater: draws a new content ID for a disk and has it in the
// file, flushed, before the first byte of changed data is written.
//
// A child disk records its parent's content ID and refuses a parent whose ID
// moved, so the ID has to change with the data. The disk makes one updater
// per opening and hands it to its extents, which call onDiskAboutToChange
// before every change; the first call does the work, the rest cost one test.
// The update works on the descriptor text in the file: of the disk's own
// document only the content ID changes.
#pragma once

#include "kx/base.h"
#include "kx/file_system.h"
#include "kx/uri.h"
#include "zarn/descriptor.h"

namespace zarn {

class CVMDKSparseExtentFile;

class CVMDKContentIDUpdater : public kx::CBase {
 public:
  // Takes references on `fileSystem` and `descriptor` (the disk's document).
  CVMDKContentIDUpdater(kx::IFileSystem* fileSystem, const kx::CURI& mainFileURI, CVMDKDescriptor* descriptor);
  ~CVMDKContentIDUpdater() override;

  // Does the update if it is due: through the extent's own stream when the
  // extent is the main file, else through a stream of its own on the main
  // file. Errors (opening, a descriptor that no longer fits, writing) pass
  // through, the update counts as not done, and the next change tries again.
  void onDiskAboutToChange(CVMDKSparseExtentFile& extent);
  // Off: data changes under the old content ID. On again: the next change
  // updates, if no update was done yet.
  void setContentIDUpdatesEnabled(bool enabled) { contentIDUpdatesEnabled_ = enabled; }
  bool getContentIDUpdated() const { return contentIDUpdated_; }

 private:
  kx::P<kx::IFileSystem> fileSystem_;
  kx::CURI mainFileURI_;
  kx::P<CVMDKDescriptor> descriptor_;
  bool contentIDUpdated_ = false;
  bool contentIDUpdatesEnabled_ = true;
};

}  // namespace zarn
