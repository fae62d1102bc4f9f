#include "platform/entropy.h"

#include <sys/random.h>

#include <atomic>
#include <cerrno>
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

bool Secret(void* out, std::size_t size) {
  auto* bytes = static_cast<unsigned char*>(out);
  while (size > 0) {
    const ssize_t n = ::getrandom(bytes, size, 0);  // blocks only until the pool is ready
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace kvt::entropy
