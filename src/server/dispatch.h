// The command table: one handler per code; codes without one are read and ignored.
#pragma once
#include <cstdint>

#include "server/connection.h"

namespace kvt {

using CommandHandler = Served (*)(ConnectionRecord& record);

// The handler for a code, or null when the code is ignored. CMD_CLOSE is the loop's own.
// Defined by the command table (commands/table.cpp), which knows every handler module.
CommandHandler HandlerFor(std::uint8_t code);

}  // namespace kvt
