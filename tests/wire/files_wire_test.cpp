// The file services against both programs, through the client library and kvtctl: gamut
// files, configuration listings and colour tables, for little- and big-endian clients.
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "harness.h"

namespace kvt::wire {
namespace {

using client::ByteOrder;
using client::Connection;

constexpr client::Marker kMarkers[] = {client::kLittleEndianMarker, client::kBigEndianMarker};
constexpr std::uint32_t kTime = 1700000000;  // 2023-11-14 22:13:20 UTC

std::string U32(std::uint32_t v, ByteOrder order) {
  std::string b(4, '\0');
  for (int i = 0; i < 4; ++i) b[order == ByteOrder::kLittle ? i : 3 - i] = char(v >> 8 * i);
  return b;
}

class FilesTest : public ServerSuite {};

TEST_P(FilesTest, GamutFiles) {
  const std::string over = Pattern(8193);  // a full buffer and one byte
  WriteFile(server_->Gamut() / "Proofs" / "Empty.gamut", "", kTime);
  WriteFile(server_->Gamut() / "Proofs" / "Over.gamut", over, kTime + 1);
  const std::tuple<const char*, std::uint32_t, std::string> cases[] = {
      {"Missing", 0, ""}, {"Empty", kTime, ""}, {"Over", kTime + 1, over}};
  for (const client::Marker& marker : kMarkers) {
    const ByteOrder order = client::OrderOfMarker(marker);
    SCOPED_TRACE(client::OrderName(order));
    Connection c = Opened(marker);
    // Byte for byte, one after the other on one connection (each answer ends where the next
    // one begins): the time, then the size, both in client order; the content as it is.
    for (const auto& [base, mtime, content] : cases) {
      ASSERT_TRUE(c.SendFrame(kvt::CMD_GET_GAMUT) && c.SendText("Proofs", 100) &&
                  c.SendText(base, 40))
          << c.error();
      EXPECT_TRUE(Receive(c, 8 + content.size()) ==
                  U32(mtime, order) + U32(std::uint32_t(content.size()), order) + content)
          << base;
    }
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  Outcome run = RunKvtctl({"--big-endian", "gamut", "Proofs", "Over"});  // to standard output
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(run.out == over);
  run = RunKvtctl({"gamut", "Proofs", "Missing", "-o", (server_->Gamut() / "out").string()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kvtctl: no gamut file Missing.gamut in Proofs\n");
  EXPECT_FALSE(fs::exists(server_->Gamut() / "out"));
}

TEST_P(FilesTest, ConfigurationListing) {
  // Listed by the configurations' own times, each with the time of its .gamut, else .icc,
  // else .icm file.
  const std::tuple<const char*, std::string, std::uint32_t> files[] = {
      {"Matte.cfg", "matte", 10},    {"Paper.matte.cfg", "pap", 20},
      {"Paper.icc", "", 120},        {"Paper.gamut", "", 110},
      {"Glossy.cfg", "glossy!", 30}, {"Glossy.icm", "", 140},
      {"Glossy.icc", "", 130},       {"Satin.cfg", std::string(300, 's'), 40},
      {"Satin.icm", "", 150}};
  for (const auto& [name, content, offset] : files)
    WriteFile(server_->Gamut() / "Sub" / name, content, kTime + offset);
  using namespace std::string_literals;
  const std::tuple<std::string, std::uint32_t, std::uint32_t> rows[] = {
      {"Matte\0cfg"s, 5, 0}, {"Paper\0matte.cfg"s, 3, kTime + 110},
      {"Glossy\0cfg"s, 7, kTime + 130}, {"Satin\0cfg"s, 300, kTime + 150}};
  for (const client::Marker& marker : kMarkers) {
    const ByteOrder order = client::OrderOfMarker(marker);
    SCOPED_TRACE(client::OrderName(order));
    // Byte for byte: the count and the times in client order, the sizes little-endian in
    // either; a missing folder lists none.
    std::string listing = U32(4, order);
    for (auto [field, size, mtime] : rows)
      listing +=
          field.append(40 - field.size(), '\0') + U32(size, ByteOrder::kLittle) + U32(mtime, order);
    Connection c = Opened(marker);
    for (const auto& [folder, expected] : {std::pair{"Sub", listing}, {"Missing", U32(0, order)}}) {
      ASSERT_TRUE(c.SendFrame(kvt::CMD_LIST_CONFIGS) && c.SendText(folder, 80)) << c.error();
      EXPECT_EQ(Receive(c, expected.size()), expected) << folder;
    }
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  // kvtctl as a big-endian client: its listing reads the sizes little-endian all the same.
  Outcome run = RunKvtctl({"--big-endian", "configs", "Sub"}, {"TZ=UTC"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "name                                          size  colour file time\n"
            "Matte                                            5  none\n"
            "Paper                                            3  2023-11-14 22:15:10\n"
            "Glossy                                           7  2023-11-14 22:15:30\n"
            "Satin                                          300  2023-11-14 22:15:50\n");
}

TEST_P(FilesTest, ColorTableRegistration) {
  server_->InstallTool();
  const StandinRecords records = server_->Records();
  const fs::path tables = server_->TableFolder();
  fs::remove_all(tables);  // Wine's temporary folder outlives the server
  // The tool's last call (a program path with blanks may come split into several words):
  // "-add", the name, and a new ".ldf" file that holds the data, complete while the tool ran.
  auto expectCall = [&](const std::string& name, const std::string& data) {
    const auto call = records.TakeToolCall();
    ASSERT_TRUE(call && call->args.size() >= 3);
    const auto args = call->args.end() - 3;
    EXPECT_EQ(args[0], "-add");
    EXPECT_EQ(args[1], name);
    EXPECT_EQ(server_->HostPath(args[2]).extension(), ".ldf");
    EXPECT_TRUE(ReadFile(server_->HostPath(args[2])) == data && call->data == data);
  };
  for (const client::Marker& marker : kMarkers) {
    SCOPED_TRACE(client::OrderName(client::OrderOfMarker(marker)));
    Connection c = Opened(marker);
    const std::string data = Pattern(1000, marker[0]);
    records.SetToolExit(3);  // answered 03 00 00 00 in either order
    EXPECT_EQ(c.RegisterColorTable("Glossy", data), 3u) << c.error();
    expectCall("Glossy", data);
    records.SetToolExit(0);
    EXPECT_EQ(c.RegisterColorTable("", ""), 0u) << c.error();
    expectCall("", "");
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  WriteFile(records.folder() / "table", Pattern(5000));
  records.SetToolExit(7);
  Outcome run = RunKvtctl({"register-table", "Matte", (records.folder() / "table").string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "7\n");
  expectCall("Matte", Pattern(5000));

  // Without the tool the answer is 0, and the stored file stays.
  fs::remove(server_->Tool());
  Connection c = Opened(client::kBigEndianMarker);
  EXPECT_EQ(c.RegisterColorTable("Satin", "satin"), 0u) << c.error();
  EXPECT_TRUE(c.SendClose()) << c.error();
  EXPECT_FALSE(records.TakeToolCall());
  // Every table has a file of its own, also those stored within one second.
  std::multiset<std::string> stored;
  for (const std::string& name : Listing(tables)) stored.insert(ReadFile(tables / name));
  EXPECT_EQ(stored, (std::multiset<std::string>{Pattern(1000, 4), Pattern(1000, 1), "", "",
                                                Pattern(5000), "satin"}));
  fs::remove_all(tables);
}

// The server streams a gamut file through its buffer of 8 KiB: its resident memory grows by
// far less than the file (under Wine too: some hundred kB there, some ten on Linux).
TEST_P(FilesTest, KvtctlGamutCopiesLargeFileStreamed) {
  const fs::path folder = server_->Gamut() / "Big", original = folder / "Big.gamut",
                 copy = folder / "copy";
  constexpr int kMiB = 64;
  fs::create_directories(folder);
  {
    std::ofstream out(original, std::ios::binary);
    for (int i = 0; i < kMiB; ++i) out << Pattern(1 << 20, i);
  }
  SetTime(original, kTime);
  // The peak resident size, reset to what the server holds now.
  WriteFile("/proc/" + std::to_string(server_->pid()) + "/clear_refs", "5");
  const long long before = MemoryKb(server_->pid(), "VmHWM");
  Outcome run = RunKvtctl({"gamut", "Big", "Big", "-o", copy.string()}, {"TZ=UTC"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, copy.string() + ": 67108864 bytes, modified 2023-11-14 22:13:20\n");
  EXPECT_LT(MemoryKb(server_->pid(), "VmHWM") - before, kMiB << 10 >> 2) << "kB";
  // Compared piece by piece with what was written: neither is held whole.
  std::ifstream in(copy, std::ios::binary);
  std::string piece(1 << 20, '\0');
  int same = 0;
  while (same < kMiB && in.read(piece.data(), piece.size()) && piece == Pattern(1 << 20, same))
    ++same;
  EXPECT_EQ(same, kMiB);
  EXPECT_TRUE(in.read(piece.data(), 1).eof() && in.gcount() == 0);
  fs::remove_all(folder);
}

INSTANTIATE_TEST_SUITE_P(Linux, FilesTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, FilesTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
