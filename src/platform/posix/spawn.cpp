#include "platform/spawn.h"

#include <sys/wait.h>

#include "platform/posix/child.h"

namespace kvt::spawn {

bool RunAndWait(const Call& call, std::uint32_t* exitCode) {
  pid_t child = posix::StartChild(call.program, call.argv);
  int status = 0;
  if (child < 0 || !posix::WaitChild(child, &status)) return false;
  if (WIFEXITED(status)) {
    *exitCode = static_cast<std::uint32_t>(WEXITSTATUS(status));
  } else {
    *exitCode = 128u + static_cast<std::uint32_t>(WTERMSIG(status));
  }
  return true;
}

}  // namespace kvt::spawn
