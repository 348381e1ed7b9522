// kx::IFileIdentity: an optional interface of file streams that can tell
// whether a name still leads to the file they hold open.
//
// A file can be deleted or replaced while a stream has it open; the stream then
// holds a file that no name reaches any more. Protocols that take a lock on a
// file and may delete it afterwards (kx::CLockFile) need to see this, or two
// holders could lock two different files of the same name. Reach the interface
// with kx::dynamicCast from the stream.
#pragma once

#include "kx/base.h"
#include "kx/uri.h"

namespace kx {

class IFileIdentity : public virtual IBase {
 public:
  // 1 when `uri` names the very file that this stream holds open, 0 when it
  // names another file or none, -1 when that can't be told (the stream is a
  // wrapper over one that can't tell, or the name can't be examined).
  // Never raises for a missing file; raises kx::CIOError code 10 when the
  // stream is closed.
  virtual int checkSameFile(const CURI& uri) = 0;
};

}  // namespace kx
