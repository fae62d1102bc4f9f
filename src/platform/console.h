// The debug console of the log. Windows: a console of the process's own (AllocConsole,
// WriteConsoleA). POSIX: standard error.
#pragma once
#include <cstddef>

namespace kvt::console {

// Opens the console; false when none could be had (writes are then dropped).
bool Open();
// Writes the text in one call; failures are ignored.
void Write(const char* text, std::size_t length);
// Releases the console.
void Close();

}  // namespace kvt::console
