// The wire protocol against the real server programs, through the client library. Each test
// runs against the Linux kvtnetd and against kvtnetd.exe under Wine.
#include <gtest/gtest.h>

#include <regex>

#include "harness.h"
#include "platform/net.h"

namespace kvt::wire {
namespace {

using client::Connection;
using namespace std::string_literals;

class WireTest : public ServerSuite {};

TEST_P(WireTest, AnyMarkerOpensIgnoredCodesAnswerNothingAndWrongMagicCloses) {
  // The marker, whether each byte goes on its own (the server gathers the marker and the
  // frames), and the last frame: the close, or one whose code (12) would keep the connection
  // open: only the magic can close it.
  const client::Marker little = client::kLittleEndianMarker, big = client::kBigEndianMarker;
  const std::tuple<client::Marker, bool, std::string> rows[] = {
      {little, false, Frame(0)}, {big, false, "kVT\x0c"}, {{0, 0, 0, 0}, false, "KV\0\x0c"s},
      {little, true, Frame(0)},  {little, false, "KVt\x0c"}, {little, false, "XKVT"}};
  for (const auto& [marker, bytewise, last] : rows) {
    SCOPED_TRACE(std::to_string(marker[0]) + (bytewise ? " byte by byte, " : ", ") + last.substr(0, 3));
    Connection c;
    auto send = [&, bytewise = bytewise](const std::string& bytes) {
      for (std::size_t at = 0, n = bytewise ? 1 : bytes.size(); at < bytes.size(); at += n)
        ASSERT_TRUE(c.SendBytes(bytes.data() + at, n)) << c.error();
    };
    ASSERT_TRUE(c.Connect("127.0.0.1")) << c.error();
    send(std::string(marker.begin(), marker.end()));
    EXPECT_EQ(c.RecvByte(), std::optional<std::uint8_t>(1)) << c.error();
    for (int code : {12, 22, 24, 255}) send(Frame(code));
    ExpectWaiting(c);  // not a byte for any of them, and the connection stays open
    send(last);
    EXPECT_TRUE(c.ExpectEnd()) << c.error();  // nor for the last
  }
}

// The listening sockets, as the kernel lists them (Wine's too): on the loopback address and
// the host's own, never on all addresses at once.
TEST_P(WireTest, ListensOnItsAddressesNeverOnAll) {
  // /proc/net/tcp's lines: slot, local and remote address:port in hex, state (0A: LISTEN).
  const std::string table = ReadFile("/proc/net/tcp"), listening = ":C90E [0-9A-F]+:0000 0A ";
  EXPECT_TRUE(std::regex_search(table, std::regex(" 0100007F" + listening)));
  EXPECT_FALSE(std::regex_search(table, std::regex(" 00000000" + listening)));
}

// kvtctl's commands one after the other on the suite's server: what each prints (stdout, and
// stderr's first line), its exit status, and the files it touches on the server.
TEST_P(WireTest, KvtctlCommands) {
  const std::string victim = server_->ServerPath(server_->Corvina() / "victim");
  WriteFile(server_->Corvina() / "victim", "v");
  WriteFile(server_->Spool() / "Waiting.spl", "w");
  WriteFile(server_->Corvina() / "PrinterList", "P-list");
  fs::remove(server_->Corvina() / "ScannerList");
  const fs::path copy = server_->Corvina() / "copy";
  const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
      {{"ping"}, 0, "KVTnetd at 127.0.0.1:51470 answered \\(little-endian\\)\n", ""},
      {{"--big-endian", "ping"}, 0, "KVTnetd at 127.0.0.1:51470 answered \\(big-endian\\)\n", ""},
      {{"--port", "1", "ping"}, 1, "", "kvtctl: cannot connect to 127.0.0.1:1: Connection refused\n"},
      {{"--json", "ping"}, 0, "\\{\"server\":\"127.0.0.1:51470\",\"reachable\":true,.*\\}\n", ""},
      {{"--version"}, 0, "kvtctl [0-9]+\\.[0-9]+\\.[0-9]+\n", ""},
      {{"job-name"}, 0, "[0-9]{15}\n", ""},
      {{"delete", victim}, 0, "deleted " + victim + "\n", ""},
      {{"delete", victim}, 1, "", "kvtctl: " + victim + " was not deleted (answer 0)\n"},
      {{"cancel", "Waiting"}, 0, "deleted the spool file Waiting.spl\n", ""},
      {{"cancel", "Waiting"}, 1, "", "kvtctl: no spool file Waiting.spl was deleted (answer 0)\n"},
      {{"printer-list"}, 0, "P-list", ""},
      {{"printer-list", "-o", copy.string()}, 0, copy.string() + ": 6 bytes\n", ""},
      {{"scanner-list"}, 1, "", "kvtctl: the server has no scanner list\n"},
      {{"quit"}, 0, "the server ended the connection\n", ""},
      {{"--json", "job-name"}, 1, "", "kvtctl: --json is for ping, jobs and configs, not job-name\n"},
      {{"ping", "now"}, 1, "", "kvtctl: ping takes no arguments\n"},
      {{"--timeout", "0", "ping"}, 1, "", "kvtctl: unknown option, or a missing or bad value: --timeout\n"},
      {{"frobnicate"}, 1, "", "kvtctl: unknown command: frobnicate\n"},
      {{}, 1, "", "kvtctl: no command given\n"}};
  for (const auto& [args, status, out, err] : cases) {
    SCOPED_TRACE(args.empty() ? "" : args.back());
    const Outcome run = RunKvtctl(args);
    EXPECT_EQ(run.status, status);
    EXPECT_TRUE(std::regex_match(run.out, std::regex(out))) << run.out;
    EXPECT_EQ(run.err.substr(0, run.err.find('\n') + 1), err);  // then the usage, where due
  }
  EXPECT_EQ(ReadFile(copy), "P-list");
  EXPECT_FALSE(fs::exists(server_->Spool() / "Waiting.spl"));
}

KVT_ON_BOTH_KINDS(WireTest);

// Tests that run the server program themselves.
class OwnServerTest : public KindTest {};

TEST_P(OwnServerTest, DebugLog) {
  Server server(GetParam());
  ASSERT_EQ(server.StartListening({"-debug"}), "");
  // A client, then clients that leave early: at once, between commands, on a bad magic.
  const std::pair<std::string, std::vector<const char*>> clients[] = {
      {"\x04\x03\x02\x01KVT\x0cKVT\0"s,
       {"Waiting command...", "Got command code: 12", "Waiting command...", "Got command code: 0",
        "Closing connection..."}},
      {"", {"Closing connection..."}},
      {"\x04\x03\x02\x01", {"Waiting command...", "Receive error", "Closing connection..."}},
      {"\x04\x03\x02\x01kVT\x0c", {"Waiting command...", "Invalid command", "Closing connection..."}}};
  // The log so far, each entry followed by an empty line; the console has the lines alone.
  const std::string eol = OnWine() ? "\r\n" : "\n";
  std::string log;
  auto logged = [&](std::vector<const char*> lines) {
    for (const char* line : lines) log += "KVTnetd: "s + line + eol + eol;
    return WaitUntil([&] { return server.Log() == log; });
  };
  ASSERT_TRUE(logged({"Listening..."})) << server.Log();
  for (const auto& [bytes, lines] : clients) {
    Connection c;
    ASSERT_TRUE(c.Connect("127.0.0.1")) << c.error();
    // The listener's lines come first: the connection's own start with the marker.
    ASSERT_TRUE(logged({"Socket ID", "Listening..."})) << server.Log();
    ASSERT_TRUE(c.SendBytes(bytes.data(), bytes.size())) << c.error();
    EXPECT_TRUE(bytes.empty() || c.RecvByte() == std::optional<std::uint8_t>(1)) << c.error();
    c.Close();
    ASSERT_TRUE(logged(lines)) << server.Log();
  }
  if (!OnWine()) {
    EXPECT_EQ(server.Errors(), std::regex_replace(log, std::regex("\n\n"), "\n"));
  }
  EXPECT_EQ(server.Stop(), "");
}

TEST_P(OwnServerTest, RunModesByExitStatus) {
  // The port held on every local address: a server that would listen ends.
  ASSERT_EQ(net::Startup(), 0);
  const std::uint8_t any[4] = {0, 0, 0, 0};
  const net::Socket held = net::OpenListener(any, 51470, 1);
  ASSERT_NE(held, net::kNoSocket) << "port 51470 is taken by another program";
  Server server(GetParam());
  // "kvtnetd " and the arguments: 399 characters fit, 400 do not; nor do 29 words. The
  // service commands (-s, -c, -k, -d) have tests of their own. Only the debug server logs.
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"-S"}, 0, ""}, {{"-debugx"}, 0, ""}, {Words(28, "w"), 0, ""}, {Words(29, "w"), 87, ""},
      {{std::string(391, 'x')}, 0, ""}, {{std::string(392, 'x')}, 87, ""},
      {{"-debug", std::string(400, 'x')}, 87, ""},  // too long wins over the debug server
      {{"-debug"}, 255, "KVTnetd: No socket opened"}};
  const std::string eol = OnWine() ? "\r\n" : "\n";
  for (const auto& [args, status, entry] : cases) {
    SCOPED_TRACE(args[0].substr(0, 10) + " (" + std::to_string(args.size()) + " words)");
    ASSERT_EQ(server.Start(args), "");
    EXPECT_EQ(server.WaitExit(), status);
    EXPECT_EQ(server.Output(), "");
    EXPECT_EQ(server.Log(), entry.empty() ? "" : entry + eol + eol);
    if (!OnWine()) {
      EXPECT_EQ(server.Errors(), entry.empty() ? "" : entry + "\n");
    }
  }
  net::Close(held);
}

KVT_ON_BOTH_KINDS(OwnServerTest);

}  // namespace
}  // namespace kvt::wire
