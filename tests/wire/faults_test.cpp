// Faults around the server, against both programs: a spool folder that can't be written, the
// programs it starts missing or broken, a gamut file that changes under the read, and pointer
// files of any size. Each gets its designed answer, and the server goes on serving. (The
// scheduler stopped mid-run is the job listing's test.)
#include <gtest/gtest.h>

#include <functional>

#include "client/print_client.h"
#include "harness.h"

namespace kvt::wire {
namespace {

// Each test starts its own server, as its faults need.
class FaultTest : public KindTest {
 protected:
  void SetUp() override {
    KindTest::SetUp();
    if (!IsSkipped()) server_ = std::make_unique<Server>(GetParam());
  }
  // jobfeeder where the pointer file says, the colour tool answering 5.
  void InstallPrograms() {
    jobfeeder_ = server_->InstallJobfeeder(server_->Records().folder() / "programs");
    server_->InstallTool();
    server_->Records().SetToolExit(5);
  }
  // Exactly `more` starts of jobfeeder since `before`: a hand-off must start it too, and
  // its start is recorded once it greets; then the count is exact. The server serves.
  // Without the greeting no count can come: the test stops there, at once.
  void ExpectStarts(std::size_t before, std::size_t more) {
    client::Connection c = Opened();
    ASSERT_TRUE(c.SendFrame(kvt::CMD_PRINT_HANDOFF)) << c.error();
    ASSERT_EQ(Receive(c, 8), "JOBFEED\n");
    EXPECT_EQ(server_->Records().WaitForStarts(before + more + 1).size(), before + more + 1);
    EXPECT_TRUE(server_->Running()) << server_->Errors();
  }
  std::unique_ptr<Server> server_;
  fs::path jobfeeder_;
};

TEST_P(FaultTest, SpoolFolderThatCannotBeWritten) {
  // Root ignores permission bits: read-only is a read-only mount, in a mount namespace of
  // the server's own. A disk fills up as /dev/full under the stored name, as a small tmpfs,
  // or as the file-size limit (which must fail the write, not end the server with SIGXFSZ).
  const fs::path spool = server_->Spool();
  auto mounted = [&](const std::string& mount) {
    return Words{"unshare", "-m", "--propagation", "private", "sh", "-c",
                 mount + " " + spool.string() + " && exec \"$@\"", "sh"};
  };
  const char* outsideWine = "Wine's files are opened by wineserver, outside that namespace";
  // The fault, how it is made, whether an upload of 100 bytes is stored (one of 1 MiB is
  // refused), and why it can't be made under Wine.
  const std::tuple<const char*, std::function<void()>, Words, bool, const char*> rows[] = {
      {"missing", [&] { fs::remove_all(spool); }, {}, false, ""},
      {"a file in its place", [&] { fs::remove(spool), WriteFile(spool, "x"); }, {}, false, ""},
      {"read-only mount", [] {}, mounted("mount --bind -o ro " + spool.string()), false,
       outsideWine},
      {"disk full (/dev/full)", [&] { fs::create_symlink("/dev/full", spool / "Big.spl"); }, {},
       true, ""},
      {"disk full (64 KiB tmpfs)", [] {}, mounted("mount -t tmpfs -o size=64k tmpfs"), true,
       outsideWine},
      {"file-size limit of 64 KiB", [] {}, {"prlimit", "--fsize=65536"}, true,
       "SIGXFSZ ends Wine itself (status 153)"}};
  InstallPrograms();
  for (const auto& [fault, make, wrapper, stored, whyNotWine] : rows) {
    if (OnWine() && *whyNotWine) {
      std::cout << "[ NOT MADE ] under Wine: " << fault << ": " << whyNotWine << "\n";
      continue;
    }
    SCOPED_TRACE(fault);
    server_->Stop();
    fs::remove_all(spool);
    fs::create_directories(spool);
    make();
    server_->WrapWith(wrapper);
    ASSERT_EQ(server_->StartListening(), "");
    const std::size_t before = server_->Records().Starts().size();
    client::Connection c = Opened();
    EXPECT_EQ(Upload(c, "Small", Pattern(100)), stored);  // first: the big one fills the disk
    EXPECT_EQ(Upload(c, "Big", Pattern(1 << 20)), false);
    ASSERT_NO_FATAL_FAILURE(ExpectStarts(before, stored));
  }
  // Under the limit, the file stays as far as it got.
  EXPECT_TRUE(OnWine() || fs::file_size(spool / "Big.spl") == 65536u);
}

TEST_P(FaultTest, ProgramsAndPointerFiles) {
  ASSERT_EQ(server_->StartListening(), "");
  const std::string line(10 << 20, 'p');  // 10 MiB
  const fs::path pointer = server_->Pointer();
  auto notProgram = [&](const fs::path& p) {
    WriteFile(p, "not a program\n");
    fs::permissions(p, fs::perms::owner_read | fs::perms::owner_write);
  };
  // The fault, how it is made, whether jobfeeder starts, the tool's answer.
  const std::tuple<const char*, std::function<void()>, bool, std::uint32_t> rows[] = {
      {"none", [] {}, true, 5},
      {"jobfeeder missing", [&] { fs::remove(jobfeeder_); }, false, 5},
      {"jobfeeder not executable", [&] { notProgram(jobfeeder_); }, false, 5},
      {"colour tool missing", [&] { fs::remove(server_->Tool()); }, true, 0},
      {"colour tool not executable", [&] { notProgram(server_->Tool()); }, true, 0},
      {"pointer file missing", [&] { fs::remove(pointer); }, false, 5},
      {"pointer file empty", [&] { WriteFile(pointer, ""); }, false, 5},
      {"pointer file of 10 MiB in one line", [&] { WriteFile(pointer, line); }, false, 5},
      {"pointer file of 10 MiB after its line",
       [&] { WriteFile(pointer, ReadFile(pointer) + line); }, true, 5}};
  for (const auto& [fault, make, starts, toolResult] : rows) {
    SCOPED_TRACE(fault);
    InstallPrograms();
    make();
    const std::size_t before = server_->Records().Starts().size();
    // An upload is stored and answered 1 whether or not jobfeeder starts.
    client::Connection c = Opened();
    EXPECT_EQ(Upload(c, "Up", Pattern(10)), true);
    EXPECT_TRUE(ReadFile(server_->Spool() / "Up.spl") == Pattern(10));
    // A hand-off without its program is ignored: the next frame is served as usual.
    if (!starts) {
      ASSERT_TRUE(c.SendFrame(kvt::CMD_PRINT_HANDOFF)) << c.error();
      ExpectWaiting(c);
    }
    EXPECT_EQ(c.RegisterColorTable("T", "table"), std::optional(toolResult)) << c.error();
    EXPECT_TRUE(c.SendClose()) << c.error();
    InstallPrograms();  // so that the hand-off starts jobfeeder
    ASSERT_NO_FATAL_FAILURE(ExpectStarts(before, starts));
  }
}

TEST_P(FaultTest, GamutFileChangingBetweenStatusAndRead) {
  // Deterministic stand-ins for a file that changes between its status and its read: sysfs
  // files report 4096 bytes but give fewer (truncated), and a write-only one can't be opened
  // for reading, even by root (removed). A plain file after them: the stream is in step.
  const fs::path plain = server_->Records().folder() / "plain";
  WriteFile(plain, "plain");
  const std::pair<const char*, fs::path> rows[] = {
      {"Short", "/sys/devices/system/cpu/online"}, {"Gone", "/sys/bus/pci/rescan"},
      {"Plain", plain}};
  ASSERT_EQ(server_->StartListening(), "");
  client::Connection c = Opened();
  for (const auto& [name, target] : rows) {
    if (!fs::exists(target)) GTEST_SKIP() << target << " is missing";
    fs::create_directories(server_->Gamut() / "Live");
    fs::create_symlink(target, server_->Gamut() / "Live" / (name + std::string(".gamut")));
    const std::size_t size = fs::file_size(target);
    ASSERT_TRUE(c.SendFrame(kvt::CMD_GET_GAMUT) && c.SendText("Live", 100) && c.SendText(name, 40));
    EXPECT_TRUE(Receive(c, 8 + size).substr(4) == Le32(std::uint32_t(size)) +
                                                     Field(ReadFile(target), size))
        << name;
  }
}

KVT_ON_BOTH_KINDS(FaultTest);

}  // namespace
}  // namespace kvt::wire
