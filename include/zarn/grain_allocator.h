// CVMDKGrainAllocator: slots at the end of an extent file.
//
// There is no free list: a slot given up stays behind as dead space. Slots
// start at a multiple of the alignment (the grain size in a plain extent, one
// sector in a compressed one); the gap before a slot and the rest of a slot
// behind its data are written as zeros, so a slot exists in full at once.
// A compressed extent's file ends with a trail (footer marker, header copy,
// end-of-stream marker): the first new slot overwrites it, and the next flush
// writes it again behind the last slot.
//
// Reference counting as for every kx::CBase. One thread at a time; it leaves
// the stream positioned behind what it wrote.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/stream.h"
#include "zarn/grain_allocator_interface.h"

namespace zarn {

class CVMDKGrainDirectory;

class CVMDKGrainAllocator : public kx::CBase, public IVMDKGrainAllocator {
 public:
  // Takes references on `stream` and `directory`. With a non-empty
  // `trailData` it compares the end of the file with it: if they match, the
  // next slot goes where the trail begins; if not (a writer stopped between a
  // grain and the next flush, or a file of another origin), it warns, keeps
  // those bytes, and puts the next slot and the trail behind them. Raises what
  // the stream raises.
  CVMDKGrainAllocator(kx::IIOStream* stream, kx::IIOStream::Access access, int64_t grainSizeSectors,
                      int64_t alignmentSectors, CVMDKGrainDirectory* directory,
                      const kx::TBuffer<unsigned char>& trailData);
  // Writes the trail if it is due; an error goes to
  // kx::onExceptionInDestructorIgnored.
  ~CVMDKGrainAllocator() override;
  CVMDKGrainAllocator(const CVMDKGrainAllocator&) = delete;
  CVMDKGrainAllocator& operator=(const CVMDKGrainAllocator&) = delete;

  void flushChangesToStream() override;
  // Raise kx::CInvalidArgError when `size` exceeds the slot, an internal
  // kx::CError on a read-only allocator, and kx::CIOError code 3 when the slot
  // would lie beyond what a 32-bit table entry can address; nothing is written
  // then.
  int64_t allocNewGrain(int64_t grainIndex, const void* data, int size, int slotSizeSectors) override;
  int64_t allocNewGrainKeepBuffer(int64_t grainIndex, const kx::TConstBufferSlice<unsigned char>& data,
                                  int slotSizeSectors) override;

  // Where the next slot (or the trail) goes, in bytes.
  int64_t getEndPosition() const { return endPosition_; }

 private:
  int64_t allocNewGrainImpl(int64_t grainIndex, const void* data, int size, int slotSizeSectors,
                            const kx::TConstBufferSlice<unsigned char>* slice);
  void writeZeros(int64_t count);

  kx::P<kx::IIOStream> stream_;
  kx::IIOStream::Access access_;
  kx::P<CVMDKGrainDirectory> directory_;
  int64_t grainSizeSectors_;
  int64_t grainSizeBytes_;
  int64_t alignmentSectors_;
  int64_t alignmentBytes_;
  kx::TBuffer<unsigned char> zeroFill_;
  bool trailDirty_ = false;
  kx::TBuffer<unsigned char> trailData_;
  int64_t endPosition_ = 0;
};

}  // namespace zarn
