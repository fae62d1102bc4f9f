// The job listing and the inline commands against both programs. The spooler is the private
// CUPS scheduler of the test run (CUPS_SERVER): the Linux program lists and cancels its
// jobs; Wine's winspool lists its queues but keeps jobs of its own (EnumJobsA is a stub), so
// under Wine no spooler job is ever listed and a reference cancels nothing.
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
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

// The test run's scheduler (set by ctest).
const std::string kCups = std::getenv("CUPS_SERVER") ? std::getenv("CUPS_SERVER") : "/none/cups";

// The test run's scheduler behind a socket of the test's own, one connection at a time: it
// counts the requests it passes on, and past `limit` it has gone away (it ends the
// connection at the next request).
struct Relay {
  static fs::path Path() { return fs::path(kCups).replace_filename("relay.sock"); }
  // A Unix-domain socket at `path`: listening (use ::bind), or connected (use ::connect).
  static int Socket(const fs::path& path, int (*use)(int, const sockaddr*, socklen_t)) {
    sockaddr_un address{AF_UNIX, {}};
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    const int s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(use(s, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << path;
    return use != ::bind || ::listen(s, 4) == 0 ? s : -1;
  }
  ~Relay() {
    limit = -1;
    ::shutdown(listener, SHUT_RDWR);  // ends the accept it waits in, or the next one
    thread.join();
  }
  void Run() {
    for (int client; limit >= 0 && (client = ::accept(listener, nullptr, nullptr)) >= 0;
         ::close(client)) {
      pollfd ends[] = {{client, POLLIN, 0}, {Socket(kCups, ::connect), POLLIN, 0}};
      for (char data[65536]; ::poll(ends, 2, -1) > 0;) {
        const int from = ends[0].revents != 0 ? 0 : 1;  // each request begins a piece
        const ssize_t n = ::read(ends[from].fd, data, sizeof data);
        const bool request = n > 0 && from == 0 && std::string_view(data, n).starts_with("POST ");
        if (n <= 0 || (request && ++requests > limit) || ::write(ends[1 - from].fd, data, n) != n)
          break;
      }
      ::close(ends[1].fd);
    }
    ::close(listener);
  }
  std::atomic<int> requests{0}, limit{1 << 30};
  const int listener = (fs::remove(Path()), Socket(Path(), ::bind));
  std::thread thread{[this] { Run(); }};
};

// A server whose scheduler is behind the relay: without one running, there is no printer
// and no spooler job, and the listing has the spool files.
class InlineTest : public ServerSuite {
 protected:
  void SetUp() override {
    ::setenv("CUPS_SERVER", Relay::Path().c_str(), 1);  // the server takes it at its start
    ServerSuite::SetUp();
    ::setenv("CUPS_SERVER", kCups.c_str(), 1);
  }
};

std::string Shell(const std::string& command) {
  std::string out;
  std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  for (char buffer[256]; pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe);) out += buffer;
  if (pipe != nullptr) ::pclose(pipe);
  return out;
}

const std::string kUser = ::getpwuid(::geteuid())->pw_name;

// Submits a job, held unless told; its number ("" with a failed expectation when lp refuses).
std::string Hold(const std::string& queue, const std::string& title, bool held = true) {
  const std::string options = held ? "-H hold -d " : "-d ";
  const std::string out = Shell("echo x | lp " + options + queue + " -t '" + title + "'");
  std::smatch id;
  EXPECT_TRUE(std::regex_search(out, id, std::regex(queue + "-([0-9]+)"))) << out;
  return id.empty() ? "" : id[1].str();
}

// A held job as the Linux server lists it (held is paused: "stopped"), and the listing's
// records in that form.
std::string HeldJob(const std::string& queue, std::size_t printer, const std::string& id,
                    const std::string& title) {
  return queue + " *" + std::to_string(printer) + "-" + id + " " + title + " " + kUser +
         " LOCALHOST 11 stopped";
}
std::vector<std::string> Listed(Connection& c) {
  std::vector<std::string> jobs;
  const std::string records = Jobs(c);
  for (std::size_t at = 0; at < records.size(); at += client::kJobRecordSize) {
    client::JobEntry j = client::ParseJobRecord(std::string_view(records).substr(at));
    jobs.push_back(j.printerName + " " + j.jobName + " " + j.document + " " + j.userName + " " +
                   j.machineName + " " + std::to_string(j.statusCode) + " " + j.statusText);
  }
  return jobs;
}

// One listing asks the scheduler twice, whatever the number of printers: the printer list
// and every queue's jobs. Its edges: printers without jobs, a printer gone with its job, the
// scheduler gone between the two requests or altogether, and a job whose backend fails.
class SnapshotTest : public InlineTest {};  // the Linux server only: Wine lists no jobs

TEST_P(SnapshotTest, OnePerListing) {
  if (!fs::exists(kCups)) GTEST_SKIP() << "no scheduler at " << kCups;
  Relay relay;
  // 20 queues more, KvtMany00 to 19, every sixth with a held job. A connection's printers
  // come in the scheduler's order: these first, then KvtProofA and KvtProofB (no jobs).
  std::vector<std::string> expected;
  Shell("for q in $(seq -w 0 19); do lpadmin -p KvtMany$q -E -v file:///dev/null; done");
  for (const std::string queue : {"KvtMany01", "KvtMany07", "KvtMany13", "KvtMany19"})
    expected.push_back(HeldJob(queue, std::stoul(queue.substr(7)), Hold(queue, "Job"), "Job"));
  Connection c = Opened();
  EXPECT_EQ(Listed(c), expected);  // the first listing makes the printer table too
  // A printer gone: KvtMany19, with its job.
  Shell("lpadmin -x KvtMany19");
  expected.pop_back();
  EXPECT_EQ(Listed(c), expected);
  EXPECT_EQ(relay.requests, 4);  // two a listing, whatever the number of printers
  // The scheduler goes away between the printer list and the jobs, on a new connection
  // whose printer table that one answer makes: no job is listed. Once it is back, all are.
  c = Opened();  // the old connection's line to the relay goes with it
  relay.limit = relay.requests + 1;
  EXPECT_EQ(Jobs(c), "");
  relay.limit = 1 << 30;
  EXPECT_EQ(Listed(c), expected);
  // The scheduler gone altogether: the connection lists nothing and cancels nothing (the
  // job of KvtMany01 is its first), and a new one is served all the same. Back, it lists all.
  relay.limit = relay.requests.load();
  EXPECT_EQ(Jobs(c), "");
  const std::string first = expected[0].substr(10, expected[0].find(' ', 10) - 10);
  EXPECT_EQ(client::CancelJobOrSpoolFile(c, first), std::optional<std::uint8_t>(0)) << first;
  Connection later = Opened();
  EXPECT_EQ(Jobs(later), "");
  relay.limit = 1 << 30;
  EXPECT_EQ(Listed(later = Opened()), expected);
  Shell("for q in $(seq -w 0 18); do lpadmin -x KvtMany$q; done");
  // A job that its backend can't deliver is processing with the backend's own words: its
  // record carries them (status 1) instead of "printing".
  Shell("lpadmin -p KvtStuck -E -v socket://127.0.0.1:9");  // nothing listens there
  const std::string id = Hold("KvtStuck", "Stuck", false);
  const std::regex record("KvtStuck \\*[0-9]+-" + id + " Stuck " + kUser +
                          " LOCALHOST 1 The printer may not exist or is unavailable at this time.");
  std::vector<std::string> listed;
  later = Opened();  // its printer table has KvtStuck
  EXPECT_TRUE(WaitUntil([&] {
    listed = Listed(later);
    return listed.size() == 1 && std::regex_match(listed[0], record);
  })) << ::testing::PrintToString(listed);
  Shell("cancel -a KvtStuck; lpadmin -x KvtStuck");
}

INSTANTIATE_TEST_SUITE_P(Linux, SnapshotTest, ::testing::Values(Kind::kLinux));

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

// A reference past the connection's printer table (empty without a spooler), and a folder,
// are answered 0; files go as kvtctl's test shows.
TEST_P(InlineTest, ReferencePastTheTableAndAFolderStay) {
  Connection c = Opened();
  Jobs(c);
  EXPECT_EQ(client::CancelJobOrSpoolFile(c, "*0-1"), std::optional<std::uint8_t>(0));
  EXPECT_EQ(client::DeleteServerFile(c, server_->ServerPath(server_->Spool())),
            std::optional<std::uint8_t>(0));
  EXPECT_TRUE(fs::exists(server_->Spool()));
  EXPECT_TRUE(client::Quit(c, "first", "second")) << c.error();
}

KVT_ON_BOTH_KINDS(InlineTest);

class SpoolerTest : public ServerSuite {};

TEST_P(SpoolerTest, HeldCupsJobsAreListedAndCancelled) {
  if (!fs::exists(kCups))  // and why the scheduler is missing
    GTEST_SKIP() << "no scheduler at '" << kCups << "' "
                 << ReadFile(fs::path(kCups).parent_path() / "unavailable");
  const auto idle = OnWine() ? std::nullopt : IdleHoldings(server_->pid());
  ASSERT_EQ(idle.has_value(), !OnWine());
  Shell("cancel -a KvtProofA KvtProofB");
  // Jobs A1 and A2 on printer 0, B1 on printer 1.
  const std::string queues[] = {"KvtProofA", "KvtProofA", "KvtProofB"},
                    titles[] = {"Proof A1", "Proof A2", "Proof B1"};
  std::string ids[3];
  std::vector<std::string> expected;
  for (int i = 0; i < 3; ++i) {
    ids[i] = Hold(queues[i], titles[i]);
    if (!OnWine()) expected.push_back(HeldJob(queues[i], i / 2u, ids[i], titles[i]));
  }
  Connection c = Opened();
  EXPECT_EQ(Listed(c), expected);
  // Job numbers are the scheduler's: the reference must name the job's own printer. Job 0
  // and -1 would be "the current job" and "all jobs" to CUPS. Only A2 goes, on Linux.
  for (std::string name : {"*1-" + ids[0], "*0-0"s, "*0--1"s, "*0-" + ids[1]})
    EXPECT_EQ(client::CancelJobOrSpoolFile(c, name), std::optional<std::uint8_t>(0)) << name;
  const std::string queued = Shell("lpstat -o");
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(queued.find(queues[i] + "-" + ids[i] + " ") != std::string::npos, i != 1 || OnWine())
        << titles[i] << "\n" << queued;
  EXPECT_TRUE(c.SendClose()) << c.error();  // the printers are closed at the teardown
  if (!OnWine()) {  // each connection's line to the scheduler goes with its thread
    Outcome run = RunKvtctl({"jobs"});
    const std::string line = "\nKvtProofB +\\*1-" + ids[2] + " +stopped +Proof B1 +" + kUser;
    EXPECT_TRUE(std::regex_search(run.out, std::regex(line + " +LOCALHOST\n"))) << run.out << run.err;
    run = RunKvtctl({"cancel", "*1-" + ids[2]});
    EXPECT_EQ(run.out, "*1-" + ids[2] + ": answer 0; the job is no longer listed\n");
    ExpectSettled(server_->pid(), *idle);
  }
  Shell("cancel -a KvtProofA KvtProofB");
}

KVT_ON_BOTH_KINDS(SpoolerTest);

}  // namespace
}  // namespace kvt::wire
