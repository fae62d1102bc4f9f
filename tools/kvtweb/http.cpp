#include "http.h"

#include <microhttpd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <variant>

#include "assets.h"
#include "client/client.h"
#include "client/print_client.h"
#include "platform/net.h"
#include "render.h"

namespace kvtweb {

namespace client = kvt::client;
namespace json = kvt::client::json;

namespace {

constexpr std::size_t kMaxBody = 1024;  // a cancel's form is a few dozen bytes
// Each connection's buffer for its request head (and a small body): a longer request line
// is answered 414, longer headers 431.
constexpr std::size_t kConnectionMemory = 16 * 1024;
constexpr unsigned kMaxConnections = 512, kMaxPerAddress = 64, kIdleSeconds = 10;
constexpr int kWorkers = 4;
constexpr std::size_t kMaxWaiting = 64;  // requests waiting for a worker; more: 503

std::string Lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

bool IsLoopback(const std::string& host) {
  return host == "localhost" || host.rfind("127.", 0) == 0;
}

// Compares without stopping at the first difference, so that timing tells nothing.
bool SameSecret(const std::string& a, const std::string& b) {
  unsigned char differ = a.size() != b.size();
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
    differ |= static_cast<unsigned char>(a[i] ^ b[i]);
  return differ == 0;
}

struct Answer {
  int status = 200;
  std::string type = "application/json";
  std::string body;
};

Answer JsonAnswer(int status, const Json& document) {
  return {status, "application/json", json::Dump(document)};
}

Answer ErrorAnswer(int status, const std::string& text) {
  return JsonAnswer(status, json::Error(text));
}

// A small pool of threads for the requests that talk to a server.
class Workers {
 public:
  Workers() {
    for (int i = 0; i < kWorkers; ++i) threads_.emplace_back([this] { Run(); });
  }
  ~Workers() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    for (std::thread& t : threads_) t.join();
  }
  bool Add(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.size() >= kMaxWaiting) return false;
    queue_.push_back(std::move(task));
    wake_.notify_one();
    return true;
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stop_ || !queue_.empty(); });
      if (queue_.empty()) return;
      std::function<void()> task = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_;
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

// One request's state across the library's calls of the handler.
struct Request {
  std::string method, url;
  std::map<std::string, std::string> form;
  MHD_PostProcessor* post = nullptr;
  std::size_t bodyBytes = 0;
  bool waiting = false, done = false, delivered = false;
  Answer answer;
  ~Request() {
    if (post != nullptr) MHD_destroy_post_processor(post);
  }
};

MHD_Result Field(void* cls, MHD_ValueKind, const char* key, const char*, const char*,
                 const char*, const char* data, uint64_t, size_t size) {
  auto* request = static_cast<Request*>(cls);
  if (request->form.size() < 8) request->form[key].append(data, size);
  return MHD_YES;
}

}  // namespace

struct Web::Impl {
  WebOptions options;
  Fleet& fleet;
  std::set<std::string> hosts;
  MHD_Daemon* daemon = nullptr;
  std::unique_ptr<Workers> workers;
  // The library must not be stopped while a request is suspended: the end waits for these.
  std::atomic<int> suspended{0};
  std::atomic<bool> stopping{false};

  Impl(const WebOptions& o, Fleet& f) : options(o), fleet(f) {
    const std::string port = ":" + std::to_string(o.listenPort);
    hosts.insert(Lower(o.listenHost + port));
    if (IsLoopback(o.listenHost))
      for (const char* name : {"localhost", "127.0.0.1"}) hosts.insert(name + port);
    for (const std::string& name : o.allowHosts) hosts.insert(Lower(name + port));
  }

  static std::string Header(MHD_Connection* c, const char* name) {
    const char* value = MHD_lookup_connection_value(c, MHD_HEADER_KIND, name);
    return value ? value : "";
  }
  static bool HasHeader(MHD_Connection* c, const char* name) {
    return MHD_lookup_connection_value(c, MHD_HEADER_KIND, name) != nullptr;
  }
  static std::string Param(MHD_Connection* c, const char* name) {
    const char* value = MHD_lookup_connection_value(c, MHD_GET_ARGUMENT_KIND, name);
    return value ? value : "";
  }

  static MHD_Result Send(MHD_Connection* c, const Answer& answer) {
    MHD_Response* response = MHD_create_response_from_buffer(
        answer.body.size(), const_cast<char*>(answer.body.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    const std::pair<const char*, const char*> headers[] = {
        {"Content-Type", answer.type.c_str()},
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
         "img-src 'self'; form-action 'self'; frame-ancestors 'none'; base-uri 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Cache-Control", "no-store"}};
    for (const auto& [name, value] : headers) MHD_add_response_header(response, name, value);
    const MHD_Result queued = MHD_queue_response(c, static_cast<unsigned>(answer.status), response);
    MHD_destroy_response(response);
    return queued;
  }

  // The rules every request passes before it is routed; an answer when it was refused.
  std::optional<Answer> Refused(MHD_Connection* c, const std::string& method) const {
    const std::string host = Lower(Header(c, "Host"));
    if (!hosts.count(host))
      return ErrorAnswer(421, "this server does not answer for the host " + host);
    if (HasHeader(c, "Origin") && Lower(Header(c, "Origin")) != "http://" + host)
      return ErrorAnswer(403, "requests from another site are refused");
    if (Header(c, "Sec-Fetch-Site") == "cross-site")
      return ErrorAnswer(403, "requests from another site are refused");
    if (method == "GET" || method == "HEAD") return std::nullopt;
    if (method != "POST") return ErrorAnswer(405, "method not allowed");
    if (!SameSecret(Header(c, "X-KVT-Token"), options.token))
      return ErrorAnswer(403, "missing or wrong token: reload the page");
    const std::string length = Header(c, "Content-Length");
    if (length.size() > 6 ||
        (!length.empty() && std::strtoul(length.c_str(), nullptr, 10) > kMaxBody))
      return ErrorAnswer(413, "the body is over " + std::to_string(kMaxBody) + " bytes");
    return std::nullopt;
  }

  Answer Page(const char* page, const char* title, const char* body, bool fleetPage) const {
    std::string html = kPageTemplate;
    auto put = [&html](const std::string& mark, const std::string& text) {
      const std::size_t at = html.find(mark);
      if (at != std::string::npos) html.replace(at, mark.size(), text);
    };
    // With several servers "/" is the fleet, and a server's overview is /server?server=...
    const bool many = fleetPage || fleet.Snapshot().size() > 1;
    put("@TOKEN@", options.token);
    put("@TITLE@", title);
    put("@PAGE@", page);
    put("@NAV@", std::string(many ? "<a href=\"/\" data-nav=\"fleet\">Fleet</a> " : "") +
                     "<a href=\"" + (many ? "/server" : "/") +
                     "\" data-nav=\"overview\">Overview</a> " +
                     "<a href=\"/configs\" data-nav=\"configs\">Configurations</a>");
    put("@BODY@", body);
    return {200, "text/html; charset=utf-8", html};
  }

  // The server a request names with ?server=HOST:PORT (the form's field for a POST), or
  // the first listed one when it names none.
  std::optional<ServerView> Named(const std::string& address) const {
    std::vector<ServerView> views = fleet.Snapshot();
    if (views.empty()) return std::nullopt;
    if (address.empty()) return views.front();
    for (ServerView& view : views)
      if (view.entry.address() == address) return std::move(view);
    return std::nullopt;
  }

  // Answers at once from the snapshot; empty for a request that must talk to a server.
  std::optional<Answer> Route(MHD_Connection* c, const Request& r) const {
    const std::string& url = r.url;
    if (r.method == "POST") {
      if (url == "/api/cancel") return std::nullopt;
      return ErrorAnswer(404, "HTTP 404");
    }
    if (url == "/") {
      const bool one = fleet.Snapshot().size() == 1;
      return one ? Page("overview", "Overview", kOverviewBody, false)
                 : Page("fleet", "Fleet", kFleetBody, true);
    }
    if (url == "/server") return Page("overview", "Overview", kOverviewBody, false);
    if (url == "/configs") return Page("configs", "Configurations", kConfigsBody, false);
    if (url == "/app.css") return Answer{200, "text/css; charset=utf-8", kStyle};
    if (url == "/app.js") return Answer{200, "text/javascript; charset=utf-8", kScript};
    if (url == "/metrics")
      return Answer{200, "text/plain; version=0.0.4; charset=utf-8",
                    Metrics(fleet.Snapshot(), options.version)};
    if (url == "/api/fleet")
      return JsonAnswer(200, FleetDocument(fleet.Snapshot(), fleet.intervalMs(),
                                           fleet.timeoutMs()));
    if (url == "/api/configs") return std::nullopt;
    const bool ping = url == "/api/ping", jobs = url == "/api/jobs",
               overview = url == "/api/overview";
    if (!ping && !jobs && !overview) return ErrorAnswer(404, "HTTP 404");
    const std::optional<ServerView> view = Named(Param(c, "server"));
    if (!view) return ErrorAnswer(404, "kvtweb does not watch the server " + Param(c, "server"));
    if (overview)
      return JsonAnswer(200, OverviewDocument(*view, fleet.intervalMs(), fleet.timeoutMs()));
    if (ping) return JsonAnswer(view->reachable() ? 200 : 502,
                                PingDocument(*view, fleet.timeoutMs()));
    if (!view->reachable())
      return ErrorAnswer(502, PingDocument(*view, fleet.timeoutMs()).value("error", ""));
    return JsonAnswer(200, JobsDocument(*view));
  }

  // Connects to a server and does the opening exchange; the error, or empty.
  std::string Open(client::Connection& connection, const ServerEntry& entry) const {
    double ms = 0;
    connection.SetTimeout(fleet.timeoutMs());
    return json::OpenTimed(connection, entry.host, entry.port, client::ByteOrder::kLittle, &ms);
  }

  // A sub-folder of the gamut folder, by its name only: no path leads anywhere else.
  static bool PlainFolderName(const std::string& name) {
    if (name.empty() || name.size() > 79 || name == "." || name == "..") return false;
    return std::none_of(name.begin(), name.end(), [](char c) {
      return static_cast<unsigned char>(c) < 0x20 || c == '/' || c == '\\' || c == ':' ||
             c == 0x7F;
    });
  }

  Answer Configs(const ServerEntry& entry, const std::string& folder) const {
    client::Connection connection;
    std::string error = Open(connection, entry);
    std::optional<std::vector<client::ConfigRecord>> records;
    if (error.empty()) {
      if ((records = connection.ListConfigs(folder)))
        connection.SendClose();
      else
        error = connection.error();
    }
    if (!records) return ErrorAnswer(502, error);
    return JsonAnswer(200, json::Configs(folder, *records));
  }

  // Cancels a spooler job "*P-J" that a listing on the same connection shows (the server
  // resolves the reference against that listing's printer table), then lists again to tell
  // whether it is gone. Spool files are not deleted from here.
  Answer Cancel(const ServerEntry& entry, const std::string& job) const {
    client::Connection connection;
    std::string error = Open(connection, entry);
    auto listed = [&] { return client::ListsJob(connection, job, &error); };
    std::optional<bool> before, after;
    std::optional<std::uint8_t> answer;
    if (!error.empty() || !(before = listed())) return ErrorAnswer(502, error);
    if (!*before) return ErrorAnswer(404, "job " + job + " is not listed");
    if (!(answer = client::CancelJobOrSpoolFile(connection, job)) || !(after = listed()))
      return ErrorAnswer(502, connection.error());
    connection.SendClose();
    fleet.PollSoon(entry.address());
    return JsonAnswer(200, Json{{"reference", job}, {"answer", *answer}, {"gone", !*after}});
  }

  // The requests that talk to a server: checked here, done by a worker.
  std::variant<Answer, std::function<Answer()>> Work(MHD_Connection* c, const Request& r) const {
    const bool cancel = r.method == "POST";
    auto field = [&](const char* name) {
      if (!cancel) return Param(c, name);
      const auto at = r.form.find(name);
      return at == r.form.end() ? std::string() : at->second;
    };
    const std::optional<ServerView> view = Named(field("server"));
    if (!view) return ErrorAnswer(404, "kvtweb does not watch the server " + field("server"));
    const ServerEntry entry = view->entry;
    if (cancel) {
      const std::string job = field("job");
      const bool reference = job.size() >= 4 && job.size() < 16 && job[0] == '*' &&
                             std::all_of(job.begin() + 1, job.end(), [](char c) {
                               return (c >= '0' && c <= '9') || c == '-';
                             });
      if (!reference) return ErrorAnswer(400, "job: a reference *P-J from the listing");
      return std::function<Answer()>([this, entry, job] { return Cancel(entry, job); });
    }
    const std::string folder = field("folder");
    if (!PlainFolderName(folder))
      return ErrorAnswer(400, "a gamut folder is a plain name of 1 to 79 characters");
    return std::function<Answer()>([this, entry, folder] { return Configs(entry, folder); });
  }

  MHD_Result Handle(MHD_Connection* c, const char* url, const char* method,
                    const char* upload, size_t* uploadSize, void** context) {
    auto* r = static_cast<Request*>(*context);
    if (r == nullptr) {  // the head is in: check it before any body is read
      r = new Request;
      *context = r;
      r->method = method;
      r->url = url;
      if (const std::optional<Answer> refused = Refused(c, r->method)) return Send(c, *refused);
      if (r->method == "POST") r->post = MHD_create_post_processor(c, 512, Field, r);
      return MHD_YES;
    }
    if (*uploadSize != 0) {
      r->bodyBytes += *uploadSize;
      if (r->bodyBytes <= kMaxBody && r->post != nullptr)
        MHD_post_process(r->post, upload, *uploadSize);
      *uploadSize = 0;
      return MHD_YES;
    }
    if (r->done) {
      r->delivered = true;
      --suspended;
      return Send(c, r->answer);
    }
    if (r->waiting) return MHD_YES;
    if (r->bodyBytes > kMaxBody)
      return Send(c, ErrorAnswer(413, "the body is over " + std::to_string(kMaxBody) + " bytes"));
    if (const std::optional<Answer> answer = Route(c, *r)) return Send(c, *answer);
    auto work = Work(c, *r);
    if (const Answer* refused = std::get_if<Answer>(&work)) return Send(c, *refused);
    if (stopping) return Send(c, ErrorAnswer(503, "kvtweb is stopping"));
    r->waiting = true;
    ++suspended;
    MHD_suspend_connection(c);
    const bool queued = workers->Add([c, r, task = std::get<std::function<Answer()>>(work)] {
      r->answer = task();
      r->done = true;
      MHD_resume_connection(c);
    });
    if (!queued) {
      r->answer = ErrorAnswer(503, "kvtweb is busy: try again");
      r->done = true;
      MHD_resume_connection(c);
    }
    return MHD_YES;
  }
};

Web::Web(const WebOptions& options, Fleet& fleet) : impl_(new Impl(options, fleet)) {}

Web::~Web() {
  if (impl_->daemon == nullptr) return;
  const MHD_socket listener = MHD_quiesce_daemon(impl_->daemon);  // no new connections
  if (listener != MHD_INVALID_SOCKET) kvt::net::Close(static_cast<kvt::net::Socket>(listener));
  impl_->stopping = true;             // no new work for the workers
  impl_->workers.reset();             // the work there is done, its requests resumed
  // Resumed requests are answered on the event loop; wait (briefly) until they are.
  for (int i = 0; i < 200 && impl_->suspended > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  MHD_stop_daemon(impl_->daemon);
}

bool Web::Start(std::string* error) {
  std::uint8_t address[4];
  if (kvt::net::ResolveIPv4(impl_->options.listenHost.c_str(), &address, 1) != 1) {
    *error = "cannot find the IPv4 address of " + impl_->options.listenHost;
    return false;
  }
  const kvt::net::Socket listener = kvt::net::OpenListener(
      address, static_cast<std::uint16_t>(impl_->options.listenPort), 64);
  if (listener == kvt::net::kNoSocket) {
    *error = "cannot listen on " + impl_->options.listenHost + ":" +
             std::to_string(impl_->options.listenPort);
    return false;
  }
  try {
    impl_->workers = std::make_unique<Workers>();
  } catch (const std::system_error&) {
    kvt::net::Close(listener);
    *error = "cannot start the worker threads";
    return false;
  }
  auto handle = [](void* cls, MHD_Connection* c, const char* url, const char* method,
                   const char*, const char* upload, size_t* uploadSize, void** context) {
    return static_cast<Impl*>(cls)->Handle(c, url, method, upload, uploadSize, context);
  };
  auto completed = [](void* cls, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
    auto* r = static_cast<Request*>(*context);
    if (r != nullptr && r->waiting && !r->delivered) --static_cast<Impl*>(cls)->suspended;
    delete r;
    *context = nullptr;
  };
  impl_->daemon = MHD_start_daemon(
      MHD_USE_AUTO_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr,
      +handle, impl_.get(), MHD_OPTION_LISTEN_SOCKET, static_cast<MHD_socket>(listener),
      MHD_OPTION_CONNECTION_LIMIT, kMaxConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      kMaxPerAddress, MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory, MHD_OPTION_NOTIFY_COMPLETED,
      +completed, impl_.get(), MHD_OPTION_END);
  if (impl_->daemon == nullptr) {
    kvt::net::Close(listener);
    *error = "the HTTP library did not start";
    return false;
  }
  return true;
}

}  // namespace kvtweb
