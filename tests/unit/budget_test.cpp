// The body budget against the memory the in-memory machine says the process may use.
#include <gtest/gtest.h>

#include "memory/memory.h"
#include "support/body_budget.h"

namespace kvt {
namespace {

constexpr std::uint64_t MiB = 1 << 20;

TEST(BodyBudget, HalfTheUsableMemoryOrTheSettingAndFollowsALoweredLimit) {
  memory::Reset();
  struct Case {
    const char* setting;
    std::uint64_t usable, fits, over;  // the largest request taken at once; one refused (0: none)
  } cases[] = {
      {nullptr, 64 * MiB, 32 * MiB, 32 * MiB + 1},
      {"12X", 64 * MiB, 32 * MiB, 32 * MiB + 1},  // not a size: ignored
      {"4m", 64 * MiB, 4 * MiB, 4 * MiB + 1},
      {"1G", 64 * MiB, 64 * MiB, 64 * MiB + 1},  // never more than the limit itself
      {nullptr, 0, std::uint64_t{1} << 40, 0},  // unknown: no bound
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.setting ? c.setting : "no setting");
    memory::SetUsableMemory(c.usable);
    SetBodyBudget(c.setting);
    if (c.over != 0) {
      EXPECT_FALSE(TakeBodyBytes(c.over));
    }
    ASSERT_TRUE(TakeBodyBytes(c.fits));
    GiveBodyBytes(c.fits);
  }
  // Lowered while a request holds its bytes: the next large request sees the new limit.
  memory::SetUsableMemory(64 * MiB);
  SetBodyBudget(nullptr);
  ASSERT_TRUE(TakeBodyBytes(20 * MiB));
  SetBodyBudgetWait(10);  // nobody gives back: refused once the wait is over, never a spin
  EXPECT_FALSE(TakeBodyBytes(20 * MiB));
  SetBodyBudgetWait(kBodyBudgetWaitMs);
  memory::SetUsableMemory(16 * MiB);
  EXPECT_FALSE(TakeBodyBytes(8 * MiB + 1));
  GiveBodyBytes(20 * MiB);
  EXPECT_TRUE(TakeBodyBytes(8 * MiB));
  GiveBodyBytes(8 * MiB);
}

}  // namespace
}  // namespace kvt
