// Soak: 64 clients against the Linux server for KVT_SOAK_SECONDS (120 unless set), every
// command mixed, now and then one leaving in the middle of a request. Every answer must be
// the designed one; the server's memory must stay flat after the warm-up, and its threads,
// descriptors and children must come back to the idle baseline. The figures go to stdout.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <random>
#include <thread>

#include "client/print_client.h"
#include "client/spool_client.h"
#include "harness.h"

namespace kvt::wire {
namespace {

using namespace std::chrono_literals;
using client::Connection;

enum Op { kJobs, kName, kUpload, kGamut, kConfigs, kTable, kLists, kReference, kDelete, kCut, kHandoff };
constexpr const char* kOpNames[] = {"job listing",  "job name", "upload+delete", "gamut",
                                    "configs",      "colour table", "printer+scanner list",
                                    "job reference", "delete by path", "cut off", "hand-off"};
constexpr int kOps = kHandoff + 1;

struct Tally {
  std::array<std::atomic<long>, kOps> done{};
  std::atomic<long> errors{0};
  std::string first;  // the first error's text, written by the one client that counted it
};

const std::string kGamutContent = Pattern(20000, 3);

// One request on an opened connection: empty when the answer was the designed one.
std::string Request(Connection& c, Op op, std::mt19937& random) {
  std::string e;
  switch (op) {
    case kJobs: return client::ListJobRecords(c, &e) ? "" : e;
    case kName: return client::FreshJobName(c).value_or("").size() == 15 ? "" : "name " + c.error();
    case kUpload: {
      const auto name = client::FreshJobName(c);
      const std::string body = "Soak.pdf" + Pattern(1240 + random() % 30000, int(random()));
      if (!name || Upload(c, *name, body) != true) return "upload " + c.error();
      return client::CancelJobOrSpoolFile(c, *name) == 1 ? "" : "delete " + c.error();
    }
    case kGamut: {
      std::string content;
      const auto info = c.GetGamut("Proofs", "Over", [&](const char* b, std::size_t n) {
        return content.append(b, n), true;
      });
      return info && info->size == kGamutContent.size() && content == kGamutContent ? "" : "gamut " + c.error();
    }
    case kConfigs: return c.ListConfigs("Proofs").value_or(std::vector<client::ConfigRecord>{}).size() == 2 ? "" : "configs " + c.error();
    case kTable: return c.RegisterColorTable("Soak table", Pattern(random() % 5000)) == 0u ? "" : "table " + c.error();
    case kLists:
      return client::GetStoredList(c, client::StoredList::kPrinters, &e) == "A123456789" &&
                     client::GetStoredList(c, client::StoredList::kScanners, &e) == "Sxy"
                 ? "" : "lists " + e;
    case kReference: return client::CancelJobOrSpoolFile(c, "*0-999999") == 0 ? "" : "reference " + c.error();
    case kDelete: return client::DeleteServerFile(c, "/nonexistent/soak") == 0 ? "" : "delete " + c.error();
    case kCut: {  // an upload's frame and part of its 20-byte request, then gone
      const std::string part = std::string("KVT\x03", 4) + "Cut" + std::string(random() % 17, '\0');
      return c.SendBytes(part.data(), part.size()) ? "" : "cut " + c.error();
    }
    case kHandoff: {
      std::string feed(8, '\0');
      return c.SendFrame(CMD_PRINT_HANDOFF) && c.RecvBytes(feed.data(), 8) == client::Status::kOk &&
                     feed == "JOBFEED\n" && c.SendBytes("e", 1) && c.RecvByte() == 'e' && c.ExpectEnd()
                 ? "" : "hand-off " + c.error();
    }
  }
  return "no such request";
}

void Client(Tally& tally, unsigned seed, std::chrono::steady_clock::time_point end) {
  std::mt19937 random(seed);
  auto fail = [&](const std::string& why) {
    if (tally.errors++ == 0) tally.first = why;
  };
  while (std::chrono::steady_clock::now() < end) {
    Connection c;
    if (!c.Connect("127.0.0.1") || !c.Open()) { fail("open " + c.error()); continue; }
    bool open = true;
    for (int n = 1 + random() % 30; open && n > 0 && std::chrono::steady_clock::now() < end; --n) {
      const int pick = random() % 200;  // a hand-off in 200, a cut-off in 50
      const Op op = pick == 0 ? kHandoff : pick < 5 ? kCut : Op(pick % kCut);
      if (std::string why = Request(c, op, random); !why.empty()) fail(why), open = false;
      else tally.done[op]++, open = op != kCut && op != kHandoff;
    }
    if (open && !c.SendClose()) fail("close " + c.error());
  }
}

class SoakTest : public KindTest {};

TEST_P(SoakTest, ManyClientsEveryCommand) {
  Server server(GetParam());
  WriteFile(server.Gamut() / "Proofs" / "Over.gamut", kGamutContent);
  WriteFile(server.Gamut() / "Proofs" / "Matte.cfg", "matte");
  WriteFile(server.Gamut() / "Proofs" / "Paper.cfg", "paper");
  WriteFile(server.Corvina() / "PrinterList", "A123456789");
  WriteFile(server.Corvina() / "ScannerList", "Sxy");
  server.InstallJobfeeder(server.cwd() / "programs");
  server.InstallTool();
  ASSERT_EQ(server.StartListening(), "");
  const auto idle = IdleHoldings(server.pid());
  ASSERT_TRUE(idle.has_value());

  const char* seconds = std::getenv("KVT_SOAK_SECONDS");
  const auto length = std::chrono::seconds(seconds ? std::atoi(seconds) : 120);
  const auto start = std::chrono::steady_clock::now();
  Tally tally;
  std::vector<std::thread> clients;
  for (unsigned i = 0; i < 64; ++i) clients.emplace_back(Client, std::ref(tally), i, start + length);
  std::this_thread::sleep_for(length / 4);  // the warm-up
  const long warm = MemoryKb(server.pid(), "VmRSS");
  std::this_thread::sleep_for(length * 5 / 8);
  const long late = MemoryKb(server.pid(), "VmRSS");  // still under load
  for (std::thread& t : clients) t.join();
  const long end = MemoryKb(server.pid(), "VmRSS");

  EXPECT_EQ(tally.errors, 0) << "first: " << tally.first;
  ExpectSettled(server.pid(), *idle);
  // Flat: what the allocator keeps for 64 threads may still move a little. A sanitizer's
  // allocator holds freed memory back for a while, so only the plain build's figures count.
  if (std::string_view(KVT_SANITIZE).empty()) {
    EXPECT_LE(std::max(late, end), warm + warm / 4 + 8192)
        << "resident kB after the warm-up " << warm << ", late " << late << ", at the end " << end;
  }
  long total = 0;
  for (int op = 0; op < kOps; ++op) {
    std::cout << "soak: " << kOpNames[op] << " " << tally.done[op] << "\n";
    total += tally.done[op];
  }
  std::cout << "soak: " << total << " requests in " << length.count() << " s, " << tally.errors
            << " errors; resident kB " << warm << " after warm-up, " << late << " late, " << end
            << " once all left" << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Soak, SoakTest, ::testing::Values(Kind::kLinux));

}  // namespace
}  // namespace kvt::wire
