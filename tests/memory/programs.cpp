// Programs of the in-memory machine: a start is recorded, never made. A program can be
// started when a file lies at its path; one that is run and waited for ends with the exit
// code set for it; one handed a socket takes it and ends.
#include <mutex>

#include "internal.h"
#include "memory.h"
#include "platform/handoff.h"
#include "platform/launch.h"
#include "platform/spawn.h"

namespace kvt {
namespace {

std::mutex lock;
std::vector<memory::Start> starts;
std::uint32_t exitCode = 0;
bool joins = false, failHandOffs = false;
std::intptr_t nextProcess = 100;

bool Record(memory::Start::Kind kind, const char* program, const char* const* argv,
            const char* commandLine = "") {
  if (program == nullptr || !memory::internal::IsFile(program)) return false;
  memory::Start start{kind, {}, commandLine != nullptr ? commandLine : ""};
  for (const char* const* a = argv; a != nullptr && *a != nullptr; ++a) start.argv.push_back(*a);
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

const std::vector<Start>& Starts() { return starts; }

void SetExitCode(std::uint32_t code) {
  std::lock_guard guard(lock);
  exitCode = code;
}

void SetJoinsEntries(bool value) {
  std::lock_guard guard(lock);
  joins = value;
}

void FailHandOffs(bool fail) {
  std::lock_guard guard(lock);
  failHandOffs = fail;
}

}  // namespace memory

bool launch::JoinsEntries() {
  std::lock_guard guard(lock);
  return joins;
}

std::intptr_t launch::StartNoWait(const char* program, const char* const* argv) {
  if (!Record(memory::Start::kNoWait, program, argv)) return -1;
  std::lock_guard guard(lock);
  return nextProcess++;
}

bool spawn::RunAndWait(const Call& call, std::uint32_t* code) {
  if (!Record(memory::Start::kAndWait, call.program, call.argv, call.commandLine)) return false;
  std::lock_guard guard(lock);
  *code = exitCode;
  return true;
}

handoff::Outcome handoff::RunWithSocket(const spawn::Call& call, net::Socket) {
  if (!Record(memory::Start::kHandOff, call.program, call.argv, call.commandLine))
    return Outcome::kNotStarted;
  std::lock_guard guard(lock);
  return failHandOffs ? Outcome::kNotPassed : Outcome::kServed;
}

}  // namespace kvt
