// The OS random source of POSIX systems with getrandom(2).
#include <sys/random.h>

#include <cerrno>
#include <cstring>

#include "kx/error.h"
#include "kx/random.h"

namespace kx {

void fillFromSystemRandom(void* data, size_t size) {
  auto* out = static_cast<unsigned char*>(data);
  while (size > 0) {
    const ssize_t got = getrandom(out, size, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      throw CError(String("Reading the system random source failed: ") + std::strerror(errno));
    }
    out += got;
    size -= static_cast<size_t>(got);
  }
}

}  // namespace kx
