#include <cstdlib>

#include "platform/process.h"
#include "platform/thread.h"
#include "server/connection.h"
#include "support/body_budget.h"
#include "support/folders.h"
#include "support/log.h"
#include "support/text.h"

namespace kvt {

namespace {

constexpr int kListenSlots = 5;
constexpr int kBacklog = 5;
constexpr int kMaxAddresses = 32;  // more than any pass can use: only 5 slots exist
constexpr int kExhaustedPauseMs = 100;

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

// A descriptor held back for the moment the process has no other: see ShedPending.
net::Socket spare = net::kNoSocket;

// Out of descriptors or buffers, accept fails but leaves the connection queued, and the
// next wait returns at once: the listener would spin and log without end. Letting go of the
// spare gives the one descriptor that takes the connection off the queue and ends it, so
// that its client reads the end at once instead of waiting. Without a spare (a connection
// thread took it first), or when even that accept fails, a short pause keeps the listener
// from spinning until something is freed.
void ShedPending(net::Socket listener) {
  bool shed = false;
  if (spare != net::kNoSocket) {
    net::Close(spare);
    net::Socket pending = net::Accept(listener);
    if (pending != net::kNoSocket) net::Refuse(pending), shed = true;
    spare = net::OpenSpare();
  }
  if (!shed) thread::SleepMilliseconds(kExhaustedPauseMs);
}

void AcceptOne(net::Socket listener) {
  bool exhausted = false;
  net::Socket client = net::Accept(listener, &exhausted);
  if (client == net::kNoSocket) {
    // Any other failure (a client that reset before it was taken) has left the queue.
    LogWrite(kLogTag, "accept failed");
    if (exhausted) ShedPending(listener);
    return;
  }
  LogWrite(kLogTag, "Socket ID");
  // Without a record or a thread the connection cannot be served: end it and go on.
  auto* record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
  if (record == nullptr) return net::Refuse(client);
  record->socket = client;
  if (!StartThread(ServeConnection, record)) {
    std::free(record);
    net::Refuse(client);
  }
}

}  // namespace

int RunListener() {
  SetFolder(SpoolFolder, "%s/Corvina/spool");
  SetFolder(GamutFolder, "%s/Corvina/gamut");
  process::RaiseDescriptorLimit();
  SetBodyBudget(std::getenv(kBodyBudgetVariable));

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
    if (spare == net::kNoSocket) spare = net::OpenSpare();  // lost to a thread's open
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
