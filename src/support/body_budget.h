// The body budget: the bytes that all connections together may hold at once for what clients
// send and size themselves (spool upload bodies, colour table names and data). A request
// whose bytes don't fit is refused like one over its own ceiling, so that memory runs short
// for one request, not for the server.
#pragma once
#include <cstdint>

namespace kvt {

// The operator's setting: a number of bytes, optionally followed by K, M or G (binary).
inline constexpr const char* kBodyBudgetVariable = "KVTNETD_BODY_MEMORY";

// How long a request waits for others to give bytes back before it is refused.
inline constexpr int kBodyBudgetWaitMs = 10000;
// Changes that wait: a machine that serves one connection at a time (the fuzzer's) has no
// other request that could give bytes back.
void SetBodyBudgetWait(int milliseconds);

// A request of this many bytes or more reads the memory the process may use again first: a
// limit can be lowered while the server runs (systemctl set-property, a tighter group).
inline constexpr std::uint64_t kBodyBudgetRereadBytes = 1 << 20;

// Sets the budget: `setting` when it holds a valid size, else half of the memory the process
// may use (platform/process.h); never more than that memory itself. Until it is called the
// budget has no bound.
void SetBodyBudget(const char* setting);

// Takes `bytes` from the budget. When they don't fit, memory kept for reuse is given back
// first, then the call waits (kBodyBudgetWaitMs) for other requests to end; more than
// the whole budget is refused at once. False when the bytes can't be had.
bool TakeBodyBytes(std::uint64_t bytes);
void GiveBodyBytes(std::uint64_t bytes);

// Called, without the budget's lock, when a request finds the budget short: frees memory
// kept for later requests and gives its bytes back.
void SetBodyBytesReclaim(void (*reclaim)());

}  // namespace kvt
