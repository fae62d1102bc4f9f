// Handing a connected socket to a program on its standard input, and waiting for it.
#pragma once

#include "platform/net.h"
#include "platform/spawn.h"

namespace kvt::handoff {

enum class Outcome {
  kNotStarted,  // no pipe or no program: nothing happened, the socket is the caller's as before
  kServed,      // the program got the socket and has ended
  kNotPassed,   // the program started but the socket could not be passed: it was ended
};

// Starts the program (Windows: `call.commandLine`, detached, handle inheritance on; POSIX:
// `call.program` with `call.argv`, without a shell) with its standard input on a channel of
// its own, passes `socket` through that channel and waits, without a time-out, for the
// program to end. The caller's copy of the socket stays open either way.
//   Windows: an anonymous pipe; the channel carries the 372-byte WSAPROTOCOL_INFOA that
//   WSADuplicateSocketA fills for the new process, nothing before or after it.
//   POSIX: an AF_UNIX stream socket pair; the channel carries 372 zero bytes, and the first
//   of them carries the socket's descriptor as SCM_RIGHTS ancillary data.
// When the duplication or the write fails, the program can never get its socket: it is
// ended at once (TerminateProcess, SIGKILL) rather than left waiting on its input, and
// then waited for.
Outcome RunWithSocket(const spawn::Call& call, net::Socket socket);

// The size of the record the program reads from its standard input.
inline constexpr int kRecordSize = 372;

}  // namespace kvt::handoff
