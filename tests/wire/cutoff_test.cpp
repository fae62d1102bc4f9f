// Requests cut off at every byte, and bad values in their length and name fields, against
// both programs: the server serves the next connection, keeps nothing of the ended ones, and
// stores or changes no file from a request that never fully arrived.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "harness.h"

#ifndef KVT_SANITIZER_THREADS
#define KVT_SANITIZER_THREADS 0
#endif

namespace kvt::wire {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr std::uint32_t kTime = 1700000000;

std::string Frame(int code) { return "KVT"s + char(code); }

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
  auto at = [&](std::size_t from, std::size_t n) {
    return Field(request.substr(std::min(from, k), from < k ? k - from : 0), n);
  };
  auto u32 = [](const std::string& b) {  // the lengths are little-endian, as is this host
    std::uint32_t v;
    return std::memcpy(&v, b.data(), 4), v;
  };
  const std::size_t nameLength = u32(at(0, 4));
  return at(8 + nameLength, u32(at(4 + nameLength, 4)));
}

// The colour tables stored since the last call (each removed once read).
std::vector<std::string> TakeTables(const fs::path& folder) {
  std::vector<std::string> tables;
  if (fs::exists(folder))
    for (const auto& entry : fs::directory_iterator(folder))
      if (entry.path().extension() == ".ldf") {
        tables.push_back(ReadFile(entry.path()));
        fs::remove(entry.path());
      }
  return tables;
}

std::set<std::string> Listing(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
  return names;
}

class CutTest : public ServerSuite {
 protected:
  fs::path Spool() const { return server_->Gamut().parent_path() / "spool"; }
};

TEST_P(CutTest, EveryCommandCutAtEveryByte) {
  const bool onLinux = GetParam() == Kind::kLinux;
  const auto idle = Holdings(server_->pid());
  // Files that a complete request would store over, remove or send.
  const fs::path victim = server_->Gamut() / "victim";
  WriteFile(Spool() / "Keep.spl", "the old spool file");
  WriteFile(victim, "victim");
  WriteFile(server_->Gamut() / "Proofs" / "Cut.gamut", Pattern(3000), kTime);
  const auto spoolBefore = Listing(Spool());
  TakeTables(server_->TableFolder());
  const std::string body = Pattern(100000, 1), table = Pattern(1000, 2);
  const std::pair<int, std::string> requests[] = {
      {-1, Frame(23)},  // the frame itself
      {1, ""}, {2, ""}, {5, ""}, {8, ""}, {10, ""},
      {3, Field("Keep", 16) + Le32(std::uint32_t(body.size())) + body},
      {4, Field("Proofs", 100) + Field("Cut", 40)},
      {6, Field("Keep", 16)},
      {7, Field((onLinux ? "" : "Z:") + victim.string(), 512)},
      {9, Field("first", 80) + Field("second", 80)},
      {11, Field("Proofs", 80)},
      {23, Le32(3) + "Tab" + Le32(std::uint32_t(table.size())) + table}};
  int cases = 0;
  for (const auto& [code, request] : requests) {
    for (std::size_t k : CutPoints(request.size())) {
      SCOPED_TRACE("code " + std::to_string(code) + " cut after " + std::to_string(k));
      // The answer starts with the opening byte: the server took this new connection.
      const std::string sent = (code < 0 ? "" : Frame(code)) + request.substr(0, k);
      ASSERT_EQ(AnswerOfCutRequest(sent).substr(0, 1), "\x01");
      ++cases;
      // A short colour table is served with what came, the rest zero (its answer is lost).
      if (code == 23) {
        EXPECT_EQ(TakeTables(server_->TableFolder()), std::vector{TableOfCut(request, k)});
      }
    }
  }
  std::cout << "[ CUT      ] " << cases << " cases\n";
  EXPECT_EQ(Listing(Spool()), spoolBefore);
  EXPECT_EQ(ReadFile(Spool() / "Keep.spl"), "the old spool file");
  EXPECT_EQ(ReadFile(victim), "victim");
  EXPECT_TRUE(ReadFile(server_->Gamut() / "Proofs" / "Cut.gamut") == Pattern(3000));
  // Nothing of the ended connections stays.
  auto settled = [&] {
    const auto [threads, descriptors, children] = Holdings(server_->pid());
    return threads <= std::get<0>(idle) + KVT_SANITIZER_THREADS &&
           descriptors <= std::get<1>(idle) && children == std::get<2>(idle);
  };
  EXPECT_TRUE(WaitUntil(settled, 10s))
      << ::testing::PrintToString(Holdings(server_->pid()));
}

TEST_P(CutTest, BadValuesGetTheirDesignedAnswer) {
  const std::string d99(99, 'd'), d100(100, 'd'), c79(79, 'c'), c80(80, 'c');
  WriteFile(server_->Gamut() / d99 / "In.gamut", "99", kTime);
  WriteFile(server_->Gamut() / d100 / "In.gamut", "100", kTime);
  WriteFile(server_->Gamut() / c79 / "A.cfg", "a");
  WriteFile(server_->Gamut() / c80 / "A.cfg", "a");
  fs::create_directories(server_->Gamut() / "Proofs" / "Dir.gamut");
  WriteFile(Spool() / "SixteenCharName.spl", "x");
  WriteFile(Spool() / "SixteenCharNameX.spl", "x");
  const std::string data(5000, 'z'), zero4(4, '\0');
  const std::uint32_t kHuge[] = {1u << 31, 0xFFFFFFFF};
  // Each request whole, then the client half-closes: all the server sends (after the
  // opening byte) until it ends the connection, and the table files stored.
  std::vector<std::tuple<std::string, std::string, std::string, int>> rows = {
      {"upload of length 0", Frame(3) + Field("Zero", 16) + Le32(0), "\x01"s, 0},
      {"colour table of lengths 0", Frame(23) + Le32(0) + Le32(0), zero4, 1},
      {"gamut folder without NUL", Frame(4) + Field(d100, 100) + Field("In", 40),
       std::string(8, '\0'), 0},
      {"gamut name without NUL", Frame(4) + Field("Proofs", 100) + std::string(40, 'n'),
       std::string(8, '\0'), 0},
      {"gamut name of a folder", Frame(4) + Field("Proofs", 100) + Field("Dir", 40),
       std::string(8, '\0'), 0},
      {"gamut folder of 99", Frame(4) + Field(d99, 100) + Field("In", 40),
       Le32(kTime) + Le32(2) + "99", 0},
      {"configuration folder of 80", Frame(11) + Field(c80, 80), zero4, 0},
      {"configuration folder of 79", Frame(11) + Field(c79, 80),
       Le32(1) + Field("A\0cfg"s, 40) + Le32(1) + zero4, 0},
      {"cancel name without NUL", Frame(6) + "SixteenCharNameX", "\x01"s, 0},
      {"delete path without NUL", Frame(7) + std::string(512, 'p'), "\x00"s, 0},
      {"quit fields without NUL", Frame(9) + std::string(160, 'q'), "", 0}};
  for (std::uint32_t huge : kHuge) {
    const std::string n = std::to_string(huge);
    rows.push_back({"upload of length " + n, Frame(3) + Field("Huge", 16) + Le32(huge) + data,
                    "\x00"s, 0});
    rows.push_back({"colour table name of length " + n, Frame(23) + Le32(huge) + data, zero4, 0});
    rows.push_back({"colour table data of length " + n,
                    Frame(23) + Le32(1) + "T" + Le32(huge) + data, zero4, 0});
  }
  const auto spoolBefore = Listing(Spool());
  const bool onLinux = GetParam() == Kind::kLinux;
  auto peak = [&] {  // the server's largest address space so far, in kB
    const std::string status = ReadFile("/proc/" + std::to_string(server_->pid()) + "/status");
    return onLinux ? std::stoll(status.substr(status.find("VmPeak:") + 7)) : 0;
  };
  const long long peakBefore = peak();
  TakeTables(server_->TableFolder());
  for (const auto& [what, request, answer, tables] : rows) {
    EXPECT_TRUE(AnswerOfCutRequest(request) == "\x01" + answer) << what;
    EXPECT_EQ(TakeTables(server_->TableFolder()).size(), std::size_t(tables)) << what;
  }
  // Only the upload of length 0 stored a file, and empty; the 16-character name was taken
  // as it stood.
  auto spoolAfter = spoolBefore;
  spoolAfter.erase("SixteenCharNameX.spl");
  spoolAfter.insert("Zero.spl");
  EXPECT_EQ(Listing(Spool()), spoolAfter);
  EXPECT_EQ(ReadFile(Spool() / "Zero.spl"), "");
  // No block was taken for a refused length: 2 GiB would show in the peak.
  EXPECT_LT(peak() - peakBefore, 1 << 20) << "kB";
}

INSTANTIATE_TEST_SUITE_P(Linux, CutTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, CutTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
