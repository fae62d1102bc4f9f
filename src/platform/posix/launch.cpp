#include "platform/launch.h"

#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>

#include "platform/thread.h"

extern char** environ;

namespace kvt::launch {

namespace {

void Reap(void* pid) {
  pid_t child = static_cast<pid_t>(reinterpret_cast<std::intptr_t>(pid));
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

bool JoinsEntries() { return false; }

std::intptr_t StartNoWait(const char* program, const char* const* argv) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return -1;
  // Descriptors other threads opened without close-on-exec stay out of the program.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return -1;
  }
  // The server ignores SIGPIPE; the program gets the default back and no blocked signal.
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child;
  int rc =
      posix_spawn(&child, program, &actions, &attributes, const_cast<char* const*>(argv), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;  // glibc reports a failed exec here and reaps that child itself
  void* pid = reinterpret_cast<void*>(static_cast<std::intptr_t>(child));
  // Without a thread to wait for it, the program is waited for here: slower for this one
  // caller, but no zombie is left behind.
  if (!thread::StartDetached(Reap, pid)) Reap(pid);
  return child;
}

}  // namespace kvt::launch
