// Spool uploads and the print hand-off against both programs, with the jobfeeder stand-in
// in the program folder of "Corvina".
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "harness.h"

namespace kvt::wire {
namespace {

using namespace std::chrono_literals;
using client::Connection;
using Lines = std::vector<std::string>;

// Sends an upload request with `name` in its 16-byte field (NUL-padded) and `body`: the answer
// byte (1: stored, 0: refused).
std::optional<std::uint8_t> Upload(Connection& c, std::string name, const std::string& body) {
  name.resize(16, '\0');
  EXPECT_TRUE(c.SendFrame(kvt::CMD_UPLOAD_SPOOL) && c.SendBytes(name.data(), 16) &&
              c.SendU32(std::uint32_t(body.size())) && c.SendBytes(body.data(), body.size()))
      << c.error();
  return c.RecvByte();
}

class SpoolTest : public ServerSuite {
 protected:
  void SetUp() override {
    ServerSuite::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    const fs::path standin = server_->JobfeederStandin();
    if (!fs::exists(standin)) GTEST_SKIP() << standin << " is missing: build its tests first";
    // A blank in the folder: each start must keep the program's path whole.
    const fs::path programs = Records() / "Corvina programs";
    installed_ = programs / standin.filename();
    InstallProgram(standin, installed_);
    WriteFile(Pointer(), (GetParam() == Kind::kWine ? "Z:" : "") + programs.string() + "\n");
    fs::remove(Records() / "jobfeeder-starts");
    fs::remove(Records() / "jobfeeder-stay-ms");
  }
  static void TearDownTestSuite() {
    if (server_) fs::remove(Pointer());  // Wine's data folder outlives the server
    ServerSuite::TearDownTestSuite();
  }
  static fs::path Spool() { return server_->Gamut().parent_path() / "spool"; }
  static fs::path Pointer() {
    return server_->Gamut().parent_path().parent_path() / "Velmora/Corvina";
  }
  static fs::path Records() { return server_->Records().folder(); }

  // The stand-in's starts, once `count` are recorded (or the server's patience is spent):
  // the arguments of each, each after a tab.
  static Lines Starts(std::size_t count) {
    Lines starts;
    auto recorded = [&] {
      std::istringstream text(ReadFile(Records() / "jobfeeder-starts"));
      starts.clear();
      for (std::string line; std::getline(text, line);)
        starts.push_back(line.substr(std::min(line.find('\t'), line.size())));
      return starts.size() >= count;
    };
    WaitUntil(recorded, server_->Patience());
    return starts;
  }

  fs::path installed_;
};

TEST_P(SpoolTest, UploadStoresTheBodyAndStartsJobfeeder) {
  for (const auto& [marker, name] : {std::pair{client::kLittleEndianMarker, "123456789012345"},
                                     std::pair{client::kBigEndianMarker, "Big"}}) {
    const std::string body = Pattern(5000, name[0]);
    Connection c = Opened(marker);
    EXPECT_EQ(Upload(c, name, body), std::optional<std::uint8_t>(1)) << name;
    EXPECT_TRUE(ReadFile(Spool() / (std::string(name) + ".spl")) == body) << name;
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  EXPECT_EQ(Starts(2), Lines(2));  // without arguments

  // kvtctl, under a given name and (as a big-endian client) under one the server hands out.
  const fs::path file = Records() / "job.spl";
  const std::string body = Pattern(300000, 3);
  WriteFile(file, body);
  Outcome run = RunKvtctl({"upload", file.string(), "--name", "Kvtctl"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, file.string() + " stored as Kvtctl.spl (300000 bytes)\n");
  EXPECT_TRUE(ReadFile(Spool() / "Kvtctl.spl") == body);
  run = RunKvtctl({"--big-endian", "upload", file.string()});
  std::smatch fresh;
  ASSERT_TRUE(std::regex_search(run.out, fresh, std::regex("as ([0-9]{15})\\.spl"))) << run.err;
  EXPECT_TRUE(ReadFile(Spool() / (fresh[1].str() + ".spl")) == body);
  EXPECT_EQ(Starts(4), Lines(4));
}

TEST_P(SpoolTest, UploadRefusalsStoreAndStartNothing) {
  WriteFile(Spool() / "Keep.spl", "old");
  auto stored = [] { return std::distance(fs::directory_iterator(Spool()), {}); };
  const auto before = stored();
  Connection c = Opened();
  const std::string body = Pattern(3000, 1);
  // Names that leave the folder or have no end: the body is dropped, the stream stays in step.
  for (std::string name : {"../up", "a/b", "a\\b", "C:up", "..", "x..y", "NNNNNNNNNNNNNNNN"})
    EXPECT_EQ(Upload(c, name, body), std::optional<std::uint8_t>(0)) << name << c.error();
  // A body cut short: the answer 0, and the file of that name as it was.
  const std::string head = "KVT\x03Keep" + std::string(12, '\0') + std::string("\x10\0\0\0", 4);
  EXPECT_EQ(AnswerOfCutRequest(head + "new"), std::string("\x01\x00", 2));
  EXPECT_EQ(ReadFile(Spool() / "Keep.spl"), "old");
  EXPECT_EQ(stored(), before);
  // Over the ceiling: the bytes that come are dropped until the client goes.
  Connection over = Opened();
  EXPECT_TRUE(over.SendFrame(kvt::CMD_UPLOAD_SPOOL) && over.SendText("Huge", 16) &&
              over.SendU32((1u << 30) + 1) && over.SendBytes(body.data(), body.size()));
  over.Close();

  EXPECT_EQ(Upload(c, "Fine", body), std::optional<std::uint8_t>(1));
  EXPECT_TRUE(c.SendClose()) << c.error();
  EXPECT_EQ(Starts(1).size(), 1u);  // for "Fine" alone
  EXPECT_FALSE(fs::exists(Spool() / "Huge.spl"));
}

TEST_P(SpoolTest, HandoffLetsJobfeederTalkToTheClient) {
  // On Linux: what the server holds once the programs of earlier tests have ended.
  const bool onLinux = GetParam() == Kind::kLinux;
  if (onLinux) WaitUntil([&] { return std::get<2>(Holdings(server_->pid())) == 0; }, 10s);
  const auto [threads, descriptors, children] =
      onLinux ? Holdings(server_->pid()) : std::tuple<long, long, int>{};
  for (int round = 0; round < 3; ++round) {
    Connection c = Opened();
    ASSERT_TRUE(c.SendFrame(kvt::CMD_PRINT_HANDOFF)) << c.error();
    EXPECT_EQ(Receive(c, 8), "JOBFEED\n");
    EXPECT_TRUE(c.SendBytes("e", 1)) << c.error();
    EXPECT_EQ(c.RecvByte(), std::optional<std::uint8_t>('e')) << c.error();
    EXPECT_TRUE(c.ExpectEnd()) << c.error();  // the stand-in has gone, and so has the server
  }
  EXPECT_EQ(Starts(3), Lines(3, "\t-l"));
  // Neither a hand-off nor an upload leaves a descriptor, a thread or a zombie behind.
  Connection c = Opened();
  EXPECT_EQ(Upload(c, "Upload", "x"), std::optional<std::uint8_t>(1));
  EXPECT_TRUE(c.SendClose()) << c.error();
  EXPECT_EQ(Starts(4).size(), 4u);
  auto settled = [&] {
    auto [t, d, kids] = Holdings(server_->pid());
    return t <= threads && d <= descriptors && kids == children;
  };
  EXPECT_TRUE(!onLinux || WaitUntil(settled, 10s));

  // A jobfeeder that stays on must not keep the server's other connections open after the
  // server has closed them (nor its listening sockets once it has ended).
  WriteFile(Records() / "jobfeeder-stay-ms", "5000");
  Connection bystander = Opened();
  c = Opened();
  EXPECT_EQ(Upload(c, "Stay", "x"), std::optional<std::uint8_t>(1));
  ASSERT_EQ(Starts(5).size(), 5u);
  for (Connection* open : {&bystander, &c}) {
    open->SetTimeout(2000);
    EXPECT_TRUE(open->SendClose()) << open->error();
  }

  // Without the program the command is ignored: nothing comes, the next frame is served.
  fs::remove(installed_);
  c = Opened();
  ASSERT_TRUE(c.SendFrame(kvt::CMD_PRINT_HANDOFF)) << c.error();
  ExpectWaiting(c);
  EXPECT_EQ(Upload(c, "AfterHandoff", "x"), std::optional<std::uint8_t>(1));
  EXPECT_TRUE(c.SendClose()) << c.error();
}

INSTANTIATE_TEST_SUITE_P(Linux, SpoolTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, SpoolTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
