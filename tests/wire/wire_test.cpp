// The wire protocol against the real server programs, through the client library. Each test
// runs against the Linux kvtnetd and against kvtnetd.exe under Wine.
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstring>
#include <regex>
#include <sstream>
#include <thread>
#include <tuple>

#include "client/client.h"
#include "harness.h"
#include "platform/net.h"

namespace kvt::wire {
namespace {

using namespace std::chrono_literals;
using client::Connection;

constexpr client::Marker kZeroMarker{0, 0, 0, 0};

class WireTest : public ServerSuite {};

TEST_P(WireTest, AnyMarkerOpensAndIgnoredCodesAnswerNothing) {
  for (const client::Marker& marker :
       {client::kLittleEndianMarker, client::kBigEndianMarker, kZeroMarker}) {
    SCOPED_TRACE(int{marker[0]});
    Connection c = Opened(marker);
    for (std::uint8_t code : {12, 22, 24, 255}) ASSERT_TRUE(c.SendFrame(code)) << c.error();
    ExpectWaiting(c);  // not a byte for any of them, and the connection stays open
    EXPECT_TRUE(c.SendClose()) << c.error();  // nor for the close
  }
}

TEST_P(WireTest, WrongMagicClosesWithoutAnswer) {
  // Code 12 would keep the connection open: only the magic can close it.
  using namespace std::string_view_literals;
  for (std::string_view frame : {"kVT\x0c"sv, "KV\0\x0c"sv, "KVt\x0c"sv, "XKVT"sv}) {
    SCOPED_TRACE(std::string(frame.substr(0, 3)));
    Connection c = Opened();
    ASSERT_TRUE(c.SendBytes(frame.data(), frame.size())) << c.error();
    EXPECT_TRUE(c.ExpectEnd()) << c.error();
  }
}

TEST_P(WireTest, MarkerAndFramesOneBytePerSegment) {
  Connection c;
  ASSERT_TRUE(c.Connect("127.0.0.1")) << c.error();
  auto sendSlowly = [&](std::string_view bytes) {
    for (char byte : bytes) {
      ASSERT_TRUE(c.SendBytes(&byte, 1)) << c.error();
      std::this_thread::sleep_for(2ms);  // one segment per byte (the client sends with no delay)
    }
  };
  sendSlowly("\x04\x03\x02\x01");
  EXPECT_EQ(c.RecvByte(), std::optional<std::uint8_t>(1)) << c.error();
  sendSlowly("KVT\x0c");
  ExpectWaiting(c);
  sendSlowly(std::string_view("KVT\0", 4));
  EXPECT_TRUE(c.ExpectEnd()) << c.error();
}

TEST_P(WireTest, EarlyLeaversThenSixtyFourConcurrentConnections) {
  // Clients that leave without a word, part-way through the marker or between frames.
  for (std::string_view bytes :
       {"", "\x04\x03", "\x04\x03\x02\x01", "\x04\x03\x02\x01KV", "\x04\x03\x02\x01KVT\x0c"}) {
    Connection c;
    ASSERT_TRUE(c.Connect("127.0.0.1") && c.SendBytes(bytes.data(), bytes.size())) << c.error();
  }
  // Then each answer comes while all the earlier connections are still open; code 12 brings
  // nothing (the close would see it).
  std::vector<Connection> clients(64);
  for (Connection& c : clients) ASSERT_TRUE(c.Connect("127.0.0.1") && c.Open()) << c.error();
  for (Connection& c : clients) ASSERT_TRUE(c.SendFrame(12)) << c.error();
  for (Connection& c : clients) EXPECT_TRUE(c.SendClose()) << c.error();
}

TEST_P(WireTest, KvtctlPing) {
  const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
      {{"ping"}, 0, "KVTnetd at 127.0.0.1:51470 answered (little-endian)\n", ""},
      {{"--big-endian", "ping"}, 0, "KVTnetd at 127.0.0.1:51470 answered (big-endian)\n", ""},
      {{"--port", "1", "ping"}, 1, "",
       "kvtctl: cannot connect to 127.0.0.1:1: Connection refused\n"}};
  for (const auto& [args, status, out, err] : cases) {
    const Outcome run = RunKvtctl(args);
    EXPECT_EQ(run.status, status);
    EXPECT_EQ(run.out, out);
    EXPECT_EQ(run.err, err);
  }
}

INSTANTIATE_TEST_SUITE_P(Linux, WireTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, WireTest, ::testing::Values(Kind::kWine));

// /proc shows a Linux server's own threads and descriptors; under Wine they are Wine's.
class LinuxWireTest : public WireTest {};

TEST_P(LinuxWireTest, ThreadsAndDescriptorsReturnToBaseline) {
  const auto idle = IdleHoldings(server_->pid());
  ASSERT_TRUE(idle.has_value());
  const auto baseline = *idle;
  {
    std::vector<Connection> clients(50);
    for (std::size_t i = 0; i < clients.size(); ++i)  // every other one opened
      ASSERT_TRUE(clients[i].Connect("127.0.0.1") && (i % 2 || clients[i].Open()))
          << clients[i].error();
    for (std::size_t i = 0; i < clients.size(); i += 4)
      EXPECT_TRUE(clients[i].SendClose()) << clients[i].error();
  }  // the others leave without a word
  EXPECT_TRUE(WaitUntil([&] { return Holdings(server_->pid()) == baseline; }, 10s))
      << "threads, descriptors, children " << ::testing::PrintToString(Holdings(server_->pid()))
      << ", at first " << ::testing::PrintToString(baseline);
}

INSTANTIATE_TEST_SUITE_P(Linux, LinuxWireTest, ::testing::Values(Kind::kLinux));

// Tests that run the server program themselves.
class OwnServerTest : public KindTest {};

// The debug log in the server's working folder: its text, or empty when there is none yet.
std::string LogText(const Server& server) {
  for (const auto& entry : fs::directory_iterator(server.cwd()))
    if (std::regex_match(entry.path().filename().string(), std::regex("KVTnetd-S[0-9]{12}")))
      return ReadFile(entry.path());
  return {};
}

// The log's entries, without the empty lines between them.
std::vector<std::string> LogEntries(const Server& server) {
  std::vector<std::string> entries;
  std::istringstream in(LogText(server));
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) entries.push_back(line);
  }
  return entries;
}

TEST_P(OwnServerTest, DebugLog) {
  Server server(GetParam());
  ASSERT_EQ(server.StartListening({"-debug"}), "");
  auto waitForEntries = [&](std::size_t count) {
    return WaitUntil([&] { return LogEntries(server).size() >= count; }, server.Patience());
  };
  {
    Connection c;
    ASSERT_TRUE(c.Connect("127.0.0.1")) << c.error();
    // The listener's next "Listening..." races the connection's first line; let it win.
    ASSERT_TRUE(waitForEntries(3));
    ASSERT_TRUE(c.Open() && c.SendFrame(12) && c.SendClose()) << c.error();
    ASSERT_TRUE(waitForEntries(8)) << LogText(server);
  }
  const char* lines[] = {
      "Listening...",         "Socket ID",          "Listening...",        "Waiting command...",
      "Got command code: 12", "Waiting command...", "Got command code: 0", "Closing connection..."};
  const std::string eol = GetParam() == Kind::kWine ? "\r\n" : "\n";
  std::string log;
  for (const char* line : lines) log += std::string("KVTnetd: ") + line + eol + eol;
  EXPECT_EQ(LogText(server), log);

  // Clients that leave early, one after the other: at once, between commands, on a bad magic.
  for (std::string_view bytes : {"", "\x04\x03\x02\x01", "\x04\x03\x02\x01kVT\x0c"}) {
    std::size_t before = LogEntries(server).size();
    Connection c;
    ASSERT_TRUE(c.Connect("127.0.0.1") && c.SendBytes(bytes.data(), bytes.size())) << c.error();
    if (!bytes.empty()) {
      ASSERT_EQ(c.RecvByte(), std::optional<std::uint8_t>(1)) << c.error();
    }
    c.Close();
    ASSERT_TRUE(waitForEntries(before + (bytes.empty() ? 3 : 5))) << LogText(server);
  }
  // The connections' own lines, in order; the listener's may fall anywhere between them.
  std::vector<std::string> own, expected;
  for (const std::string& entry : LogEntries(server))
    if (entry != "KVTnetd: Listening..." && entry != "KVTnetd: Socket ID") own.push_back(entry);
  for (const char* line :
       {"Waiting command...", "Got command code: 12", "Waiting command...", "Got command code: 0",
        "Closing connection...", "Closing connection...", "Waiting command...", "Receive error",
        "Closing connection...", "Waiting command...", "Invalid command", "Closing connection..."})
    expected.push_back(std::string("KVTnetd: ") + line);
  EXPECT_EQ(own, expected);
  if (GetParam() == Kind::kLinux) {  // the console (standard error) has the same lines
    std::string console;
    for (const std::string& entry : LogEntries(server)) console += entry + "\n";
    EXPECT_EQ(server.Errors(), console);
  }
  EXPECT_EQ(server.Stop(), "");
}

TEST_P(OwnServerTest, RunModesByExitStatus) {
  Server server(GetParam());
  auto words = [](int count) { return std::vector<std::string>(count, "w"); };
  // "kvtnetd " and the arguments: 399 characters fit, 400 do not; nor do 29 words. The
  // service commands (-s, -c, -k, -d) have tests of their own.
  const std::vector<std::pair<std::vector<std::string>, int>> cases = {
      {{"-S"}, 0}, {{"-debugx"}, 0}, {words(28), 0}, {words(29), 87},
      {{std::string(391, 'x')}, 0}, {{std::string(392, 'x')}, 87},
      {{"-debug", std::string(400, 'x')}, 87}};  // too long wins over the debug server
  for (const auto& [args, expected] : cases) {
    SCOPED_TRACE(args[0].substr(0, 10) + " (" + std::to_string(args.size()) + " words)");
    ASSERT_EQ(server.Start(args), "");
    EXPECT_EQ(server.WaitExit(), expected);
    EXPECT_EQ(server.Output(), "");
    if (GetParam() == Kind::kLinux) {
      EXPECT_EQ(server.Errors(), "");
    }
  }
}

TEST_P(OwnServerTest, PortTakenEndsWithNoSocketOpened) {
  ASSERT_EQ(net::Startup(), 0);
  // Hold the port on every local address: Wine's resolver gives the host name all of them.
  std::vector<net::Socket> held;
  ifaddrs* interfaces = nullptr;
  ASSERT_EQ(::getifaddrs(&interfaces), 0);
  for (ifaddrs* i = interfaces; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
    std::uint8_t address[4];
    std::memcpy(address, &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr, 4);
    if (net::Socket s = net::OpenListener(address, 51470, 1); s != net::kNoSocket)
      held.push_back(s);
  }
  ::freeifaddrs(interfaces);
  ASSERT_FALSE(held.empty()) << "port 51470 is taken by another program";

  Server server(GetParam());
  ASSERT_EQ(server.Start({"-debug"}), "");
  EXPECT_EQ(server.WaitExit(), 255);
  EXPECT_NE(LogText(server).find("KVTnetd: No socket opened"), std::string::npos)
      << LogText(server);
  for (net::Socket s : held) net::Close(s);
}

INSTANTIATE_TEST_SUITE_P(Linux, OwnServerTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, OwnServerTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
