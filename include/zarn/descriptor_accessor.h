// CVMDKDescriptorAccessor: reads a disk's descriptor from its place in the
// main file and writes it back.
//
// The main file is either a text file that holds only the descriptor, or a
// sparse extent file whose header points at a reserved descriptor area. The
// accessor finds out which when it is made. Either way the area is at most
// 5 MiB. An embedded descriptor is stored in its area, which it fills exactly:
// text, then zero bytes. A descriptor file that the accessor may replace
// (setReplaceableFile) is written whole into a new file beside it, flushed,
// and renamed over it, so it may grow or shrink, and a crash leaves the old
// text or the new one; otherwise it too is stored in place at its size.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/file_system.h"
#include "kx/stream.h"
#include "zarn/descriptor.h"
#include "zarn/format_constants.h"

namespace zarn {

// Reference counted (see kx/base.h). One thread at a time; the only lock it
// takes is the global random generator's mutex around each draw. Every
// operation leaves the stream at the position where it found it, on failure
// too.
class CVMDKDescriptorAccessor : public kx::CBase {
 public:
  // The largest descriptor area that is read, in bytes.
  static constexpr int64_t kMaxDescriptorSizeBytes = kVMDKMaxDescriptorSizeBytes;

  // Reads and parses the descriptor of the file behind `stream`, which must
  // not be null; the accessor keeps a reference to it. `access` is the one
  // the stream was opened with: only kx::IIOStream::ACCESS_READ_WRITE allows
  // changeContentID and storeDescriptor.
  // Raises kx::CIOError code 6 for a sparse extent header of a version other
  // than 1 to 3, code 5 for a header without a descriptor area, an area above
  // the limit or an area that does not lie wholly inside the file; errors of
  // the stream (such as a file shorter than four bytes) pass through. A file that is no sparse extent is taken for a
  // descriptor file; nothing refuses its content.
  CVMDKDescriptorAccessor(kx::IIOStream* stream, kx::IIOStream::Access access);
  ~CVMDKDescriptorAccessor() override;

  // The accessor's own document, not a copy: changes to it are what
  // storeDescriptor writes.
  kx::P<CVMDKDescriptor> getDescriptor() const { return descriptor_; }
  // Whether the descriptor lives in the descriptor area of a sparse extent.
  bool getEmbeddedInSparseExtentFile() const { return embeddedInSparseExtentFile_; }

  // Puts a newly drawn content ID into the document and returns it. The value
  // is never 0, never 0xFFFFFFFF and never the one the document held. Writes
  // nothing to the file. Raises an internal kx::CError without write access,
  // and the document's error when it has no valid "CID".
  uint32_t changeContentID();
  // Rewrites the whole descriptor area with the document (which then says
  // "encoding" is UTF-8) and zero bytes, then flushes the stream if `flush`.
  // Raises an internal kx::CError without write access, or before writing
  // anything when the text no longer fits into the area. Errors of the stream
  // pass through; part of the area may then be written.
  void storeDescriptor(bool flush);

  // Lets storeDescriptor replace a descriptor file, which the stream must be
  // open on, by a new file of the text's own size: `uri` names the file in
  // `fileSystem`, and the new text is made as `uri` with ".new" behind its
  // name. Has no effect for an embedded descriptor.
  void setReplaceableFile(kx::IFileSystem* fileSystem, const kx::CURI& uri);

 private:
  void readDescriptor();
  // Refuses an area above the limit.
  void checkSize(kx::IIOStream& stream) const;

  // Writes the document into a new file and renames it over the old one.
  void replaceDescriptorFile();

  kx::P<kx::IIOStream> stream_;
  kx::IIOStream::Access access_;
  kx::P<kx::IFileSystem> fileSystem_;  // set by setReplaceableFile
  kx::CURI fileURI_;
  bool embeddedInSparseExtentFile_ = false;
  int64_t descriptorOffset_ = 0;
  int64_t descriptorSize_ = 0;
  kx::P<CVMDKDescriptor> descriptor_;
};

}  // namespace zarn
