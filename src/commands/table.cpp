// The command table. It names the handler of every command, from server/, print/ and files/,
// so it stands above all of them; the command loop in server/ reaches it through HandlerFor.
#include <array>

#include "files/commands.h"
#include "print/handoff.h"
#include "print/jobs.h"
#include "print/upload.h"
#include "server/dispatch.h"
#include "server/inline_commands.h"

namespace kvt {

namespace {

// Filled by code; the codes that no command uses (12 to 22, 24 and up) stay null and are
// ignored, and so do the commands that are not served yet.
constexpr std::array<CommandHandler, 256> MakeTable() {
  std::array<CommandHandler, 256> table{};
  table[CMD_LIST_JOBS] = ListJobs;
  table[CMD_GET_PRINTER_LIST] = SendPrinterList;
  table[CMD_NEW_JOB_NAME] = SendNewJobName;
  table[CMD_CANCEL_JOB] = CancelJobOrSpoolFile;
  table[CMD_DELETE_FILE] = DeleteFileByPath;
  table[CMD_QUIT] = Quit;
  table[CMD_GET_SCANNER_LIST] = SendScannerList;
  table[CMD_UPLOAD_SPOOL] = UploadSpoolFile;
  table[CMD_GET_GAMUT] = SendGamutFile;
  table[CMD_PRINT_HANDOFF] = HandOffConnection;
  table[CMD_LIST_CONFIGS] = ListConfigurations;
  table[CMD_REGISTER_COLOR_TABLE] = RegisterColorTable;
  return table;
}

constexpr std::array<CommandHandler, 256> kHandlers = MakeTable();

}  // namespace

CommandHandler HandlerFor(std::uint8_t code) { return kHandlers[code]; }

}  // namespace kvt
