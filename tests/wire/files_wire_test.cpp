// The file services against both programs, through the client library and kvtctl: gamut
// files, configuration listings and colour tables, for little- and big-endian clients.
#include <gtest/gtest.h>

#include <fstream>

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
  const fs::path records = server_->Records().folder();
  auto exitWith = [&](int code) { WriteFile(records / "exit-code", std::to_string(code)); };
  fs::path stored;  // the stored files' folder, as this machine sees it
  // Checks the tool's last call (a program path with blanks may come split into several
  // words) and removes the stored file.
  auto expectCall = [&](const std::string& name, const std::string& data) {
    std::vector<std::string> args;
    std::ifstream in(records / "args", std::ios::binary);
    for (std::string line; std::getline(in, line);) args.push_back(line);
    fs::remove(records / "args");
    ASSERT_GE(args.size(), 3u);
    EXPECT_EQ(args[args.size() - 3], "-add");
    EXPECT_EQ(args[args.size() - 2], name);
    const fs::path file = server_->HostPath(args.back());
    EXPECT_EQ(file.extension(), ".ldf");
    EXPECT_TRUE(ReadFile(file) == data);
    EXPECT_TRUE(ReadFile(records / "data") == data);  // complete while the tool ran
    stored = file.parent_path();
    fs::remove(file);
  };
  for (const client::Marker& marker : kMarkers) {
    SCOPED_TRACE(client::OrderName(client::OrderOfMarker(marker)));
    Connection c = Opened(marker);
    const std::string data = Pattern(1000, marker[0]);
    exitWith(3);  // answered 03 00 00 00 in either order
    EXPECT_EQ(c.RegisterColorTable("Glossy", data), 3u) << c.error();
    expectCall("Glossy", data);
    exitWith(0);
    EXPECT_EQ(c.RegisterColorTable("", ""), 0u) << c.error();
    expectCall("", "");
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  WriteFile(records / "table", Pattern(5000));
  exitWith(7);
  Outcome run = RunKvtctl({"register-table", "Matte", (records / "table").string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "7\n");
  expectCall("Matte", Pattern(5000));

  // Without the tool the answer is 0, and the stored file stays.
  fs::remove(server_->Tool());
  Connection c = Opened(client::kBigEndianMarker);
  EXPECT_EQ(c.RegisterColorTable("Satin", "satin"), 0u) << c.error();
  EXPECT_TRUE(c.SendClose()) << c.error();
  EXPECT_FALSE(fs::exists(records / "args"));
  int kept = 0;
  for (const auto& entry : fs::directory_iterator(stored))
    if (ReadFile(entry.path()) == "satin") kept += fs::remove(entry.path());
  EXPECT_EQ(kept, 1);
}

TEST_P(FilesTest, KvtctlGamutCopiesAHundredMebibytes) {
  const fs::path folder = server_->Gamut() / "Big", original = folder / "Big.gamut",
                 copy = folder / "copy";
  fs::create_directories(folder);
  {
    std::ofstream out(original, std::ios::binary);
    for (int i = 0; i < 100; ++i) out << Pattern(1 << 20, i);
  }
  SetTime(original, kTime);
  Outcome run = RunKvtctl({"gamut", "Big", "Big", "-o", copy.string()}, {"TZ=UTC"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, copy.string() + ": 104857600 bytes, modified 2023-11-14 22:13:20\n");
  // Compared piece by piece with what was written: neither is held whole.
  std::ifstream in(copy, std::ios::binary);
  std::string piece(1 << 20, '\0');
  int same = 0;
  while (same < 100 && in.read(piece.data(), piece.size()) && piece == Pattern(1 << 20, same))
    ++same;
  EXPECT_EQ(same, 100);
  EXPECT_TRUE(in.read(piece.data(), 1).eof() && in.gcount() == 0);
  fs::remove_all(folder);
}

INSTANTIATE_TEST_SUITE_P(Linux, FilesTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, FilesTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
