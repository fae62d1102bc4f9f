#include "fleet.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <system_error>

#include "client/client.h"
#include "client/listing_json.h"

namespace kvtweb {

namespace client = kvt::client;

std::string ServerEntry::address() const {
  const bool v6 = host.find(':') != std::string::npos;
  return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool SplitHostPort(const std::string& text, int defaultPort, std::string* host, int* port) {
  std::string rest;
  if (!text.empty() && text[0] == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string::npos || close == 1) return false;
    *host = text.substr(1, close - 1);
    rest = text.substr(close + 1);
  } else {
    const std::size_t colon = text.rfind(':');
    *host = text.substr(0, colon);
    rest = colon == std::string::npos ? "" : text.substr(colon);
  }
  if (host->empty()) return false;
  if (rest.empty()) {
    *port = defaultPort;
    return true;
  }
  if (rest[0] != ':' || rest.size() < 2 || rest.size() > 6) return false;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(rest.c_str() + 1, &end, 10);
  if (errno != 0 || *end != '\0' || rest[1] < '0' || rest[1] > '9' || value < 1 || value > 65535)
    return false;
  *port = static_cast<int>(value);
  return true;
}

bool AddServer(std::vector<ServerEntry>& servers, ServerEntry entry) {
  for (const ServerEntry& known : servers)
    if (known.address() == entry.address()) return false;
  servers.push_back(std::move(entry));
  return true;
}

std::string ParseServers(const std::string& text, std::vector<ServerEntry>* servers) {
  constexpr std::size_t kMaxServers = 1000, kMaxLabel = 100;
  std::vector<ServerEntry> parsed;
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    const std::string where = "line " + std::to_string(number) + ": ";
    line = line.substr(0, line.find('#'));
    for (char& c : line)
      if (c == '\t' || c == '\r') c = ' ';
    const std::size_t start = line.find_first_not_of(' ');
    if (start == std::string::npos) continue;
    const std::size_t end = line.find(' ', start);
    const std::string address = line.substr(start, end - start);
    std::string label;
    if (end != std::string::npos && line.find_first_not_of(' ', end) != std::string::npos)
      label = line.substr(line.find_first_not_of(' ', end),
                          line.find_last_not_of(' ') + 1 - line.find_first_not_of(' ', end));
    ServerEntry entry;
    int port = 0;
    if (!SplitHostPort(address, client::kDefaultPort, &entry.host, &port))
      return where + "not HOST[:PORT]: " + address;
    entry.port = static_cast<std::uint16_t>(port);
    for (char c : label)
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
        return where + "the label holds a control character";
    if (label.size() > kMaxLabel)
      return where + "the label is longer than " + std::to_string(kMaxLabel) + " bytes";
    entry.label = label;
    if (!AddServer(parsed, std::move(entry))) return where + address + " is listed twice";
    if (parsed.size() > kMaxServers)
      return where + "more than " + std::to_string(kMaxServers) + " servers";
  }
  if (parsed.empty()) return "no server listed";
  *servers = std::move(parsed);
  return {};
}

struct Fleet::Watcher {
  ServerEntry entry;  // the label may change on a reload; under the mutex
  std::mutex mutex;
  std::condition_variable wake;
  bool stop = false, soon = false;
  std::optional<Clock::time_point> pollStarted;
  std::shared_ptr<const PollResult> result = std::make_shared<PollResult>();
};

namespace {

// One poll on a connection of its own: the opening exchange (timed), the job listing, close.
std::shared_ptr<const PollResult> Poll(const ServerEntry& entry, const PollResult& before,
                                       int timeoutMs) {
  auto next = std::make_shared<PollResult>(before);
  next->polled = true;
  ++next->polls;
  client::Connection connection;
  connection.SetTimeout(timeoutMs);
  double ms = 0;
  std::string error = client::json::OpenTimed(connection, entry.host, entry.port,
                                              client::ByteOrder::kLittle, &ms);
  std::optional<std::string> records;
  if (error.empty() && (records = client::ListJobRecords(connection, &error)))
    connection.SendClose();
  next->reachable = records.has_value();
  if (records) {
    next->error.clear();
    next->roundTripMs = ms;
    next->lastGoodTime = std::time(nullptr);
    next->lastGood = Clock::now();
    next->listing = std::make_shared<const std::vector<client::JobEntry>>(
        client::json::ParseJobRecords(*records));
  } else {
    next->error = error;
    ++next->failures;
  }
  return next;
}

// A watcher's thread: a poll, then a wait for the rest of the interval (or a call to poll
// again now), until it is told to stop.
void Run(std::shared_ptr<Fleet::Watcher> watcher, std::chrono::milliseconds interval,
         int timeoutMs) {
  std::unique_lock<std::mutex> own(watcher->mutex);
  while (!watcher->stop) {
    const Clock::time_point start = Clock::now();
    watcher->pollStarted = start;
    const ServerEntry entry = watcher->entry;
    const std::shared_ptr<const PollResult> before = watcher->result;
    own.unlock();
    std::shared_ptr<const PollResult> after = Poll(entry, *before, timeoutMs);
    own.lock();
    watcher->result = std::move(after);
    watcher->pollStarted.reset();
    watcher->wake.wait_until(own, start + interval,
                             [&] { return watcher->stop || watcher->soon; });
    watcher->soon = false;
  }
}

}  // namespace

void Fleet::Watch(const std::vector<ServerEntry>& servers) {
  std::vector<std::shared_ptr<Watcher>> next;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const ServerEntry& entry : servers) {
    std::shared_ptr<Watcher> watcher;
    for (const auto& known : watchers_)
      if (known->entry.address() == entry.address() && !known->stop) watcher = known;
    if (watcher) {
      std::lock_guard<std::mutex> own(watcher->mutex);
      watcher->entry.label = entry.label;
    } else {
      watcher = std::make_shared<Watcher>();
      watcher->entry = entry;
      // Detached, holding its watcher: a poll stuck in a connection attempt (which has no
      // time-out of its own) never holds up a reload or the end of the program.
      try {
        std::thread(Run, watcher, std::chrono::milliseconds(intervalMs_), timeoutMs_).detach();
      } catch (const std::system_error&) {  // out of threads: shown, tried again at a reload
        auto failed = std::make_shared<PollResult>();
        failed->polled = true;
        failed->error = "kvtweb could not start a thread to poll it";
        watcher->result = std::move(failed);
        watcher->stop = true;
      }
    }
    next.push_back(std::move(watcher));
  }
  for (const auto& old : watchers_) {
    if (std::find(next.begin(), next.end(), old) != next.end()) continue;
    std::lock_guard<std::mutex> own(old->mutex);
    old->stop = true;
    old->wake.notify_all();
  }
  watchers_ = std::move(next);
}

std::vector<ServerView> Fleet::Snapshot() const {
  std::vector<ServerView> views;
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  views.reserve(watchers_.size());
  for (const auto& watcher : watchers_) {
    std::lock_guard<std::mutex> own(watcher->mutex);
    ServerView view{watcher->entry, watcher->result, false};
    view.overdue = watcher->pollStarted &&
                   now - *watcher->pollStarted > std::chrono::milliseconds(timeoutMs_);
    views.push_back(std::move(view));
  }
  return views;
}

void Fleet::PollSoon(const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& watcher : watchers_) {
    if (watcher->entry.address() != address) continue;
    std::lock_guard<std::mutex> own(watcher->mutex);
    watcher->soon = true;
    watcher->wake.notify_all();
  }
}

Fleet::~Fleet() { Watch({}); }

}  // namespace kvtweb
