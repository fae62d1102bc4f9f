// The servers kvtweb watches and the poller: one background poll per server per interval,
// each on a thread of its own with its own time-out, so that a dead server delays nobody.
// Pages, API calls and scrapes only read the latest results (Fleet::Snapshot): the load on a
// print server does not depend on how many people look.
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "client/print_client.h"

namespace kvtweb {

using Clock = std::chrono::steady_clock;

struct ServerEntry {
  std::string host;
  std::uint16_t port = 0;
  std::string label;  // empty: none given
  // "HOST:PORT" ("[V6]:PORT"): the server's name in links, JSON and metrics.
  std::string address() const;
};

// "HOST", "HOST:PORT", "[V6]" or "[V6]:PORT".
bool SplitHostPort(const std::string& text, int defaultPort, std::string* host, int* port);

// The servers file: one "HOST[:PORT] [LABEL]" a line, "#" starts a comment. Empty on
// success, else what is wrong and where; *servers is then left as it was.
std::string ParseServers(const std::string& text, std::vector<ServerEntry>* servers);
// Adds `entry` unless its address is listed already; false then.
bool AddServer(std::vector<ServerEntry>& servers, ServerEntry entry);

// What the last poll of a server found. Published whole and never changed afterwards, so
// that readers share it without a lock.
struct PollResult {
  bool polled = false;     // false until the first poll has ended
  bool reachable = false;  // the last poll opened the connection and listed the jobs
  std::string error;       // why it did not
  double roundTripMs = 0;  // of the last good poll's opening
  std::int64_t lastGoodTime = 0;  // seconds since 1970; 0: none yet
  Clock::time_point lastGood{};
  // The last good poll's listing, kept while the server does not answer.
  std::shared_ptr<const std::vector<kvt::client::JobEntry>> listing;
  std::uint64_t polls = 0, failures = 0;
};

struct ServerView {
  ServerEntry entry;
  std::shared_ptr<const PollResult> result;
  // A poll that has run longer than the time-out: a name lookup or a connection that hangs.
  // The server counts as unreachable even before the poll gives up.
  bool overdue = false;
  bool reachable() const { return result->reachable && !overdue; }
};

class Fleet {
 public:
  Fleet(int intervalMs, int timeoutMs) : intervalMs_(intervalMs), timeoutMs_(timeoutMs) {}
  ~Fleet();
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;

  // Watches exactly these servers: pollers of servers still listed keep their results,
  // new ones start polling at once, the others stop.
  void Watch(const std::vector<ServerEntry>& servers);
  // In list order.
  std::vector<ServerView> Snapshot() const;
  // Polls that server again now (after a cancel), not waiting for the interval.
  void PollSoon(const std::string& address);
  int intervalMs() const { return intervalMs_; }
  int timeoutMs() const { return timeoutMs_; }

  struct Watcher;

 private:
  const int intervalMs_, timeoutMs_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<Watcher>> watchers_;
};

}  // namespace kvtweb
