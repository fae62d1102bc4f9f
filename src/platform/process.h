// The process itself: its argument text, file modes, clock and the resources it may use.
#pragma once
#include <cstdint>
#include <ctime>

namespace kvt::process {

// The argument part of the command line, as the program's entry receives it.
// Windows: the text after the program's own path and the blanks that follow it.
// POSIX: argv[1..] joined by single blanks; an argument that is empty or holds a
// blank is put in double quotes, so that splitting the text gives the same words.
// The text lives until the process ends.
const char* ArgumentText(int argc, char** argv);

// Makes binary the default mode of every file opened without an explicit mode,
// and of the standard streams. POSIX has no text mode: nothing to do.
void SetBinaryMode();

// Makes a write past the process's file-size limit fail with an error, like a full disk,
// instead of ending the process: one upload fails, not the server. POSIX: SIGXFSZ is
// ignored. Windows has no such limit: nothing to do.
void KeepRunningAtFileSizeLimit();

// Raises the soft limit on open descriptors to the hard limit: every connection holds one.
// Windows has no such limit: nothing to do.
void RaiseDescriptorLimit();

// The memory the process may use, in bytes: the physical memory, or less where a limit is
// set for the process. POSIX: the memory cgroup's limit, the tightest one from the process's
// own group up (cgroup v2 memory.max, v1 memory.limit_in_bytes). Windows: the job object's
// process or job memory limit. 0 when not even the physical memory can be told.
std::uint64_t UsableMemory();

// The local time now; false if the platform cannot tell.
bool LocalTimeNow(std::tm* out);

}  // namespace kvt::process
