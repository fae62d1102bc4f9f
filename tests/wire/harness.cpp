#include "harness.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <sstream>

#include "client/print_client.h"
#include "client/spool_client.h"
#include "platform/net.h"

extern char** environ;

namespace kvt::wire {

namespace {

using namespace std::chrono_literals;

// `extra`, then the test's environment less the folders a server takes from it (the first
// entry of a name is the one that counts).
std::vector<std::string> Environment(std::vector<std::string> env) {
  for (char** e = environ; *e != nullptr; ++e) {
    std::string_view var(*e);
    if (!var.starts_with("ProgramData=") && !var.starts_with("ProgramFiles") &&
        !var.starts_with("TMPDIR="))
      env.emplace_back(var);
  }
  return env;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Starts argv[0] (looked up in PATH) in `cwd`: stdin from /dev/null, stdout and stderr to
// files there.
pid_t Spawn(std::vector<std::string> argv, const fs::path& cwd, std::vector<std::string> env) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  const std::string out = cwd / "stdout", err = cwd / "stderr";
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  std::vector<char*> args = Pointers(argv), vars = Pointers(env);
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), vars.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

bool PortListening() {
  // A line of /proc/net/tcp(6): slot, local address:port, remote address:port, state (0A =
  // LISTEN), ... with the numbers in hex.
  const std::regex listening(":C90E [0-9A-F]+:0000 0A ");
  return std::regex_search(ReadFile("/proc/net/tcp"), listening) ||
         std::regex_search(ReadFile("/proc/net/tcp6"), listening);
}

int StatusOf(int wait) { return WIFEXITED(wait) ? WEXITSTATUS(wait) : 128 + WTERMSIG(wait); }

// The exit status within `limit`; otherwise the process is killed and none is returned.
std::optional<int> WaitExit(pid_t pid, Milliseconds limit) {
  int wait = 0;
  if (WaitUntil([&] { return ::waitpid(pid, &wait, WNOHANG) == pid; }, limit))
    return StatusOf(wait);
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &wait, 0);
  return std::nullopt;
}

// No more than `idle` holds: threads (bar the sanitizer's own), descriptors, and exactly as
// many children.
bool Within(const Holding& now, const Holding& idle) {
  return std::get<0>(now) <= std::get<0>(idle) + KVT_SANITIZER_THREADS &&
         std::get<1>(now) <= std::get<1>(idle) && std::get<2>(now) == std::get<2>(idle);
}

// Why a server of this kind cannot run here; empty when it can.
std::string Unavailable(Kind kind) {
  if (kind == Kind::kLinux) return {};
  const fs::path exe = KVT_WINDOWS_SERVER;
  if (exe.empty()) return "no Windows server: the CMake variable KVT_WINDOWS_SERVER is empty";
  if (!fs::exists(exe)) return exe.string() + " does not exist: build the Windows program first";
  if (std::system("command -v wine >/dev/null") != 0) return "wine is not installed";
  // Never fall back on the user's own prefix: ctest provides one for these tests.
  if (std::getenv("WINEPREFIX") == nullptr) return "WINEPREFIX is not set: run the test via ctest";
  return {};
}

}  // namespace

client::Connection Opened(const client::Marker& marker, int timeoutMs) {
  client::Connection c;
  if (timeoutMs > 0) c.SetTimeout(timeoutMs);
  EXPECT_TRUE(c.Connect("127.0.0.1") && c.Open(marker)) << c.error();
  return c;
}

void ExpectWaiting(client::Connection& c) {
  ASSERT_TRUE(c.SendFrame(kvt::CMD_NEW_JOB_NAME)) << c.error();
  const std::string name = Receive(c, 16);
  EXPECT_TRUE(std::regex_match(name, std::regex(std::string("[0-9]{15}") + '\0'))) << name;
}

std::string Receive(client::Connection& c, std::size_t count) {
  std::string answer(count, '\0');
  EXPECT_EQ(c.RecvBytes(answer.data(), count), client::Status::kOk) << c.error();
  return answer;
}

std::optional<bool> Upload(client::Connection& c, std::string_view name, const std::string& body) {
  std::size_t at = 0;
  auto source = [&](char* buffer, std::size_t size) {
    const std::size_t n = body.copy(buffer, size, at);
    return at += n, n;
  };
  std::string error;
  auto stored = client::UploadSpool(c, name, std::uint32_t(body.size()), source, {}, &error);
  EXPECT_TRUE(stored.has_value()) << error;
  return stored;
}

std::string Jobs(client::Connection& c) {
  std::string error;
  std::optional<std::string> records = client::ListJobRecords(c, &error);
  EXPECT_TRUE(records) << error;
  return records.value_or("");
}

std::string AnswerOf(const std::string& bytes) {
  int error = 0;
  const net::Socket s = net::Connect("127.0.0.1", 51470, &error);
  std::string answer;
  char buffer[16];
  if (s != net::kNoSocket && net::SetRecvTimeout(s, 20000) &&
      net::Send(s, bytes.data(), int(bytes.size())) == int(bytes.size()) &&
      ::shutdown(int(s), SHUT_WR) == 0)
    for (int n; (n = net::Recv(s, buffer, sizeof buffer)) > 0;) answer.append(buffer, n);
  if (s != net::kNoSocket) net::Close(s);
  return answer;
}

void KindTest::SetUp() {
  if (std::string why = Unavailable(GetParam()); !why.empty()) GTEST_SKIP() << why;
}

void ServerSuite::SetUp() {
  KindTest::SetUp();
  if (IsSkipped()) return;
  if (server_ == nullptr && startError_.empty()) {
    server_ = std::make_unique<Server>(GetParam());
    startError_ = server_->StartListening();
    if (!startError_.empty()) server_.reset();
  }
  ASSERT_EQ(startError_, "");  // once per suite: the other tests fail at once
}

void ServerSuite::TearDown() {
  EXPECT_TRUE(!server_ || server_->Running()) << "the server ended; " << server_->Errors();
}

void ServerSuite::TearDownTestSuite() {
  EXPECT_EQ(server_ ? server_->Stop() : "", "");
  server_.reset();
  startError_.clear();
}

Holding Holdings(pid_t pid) {
  // Each thread's children, zombies among them, are listed in its task folder.
  const fs::path proc = "/proc/" + std::to_string(pid);
  Holding now{0, std::distance(fs::directory_iterator(proc / "fd"), {}), 0};
  std::error_code ended;  // a thread may end while it is read
  for (const auto& task : fs::directory_iterator(proc / "task", ended)) {
    ++std::get<0>(now);
    std::istringstream children(ReadFile(task.path() / "children"));
    for (pid_t child; children >> child;) ++std::get<2>(now);
  }
  return now;
}

std::optional<Holding> IdleHoldings(pid_t pid) {
  const Holding first = Holdings(pid);
  Holding idle = first;  // once the connection's thread has gone, at most the runtime's is new
  if (client::Ping("127.0.0.1", client::kDefaultPort, client::ByteOrder::kLittle).empty() &&
      WaitUntil([&] { return Within(idle = Holdings(pid), first); }, 10s))
    return idle;
  return std::nullopt;
}

void ExpectSettled(pid_t pid, const Holding& idle) {
  Holding now;
  EXPECT_TRUE(WaitUntil([&] { return Within(now = Holdings(pid), idle); }))
      << "threads, descriptors, children " << ::testing::PrintToString(now) << ", idle "
      << ::testing::PrintToString(idle);
}

Outcome RunKvtctl(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  const ScratchFolder cwd;
  std::vector<std::string> argv{KVT_KVTCTL};
  argv.insert(argv.end(), args.begin(), args.end());
  Outcome run;
  if (pid_t pid = Spawn(argv, cwd.path, Environment(env)); pid > 0) run.status = WaitExit(pid, 30s);
  run.out = ReadFile(cwd.path / "stdout"), run.err = ReadFile(cwd.path / "stderr");
  return run;
}

Server::Server(Kind kind) : kind_(kind) {
  // The folders the file commands work in, fresh for each server. Under Wine they are the
  // prefix's own; its temporary folder is Wine's too.
  if (kind_ == Kind::kWine) {
    const fs::path drive = fs::path(std::getenv("WINEPREFIX")) / "drive_c";
    data_ = drive / "ProgramData";
    programs_ = drive / "Program Files (x86)";
    ForgetWineFolders();
  }
  for (const fs::path& folder : {cwd_, Records().folder(), Spool(), Gamut()})
    fs::create_directories(folder);
}

Server::~Server() {
  Stop();
  ForgetWineFolders();
}

// Wine's data, program and temporary folders outlive a server: what one left (a pointer file,
// colour tables) must not reach the next.
void Server::ForgetWineFolders() const {
  std::error_code ignored;
  if (kind_ == Kind::kWine)
    for (const fs::path& folder : {Corvina(), Pointer().parent_path(), programs_ / "KVT", TableFolder()})
      fs::remove_all(folder, ignored);
}

// The Windows build keeps its stand-ins in tests/standins beside kvtnetd.exe.
fs::path Server::Standin(const char* onLinux, const char* onWindows) const {
  if (kind_ == Kind::kLinux) return onLinux;
  return fs::path(KVT_WINDOWS_SERVER).parent_path() / "tests" / "standins" / onWindows;
}

void Server::InstallTool() const {
  InstallProgram(Standin(KVT_LINUX_STANDIN, "ShadeProof.exe"), Tool());
}

fs::path Server::InstallJobfeeder(const fs::path& folder) const {
  const fs::path standin = Standin(KVT_LINUX_JOBFEEDER, "jobfeeder.exe");
  const fs::path installed = folder / standin.filename();
  InstallProgram(standin, installed);
  WriteFile(Pointer(), ServerPath(folder) + "\n");
  return installed;
}

fs::path Server::TableFolder() const {
  if (kind_ == Kind::kLinux) return root_ / "Velmora";  // TMPDIR is the root
  return data_.parent_path() / "users" / ::getpwuid(::geteuid())->pw_name / "Temp" / "Velmora";
}

std::string Server::ServerPath(const fs::path& path) const {
  return (kind_ == Kind::kWine ? "Z:" : "") + path.string();
}

Milliseconds Server::Patience() const { return kind_ == Kind::kWine ? 30s : 10s; }

std::string Server::Start(const std::vector<std::string>& args) {
  Stop();
  std::vector<std::string> argv, extra;
  if (kind_ == Kind::kLinux) {
    argv = {KVT_LINUX_SERVER};
    extra = {"ProgramData=" + data_.string(), "ProgramFiles=" + programs_.string(),
             "TMPDIR=" + root_.string(), "KVT_STANDIN_DIR=" + Records().folder().string()};
  } else {
    argv = {"wine", KVT_WINDOWS_SERVER};
    extra = {"KVT_STANDIN_DIR=" + ServerPath(Records().folder())};  // Wine passes it through
    if (std::getenv("WINEDEBUG") == nullptr) extra.push_back("WINEDEBUG=-all");
  }
  argv.insert(argv.end(), args.begin(), args.end());
  argv.insert(argv.begin(), wrapper_.begin(), wrapper_.end());
  status_.reset();
  pid_ = Spawn(argv, cwd_, Environment(extra));
  return pid_ > 0 ? "" : "cannot start " + argv[0];
}

std::string Server::StartListening(const std::vector<std::string>& args) {
  // A server that was just killed may take a moment to let go of the port.
  if (!WaitUntil([] { return !PortListening(); }, 10s))
    return "port 51470 is taken by another program (ss -ltnp shows which): stop it first";
  if (std::string error = Start(args); !error.empty()) return error;
  bool up = WaitUntil([&] { return PortListening() || !Running(); }, Patience());
  if (!Running())
    return "the server ended at start with status " + std::to_string(status_.value_or(-1)) +
           "; its output: " + Output() + Errors();
  if (!up) return "the server did not listen on port 51470 in time";
  // Wine may run a Windows program in a process other than the one spawned; then killing
  // that pid would leave the port taken.
  std::string command = ReadFile("/proc/" + std::to_string(pid_) + "/cmdline");
  if (kind_ == Kind::kWine && command.find("kvtnetd.exe") == std::string::npos)
    return "pid " + std::to_string(pid_) + " is not the Windows program but " + command;
  return {};
}

bool Server::Running() {
  int wait = 0;
  if (pid_ > 0 && ::waitpid(pid_, &wait, WNOHANG) == pid_) {
    status_ = StatusOf(wait);
    pid_ = -1;
  }
  return pid_ > 0;
}

std::optional<int> Server::WaitExit() {
  if (pid_ > 0) status_ = wire::WaitExit(pid_, Patience());
  pid_ = -1;
  return status_;
}

std::string Server::Stop() {
  // A sanitizer's report (the server's own, or a stand-in's it started) fails the test even
  // when the program went on or the test never looked at its output.
  if ((pid_ > 0 || status_) && Errors().find("Sanitizer") != std::string::npos)
    ADD_FAILURE() << "the server's stderr: " << Errors();
  const bool running = Running();
  status_.reset();
  if (!running) return {};
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
  return WaitUntil([] { return !PortListening(); }, Patience())
             ? "" : "port 51470 is still taken after the server was killed";
}

std::string Server::Log() const {
  static const std::regex logName("KVTnetd-S[0-9]{12}");
  for (const std::string& name : Listing(cwd_))
    if (std::regex_match(name, logName)) return ReadFile(cwd_ / name);
  return {};
}

// Memory of a Linux process, for the memory checks of the wire tests.
long long MemoryKb(pid_t pid, const std::string& field) {
  const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
  const std::size_t at = status.find("\n" + field + ":");
  return at == std::string::npos ? -1 : std::stoll(status.substr(at + field.size() + 2));
}

}  // namespace kvt::wire
