// libFuzzer target of the server: the real listener and command loop (RunListener,
// ServeConnection and every handler) on the in-memory machine, so that an input costs no
// disk, no process, no thread and no socket. The input is
//   3 bytes of setting (see Setting below), then up to 4 client conversations, each the
//   bytes one client sends before it closes its side, separated by kNextClient.
// Every conversation goes through the listener and is served to its end; the answers are
// counted and dropped. After the input no connection, file reader or printer may be left
// open: a leak is a finding, like a crash.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "memory/memory.h"
#include "platform/files.h"
#include "memory/spooler_double.h"
#include "server/connection.h"
#include "server/inline_commands.h"
#include "support/body_budget.h"

namespace {

using namespace kvt;
namespace fake = spooler::fake;

constexpr std::string_view kNextClient("\xFE\xFD\xFC\xFB", 4);
constexpr int kMaxClients = 4;
constexpr const char* kJobfeeder = "/corvina/jobfeeder";
constexpr const char* kTool = "/programs/KVT/ShadeProof/ShadeProof.exe";
constexpr std::size_t kReceiveLimits[] = {0, 1, 7, 64};

// The machine an input meets, from its first three bytes: see MakeMachine.
struct Setting {
  std::uint8_t a = 0x0C, b = 0, c = 0;  // with jobfeeder and the tool, nothing failing
};

// The files every input starts from, made once: Reset brings them back after an input
// that changed them.
void MakeFiles() {
  memory::Reset();
  const std::string corvina = std::string(memory::kCommonData) + "/Corvina/";
  std::string header(1248, '\0');
  header.replace(0, 9, "Proof.pdf");
  header.replace(922, 15, "123456789012345");
  memory::PutFile(corvina + "spool/123456789012345.spl", header + "body", 1000);
  memory::PutFile(corvina + "spool/Short.spl", "only a few bytes", 1001);
  memory::PutFile(corvina + "spool/Huge.spl", "", 1002, std::int64_t{1} << 31);
  memory::PutFolder(corvina + "spool/Folder.spl");
  memory::PutFile(corvina + "gamut/Proofs/Over.gamut", std::string(9000, 'g'), 5000);
  memory::PutFile(corvina + "gamut/Proofs/Empty.gamut", "", 5001);
  memory::PutFile(corvina + "gamut/Proofs/Shrunk.gamut", "abc", 5002, 20000);
  memory::PutFile(corvina + "gamut/Proofs/Bad.gamut", std::string(100, 'b'), 5003);
  memory::BreakReads(corvina + "gamut/Proofs/Bad.gamut", 10);
  memory::PutFile(corvina + "gamut/Proofs/Matte.cfg", "matte", 7000);
  memory::PutFile(corvina + "gamut/Proofs/Paper.matte.cfg", "pap", 6000);
  memory::PutFile(corvina + "gamut/Proofs/Paper.icc", "", 6500);
  memory::PutFile(corvina + "gamut/Proofs/Glossy.icm", "", 6600);
  memory::PutFile(corvina + "gamut/Proofs/Glossy.cfg", "g", 6100);
  memory::PutFile(corvina + "PrinterList", "A123456789");
  memory::PutFile(corvina + "ScannerList", std::string("\0xy", 3));
  memory::PutFile(std::string(memory::kCommonData) + "/Velmora/Corvina", "/corvina\r\n");
  memory::PutFile(kJobfeeder, "");
  memory::PutFile(kTool, "");
  memory::KeepFiles();
}

void MakeMachine(const Setting& s) {
  static constexpr std::uint32_t kCodes[] = {0, 1, 2, 7, 127, 255, 256, 0xFFFFFFFF};
  memory::Reset();
  NameCounter = 0;
  // a: bits 0-1 the receive limit (in the input loop), 2 jobfeeder there, 3 the tool there,
  // 4 hand-offs fail, 5 entries joined into one command line, 6 the printer listing fails,
  // 7 the client takes only part of the answers (the input loop).
  if (!(s.a & 0x04)) files::Remove(kJobfeeder);
  if (!(s.a & 0x08)) files::Remove(kTool);
  memory::FailHandOffs(s.a & 0x10);
  memory::SetJoinsEntries(s.a & 0x20);
  fake::FailPrinterListing(s.a & 0x40);
  // b: bits 0-2 the programs' exit code, 3-4 the usable memory (the body budget is half of
  // it: small enough that no input allocates much), 5-6 accepts that fail (1), fail for lack
  // of descriptors (2) or a thread that can't start (3), 7 the disk fills.
  memory::SetExitCode(kCodes[s.b & 7]);
  memory::SetUsableMemory(std::uint64_t{64} << (10 + 4 * ((s.b >> 3) & 3)));
  const int failures = (s.b >> 5) & 3;
  if (failures == 3) memory::FailThreadStarts(1);
  else if (failures > 0) memory::FailAccepts(failures, failures == 2);
  if (s.b & 0x80) memory::LimitWrites(2000);
  // c: bits 0-2 the host's addresses, 3 printers that can't be opened or listed, 4-7 the
  // client resets after 2^n bytes (the input loop).
  std::vector<std::uint32_t> addresses;
  for (int i = 0; i < (s.c & 7); ++i) addresses.push_back(0xC0A80001 + std::uint32_t(i % 6));
  memory::SetHostAddresses(addresses);
  const bool broken = s.c & 0x08;
  fake::Printers() = {
      {"KvtProofA", {{7}, {8, spooler::kJobPaused, "paused"}, {9, spooler::kJobSpooling}}},
      {"KvtProofB", {{10, spooler::kJobPrinting | spooler::kJobError}}, broken},
      {std::string(170, 'L'), {{11}}},
      {"KvtProofC", {{12}}, false, broken}};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  MakeFiles();
  SetBodyBudgetWait(0);  // connections are served one after the other: nobody gives back
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  Setting setting;
  if (input.size() >= 3) {
    setting = {std::uint8_t(input[0]), std::uint8_t(input[1]), std::uint8_t(input[2])};
    input.remove_prefix(3);
  }
  MakeMachine(setting);

  std::vector<net::Socket> clients;
  for (int i = 0; i < kMaxClients && (i == 0 || !input.empty()); ++i) {
    const std::size_t end = input.find(kNextClient);
    const std::string_view conversation = input.substr(0, end);
    input.remove_prefix(end == std::string_view::npos ? input.size() : end + kNextClient.size());
    const memory::Pair pair = memory::Connect();
    memory::Discard(pair.client);
    memory::LimitReceives(pair.server, kReceiveLimits[setting.a & 3]);
    if (setting.a & 0x80) memory::BreakAfter(pair.client, std::size_t{1} << (setting.c >> 4));
    memory::Write(pair.client, conversation, true);
    memory::QueueForAccept(pair.server);
    clients.push_back(pair.client);
  }
  RunListener();  // returns once every queued connection has been served

  for (net::Socket client : clients) net::Close(client);
  if (memory::OpenSockets() != 0 || memory::OpenReaders() != 0 || fake::OpenHandles() != 0)
    std::abort();  // something the server opened was never closed
  memory::Reset();  // what the input made is freed with it, as libFuzzer's leak check wants
  return 0;
}
