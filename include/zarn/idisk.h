// IDisk: a disk as a flat run of bytes, for callers that want to stay free of
// the VMDK classes. Nothing in the library implements or calls it.
#pragma once

#include <cstdint>

#include "kx/base.h"

namespace zarn {

class IDisk : public virtual kx::IBase {
 public:
  virtual void read(void* buffer, int bytes) = 0;
  virtual void write(const void* buffer, int bytes) = 0;
  virtual void seek(int64_t position) = 0;
  virtual int64_t getPosition() = 0;
  virtual int64_t getSizeBytes() = 0;
  virtual void flushChanges() = 0;

 protected:
  ~IDisk() override = default;
};

}  // namespace zarn
