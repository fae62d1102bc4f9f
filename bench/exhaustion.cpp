// Out of descriptors, memory or threads: the figures of docs/reliability.md, measured on the
// Linux server (bench/exhaustion.sh runs it, as root, in a network namespace of its own).
//
//   kvt_exhaustion [SERVER]   the server program; by default this build's kvtnetd
//
// 1. Descriptor limit 40 (prlimit), 80 clients holding their connections for 10 s: how many
//    are served and how many are ended, the server's CPU and debug log over the hold, and
//    how long after the clients close a new client gets a job name.
// 2. Memory cgroup (v1) of 1 GiB: three uploads of 512 MiB at once, then four colour tables
//    of 250 MB at once, each while 8 other clients ask for job names every 10 ms.
// 3. pids cgroup (v1) with pids.max 40, 100 clients: served, ended, recovery.
// A figure whose limit can't be made here is reported as skipped, with the reason.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "client/client.h"
#include "client/spool_client.h"
#include "measure.h"
#include "rig.h"

namespace kvt::bench {
namespace {

using namespace std::chrono_literals;

fs::path root;
std::string server = KVT_BENCH_SERVER;
pid_t pid = -1;

std::string Read(const fs::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

long CpuTicks() {
  const std::string stat = Read("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string skipped;
  long user = 0, system = 0;
  for (int i = 3; i < 14; ++i) fields >> skipped;
  fields >> user >> system;
  return user + system;
}

fs::path LogFile() {
  for (const auto& file : fs::directory_iterator(root / "cwd"))
    if (file.path().filename().string().starts_with("KVTnetd-S")) return file.path();
  return {};
}

long Count(const std::string& text, const std::string& what) {
  long n = 0;
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++n;
  return n;
}

bool Alive() { return pid > 0 && ::waitpid(pid, nullptr, WNOHANG) == 0; }

// Alive and answering: a process that the kernel is ending may not have been reaped yet.
bool Serving() {
  return Alive() &&
         client::Ping("127.0.0.1", client::kDefaultPort, client::ByteOrder::kLittle, 2000).empty();
}

void Stop() {
  if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
  pid = -1;
}

// The server in debug mode in root/cwd, started through `prefix` (shell commands run first,
// in the process that becomes the server); true once it answers.
bool Start(const std::string& prefix, const std::string& wrapper = "") {
  Stop();
  fs::remove_all(root / "cwd");
  fs::create_directories(root / "cwd");
  const std::string script = "cd " + (root / "cwd").string() + " && " + prefix + "exec " +
                             wrapper + " \"$0\" -debug 2>/dev/null";
  pid = Spawn({"sh", "-c", script, server},
              {"ProgramData=" + (root / "data").string(),
               "ProgramFiles=" + (root / "programs").string(), "TMPDIR=" + root.string()});
  for (int i = 0; i < 400 && Alive(); ++i) {
    if (client::Ping("127.0.0.1", client::kDefaultPort, client::ByteOrder::kLittle).empty())
      return true;
    std::this_thread::sleep_for(25ms);
  }
  return false;
}

// Seconds until a new client gets a job name (one attempt every 10 ms), or -1.
double Recovery() {
  const double start = Now();
  while (Now() - start < 30) {
    kvt::client::Connection c;
    c.SetTimeout(1000);
    if (c.Connect("127.0.0.1") && c.Open() && client::FreshJobName(c)) return Now() - start;
    std::this_thread::sleep_for(10ms);
  }
  return -1;
}

struct Held {
  std::vector<client::Connection> served;
  int ended = 0, other = 0;
};

Held Connect(int clients) {
  Held held;
  for (int i = 0; i < clients; ++i) {
    kvt::client::Connection c;
    c.SetTimeout(2000);
    if (c.Connect("127.0.0.1") && c.Open()) held.served.push_back(std::move(c));
    else if (c.status() == client::Status::kClosed) ++held.ended;
    else ++held.other;
  }
  return held;
}

void Descriptors() {
  std::printf("## Descriptor limit 40, 80 clients holding their connections for 10 s\n\n");
  if (!Start("", "prlimit --nofile=40")) return void(std::printf("server did not start\n\n"));
  Held held = Connect(80);
  const fs::path log = LogFile();
  const long ticks = CpuTicks();
  const auto logBefore = fs::file_size(log);
  const double start = Now();
  std::this_thread::sleep_for(10s);
  const double seconds = Now() - start;
  const long used = CpuTicks() - ticks;
  const double cpu = double(used) / double(::sysconf(_SC_CLK_TCK)) / seconds * 100;
  const auto grown = fs::file_size(log) - logBefore;
  const std::size_t served = held.served.size();
  held.served.clear();
  const double recovery = Recovery();
  const long failed = Count(Read(log), ": accept failed\n");
  std::printf("- served %zu, ended at once %d, neither %d\n", served, held.ended, held.other);
  std::printf("- server CPU over the hold: %.2f%% of one core (%ld ticks of %ld in %.1f s)\n", cpu,
              used, ::sysconf(_SC_CLK_TCK), seconds);
  std::printf("- debug log growth over the hold: %ju bytes (%ju in all); \"accept failed\" in all: %ld\n",
              std::uintmax_t(grown), std::uintmax_t(fs::file_size(log)), failed);
  std::printf("- a new client got a job name %.1f ms after the clients closed\n\n", recovery * 1000);
  Stop();
}

// A cgroup v1 group of this run with one limit; empty when it can't be made.
struct Group {
  fs::path folder;
  Group(const char* controller, const char* file, std::uint64_t limit) {
    folder = fs::path("/sys/fs/cgroup") / controller / ("kvt-bench-" + std::to_string(::getpid()));
    std::error_code e;
    fs::create_directory(folder, e);
    std::ofstream(folder / file) << limit;
    if (Read(folder / file) != std::to_string(limit) + "\n") fs::remove(folder, e), folder.clear();
  }
  ~Group() {
    Stop();
    for (int i = 0; i < 100 && !folder.empty(); ++i) {
      std::error_code e;
      if (fs::remove(folder, e)) break;
      std::this_thread::sleep_for(100ms);
    }
  }
  std::string Join() const { return "echo $$ > " + (folder / "cgroup.procs").string() + " && "; }
  std::string Stat(const char* file, const char* key = nullptr) const {
    std::string text = Read(folder / file);
    if (key == nullptr) return text.substr(0, text.find('\n'));
    std::size_t at = text.find(std::string(key) + " ");
    return at == std::string::npos ? "?" : text.substr(at + std::strlen(key) + 1, text.find('\n', at) - at - std::strlen(key) - 1);
  }
};

void Memory(const char* title, int count, const std::function<std::optional<std::uint32_t>(int)>& request,
            std::uint32_t stored, const fs::path& folder) {
  std::printf("## Memory cgroup of 1 GiB: %s, while 8 clients ask for job names\n\n", title);
  Group group("memory", "memory.limit_in_bytes", 1u << 30);
  if (group.folder.empty())
    return void(std::printf("skipped: no writable cgroup v1 memory controller at /sys/fs/cgroup/memory\n\n"));
  if (!Start(group.Join())) return void(std::printf("server did not start\n\n"));
  std::atomic<bool> done{false};
  std::atomic<long> names{0}, errors{0};
  std::mutex worstMutex;
  double worst = 0;
  std::vector<std::thread> askers, requests;
  for (int i = 0; i < 8; ++i)
    askers.emplace_back([&] {
      client::Connection c;
      if (!c.Connect("127.0.0.1") || !c.Open()) return void(++errors);
      for (; !done; std::this_thread::sleep_for(10ms)) {
        const double t = Now();
        if (!client::FreshJobName(c)) return void(++errors);
        ++names;
        std::lock_guard lock(worstMutex);
        worst = std::max(worst, Now() - t);
      }
    });
  std::vector<std::optional<std::uint32_t>> answers(count);
  std::vector<double> times(count);
  const double start = Now();
  for (int i = 0; i < count; ++i)
    requests.emplace_back([&, i] { answers[i] = request(i), times[i] = Now() - start; });
  for (std::thread& t : requests) t.join();
  done = true;
  for (std::thread& t : askers) t.join();
  int kept = 0, refused = 0, lost = 0;
  for (int i = 0; i < count; ++i) {
    std::printf("- request %d: %s after %.1f s\n", i,
                !answers[i] ? "no answer" : *answers[i] == stored ? "stored" : *answers[i] == 0 ? "refused (0)" : "other answer",
                times[i]);
    kept += answers[i] == stored, refused += answers[i] == 0u, lost += !answers[i];
  }
  std::size_t files = 0, whole = 0;
  std::error_code none;
  for (const auto& f : fs::directory_iterator(folder, none))
    ++files, whole += f.file_size() == (count == 3 ? 512u << 20 : 250'000'000u);
  std::printf("- stored %d, refused %d, no answer %d; files %zu (%zu of full size)\n", kept, refused, lost, files, whole);
  std::printf("- server %s; job names %ld, errors %ld, slowest %.1f ms\n", Serving() ? "serving" : "NOT SERVING (killed)",
              names.load(), errors.load(), worst * 1000);
  std::printf("- cgroup: peak %s bytes, failcnt %s, oom_kill %s\n", group.Stat("memory.max_usage_in_bytes").c_str(),
              group.Stat("memory.failcnt").c_str(), group.Stat("memory.oom_control", "oom_kill").c_str());
  if (count == 3) {  // one byte over the budget, half the group's limit: refused at once
    const double t = Now();
    const auto answer = request(3);
    std::printf("- an upload of 512 MiB + 1 byte afterwards: %s after %.1f s, %s\n",
                answer == 0u ? "refused (0)" : "not refused", Now() - t,
                fs::exists(folder / "Big3.spl") ? "a file left" : "no file");
  }
  std::printf("\n");
  fs::remove_all(folder);
  fs::create_directories(folder);
}

void Threads() {
  std::printf("## pids.max 40, 100 clients\n\n");
  Group group("pids", "pids.max", 40);
  if (group.folder.empty())
    return void(std::printf("skipped: no writable cgroup v1 pids controller at /sys/fs/cgroup/pids\n\n"));
  if (!Start(group.Join())) return void(std::printf("server did not start\n\n"));
  Held held = Connect(100);
  std::printf("- served %zu, ended at once %d, neither %d; pids.events max %s\n", held.served.size(),
              held.ended, held.other, group.Stat("pids.events", "max").c_str());
  held.served.clear();
  std::printf("- a new client got a job name %.1f ms after the clients closed\n\n", Recovery() * 1000);
}

}  // namespace
}  // namespace kvt::bench

int main(int argc, char** argv) {
  using namespace kvt::bench;
  if (argc > 1) server = argv[1];
  char pattern[] = "/tmp/kvt-exhaustion-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  root = pattern;
  fs::create_directories(root / "data" / "Corvina" / "spool");
  fs::create_directories(root / "programs" / "KVT" / "ShadeProof");
  // The colour tool exits with 1: a stored table answers 1, a refused one 0.
  fs::copy_file("/bin/false", root / "programs" / "KVT" / "ShadeProof" / "ShadeProof.exe");
  std::printf("# Exhaustion figures, %s\n\n", server.c_str());
  Descriptors();
  std::string body(512u << 20, '\0'), table(250'000'000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = char(i * 7 + i / 251);
  for (std::size_t i = 0; i < table.size(); ++i) table[i] = char(i * 5 + i / 241);
  Memory("three uploads of 512 MiB at once", 3, [&](int i) -> std::optional<std::uint32_t> {
    kvt::client::Connection c;
    c.SetTimeout(120000);
    if (!c.Connect("127.0.0.1") || !c.Open() || !c.SendFrame(kvt::CMD_UPLOAD_SPOOL) ||
        !c.SendText("Big" + std::to_string(i), 16) ||
        !c.SendU32(std::uint32_t(body.size()) + (i == 3)) || !c.SendBytes(body.data(), body.size()) ||
        (i == 3 && !c.SendBytes("x", 1)))
      return std::nullopt;
    return c.RecvByte();
  }, 1, root / "data" / "Corvina" / "spool");
  Memory("four colour tables of 250 MB at once", 4, [&](int i) -> std::optional<std::uint32_t> {
    kvt::client::Connection c;
    c.SetTimeout(120000);
    if (!c.Connect("127.0.0.1") || !c.Open()) return std::nullopt;
    return c.RegisterColorTable("T" + std::to_string(i), table);
  }, 1, root / "Velmora");
  Threads();
  Stop();
  fs::remove_all(root);
  return 0;
}
