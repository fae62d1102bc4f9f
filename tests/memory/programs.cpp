// Programs of the in-memory machine: a start is recorded, never made. A program can be
// started when a file lies at its path; one that is run and waited for ends with the exit
// code set for it; one handed a socket takes it and ends.
#include <atomic>
#include <mutex>

#include "memory.h"
#include "platform/handoff.h"
#include "platform/launch.h"
#include "platform/spawn.h"

namespace kvt {
namespace {

std::mutex lock;
std::vector<std::vector<std::string>> starts;
std::atomic<std::uint32_t> exitCode = 0;
std::atomic<bool> joins = false, failHandOffs = false;
std::atomic<std::intptr_t> nextProcess = 100;

bool Record(const char* program, const char* const* argv) {
  if (program == nullptr || !memory::internal::IsFile(program)) return false;
  std::vector<std::string> start;
  for (const char* const* a = argv; a != nullptr && *a != nullptr; ++a) start.push_back(*a);
  std::lock_guard guard(lock);
  starts.push_back(std::move(start));
  return true;
}

}  // namespace

namespace memory {

void internal::ResetPrograms() {
  std::lock_guard guard(lock);
  starts.clear();
  exitCode = 0;
  joins = failHandOffs = false;
}

const std::vector<std::vector<std::string>>& Starts() { return starts; }

void SetExitCode(std::uint32_t code) { exitCode = code; }
void SetJoinsEntries(bool value) { joins = value; }
void FailHandOffs(bool fail) { failHandOffs = fail; }

}  // namespace memory

bool launch::JoinsEntries() { return joins; }

std::intptr_t launch::StartNoWait(const char* program, const char* const* argv) {
  return Record(program, argv) ? nextProcess++ : -1;
}

bool spawn::RunAndWait(const Call& call, std::uint32_t* code) {
  if (!Record(call.program, call.argv)) return false;
  *code = exitCode;
  return true;
}

handoff::Outcome handoff::RunWithSocket(const spawn::Call& call, net::Socket) {
  if (!Record(call.program, call.argv)) return Outcome::kNotStarted;
  return failHandOffs ? Outcome::kNotPassed : Outcome::kServed;
}

}  // namespace kvt
