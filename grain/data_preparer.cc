#include "zarn/data_preparer.h"

#include <cstring>

#include "kx/error.h"
#include "zarn/compressor.h"
#include "zarn/format_constants.h"

namespace zarn {

CVMDKDataPreparer::CVMDKDataPreparer(int64_t grainSizeSectors, bool compress, int compressionLevel)
    : grainSizeSectors_(grainSizeSectors),
      grainSizeBytes_(grainSizeSectors * kSectorSizeBytes),
      worstCaseGrainSizeSectors_(grainSizeSectors) {
  if (grainSizeSectors_ < 1 || grainSizeSectors_ > kVMDKMaxGrainSizeSectors) {
    throw kx::CInvalidArgError("CVMDKDataPreparer", kx::String::Format("Invalid grain size: %lld sectors",
                                                                       static_cast<long long>(grainSizeSectors)));
  }
  if (!compress) return;
  compressor_ = kx::create<CVMDKCompressor>(compressionLevel);
  compressedSizeUpperBound_ = compressor_->getCompressedSizeUpperBound(static_cast<int>(grainSizeBytes_));
  worstCaseGrainSizeSectors_ = (compressedSizeUpperBound_ + kVMDKGrainHeaderSize + kSectorSize - 1) / kSectorSize;
}

CVMDKDataPreparer::~CVMDKDataPreparer() = default;

kx::P<kx::TBuffer<unsigned char>> CVMDKDataPreparer::prepareGrainData(kx::TBuffer<unsigned char>* source,
                                                                       int64_t grainIndex,
                                                                       kx::TBuffer<unsigned char>* aux) {
  const char* context = "CVMDKDataPreparer::prepareGrainData";
  if (!source) throw kx::CInvalidArgError(context, "pSourceBuffer must not be NULL");
  if (!aux) throw kx::CInvalidArgError(context, "pAuxBuffer must not be NULL");
  if (static_cast<int64_t>(source->getUsed()) > grainSizeBytes_) {
    throw kx::CInvalidArgError(context, kx::String::Format("source buffer is bigger than grain size (%llu).",
                                                           static_cast<unsigned long long>(source->getUsed())));
  }
  if (!compressor_) return kx::P<kx::TBuffer<unsigned char>>::share(source);

  aux->setUsed(static_cast<size_t>(worstCaseGrainSizeSectors_ * kSectorSize));
  unsigned char* out = aux->getData();
  const int compressedSize =
      compressor_->compressSingleStep(source->getData(), static_cast<int>(source->getUsed()),
                                      out + kVMDKGrainHeaderSize, static_cast<int>(compressedSizeUpperBound_));
  if (compressedSize < 0) {
    throw kx::CError("Internal error: the grain compressor's output exceeded its own bound.");
  }
  writeLE64(out, static_cast<uint64_t>(grainSizeSectors_ * grainIndex));
  writeLE32(out + 8, static_cast<uint32_t>(compressedSize));
  const size_t end = kVMDKGrainHeaderSize + static_cast<size_t>(compressedSize);
  const size_t padded = (end + kSectorSize - 1) / kSectorSize * kSectorSize;
  std::memset(out + end, 0, padded - end);
  aux->setUsed(padded);
  return kx::P<kx::TBuffer<unsigned char>>::share(aux);
}

kx::P<kx::TBuffer<unsigned char>> CVMDKDataPreparer::unprepareGrainData(kx::TBuffer<unsigned char>* source,
                                                                         kx::TBuffer<unsigned char>* aux) {
  if (!compressor_) return kx::P<kx::TBuffer<unsigned char>>::share(source);
  if (source->getUsed() < static_cast<size_t>(kVMDKGrainHeaderSize)) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Prepared VMDK grain data is shorter than its header.",
                       kx::CProps().add("size", static_cast<uint64_t>(source->getUsed())));
  }
  aux->setUsed(static_cast<size_t>(grainSizeBytes_));
  const int produced = compressor_->decompressSingleStep(
      source->getData() + kVMDKGrainHeaderSize, static_cast<int>(source->getUsed()) - kVMDKGrainHeaderSize,
      aux->getData(), static_cast<int>(grainSizeBytes_));
  if (produced < grainSizeBytes_) std::memset(aux->getData() + produced, 0, static_cast<size_t>(grainSizeBytes_ - produced));
  return kx::P<kx::TBuffer<unsigned char>>::share(aux);
}

void CVMDKDataPreparer::patchGrainIndexInPreparedGrainData(kx::TBuffer<unsigned char>& data,
                                                           int64_t grainIndex) const {
  if (!compressor_ || data.getUsed() < 8) return;
  writeLE64(data.getData(), static_cast<uint64_t>(grainSizeSectors_ * grainIndex));
}

}  // namespace zarn
