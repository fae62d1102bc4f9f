// The real server programs for the wire tests: the Linux kvtnetd and kvtnetd.exe under
// Wine, each started in folders of its own on the fixed port 51470.
#pragma once
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace kvt::wire {

namespace fs = std::filesystem;
using Milliseconds = std::chrono::milliseconds;

enum class Kind { kLinux, kWine };
inline void PrintTo(Kind kind, std::ostream* out) {
  *out << (kind == Kind::kWine ? "Wine" : "Linux");
}

// Why a server of this kind cannot run here; empty when it can.
std::string Unavailable(Kind kind);

// Polls `done` until it holds or `limit` has passed; the last answer.
bool WaitUntil(const std::function<bool()>& done, Milliseconds limit);

// Whether anything listens on TCP port 51470 of this machine.
bool PortListening();

std::string ReadFile(const fs::path& path);

// A program run: exit status (128 + signal when killed) and what it printed.
struct Outcome {
  std::optional<int> status;  // none: still running at the limit, then killed
  std::string out, err;
};
Outcome RunKvtctl(const std::vector<std::string>& args);

// One server kind with a fresh temporary working folder and a fresh data folder; starts and
// stops the program in them, any number of times.
class Server {
 public:
  explicit Server(Kind kind);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  Kind kind() const { return kind_; }
  pid_t pid() const { return pid_; }
  const fs::path& cwd() const { return cwd_; }  // the log goes here
  std::string Output() const { return ReadFile(cwd_ / "stdout"); }
  std::string Errors() const { return ReadFile(cwd_ / "stderr"); }
  Milliseconds Patience() const;  // how long a start or an exit may take

  // Spawns the program with these arguments; empty on success, else why not.
  std::string Start(const std::vector<std::string>& args);
  // Start, then wait until port 51470 accepts; refuses when the port is taken beforehand.
  std::string StartListening(const std::vector<std::string>& args = {});
  bool Running();
  std::optional<int> WaitExit();  // killed when not ended within Patience()
  // Kills the program and checks that port 51470 is free again; empty on success.
  std::string Stop();

 private:
  Kind kind_;
  fs::path root_, cwd_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace kvt::wire
