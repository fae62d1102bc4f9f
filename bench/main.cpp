// The benchmark: each figure of KVTnetd measured side by side with its baseline in the same
// run, several times, printed as one Markdown table (scripts/bench.sh runs it).
//
//   kvt_bench [FIGURE...]   figures 1 to 7; all of them when none is named
//
// It starts kvtnetd on port 51470, so it belongs in a network namespace of its own. With
// CUPS_SERVER naming a scheduler that has the raw queues KvtProofA and KvtProofB (the tests'
// private scheduler), the CUPS commands are measured as well.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <latch>
#include <memory>
#include <semaphore>
#include <set>
#include <sstream>
#include <thread>

#ifdef KVT_BENCH_KVTWEB
#include <httplib.h>
#endif

#include "client/client.h"
#include "client/print_client.h"
#include "client/spool_client.h"
#include "files/scan.h"
#include "measure.h"
#include "platform/files.h"
#include "platform/net.h"
#include "rig.h"
#include "support/text.h"

namespace kvt::bench {

namespace {

using namespace std::chrono_literals;

constexpr std::uint16_t kRawPort = 51471;
// The same minimal server, starting the program of a stored upload before it answers.
constexpr std::uint16_t kRawStartingPort = 51472;
constexpr int kRepetitions = 7;
constexpr double kMiB = 1024.0 * 1024.0;
// The server's listen backlog. Clients that open connections at once keep at most this many
// openings in flight, so that a full accept queue never drops a SYN (a 1 s retry).
constexpr std::ptrdiff_t kBacklog = 5;

struct Context {
  fs::path root;
  Kvtnetd& server;
  bool cups = false;
  std::vector<Row> rows;
  std::vector<std::string> notes;
};

std::string Printf(const char* format, auto... args) {
  char text[512];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

client::Connection Opened(std::uint16_t port) {
  client::Connection c;
  if (!c.Connect("127.0.0.1", port) || !c.Open()) {
    std::fprintf(stderr, "kvt_bench: port %u: %s\n", unsigned{port}, c.error().c_str());
    std::exit(1);
  }
  return c;
}

// Runs `work` on `threads` threads from one start signal for about `seconds`; each call of
// work() is one operation, false stops that thread. Operations per second.
double Rate(int threads, double seconds, const std::function<bool(int)>& work) {
  std::atomic<bool> go{false}, stop{false};
  std::atomic<long> total{0};
  std::latch ready(threads);
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&, t] {
      ready.count_down();
      while (!go) std::this_thread::yield();
      long n = 0;
      while (!stop && work(t)) ++n;
      total += n;
    });
  ready.wait();
  const double start = Now();
  go = true;
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  const double elapsed = Now() - start;
  for (std::thread& t : pool) t.join();
  return static_cast<double>(total) / elapsed;
}

// The mean wall time of `runs` runs of a program, in seconds; exits when one fails.
double MeanRun(const std::vector<std::string>& argv, int runs = 3) {
  double sum = 0;
  for (int i = 0; i < runs; ++i) {
    const double t = TimeRun(argv);
    if (t < 0) {
      std::fprintf(stderr, "kvt_bench: %s failed\n", argv[0].c_str());
      std::exit(1);
    }
    sum += t;
  }
  return sum / runs;
}

long MinorFaults(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), {});
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string field;
  for (int i = 3; i <= 10 && fields >> field; ++i) {
  }
  return std::stol(field);  // field 10: minflt, all threads together
}

// ---- 1. Job names: 4 bytes in, 16 out ----
void JobNames(Context& ctx) {
  for (int clients : {1, 8, 64}) {
    auto run = [clients](std::uint16_t port) {
      std::vector<client::Connection> connections;
      for (int i = 0; i < clients; ++i) connections.push_back(Opened(port));
      const double rate = Rate(
          clients, 0.4, [&](int t) { return client::FreshJobName(connections[t]).has_value(); });
      for (client::Connection& c : connections) c.SendClose();
      return rate;
    };
    ctx.rows.push_back(Compare(
        Printf("1. `CMD_NEW_JOB_NAME` round trips, %d client%s", clients, clients > 1 ? "s" : ""),
        "/s", {0.9, true}, kRepetitions, [&] { return run(client::kDefaultPort); },
        [&] { return run(kRawPort); }));
  }
}

// ---- 2. Connections: connect, opening exchange, CMD_CLOSE ----
void Connections(Context& ctx) {
  const long overflows = ListenOverflows();
  auto run = [](std::uint16_t port) {
    std::counting_semaphore<> openings(kBacklog);
    return Rate(8, 0.5, [&](int) {
      client::Connection c;
      openings.acquire();
      const bool open = c.Connect("127.0.0.1", port) && c.Open();
      openings.release();
      return open && c.SendClose();
    });
  };
  ctx.rows.push_back(Compare(
      "2. connections (connect, opening, `CMD_CLOSE`), 8 clients", "/s", {0.8, true}, kRepetitions,
      [&] { return run(client::kDefaultPort); }, [&] { return run(kRawPort); }));
  ctx.notes.push_back(
      Printf("Figure 2: at most %td openings in flight (the backlog); SYNs dropped "
             "for a full accept queue during the figure: %ld.",
             kBacklog, ListenOverflows() - overflows));
}

// ---- 3. Uploads ----
double UploadRate(std::uint16_t port, const std::string& body, int count) {
  client::Connection c = Opened(port);
  std::string error;
  const double start = Now();
  for (int i = 0; i < count; ++i) {
    std::size_t offset = 0;
    auto source = [&](char* buffer, std::size_t size) {
      std::memcpy(buffer, body.data() + offset, size);
      offset += size;
      return size;
    };
    std::optional<bool> stored = client::UploadSpool(
        c, "benchupload", static_cast<std::uint32_t>(body.size()), source, {}, &error);
    if (!stored || !*stored) {
      std::fprintf(stderr, "kvt_bench: upload to port %u failed: %s\n", unsigned{port},
                   error.c_str());
      std::exit(1);
    }
  }
  const double elapsed = Now() - start;
  c.SendClose();
  return static_cast<double>(body.size()) * count / elapsed / kMiB;
}

void Uploads(Context& ctx) {
  for (const auto& run : {std::pair{std::size_t{1} << 20, 40}, {std::size_t{64} << 20, 2}}) {
    // Named copies: a lambda can capture only variables (C++20 lets it capture a structured
    // binding, which clang 14 does not implement).
    const std::size_t size = run.first;
    const int count = run.second;
    std::string body(size, '\0');
    for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i * 13 + i / 509);
    const long faults = MinorFaults(ctx.server.pid());
    // 1 MiB: the raw server starts the same program before it answers, as KVTnetd must; the
    // start costs more than the bytes. 64 MiB: the start is lost in the noise.
    const bool small = size == std::size_t{1} << 20;
    ctx.rows.push_back(Compare(
        Printf("3. upload of %zu MiB bodies, stored (raw: received and written once%s)",
               size >> 20, small ? ", jobfeeder started" : ""),
        "MiB/s", {small ? 0.8 : 0.7, true}, kRepetitions,
        [&] { return UploadRate(client::kDefaultPort, body, count); },
        [&] { return UploadRate(small ? kRawStartingPort : kRawPort, body, count); }));
    ctx.notes.push_back(
        Printf("Figure 3, %zu MiB: minor page faults of the server per upload: "
               "%.0f (a fresh body takes %zu).",
               size >> 20, double(MinorFaults(ctx.server.pid()) - faults) / (kRepetitions * count),
               size / 4096));
    if (small) {
      // The same without the program start: the pointer file names a folder whose program
      // path would be too long, so the server does not even try.
      ctx.server.PointJobfeederAt(std::string(220, 'x'));
      ctx.rows.push_back(Compare(
          "3. upload of 1 MiB bodies, stored, jobfeeder not started", "MiB/s", kNoGoal,
          kRepetitions, [&] { return UploadRate(client::kDefaultPort, body, count); },
          [&] { return UploadRate(kRawPort, body, count); }));
      ctx.server.PointJobfeederAt({});
    }
  }

  // What a fresh large block costs: malloc, first touch of every page, free; against the
  // same bytes written into a block that is kept.
  constexpr std::size_t kBlock = std::size_t{64} << 20;
  std::vector<char> kept(kBlock, 1);
  ctx.rows.push_back(Compare(
      "3. a 64 MiB body block: fresh (malloc, first touch, free) vs kept", "ms", kNoGoal,
      kRepetitions,
      [] {
        const double start = Now();
        auto* block = static_cast<char*>(std::malloc(kBlock));
        std::memset(block, 2, kBlock);
        asm volatile("" : : "r"(block) : "memory");  // the stores must happen
        std::free(block);
        return Now() - start;
      },
      [&] {
        const double start = Now();
        std::memset(kept.data(), 2, kBlock);
        return Now() - start;
      },
      1000));

  // A stored upload also starts jobfeeder before it answers; what that start costs.
  std::vector<double> starts;
  for (int i = 0; i < 20; ++i) {
    const double begun = Now();
    const pid_t child = Spawn({"/bin/true"});
    starts.push_back((Now() - begun) * 1000);
    ::waitpid(child, nullptr, 0);
  }
  const Spread start = Summarize(starts);
  ctx.rows.push_back(Plain("3. starting a program (posix_spawn of /bin/true, as for jobfeeder)",
                           Printf("%.3g ms (%.3g–%.3g)", start.median, start.low, start.high), "—",
                           true));

  if (!ctx.cups) return;
  ::sync();  // the 64 MiB uploads left gigabytes to write back: not while processes are timed
  ctx.rows.push_back(Compare(
      "3. process floor: `kvtctl ping` vs `lpstat -r` (start-up, one exchange)", "ms", kNoGoal,
      kRepetitions,
      [] {
        return MeanRun({KVT_BENCH_KVTCTL, "ping"});
      },
      [] {
        return MeanRun({"lpstat", "-r"});
      },
      1000));
  const fs::path file = ctx.root / "upload-1m.prn";
  WritePattern(file, std::size_t{1} << 20);
  ctx.rows.push_back(Compare(
      "3. `kvtctl upload` 1 MiB vs `lp -H hold` of the same file (whole processes)", "ms",
      {0.3, false}, kRepetitions,
      [&] {
        return MeanRun({KVT_BENCH_KVTCTL, "upload", file, "--name", "benchproc"});
      },
      [&] {
        return MeanRun({"lp", "-H", "hold", "-d", "KvtProofA", file});
      },
      1000));
  TimeRun({"cancel", "-a"});
}

// ---- 4. Gamut file: 256 MiB out in 8,192-byte writes ----
void Gamut(Context& ctx) {
  constexpr std::uint32_t kSize = 256u << 20;
  WritePattern(ctx.server.Gamut() / "bench" / "big.gamut", kSize);
  auto run = [](std::uint16_t port) {
    client::Connection c = Opened(port);
    std::uint64_t received = 0;
    const double start = Now();
    std::optional<client::GamutInfo> info = c.GetGamut(
        "bench", "big", [&](const char*, std::size_t n) { return (received += n), true; });
    const double elapsed = Now() - start;
    if (!info || info->size != kSize || received != kSize) {
      std::fprintf(stderr, "kvt_bench: gamut from port %u: %s\n", unsigned{port},
                   c.error().c_str());
      std::exit(1);
    }
    c.SendClose();
    return received / elapsed / kMiB;
  };
  run(client::kDefaultPort);  // both read the file from the page cache
  ctx.rows.push_back(Compare(
      "4. `CMD_GET_GAMUT` of a 256 MiB file", "MiB/s", {0.85, true}, kRepetitions,
      [&] { return run(client::kDefaultPort); }, [&] { return run(kRawPort); }));
  fs::remove_all(ctx.server.Gamut() / "bench");
}

// The listing of figures 5 and 7: 256 spool files and, with a scheduler, 2 queues of 50
// held jobs.
void FillListing(Context& ctx) {
  for (const auto& entry : fs::directory_iterator(ctx.server.Spool())) fs::remove(entry.path());
  for (int i = 0; i < 256; ++i) WritePattern(ctx.server.Spool() / Printf("bench%03d.spl", i), 5000);
  if (ctx.cups) {
    TimeRun({"cancel", "-a"});
    const fs::path job = ctx.root / "held.prn";
    WritePattern(job, 5000);
    for (const char* queue : {"KvtProofA", "KvtProofB"})
      for (int i = 0; i < 50; ++i) TimeRun({"lp", "-H", "hold", "-d", queue, job});
  }
}

// The requests the scheduler has logged so far (the fixture's access log holds every
// request), read once the count has stopped changing.
long SchedulerRequests() {
  const fs::path log = fs::path(std::getenv("CUPS_SERVER")).parent_path() / "log" / "access_log";
  for (long count = -1;;) {
    std::ifstream in(log);
    long now = 0;
    for (std::string line; std::getline(in, line);) now += line.find("\"POST ") != line.npos;
    if (now == count) return now;
    count = now;
    std::this_thread::sleep_for(50ms);
  }
}

// One listing on an open connection (whose printer table is made), in seconds: the mean of 10.
double ListingSeconds(client::Connection& c) {
  constexpr int kListings = 10;
  std::string error;
  const double start = Now();
  for (int i = 0; i < kListings; ++i)
    if (!client::ListJobRecords(c, &error)) std::exit(1);
  return (Now() - start) / kListings;
}

void AddQueue(const std::string& name) {
  if (TimeRun({"lpadmin", "-p", name, "-E", "-v", "file:///dev/null"}) < 0) {
    std::fprintf(stderr, "kvt_bench: lpadmin -p %s failed\n", name.c_str());
    std::exit(1);
  }
}

// The spool folder's part of a listing in-process: the scan and one header read per file,
// as the server makes them, against the floor: open, read of the header and close of the
// same files in a tight loop.
void SpoolScan(Context& ctx) {
  const std::string folder = ctx.server.Spool();
  constexpr int kScans = 20;
  char header[1248];
  auto scan = [&] {
    const double start = Now();
    for (int n = 0; n < kScans; ++n) {
      int count = 0;
      FolderEntry* spool = ScanFolder(folder.c_str(), "*.spl", &count, SCAN_SORT_NAME);
      for (int i = 0; i < count; ++i) {
        char path[200];
        JoinPath(path, sizeof path, folder.c_str(), spool[i].name);
        files::ReadHead(path, header, sizeof header);
      }
      FreeFolderList(spool);
    }
    return (Now() - start) / kScans;
  };
  std::vector<std::string> paths;
  for (int i = 0; i < 256; ++i) paths.push_back(folder + Printf("/bench%03d.spl", i));
  auto floor = [&] {
    const double start = Now();
    for (int n = 0; n < kScans; ++n)
      for (const std::string& path : paths) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || ::read(fd, header, sizeof header) != sizeof header) std::exit(1);
        ::close(fd);
      }
    return (Now() - start) / kScans;
  };
  ctx.rows.push_back(Compare(
      "5. spool scan of 256 files (`ScanFolder`, header reads) vs floor (open, read, close)",
      "ms", {1.5, false}, kRepetitions, scan, floor, 1000));
}

// Listings against many queues: the scheduler's requests per listing for 1, 20 and 100
// queues, and the listing's time for 20 queues of 5 held jobs, no spool file.
void ListingQueues(Context& ctx) {
  for (const auto& entry : fs::directory_iterator(ctx.server.Spool())) fs::remove(entry.path());
  const fs::path job = ctx.root / "held.prn";
  TimeRun({"lpadmin", "-x", "KvtProofB"});
  std::vector<std::string> queues;
  std::string counts;
  bool two = true;
  for (int wanted : {1, 20, 100}) {
    while (static_cast<int>(queues.size()) < wanted) {
      const std::size_t n = queues.size();
      queues.push_back(n == 0 ? "KvtProofA" : n == 1 ? "KvtProofB" : Printf("KvtQueue%03zu", n));
      if (n > 0) AddQueue(queues.back());
      for (int i = 0; i < 5 && n < 20; ++i) TimeRun({"lp", "-H", "hold", "-d", queues.back(), job});
    }
    client::Connection c = Opened(client::kDefaultPort);
    std::string error;
    const long before = SchedulerRequests();
    if (!client::ListJobRecords(c, &error)) std::exit(1);  // the first: the printer table too
    const long first = SchedulerRequests();
    if (!client::ListJobRecords(c, &error)) std::exit(1);
    const long next = SchedulerRequests();
    counts += Printf("%s%d queues: %ld, then %ld", counts.empty() ? "" : "; ", wanted,
                     first - before, next - first);
    two = two && first - before <= 2 && next - first <= 2;
    if (wanted != 20) continue;
    auto inProcess = [&] { return ListingSeconds(c); };
    const std::optional<std::string> records = client::ListJobRecords(c, &error);
    ctx.notes.push_back(Printf("Figure 5, 20 queues: one listing holds %zu records (100 held jobs "
                               "expected).",
                               records ? records->size() / client::kJobRecordSize : 0));
    ctx.rows.push_back(Compare(
        "5. 20 queues × 5 held jobs: `kvtctl jobs` vs `lpstat -o` (whole processes)", "ms",
        {0.6, false}, kRepetitions, [] { return MeanRun({KVT_BENCH_KVTCTL, "jobs"}); },
        [] { return MeanRun({"lpstat", "-o"}); }, 1000));
    ctx.rows.push_back(Compare(
        "5. 20 queues × 5 held jobs: `CMD_LIST_JOBS` in-process vs `lpstat -o` process", "ms",
        {0.3, false}, kRepetitions, inProcess, [] { return MeanRun({"lpstat", "-o"}); }, 1000));
    c.SendClose();
  }
  ctx.rows.push_back(Plain("5. scheduler requests per listing (access log): a connection's first "
                           "listing, then the next",
                           counts, "≤ 2", two));
  for (std::size_t i = 2; i < queues.size(); ++i) TimeRun({"lpadmin", "-x", queues[i]});
  TimeRun({"cancel", "-a"});
}

// ---- 5. Job listing: 256 spool files and 2 queues of 50 held jobs ----
void Listing(Context& ctx) {
  FillListing(ctx);
  ::sync();  // nothing left to write back while the listings are timed
  SpoolScan(ctx);

  client::Connection c = Opened(client::kDefaultPort);
  std::string error;
  std::optional<std::string> first = client::ListJobRecords(c, &error);
  const std::size_t records = first ? first->size() / client::kJobRecordSize : 0;
  auto inProcess = [&] { return ListingSeconds(c); };
  ctx.notes.push_back(Printf("Figure 5: one listing holds %zu records (%s).", records,
                             ctx.cups ? "100 held jobs and 256 spool files expected"
                                      : "no scheduler: 256 spool files expected"));
  if (!ctx.cups) {
    const Spread s = Summarize({inProcess(), inProcess(), inProcess(), inProcess(), inProcess()});
    ctx.rows.push_back(Plain(
        "5. `CMD_LIST_JOBS` in-process, per listing (no scheduler)",
        Printf("%.3g ms (%.3g–%.3g)", s.median * 1000, s.low * 1000, s.high * 1000), "—", true));
    return;
  }
  ctx.rows.push_back(Compare(
      "5. `kvtctl jobs` vs `lpstat -o` (whole processes)", "ms", {0.8, false}, kRepetitions,
      [] {
        return MeanRun({KVT_BENCH_KVTCTL, "jobs"});
      },
      [] {
        return MeanRun({"lpstat", "-o"});
      },
      1000));
  ctx.rows.push_back(Compare(
      "5. `CMD_LIST_JOBS` in-process vs `lpstat -o` process", "ms", kNoGoal, kRepetitions,
      inProcess,
      [] {
        return MeanRun({"lpstat", "-o"});
      },
      1000));
  c.SendClose();
  TimeRun({"cancel", "-a"});
  ListingQueues(ctx);
}

// ---- 7. kvtweb: the overview's data request, and its memory ----
#ifdef KVT_BENCH_KVTWEB
void Web(Context& ctx) {
  constexpr int kWebPort = 51480, kPages = 10, kRequests = 20;
  FillListing(ctx);
  const pid_t pid = Spawn({KVT_BENCH_KVTWEB, "--listen", Printf("127.0.0.1:%d", kWebPort)});
  auto connect = [&] {
    auto http = std::make_unique<httplib::Client>("127.0.0.1", kWebPort);
    http->set_keep_alive(true);
    http->set_read_timeout(30);
    return http;
  };
  auto get = [](httplib::Client& http, const char* path) {
    httplib::Result r = http.Get(path);
    if (!r || r->status != 200) {
      std::fprintf(stderr, "kvt_bench: kvtweb %s: %s\n", path,
                   r ? std::to_string(r->status).c_str() : httplib::to_string(r.error()).c_str());
      std::exit(1);
    }
    return r->body.size();
  };
  for (int i = 0; pid > 0 && !connect()->Get("/api/ping"); ++i) {
    if (i == 200) std::exit(1);
    std::this_thread::sleep_for(25ms);
  }
  std::this_thread::sleep_for(300ms);
  const Holdings idle = HoldingsOf(pid);

  std::unique_ptr<httplib::Client> http = connect();
  const std::size_t bytes = get(*http, "/api/overview");
  auto overview = [&] {  // one page's poll on its kept-alive connection
    const double start = Now();
    for (int i = 0; i < kRequests; ++i) get(*http, "/api/overview");
    return (Now() - start) / kRequests;
  };
  ctx.rows.push_back(Compare(
      "7. kvtweb `/api/overview` (one HTTP request) vs `kvtctl jobs` (whole process), same data",
      "ms", kNoGoal, kRepetitions, overview,
      [] {
        return MeanRun({KVT_BENCH_KVTCTL, "jobs"});
      },
      1000));

  // Ten pages open: each loaded the page, its style sheet and script, then polls the data,
  // all at once, their connections kept alive.
  std::vector<std::unique_ptr<httplib::Client>> pages;
  for (int i = 0; i < kPages; ++i) pages.push_back(connect());
  Holdings open;
  for (int round = 0; round < 3; ++round) {
    std::vector<std::thread> pollers;
    for (auto& page : pages)
      pollers.emplace_back([&, round] {
        if (round == 0)
          for (const char* path : {"/", "/app.css", "/app.js"}) get(*page, path);
        get(*page, "/api/overview");
      });
    for (std::thread& t : pollers) t.join();
    const Holdings now = HoldingsOf(pid);
    if (now.rssKiB > open.rssKiB) open = now;
  }
  ctx.rows.push_back(Plain("7. kvtweb resident memory, idle and with 10 pages open and polling",
                           Printf("%ld KiB idle (%ld threads), %ld KiB with 10 pages (%ld threads)",
                                  idle.rssKiB, idle.threads, open.rssKiB, open.threads),
                           "—", true));
  ctx.notes.push_back(Printf("Figure 7: one overview document is %zu bytes (%s).", bytes,
                             ctx.cups ? "100 held jobs and 256 spool files"
                                      : "no scheduler: 256 spool files"));
  pages.clear();
  http.reset();
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  if (ctx.cups) TimeRun({"cancel", "-a"});
}
#endif

// ---- 6. Scale: 5,000 concurrent connections ----
void Scale(Context& ctx) {
  constexpr int kConnections = 5000, kNamesEach = 10, kClientThreads = 4;
  ctx.server.Start();  // a fresh process: its idle figures are not those of the runs before
  std::this_thread::sleep_for(300ms);
  const pid_t pid = ctx.server.pid();
  const Holdings idle = HoldingsOf(pid);
  const long overflows = ListenOverflows();

  std::vector<client::Connection> connections(kConnections);
  std::vector<std::vector<std::string>> names(kClientThreads);
  std::atomic<int> opened{0}, slow{0};
  std::counting_semaphore<> openings(kBacklog);
  auto eachThread = [&](const std::function<void(int, int)>& work) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kClientThreads; ++t)
      threads.emplace_back([&, t] {
        for (int i = t; i < kConnections; i += kClientThreads) work(t, i);
      });
    for (std::thread& t : threads) t.join();
  };
  const double start = Now();
  eachThread([&](int, int i) {
    openings.acquire();
    const double begun = Now();
    const bool open = connections[i].Connect("127.0.0.1") && connections[i].Open();
    openings.release();
    opened += open;
    slow += Now() - begun > 0.5;
  });
  const double openSeconds = Now() - start;
  eachThread([&](int t, int i) {
    for (int k = 0; k < kNamesEach && connections[i].IsConnected(); ++k)
      if (std::optional<std::string> name = client::FreshJobName(connections[i]))
        names[t].push_back(*name);
  });
  std::this_thread::sleep_for(300ms);  // every thread back in its receive
  const Holdings busy = HoldingsOf(pid);

  std::set<std::string> unique;
  std::size_t total = 0;
  for (const auto& list : names) {
    unique.insert(list.begin(), list.end());
    total += list.size();
  }
  eachThread([&](int, int i) { connections[i].SendClose(); });
  connections.clear();
  Holdings after = HoldingsOf(pid);
  for (int i = 0; i < 100 && (after.threads > idle.threads || after.descriptors > idle.descriptors);
       ++i) {
    std::this_thread::sleep_for(100ms);
    after = HoldingsOf(pid);
  }

  const bool served = opened == kConnections && total == std::size_t{kConnections} * kNamesEach;
  ctx.rows.push_back(
      Plain("6. 5,000 concurrent connections, 10 `CMD_NEW_JOB_NAME` each while all are open",
            Printf("%d/%d open, %zu/%d names, %zu unique; all opened in %.2f s, %d openings over "
                   "0.5 s, %ld SYNs dropped",
                   opened.load(), kConnections, total, kConnections * kNamesEach, unique.size(),
                   openSeconds, slow.load(), ListenOverflows() - overflows),
            "all served, all unique", served && unique.size() == total));
  const double perConnection = double(busy.rssKiB - idle.rssKiB) / std::max(1, opened.load());
  ctx.rows.push_back(Plain("6. resident memory per idle connection",
                           Printf("%.1f KiB (VmRSS %ld KiB idle, %ld KiB with %d open)",
                                  perConnection, idle.rssKiB, busy.rssKiB, opened.load()),
                           "≤ 16 KiB", perConnection <= 16));
  ctx.rows.push_back(Plain("6. threads and descriptors after the connections closed",
                           Printf("threads %ld → %ld → %ld, descriptors %ld → %ld → %ld "
                                  "(idle → open → closed)",
                                  idle.threads, busy.threads, after.threads, idle.descriptors,
                                  busy.descriptors, after.descriptors),
                           "back to idle",
                           after.threads == idle.threads && after.descriptors == idle.descriptors));
}

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five;
  in >> one >> five;
  return one + " / " + five;
}

}  // namespace

// The baseline servers run as processes of their own, as kvtnetd does, so that neither side
// shares its process with the clients: kvt_bench --raw PORT FOLDER [PROGRAM].
int RawMain(char** argv) {
  RawServer raw(static_cast<std::uint16_t>(std::atoi(argv[2])), argv[3], argv[4] ? argv[4] : "");
  if (!raw.listening()) return 1;
  for (;;) ::pause();
}

pid_t StartRaw(std::uint16_t port, const fs::path& folder, const fs::path& program = {}) {
  std::vector<std::string> argv{"/proc/self/exe", "--raw", std::to_string(port), folder};
  if (!program.empty()) argv.push_back(program);
  const pid_t pid = Spawn(argv);
  for (int i = 0; pid > 0 && i < 200; ++i) {
    client::Connection c;
    if (c.Connect("127.0.0.1", port)) return pid;
    std::this_thread::sleep_for(25ms);
  }
  return -1;
}

Kvtnetd* running = nullptr;  // stopped however the benchmark ends
pid_t rawPids[2] = {-1, -1};

void StopServers() {
  if (running != nullptr) running->Stop();
  for (pid_t& pid : rawPids) {
    if (pid <= 0) continue;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    pid = -1;
  }
}

int Main(int argc, char** argv) {
  if ((argc == 4 || argc == 5) && std::strcmp(argv[1], "--raw") == 0) return RawMain(argv);
  std::set<int> chosen;
  for (int i = 1; i < argc; ++i) chosen.insert(std::atoi(argv[i]));
  // 5,000 connections need as many descriptors here and in the server, which inherits this.
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0) {
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
  }
  net::Startup();

  std::string pattern = fs::temp_directory_path() / "kvt-bench-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) return 1;
  const fs::path root = pattern;
  Kvtnetd server(root);
  if (!server.Start()) {
    std::fprintf(stderr, "kvt_bench: kvtnetd did not start (port 51470 taken?)\n");
    return 1;
  }
  running = &server;
  std::atexit(StopServers);
  rawPids[0] = StartRaw(kRawPort, server.Gamut());
  rawPids[1] = StartRaw(kRawStartingPort, server.Gamut(), server.Jobfeeder());
  if (rawPids[0] < 0 || rawPids[1] < 0) {
    std::fprintf(stderr, "kvt_bench: the baseline servers cannot listen on %u and %u\n",
                 kRawPort, kRawStartingPort);
    return 1;
  }
  Context ctx{root, server, false, {}, {}};
  ctx.cups = std::getenv("CUPS_SERVER") != nullptr && TimeRun({"lpstat", "-r"}) >= 0;
  const std::string loadBefore = LoadAverage();

  const std::vector<std::pair<int, void (*)(Context&)>> figures{
      {1, JobNames}, {2, Connections}, {3, Uploads}, {4, Gamut}, {5, Listing}, {6, Scale},
#ifdef KVT_BENCH_KVTWEB
      {7, Web},
#endif
  };
  for (const auto& [number, run] : figures) {
    if (!chosen.empty() && !chosen.contains(number)) continue;
    std::fprintf(stderr, "figure %d...\n", number);
    run(ctx);
  }

  ctx.notes.push_back(
      Printf("%d repetitions per figure, KVTnetd and baseline alternating; load "
             "average (1 / 5 min) %s at the start, %s at the end.",
             kRepetitions, loadBefore.c_str(), LoadAverage().c_str()));
  if (!ctx.cups)
    ctx.notes.push_back("No CUPS scheduler (CUPS_SERVER): its baselines are left out.");
  PrintTable(ctx.rows, ctx.notes);
  StopServers();
  running = nullptr;
  std::error_code ignored;
  fs::remove_all(root, ignored);
  return 0;
}

}  // namespace kvt::bench

int main(int argc, char** argv) { return kvt::bench::Main(argc, argv); }
