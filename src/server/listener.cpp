#include <cstdlib>

#include "server/connection.h"
#include "support/folders.h"
#include "support/log.h"
#include "support/text.h"

namespace kvt {

namespace {

constexpr int kListenSlots = 5;
constexpr int kBacklog = 5;
constexpr int kMaxAddresses = 32;  // more than any pass can use: only 5 slots exist

// A folder text that would not fit is left empty, so that file commands refuse instead of
// working in a cut path.
void SetFolder(char (&folder)[256], const char* pattern) {
  FormatFits(folder, sizeof folder, pattern, GetAppFolder(3));
}

// Opens a listener on each address of `name` while slots are free. An address already
// listened on fails at bind and is skipped, so each local address gets one socket.
void ListenOnAddressesOf(const char* name, net::Socket (&slots)[kListenSlots], int& filled) {
  std::uint8_t addresses[kMaxAddresses][4];
  int count = net::ResolveIPv4(name, addresses, kMaxAddresses);
  for (int i = 0; i < count && filled < kListenSlots; ++i) {
    net::Socket s = net::OpenListener(addresses[i], kServerPort, kBacklog);
    if (s != net::kNoSocket) slots[filled++] = s;
  }
}

void AcceptOne(net::Socket listener) {
  net::Socket client = net::Accept(listener);
  if (client == net::kNoSocket) {
    LogWrite(kLogTag, "accept failed");
    return;
  }
  LogWrite(kLogTag, "Socket ID");
  // Without a record or a thread the connection cannot be served: drop it and go on.
  auto* record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
  if (record == nullptr) return net::Close(client);
  record->socket = client;
  if (!StartThread(ServeConnection, record)) {
    std::free(record);
    net::Close(client);
  }
}

}  // namespace

int RunListener() {
  SetFolder(SpoolFolder, "%s/Corvina/spool");
  SetFolder(GamutFolder, "%s/Corvina/gamut");

  char hostName[64] = {};
  if (net::GetHostName(hostName, sizeof hostName) != 0) hostName[0] = '\0';
  hostName[sizeof hostName - 1] = '\0';

  net::Socket slots[kListenSlots];
  int filled = 0;
  ListenOnAddressesOf("localhost", slots, filled);
  if (hostName[0] != '\0') ListenOnAddressesOf(hostName, slots, filled);
  if (filled == 0) {
    LogWrite(kLogTag, "No socket opened");
    std::exit(-1);
  }

  bool ready[kListenSlots];
  for (;;) {
    LogWrite(kLogTag, "Listening...");
    int n = net::WaitReadable(slots, filled, ready);
    if (n == 0) continue;
    if (n < 0) {
      for (int i = 0; i < filled; ++i) net::Close(slots[i]);
      return 0;
    }
    for (int i = 0; i < filled; ++i)
      if (ready[i]) AcceptOne(slots[i]);
  }
}

}  // namespace kvt
