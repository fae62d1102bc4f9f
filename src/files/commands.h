// The file commands of the command table: gamut files, configuration listings and colour
// tables. Each reads its request and writes its answer on the record's socket.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "server/connection.h"

namespace kvt {

// CMD_GET_GAMUT: folder and base name; the file's time, size and bytes, or 8 zero bytes.
Served SendGamutFile(ConnectionRecord& record);

// CMD_LIST_CONFIGS: a folder name; the count and one FolderEntry per configuration.
Served ListConfigurations(ConnectionRecord& record);

// CMD_REGISTER_COLOR_TABLE: a name and data; the colour tool's exit code, 0 when refused.
Served RegisterColorTable(ConnectionRecord& record);

// The most a colour table request may hold in memory. A longer name or data is read off
// the connection and dropped, and the answer is 0.
inline constexpr std::uint32_t kMaxTableName = 4096;
inline constexpr std::uint32_t kMaxTableData = 256u << 20;  // 256 MiB

// True when a fixed-width text field holds its terminator within its width.
inline bool FieldHasEnd(const char* field, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i)
    if (field[i] == '\0') return true;
  return false;
}

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
