#include "platform/handoff.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace kvt::handoff {

namespace {

pid_t Start(const spawn::Call& call, int input) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return -1;
  // dup2 leaves the copy on 0 without close-on-exec; every other descriptor of the server
  // (its listeners, the other clients, the socket being passed) stays out of the program.
  // No standard output or error, as on Windows; /dev/null keeps 1 and 2 from being reused.
  posix_spawn_file_actions_adddup2(&actions, input, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
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
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child = -1;
  int rc = posix_spawn(&child, call.program, &actions, &attributes,
                       const_cast<char* const*>(call.argv), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? child : -1;
}

// The record: 372 zero bytes, the descriptor riding on the first of them. A stream socket
// may take a record in parts; the descriptor goes with the first part only.
bool SendRecord(int channel, int socket) {
  char record[kRecordSize] = {};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  iovec part{record, sizeof record};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &socket, sizeof socket);
  std::size_t sent = 0;
  while (sent < sizeof record) {
    ssize_t n = ::sendmsg(channel, &message, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
    part.iov_base = record + sent;
    part.iov_len = sizeof record - sent;
    message.msg_control = nullptr;
    message.msg_controllen = 0;
  }
  return true;
}

}  // namespace

Outcome RunWithSocket(const spawn::Call& call, net::Socket socket) {
  int channel[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0)
    return Outcome::kNotStarted;
  pid_t child = Start(call, channel[1]);
  ::close(channel[1]);
  if (child < 0) {
    ::close(channel[0]);
    return Outcome::kNotStarted;
  }
  bool passed = SendRecord(channel[0], static_cast<int>(socket));
  if (!passed) ::kill(child, SIGKILL);
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  ::close(channel[0]);
  return passed ? Outcome::kServed : Outcome::kNotPassed;
}

}  // namespace kvt::handoff
