// The wire protocol's constants, shared by the server and the client library.
#pragma once
#include <cstdint>

namespace kvt {

inline constexpr std::uint16_t kServerPort = 51470;

// The code in the fourth byte of a command frame.
enum CommandCode : std::uint8_t {
  CMD_CLOSE = 0,
  CMD_LIST_JOBS = 1,
  CMD_GET_PRINTER_LIST = 2,
  CMD_UPLOAD_SPOOL = 3,
  CMD_GET_GAMUT = 4,
  CMD_NEW_JOB_NAME = 5,
  CMD_CANCEL_JOB = 6,
  CMD_DELETE_FILE = 7,
  CMD_PRINT_HANDOFF = 8,
  CMD_QUIT = 9,
  CMD_GET_SCANNER_LIST = 10,
  CMD_LIST_CONFIGS = 11,
  CMD_REGISTER_COLOR_TABLE = 23,
};

}  // namespace kvt
