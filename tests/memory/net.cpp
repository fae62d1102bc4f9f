// Sockets of the in-memory machine: each connection is two ends, each with the bytes that
// arrived at it. A receive waits for bytes or for the peer's end (with the time-out set on the
// socket); a send never waits. Listening sockets hand out the connections queued for them.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

#include "memory.h"
#include "platform/net.h"

namespace kvt {
namespace {

struct End {
  std::string inbox;
  std::size_t read = 0;         // of the inbox
  net::Socket peer = net::kNoSocket;
  bool peerDone = false;        // the peer sends nothing more
  bool closed = false;
  bool connection = false;      // made by Connect or Accept, not a listener or a spare
  bool discard = false;
  std::size_t receiveLimit = 0;
  std::size_t acceptable = SIZE_MAX;  // bytes still taken before the peer's sends fail
  int timeoutMs = 0;
  std::string listening;        // "a.b.c.d:port" of a listener
};

std::mutex lock;
std::condition_variable arrived;
std::map<net::Socket, End> ends;
net::Socket nextSocket = 1000;  // never reused, not even across Reset
// What Reset forgets besides the ends.
struct Script {
  std::deque<net::Socket> acceptQueue, offered;
  std::vector<std::uint32_t> hostAddresses;
  int failingAccepts = 0;
  bool acceptsExhausted = false;
} script;

// A connection's end when it has a peer, else a listener's (with its address) or a spare.
net::Socket NewEnd(net::Socket peer = net::kNoSocket, const std::string& listening = "") {
  End& end = ends[nextSocket];
  end.peer = peer;
  end.connection = peer != net::kNoSocket;
  end.listening = listening;
  return nextSocket++;
}

End* Find(net::Socket s) {
  auto end = ends.find(s);
  return end == ends.end() ? nullptr : &end->second;
}

// Runs `step` under the lock.
template <class Step>
auto Locked(Step step) {
  std::lock_guard guard(lock);
  return step();
}

// Changes the end of `socket`, if there is one.
template <class Change>
bool Set(net::Socket socket, Change change) {
  std::lock_guard guard(lock);
  End* e = Find(socket);
  if (e != nullptr) change(*e);
  return e != nullptr;
}

// Moves bytes from `from` to its peer; the number taken, or -1 when the peer is gone.
int Deliver(End& from, const char* bytes, std::size_t count) {
  End* to = Find(from.peer);
  if (from.closed || to == nullptr || to->closed || to->acceptable == 0) return -1;
  count = std::min(count, to->acceptable);
  if (to->acceptable != SIZE_MAX) to->acceptable -= count;
  if (!to->discard) to->inbox.append(bytes, count);
  arrived.notify_all();
  return static_cast<int>(count);
}

}  // namespace

namespace memory {

void internal::ResetSockets() {
  std::lock_guard guard(lock);
  ends.clear();
  script = {};
}

Pair Connect() {
  std::lock_guard guard(lock);
  const net::Socket client = NewEnd(nextSocket + 1);  // its peer is the end made next
  return {client, NewEnd(client)};
}

void Write(net::Socket end, std::string_view bytes, bool shut) {
  Set(end, [&](End& from) {
    Deliver(from, bytes.data(), bytes.size());
    if (End* to = shut ? Find(from.peer) : nullptr) to->peerDone = true;
    arrived.notify_all();
  });
}

void Discard(net::Socket end) { Set(end, [](End& e) { e.discard = true; }); }
void LimitReceives(net::Socket end, std::size_t n) {
  Set(end, [=](End& e) { e.receiveLimit = n; });
}
void BreakAfter(net::Socket end, std::size_t n) { Set(end, [=](End& e) { e.acceptable = n; }); }

int OpenSockets() {
  std::lock_guard guard(lock);
  return static_cast<int>(std::count_if(ends.begin(), ends.end(), [](const auto& e) {
    return e.second.connection && !e.second.closed;
  }));
}

void QueueForAccept(net::Socket end) { Locked([=] { script.acceptQueue.push_back(end); }); }

void FailAccepts(int count, bool exhausted) {
  std::lock_guard guard(lock);
  script.failingAccepts = count;
  script.acceptsExhausted = exhausted;
}

void SetHostAddresses(const std::vector<std::uint32_t>& addresses) {
  Locked([&] { script.hostAddresses = addresses; });
}

void OfferConnection(net::Socket end) { Locked([=] { script.offered.push_back(end); }); }

}  // namespace memory

namespace net {

int Startup() { return 0; }

int Recv(Socket s, void* buffer, int count) {
  std::unique_lock guard(lock);
  End* e = Find(s);
  if (e == nullptr || e->closed || count < 0) return -1;
  auto ready = [&] {
    End* peer = Find(e->peer);
    return e->read < e->inbox.size() || e->peerDone || peer == nullptr || peer->closed;
  };
  if (e->timeoutMs > 0) {
    if (!arrived.wait_for(guard, std::chrono::milliseconds(e->timeoutMs), ready)) return -1;
  } else {
    arrived.wait(guard, ready);  // no clock read: the fuzzer receives byte by byte
  }
  std::size_t n = std::min(static_cast<std::size_t>(count), e->inbox.size() - e->read);
  if (e->receiveLimit > 0) n = std::min(n, e->receiveLimit);
  std::memcpy(buffer, e->inbox.data() + e->read, n);
  e->read += n;
  if (e->read == e->inbox.size()) e->inbox.clear(), e->read = 0;
  return static_cast<int>(n);
}

int Send(Socket s, const void* buffer, int count) {
  std::lock_guard guard(lock);
  End* e = Find(s);
  if (e == nullptr || count < 0) return -1;
  return Deliver(*e, static_cast<const char*>(buffer), static_cast<std::size_t>(count));
}

void Close(Socket s) {
  std::lock_guard guard(lock);
  End* e = Find(s);
  if (e == nullptr) return;
  e->closed = true;
  if (End* peer = Find(e->peer)) peer->peerDone = true;
  if (!e->listening.empty()) ends.erase(s);
  arrived.notify_all();
}

int GetHostName(char* name, int size) {
  return std::snprintf(name, static_cast<std::size_t>(size), "memhost") < size ? 0 : -1;
}

int ResolveIPv4(const char* name, std::uint8_t (*addresses)[4], int max) {
  std::lock_guard guard(lock);
  std::vector<std::uint32_t> found;
  if (std::strcmp(name, "localhost") == 0) found = {0x7F000001};
  if (std::strcmp(name, "memhost") == 0) found = script.hostAddresses;
  int count = 0;
  for (; count < max && count < static_cast<int>(found.size()); ++count)
    for (int i = 0; i < 4; ++i) addresses[count][i] = std::uint8_t(found[count] >> (24 - 8 * i));
  return count;
}

Socket OpenListener(const std::uint8_t addr[4], std::uint16_t port, int) {
  char text[24];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", addr[0], addr[1], addr[2], addr[3], port);
  std::lock_guard guard(lock);
  for (const auto& [socket, end] : ends)
    if (end.listening == text) return kNoSocket;  // the address is taken
  return NewEnd(kNoSocket, text);
}

int WaitReadable(const Socket*, int count, bool* ready) {
  std::lock_guard guard(lock);
  if (count <= 0 || (script.acceptQueue.empty() && script.failingAccepts == 0)) return -1;
  for (int i = 0; i < count; ++i) ready[i] = i == 0;
  return 1;
}

Socket Accept(Socket, bool* exhausted) {
  std::lock_guard guard(lock);
  const bool fails = script.failingAccepts > 0;
  if (fails) --script.failingAccepts;
  if (exhausted != nullptr) *exhausted = fails && script.acceptsExhausted;
  // Out of descriptors the connection stays queued; any other failure takes it away.
  if ((fails && script.acceptsExhausted) || script.acceptQueue.empty()) return kNoSocket;
  const Socket s = script.acceptQueue.front();
  script.acceptQueue.pop_front();
  if (!fails) return s;
  End& gone = ends[s];
  gone.closed = true;
  if (End* client = Find(gone.peer)) client->peerDone = true;
  return kNoSocket;
}

Socket OpenSpare() { return Locked([] { return NewEnd(); }); }

void Refuse(Socket s) { Close(s); }

Socket Connect(const char*, std::uint16_t, int* error) {
  std::lock_guard guard(lock);
  *error = script.offered.empty() ? 111 : 0;  // ECONNREFUSED
  if (script.offered.empty()) return kNoSocket;
  const Socket s = script.offered.front();
  script.offered.pop_front();
  return s;
}

bool SetRecvTimeout(Socket socket, int milliseconds) {
  return Set(socket, [=](End& e) { e.timeoutMs = milliseconds; });
}

const char* ErrorText(int error, char* buffer, std::size_t size) {
  std::snprintf(buffer, size, "%s", error == 111 ? "Connection refused" : std::strerror(error));
  return buffer;
}

}  // namespace net

}  // namespace kvt
