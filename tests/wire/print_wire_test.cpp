// The job listing and the inline commands against both programs. The spooler is the private
// CUPS scheduler of the test run (CUPS_SERVER): the Linux program lists and cancels its
// jobs; Wine's winspool lists its queues but keeps jobs of its own (EnumJobsA is a stub), so
// under Wine no spooler job is ever listed and a reference cancels nothing.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <regex>
#include <set>
#include <thread>

#include "client/print_client.h"
#include "client/spool_client.h"
#include "harness.h"

namespace kvt::wire {
namespace {

using namespace std::chrono_literals;
using client::Connection;

std::vector<std::string> Records(Connection& c) {
  std::string error;
  std::optional<std::string> block = client::ListJobRecords(c, &error);
  EXPECT_TRUE(block) << error;
  std::vector<std::string> records;
  for (std::size_t at = 0; block && at < block->size(); at += client::kJobRecordSize)
    records.push_back(block->substr(at, client::kJobRecordSize));
  return records;
}

std::string Shell(const std::string& command) {
  std::string out;
  if (std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r")) {
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
    ::pclose(pipe);
  }
  return out;
}

// Each test starts its own server: with the test run's scheduler, or with none at all.
class PrintTest : public KindTest {
 protected:
  // Why the scheduler can't be used; empty when it can.
  std::string CupsUnavailable() const {
    if (cups_.empty()) return "CUPS_SERVER is not set: run the test through ctest";
    std::string why = ReadFile(fs::path(cups_).parent_path() / "unavailable");
    return !why.empty() || fs::exists(cups_) ? why : "no scheduler at " + cups_;
  }
  void Start(bool withCups) {
    // The server takes the test's environment at its start.
    ::setenv("CUPS_SERVER", withCups ? cups_.c_str() : "/nonexistent/cups.sock", 1);
    server_ = std::make_unique<Server>(GetParam());
    std::string error = server_->StartListening();
    ::setenv("CUPS_SERVER", cups_.c_str(), 1);
    ASSERT_EQ(error, "");
  }
  fs::path Corvina() const { return server_->Gamut().parent_path(); }
  // A path of this machine as the server names it.
  std::string ServerPath(const fs::path& path) const {
    return (GetParam() == Kind::kWine ? "Z:" : "") + path.string();
  }
  const std::string cups_ = std::getenv("CUPS_SERVER") ? std::getenv("CUPS_SERVER") : "";
  std::unique_ptr<Server> server_;  // stopped with the test
};

TEST_P(PrintTest, SpoolHeadersInNameOrderAndInlineCommands) {
  Start(false);
  const fs::path spool = Corvina() / "spool";
  Connection c = Opened();
  EXPECT_EQ(Records(c).size(), 0u);  // no printers, no spool files: the length 0 alone

  // 300 headers, names in mixed case; one is short. The first 256 by name are read.
  std::vector<std::string> headers;
  for (int i = 0; i < 300; ++i) {
    std::string header(1248, '\0');
    for (std::size_t b = 0; b < header.size(); ++b) header[b] = char(b * 7 + i);
    const std::string machine = "ws-" + std::to_string(1000 + i) + std::string("\0z", 2);
    header.replace(958, machine.size(), machine);
    char name[16];
    std::snprintf(name, sizeof name, i % 3 ? "job%03d.spl" : "JOB%03d.spl", i);
    WriteFile(spool / name, i == 5 ? header.substr(0, 1000) : header);
    headers.push_back(header);
  }
  fs::create_directories(spool / "folder.spl");
  std::vector<std::string> records = Records(c);
  ASSERT_EQ(records.size(), 255u);
  for (int i = 0, r = 0; i < 256; ++i) {
    if (i == 5) continue;
    std::string expected = headers[i];
    expected.replace(958, 7, "WS-" + std::to_string(1000 + i));  // "z" after the NUL stays
    EXPECT_TRUE(records[r++] == expected) << "header " << i;
  }

  // The stored lists, with the length in client order; a first byte 0 still brings the
  // length and the rest.
  WriteFile(Corvina() / "PrinterList", "A123456789");
  WriteFile(Corvina() / "ScannerList", std::string("\0xy", 3));
  for (const client::Marker& marker : {client::kLittleEndianMarker, client::kBigEndianMarker}) {
    Connection own = Opened(marker);
    const bool little = marker[0] == 4;
    ASSERT_TRUE(own.SendFrame(kvt::CMD_GET_PRINTER_LIST)) << own.error();
    EXPECT_EQ(Receive(own, 14),
              std::string(little ? "A\x09\0\0\0" : "A\0\0\0\x09", 5) + "123456789");
    ASSERT_TRUE(own.SendFrame(kvt::CMD_GET_SCANNER_LIST)) << own.error();
    EXPECT_EQ(Receive(own, 7), std::string(little ? "\0\x02\0\0\0xy" : "\0\0\0\0\x02xy", 7));
  }
  std::string error;
  WriteFile(Corvina() / "ScannerList", "A");  // nothing after the first
  EXPECT_EQ(client::GetStoredList(c, client::StoredList::kScanners, &error), "") << error;

  // Names from concurrent connections never repeat.
  std::vector<std::string> names[8];
  std::vector<std::thread> threads;
  for (auto& list : names)
    threads.emplace_back([&list] {
      for (Connection own = Opened(); list.size() < 25;)
        list.push_back(client::FreshJobName(own).value_or(""));
    });
  std::set<std::string> unique;
  for (int i = 0; i < 8; ++i) {
    threads[i].join();
    for (const std::string& name : names[i])
      if (std::regex_match(name, std::regex("[0-9]{15}"))) unique.insert(name);
  }
  EXPECT_EQ(unique.size(), 200u);

  // A spool file cancelled by name, a file deleted: 1, then 0 once it is gone.
  WriteFile(spool / "Abc.spl", "x");
  WriteFile(Corvina() / "victim", "x");
  const std::string victim = ServerPath(Corvina() / "victim");
  // Cancel (else delete), the name, the answer: "*0-1" with no printer table; a folder.
  const std::tuple<bool, std::string, int> steps[] = {
      {true, "Abc", 1}, {true, "Abc", 0}, {true, "*0-1", 0},
      {false, ServerPath(spool), 0}, {false, victim, 1}, {false, victim, 0}};
  for (const auto& [cancel, name, expected] : steps) {
    auto byte = cancel ? client::CancelJobOrSpoolFile(c, name) : client::DeleteServerFile(c, name);
    EXPECT_EQ(byte, std::optional<std::uint8_t>(expected)) << name;
  }
  EXPECT_TRUE(!fs::exists(spool / "Abc.spl") && fs::exists(spool));

  // Requests cut short delete nothing and answer 0; a short quit answers nothing.
  WriteFile(spool / "ab.spl", "x");
  WriteFile(Corvina() / "ab", "x");
  EXPECT_EQ(AnswerOfCutRequest("KVT\x06" + std::string("ab\0", 3)), std::string("\x01\0", 2));
  EXPECT_EQ(AnswerOfCutRequest("KVT\x07" + ServerPath(Corvina() / "ab") + '\0'),
            std::string("\x01\0", 2));
  EXPECT_EQ(AnswerOfCutRequest("KVT\x09" + std::string(100, 'q')), "\x01");
  EXPECT_TRUE(fs::exists(spool / "ab.spl") && fs::exists(Corvina() / "ab"));
  EXPECT_TRUE(client::Quit(c, "first", "second")) << c.error();
}

TEST_P(PrintTest, HeldCupsJobsAreListedAndCancelled) {
  if (std::string why = CupsUnavailable(); !why.empty()) GTEST_SKIP() << why;
  Shell("cancel -a KvtProofA KvtProofB");
  const fs::path document = fs::temp_directory_path() / "kvt-print-document.txt";
  WriteFile(document, "nothing to print\n");
  std::map<std::string, std::string> ids;  // title -> job id
  for (std::string title : {"Proof A1", "Proof A2", "Proof B1"}) {
    const std::string queue = title[6] == 'A' ? "KvtProofA" : "KvtProofB";
    std::smatch id;
    std::string out = Shell("lp -H hold -d " + queue + " -t '" + title + "' " + document.string());
    ASSERT_TRUE(std::regex_search(out, id, std::regex(queue + "-([0-9]+)"))) << out;
    ids[title] = id[1];
  }
  Start(true);
  auto descriptors = [&] { return std::get<1>(Holdings(server_->pid())); };
  const auto baseline = descriptors();
  Connection c = Opened();
  auto listed = [&](Connection& connection) {
    std::vector<std::string> jobs;
    for (const std::string& record : Records(connection)) {
      client::JobEntry j = client::ParseJobRecord(record);
      jobs.push_back(j.printerName + " " + j.jobName + " " + j.document + " " + j.userName + " " +
                     j.machineName + " " + std::to_string(j.statusCode) + " " + j.statusText);
    }
    return jobs;
  };
  const std::string user = ::getpwuid(::geteuid())->pw_name;
  std::vector<std::string> expected;
  if (GetParam() == Kind::kLinux)  // held: paused
    for (std::string title : {"Proof A1", "Proof A2", "Proof B1"})
      expected.push_back((title[6] == 'A' ? "KvtProofA *0-" : "KvtProofB *1-") + ids[title] + " " +
                         title + " " + user + " LOCALHOST 11 stopped");
  EXPECT_EQ(listed(c), expected);
  // Job numbers are the scheduler's: the reference must name the job's own printer. Job 0
  // and -1 would be "the current job" and "all jobs" to CUPS.
  for (std::string name : {"*1-" + ids["Proof A1"], std::string("*0-0"), std::string("*0--1"),
                           "*0-" + ids["Proof A2"]})
    EXPECT_EQ(client::CancelJobOrSpoolFile(c, name), std::optional<std::uint8_t>(0)) << name;
  const std::string queued = Shell("lpstat -o");
  EXPECT_NE(queued.find("KvtProofA-" + ids["Proof A1"]), std::string::npos) << queued;
  EXPECT_NE(queued.find("KvtProofB-" + ids["Proof B1"]), std::string::npos) << queued;
  EXPECT_EQ(queued.find("KvtProofA-" + ids["Proof A2"]) == std::string::npos,
            GetParam() == Kind::kLinux)
      << queued;
  if (!expected.empty()) expected.erase(expected.begin() + 1);
  EXPECT_EQ(listed(c), expected);
  EXPECT_TRUE(c.SendClose()) << c.error();  // the printers are closed at the teardown
  Connection again = Opened();
  EXPECT_EQ(listed(again), expected);

  if (GetParam() == Kind::kLinux) {
    Outcome run = RunKvtctl({"jobs"});
    EXPECT_TRUE(
        std::regex_search(run.out, std::regex("\nKvtProofB +\\*1-" + ids["Proof B1"] +
                                              " +stopped +Proof B1 +" + user + " +LOCALHOST\n")))
        << run.out << run.err;
    run = RunKvtctl({"cancel", "*1-" + ids["Proof B1"]});
    EXPECT_EQ(run.out, "*1-" + ids["Proof B1"] + ": answer 0; the job is no longer listed\n");
    again.Close();  // each connection's line to the scheduler goes with its thread
    EXPECT_TRUE(WaitUntil([&] { return descriptors() == baseline; }, 10s))
        << descriptors() << " descriptors";
  }
  Shell("cancel -a KvtProofA KvtProofB");
  fs::remove(document);
}

INSTANTIATE_TEST_SUITE_P(Linux, PrintTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, PrintTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
