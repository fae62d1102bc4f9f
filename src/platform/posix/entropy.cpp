#include "platform/entropy.h"

#include <sys/random.h>

#include <atomic>
#include <ctime>

namespace kvt::entropy {

int Random15() {
  unsigned short value = 0;
  // Non-blocking: early in boot the pool may not be ready, and a name needs no secrecy.
  if (::getrandom(&value, sizeof value, GRND_NONBLOCK) == sizeof value) return value & 0x7FFF;
  // Fallback: one shared linear congruential state, advanced atomically.
  static std::atomic<unsigned> state{static_cast<unsigned>(std::time(nullptr))};
  unsigned next = state.fetch_add(0x9E3779B9u) * 1103515245u + 12345u;
  return static_cast<int>((next >> 16) & 0x7FFF);
}

}  // namespace kvt::entropy
