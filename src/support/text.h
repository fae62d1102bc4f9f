// Text into fixed buffers, all or nothing.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace kvt {

// Formats into a fixed buffer; false, with the buffer emptied, when the text does not fit:
// a cut path would name another file.
inline bool FormatFits(char* out, std::size_t size, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;
inline bool FormatFits(char* out, std::size_t size, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  int n = std::vsnprintf(out, size, format, args);
  va_end(args);
  if (n >= 0 && static_cast<std::size_t>(n) < size) return true;
  out[0] = '\0';
  return false;
}

}  // namespace kvt
