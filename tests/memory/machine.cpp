// The process of the in-memory machine: its memory, threads, console, clock and random
// source. A thread start runs the routine at once, on the caller's thread, so that a test or
// a fuzzer input is served from start to end before the call returns.
#include <atomic>
#include <mutex>

#include "memory.h"
#include "platform/console.h"
#include "platform/entropy.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "service_double.h"
#include "spooler_double.h"

namespace kvt {
namespace {

std::mutex lock;
std::atomic<std::uint64_t> usableMemory = 0;
std::atomic<int> failingThreads = 0;
std::uint32_t randomState = 1;

// xorshift32: the same numbers after the same seed.
std::uint32_t NextRandom() {
  std::lock_guard guard(lock);
  randomState ^= randomState << 13;
  randomState ^= randomState >> 17;
  randomState ^= randomState << 5;
  return randomState;
}

}  // namespace

namespace memory {

void internal::ResetProcess(unsigned seed) {
  std::lock_guard guard(lock);
  usableMemory = std::uint64_t{1} << 30;
  failingThreads = 0;
  randomState = seed * 2654435761u + 1;
  if (randomState == 0) randomState = 1;  // xorshift would stay at 0
}

void Reset(std::uint32_t seed) {
  internal::ResetFiles();
  internal::ResetSockets();
  internal::ResetPrograms();
  internal::ResetProcess(seed);
  spooler::fake::Reset();
  service::fake::Reset();
}

void SetUsableMemory(std::uint64_t bytes) { usableMemory = bytes; }
void FailThreadStarts(int count) { failingThreads = count; }

}  // namespace memory

const char* process::ArgumentText(int, char**) { return ""; }
void process::SetBinaryMode() {}
void process::KeepRunningAtFileSizeLimit() {}
void process::RaiseDescriptorLimit() {}

std::uint64_t process::UsableMemory() { return usableMemory; }

bool process::LocalTimeNow(std::tm* out) {
  *out = std::tm{};  // only the debug log asks, and no test runs one here
  return true;
}

bool thread::StartDetached(Routine routine, void* argument) {
  for (int left = failingThreads; left > 0;)
    if (failingThreads.compare_exchange_weak(left, left - 1)) return false;
  routine(argument);
  return true;
}

void thread::SleepMilliseconds(int) {}  // nothing else runs meanwhile: nothing to wait for

bool console::Open() { return true; }

void console::Write(const char*, std::size_t) {}

void console::Close() {}

int entropy::Random15() { return static_cast<int>(NextRandom() >> 17); }

bool entropy::Secret(void* out, std::size_t size) {
  auto* bytes = static_cast<unsigned char*>(out);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(NextRandom() >> 24);
  return true;
}

}  // namespace kvt
