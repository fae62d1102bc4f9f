#include "support/body_budget.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

namespace kvt {

namespace {

std::mutex budgetMutex;
std::condition_variable budgetFreed;
std::uint64_t budget = UINT64_MAX;
std::uint64_t held = 0;
void (*reclaimKept)() = nullptr;

// A size like "512M"; false when the text is none.
bool ParseSize(const char* text, std::uint64_t& size) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  char* end = nullptr;
  std::uint64_t value = std::strtoull(text, &end, 10);
  int shift = 0;
  switch (*end | 0x20) {  // either case
    case 'k': shift = 10, ++end; break;
    case 'm': shift = 20, ++end; break;
    case 'g': shift = 30, ++end; break;
    default: break;
  }
  if (*end != '\0' || value > (UINT64_MAX >> shift)) return false;
  size = value << shift;
  return true;
}

}  // namespace

void SetBodyBudget(const char* setting, std::uint64_t usable) {
  std::uint64_t size = usable == 0 ? UINT64_MAX : usable / 2;  // unknown: no bound
  ParseSize(setting, size);
  std::lock_guard lock(budgetMutex);
  budget = size;
}

std::uint64_t BodyBudget() {
  std::lock_guard lock(budgetMutex);
  return budget;
}

bool TakeBodyBytes(std::uint64_t bytes) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kBodyBudgetWaitMs);
  std::unique_lock lock(budgetMutex);
  if (bytes > budget) return false;
  for (;;) {
    if (bytes <= budget - held) {
      held += bytes;
      return true;
    }
    // Kept blocks are the first to go: they hold budget that nobody uses.
    if (reclaimKept != nullptr) {
      lock.unlock();
      reclaimKept();
      lock.lock();
      if (bytes <= budget - held) continue;
    }
    if (budgetFreed.wait_until(lock, deadline) == std::cv_status::timeout &&
        bytes > budget - held)
      return false;
  }
}

void GiveBodyBytes(std::uint64_t bytes) {
  {
    std::lock_guard lock(budgetMutex);
    held -= bytes;
  }
  budgetFreed.notify_all();
}

void SetBodyBytesReclaim(void (*reclaim)()) {
  std::lock_guard lock(budgetMutex);
  reclaimKept = reclaim;
}

}  // namespace kvt
