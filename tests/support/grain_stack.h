// test::CGrainStack: the grain store of one extent file, put together the way
// an extent does it (header, directory, allocator with the trail, grain), so
// grain-level tests and benchmarks can run without the extent layer.
#pragma once

#include <cstring>
#include <functional>
#include <vector>

#include "brix/cipher.h"
#include "brix/digest.h"
#include "kx/buffer_stream.h"
#include "kx/data_stream.h"
#include "zarn/empty_extent_file.h"
#include "zarn/grain.h"
#include "zarn/grain_allocator.h"
#include "zarn/grain_directory.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/markers.h"
#include "zarn/sparse_extent_header.h"

namespace test {

struct GrainStackOptions {
  bool compressed = false;
  bool encrypted = false;
  int64_t grainCount = 1024;
  int64_t grainSizeSectors = 128;
  int compressionLevel = -1;
  kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE;
  zarn::IVMDKDataProvider* provider = nullptr;
  bool create = true;     // make a new extent file first
  bool buffered = true;   // through openVMDKFileStream, else the file system's own stream
  int32_t cacheLimit = 1024;
  // Puts a wrapper between the grain store and the stream, or null.
  std::function<kx::P<kx::IIOStream>(const kx::P<kx::IIOStream>&)> wrapStream;
};

class CGrainStack {
 public:
  CGrainStack(kx::IFileSystem& fs, const kx::CURI& uri, const GrainStackOptions& options = {})
      : options_(options), key_(testKey()), baseIV_(testBaseIV()) {
    if (options.create) {
      kx::TBuffer<unsigned char> zeros(65536);
      fs.deleteFile(uri, true);
      zarn::createEmptyVMDKSparseExtentFile(&fs, uri, options.compressed, options.grainCount,
                                            options.grainSizeSectors, zeros, nullptr, 0,
                                            options.encrypted ? keyHash() : kx::TBuffer<unsigned char>());
    }
    if (options.buffered) {
      stream = zarn::openVMDKFileStream(&fs, uri, options.access);
    } else {
      int flags = 0;
      stream = fs.openFile(uri, options.access, flags);
    }
    if (options.wrapStream) stream = options.wrapStream(stream);
    kx::CDataInStream in(*stream);
    header.load(in);
    cache = kx::create<zarn::CVMDKGrainTableCache>(options.cacheLimit);
    directory = kx::create<zarn::CVMDKGrainDirectory>(
        stream.get(), options.access, static_cast<int64_t>(header.getGrainDirectoryOffsetSectors()),
        static_cast<int64_t>(header.getRedundantGrainDirectoryOffsetSectors()),
        static_cast<int64_t>(header.getCapacitySectors()), options.grainSizeSectors,
        static_cast<int32_t>(header.getGrainTableEntryCount()), options.compressed, cache.get());
    allocator = kx::create<zarn::CVMDKGrainAllocator>(stream.get(), options.access, options.grainSizeSectors,
                                                      options.compressed ? 1 : options.grainSizeSectors,
                                                      directory.get(), trail(header, options.compressed));
    if (options.encrypted) cipher = kx::create<brix::CCipher_AES256CBC>();
    grain = kx::create<zarn::CVMDKGrain>(stream.get(), options.access, options.grainSizeSectors, allocator.get(),
                                         options.compressed, options.compressionLevel, options.provider,
                                         cipher.get(), key_, baseIV_);
  }

  ~CGrainStack() {
    grain = nullptr;
    allocator = nullptr;
    directory = nullptr;
  }

  int64_t grainBytes() const { return options_.grainSizeSectors * 512; }

  // Opens the grain of extent index `index` (the disk index is the same).
  void openGrain(int64_t index) {
    grain->close();  // stores the open grain first, which may give it a slot
    int64_t pos = 0, slot = 0;
    directory->getGrainInfo(index, pos, slot);
    grain->open(index, index, pos, slot);
  }
  void writeAt(int64_t index, int64_t offset, const void* data, int size) {
    openGrain(index);
    if (offset) grain->seek(offset);
    grain->write(data, size);
  }
  std::vector<unsigned char> readGrain(int64_t index) {
    std::vector<unsigned char> out(static_cast<size_t>(grainBytes()));
    openGrain(index);
    grain->read(out.data(), static_cast<int>(out.size()));
    return out;
  }
  // The extent's flush order: grain, trail, stream, tables, stream.
  void flush() {
    grain->flushChangesToStream();
    allocator->flushChangesToStream();
    stream->flush();
    directory->flushChangesToStream();
    stream->flush();
  }
  void slotOf(int64_t index, int64_t& pos, int64_t& slot) { directory->getGrainInfo(index, pos, slot); }

  static kx::TCryptBuffer<unsigned char> testKey() {
    kx::TCryptBuffer<unsigned char> key(32);
    for (int i = 0; i < 32; ++i) key.getData()[i] = static_cast<unsigned char>(0xA0 + i);
    return key;
  }
  static kx::TBuffer<unsigned char> testBaseIV() {
    kx::TBuffer<unsigned char> iv(16);
    for (int i = 0; i < 16; ++i) iv.getData()[i] = static_cast<unsigned char>(0x10 * i);
    return iv;
  }

  kx::TBuffer<unsigned char> keyHash() const {
    auto digest = kx::create<brix::CDigestType_SHA256>()->createDigest();
    digest->update(key_.getData(), static_cast<int>(key_.getUsed()));
    digest->finish();
    kx::TBuffer<unsigned char> hash;
    hash.assign(digest->getData(), static_cast<size_t>(digest->getLength()));
    return hash;
  }

  // Footer marker, header copy, end-of-stream marker; empty for a plain extent.
  static kx::TBuffer<unsigned char> trail(zarn::CVMDKSparseExtentHeader& header, bool compressed) {
    auto bytes = kx::create<kx::TBuffer<unsigned char>>();
    if (!compressed) return *bytes;
    kx::TBuffer<unsigned char> zeros(512);
    auto stream = kx::create<kx::CBufferStream>(bytes, 2.0);
    kx::CDataOutStream out(*stream);
    zarn::writeVMDKMarker(out, zarn::MARKER_FOOTER, 1, zeros);
    header.store(out);
    zarn::writeVMDKMarker(out, zarn::MARKER_EOS, 0, zeros);
    return *bytes;
  }

  zarn::CVMDKSparseExtentHeader header;
  kx::P<kx::IIOStream> stream;
  kx::P<zarn::CVMDKGrainTableCache> cache;
  kx::P<zarn::CVMDKGrainDirectory> directory;
  kx::P<zarn::CVMDKGrainAllocator> allocator;
  kx::P<brix::ICipher> cipher;
  kx::P<zarn::CVMDKGrain> grain;

 private:
  GrainStackOptions options_;
  kx::TCryptBuffer<unsigned char> key_;
  kx::TBuffer<unsigned char> baseIV_;
};

}  // namespace test
