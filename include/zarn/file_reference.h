// vmdkFileReferenceToURI: a file named by a descriptor, as a normalized URI.
#pragma once

#include "kx/string.h"
#include "kx/uri.h"

namespace zarn {

// `reference` may be a bare name, a relative path with either separator, a
// drive path ("C:\vms\a.vmdk", "C:/vms/a.vmdk"), a Unix path or URI text;
// written on Windows or on Unix alike. A relative one is resolved against
// `base`, the folder of the file that holds the reference. A backslash makes
// the whole reference a Windows path. Raises kx::CBadPathError for ".." above
// a Windows root, and what kx::CURI raises for text that is no URI.
kx::CURI vmdkFileReferenceToURI(const kx::CURI& base, const kx::String& reference);

}  // namespace zarn
