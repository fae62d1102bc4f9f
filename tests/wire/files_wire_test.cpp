// The file services against both programs, through the client library and kvtctl: gamut
// files, configuration listings and colour tables, for little- and big-endian clients.
#include <gtest/gtest.h>

#include <set>

#include "harness.h"

namespace kvt::wire {
namespace {

using client::ByteOrder;
using client::Connection;

constexpr client::Marker kMarkers[] = {client::kLittleEndianMarker, client::kBigEndianMarker};
constexpr std::uint32_t kTime = 1700000000;  // 2023-11-14 22:13:20 UTC

std::string U32(std::uint32_t v, ByteOrder order) {
  const std::string little = Le32(v);
  return order == ByteOrder::kLittle ? little : std::string(little.rbegin(), little.rend());
}

class FilesTest : public ServerSuite {};

TEST_P(FilesTest, GamutFilesAndConfigurationListing) {
  // A full buffer and one byte, and 64 MiB: far more than the server's buffer of 8 KiB.
  const std::string over = Pattern(8193), big = Pattern(64 << 20);
  WriteFile(server_->Gamut() / "Proofs" / "Empty.gamut", "", kTime);
  WriteFile(server_->Gamut() / "Proofs" / "Over.gamut", over, kTime + 1);
  WriteFile(server_->Gamut() / "Proofs" / "Big.gamut", big, kTime + 2);
  const std::tuple<const char*, std::uint32_t, std::string_view> cases[] = {
      {"Missing", 0, ""}, {"Empty", kTime, ""}, {"Over", kTime + 1, over}, {"Big", kTime + 2, big}};
  // Configurations are listed by their own times, each with the time of its .gamut, else
  // .icc, else .icm file.
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
  // The server streams the files: its peak resident memory (reset to what it holds now)
  // grows by far less than the big one; by some hundred kB under Wine, some ten on Linux.
  WriteFile("/proc/" + std::to_string(server_->pid()) + "/clear_refs", "5");
  const long long before = MemoryKb(server_->pid(), "VmHWM");
  for (const client::Marker& marker : kMarkers) {
    const ByteOrder order = client::OrderOfMarker(marker);
    SCOPED_TRACE(client::OrderName(order));
    Connection c = Opened(marker);
    // Byte for byte, one after the other on one connection (each answer ends where the next
    // one begins): the time, then the size, both in client order; the content as it is.
    for (const auto& [base, mtime, content] : cases) {
      ASSERT_TRUE(c.SendFrame(kvt::CMD_GET_GAMUT) && c.SendText("Proofs", 100) &&
                  c.SendText(base, 40)) << c.error();
      const std::string head = U32(mtime, order) + U32(std::uint32_t(content.size()), order);
      EXPECT_TRUE(Receive(c, 8 + content.size()) == head + std::string(content)) << base;
    }
    // The listing, byte for byte: the count and the times in client order, the sizes
    // little-endian in either; a missing folder lists none.
    std::string listing = U32(4, order);
    for (const auto& [name, size, mtime] : rows)
      listing += Field(name, 40) + Le32(size) + U32(mtime, order);
    for (const auto& [folder, expected] : {std::pair{"Sub", listing}, {"Missing", U32(0, order)}}) {
      ASSERT_TRUE(c.SendFrame(kvt::CMD_LIST_CONFIGS) && c.SendText(folder, 80)) << c.error();
      EXPECT_EQ(Receive(c, expected.size()), expected) << folder;
    }
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  EXPECT_LT(MemoryKb(server_->pid(), "VmHWM") - before, 16 << 10) << "kB";
  // kvtctl: to standard output, or into a file (none for a missing one, an empty one for an
  // empty one). As a big-endian client its listing reads the sizes little-endian all the same.
  const std::string copy = server_->Gamut() / "copy", none = server_->Gamut() / "none",
                    empty = server_->Gamut() / "empty";
  const std::tuple<std::vector<std::string>, int, std::string, std::string> runs[] = {
      {{"--big-endian", "gamut", "Proofs", "Over"}, 0, over, ""},
      {{"gamut", "Proofs", "Big", "-o", copy}, 0,
       copy + ": 67108864 bytes, modified 2023-11-14 22:13:22\n", ""},
      {{"gamut", "Proofs", "Missing", "-o", none}, 1, "",
       "kvtctl: no gamut file Missing.gamut in Proofs\n"},
      {{"gamut", "Proofs", "Empty", "-o", empty}, 0,
       empty + ": 0 bytes, modified 2023-11-14 22:13:20\n", ""},
      {{"gamut", "Proofs", "Over", "-o", "/nonexistent/out"}, 1, "",
       "kvtctl: cannot write /nonexistent/out: No such file or directory\n"},
      {{"--big-endian", "configs", "Sub"}, 0,
       "name                                          size  colour file time\n"
       "Matte                                            5  none\n"
       "Paper                                            3  2023-11-14 22:15:10\n"
       "Glossy                                           7  2023-11-14 22:15:30\n"
       "Satin                                          300  2023-11-14 22:15:50\n", ""}};
  for (const auto& [args, status, out, err] : runs) {
    const Outcome run = RunKvtctl(args, {"TZ=UTC"});
    EXPECT_TRUE(run.status == status && run.out == out && run.err == err)
        << args.back() << ": " << run.out << run.err;
  }
  EXPECT_TRUE(ReadFile(copy) == big);
  EXPECT_TRUE(!fs::exists(none) && fs::exists(empty));
}

TEST_P(FilesTest, ColorTableRegistration) {
  server_->InstallTool();
  const StandinRecords records = server_->Records();
  const fs::path tables = server_->TableFolder();
  // The tool's last call (a program path with blanks may come split into several words):
  // "-add", the name, and a new ".ldf" file, which held the data complete when the tool ran.
  auto expectCall = [&](const std::string& name, const std::string& data) {
    const auto call = records.TakeToolCall();
    ASSERT_TRUE(call && call->args.size() >= 3);
    const auto args = call->args.end() - 3;
    EXPECT_TRUE(args[0] == "-add" && args[1] == name && call->data == data) << args[1];
    EXPECT_EQ(fs::path(args[2]).extension(), ".ldf");
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
  // Every table has a file of its own, also those stored within one second.
  std::multiset<std::string> stored;
  for (const std::string& name : Listing(tables)) stored.insert(ReadFile(tables / name));
  EXPECT_EQ(stored, (std::multiset<std::string>{Pattern(1000, 4), Pattern(1000, 1), "", "",
                                                Pattern(5000)}));
}

KVT_ON_BOTH_KINDS(FilesTest);

}  // namespace
}  // namespace kvt::wire
