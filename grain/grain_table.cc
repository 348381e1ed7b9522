#include "zarn/grain_table.h"

#include <limits>

#include "grain/byte_order.h"
#include "kx/error.h"
#include "kx/log.h"
#include "zarn/format_constants.h"

namespace zarn {
namespace {

template <class T>
void readWords(kx::IIOStream& stream, int64_t posSectors, kx::TBuffer<T>& words) {
  stream.seek(posSectors * kSectorSizeBytes);
  stream.read(words.getData(), static_cast<int>(words.getUsed() * sizeof(T)));
  swapLittleEndianWords(words.getData(), words.getUsed());
}

template <class T>
void writeWords(kx::IIOStream& stream, int64_t posSectors, kx::TBuffer<T>& words) {
  stream.seek(posSectors * kSectorSizeBytes);
  swapLittleEndianWords(words.getData(), words.getUsed());
  try {
    stream.write(words.getData(), static_cast<int>(words.getUsed() * sizeof(T)), nullptr);
  } catch (...) {
    swapLittleEndianWords(words.getData(), words.getUsed());
    throw;
  }
  swapLittleEndianWords(words.getData(), words.getUsed());
}

}  // namespace

CVMDKGrainTable::CVMDKGrainTable(kx::IIOStream* stream, kx::IIOStream::Access access, int64_t grainSizeSectors,
                                 int64_t posSectors, int64_t redundantPosSectors, int64_t slotTablePosSectors,
                                 int32_t entryCount)
    : stream_(kx::P<kx::IIOStream>::share(stream)),
      access_(access),
      grainSizeSectors_(grainSizeSectors),
      posSectors_(posSectors),
      redundantPosSectors_(redundantPosSectors),
      slotTablePosSectors_(slotTablePosSectors),
      entryCount_(entryCount) {
  if (!stream_ || entryCount_ < 1) {
    throw kx::CError("Internal error: CVMDKGrainTable needs a stream and at least one entry.");
  }
  // A table must lie in the file before memory is spent on it: a damaged
  // directory word must not buy an allocation.
  const int64_t length = stream_->getLength();
  const auto checkWithin = [&](int64_t pos, int64_t bytes, const char* what) {
    if (!isWithinFile(pos, bytes, length)) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                         kx::String::Format("VMDK %s lies beyond the end of the file.", what),
                         uriProps().add("posSectors", pos).add("entryCount", entryCount_));
    }
  };
  if (posSectors_ > 0) checkWithin(posSectors_, int64_t{entryCount_} * 4, "grain table");
  if (slotTablePosSectors_ > 0) checkWithin(slotTablePosSectors_, int64_t{entryCount_} * 2, "slot table");

  entries_.setUsed(static_cast<size_t>(entryCount_));
  if (posSectors_ > 0) readWords(*stream_, posSectors_, entries_);
  if (slotTablePosSectors_ < 1) return;
  slotSizes_.setUsed(static_cast<size_t>(entryCount_));
  readWords(*stream_, slotTablePosSectors_, slotSizes_);
}

CVMDKGrainTable::~CVMDKGrainTable() {
  try {
    flushWithStream();
  } catch (const std::exception& error) {
    kx::onExceptionInDestructorIgnored("zarn::CVMDKGrainTable", error, true);
  }
}

void CVMDKGrainTable::flushWithStream() {
  // A table that leaves the cache may point at grains still buffered in the
  // stream: they reach the file first, so the table never points at nothing.
  if (!hasUnflushedChanges()) return;
  stream_->flush();
  flushChangesToStream();
}

kx::CProps CVMDKGrainTable::uriProps() const { return kx::CProps().add("uri", stream_->getURI().toString(true)); }

void CVMDKGrainTable::getGrainInfo(int64_t index, int64_t& posSectors, int64_t& slotSizeSectors) const {
  if (index < 0 || index >= entryCount_) {
    throw kx::CInvalidArgError("CVMDKGrainTable::getGrainInfo",
                               kx::String::Format("Invalid grain index: %lld", static_cast<long long>(index)),
                               uriProps());
  }
  posSectors = entries_.getData()[index];
  if (posSectors == 0) {
    slotSizeSectors = 0;
  } else {
    slotSizeSectors = getSlotSizeTrackingEnabled() ? slotSizes_.getData()[index] : grainSizeSectors_;
  }
}

void CVMDKGrainTable::setGrainInfo(int64_t index, int64_t posSectors, int64_t slotSizeSectors) {
  verifyGrainInfo(index, posSectors, slotSizeSectors);
  uint32_t& entry = entries_.getData()[index];
  if (entry != static_cast<uint32_t>(posSectors)) {
    entry = static_cast<uint32_t>(posSectors);
    entriesDirty_ = true;
  }
  if (getSlotSizeTrackingEnabled()) {
    uint16_t& slot = slotSizes_.getData()[index];
    if (slot != static_cast<uint16_t>(slotSizeSectors)) {
      slot = static_cast<uint16_t>(slotSizeSectors);
      slotSizesDirty_ = true;
    }
  }
}

void CVMDKGrainTable::verifyGrainInfo(int64_t index, int64_t posSectors, int64_t slotSizeSectors) const {
  const char* context = "CVMDKGrainTable::setGrainInfo";
  if (index < 0 || index >= entryCount_) {
    throw kx::CInvalidArgError(
        context, kx::String::Format("Invalid grain index: %lld", static_cast<long long>(index)), uriProps());
  }
  if (!getSlotSizeTrackingEnabled() && slotSizeSectors != grainSizeSectors_) {
    throw kx::CInvalidArgError(
        context,
        kx::String::Format(
            "Invalid grain slot size - it must equal the grain size (slot size: %lld, grain size: %lld)",
            static_cast<long long>(slotSizeSectors), static_cast<long long>(grainSizeSectors_)),
        uriProps());
  }
  if (slotSizeSectors < 1) {
    throw kx::CInvalidArgError(context, "Invalid grain slot size.",
                               uriProps()
                                   .add("slotSizeSectors", slotSizeSectors)
                                   .add("grainSizeSectors", grainSizeSectors_)
                                   .add("posSectors", posSectors));
  }
  if (access_ != kx::IIOStream::ACCESS_READ_WRITE) {
    throw kx::CError(
        "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not opened for writing.");
  }
  if (posSectors < 0 || posSectors > std::numeric_limits<uint32_t>::max()) {
    throw kx::CIOError(kx::IOERR_BEYOND_TARGET,
                       "Grain position does not fit a VMDK grain table entry.",
                       uriProps().add("posSectors", posSectors));
  }
  if (getSlotSizeTrackingEnabled() && slotSizeSectors > std::numeric_limits<uint16_t>::max()) {
    throw kx::CInvalidArgError(context, "Grain slot size does not fit a VMDK slot table entry.",
                               uriProps().add("slotSizeSectors", slotSizeSectors));
  }
  if (posSectors_ < 1) {
    throw kx::CIOError(kx::IOERR_NOT_SUPPORTED,
                       "Cannot place a grain in a VMDK grain table that the file does not have.",
                       uriProps().add("grainIndex", index));
  }
}

void CVMDKGrainTable::flushChangesToStream() {
  if (entriesDirty_) {
    writeWords(*stream_, posSectors_, entries_);
    if (redundantPosSectors_ > 0) writeWords(*stream_, redundantPosSectors_, entries_);
    entriesDirty_ = false;
  }
  if (slotSizesDirty_) {
    writeWords(*stream_, slotTablePosSectors_, slotSizes_);
    slotSizesDirty_ = false;
  }
}

}  // namespace zarn
