// kvtweb: the operator's status page for a KVTnetd server. A separate program: it talks to
// the server over the wire protocol, like kvtctl, and serves the page and its JSON over HTTP.
//   kvtweb [--server HOST[:PORT]] [--listen ADDR:PORT] [--allow-host NAME]... [--timeout S]
//
// Safe by default: it listens on loopback only unless told otherwise; it answers only
// requests whose Host names it and whose Origin, if any, is its own (so that neither another
// web site nor a rebound DNS name can use it); a state-changing request is a POST that must
// carry the token the page got from it; it never deletes or reaches anything by path.
#include <httplib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "assets.h"
#include "client/client.h"
#include "client/listing_json.h"
#include "client/print_client.h"
#include "platform/entropy.h"

namespace {

namespace client = kvt::client;
namespace json = kvt::client::json;

constexpr int kDefaultListenPort = 51480;
constexpr std::size_t kMaxBody = 1024;  // a cancel's form is a few dozen bytes
constexpr int kWorkers = 16;            // keep-alive connections each hold one while open

struct Options {
  std::string serverHost = "127.0.0.1";
  std::uint16_t serverPort = client::kDefaultPort;
  std::string listenHost = "127.0.0.1";
  int listenPort = kDefaultListenPort;
  std::vector<std::string> allowHosts;
  int timeoutMs = 5000;
};

int Fail(const std::string& reason) {
  std::fprintf(stderr, "kvtweb: %s\n", reason.c_str());
  return 1;
}

// "HOST", "HOST:PORT", "[V6]" or "[V6]:PORT".
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

std::string Lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

bool IsLoopback(const std::string& host) {
  return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
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

// Compares without stopping at the first difference, so that timing tells nothing.
bool SameSecret(const std::string& a, const std::string& b) {
  unsigned char differ = a.size() != b.size();
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
    differ |= static_cast<unsigned char>(a[i] ^ b[i]);
  return differ == 0;
}

class Web {
 public:
  Web(const Options& options, std::string token) : options_(options), token_(std::move(token)) {
    const std::string port = ":" + std::to_string(options.listenPort);
    const bool v6 = options.listenHost.find(':') != std::string::npos;
    hosts_.insert(Lower((v6 ? "[" + options.listenHost + "]" : options.listenHost) + port));
    if (IsLoopback(options.listenHost))
      for (const char* name : {"localhost", "127.0.0.1", "[::1]"}) hosts_.insert(name + port);
    for (const std::string& name : options.allowHosts) hosts_.insert(Lower(name + port));
    server_ = options.serverHost + ":" + std::to_string(options.serverPort);
  }

  void Install(httplib::Server& http) {
    http.new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };
    http.set_payload_max_length(kMaxBody);
    http.set_read_timeout(5);
    http.set_write_timeout(5);
    http.set_keep_alive_timeout(2);
    http.set_default_headers(
        {{"Content-Security-Policy",
          "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
          "img-src 'self'; form-action 'self'; frame-ancestors 'none'; base-uri 'none'"},
         {"X-Content-Type-Options", "nosniff"},
         {"X-Frame-Options", "DENY"},
         {"Referrer-Policy", "no-referrer"},
         {"Cache-Control", "no-store"}});
    http.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
      return Refused(req, res) ? httplib::Server::HandlerResponse::Handled
                               : httplib::Server::HandlerResponse::Unhandled;
    });
    // Answers the library makes itself (404, 400, 413, 414, ...) get a short text.
    http.set_error_handler([](const httplib::Request&, httplib::Response& res) {
      if (res.body.empty())
        res.set_content(json::Error("HTTP " + std::to_string(res.status)), "application/json");
    });
    http.set_exception_handler([](const httplib::Request&, httplib::Response& res,
                                  std::exception_ptr) {
      res.status = 500;
      res.set_content(json::Error("internal error"), "application/json");
    });

    http.Get("/", [this](const httplib::Request&, httplib::Response& res) {
      Page(res, "overview", "Overview", kvtweb::kOverviewBody);
    });
    http.Get("/configs", [this](const httplib::Request&, httplib::Response& res) {
      Page(res, "configs", "Configurations", kvtweb::kConfigsBody);
    });
    http.Get("/app.css", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(kvtweb::kStyle, "text/css; charset=utf-8");
    });
    http.Get("/app.js", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(kvtweb::kScript, "text/javascript; charset=utf-8");
    });
    http.Get("/api/ping", [this](const httplib::Request&, httplib::Response& res) { Ping(res); });
    http.Get("/api/jobs", [this](const httplib::Request&, httplib::Response& res) { Jobs(res); });
    http.Get("/api/overview",
             [this](const httplib::Request&, httplib::Response& res) { Overview(res); });
    http.Get("/api/configs",
             [this](const httplib::Request& req, httplib::Response& res) { Configs(req, res); });
    http.Post("/api/cancel",
              [this](const httplib::Request& req, httplib::Response& res) { Cancel(req, res); });
  }

 private:
  static void Answer(httplib::Response& res, int status, const std::string& body) {
    res.status = status;
    res.set_content(body, "application/json");
  }

  // The rules every request passes before it is routed; true when it was refused.
  bool Refused(const httplib::Request& req, httplib::Response& res) const {
    const std::string host = Lower(req.get_header_value("Host"));
    if (!hosts_.count(host)) {
      Answer(res, 421, json::Error("this server does not answer for the host " + host));
      return true;
    }
    const std::string origin = Lower(req.get_header_value("Origin"));
    if (req.has_header("Origin") && origin != "http://" + host) {
      Answer(res, 403, json::Error("requests from another site are refused"));
      return true;
    }
    if (req.get_header_value("Sec-Fetch-Site") == "cross-site") {
      Answer(res, 403, json::Error("requests from another site are refused"));
      return true;
    }
    if (req.method == "GET" || req.method == "HEAD") return false;
    if (req.method != "POST") {
      Answer(res, 405, json::Error("method not allowed"));
      return true;
    }
    if (!SameSecret(req.get_header_value("X-KVT-Token"), token_)) {
      Answer(res, 403, json::Error("missing or wrong token: reload the page"));
      return true;
    }
    return false;
  }

  void Page(httplib::Response& res, const char* page, const char* title, const char* body) const {
    std::string html = kvtweb::kPageTemplate;
    auto put = [&html](const std::string& mark, const std::string& text) {
      const std::size_t at = html.find(mark);
      if (at != std::string::npos) html.replace(at, mark.size(), text);
    };
    const bool overview = std::strcmp(page, "overview") == 0;
    put("@TOKEN@", token_);
    put("@TITLE@", title);
    put("@PAGE@", page);
    put("@OVERVIEW@", overview ? "aria-current=\"page\"" : "");
    put("@CONFIGS@", overview ? "" : "aria-current=\"page\"");
    put("@BODY@", body);
    res.set_content(html, "text/html; charset=utf-8");
  }

  // Connects and does the opening exchange; the error, or empty.
  std::string Open(client::Connection& connection, double* ms) const {
    connection.SetTimeout(options_.timeoutMs);
    return json::OpenTimed(connection, options_.serverHost, options_.serverPort,
                           client::ByteOrder::kLittle, ms);
  }

  void Ping(httplib::Response& res) const {
    client::Connection connection;
    double ms = 0;
    std::string error = Open(connection, &ms);
    if (error.empty() && !connection.SendClose()) error = connection.error();
    Answer(res, error.empty() ? 200 : 502,
           json::Ping(server_, client::ByteOrder::kLittle, ms, error));
  }

  // The job listing's records on a connection of its own (closed again), with the round trip
  // of its opening; none, with *error, when the server could not be reached or failed.
  std::optional<std::string> Listing(double* ms, std::string* error) const {
    client::Connection connection;
    std::optional<std::string> records;
    *error = Open(connection, ms);
    if (error->empty() && (records = client::ListJobRecords(connection, error)))
      connection.SendClose();
    return records;
  }

  void Jobs(httplib::Response& res) const {
    double ms = 0;
    std::string error;
    const std::optional<std::string> records = Listing(&ms, &error);
    if (!records) return Answer(res, 502, json::Error(error));
    Answer(res, 200, json::Jobs(*records));
  }

  // The page's one request: reachability, round trip and the listing, on one connection.
  void Overview(httplib::Response& res) const {
    double ms = 0;
    std::string error;
    const std::optional<std::string> records = Listing(&ms, &error);
    Answer(res, 200,
           "{\"server\":" + json::Ping(server_, client::ByteOrder::kLittle, ms, error) +
               ",\"listing\":" + (records ? json::Jobs(*records) : "null") + "}");
  }

  // A sub-folder of the gamut folder, by its name only: no path leads anywhere else.
  static bool PlainFolderName(const std::string& name) {
    if (name.empty() || name.size() > 79 || name == "." || name == "..") return false;
    return std::none_of(name.begin(), name.end(), [](char c) {
      return static_cast<unsigned char>(c) < 0x20 || c == '/' || c == '\\' || c == ':' ||
             c == 0x7F;
    });
  }

  void Configs(const httplib::Request& req, httplib::Response& res) const {
    const std::string folder = req.get_param_value("folder");
    if (!PlainFolderName(folder))
      return Answer(res, 400,
                    json::Error("a gamut folder is a plain name of 1 to 79 characters"));
    client::Connection connection;
    double ms = 0;
    std::string error = Open(connection, &ms);
    std::optional<std::vector<client::ConfigRecord>> records;
    if (error.empty()) {
      if ((records = connection.ListConfigs(folder)))
        connection.SendClose();
      else
        error = connection.error();
    }
    if (!records) return Answer(res, 502, json::Error(error));
    Answer(res, 200, json::Configs(folder, *records));
  }

  // Cancels a spooler job "*P-J" that a listing on the same connection shows (the server
  // resolves the reference against that listing's printer table), then lists again to tell
  // whether it is gone. Spool files are not deleted from here.
  void Cancel(const httplib::Request& req, httplib::Response& res) const {
    const std::string job = req.get_param_value("job");
    const bool reference = job.size() >= 4 && job.size() < 16 && job[0] == '*' &&
                           std::all_of(job.begin() + 1, job.end(),
                                       [](char c) { return (c >= '0' && c <= '9') || c == '-'; });
    if (!reference) return Answer(res, 400, json::Error("job: a reference *P-J from the listing"));
    client::Connection connection;
    double ms = 0;
    std::string error = Open(connection, &ms);
    auto listed = [&] { return client::ListsJob(connection, job, &error); };
    std::optional<bool> before, after;
    std::optional<std::uint8_t> answer;
    if (!error.empty() || !(before = listed())) return Answer(res, 502, json::Error(error));
    if (!*before) return Answer(res, 404, json::Error("job " + job + " is not listed"));
    if (!(answer = client::CancelJobOrSpoolFile(connection, job)) || !(after = listed()))
      return Answer(res, 502, json::Error(connection.error()));
    connection.SendClose();
    Answer(res, 200,
           "{\"reference\":" + json::Quote(job) + ",\"answer\":" + std::to_string(*answer) +
               ",\"gone\":" + (*after ? "false" : "true") + "}");
  }

  const Options& options_;
  const std::string token_;
  std::set<std::string> hosts_;
  std::string server_;
};

void Usage(std::FILE* out) {
  std::fprintf(out,
               "usage: kvtweb [--server HOST[:PORT]] [--listen ADDR:PORT] [--allow-host NAME]... "
               "[--timeout S]\n"
               "  --server HOST[:PORT]  the KVTnetd server (default 127.0.0.1:%u)\n"
               "  --listen ADDR:PORT    where to serve the page (default 127.0.0.1:%d)\n"
               "  --allow-host NAME     also answer requests for NAME (as the browser's\n"
               "                        address names this program; repeatable)\n"
               "  --timeout S           seconds to wait for each answer of the server (default 5)\n"
               "  --help                show this text\n",
               unsigned{client::kDefaultPort}, kDefaultListenPort);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    int port = 0;
    if (option == "--help" || option == "-h") {
      Usage(stdout);
      return 0;
    } else if (option == "--server" && value != nullptr &&
               SplitHostPort(value, client::kDefaultPort, &options.serverHost, &port)) {
      options.serverPort = static_cast<std::uint16_t>(port);
      ++i;
    } else if (option == "--listen" && value != nullptr &&
               SplitHostPort(value, kDefaultListenPort, &options.listenHost, &port)) {
      options.listenPort = port;
      ++i;
    } else if (option == "--allow-host" && value != nullptr && *value != '\0') {
      options.allowHosts.push_back(value);
      ++i;
    } else if (option == "--timeout" && value != nullptr && std::atoi(value) >= 1 &&
               std::atoi(value) <= 3600) {
      options.timeoutMs = std::atoi(value) * 1000;
      ++i;
    } else {
      Fail("unknown option, or a missing or bad value: " + option);
      Usage(stderr);
      return 1;
    }
  }
  kvt::net::Startup();
  std::string token;
  if (!MakeToken(token))
    return Fail("the system's random source gave nothing for the page's token: not started");
  httplib::Server http;
  Web web(options, std::move(token));
  web.Install(http);
  if (!http.bind_to_port(options.listenHost, options.listenPort))
    return Fail("cannot listen on " + options.listenHost + ":" +
                std::to_string(options.listenPort));
  if (!IsLoopback(options.listenHost))
    std::fprintf(stderr, "kvtweb: listening on %s, not on loopback only\n",
                 options.listenHost.c_str());
  std::printf("kvtweb: http://%s:%d/ shows KVTnetd at %s:%u\n", options.listenHost.c_str(),
              options.listenPort, options.serverHost.c_str(), unsigned{options.serverPort});
  std::fflush(stdout);
  return http.listen_after_bind() ? 0 : 1;
}
