// The job listing and the inline commands against both programs. The spooler is the private
// CUPS scheduler of the test run (CUPS_SERVER): the Linux program lists and cancels its
// jobs; Wine's winspool lists its queues but keeps jobs of its own (EnumJobsA is a stub), so
// under Wine no spooler job is ever listed and a reference cancels nothing.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <set>
#include <thread>

#include "client/print_client.h"
#include "client/spool_client.h"
#include "harness.h"

namespace kvt::wire {
namespace {

using client::Connection;
using namespace std::string_literals;

// The job listing's records as sent (a failed expectation when the exchange fails).
std::string Jobs(Connection& c) {
  std::string error;
  std::optional<std::string> records = client::ListJobRecords(c, &error);
  EXPECT_TRUE(records) << error;
  return records.value_or("");
}

// The test run's scheduler (set by ctest).
const std::string kCups = std::getenv("CUPS_SERVER") ? std::getenv("CUPS_SERVER") : "";

// A server without a spooler: no printer, no spooler job; the listing has the spool files.
class InlineTest : public ServerSuite {
 protected:
  void SetUp() override {
    ::setenv("CUPS_SERVER", "/nonexistent/cups.sock", 1);  // the server takes it at its start
    ServerSuite::SetUp();
    ::setenv("CUPS_SERVER", kCups.c_str(), 1);
  }
};

TEST_P(InlineTest, SpoolHeadersInNameOrderUpToTheCap) {
  const fs::path spool = server_->Spool();  // empty: no test of this suite leaves a file in it
  Connection c = Opened();
  EXPECT_EQ(Jobs(c), "");  // the length 0 alone
  // 300 headers, names in mixed case; one is short, and a folder is no spool file. The first
  // 256 by name are read, each with its machine name in capitals up to the name's NUL.
  fs::create_directories(spool / "folder.spl");
  std::string expected;
  for (int i = 0; i < 300; ++i) {
    std::string header = Pattern(client::kJobRecordSize, i);
    header.replace(958, 9, "ws-" + std::to_string(1000 + i) + "\0z"s);
    char name[16];
    std::snprintf(name, sizeof name, i % 3 ? "job%03d.spl" : "JOB%03d.spl", i);
    WriteFile(spool / name, i == 5 ? header.substr(0, 1000) : header);
    if (i < 256 && i != 5) expected += header.replace(958, 3, "WS-");
  }
  const std::string records = Jobs(c);
  EXPECT_TRUE(records == expected) << records.size() / client::kJobRecordSize << " records";
}

TEST_P(InlineTest, StoredListsWithTheLengthInClientOrder) {
  // The first byte, then the length of the rest; a first byte 0 still brings the length and
  // the rest (where the client stops reading); a list of one byte is none.
  WriteFile(server_->Corvina() / "PrinterList", "A123456789");
  WriteFile(server_->Corvina() / "ScannerList", "\0xy"s);
  std::string error;
  for (const client::Marker& marker : {client::kLittleEndianMarker, client::kBigEndianMarker}) {
    Connection c = Opened(marker);
    EXPECT_EQ(client::GetStoredList(c, client::StoredList::kPrinters, &error), "A123456789") << error;
    EXPECT_EQ(client::GetStoredList(c, client::StoredList::kScanners, &error), "") << error;
    EXPECT_EQ(c.RecvU32(), std::optional<std::uint32_t>(2)) << c.error();
    EXPECT_EQ(Receive(c, 2), "xy");
  }
  WriteFile(server_->Corvina() / "ScannerList", "A");
  Connection c = Opened();
  EXPECT_EQ(client::GetStoredList(c, client::StoredList::kScanners, &error), "") << error;
  ExpectWaiting(c);
}

TEST_P(InlineTest, NamesFromConcurrentConnectionsNeverRepeat) {
  std::vector<std::string> names[8];
  std::vector<std::thread> threads;
  for (auto& list : names)
    threads.emplace_back([&list] {
      for (Connection c = Opened(); list.size() < 25;)
        list.push_back(client::FreshJobName(c).value_or(""));
    });
  std::set<std::string> unique;
  for (int i = 0; i < 8; ++i) threads[i].join(), unique.insert(names[i].begin(), names[i].end());
  EXPECT_EQ(unique.size(), 200u);
}

TEST_P(InlineTest, CancelAndDeleteThenQuit) {
  const fs::path spool = server_->Spool(), victim = server_->Corvina() / "victim";
  WriteFile(spool / "Abc.spl", "x");
  WriteFile(victim, "x");
  Connection c = Opened();
  Jobs(c);  // the connection's printer table, empty without a spooler
  // Cancel (else delete), the name, the answer: 1 once the file is gone, 0 after; "*0-1"
  // past the empty table; a folder is not deleted.
  const std::tuple<bool, std::string, int> steps[] = {
      {true, "Abc", 1}, {true, "Abc", 0}, {true, "*0-1", 0}, {false, server_->ServerPath(spool), 0},
      {false, server_->ServerPath(victim), 1}, {false, server_->ServerPath(victim), 0}};
  for (const auto& [cancel, name, expected] : steps) {
    auto byte = cancel ? client::CancelJobOrSpoolFile(c, name) : client::DeleteServerFile(c, name);
    EXPECT_EQ(byte, std::optional<std::uint8_t>(expected)) << name;
  }
  EXPECT_TRUE(!fs::exists(spool / "Abc.spl") && !fs::exists(victim) && fs::exists(spool));
  EXPECT_TRUE(client::Quit(c, "first", "second")) << c.error();
}

INSTANTIATE_TEST_SUITE_P(Linux, InlineTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, InlineTest, ::testing::Values(Kind::kWine));

std::string Shell(const std::string& command) {
  std::string out;
  std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  for (char buffer[256]; pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe);) out += buffer;
  if (pipe != nullptr) ::pclose(pipe);
  return out;
}

class SpoolerTest : public ServerSuite {};

TEST_P(SpoolerTest, HeldCupsJobsAreListedAndCancelled) {
  if (kCups.empty() || !fs::exists(kCups))  // and why the scheduler is missing
    GTEST_SKIP() << "no scheduler at '" << kCups << "' "
                 << ReadFile(fs::path(kCups).parent_path() / "unavailable");
  const bool onLinux = GetParam() == Kind::kLinux;
  const auto idle = onLinux ? IdleHoldings(server_->pid()) : std::nullopt;
  ASSERT_EQ(idle.has_value(), onLinux);
  Shell("cancel -a KvtProofA KvtProofB");
  ScratchFolder scratch;
  const std::string user = ::getpwuid(::geteuid())->pw_name;
  // Jobs A1 and A2 on printer 0, B1 on printer 1; as Linux lists them: held is paused.
  const std::string queues[] = {"KvtProofA", "KvtProofA", "KvtProofB"},
                    titles[] = {"Proof A1", "Proof A2", "Proof B1"};
  const std::string document = scratch.path / "document.txt";
  WriteFile(document, "nothing to print\n");
  std::string ids[3];
  std::vector<std::string> expected;
  for (int i = 0; i < 3; ++i) {
    std::smatch id;
    const std::string out = Shell("lp -H hold -d " + queues[i] + " -t '" + titles[i] + "' " + document);
    ASSERT_TRUE(std::regex_search(out, id, std::regex(queues[i] + "-([0-9]+)"))) << out;
    ids[i] = id[1];
    if (onLinux)
      expected.push_back(queues[i] + " *" + "001"[i] + "-" + ids[i] + " " + titles[i] + " " + user +
                         " LOCALHOST 11 stopped");
  }
  auto listed = [&](Connection& c) {
    std::vector<std::string> jobs;
    const std::string records = Jobs(c);
    for (std::size_t at = 0; at < records.size(); at += client::kJobRecordSize) {
      client::JobEntry j = client::ParseJobRecord(std::string_view(records).substr(at));
      jobs.push_back(j.printerName + " " + j.jobName + " " + j.document + " " + j.userName + " " +
                     j.machineName + " " + std::to_string(j.statusCode) + " " + j.statusText);
    }
    return jobs;
  };
  Connection c = Opened();
  EXPECT_EQ(listed(c), expected);
  // Job numbers are the scheduler's: the reference must name the job's own printer. Job 0
  // and -1 would be "the current job" and "all jobs" to CUPS. Only A2 goes, on Linux.
  for (std::string name : {"*1-" + ids[0], "*0-0"s, "*0--1"s, "*0-" + ids[1]})
    EXPECT_EQ(client::CancelJobOrSpoolFile(c, name), std::optional<std::uint8_t>(0)) << name;
  const std::string queued = Shell("lpstat -o");
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(queued.find(queues[i] + "-" + ids[i] + " ") != std::string::npos, i != 1 || !onLinux)
        << titles[i] << "\n" << queued;
  if (onLinux) expected.erase(expected.begin() + 1);
  EXPECT_EQ(listed(c), expected);
  EXPECT_TRUE(c.SendClose()) << c.error();  // the printers are closed at the teardown
  Connection again = Opened();
  EXPECT_EQ(listed(again), expected);
  if (onLinux) {
    Outcome run = RunKvtctl({"jobs"});
    const std::string line = "\nKvtProofB +\\*1-" + ids[2] + " +stopped +Proof B1 +" + user;
    EXPECT_TRUE(std::regex_search(run.out, std::regex(line + " +LOCALHOST\n"))) << run.out << run.err;
    run = RunKvtctl({"cancel", "*1-" + ids[2]});
    EXPECT_EQ(run.out, "*1-" + ids[2] + ": answer 0; the job is no longer listed\n");
    again.Close();  // each connection's line to the scheduler goes with its thread
    ExpectSettled(server_->pid(), *idle);
  }
  Shell("cancel -a KvtProofA KvtProofB");
}

INSTANTIATE_TEST_SUITE_P(Linux, SpoolerTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, SpoolerTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
