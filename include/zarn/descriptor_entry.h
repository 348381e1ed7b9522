// CVMDKDescriptorEntry: one line of a descriptor document.
//
// A descriptor is kept as an ordered list of line objects so that a text
// written by another tool survives a load, a few changes and a store with its
// comments, order and unknown lines in place. Every kind of line knows how to
// write itself back and how to copy itself.
#pragma once

#include "kx/base.h"
#include "kx/string.h"

namespace zarn {

// Reference counted; a new entry starts with one reference (see kx/base.h).
// Entries are used by one thread at a time.
class CVMDKDescriptorEntry : public kx::CBase {
 public:
  // The line's text without a line end. Never raises.
  virtual kx::String toString() const = 0;
  // A new entry with the same content, sharing nothing with this one; the
  // caller owns the returned reference.
  virtual kx::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const = 0;

 protected:
  ~CVMDKDescriptorEntry() override = default;
};

}  // namespace zarn
