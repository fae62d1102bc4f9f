// Running a program and waiting for its end.
#pragma once
#include <cstdint>

namespace kvt::spawn {

// One call of a program, in both forms the platforms take: Windows starts `commandLine`
// (the program is its first word, CreateProcessA's own splitting); POSIX starts `program`
// with `argv` (argv[0] first, null-terminated), without a shell.
struct Call {
  const char* commandLine;
  const char* program;
  const char* const* argv;
};

// Starts the program detached from any console, with the server's environment and current
// folder and without inheriting its handles or descriptors (POSIX: beyond the standard
// three), and waits without a time-out until it ends. False when it could not be started; otherwise its exit code in *exitCode.
// POSIX: a program ended by a signal gives 128 + the signal's number, as a shell reports it.
bool RunAndWait(const Call& call, std::uint32_t* exitCode);

}  // namespace kvt::spawn
