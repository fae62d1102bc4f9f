// The debug log: console and file, written only in debug mode.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <ctime>

namespace kvt {

// Set once by the "-debug" run mode before any other thread starts; never cleared.
extern bool DebugMode;

// Writes "<tag>: <message>" to the console and to the log file (each file entry followed by
// an empty line). The first call in debug mode opens the file "<tag>-SYYMMDDhhmmss" in the
// current folder and the console. A null format closes the log; the next call opens a new one.
void LogWrite(const char* tag, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

// The pieces of LogWrite, for callers and tests that need them without the side effects.
inline constexpr std::size_t kLogLineSize = 200;  // the line, its line end and the terminator

// "<tag>-SYYMMDDhhmmss" for the given local time; false if it does not fit.
bool FormatLogFileName(char* out, std::size_t size, const char* tag, const std::tm& when);

// "<tag>: <message>\n" in a kLogLineSize buffer. A message too long for the line is cut so
// that the line still ends with its line feed; returns the line's length.
std::size_t FormatLogLine(char (&line)[kLogLineSize], const char* tag, const char* format,
                          std::va_list args);

}  // namespace kvt
