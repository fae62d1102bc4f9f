// Starting a program without waiting for it.
#pragma once
#include <cstdint>

namespace kvt::launch {

// Whether the platform hands a new process one command line, the entries joined by single
// blanks (Windows), so that an entry holding blanks must be put in quotes to stay one
// entry; false where the entries reach the program as they are (POSIX).
bool JoinsEntries();

// Starts `program` with `argv` (argv[0] first, null-terminated) as its argument list and
// returns at once. The program runs with the server's environment and current folder.
// Windows: the runtime's no-wait spawn (_spawnv with P_NOWAIT), which completes a missing
// extension; the process handle it gives is closed at once, as nobody waits for it.
// POSIX: posix_spawn without a shell, no descriptors beyond the standard three; a detached
// thread waits for the program, so that it never lingers as a zombie, without touching
// SIGCHLD (the colour tool's run-and-wait needs its children's status).
// Returns the new process's identifier (not negative), or -1 when it could not be started.
std::intptr_t StartNoWait(const char* program, const char* const* argv);

}  // namespace kvt::launch
