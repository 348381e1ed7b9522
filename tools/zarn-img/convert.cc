#include "convert.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "interrupt.h"
#include "kx/buffer.h"
#include "kx/error.h"
#include "progress.h"
#include "worker_pool.h"
#include "zarn/data_preparer.h"

namespace zarn_img {

namespace {

using Buffer = kx::TBuffer<unsigned char>;
using BufferP = kx::P<Buffer>;

// Grains per thread in one batch: enough to keep the threads busy between two
// waits, few enough that memory stays a few MiB whatever the disk size.
constexpr int kGrainsPerThread = 8;
constexpr int64_t kRawGrainBytes = 64 * 1024;

// Where in the source a grain failed: the file offset that the library names
// means little to someone who knows the disk only as a run of bytes.
void addDiskOffset(kx::CError& error, int64_t position) {
  if (!error.getProps().has("diskOffset")) error.getParams().add("diskOffset", position);
}

bool isAllZero(const unsigned char* data, size_t size) {
  return size == 0 || (data[0] == 0 && std::memcmp(data, data + 1, size - 1) == 0);
}

// One grain on its way. The buffers stay with the slot from batch to batch.
struct CSlot {
  enum Kind { kAbsent, kPlain, kPrepared, kMoved };
  int64_t position = 0;
  int length = 0;
  Kind kind = kAbsent;
  BufferP input = kx::create<Buffer>();
  BufferP unpackAux = kx::create<Buffer>();
  BufferP packAux = kx::create<Buffer>();
  BufferP plain;   // the grain's bytes (input or unpackAux); null when absent
  BufferP packed;  // the target's prepared form, or null
  bool zero = false;
};

class CConverter {
 public:
  CConverter(const CConvertEnds& ends, const CConvertSettings& settings, CConvertResult& result)
      : ends_(ends), settings_(settings), result_(result) {
    const auto& source = ends_.sourceDisk;
    const auto& target = ends_.targetDisk;
    grainBytes_ = source ? source->getGrainSizeBytes() : target ? target->getGrainSizeBytes() : kRawGrainBytes;
    move_ = source && target && !settings_.compareWithTarget && source->getGrainSizeBytes() == target->getGrainSizeBytes() &&
            source->getCompressed() == target->getCompressed();
    unpack_ = source && source->getCompressed() && !move_;
    pack_ = target && target->getCompressed() && !move_ && target->getGrainSizeBytes() == grainBytes_;
    const int threads = std::max(1, settings_.threads);
    for (int i = 0; i < threads; ++i) {
      sourcePreparers_.push_back(unpack_ ? source->createDataPreparer() : nullptr);
      targetPreparers_.push_back(pack_ ? target->createDataPreparer() : nullptr);
    }
    zeros_.resize(static_cast<size_t>(grainBytes_));
    compare_.resize(static_cast<size_t>(grainBytes_));
  }

  void run() {
    const int threads = std::max(1, settings_.threads);
    const int64_t total = ends_.sourceSizeBytes;
    const int64_t grains = (total + grainBytes_ - 1) / grainBytes_;
    CProgress progress(settings_.showProgress, total);
    std::vector<CSlot> batches[2];
    const size_t batchSize = static_cast<size_t>(threads * kGrainsPerThread);
    batches[0].resize(batchSize);
    batches[1].resize(batchSize);
    // After the batches, so that it goes first: its threads may hold slots.
    std::unique_ptr<CWorkerPool> pool;
    if (threads > 1) pool = std::make_unique<CWorkerPool>(threads);
    size_t pending = 0;  // slots of the other batch that wait to be written
    int current = 0;
    for (int64_t first = 0; first < grains; first += static_cast<int64_t>(batchSize)) {
      std::vector<CSlot>& batch = batches[current];
      const size_t count = static_cast<size_t>(std::min<int64_t>(batchSize, grains - first));
      for (size_t i = 0; i < count; ++i) readSlot(batch[i], (first + static_cast<int64_t>(i)) * grainBytes_);
      // While the threads prepare this batch, the previous one is written.
      if (pool) {
        pool->start([this, &batch, count, threads](int worker) {
          for (size_t i = static_cast<size_t>(worker); i < count; i += static_cast<size_t>(threads)) {
            if (getPendingInterrupt() != 0) return;
            prepareSlot(batch[i], worker);
          }
        });
      } else {
        for (size_t i = 0; i < count; ++i) prepareSlot(batch[i], 0);
      }
      writeBatch(batches[1 - current], pending, progress);
      if (pool) pool->wait();
      checkInterrupted();
      pending = count;
      current = 1 - current;
    }
    writeBatch(batches[1 - current], pending, progress);
    if (ends_.targetDisk) ends_.targetDisk->flushChanges();
    progress.finish();
    result_.seconds = progress.getElapsedSeconds();
  }

 private:
  void readSlot(CSlot& slot, int64_t position) {
    checkInterrupted();
    slot.position = position;
    slot.length = static_cast<int>(std::min<int64_t>(grainBytes_, ends_.sourceSizeBytes - position));
    slot.plain = nullptr;
    slot.packed = nullptr;
    slot.zero = false;
    const bool whole = slot.length == grainBytes_;
    try {
      readSource(slot, position, whole);
    } catch (kx::CError& error) {
      addDiskOffset(error, position);
      throw;
    }
  }

  void readSource(CSlot& slot, int64_t position, bool whole) {
    if (zarn::CVMDKDisk* source = ends_.sourceDisk.get()) {
      source->seek(position);
      if (!source->isGrainWritten()) {
        slot.kind = CSlot::kAbsent;
      } else if ((move_ || unpack_) && whole &&
                 (ends_.sourceChainStoresAlike || source->isGrainWrittenAndIndependentOfParent())) {
        source->readPreparedGrainData(*slot.input);
        slot.kind = move_ ? CSlot::kMoved : CSlot::kPrepared;
      } else {
        slot.input->setUsed(static_cast<size_t>(slot.length));
        source->read(slot.input->getData(), slot.length);
        slot.kind = CSlot::kPlain;
      }
    } else {
      slot.input->setUsed(static_cast<size_t>(slot.length));
      ends_.sourceRaw->seek(position);
      ends_.sourceRaw->read(slot.input->getData(), slot.length);
      slot.kind = CSlot::kPlain;
    }
  }

  // On a worker: no disk is touched here, only the slot and the worker's own
  // preparers.
  void prepareSlot(CSlot& slot, int worker) {
    if (slot.kind == CSlot::kAbsent || slot.kind == CSlot::kMoved) {
      slot.zero = slot.kind == CSlot::kAbsent;
      return;
    }
    try {
      slot.plain = slot.kind == CSlot::kPrepared
                       ? sourcePreparers_[worker]->unprepareGrainData(slot.input.get(), slot.unpackAux.get())
                       : slot.input;
    } catch (kx::CError& error) {
      addDiskOffset(error, slot.position);
      throw;
    }
    slot.zero = isAllZero(slot.plain->getData(), static_cast<size_t>(slot.length));
    if (!slot.zero && pack_) {
      slot.packed = targetPreparers_[worker]->prepareGrainData(slot.plain.get(), slot.position / grainBytes_,
                                                               slot.packAux.get());
    }
  }

  void writeBatch(std::vector<CSlot>& batch, size_t count, CProgress& progress) {
    for (size_t i = 0; i < count; ++i) {
      checkInterrupted();
      writeSlot(batch[i]);
      progress.update(batch[i].position + batch[i].length);
    }
  }

  void writeSlot(CSlot& slot) {
    zarn::CVMDKDisk* target = ends_.targetDisk.get();
    if (slot.kind == CSlot::kMoved) {
      target->seek(slot.position);
      target->writePreparedGrainData(*slot.input);
      ++result_.grainsWritten;
      ++result_.grainsMoved;
      result_.bytesWritten += slot.length;
      return;
    }
    const unsigned char* data = slot.zero ? zeros_.data() : slot.plain->getData();
    if (settings_.compareWithTarget) {
      bool same;
      if (target) {
        target->seek(slot.position);
        // A grain that no disk of the chain holds reads as zeros: no need to
        // read it to know.
        same = slot.zero;
        if (target->isGrainWritten()) {
          target->seek(slot.position);
          target->read(compare_.data(), slot.length);
          same = std::memcmp(compare_.data(), data, static_cast<size_t>(slot.length)) == 0;
        }
      } else {
        ends_.targetRaw->seek(slot.position);
        ends_.targetRaw->read(compare_.data(), slot.length);
        same = std::memcmp(compare_.data(), data, static_cast<size_t>(slot.length)) == 0;
      }
      if (same) return;
    } else if (slot.zero) {
      return;
    }
    if (target) {
      target->seek(slot.position);
      if (slot.packed) {
        target->writePreparedGrainData(*slot.packed);
      } else {
        target->write(data, slot.length);
      }
    } else {
      ends_.targetRaw->seek(slot.position);
      ends_.targetRaw->write(data, slot.length, nullptr);
    }
    ++result_.grainsWritten;
    result_.bytesWritten += slot.length;
  }

  CConvertEnds ends_;
  CConvertSettings settings_;
  int64_t grainBytes_;
  bool move_;
  bool unpack_;
  bool pack_;
  std::vector<kx::P<zarn::CVMDKDataPreparer>> sourcePreparers_;
  std::vector<kx::P<zarn::CVMDKDataPreparer>> targetPreparers_;
  std::vector<unsigned char> zeros_;
  std::vector<unsigned char> compare_;
  CConvertResult& result_;
};

}  // namespace

void convertGrains(const CConvertEnds& ends, const CConvertSettings& settings, CConvertResult& result) {
  CConverter(ends, settings, result).run();
}

}  // namespace zarn_img
