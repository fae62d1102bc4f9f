#include "rig.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "client/client.h"
#include "measure.h"
#include "platform/launch.h"

extern char** environ;

namespace kvt::bench {

namespace {

bool ReadAll(int fd, void* data, std::size_t count) {
  auto* bytes = static_cast<char*>(data);
  while (count > 0) {
    ssize_t n = ::recv(fd, bytes, count, 0);
    if (n <= 0) return false;
    bytes += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

bool WriteAll(int fd, const void* data, std::size_t count) {
  const auto* bytes = static_cast<const char*>(data);
  while (count > 0) {
    ssize_t n = ::send(fd, bytes, count, MSG_NOSIGNAL);
    if (n <= 0) return false;
    bytes += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

std::uint32_t Le32(const std::uint8_t* b) {
  return std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8 | std::uint32_t{b[2]} << 16 |
         std::uint32_t{b[3]} << 24;
}

void PutLe32(std::uint8_t* b, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::string ReadText(const fs::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
  env.insert(env.end(), extraEnv.begin(), extraEnv.end());
  std::vector<char*> args, vars;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (const std::string& v : env) vars.push_back(const_cast<char*>(v.c_str()));
  args.push_back(nullptr);
  vars.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), vars.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

Kvtnetd::Kvtnetd(const fs::path& root) : root_(root) {
  const fs::path programs = root_ / "programs";
  fs::create_directories(Spool());
  fs::create_directories(Gamut());
  fs::create_directories(programs / "Corvina");
  fs::create_directories(root_ / "data" / "Velmora");
  fs::copy_file("/bin/true", programs / "Corvina" / "jobfeeder",
                fs::copy_options::overwrite_existing);
  PointJobfeederAt({});
}

void Kvtnetd::PointJobfeederAt(const std::string& folder) const {
  const fs::path standin = root_ / "programs" / "Corvina";
  std::ofstream(root_ / "data" / "Velmora" / "Corvina")
      << (folder.empty() ? standin.string() : folder) << "\n";
}

bool Kvtnetd::Start() {
  Stop();
  pid_ = Spawn({KVT_BENCH_SERVER},
               {"ProgramData=" + (root_ / "data").string(),
                "ProgramFiles=" + (root_ / "programs").string(), "TMPDIR=" + root_.string()});
  if (pid_ < 0) return false;
  for (int i = 0; i < 200; ++i) {
    if (client::Ping("127.0.0.1", client::kDefaultPort, client::ByteOrder::kLittle).empty())
      return true;
    if (::waitpid(pid_, nullptr, WNOHANG) == pid_) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  Stop();
  return false;
}

void Kvtnetd::Stop() {
  if (pid_ < 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

RawServer::RawServer(std::uint16_t port, const fs::path& folder, const fs::path& program)
    : folder_(folder), program_(program) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, 5) != 0) {
    ::close(listener_);
    listener_ = -1;
    return;
  }
  acceptor_ = std::thread([this] {
    for (;;) {
      int s = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (s < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        return;  // the listener was shut down
      }
      ++live_;
      std::thread([this, s] {
        Serve(s);
        ::close(s);
        --live_;
      }).detach();
    }
  });
}

RawServer::~RawServer() {
  if (listener_ < 0) return;
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  ::close(listener_);
  while (live_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

void RawServer::Serve(int s) {
  std::uint8_t marker[4];
  if (!ReadAll(s, marker, 4) || !WriteAll(s, "\x01", 1)) return;
  for (;;) {
    std::uint8_t frame[4];
    if (!ReadAll(s, frame, 4)) return;
    switch (frame[3]) {
      case 0:
        return;
      case 5: {
        const char name[16] = "123456789012345";
        if (!WriteAll(s, name, sizeof name)) return;
        break;
      }
      case 3: {
        std::uint8_t head[20];
        if (!ReadAll(s, head, sizeof head)) return;
        const std::uint32_t length = Le32(head + 16);
        std::vector<char> body;
        {
          std::lock_guard lock(spareMutex_);
          body.swap(spare_);
        }
        if (body.size() < length) body.resize(length);
        const bool received = ReadAll(s, body.data(), length);
        if (!received) return;
        const fs::path path = folder_ / "raw-upload.spl";
        // Written over and cut to length, as the server does (cutting to 0 first costs a
        // flush on ext4).
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        std::size_t written = 0;
        for (ssize_t n = 0; fd >= 0 && written < length; written += static_cast<std::size_t>(n))
          if ((n = ::write(fd, body.data() + written, length - written)) <= 0) break;
        if (fd >= 0 && ::ftruncate(fd, static_cast<off_t>(written)) != 0) written = 0;
        if (fd >= 0) ::close(fd);
        {
          std::lock_guard lock(spareMutex_);
          if (body.size() > spare_.size()) body.swap(spare_);
        }
        const std::uint8_t answer = written == length;
        if (answer && !program_.empty()) {
          const char* argv[] = {program_.c_str(), nullptr};
          launch::StartNoWait(argv[0], argv);  // as KVTnetd starts jobfeeder
        }
        if (!WriteAll(s, &answer, 1)) return;
        break;
      }
      case 4: {
        char fields[140] = {};
        if (!ReadAll(s, fields, sizeof fields)) return;
        const fs::path path = folder_ / fields / (std::string(fields + 100) + ".gamut");
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info {};
        std::uint8_t header[8] = {};
        if (fd >= 0 && ::fstat(fd, &info) == 0) {
          PutLe32(header, static_cast<std::uint32_t>(info.st_mtime));
          PutLe32(header + 4, static_cast<std::uint32_t>(info.st_size));
        }
        bool sent = WriteAll(s, header, sizeof header);
        char buffer[8192];
        for (ssize_t n; sent && fd >= 0 && (n = ::read(fd, buffer, sizeof buffer)) > 0;)
          sent = WriteAll(s, buffer, static_cast<std::size_t>(n));
        if (fd >= 0) ::close(fd);
        if (!sent) return;
        break;
      }
      default:
        return;
    }
  }
}

double TimeRun(const std::vector<std::string>& argv) {
  const double start = Now();
  pid_t pid = Spawn(argv, {});
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0)
    return -1;
  return Now() - start;
}

Holdings HoldingsOf(pid_t pid) {
  const fs::path proc = "/proc/" + std::to_string(pid);
  Holdings h;
  std::istringstream status(ReadText(proc / "status"));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) h.rssKiB = std::stol(line.substr(6));
    if (line.starts_with("Threads:")) h.threads = std::stol(line.substr(8));
  }
  std::error_code error;
  for (fs::directory_iterator it(proc / "fd", error), end; !error && it != end; it.increment(error))
    ++h.descriptors;
  return h;
}

long ListenOverflows() {
  // Two "TcpExt:" lines: the names, then the values in the same order.
  std::istringstream netstat(ReadText("/proc/net/netstat"));
  std::vector<std::string> names;
  for (std::string line; std::getline(netstat, line);) {
    if (!line.starts_with("TcpExt:")) continue;
    std::istringstream words(line.substr(7));
    std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
    if (names.empty()) {
      names = fields;
      continue;
    }
    for (std::size_t i = 0; i < names.size() && i < fields.size(); ++i)
      if (names[i] == "ListenOverflows") return std::stol(fields[i]);
  }
  return -1;
}

void WritePattern(const fs::path& path, std::size_t size) {
  fs::create_directories(path.parent_path());
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
}

}  // namespace kvt::bench
