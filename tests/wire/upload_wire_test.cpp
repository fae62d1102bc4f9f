// Spool uploads and the print hand-off against both programs, with the jobfeeder stand-in
// in the program folder of "Corvina".
#include <gtest/gtest.h>

#include <regex>

#include "harness.h"

namespace kvt::wire {
namespace {

using client::Connection;

class SpoolTest : public ServerSuite {
 protected:
  void SetUp() override {
    ServerSuite::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    // A blank in the folder: each start must keep the program's path whole.
    server_->InstallJobfeeder(server_->Records().folder() / "Corvina programs");
    server_->Records().Clear();
  }
};

TEST_P(SpoolTest, UploadStoresTheBodyAndStartsJobfeeder) {
  for (const auto& [marker, name] : {std::pair{client::kLittleEndianMarker, "123456789012345"},
                                     std::pair{client::kBigEndianMarker, "Big"}}) {
    const std::string body = Pattern(5000, name[0]);
    Connection c = Opened(marker);
    EXPECT_EQ(Upload(c, name, body), true) << name;
    EXPECT_TRUE(ReadFile(server_->Spool() / (std::string(name) + ".spl")) == body) << name;
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  // kvtctl, under a given name and (as a big-endian client) under one the server hands out.
  const std::string file = server_->Records().folder() / "job.spl", body = Pattern(300000, 3);
  WriteFile(file, body);
  for (const auto& [args, stored] : {std::pair{Words{"upload", file, "--name", "Kvtctl"}, "(Kvtctl)"},
                                     std::pair{Words{"--big-endian", "upload", file}, "([0-9]{15})"}}) {
    const Outcome run = RunKvtctl(args);
    std::smatch as;
    EXPECT_EQ(run.status, 0) << run.err;
    const std::regex line(file + " stored as " + stored + "\\.spl \\(300000 bytes\\)\n");
    ASSERT_TRUE(std::regex_match(run.out, as, line)) << run.out;
    EXPECT_TRUE(ReadFile(server_->Spool() / (as[1].str() + ".spl")) == body);
  }
  // Each stored upload started jobfeeder once, without arguments.
  EXPECT_EQ(server_->Records().WaitForStarts(4), Words(4));
  // kvtctl's listing marks what waits in the spool folder as such.
  const Outcome listed = RunKvtctl({"jobs"});
  EXPECT_NE(listed.out.find(" (spool file)"), std::string::npos) << listed.out << listed.err;
}

TEST_P(SpoolTest, HandoffLetsJobfeederTalkToTheClient) {
  // On Linux: what the server holds once the programs of earlier tests have ended.
  const pid_t pid = server_->pid();
  if (!OnWine()) WaitUntil([&] { return std::get<2>(Holdings(pid)) == 0; });
  const Holding idle = OnWine() ? Holding{} : Holdings(pid);
  for (int round = 0; round < 3; ++round) {
    Connection c = Opened();
    ASSERT_TRUE(c.SendFrame(kvt::CMD_PRINT_HANDOFF)) << c.error();
    ASSERT_EQ(Receive(c, 8), "JOBFEED\n");  // without it, no start can be counted below
    EXPECT_TRUE(c.SendBytes("e", 1)) << c.error();
    EXPECT_EQ(c.RecvByte(), std::optional<std::uint8_t>('e')) << c.error();
    EXPECT_TRUE(c.ExpectEnd()) << c.error();  // the stand-in has gone, and so has the server
  }
  // One start for each hand-off: the upload's comes after them.
  Connection c = Opened();
  EXPECT_EQ(Upload(c, "Upload", "x"), true);
  EXPECT_TRUE(c.SendClose()) << c.error();
  EXPECT_EQ(server_->Records().WaitForStarts(4), (Words{"\t-l", "\t-l", "\t-l", ""}));
  // Neither a hand-off nor an upload leaves a descriptor, a thread or a zombie behind.
  if (!OnWine()) ExpectSettled(pid, idle);

  // A jobfeeder that stays on must not keep the server's other connections open: the server
  // closes them while it still runs.
  const fs::path hold = server_->Records().folder() / "jobfeeder-hold";
  WriteFile(hold, "");
  Connection bystander = Opened();
  c = Opened();
  EXPECT_EQ(Upload(c, "Stay", "x"), true);
  ASSERT_EQ(server_->Records().WaitForStarts(5).size(), 5u);
  for (Connection* open : {&bystander, &c}) EXPECT_TRUE(open->SendClose()) << open->error();
  EXPECT_EQ(server_->Records().Ends(), 0u);
  fs::remove(hold);
  EXPECT_TRUE(WaitUntil([&] { return server_->Records().Ends() == 1; }));
}

KVT_ON_BOTH_KINDS(SpoolTest);

}  // namespace
}  // namespace kvt::wire
