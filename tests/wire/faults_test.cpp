// Faults around the server, against both programs: a spool folder that can't be written, the
// programs it starts missing or broken, a gamut file that changes under the read, pointer
// files of any size, and the scheduler stopped mid-run. Each gets its designed answer, and
// the server goes on serving.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "client/print_client.h"
#include "harness.h"

namespace kvt::wire {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

// Each test starts its own server, as its faults need.
class FaultTest : public KindTest {
 protected:
  void SetUp() override {
    KindTest::SetUp();
    if (!IsSkipped()) server_ = std::make_unique<Server>(GetParam());
  }
  void TearDown() override {  // Wine's data and temporary folders outlive the server
    if (server_ && OnWine()) fs::remove(Pointer()), fs::remove_all(server_->TableFolder());
  }
  bool OnWine() const { return GetParam() == Kind::kWine; }
  fs::path Spool() const { return server_->Gamut().parent_path() / "spool"; }
  fs::path Pointer() const { return server_->Gamut() / "../../Velmora/Corvina"; }
  fs::path Jobfeeder() const {
    return server_->Records().folder() / "programs" / server_->JobfeederStandin().filename();
  }
  // jobfeeder where the pointer file says, the colour tool answering 5.
  void InstallPrograms() {
    InstallProgram(server_->JobfeederStandin(), Jobfeeder());
    WriteFile(Pointer(), (OnWine() ? "Z:" : "") + Jobfeeder().parent_path().string() + "\n");
    server_->InstallTool();
    WriteFile(server_->Records().folder() / "exit-code", "5");
  }
  std::size_t Starts() const {
    const std::string starts = ReadFile(server_->Records().folder() / "jobfeeder-starts");
    return std::size_t(std::count(starts.begin(), starts.end(), '\n'));
  }
  // The answer to a whole upload (the opening byte first).
  static std::string Upload(const std::string& name, std::size_t size) {
    return AnswerOfCutRequest("KVT\x03" + Field(name, 16) + Le32(std::uint32_t(size)) +
                              Pattern(size));
  }
  // The server serves a new connection (asked first: a server that is just ending may still
  // be running) and runs.
  void ExpectServing() {
    EXPECT_EQ(AnswerOfCutRequest("KVT\x05").size(), 17u);
    EXPECT_TRUE(server_->Running()) << server_->Errors();
  }
  std::unique_ptr<Server> server_;
};

TEST_P(FaultTest, SpoolFolderThatCannotBeWritten) {
  // Root ignores permission bits: read-only is a read-only mount, in a mount namespace of
  // the server's own. A disk fills up as /dev/full under the stored name, as a small tmpfs,
  // or as the file-size limit (which must fail the write, not end the server with SIGXFSZ).
  using Words = std::vector<std::string>;
  auto mounted = [&](const std::string& mount) {
    return Words{"unshare", "-m", "--propagation", "private", "sh", "-c",
                 mount + " " + Spool().string() + " && exec \"$@\"", "sh"};
  };
  const std::string refused = "\x01\x00"s, stored = "\x01\x01"s;
  const char* outsideWine = "Wine's files are opened by wineserver, outside that namespace";
  struct Row {
    const char* fault;
    std::function<void()> make;
    Words wrapper;
    std::string small;  // the answer to an upload of 100 bytes (one of 1 MiB is refused)
    const char* whyNotWine;
  };
  const Row rows[] = {
      {"missing", [&] { fs::remove_all(Spool()); }, {}, refused, ""},
      {"a file in its place", [&] { fs::remove(Spool()), WriteFile(Spool(), "x"); }, {}, refused,
       ""},
      {"read-only mount", [] {}, mounted("mount --bind -o ro " + Spool().string()), refused,
       outsideWine},
      {"disk full (/dev/full)", [&] { fs::create_symlink("/dev/full", Spool() / "Big.spl"); }, {},
       stored, ""},
      {"disk full (64 KiB tmpfs)", [] {}, mounted("mount -t tmpfs -o size=64k tmpfs"), stored,
       outsideWine},
      {"file-size limit of 64 KiB", [] {}, {"prlimit", "--fsize=65536"}, stored,
       "SIGXFSZ ends Wine itself (status 153)"}};
  InstallPrograms();
  for (const Row& row : rows) {
    if (OnWine() && *row.whyNotWine) {
      std::cout << "[ NOT MADE ] under Wine: " << row.fault << ": " << row.whyNotWine << "\n";
      continue;
    }
    SCOPED_TRACE(row.fault);
    server_->Stop();
    fs::remove_all(Spool());
    fs::create_directories(Spool());
    row.make();
    server_->WrapWith(row.wrapper);
    ASSERT_EQ(server_->StartListening(), "");
    const std::size_t before = Starts();
    EXPECT_TRUE(Upload("Small", 100) == row.small);
    EXPECT_TRUE(Upload("Big", 1 << 20) == refused);
    const bool started = row.small == stored;
    EXPECT_TRUE(WaitUntil([&] { return Starts() == before + started; }, server_->Patience()));
    ExpectServing();
  }
  // Under the limit, the file stays as far as it got.
  if (!OnWine()) {
    EXPECT_EQ(fs::file_size(Spool() / "Big.spl"), 65536u);
  }
}

TEST_P(FaultTest, ProgramsAndPointerFiles) {
  InstallPrograms();
  ASSERT_EQ(server_->StartListening(), "");
  const std::string line(10 << 20, 'p');  // 10 MiB
  auto notProgram = [&](const fs::path& p) {
    WriteFile(p, "not a program\n");
    fs::permissions(p, fs::perms::owner_read | fs::perms::owner_write);
  };
  struct Row {
    const char* fault;
    std::function<void()> make;
    bool startsJobfeeder;
    std::uint32_t toolResult;
  };
  const Row rows[] = {
      {"none", [] {}, true, 5},
      {"jobfeeder missing", [&] { fs::remove(Jobfeeder()); }, false, 5},
      {"jobfeeder not executable", [&] { notProgram(Jobfeeder()); }, false, 5},
      {"colour tool missing", [&] { fs::remove(server_->Tool()); }, true, 0},
      {"colour tool not executable", [&] { notProgram(server_->Tool()); }, true, 0},
      {"pointer file missing", [&] { fs::remove(Pointer()); }, false, 5},
      {"pointer file empty", [&] { WriteFile(Pointer(), ""); }, false, 5},
      {"pointer file of 10 MiB in one line", [&] { WriteFile(Pointer(), line); }, false, 5},
      {"pointer file of 10 MiB after its line",
       [&] { WriteFile(Pointer(), ReadFile(Pointer()) + line); }, true, 5}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fault);
    InstallPrograms();
    row.make();
    const std::size_t before = Starts();
    // An upload is stored and answered 1 whether or not jobfeeder starts.
    EXPECT_TRUE(Upload("Up", 10) == "\x01\x01"s);
    EXPECT_TRUE(ReadFile(Spool() / "Up.spl") == Pattern(10));
    EXPECT_TRUE(WaitUntil([&] { return Starts() == before + row.startsJobfeeder; }, 10s));
    // A hand-off without its program is ignored: the next frame is served as usual.
    client::Connection c = Opened();
    if (!row.startsJobfeeder) {
      ASSERT_TRUE(c.SendFrame(kvt::CMD_PRINT_HANDOFF)) << c.error();
      ExpectWaiting(c);
    }
    EXPECT_EQ(c.RegisterColorTable("T", "table"), std::optional(row.toolResult)) << c.error();
    EXPECT_TRUE(c.SendClose()) << c.error();
    ExpectServing();
  }
}

TEST_P(FaultTest, GamutFileChangingBetweenStatusAndRead) {
  // Deterministic stand-ins for a file that changes between its status and its read: sysfs
  // files report 4096 bytes but give fewer (truncated), and a write-only one can't be opened
  // for reading, even by root (removed).
  const std::pair<const char*, fs::path> rows[] = {
      {"Short", "/sys/devices/system/cpu/online"}, {"Gone", "/sys/bus/pci/rescan"}};
  ASSERT_EQ(server_->StartListening(), "");
  WriteFile(server_->Gamut() / "Live" / "Plain.gamut", "plain", 1700000000);
  client::Connection c = Opened();
  for (const auto& [name, target] : rows) {
    if (!fs::exists(target)) GTEST_SKIP() << target << " is missing";
    fs::create_symlink(target, server_->Gamut() / "Live" / (name + ".gamut"s));
    const std::size_t size = fs::file_size(target);
    const std::string content = name == "Short"s ? ReadFile(target) : "";
    ASSERT_TRUE(c.SendFrame(kvt::CMD_GET_GAMUT) && c.SendText("Live", 100) && c.SendText(name, 40));
    EXPECT_TRUE(Receive(c, 8 + size).substr(4) == Le32(std::uint32_t(size)) + Field(content, size))
        << name;
  }
  // The stream is still in step.
  ASSERT_TRUE(c.SendFrame(kvt::CMD_GET_GAMUT) && c.SendText("Live", 100) &&
              c.SendText("Plain", 40));
  EXPECT_EQ(Receive(c, 13), Le32(1700000000) + Le32(5) + "plain");
  EXPECT_TRUE(c.SendClose()) << c.error();
  ExpectServing();
}

TEST_P(FaultTest, SchedulerStoppedMidRun) {
  // A scheduler of this test's own, with one held job, stopped (and its folder removed) when
  // the test ends however it ends.
  struct Scheduler {
    std::string dir = fs::temp_directory_path() / ("kvt-cups-" + std::to_string(::getpid()));
    std::string Run(const char* action) const {
      const fs::path fixture = fs::path(__FILE__).parent_path().parent_path() / "print";
      std::system(("sh " + (fixture / "cups-fixture.sh").string() + " " + action + " " + dir +
                   " >/dev/null 2>&1").c_str());
      if (*action == 'd') return "";
      if (fs::exists(dir + "/unavailable")) return ReadFile(dir + "/unavailable");
      WriteFile(dir + "/document", "nothing to print\n");
      const std::string lp = "CUPS_SERVER=" + dir + "/cups.sock lp -H hold -d KvtProofA " +
                             dir + "/document >/dev/null 2>&1";
      return WaitUntil([&] { return std::system(lp.c_str()) == 0; }, 10s) ? "" : "no job held";
    }
    ~Scheduler() { Run("down"); }
  } scheduler;
  if (std::string why = scheduler.Run("up"); !why.empty()) GTEST_SKIP() << why;
  const char* shared = std::getenv("CUPS_SERVER");
  ::setenv("CUPS_SERVER", (scheduler.dir + "/cups.sock").c_str(), 1);
  std::string error = server_->StartListening();
  shared ? ::setenv("CUPS_SERVER", shared, 1) : ::unsetenv("CUPS_SERVER");
  ASSERT_EQ(error, "");
  auto listed = [&](client::Connection& c) {
    std::optional<std::string> block = client::ListJobRecords(c, &error);
    EXPECT_TRUE(block) << error;
    return block ? block->size() / client::kJobRecordSize : 99;
  };
  // Wine's winspool lists no jobs at all: there only the listing's answer is checked.
  const std::size_t jobs = OnWine() ? 0 : 1;
  client::Connection c = Opened();
  EXPECT_EQ(listed(c), jobs);
  scheduler.Run("down");
  // Gone: nothing is listed, a reference cancels nothing, and new connections are served.
  EXPECT_EQ(listed(c), 0u);
  EXPECT_EQ(client::CancelJobOrSpoolFile(c, "*0-1"), std::optional<std::uint8_t>(0));
  client::Connection later = Opened();
  EXPECT_EQ(listed(later), 0u);
  // Back again: a new connection lists its job.
  ASSERT_EQ(scheduler.Run("up"), "");
  client::Connection again = Opened();
  EXPECT_EQ(listed(again), jobs);
  for (client::Connection* open : {&c, &later, &again}) EXPECT_TRUE(open->SendClose());
  ExpectServing();
}

INSTANTIATE_TEST_SUITE_P(Linux, FaultTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, FaultTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
