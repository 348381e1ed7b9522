#include "zarn/content_id_updater.h"

#include "zarn/descriptor_accessor.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/sparse_extent_file.h"

namespace zarn {

CVMDKContentIDUpdater::CVMDKContentIDUpdater(kx::IFileSystem* fileSystem, const kx::CURI& mainFileURI,
                                             CVMDKDescriptor* descriptor)
    : fileSystem_(kx::P<kx::IFileSystem>::share(fileSystem)),
      mainFileURI_(mainFileURI.toNormalized()),
      descriptor_(kx::P<CVMDKDescriptor>::share(descriptor)) {}

CVMDKContentIDUpdater::~CVMDKContentIDUpdater() = default;

void CVMDKContentIDUpdater::onDiskAboutToChange(CVMDKSparseExtentFile& extent) {
  if (contentIDUpdated_ || !contentIDUpdatesEnabled_) return;
  // A descriptor embedded in this very extent is rewritten through its own
  // stream: a second stream on the file would not see what the first buffers.
  kx::P<kx::IIOStream> stream = extent.getURI().toNormalized() == mainFileURI_
                                    ? extent.getStream()
                                    : openVMDKFileStream(fileSystem_.get(), mainFileURI_, kx::IIOStream::ACCESS_READ_WRITE);
  auto accessor = kx::create<CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ_WRITE);
  // A descriptor file grows with the new text where it must; an embedded one
  // keeps its area.
  accessor->setReplaceableFile(fileSystem_.get(), mainFileURI_);
  // The first store of an opening also gives the one extent line of a copied
  // or renamed single-file disk the file's own name.
  if (accessor->getEmbeddedInSparseExtentFile()) {
    accessor->getDescriptor()->correctSingleExtentFilename(mainFileURI_.getName());
  }
  const uint32_t contentID = accessor->changeContentID();
  accessor->storeDescriptor(true);
  descriptor_->setContentID(contentID);
  contentIDUpdated_ = true;
}

}  // namespace zarn
