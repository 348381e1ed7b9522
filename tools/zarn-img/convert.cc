#include "convert.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "interrupt.h"
#include "kx/buffer.h"
#include "kx/data_regions.h"
#include "kx/range_copy.h"
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
// And the grains' bytes of one batch at most, unless the threads need more:
// two batches, each grain with its buffers, stay within a few tens of MiB.
constexpr int64_t kBatchBytes = 1 << 20;
constexpr int64_t kRawGrainBytes = 64 * 1024;

uint32_t readLE32(const unsigned char* bytes) {
  return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

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
  // kStored: the source's stored form, ciphertext, in `input`.
  // kCopy: a plain grain that goes from the source's file into a raw target
  // without being read, from `copyFrom` at `copyOffset`.
  enum Kind { kAbsent, kPlain, kPrepared, kMoved, kStored, kCopy };
  int64_t position = 0;
  int length = 0;
  Kind kind = kAbsent;
  BufferP input = kx::create<Buffer>();
  BufferP unpackAux = kx::create<Buffer>();
  BufferP packAux = kx::create<Buffer>();
  BufferP clear = kx::create<Buffer>();   // a stored grain, decrypted: prepared
  BufferP sealed = kx::create<Buffer>();  // the target's stored form, when it is encrypted
  // What sealSlots() encrypts into `sealed` once the worker's slots are
  // prepared: null when the grain goes to the target as it is.
  const unsigned char* toSeal = nullptr;
  int64_t toSealBytes = 0;
  BufferP plain;   // the grain's bytes (input or unpackAux); null when absent or staged
  BufferP packed;  // the target's prepared form, or null
  bool zero = false;
  // A raw target's bytes are gathered here, in the batch's stage at this
  // slot's place, so that neighbours go out in one write; null otherwise.
  unsigned char* stage = nullptr;
  bool staged = false;  // the grain's bytes were read into `stage`
  kx::P<kx::IIOStream> copyFrom;
  int64_t copyOffset = 0;
  const unsigned char* data() const { return staged ? stage : plain->getData(); }
};

class CConverter {
 public:
  CConverter(const CConvertEnds& ends, const CConvertSettings& settings, CConvertResult& result)
      : ends_(ends), settings_(settings), result_(result) {
    const auto& source = ends_.sourceDisk;
    const auto& foreign = ends_.sourceForeign;
    const auto& target = ends_.targetDisk;
    grainBytes_ = source    ? source->getGrainSizeBytes()
                  : foreign ? foreign->getGrainSizeBytes()
                  : target  ? target->getGrainSizeBytes()
                            : kRawGrainBytes;
    move_ = source && target && !settings_.compareWithTarget && source->getGrainSizeBytes() == target->getGrainSizeBytes() &&
            source->getCompressed() == target->getCompressed();
    // A foreign disk's compressed grains come as prepared data: unpacked on
    // the threads like the library's own.
    unpack_ = ((source && source->getCompressed()) || (foreign && foreign->getCompressed())) && !move_;
    pack_ = target && target->getCompressed() && !move_ && target->getGrainSizeBytes() == grainBytes_;
    const int threads = std::max(1, settings_.threads);
    for (int i = 0; i < threads; ++i) {
      sourcePreparers_.push_back(!unpack_ ? nullptr : source ? source->createDataPreparer() : foreign->createDataPreparer());
      targetPreparers_.push_back(pack_ ? target->createDataPreparer() : nullptr);
      // The cipher work of encrypted disks runs on the threads too.
      sourceCodecs_.push_back(source ? source->createGrainCodec() : nullptr);
      targetCodecs_.push_back(target ? target->createGrainCodec() : nullptr);
    }
    sealJobs_.resize(static_cast<size_t>(threads));
    zeros_.resize(static_cast<size_t>(grainBytes_));
    compare_.resize(static_cast<size_t>(grainBytes_));
    if (ends_.sourceRaw) sourceRegions_ = kx::dynamicCast<kx::IDataRegions>(ends_.sourceRaw);
    gather_ = ends_.targetRaw && !settings_.compareWithTarget;
    if (gather_ && ends_.sourceLocator) targetCopy_ = kx::dynamicCast<kx::IRangeCopy>(ends_.targetRaw);
  }

  void run() {
    const int threads = std::max(1, settings_.threads);
    const int64_t total = ends_.sourceSizeBytes;
    const int64_t grains = (total + grainBytes_ - 1) / grainBytes_;
    CProgress progress(settings_.showProgress, total);
    std::vector<CSlot> batches[2];
    const size_t batchSize = static_cast<size_t>(
        std::max<int64_t>(threads, std::min<int64_t>(threads * kGrainsPerThread, kBatchBytes / grainBytes_)));
    std::vector<unsigned char> stages[2];
    for (int b = 0; b < 2; ++b) {
      batches[b].resize(batchSize);
      if (!gather_) continue;
      stages[b].resize(batchSize * static_cast<size_t>(grainBytes_));
      for (size_t i = 0; i < batchSize; ++i) batches[b][i].stage = stages[b].data() + i * static_cast<size_t>(grainBytes_);
    }
    // After the batches, so that it goes first: its threads may hold slots.
    std::unique_ptr<CWorkerPool> pool;
    if (threads > 1) pool = std::make_unique<CWorkerPool>(threads);
    size_t pending = 0;  // slots of the other batch that wait to be written
    int current = 0;
    for (int64_t first = 0; (first = skipHoles(first)) < grains; first += static_cast<int64_t>(batchSize)) {
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
          sealSlots(batch, count, worker, threads);
        });
      } else {
        for (size_t i = 0; i < count; ++i) prepareSlot(batch[i], 0);
        sealSlots(batch, count, 0, 1);
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
  // The first grain from `grain` on that isn't wholly in a hole of a raw
  // source: the holes of a sparse file are never read.
  int64_t skipHoles(int64_t grain) {
    // With a target to compare with, a hole is data too: zeros where the
    // target may hold other bytes.
    if (!sourceRegions_ || settings_.compareWithTarget) return grain;
    const int64_t position = grain * grainBytes_;
    if (!isInHole(position, std::min<int64_t>(grainBytes_, ends_.sourceSizeBytes - position))) return grain;
    return std::max(grain, dataStart_ / grainBytes_);
  }

  // Whether [position, position + length) of a raw source is all hole.
  bool isInHole(int64_t position, int64_t length) {
    if (!sourceRegions_ || length <= 0) return false;
    if (position >= dataEnd_) {
      if (!sourceRegions_->findData(position, dataStart_, dataEnd_)) {
        dataStart_ = dataEnd_ = ends_.sourceSizeBytes;
      }
    }
    return position + length <= dataStart_;
  }

  void readSlot(CSlot& slot, int64_t position) {
    checkInterrupted();
    slot.position = position;
    slot.length = static_cast<int>(std::min<int64_t>(grainBytes_, ends_.sourceSizeBytes - position));
    slot.plain = nullptr;
    slot.packed = nullptr;
    slot.zero = false;
    slot.staged = false;
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
        return;
      }
      if (targetCopy_ && whole && source->isGrainWrittenAndIndependentOfParent() &&
          ends_.sourceLocator->locate(position, slot.copyFrom, slot.copyOffset)) {
        slot.kind = CSlot::kCopy;
        return;
      }
      if (sourceCodecs_[0] && whole) {
        if (source->readStoredGrainData(*slot.input)) {
          slot.kind = CSlot::kStored;
          return;
        }
        source->seek(position);  // no slot of its own: a parent's grain
      }
      if ((move_ || unpack_) && whole &&
          (ends_.sourceChainStoresAlike || source->isGrainWrittenAndIndependentOfParent())) {
        source->seek(position);
        source->readPreparedGrainData(*slot.input);
        slot.kind = move_ ? CSlot::kMoved : CSlot::kPrepared;
      } else {
        source->seek(position);
        source->read(plainDestination(slot), slot.length);
        slot.kind = CSlot::kPlain;
      }
    } else if (zarn::CVMDKForeignDisk* foreign = ends_.sourceForeign.get()) {
      foreign->seek(position);
      if (!foreign->isGrainWritten()) {
        slot.kind = CSlot::kAbsent;
      } else if (unpack_ && whole) {
        foreign->seek(position);
        foreign->readPreparedGrainData(*slot.input);
        slot.kind = CSlot::kPrepared;
      } else {
        foreign->seek(position);
        foreign->read(plainDestination(slot), slot.length);
        slot.kind = CSlot::kPlain;
      }
    } else if (isInHole(position, slot.length)) {
      slot.kind = CSlot::kAbsent;
    } else {
      ends_.sourceRaw->seek(position);
      ends_.sourceRaw->read(plainDestination(slot), slot.length);
      slot.kind = CSlot::kPlain;
    }
  }

  // Where a grain read in plain goes: straight into the stage of a raw
  // target, else the slot's own buffer.
  unsigned char* plainDestination(CSlot& slot) {
    if (slot.stage) {
      slot.staged = true;
      return slot.stage;
    }
    slot.input->setUsed(static_cast<size_t>(slot.length));
    return slot.input->getData();
  }

  // On a worker: no disk is touched here, only the slot and the worker's own
  // preparers.
  void prepareSlot(CSlot& slot, int worker) {
    slot.toSeal = nullptr;
    const int64_t index = slot.position / grainBytes_;
    if (slot.kind == CSlot::kStored) {
      // Decrypted, a stored grain is prepared data like any other.
      int64_t compressedSize = 0;
      if (ends_.sourceDisk->getCompressed()) compressedSize = readLE32(slot.input->getData() + 8);
      sourceCodecs_[worker]->decrypt(index, slot.input->getData(), static_cast<int64_t>(slot.input->getUsed()),
                                     compressedSize, *slot.clear);
      std::swap(slot.input, slot.clear);
      slot.kind = move_ ? CSlot::kMoved : ends_.sourceDisk->getCompressed() ? CSlot::kPrepared : CSlot::kPlain;
    }
    if (slot.kind == CSlot::kCopy) {
      slot.zero = false;
      return;
    }
    if (slot.kind == CSlot::kAbsent || slot.kind == CSlot::kMoved) {
      slot.zero = slot.kind == CSlot::kAbsent;
      if (slot.kind == CSlot::kMoved) {
        seal(slot, worker, slot.input->getData(), static_cast<int64_t>(slot.input->getUsed()));
      }
      return;
    }
    if (!slot.staged) {
      try {
        slot.plain = slot.kind == CSlot::kPrepared
                         ? sourcePreparers_[worker]->unprepareGrainData(slot.input.get(), slot.unpackAux.get())
                         : slot.input;
      } catch (kx::CError& error) {
        addDiskOffset(error, slot.position);
        throw;
      }
    }
    slot.zero = isAllZero(slot.data(), static_cast<size_t>(slot.length));
    if (!slot.zero && !slot.staged && slot.stage) {
      // Into the stage of a raw target here, on the threads, not when the
      // batch is written.
      std::memcpy(slot.stage, slot.plain->getData(), static_cast<size_t>(slot.length));
      slot.staged = true;
    }
    if (!slot.zero && pack_) {
      slot.packed = targetPreparers_[worker]->prepareGrainData(slot.plain.get(), index, slot.packAux.get());
    }
    if (!slot.zero && !slot.staged && targetCodecs_[worker]) {
      if (slot.packed) {
        seal(slot, worker, slot.packed->getData(), static_cast<int64_t>(slot.packed->getUsed()));
      } else if (!ends_.targetDisk->getCompressed()) {
        seal(slot, worker, slot.plain->getData(), slot.length);
      }
    }
  }

  // Notes `bytes` of prepared data for an encrypted target's codec; the
  // worker's sealSlots() encrypts them with the rest of its grains.
  void seal(CSlot& slot, int worker, const unsigned char* prepared, int64_t bytes) {
    if (!targetCodecs_[worker]) return;
    slot.toSeal = prepared;
    slot.toSealBytes = bytes;
  }

  // Encrypts the grains seal() noted among the worker's slots, all in one
  // call: grains are chains of their own, which the cipher runs side by side.
  void sealSlots(std::vector<CSlot>& batch, size_t count, int worker, int threads) {
    if (!targetCodecs_[worker]) return;
    std::vector<zarn::CVMDKGrainCodec::CJob>& jobs = sealJobs_[static_cast<size_t>(worker)];
    jobs.clear();
    for (size_t i = static_cast<size_t>(worker); i < count; i += static_cast<size_t>(threads)) {
      CSlot& slot = batch[i];
      if (!slot.toSeal) continue;
      jobs.push_back({slot.position / grainBytes_, slot.toSeal, slot.toSealBytes, slot.sealed.get()});
    }
    targetCodecs_[worker]->encryptMany(jobs.data(), jobs.size());
  }

  void writeBatch(std::vector<CSlot>& batch, size_t count, CProgress& progress) {
    for (size_t i = 0; i < count;) {
      checkInterrupted();
      if (batch[i].kind == CSlot::kCopy) {
        i = copyRun(batch, i, count, progress);
        continue;
      }
      if (!gather_ || batch[i].zero) {
        writeSlot(batch[i]);
        progress.update(batch[i].position + batch[i].length);
        ++i;
        continue;
      }
      // Neighbours that hold data go out in one write from the stage; zero
      // grains stay holes of the new file.
      size_t end = i;
      int64_t bytes = 0;
      // Every grain with data is in its stage by now (prepareSlot put it there).
      while (end < count && !batch[end].zero && batch[end].kind != CSlot::kCopy &&
             batch[end].position == batch[i].position + bytes) {
        bytes += batch[end].length;
        ++end;
      }
      ends_.targetRaw->seek(batch[i].position);
      ends_.targetRaw->write(batch[i].stage, static_cast<int>(bytes), nullptr);
      result_.grainsWritten += static_cast<int64_t>(end - i);
      result_.bytesWritten += bytes;
      progress.update(batch[end - 1].position + batch[end - 1].length);
      i = end;
    }
  }

  // Grains to copy that follow each other on the disk and in one file go in
  // one copy; where the system won't copy, they are read through the disk.
  // Returns the index behind the run.
  size_t copyRun(std::vector<CSlot>& batch, size_t first, size_t count, CProgress& progress) {
    const CSlot& start = batch[first];
    size_t end = first + 1;
    int64_t bytes = start.length;
    while (end < count && batch[end].kind == CSlot::kCopy && batch[end].copyFrom == start.copyFrom &&
           batch[end].position == start.position + bytes && batch[end].copyOffset == start.copyOffset + bytes) {
      bytes += batch[end].length;
      ++end;
    }
    ends_.targetRaw->seek(start.position);
    if (!targetCopy_->copyFrom(*start.copyFrom, start.copyOffset, bytes)) {
      for (size_t i = first; i < end; ++i) {
        ends_.sourceDisk->seek(batch[i].position);
        ends_.sourceDisk->read(batch[i].stage, batch[i].length);
      }
      ends_.targetRaw->seek(start.position);
      ends_.targetRaw->write(start.stage, static_cast<int>(bytes), nullptr);
    }
    result_.grainsWritten += static_cast<int64_t>(end - first);
    result_.bytesWritten += bytes;
    progress.update(start.position + bytes);
    return end;
  }

  void writeSlot(CSlot& slot) {
    zarn::CVMDKDisk* target = ends_.targetDisk.get();
    if (slot.kind == CSlot::kMoved) {
      target->seek(slot.position);
      if (slot.toSeal) {
        target->writeStoredGrainData(*slot.sealed);
      } else {
        target->writePreparedGrainData(*slot.input);
      }
      ++result_.grainsWritten;
      ++result_.grainsMoved;
      result_.bytesWritten += slot.length;
      return;
    }
    const unsigned char* data = slot.zero ? zeros_.data() : slot.data();
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
      if (slot.toSeal) {
        target->writeStoredGrainData(*slot.sealed);
      } else if (slot.packed) {
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
  std::vector<kx::P<zarn::CVMDKGrainCodec>> sourceCodecs_;
  std::vector<kx::P<zarn::CVMDKGrainCodec>> targetCodecs_;
  std::vector<std::vector<zarn::CVMDKGrainCodec::CJob>> sealJobs_;
  std::vector<unsigned char> zeros_;
  std::vector<unsigned char> compare_;
  CConvertResult& result_;
  // Where a raw source holds data, from the file system, as far as known.
  kx::P<kx::IDataRegions> sourceRegions_;
  kx::P<kx::IRangeCopy> targetCopy_;  // a raw target that takes grains file to file
  int64_t dataStart_ = 0;
  int64_t dataEnd_ = 0;
  bool gather_ = false;  // a new raw target: neighbours are written as one
};

}  // namespace

void convertGrains(const CConvertEnds& ends, const CConvertSettings& settings, CConvertResult& result) {
  CConverter(ends, settings, result).run();
}

}  // namespace zarn_img
