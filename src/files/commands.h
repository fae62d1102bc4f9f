// The file commands of the command table: gamut files, configuration listings and colour
// tables. Each reads its request and writes its answer on the record's socket.
#pragma once
#include <cstddef>
#include <cstdint>

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

}  // namespace kvt
