// One client connection and the folders every file command works in.
#pragma once
#include <cstdint>

#include "platform/net.h"
#include "platform/spooler.h"
#include "server/protocol.h"

namespace kvt {

inline constexpr const char* kLogTag = "KVTnetd";

// "<common app data>/Corvina/spool" and ".../gamut", set once by RunListener before any
// connection exists. Left empty when the path does not fit; every file command then refuses.
extern char SpoolFolder[256];
extern char GamutFolder[256];

// An entry of a connection's printer table; the table ends at the entry whose name is empty.
struct PrinterEntry {
  char name[160];
  spooler::PrinterHandle handle;
};

struct ConnectionRecord {
  net::Socket socket;
  std::uint8_t byteOrderMark[4];  // the opening marker exactly as received
  PrinterEntry* printers;         // built by the first job listing; null until then
};

// What a command handler tells the loop. A handler that ends the connection itself
// (it has closed the socket and called EndConnection) says so, and the loop returns: the
// thread then ends by returning from its routine rather than being cut off mid-stack.
enum class Served { kContinue, kConnectionEnded };

// Starts `routine(argument)` on a detached thread; false when no thread could be started.
bool StartThread(void (*routine)(void*), void* argument);

// Releases everything the connection holds except its socket, which the caller has closed:
// the printer table (closing each open printer) and the record itself.
void EndConnection(ConnectionRecord* record);

// The connection thread's routine; the argument is the ConnectionRecord.
void ServeConnection(void* record);

// Opens the listening sockets and accepts connections for ever. Returns 0 when waiting on
// the sockets fails; ends the process with -1 when no socket could be opened.
int RunListener();

}  // namespace kvt
