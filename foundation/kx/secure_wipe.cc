#include <openssl/crypto.h>

#include "kx/buffer.h"

namespace kx {

void secureWipe(void* data, size_t size) noexcept {
  if (data && size) OPENSSL_cleanse(data, size);
}

}  // namespace kx
