// Starting the programs the server runs, the one way every POSIX caller needs it.
#pragma once
#include <sys/types.h>

namespace kvt::posix {

// Starts `program` with `argv` (argv[0] first, null-terminated) without a shell. The
// program gets no descriptor of the server's beyond the standard three (files and sockets
// that other threads opened must not live on in it), SIGPIPE and SIGXFSZ back at their
// defaults and no blocked signal. With `input` >= 0, that descriptor becomes its standard
// input and its standard output and error go to /dev/null. Returns the child's pid, or -1.
pid_t StartChild(const char* program, const char* const* argv, int input = -1);

// Waits for the child to end; false when no status could be had (SIGCHLD ignored).
bool WaitChild(pid_t child, int* status = nullptr);

}  // namespace kvt::posix
