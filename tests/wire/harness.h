// The real server programs for the wire tests: the Linux kvtnetd and kvtnetd.exe under
// Wine, each started in folders of its own on the fixed port 51470, and what the tests of
// both share.
#pragma once
#include <gtest/gtest.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "client/client.h"
#include "toolkit/toolkit.h"

namespace kvt::wire {

using namespace ::kvt::test;

enum class Kind { kLinux, kWine };
using Words = std::vector<std::string>;  // a command line's words, or the lines of records

// The threads, open descriptors and child processes (zombies among them) of a Linux process.
using Holding = std::tuple<long, long, int>;
Holding Holdings(pid_t pid);
// A Linux server's holdings while no client is connected, taken once a connection has been
// made and has ended: ThreadSanitizer's runtime starts a thread of its own with the first
// connection's thread, and then belongs to the baseline. None when the server does not settle.
std::optional<Holding> IdleHoldings(pid_t pid);
// Waits until a Linux server holds no more than `idle` (children exactly as many); a failed
// expectation naming both when it does not within the deadline.
void ExpectSettled(pid_t pid, const Holding& idle);

// A program run: exit status (128 + signal when killed) and what it printed.
struct Outcome {
  std::optional<int> status;  // none: still running at the limit, then killed
  std::string out, err;
};
// kvtctl with these arguments; `env` adds NAME=value entries to its environment.
Outcome RunKvtctl(const std::vector<std::string>& args, const std::vector<std::string>& env = {});

// One server kind with a fresh temporary working folder and a fresh data folder; starts and
// stops the program in them, any number of times.
class Server {
 public:
  explicit Server(Kind kind);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  pid_t pid() const { return pid_; }
  const fs::path& cwd() const { return cwd_; }  // the log goes here
  std::string Output() const { return ReadFile(cwd_ / "stdout"); }
  std::string Errors() const { return ReadFile(cwd_ / "stderr"); }
  // The debug log in the working folder (not its console copy), empty when there is none yet.
  std::string Log() const;
  Milliseconds Patience() const;  // how long a start or an exit may take

  // The server's gamut folder (Corvina/gamut below its common data folder).
  fs::path Gamut() const { return data_ / "Corvina" / "gamut"; }
  // Where the server looks for the colour tool, and the folder in which the stand-ins
  // record their calls (KVT_STANDIN_DIR in the server's environment).
  fs::path Tool() const { return programs_ / "KVT" / "ShadeProof" / "ShadeProof.exe"; }
  StandinRecords Records() const { return StandinRecords(root_ / "standin"); }
  // Puts the stand-in of this kind's build where the server looks for the tool.
  void InstallTool() const;
  // Puts the stand-in jobfeeder of this kind's build into `folder` and points the pointer file of "Corvina" there; the
  // installed program's path.
  fs::path InstallJobfeeder(const fs::path& folder) const;
  fs::path Corvina() const { return data_ / "Corvina"; }
  fs::path Spool() const { return Corvina() / "spool"; }
  fs::path Pointer() const { return data_ / "Velmora" / "Corvina"; }
  // Where the server stores colour tables: its private temporary folder, as this machine
  // sees it.
  fs::path TableFolder() const;
  // Programs that the server is started through, each of which ends by running the rest of
  // the command (prlimit, unshare): a limit or a mount namespace for the server alone.
  void WrapWith(std::vector<std::string> wrapper) { wrapper_ = std::move(wrapper); }
  // A path of this machine as the server names it (Wine's Z: drive).
  std::string ServerPath(const fs::path& path) const;

  // Spawns the program with these arguments; empty on success, else why not.
  std::string Start(const std::vector<std::string>& args);
  // Start, then wait until port 51470 accepts; refuses when the port is taken beforehand.
  std::string StartListening(const std::vector<std::string>& args = {});
  bool Running();
  std::optional<int> WaitExit();  // killed when not ended within Patience()
  // Kills the program and checks that port 51470 is free again; empty on success.
  std::string Stop();

 private:
  fs::path Standin(const char* onLinux, const char* onWindows) const;
  void ForgetWineFolders() const;
  Kind kind_;
  ScratchFolder scratch_;  // removed with the server, once it is stopped
  fs::path root_ = scratch_.path, cwd_ = root_ / "cwd", data_ = root_ / "data",
           programs_ = root_ / "programs";
  std::vector<std::string> wrapper_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// A connection that has done the opening exchange (a failed expectation when it can't),
// waiting `timeoutMs` for each answer (0: the client's default).
client::Connection Opened(const client::Marker& marker = client::kLittleEndianMarker,
                          int timeoutMs = 0);
// Nothing has arrived and the server serves the next frame: a fresh job name is the first
// thing to come.
void ExpectWaiting(client::Connection& c);
// The job listing's records as sent (a failed expectation when the exchange fails).
std::string Jobs(client::Connection& c);
// Exactly `count` bytes of an answer (a failed expectation when they don't come).
std::string Receive(client::Connection& c, std::size_t count);
// Sends `bytes` on a new connection, then half-closes: all the server sends until it closes
// the connection.
std::string AnswerOf(const std::string& bytes);
// An upload of `body` under `name` through the client library: true when stored, false when
// refused, none (with a failed expectation) when the exchange broke.
std::optional<bool> Upload(client::Connection& c, std::string_view name, const std::string& body);

// A suite's tests against the Linux program and against the Windows program under Wine.
#define KVT_ON_BOTH_KINDS(suite)                                            \
  INSTANTIATE_TEST_SUITE_P(Linux, suite, ::testing::Values(Kind::kLinux)); \
  INSTANTIATE_TEST_SUITE_P(Wine, suite, ::testing::Values(Kind::kWine))

// Tests of one server kind; they skip when the kind can't run here.
class KindTest : public ::testing::TestWithParam<Kind> {
 protected:
  void SetUp() override;
  bool OnWine() const { return GetParam() == Kind::kWine; }
};

// Tests on one server per test suite, started by the suite's first test and shared by the
// rest.
class ServerSuite : public KindTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  static void TearDownTestSuite();
  static inline std::unique_ptr<Server> server_;
  static inline std::string startError_;
};

// Memory of a Linux process, for checks that the server takes no block it must not: a field
// of /proc/PID/status in kB ("VmPeak", "VmHWM"), -1 when there is none.
long long MemoryKb(pid_t pid, const std::string& field);

}  // namespace kvt::wire
