// Requests cut off at every byte, and bad values in their length and name fields, against
// both programs: each gets its designed answer, the server serves the next request or
// connection, keeps nothing of the ended ones, and stores, runs or starts nothing for a
// request that never fully arrived or that it refuses.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "harness.h"

namespace kvt::wire {
namespace {

using namespace std::string_literals;

constexpr std::uint32_t kTime = 1700000000;
const std::string kZero(1, '\0'), kZero4(4, '\0'), kZero8(8, '\0'), kMarker = "\x04\x03\x02\x01";

// The cut points of a request of `size` bytes: every one up to 64, then about two dozen; a
// request of no bytes is sent whole and the client leaves before the answer.
std::vector<std::size_t> CutPoints(std::size_t size) {
  std::vector<std::size_t> cuts;
  const std::size_t step = size > 64 ? (size - 64) / 24 + 1 : 1;
  for (std::size_t k = 0; k < std::max<std::size_t>(size, 1); ++k)
    if (k <= 64 || k % step == 0 || k == size - 1) cuts.push_back(k);
  return cuts;
}

// A colour table request cut after `k` bytes is served with zeros for every byte that did
// not arrive, the lengths included: the data stored is that of the zero-padded request.
std::string TableOfCut(const std::string& request, std::size_t k) {
  const std::string padded = Field(request.substr(0, k), request.size());
  auto le32 = [&](std::size_t at) {  // as is this host
    std::uint32_t value;
    return std::memcpy(&value, &padded[at], 4), value;
  };
  return Field(padded.substr(8 + le32(0)), le32(4 + le32(0)));
}

// The colour tables stored since the last call (each removed once read).
std::vector<std::string> TakeTables(const fs::path& folder) {
  std::vector<std::string> tables;
  for (const std::string& name : Listing(folder))
    tables.push_back(ReadFile(folder / name)), fs::remove(folder / name);
  return tables;
}

class CutTest : public ServerSuite {};

TEST_P(CutTest, EveryCommandCutAtEveryByte) {
  // Under Wine too: each Windows thread and socket is a thread and descriptor of the process.
  const auto idle = IdleHoldings(server_->pid());
  ASSERT_TRUE(idle) << "the server does not settle";
  // Files that a complete request would store over, remove or send.
  const fs::path victim = server_->Gamut() / "victim";
  WriteFile(server_->Spool() / "Keep.spl", "the old spool file");
  WriteFile(victim, "victim");
  const std::string gamut = Pattern(3000), sentGamut = Le32(kTime) + Le32(3000) + gamut,
                    body = Pattern(100000, 1), table = Pattern(1000, 2);
  WriteFile(server_->Gamut() / "Proofs" / "Cut.gamut", gamut, kTime);
  const auto spoolBefore = Listing(server_->Spool());
  TakeTables(server_->TableFolder());
  // The opening marker cut short: nothing is answered and the connection ends.
  for (std::size_t k = 0; k < 4; ++k) EXPECT_EQ(AnswerOf(kMarker.substr(0, k)), "");
  // What each request cut short is answered: a short name, path or length refuses; the
  // other commands are served with zeros for what did not come, the colour tool being
  // absent. Commands without a request are sent whole (their answers are checked elsewhere).
  const std::tuple<int, std::string, std::optional<std::string>> requests[] = {
      {-1, Frame(23), ""},  // the frame itself
      {1, "", {}}, {2, "", kZero}, {5, "", {}}, {8, "", {}}, {10, "", kZero},
      {3, Field("Keep", 16) + Le32(std::uint32_t(body.size())) + body, kZero},
      {4, Field("Proofs", 100) + Field("Cut", 40), kZero8},
      {6, Field("Keep", 16), kZero},
      {7, Field(server_->ServerPath(victim), 512), kZero},
      {9, Field("first", 80) + Field("second", 80), ""},
      {11, Field("Proofs", 80), kZero4},
      {23, Le32(3) + "Tab" + Le32(std::uint32_t(table.size())) + table, kZero4}};
  for (const auto& [code, request, cut] : requests) {
    for (std::size_t k : CutPoints(request.size())) {
      SCOPED_TRACE("code " + std::to_string(code) + " cut after " + std::to_string(k));
      const std::string frame = code < 0 ? "" : Frame(code);
      const std::string answer = AnswerOf(kMarker + frame + request.substr(0, k));
      ASSERT_EQ(answer.substr(0, 1), "\x01");  // the server took this new connection
      // A gamut request whose name "Cut" came whole sends the file.
      const auto expected = code == 4 && k >= 103 ? sentGamut : cut.value_or(answer.substr(1));
      EXPECT_EQ(answer.substr(1), expected);
      if (code == 23) {
        EXPECT_EQ(TakeTables(server_->TableFolder()), std::vector{TableOfCut(request, k)});
      }
    }
  }
  EXPECT_EQ(Listing(server_->Spool()), spoolBefore);
  EXPECT_EQ(ReadFile(server_->Spool() / "Keep.spl"), "the old spool file");
  EXPECT_EQ(ReadFile(victim), "victim");
  {
    // Then 64 clients at once, each answered while all the earlier ones are still open: code
    // 12 brings nothing (the close would see it). Half close, the others leave without a word.
    std::vector<client::Connection> clients(64);
    for (client::Connection& c : clients)
      ASSERT_TRUE(c.Connect("127.0.0.1") && c.Open() && c.SendFrame(12)) << c.error();
    for (std::size_t i = 0; i < clients.size(); i += 2)
      EXPECT_TRUE(clients[i].SendClose()) << clients[i].error();
  }
  ExpectSettled(server_->pid(), *idle);  // nothing of the ended connections stays
}

TEST_P(CutTest, BadValuesGetTheirDesignedAnswer) {
  const std::string d99(99, 'd'), d100(100, 'd'), c79(79, 'c'), c80(80, 'c');
  for (const auto& file : {d99 + "/G.gamut", d100 + "/G.gamut", c79 + "/A.cfg", c80 + "/A.cfg"})
    WriteFile(server_->Gamut() / file, "99", kTime);
  for (const char* name : {"SixteenCharName.spl", "SixteenCharNameX.spl"})
    WriteFile(server_->Spool() / name, "x");
  fs::create_directories(server_->Gamut() / "Proofs" / "Dir.gamut");
  // The tool answers 5 and jobfeeder is in place: a refusal shows as neither running.
  const StandinRecords records = server_->Records();
  server_->InstallTool();
  records.SetToolExit(5);
  server_->InstallJobfeeder(records.folder() / "programs");
  const std::string data(5000, 'z');
  // Each request whole, then a request for a job name where the server must still find it:
  // all the server sends after the opening byte until it ends the connection. The last two
  // rows must run the tool and start jobfeeder; so no row before them did.
  struct Row {
    std::string what, request, answer;
    bool next = true;  // a fresh job name follows the answer
  };
  std::vector<Row> rows = {
      {"gamut folder without NUL", Frame(4) + Field(d100, 100) + Field("G", 40), kZero8},
      {"gamut name without NUL", Frame(4) + Field("Proofs", 100) + std::string(40, 'n'), kZero8},
      {"gamut name of a folder", Frame(4) + Field("Proofs", 100) + Field("Dir", 40), kZero8},
      {"gamut folder of 99", Frame(4) + Field(d99, 100) + Field("G", 40),
       Le32(kTime) + Le32(2) + "99"},
      {"configuration folder of 80", Frame(11) + Field(c80, 80), kZero4},
      {"configuration folder of 79", Frame(11) + Field(c79, 80),
       Le32(1) + Field("A\0cfg"s, 40) + Le32(2) + kZero4},
      {"cancel name without NUL", Frame(6) + "SixteenCharNameX", "\x01"s},
      {"delete path without NUL", Frame(7) + std::string(512, 'p'), kZero},
      {"quit fields without NUL", Frame(9) + std::string(160, 'q'), "", false},
      {"colour table name with a quote", Frame(23) + Le32(7) + "Gl\"ossy" + Le32(5000) + data,
       kZero4},
      {"colour table name of 4097 bytes (the most is 4096)",
       Frame(23) + Le32(4097) + std::string(4097, 'n') + Le32(5000) + data, kZero4}};
  for (std::string name : {"../up", "a/b", "a\\b", "C:up", "..", "x..y", "NNNNNNNNNNNNNNNN"})
    rows.push_back({"upload name " + name, Frame(3) + Field(name, 16) + Le32(5000) + data, kZero});
  // Over the ceilings (1 GiB of upload, 4096 bytes of name, 256 MiB of table data): what
  // comes is dropped until the client leaves.
  for (std::uint32_t huge : {(1u << 30) + 1, 1u << 31, 0xFFFFFFFFu}) {
    const std::string n = std::to_string(huge), huge4 = Le32(huge);
    rows.push_back({"upload of " + n, Frame(3) + Field("Huge", 16) + huge4 + data, kZero, false});
    rows.push_back({"colour table name of " + n, Frame(23) + huge4 + data, kZero4, false});
    rows.push_back({"colour table data of " + n, Frame(23) + Le32(1) + "T" + huge4 + data, kZero4,
                    false});
  }
  rows.push_back({"colour table of lengths 0", Frame(23) + Le32(0) + Le32(0), Le32(5)});
  rows.push_back({"upload of length 0", Frame(3) + Field("Zero", 16) + Le32(0), "\x01"s});

  auto spool = Listing(server_->Spool());
  const auto corvina = Listing(server_->Corvina());
  const std::size_t starts = records.Starts().size();
  // The peaks of the address space and, reset to what is held now, of the resident memory.
  const pid_t pid = server_->pid();
  WriteFile("/proc/" + std::to_string(pid) + "/clear_refs", "5");
  const long long peaks = MemoryKb(pid, "VmPeak") + MemoryKb(pid, "VmHWM");
  TakeTables(server_->TableFolder());
  const std::regex fresh(std::string("[0-9]{15}") + '\0'), nothing("");
  for (const Row& row : rows) {
    const std::string head = "\x01" + row.answer;
    const std::string answer = AnswerOf(kMarker + row.request + (row.next ? Frame(5) : ""));
    EXPECT_TRUE(answer.starts_with(head) &&
                std::regex_match(answer.substr(head.size()), row.next ? fresh : nothing))
        << row.what << ": " << ::testing::PrintToString(answer);
    // The tool ran for the table answered 5 alone: a call is over before its answer.
    EXPECT_EQ(records.TakeToolCall().has_value(), row.answer == Le32(5)) << row.what;
  }
  // One table stored, of lengths 0; one upload stored, and exactly one start of jobfeeder.
  EXPECT_EQ(TakeTables(server_->TableFolder()), std::vector<std::string>{""});
  EXPECT_EQ(records.WaitForStarts(starts + 1).size(), starts + 1);
  // The upload of length 0 stored an empty file; the 16-character name was taken as it stood.
  spool.erase("SixteenCharNameX.spl"), spool.insert("Zero.spl");
  EXPECT_EQ(Listing(server_->Spool()), spool);
  EXPECT_EQ(Listing(server_->Corvina()), corvina);
  EXPECT_EQ(ReadFile(server_->Spool() / "Zero.spl"), "");
  // No block was taken for a refused length: 1 GiB would show in the address space on Linux
  // and in the resident memory under Wine (whose address space is reserved up front).
  EXPECT_LT(MemoryKb(pid, "VmPeak") + MemoryKb(pid, "VmHWM") - peaks, 1 << 19) << "kB";
}

KVT_ON_BOTH_KINDS(CutTest);

}  // namespace
}  // namespace kvt::wire
