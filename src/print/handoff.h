// Print hand-off (CMD_PRINT_HANDOFF): the connection is given to `jobfeeder`.
#pragma once

#include "server/connection.h"

namespace kvt {

// Starts "<program folder of Corvina>/jobfeeder -l" with the connection's socket passed on
// its standard input, and waits for it to end; then closes the socket, ends the connection
// and says so. Nothing is sent on the connection. When the program can't be started the
// command is ignored and the loop reads the next frame.
Served HandOffConnection(ConnectionRecord& record);

}  // namespace kvt
