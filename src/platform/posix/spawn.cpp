#include "platform/spawn.h"

#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>

extern char** environ;

namespace kvt::spawn {

bool RunAndWait(const Call& call, std::uint32_t* exitCode) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return false;
  // Files that other connection threads opened without close-on-exec (the C library's
  // fopen) must not stay open in the program for as long as it runs.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  // The server ignores SIGPIPE for its sockets; the program gets the default back, and no
  // signal blocked by this thread.
  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return false;
  }
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child;
  int rc = posix_spawn(&child, call.program, &actions, &attributes,
                       const_cast<char* const*>(call.argv), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return false;  // glibc reports a failed exec here and reaps that child
  int status = 0;
  pid_t waited;
  do waited = ::waitpid(child, &status, 0);
  while (waited < 0 && errno == EINTR);
  if (waited != child) return false;  // only when SIGCHLD is ignored: no status is kept
  if (WIFEXITED(status)) {
    *exitCode = static_cast<std::uint32_t>(WEXITSTATUS(status));
  } else {
    *exitCode = 128u + static_cast<std::uint32_t>(WTERMSIG(status));
  }
  return true;
}

}  // namespace kvt::spawn
