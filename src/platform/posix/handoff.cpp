#include "platform/handoff.h"

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/posix/child.h"

namespace kvt::handoff {

namespace {

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
  // The program's standard input is its end of the pair; every other descriptor of the
  // server (its listeners, the other clients, the socket being passed) stays out of it.
  pid_t child = posix::StartChild(call.program, call.argv, channel[1]);
  ::close(channel[1]);
  if (child < 0) {
    ::close(channel[0]);
    return Outcome::kNotStarted;
  }
  bool passed = SendRecord(channel[0], static_cast<int>(socket));
  if (!passed) ::kill(child, SIGKILL);
  posix::WaitChild(child);
  ::close(channel[0]);
  return passed ? Outcome::kServed : Outcome::kNotPassed;
}

}  // namespace kvt::handoff
