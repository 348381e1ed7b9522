// Random 4 KiB reads or writes on a disk through the library's public API,
// for `make bench-compare` to set against qemu-io on the same file.
//
//   random_io list DISK COUNT SEED           offsets of COUNT pieces in
//                                            written grains, one a line
//   random_io read DISK OFFSETS [--verify RAW | --expect BYTE]
//   random_io write DISK OFFSETS             4 KiB of 0xab at each offset
//
// The offsets come from a file so that both tools see exactly the same ones;
// picking them reads the grain tables of the whole disk, which is kept out of
// the timed runs. read and write print their own rate (the operations alone,
// without opening and closing) on stderr; the caller times the whole process,
// as it does for qemu-io. A write run ends with flushChanges, which waits for
// the device, as qemu-io's close does.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "kx/path.h"
#include "kx/uri.h"
#include "zarn/disk.h"

namespace {

constexpr int kPieceBytes = 4096;
constexpr unsigned char kWritePattern = 0xab;

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: random_io list DISK COUNT SEED\n"
               "       random_io read DISK OFFSETS [--verify RAW | --expect BYTE]\n"
               "       random_io write DISK OFFSETS\n");
  std::exit(2);
}

// The local file system takes absolute file URIs only.
kx::CURI fileURI(const char* path) {
  const std::string absolute = std::filesystem::absolute(path).string();
  return kx::CURI(kx::CUnixPath(kx::String::fromUTF8(absolute)), true);
}

kx::P<zarn::CVMDKDisk> openDisk(kx::IFileSystem* fs, const char* path, kx::IIOStream::Access access) {
  const char* password = std::getenv("ZARN_PASSWORD");
  return kx::create<zarn::CVMDKDisk>(fs, fileURI(path), access,
                                     kx::String::fromUTF8(std::string(password ? password : "")));
}

// Pieces only in written grains: a piece of a grain that isn't stored reads
// as zeros without touching the file, and a write there would allocate,
// which is another measurement.
int listOffsets(kx::IFileSystem* fs, const char* path, long long count, unsigned long long seed) {
  auto disk = openDisk(fs, path, kx::IIOStream::ACCESS_READ);
  const int64_t grainBytes = disk->getGrainSizeBytes();
  std::vector<int64_t> written;
  for (int64_t at = 0; at + grainBytes <= disk->getSizeBytes(); at += grainBytes) {
    disk->seek(at);
    if (disk->isGrainWritten()) written.push_back(at);
  }
  if (written.empty()) {
    std::fprintf(stderr, "random_io: %s has no written grain\n", path);
    return 1;
  }
  // Plain modulo of the engine's output rather than a distribution: the
  // same seed gives the same offsets whatever the standard library.
  std::mt19937_64 random(seed);
  const uint64_t piecesPerGrain = static_cast<uint64_t>(grainBytes / kPieceBytes);
  for (long long i = 0; i < count; ++i) {
    const int64_t grain = written[random() % written.size()];
    const int64_t piece = static_cast<int64_t>(random() % piecesPerGrain);
    std::printf("%lld\n", static_cast<long long>(grain + piece * kPieceBytes));
  }
  return 0;
}

std::vector<int64_t> readOffsets(const char* path) {
  std::ifstream in(path);
  if (!in) {
    std::fprintf(stderr, "random_io: can't read %s\n", path);
    std::exit(1);
  }
  std::vector<int64_t> offsets;
  long long offset;
  while (in >> offset) offsets.push_back(offset);
  if (!in.eof()) {
    std::fprintf(stderr, "random_io: %s: not a list of offsets\n", path);
    std::exit(1);
  }
  return offsets;
}

int run(kx::IFileSystem* fs, const std::string& mode, const char* diskPath, const char* offsetsPath,
        const char* verifyRaw, int expectByte) {
  const std::vector<int64_t> offsets = readOffsets(offsetsPath);
  const bool writing = mode == "write";
  auto disk = openDisk(fs, diskPath, writing ? kx::IIOStream::ACCESS_READ_WRITE : kx::IIOStream::ACCESS_READ);
  std::vector<unsigned char> piece(kPieceBytes, writing ? kWritePattern : 0);
  std::vector<unsigned char> expected(kPieceBytes, static_cast<unsigned char>(expectByte));
  std::ifstream raw;
  if (verifyRaw) {
    raw.open(verifyRaw, std::ios::binary);
    if (!raw) {
      std::fprintf(stderr, "random_io: can't read %s\n", verifyRaw);
      return 1;
    }
  }
  long long mismatches = 0;
  const auto start = std::chrono::steady_clock::now();
  for (const int64_t offset : offsets) {
    disk->seek(offset);
    if (writing) {
      disk->write(piece.data(), kPieceBytes);
      continue;
    }
    disk->read(piece.data(), kPieceBytes);
    if (verifyRaw) {
      raw.seekg(offset);
      raw.read(reinterpret_cast<char*>(expected.data()), kPieceBytes);
      if (raw.gcount() != kPieceBytes) {
        std::fprintf(stderr, "random_io: %s is shorter than the disk\n", verifyRaw);
        return 1;
      }
    }
    if ((verifyRaw || expectByte >= 0) && std::memcmp(piece.data(), expected.data(), kPieceBytes) != 0) {
      if (mismatches++ < 5) std::fprintf(stderr, "random_io: wrong bytes at %lld\n", static_cast<long long>(offset));
    }
  }
  if (writing) disk->flushChanges();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::fprintf(stderr, "random_io: %zu %ss in %.3f s, %.0f ops/s\n", offsets.size(), mode.c_str(), seconds,
               seconds > 0 ? offsets.size() / seconds : 0.0);
  if (mismatches) {
    std::fprintf(stderr, "random_io: %lld of %zu pieces read wrong\n", mismatches, offsets.size());
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) usage();
  const std::string mode = argv[1];
  try {
    auto fs = kx::create<kx::CLocalFileSystem>();
    if (mode == "list") {
      if (argc != 5) usage();
      return listOffsets(fs.get(), argv[2], std::atoll(argv[3]), std::strtoull(argv[4], nullptr, 0));
    }
    if (mode != "read" && mode != "write") usage();
    const char* verifyRaw = nullptr;
    int expectByte = -1;
    for (int i = 4; i < argc; ++i) {
      if (mode == "read" && std::strcmp(argv[i], "--verify") == 0 && i + 1 < argc) {
        verifyRaw = argv[++i];
      } else if (mode == "read" && std::strcmp(argv[i], "--expect") == 0 && i + 1 < argc) {
        expectByte = static_cast<int>(std::strtol(argv[++i], nullptr, 0)) & 0xff;
      } else {
        usage();
      }
    }
    return run(fs.get(), mode, argv[2], argv[3], verifyRaw, expectByte);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "random_io: %s\n", error.what());
    return 1;
  }
}
