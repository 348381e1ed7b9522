// Where the grains of one disk lie in its extent files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "context.h"
#include "kx/stream.h"
#include "zarn/grain_directory.h"
#include "zarn/grain_table_cache.h"

namespace zarn_img {

// Only plain extents (neither compressed nor encrypted) keep a grain's bytes
// as they read; for the others no place is given, as the bytes there mean
// nothing by themselves. The extent files are opened for reading, one at a
// time, beside the disk.
class CGrainLocator {
 public:
  CGrainLocator(CToolContext& context, const CChainLevel& level);

  // The file and offset of the byte at disk `position`, in a grain that the
  // disk holds itself; false when there is none to give.
  bool locate(int64_t position, std::string& file, int64_t& offset);
  // The same with the extent file's stream, open until the next call.
  bool locate(int64_t position, kx::P<kx::IIOStream>& stream, int64_t& offset);

 private:
  struct CExtent {
    int64_t startBytes;
    int64_t sizeBytes;
    kx::CURI uri;
  };

  const CExtent* find(int64_t position, int64_t& offset);
  void open(size_t index);

  CToolContext& context_;
  bool plain_ = false;
  std::vector<CExtent> extents_;
  size_t openIndex_ = static_cast<size_t>(-1);
  kx::P<zarn::CVMDKGrainTableCache> cache_ = kx::create<zarn::CVMDKGrainTableCache>();
  kx::P<kx::IIOStream> stream_;
  kx::P<zarn::CVMDKGrainDirectory> directory_;
  int64_t grainBytes_ = 0;
};

}  // namespace zarn_img
