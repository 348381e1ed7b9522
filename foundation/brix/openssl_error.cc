#include "foundation/brix/openssl_error.h"

#include <openssl/err.h>

#include "kx/error.h"

namespace brix {

void throwOpenSSLError(const char* context, const char* operation) {
  const unsigned long code = ERR_get_error();
  char text[256] = "no error queued";
  if (code != 0) ERR_error_string_n(code, text, sizeof(text));
  ERR_clear_error();
  throw kx::CError(kx::String("OpenSSL ") + operation + " failed: " + text, context);
}

}  // namespace brix
