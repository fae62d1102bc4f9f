#include "server/dispatch.h"

#include <array>

#include "files/commands.h"
#include "server/wire.h"

namespace kvt {

namespace {

// Filled by code; the codes that no command uses (12 to 22, 24 and up) stay null and are
// ignored, and so do the commands that are not served yet.
constexpr std::array<CommandHandler, 256> MakeTable() {
  std::array<CommandHandler, 256> table{};
  table[CMD_GET_GAMUT] = SendGamutFile;
  table[CMD_LIST_CONFIGS] = ListConfigurations;
  table[CMD_REGISTER_COLOR_TABLE] = RegisterColorTable;
  return table;
}

constexpr std::array<CommandHandler, 256> kHandlers = MakeTable();

}  // namespace

CommandHandler HandlerFor(std::uint8_t code) { return kHandlers[code]; }

}  // namespace kvt
