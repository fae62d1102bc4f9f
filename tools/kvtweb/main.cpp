// kvtweb: the operator's view of KVTnetd servers. A separate program: it polls each server
// over the wire protocol, like kvtctl, and serves the fleet page, each server's page, their
// JSON and Prometheus metrics over HTTP.
//   kvtweb [--server HOST[:PORT]]... [--servers FILE] [--listen ADDR:PORT]
//          [--allow-host NAME]... [--interval S] [--timeout S]
// The parts: fleet.h (the servers and their pollers), render.h (the documents and metrics
// from a snapshot), http.h (the HTTP front), assets.h (the page).
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "client/client.h"
#include "fleet.h"
#include "http.h"
#include "platform/entropy.h"
#include "platform/net.h"
#include "signals.h"

namespace {

namespace client = kvt::client;
using namespace kvtweb;

constexpr int kDefaultListenPort = 51480;

struct Options {
  std::vector<ServerEntry> servers;  // from --server
  std::string serversFile;
  WebOptions web;
  int timeoutMs = 5000;
  int intervalMs = 3000;
};

int Fail(const std::string& reason) {
  std::fprintf(stderr, "kvtweb: %s\n", reason.c_str());
  return 1;
}

// The page's token, 160 bits from the system's generator; false when it has none to give:
// a guessable token would let any page in the browser cancel jobs, so none is made up.
bool MakeToken(std::string& token) {
  static const char kHex[] = "0123456789abcdef";
  unsigned char bytes[20];
  if (!kvt::entropy::Secret(bytes, sizeof bytes)) return false;
  token.clear();
  for (unsigned char b : bytes) token += kHex[b >> 4], token += kHex[b & 15];
  return true;
}

// The servers to watch: those of --server, then those of the file. Empty on success.
std::string Servers(const Options& options, std::vector<ServerEntry>* servers) {
  std::vector<ServerEntry> all = options.servers;
  if (!options.serversFile.empty()) {
    std::ifstream file(options.serversFile, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf()))
      return "cannot read the servers file " + options.serversFile;
    std::vector<ServerEntry> listed;
    const std::string error = ParseServers(text.str(), &listed);
    if (!error.empty()) return options.serversFile + ", " + error;
    for (ServerEntry& entry : listed)
      if (!AddServer(all, std::move(entry)))
        return options.serversFile + " lists a server that --server names already";
  }
  if (all.empty()) all.push_back({"127.0.0.1", client::kDefaultPort, ""});
  *servers = std::move(all);
  return {};
}

// Whole seconds from 1 to `max`, or 0.
int Seconds(const char* text, int max) {
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  return *text != '\0' && *end == '\0' && value >= 1 && value <= max ? static_cast<int>(value) : 0;
}

void Usage(std::FILE* out) {
  std::fprintf(out,
               "usage: kvtweb [--server HOST[:PORT]]... [--servers FILE] [--listen ADDR:PORT]\n"
               "              [--allow-host NAME]... [--interval S] [--timeout S]\n"
               "  --server HOST[:PORT]  a KVTnetd server to watch (repeatable; default\n"
               "                        127.0.0.1:%u when no server is named)\n"
               "  --servers FILE        more servers, one \"HOST[:PORT] [LABEL]\" a line; read\n"
               "                        again on SIGHUP\n"
               "  --listen ADDR:PORT    where to serve the page (default 127.0.0.1:%d)\n"
               "  --allow-host NAME     also answer requests for NAME (as the browser's\n"
               "                        address names this program; repeatable)\n"
               "  --interval S          seconds between two polls of a server (default 3)\n"
               "  --timeout S           seconds to wait for each answer of a server (default 5)\n"
               "  --version             print the version\n"
               "  --help                show this text\n",
               unsigned{client::kDefaultPort}, kDefaultListenPort);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.web.version = KVT_VERSION;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    ServerEntry entry;
    int port = 0;
    if (option == "--help" || option == "-h") {
      Usage(stdout);
      return 0;
    } else if (option == "--version") {
      std::printf("kvtweb %s\n", KVT_VERSION);
      return 0;
    } else if (option == "--server" && value != nullptr &&
               SplitHostPort(value, client::kDefaultPort, &entry.host, &port)) {
      entry.port = static_cast<std::uint16_t>(port);
      AddServer(options.servers, std::move(entry));
      ++i;
    } else if (option == "--servers" && value != nullptr && *value != '\0') {
      options.serversFile = value;
      ++i;
    } else if (option == "--listen" && value != nullptr &&
               SplitHostPort(value, kDefaultListenPort, &options.web.listenHost, &port)) {
      options.web.listenPort = port;
      ++i;
    } else if (option == "--allow-host" && value != nullptr && *value != '\0') {
      options.web.allowHosts.push_back(value);
      ++i;
    } else if (option == "--timeout" && value != nullptr && Seconds(value, 3600)) {
      options.timeoutMs = Seconds(value, 3600) * 1000;
      ++i;
    } else if (option == "--interval" && value != nullptr && Seconds(value, 3600)) {
      options.intervalMs = Seconds(value, 3600) * 1000;
      ++i;
    } else {
      Fail("unknown option, or a missing or bad value: " + option);
      Usage(stderr);
      return 1;
    }
  }
  std::vector<ServerEntry> servers;
  const std::string error = Servers(options, &servers);
  if (!error.empty()) return Fail(error);
  if (kvt::net::Startup() != 0) return Fail("cannot start the sockets library");
  if (!MakeToken(options.web.token))
    return Fail("the system's random source gave nothing for the page's token: not started");

  CatchSignals();
  Fleet fleet(options.intervalMs, options.timeoutMs);
  fleet.Watch(servers);
  Web web(options.web, fleet);
  std::string problem;
  if (!web.Start(&problem)) return Fail(problem);
  const std::string& host = options.web.listenHost;
  if (host != "localhost" && host.rfind("127.", 0) != 0)
    std::fprintf(stderr, "kvtweb: listening on %s, not on loopback only\n", host.c_str());
  std::printf("kvtweb: http://%s:%d/ watches %zu KVTnetd server%s (%s%s)\n", host.c_str(),
              options.web.listenPort, servers.size(), servers.size() == 1 ? "" : "s",
              servers.front().address().c_str(), servers.size() > 1 ? ", ..." : "");
  std::fflush(stdout);
  while (WaitForSignal() == Signal::kReload) {
    const std::string reload = Servers(options, &servers);
    if (!reload.empty()) {
      std::fprintf(stderr, "kvtweb: %s; still watching the servers as before\n", reload.c_str());
      continue;
    }
    fleet.Watch(servers);
    std::fprintf(stderr, "kvtweb: watching %zu servers\n", servers.size());
  }
  return 0;
}
