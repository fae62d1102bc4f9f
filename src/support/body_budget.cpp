#include "support/body_budget.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>

#include "platform/process.h"

namespace kvt {

namespace {

std::mutex budgetMutex;
std::condition_variable budgetFreed;
bool following = false;                // SetBodyBudget was called
std::optional<std::uint64_t> setting;  // the operator's
std::uint64_t budget = UINT64_MAX;
std::uint64_t held = 0;
void (*reclaimKept)() = nullptr;
int waitMs = kBodyBudgetWaitMs;

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

// The budget for the memory the process may use now (0: unknown, no bound).
void FollowUsableMemory() {
  const std::uint64_t usable = process::UsableMemory();  // reads files: outside the lock
  std::lock_guard lock(budgetMutex);
  following = true;
  const std::uint64_t whole = usable == 0 ? UINT64_MAX : usable;
  budget = setting ? std::min(*setting, whole) : whole == UINT64_MAX ? whole : whole / 2;
}

bool Following() {
  std::lock_guard lock(budgetMutex);
  return following;
}

}  // namespace

void SetBodyBudget(const char* text) {
  std::uint64_t size = 0;
  {
    std::lock_guard lock(budgetMutex);
    setting = ParseSize(text, size) ? std::optional(size) : std::nullopt;
  }
  FollowUsableMemory();
}

void SetBodyBudgetWait(int milliseconds) {
  std::lock_guard lock(budgetMutex);
  waitMs = milliseconds;
}

bool TakeBodyBytes(std::uint64_t bytes) {
  if (bytes >= kBodyBudgetRereadBytes && Following()) FollowUsableMemory();
  std::unique_lock lock(budgetMutex);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
  // After a lowered limit more may be held than the budget allows: nothing fits then.
  auto fits = [&] { return held <= budget && bytes <= budget - held; };
  if (bytes > budget) return false;
  for (;;) {
    if (fits()) {
      held += bytes;
      return true;
    }
    // Kept blocks are the first to go: they hold budget that nobody uses.
    if (reclaimKept != nullptr) {
      lock.unlock();
      reclaimKept();
      lock.lock();
      if (fits()) continue;
    }
    if (budgetFreed.wait_until(lock, deadline) == std::cv_status::timeout && !fits())
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
