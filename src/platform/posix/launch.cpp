#include "platform/launch.h"

#include <cstdint>

#include "platform/posix/child.h"
#include "platform/thread.h"

namespace kvt::launch {

namespace {

void Reap(void* pid) {
  posix::WaitChild(static_cast<pid_t>(reinterpret_cast<std::intptr_t>(pid)));
}

}  // namespace

bool JoinsEntries() { return false; }

std::intptr_t StartNoWait(const char* program, const char* const* argv) {
  pid_t child = posix::StartChild(program, argv);
  if (child < 0) return -1;
  void* pid = reinterpret_cast<void*>(static_cast<std::intptr_t>(child));
  // Without a thread to wait for it, the program is waited for here: slower for this one
  // caller, but no zombie is left behind.
  if (!thread::StartDetached(Reap, pid)) Reap(pid);
  return child;
}

}  // namespace kvt::launch
