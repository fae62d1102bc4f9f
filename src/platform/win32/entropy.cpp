#define _CRT_RAND_S  // declares rand_s in <stdlib.h>
#include "platform/entropy.h"

#include <stdlib.h>

#include <atomic>
#include <ctime>

namespace kvt::entropy {

int Random15() {
  unsigned int value = 0;
  if (rand_s(&value) == 0) return static_cast<int>(value & 0x7FFF);
  // Fallback: one shared linear congruential state, advanced atomically.
  static std::atomic<unsigned> state{static_cast<unsigned>(std::time(nullptr))};
  unsigned next = state.fetch_add(0x9E3779B9u) * 1103515245u + 12345u;
  return static_cast<int>((next >> 16) & 0x7FFF);
}

bool Secret(void* out, std::size_t size) {
  auto* bytes = static_cast<unsigned char*>(out);
  for (std::size_t i = 0; i < size; i += sizeof(unsigned int)) {
    unsigned int value = 0;
    if (rand_s(&value) != 0) return false;
    for (std::size_t b = 0; b < sizeof value && i + b < size; ++b)
      bytes[i + b] = static_cast<unsigned char>(value >> (8 * b));
  }
  return true;
}

}  // namespace kvt::entropy
