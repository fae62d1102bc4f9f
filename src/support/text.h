// Text into fixed buffers, all or nothing.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

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

// "<folder>/<name>" into a fixed buffer, all or nothing, as FormatFits with "%s/%s" would do
// it, without the formatted print: for loops over many files.
inline bool JoinPath(char* out, std::size_t size, const char* folder, const char* name) {
  const std::size_t folderLength = std::strlen(folder), nameLength = std::strlen(name);
  if (folderLength + 1 + nameLength >= size) {
    out[0] = '\0';
    return false;
  }
  std::memcpy(out, folder, folderLength);
  out[folderLength] = '/';
  std::memcpy(out + folderLength + 1, name, nameLength + 1);
  return true;
}

}  // namespace kvt
