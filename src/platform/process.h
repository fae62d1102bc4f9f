// The process itself: its argument text, file modes and clock.
#pragma once
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

// The local time now; false if the platform cannot tell.
bool LocalTimeNow(std::tm* out);

}  // namespace kvt::process
