// Stand-in for the print-feeding program, for tests. Each start writes a record file
// "jobfeeder-start-..." in the folder named by KVT_STANDIN_DIR: one line, the time in
// milliseconds since 1970, then each argument after the program's own name, each after a tab.
// Without "-l", when that folder holds "jobfeeder-hold" as it starts, it stays while the file
// is there (at most a minute) and records its end ("jobfeeder-end-...") before it exits.
// Without KVT_STANDIN_DIR it records nothing.
// With "-l" it takes the connection from the record on its standard input, sends "JOBFEED\n",
// echoes one byte from the client and exits; a record longer than 372 bytes (more waiting
// behind it) gets no greeting.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#if defined(_WIN32)
#include <winsock2.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace {

constexpr int kRecordSize = 372;

#if defined(_WIN32)
using Socket = SOCKET;
const Socket kNone = INVALID_SOCKET;

Socket TakeSocket() {
  WSAPROTOCOL_INFOA info;
  static_assert(sizeof info == kRecordSize);
  char* bytes = reinterpret_cast<char*>(&info);
  DWORD got = 0;
  for (DWORD n = 0; got < sizeof info; got += n)
    if (!ReadFile(GetStdHandle(STD_INPUT_HANDLE), bytes + got, sizeof info - got, &n, nullptr) ||
        n == 0)
      return kNone;
  WSADATA data;
  if (WSAStartup(0x0202, &data) != 0) return kNone;
  DWORD more = 0;
  if (!PeekNamedPipe(GetStdHandle(STD_INPUT_HANDLE), nullptr, 0, nullptr, &more, nullptr) || more)
    return kNone;
  return WSASocketA(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0, 0);
}
void CloseSocket(Socket s) { closesocket(s); }
#else
using Socket = int;
const Socket kNone = -1;

// The descriptor rides on the record's first byte; the record may come in several parts.
Socket TakeSocket() {
  char record[kRecordSize];
  Socket s = kNone;
  for (std::size_t got = 0; got < sizeof record;) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec part{record + got, sizeof record - got};
    msghdr message{};  // no address: a socket pair
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t n = recvmsg(0, &message, MSG_CMSG_CLOEXEC);
    if (n <= 0 || (message.msg_flags & MSG_CTRUNC)) return kNone;
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c))
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS &&
          c->cmsg_len == CMSG_LEN(sizeof(int)))
        std::memcpy(&s, CMSG_DATA(c), sizeof s);
    got += static_cast<std::size_t>(n);
  }
  char more;
  if (recv(0, &more, 1, MSG_DONTWAIT) > 0) {
    close(s);
    return kNone;
  }
  return s;
}
void CloseSocket(Socket s) { close(s); }
#endif

// Each record is a file of its own, "<kind>-<time in ms, 15 digits>-<random number>", made
// whole in one write: stand-ins started at once never touch the same file (Wine's appends to
// one shared file could lose a line).
void Record(const std::string& kind, int argc, char** argv) {
  using namespace std::chrono;
  const auto ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  std::string line = std::to_string(ms);
  for (int i = 1; i < argc; ++i) line += std::string("\t") + argv[i];
  line += "\n";
  char name[64];
  std::snprintf(name, sizeof name, "-%015lld-%u", static_cast<long long>(ms),
                unsigned(std::random_device{}()));
  std::FILE* out = std::fopen((kind + name).c_str(), "wb");
  if (out == nullptr) return;  // shows as a missing record in the test
  std::fwrite(line.data(), 1, line.size(), out);
  std::fclose(out);
}

}  // namespace

int main(int argc, char** argv) {
  const char* dir = std::getenv("KVT_STANDIN_DIR");
  const std::string folder = dir != nullptr ? dir : "";
  const std::string hold = folder + "/jobfeeder-hold";
  const bool feeding = argc < 2 || std::string(argv[1]) != "-l";
  // Held or not is settled before the start is recorded: a test lifts the hold as soon as it
  // sees the start, and the end must be recorded all the same.
  const bool held = feeding && !folder.empty() && std::filesystem::exists(hold);
  if (!folder.empty()) Record(folder + "/jobfeeder-start", argc, argv);
  if (feeding) {
    for (int waited = 0; held && waited < 3000 && std::filesystem::exists(hold); ++waited)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // a minute at the most
    if (held) Record(folder + "/jobfeeder-end", 1, argv);
    return 0;
  }
  Socket s = TakeSocket();
  if (s == kNone) return 2;
  char byte = 0;
  int ok =
      send(s, "JOBFEED\n", 8, 0) == 8 && recv(s, &byte, 1, 0) == 1 && send(s, &byte, 1, 0) == 1;
  CloseSocket(s);
  return ok ? 0 : 3;
}
