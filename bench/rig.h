// What the benchmark runs against: the real kvtnetd in private folders, a minimal server of
// the same design as the baseline, timed runs of other programs, and the /proc figures.
#pragma once
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvt::bench {

namespace fs = std::filesystem;

// kvtnetd from this build on port 51470, with its common data folder, program folder and
// temporary folder below `root`. The pointer file "Velmora/Corvina" names a folder whose
// `jobfeeder` is /bin/true, so every stored upload starts a real (if trivial) program.
class Kvtnetd {
 public:
  explicit Kvtnetd(const fs::path& root);
  ~Kvtnetd() { Stop(); }
  bool Start();  // spawns it and waits until it answers the opening exchange
  void Stop();
  pid_t pid() const { return pid_; }
  fs::path Spool() const { return root_ / "data" / "Corvina" / "spool"; }
  fs::path Gamut() const { return root_ / "data" / "Corvina" / "gamut"; }
  // The program a stored upload starts (a copy of /bin/true).
  fs::path Jobfeeder() const { return root_ / "programs" / "Corvina" / "jobfeeder"; }
  // Writes the pointer file "Velmora/Corvina": `folder`, or by default the folder of the
  // /bin/true stand-in.
  void PointJobfeederAt(const std::string& folder) const;

 private:
  fs::path root_;
  pid_t pid_ = -1;
};

// The baseline: a minimal thread-per-connection TCP server (one detached thread with the
// default stack per connection, a listen backlog of 5) that moves the same bytes as
// KVTnetd's commands: the opening marker and byte, 4 bytes in and 16 out for a job name, a
// body received whole into a buffer kept warm from upload to upload and written once into
// `folder`, a gamut file from `folder` sent in 8,192-byte writes, and the end of the
// connection on code 0. With a `program`, a stored upload also starts it before the answer,
// through the same launcher as KVTnetd's jobfeeder.
class RawServer {
 public:
  RawServer(std::uint16_t port, const fs::path& folder, const fs::path& program = {});
  ~RawServer();
  bool listening() const { return listener_ >= 0; }

 private:
  void Serve(int socket);
  int listener_ = -1;
  fs::path folder_, program_;
  std::thread acceptor_;
  std::atomic<int> live_{0};
  std::mutex spareMutex_;
  std::vector<char> spare_;  // the largest body buffer so far, between uploads
};

// Starts a program (standard input and output on /dev/null) with the benchmark's
// environment plus `extraEnv`; its process id, or -1.
pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {});

// Runs a program to its end (standard output and error to /dev/null); its wall time in
// seconds, or a negative number when it failed.
double TimeRun(const std::vector<std::string>& argv);

// From /proc: resident memory in KiB, threads and open descriptors of a process.
struct Holdings {
  long rssKiB = 0, threads = 0, descriptors = 0;
};
Holdings HoldingsOf(pid_t pid);

// Connections the kernel refused because a listener's accept queue was full (this network
// namespace, since it started).
long ListenOverflows();

// Writes `size` bytes of a varied pattern to `path`, creating its folder.
void WritePattern(const fs::path& path, std::size_t size);

}  // namespace kvt::bench
