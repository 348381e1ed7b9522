#include "kx/random.h"

namespace kx {

CMTRand& CMTRand::getGlobal() {
  static CMTRand instance;
  return instance;
}

std::mutex& CMTRand::getGlobalInstanceMutex() {
  static std::mutex mutex;
  return mutex;
}

uint32_t CMTRand::rand32() {
  uint32_t value = 0;
  fillFromSystemRandom(&value, sizeof(value));
  return value;
}

void CMTRand::randData(void* data, size_t size) { fillFromSystemRandom(data, size); }

}  // namespace kx
