#include "platform/posix/child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>

extern char** environ;

namespace kvt::posix {

pid_t StartChild(const char* program, const char* const* argv, int input) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return -1;
  if (input >= 0) {
    // dup2 leaves the copy on 0 without close-on-exec; /dev/null keeps 1 and 2 from being
    // reused by whatever the program opens first.
    posix_spawn_file_actions_adddup2(&actions, input, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  }
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return -1;
  }
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGPIPE);
  sigaddset(&signals, SIGXFSZ);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child = -1;
  int rc =
      posix_spawn(&child, program, &actions, &attributes, const_cast<char* const*>(argv), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? child : -1;  // glibc reports a failed exec here and reaps that child
}

bool WaitChild(pid_t child, int* status) {
  pid_t waited;
  do waited = ::waitpid(child, status, 0);
  while (waited < 0 && errno == EINTR);
  return waited == child;
}

}  // namespace kvt::posix
