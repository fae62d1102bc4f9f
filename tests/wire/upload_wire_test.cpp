// Spool uploads and the print hand-off against both programs, with the jobfeeder stand-in
// in the program folder of "Corvina".
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <regex>
#include <sstream>

#include "client/spool_client.h"
#include "harness.h"

namespace kvt::wire {
namespace {

using namespace std::chrono_literals;
using client::Connection;
using Lines = std::vector<std::string>;

std::string Pattern(std::size_t count, int seed) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251 + seed);
  return bytes;
}

std::optional<bool> Upload(Connection& c, std::string_view name, const std::string& body) {
  std::size_t at = 0;
  std::string error;
  auto stored = client::UploadSpool(
      c, name, std::uint32_t(body.size()),
      [&](char* buffer, std::size_t count) {
        return body.copy(buffer, count, at), at += count, count;
      },
      {}, &error);
  EXPECT_TRUE(stored) << error;
  return stored;
}

// Sends the marker and `request`, then half-closes: what the server answers until it closes.
std::string AnswerOfCutRequest(const std::string& request) {
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(51470), {htonl(INADDR_LOOPBACK)}, {}};
  timeval limit{20, 0};
  ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const std::string bytes = "\x04\x03\x02\x01" + request;
  std::string answer;
  char buffer[16];
  if (::connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::send(s, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size()) &&
      ::shutdown(s, SHUT_WR) == 0)
    for (ssize_t n; (n = ::recv(s, buffer, sizeof buffer, 0)) > 0;) answer.append(buffer, n);
  ::close(s);
  return answer;
}

class SpoolTest : public ServerSuite {
 protected:
  void SetUp() override {
    ServerSuite::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    const fs::path standin =
        GetParam() == Kind::kLinux
            ? fs::path(KVT_LINUX_JOBFEEDER)
            : fs::path(KVT_WINDOWS_SERVER).parent_path() / "tests/standins/jobfeeder.exe";
    if (!fs::exists(standin)) GTEST_SKIP() << standin << " is missing: build its tests first";
    // A blank in the folder: each start must keep the program's path whole.
    const fs::path programs = Records() / "Corvina programs";
    installed_ = programs / standin.filename();
    fs::create_directories(programs);
    fs::copy_file(standin, installed_, fs::copy_options::overwrite_existing);
    fs::create_directories(Pointer().parent_path());
    std::ofstream(Pointer()) << (GetParam() == Kind::kWine ? "Z:" : "") << programs.string()
                             << "\n";
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
  static fs::path Records() { return server_->ToolRecords(); }

  // The stand-in's starts, once `count` are recorded (or the server's patience is spent):
  // the arguments of each, each after a tab.
  static Lines Starts(std::size_t count) {
    Lines starts;
    WaitUntil(
        [&] {
          std::istringstream text(ReadFile(Records() / "jobfeeder-starts"));
          starts.clear();
          for (std::string line; std::getline(text, line);)
            starts.push_back(line.substr(std::min(line.find('\t'), line.size())));
          return starts.size() >= count;
        },
        server_->Patience());
    return starts;
  }

  fs::path installed_;
};

TEST_P(SpoolTest, UploadStoresTheBodyAndStartsJobfeeder) {
  for (const auto& [marker, name] : {std::pair{client::kLittleEndianMarker, "123456789012345"},
                                     std::pair{client::kBigEndianMarker, "Big"}}) {
    const std::string body = Pattern(5000, name[0]);
    Connection c = Opened(marker);
    EXPECT_EQ(Upload(c, name, body), true) << name;
    EXPECT_TRUE(ReadFile(Spool() / (std::string(name) + ".spl")) == body) << name;
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  EXPECT_EQ(Starts(2), Lines(2));  // without arguments

  // kvtctl, under a given name and under one the server hands out.
  const fs::path file = Records() / "job.spl";
  const std::string body = Pattern(300000, 3);
  std::ofstream(file, std::ios::binary) << body;
  Outcome run = RunKvtctl({"upload", file.string(), "--name", "Kvtctl"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, file.string() + " stored as Kvtctl.spl (300000 bytes)\n");
  EXPECT_TRUE(ReadFile(Spool() / "Kvtctl.spl") == body);
  run = RunKvtctl({"upload", file.string()});
  std::smatch fresh;
  ASSERT_TRUE(std::regex_search(run.out, fresh, std::regex("as ([0-9]{15})\\.spl"))) << run.err;
  EXPECT_TRUE(ReadFile(Spool() / (fresh[1].str() + ".spl")) == body);
  EXPECT_EQ(Starts(4), Lines(4));
}

TEST_P(SpoolTest, UploadRefusalsStoreAndStartNothing) {
  std::ofstream(Spool() / "Keep.spl") << "old";
  auto stored = [] { return std::distance(fs::directory_iterator(Spool()), {}); };
  const auto before = stored();
  Connection c = Opened();
  const std::string body = Pattern(3000, 1);
  // Names that leave the folder or have no end: the body is dropped, the stream stays in step.
  for (std::string name : {"../up", "a/b", "a\\b", "C:up", "..", "x..y", "NNNNNNNNNNNNNNNN"}) {
    name.resize(16, '\0');
    EXPECT_TRUE(c.SendFrame(client::kCmdUploadSpool) && c.SendBytes(name.data(), 16) &&
                c.SendU32(std::uint32_t(body.size())) && c.SendBytes(body.data(), body.size()));
    EXPECT_EQ(c.RecvByte(), std::optional<std::uint8_t>(0)) << name << c.error();
  }
  // A body cut short: the answer 0, and the file of that name as it was.
  const std::string head = "KVT\x03Keep" + std::string(12, '\0') + std::string("\x10\0\0\0", 4);
  EXPECT_EQ(AnswerOfCutRequest(head + "new"), std::string("\x01\x00", 2));
  EXPECT_EQ(ReadFile(Spool() / "Keep.spl"), "old");
  EXPECT_EQ(stored(), before);
  // Over the ceiling: the bytes that come are dropped until the client goes.
  Connection over = Opened();
  EXPECT_TRUE(over.SendFrame(client::kCmdUploadSpool) && over.SendText("Huge", 16) &&
              over.SendU32((1u << 30) + 1) && over.SendBytes(body.data(), body.size()));
  over.Close();

  EXPECT_EQ(Upload(c, "Fine", body), true);
  EXPECT_TRUE(c.SendClose()) << c.error();
  EXPECT_EQ(Starts(1).size(), 1u);  // for "Fine" alone
  EXPECT_FALSE(fs::exists(Spool() / "Huge.spl"));
}

// The number of threads, descriptors and children (zombies among them) of a Linux server.
std::tuple<long, long, int> Holdings(pid_t pid) {
  const fs::path proc = "/proc/" + std::to_string(pid);
  auto count = [](const fs::path& dir) {
    return long(std::distance(fs::directory_iterator(dir), {}));
  };
  int children = 0;
  for (const auto& process : fs::directory_iterator("/proc")) {
    if (!std::isdigit(static_cast<unsigned char>(process.path().filename().string()[0]))) continue;
    const std::string stat = ReadFile(process.path() / "stat");
    std::istringstream fields(stat.substr(std::min(stat.rfind(')') + 1, stat.size())));
    std::string state;
    pid_t parent = 0;
    children += fields >> state >> parent && parent == pid;
  }
  return {count(proc / "task"), count(proc / "fd"), children};
}

TEST_P(SpoolTest, HandoffLetsJobfeederTalkToTheClient) {
  // On Linux: what the server holds once the programs of earlier tests have ended.
  const bool onLinux = GetParam() == Kind::kLinux;
  if (onLinux) WaitUntil([&] { return std::get<2>(Holdings(server_->pid())) == 0; }, 10s);
  const auto [threads, descriptors, children] =
      onLinux ? Holdings(server_->pid()) : std::tuple<long, long, int>{};
  for (int round = 0; round < 3; ++round) {
    Connection c = Opened();
    ASSERT_TRUE(c.SendFrame(client::kCmdPrintHandoff)) << c.error();
    char greeting[8] = {};
    EXPECT_EQ(c.RecvBytes(greeting, sizeof greeting), client::Status::kOk) << c.error();
    EXPECT_EQ(std::string(greeting, sizeof greeting), "JOBFEED\n");
    EXPECT_TRUE(c.SendBytes("e", 1)) << c.error();
    EXPECT_EQ(c.RecvByte(), std::optional<std::uint8_t>('e')) << c.error();
    EXPECT_TRUE(c.ExpectEnd()) << c.error();  // the stand-in has gone, and so has the server
  }
  EXPECT_EQ(Starts(3), Lines(3, "\t-l"));
  // Neither a hand-off nor an upload leaves a descriptor, a thread or a zombie behind.
  Connection c = Opened();
  EXPECT_EQ(Upload(c, "Upload", "x"), true);
  EXPECT_TRUE(c.SendClose()) << c.error();
  EXPECT_EQ(Starts(4).size(), 4u);
  EXPECT_TRUE(!onLinux || WaitUntil(
                              [&] {
                                auto [t, d, c] = Holdings(server_->pid());
                                return t <= threads && d <= descriptors && c == children;
                              },
                              10s));

  // Without the program the command is ignored: nothing comes, the next frame is served.
  fs::remove(installed_);
  c = Opened();
  ASSERT_TRUE(c.SendFrame(client::kCmdPrintHandoff)) << c.error();
  std::uint8_t byte;
  c.SetTimeout(300);
  EXPECT_EQ(c.RecvBytes(&byte, 1), client::Status::kTimedOut) << c.error();
  c.SetTimeout(client::kDefaultTimeoutMs);
  EXPECT_EQ(Upload(c, "AfterHandoff", "x"), true);
  EXPECT_TRUE(c.SendClose()) << c.error();
}

TEST_P(SpoolTest, StartedProgramsHoldNoConnectionOfTheServer) {
  // A jobfeeder that stays on must not keep the server's other connections open after the
  // server has closed them (nor its listening sockets once it has ended).
  std::ofstream(Records() / "jobfeeder-stay-ms") << 5000;
  Connection bystander = Opened(), uploader = Opened();
  EXPECT_EQ(Upload(uploader, "Stay", "x"), true);
  ASSERT_EQ(Starts(1).size(), 1u);
  for (Connection* c : {&bystander, &uploader}) {
    c->SetTimeout(2000);
    EXPECT_TRUE(c->SendClose()) << c->error();
  }
}

INSTANTIATE_TEST_SUITE_P(Linux, SpoolTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, SpoolTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
