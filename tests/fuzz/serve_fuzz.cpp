// libFuzzer target: the input is one client's whole conversation, fed to the real command
// loop (ServeConnection) over a socket pair, against a data folder with spool files, gamut
// files, configurations, stored lists and pointer file, the stand-ins of the colour tool and
// of jobfeeder, and the scripted spooler in place of CUPS.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include "server/connection.h"
#include "spooler_double.h"
#include "toolkit/toolkit.h"

namespace fs = std::filesystem;

namespace {

fs::path root;  // everything the server may touch lies below root/data and root/tmp

using kvt::test::WriteFile;

// A conversation may delete, add or replace any of these files.
void MakeData() {
  const fs::path data = root / "data", corvina = data / "Corvina", gamut = corvina / "gamut";
  fs::remove_all(data);
  // The colour tool's files; the folder itself is the server's, made once and remembered.
  fs::create_directories(root / "tmp" / "Velmora");
  for (const auto& entry : fs::directory_iterator(root / "tmp" / "Velmora")) fs::remove_all(entry);
  std::string header(1248, '\0');
  header.replace(0, 9, "Proof.pdf");
  WriteFile(corvina / "spool" / "123456789012345.spl", header + "body");
  WriteFile(corvina / "spool" / "Short.spl", "only a few bytes");
  WriteFile(gamut / "Proofs" / "Over.gamut", std::string(9000, 'g'));
  WriteFile(gamut / "Proofs" / "Empty.gamut", "");
  WriteFile(gamut / "Proofs" / "Matte.cfg", "matte");
  WriteFile(gamut / "Proofs" / "Paper.matte.cfg", "pap");
  WriteFile(gamut / "Proofs" / "Paper.icc", "");
  WriteFile(gamut / "Proofs" / "Glossy.icm", "");
  WriteFile(corvina / "PrinterList", "A123456789");
  WriteFile(corvina / "ScannerList", std::string("\0xy", 3));
  WriteFile(data / "Velmora" / "Corvina", (root / "corvina").string() + "\n");
}

bool Inside(const char* path, const char* folder) {
  const std::string normal = fs::path(path).lexically_normal().string();
  return normal.starts_with((root / folder).string() + "/");
}

// Feeds the conversation and throws away the answers, so that the server never blocks on a
// full buffer; half-closes once all is sent, and ends when the server has closed its end.
void Converse(int fd, const std::uint8_t* data, std::size_t size) {
  bool sending = true;
  for (char sink[65536];;) {
    if (sending && size == 0) sending = false, ::shutdown(fd, SHUT_WR);
    pollfd p{fd, short(POLLIN | (sending ? POLLOUT : 0)), 0};
    if (::poll(&p, 1, -1) < 0) continue;
    if (p.revents & POLLOUT) {
      const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) data += n, size -= std::size_t(n);
      if (n < 0 && errno != EAGAIN) size = 0;  // the server has gone
    }
    if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
      const ssize_t n = ::recv(fd, sink, sizeof sink, MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EAGAIN)) return;
    }
  }
}

}  // namespace

// A client's path must never reach files outside the fuzzer's own folder: the delete and
// upload commands take whatever the input names. Linked in with --wrap.
extern "C" bool __real__ZN3kvt5files6RemoveEPKc(const char* path);
extern "C" long long __real__ZN3kvt5files7ReplaceEPKcPKvm(const char*, const void*, std::size_t);
extern "C" bool __wrap__ZN3kvt5files6RemoveEPKc(const char* path) {
  return Inside(path, "data") && __real__ZN3kvt5files6RemoveEPKc(path);
}
extern "C" long long __wrap__ZN3kvt5files7ReplaceEPKcPKvm(const char* path, const void* data,
                                                         std::size_t size) {
  return Inside(path, "data") ? __real__ZN3kvt5files7ReplaceEPKcPKvm(path, data, size) : -1;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string pattern = fs::temp_directory_path() / "kvt-fuzz-XXXXXX";
  root = fs::canonical(::mkdtemp(pattern.data()));
  std::atexit([] { fs::remove_all(root); });
  // The folders the server takes from its environment, read once and cached by it.
  ::setenv("ProgramData", (root / "data").c_str(), 1);
  ::setenv("ProgramFiles", (root / "programs").c_str(), 1);
  ::unsetenv("ProgramFiles(x86)");
  ::setenv("TMPDIR", (root / "tmp").c_str(), 1);
  ::unsetenv("KVT_STANDIN_DIR");  // the stand-ins record nothing
  const fs::path tool = root / "programs" / "KVT" / "ShadeProof" / "ShadeProof.exe";
  fs::create_directories(tool.parent_path());
  fs::create_directories(root / "corvina");
  fs::create_directories(root / "tmp");
  fs::copy_file(KVT_STANDIN_TOOL, tool);
  fs::copy_file(KVT_STANDIN_JOBFEEDER, root / "corvina" / "jobfeeder");
  std::snprintf(kvt::SpoolFolder, sizeof kvt::SpoolFolder, "%s/data/Corvina/spool", root.c_str());
  std::snprintf(kvt::GamutFolder, sizeof kvt::GamutFolder, "%s/data/Corvina/gamut", root.c_str());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Only uploads, deletions and colour tables change files: the folder is made again after
  // an input that holds one of their frames (a frame is dispatched only when it is there).
  static bool changed = true;
  if (changed) MakeData();
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  changed = false;
  for (const char code : {'\x03', '\x06', '\x07', '\x17'})
    changed |= input.find(std::string("KVT") + code) != std::string_view::npos;
  namespace fake = kvt::spooler::fake;
  fake::Reset();
  fake::Printers() = {{"KvtProofA", {{7}, {8, 0x1, "paused"}}}, {"KvtProofB", {{9}}}};
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) std::abort();
  std::thread client(Converse, pair[0], data, size);
  // Allocated as the listener does; ServeConnection closes the socket and releases it.
  auto* record = static_cast<kvt::ConnectionRecord*>(std::calloc(1, sizeof(kvt::ConnectionRecord)));
  record->socket = pair[1];
  kvt::ServeConnection(record);
  client.join();
  ::close(pair[0]);
  return 0;
}
