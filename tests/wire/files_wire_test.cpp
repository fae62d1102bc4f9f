// The file services against both programs, through the client library and kvtctl: gamut
// files, configuration listings and colour tables, for little- and big-endian clients.
#include <gtest/gtest.h>

#include <algorithm>
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

std::string Field(std::string_view text, std::size_t width) {
  std::string field(text);
  field.resize(width, '\0');
  return field;
}

std::string Pattern(std::size_t count, int seed = 0) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251 + seed);
  return bytes;
}

void SetTime(const fs::path& file, std::uint32_t mtime) {
  using namespace std::chrono;
  fs::last_write_time(file, file_clock::from_sys(sys_seconds{seconds{mtime}}));
}

void WriteFile(const fs::path& file, const std::string& content, std::uint32_t mtime) {
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << content;
  SetTime(file, mtime);
}

// Reads the whole answer of a request sent with the primitives.
std::string Answer(Connection& c, std::size_t count) {
  std::string answer(count, '\0');
  EXPECT_EQ(c.RecvBytes(answer.data(), count), client::Status::kOk) << c.error();
  return answer;
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
    // One after the other on one connection: each answer ends where the next one begins.
    for (const auto& [base, mtime, content] : cases) {
      std::string got;
      auto info = c.GetGamut("Proofs", base, [&](const char* bytes, std::size_t count) {
        got.append(bytes, count);
        return true;
      });
      ASSERT_TRUE(info) << base << ": " << c.error();
      EXPECT_EQ(info->mtime, mtime) << base;
      EXPECT_EQ(info->size, content.size()) << base;
      EXPECT_TRUE(got == content) << base;
    }
    // Byte for byte: the time, then the size, both in client order; the content as it is.
    ASSERT_TRUE(c.SendFrame(client::kCmdGetGamut) && c.SendText("Proofs", 100) &&
                c.SendText("Over", 40))
        << c.error();
    EXPECT_TRUE(Answer(c, 8 + over.size()) == U32(kTime + 1, order) + U32(8193, order) + over);
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  Outcome run = RunKvtctl({"gamut", "Proofs", "Over"});
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
  const fs::path sub = server_->Gamut() / "Sub";
  WriteFile(sub / "Matte.cfg", "matte", kTime + 10);
  WriteFile(sub / "Paper.matte.cfg", "pap", kTime + 20);
  WriteFile(sub / "Paper.icc", "", kTime + 120);
  WriteFile(sub / "Paper.gamut", "", kTime + 110);
  WriteFile(sub / "Glossy.cfg", "glossy!", kTime + 30);
  WriteFile(sub / "Glossy.icm", "", kTime + 140);
  WriteFile(sub / "Glossy.icc", "", kTime + 130);
  WriteFile(sub / "Satin.cfg", std::string(300, 's'), kTime + 40);
  WriteFile(sub / "Satin.icm", "", kTime + 150);
  using namespace std::string_view_literals;
  const std::tuple<std::string_view, std::uint32_t, std::uint32_t> rows[] = {
      {"Matte\0cfg"sv, 5, 0},
      {"Paper\0matte.cfg"sv, 3, kTime + 110},
      {"Glossy\0cfg"sv, 7, kTime + 130},
      {"Satin\0cfg"sv, 300, kTime + 150}};

  // A big-endian client byte for byte: count and times big-endian, sizes little-endian.
  std::string expected = U32(4, ByteOrder::kBig);
  for (const auto& [field, size, mtime] : rows)
    expected += Field(field, 40) + U32(size, ByteOrder::kLittle) + U32(mtime, ByteOrder::kBig);
  Connection big = Opened(client::kBigEndianMarker);
  ASSERT_TRUE(big.SendFrame(client::kCmdListConfigs) && big.SendText("Sub", 80)) << big.error();
  EXPECT_EQ(Answer(big, expected.size()), expected);
  EXPECT_TRUE(big.SendClose()) << big.error();

  for (const client::Marker& marker : kMarkers) {
    SCOPED_TRACE(client::OrderName(client::OrderOfMarker(marker)));
    Connection c = Opened(marker);
    auto records = c.ListConfigs("Sub");
    ASSERT_TRUE(records && records->size() == 4) << c.error();
    for (std::size_t i = 0; i < 4; ++i) {
      const auto& [field, size, mtime] = rows[i];
      EXPECT_EQ(std::string((*records)[i].field.data(), 40), Field(field, 40));
      EXPECT_EQ((*records)[i].size, size);
      EXPECT_EQ((*records)[i].mtime, mtime);
    }
    records = c.ListConfigs("Missing");
    EXPECT_TRUE(records && records->empty()) << c.error();
    EXPECT_TRUE(c.SendClose()) << c.error();
  }
  Outcome run = RunKvtctl({"configs", "Sub"}, {"TZ=UTC"});
  EXPECT_EQ(run.status, 0) << run.err;
  const char* lines[] = {
      "name                                          size  colour file time",
      "Matte                                            5  none",
      "Paper                                            3  2023-11-14 22:15:10",
      "Glossy                                           7  2023-11-14 22:15:30",
      "Satin                                          300  2023-11-14 22:15:50"};
  std::string table;
  for (const char* line : lines) table += std::string(line) + "\n";
  EXPECT_EQ(run.out, table);
}

TEST_P(FilesTest, ColorTableRegistration) {
  server_->InstallTool();
  const fs::path records = server_->ToolRecords();
  auto exitWith = [&](int code) { std::ofstream(records / "exit-code") << code; };
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
  WriteFile(records / "table", Pattern(5000), kTime);
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
  const fs::path folder = server_->Gamut() / "Big";
  struct Removed {
    fs::path path;
    ~Removed() { fs::remove_all(path); }
  } removed{folder};
  const fs::path original = folder / "Big.gamut", copy = folder / "copy";
  fs::create_directories(folder);
  {
    std::ofstream out(original, std::ios::binary);
    for (int i = 0; i < 100; ++i) out << Pattern(1 << 20, i);
  }
  SetTime(original, kTime);
  Outcome run = RunKvtctl({"gamut", "Big", "Big", "-o", copy.string()}, {"TZ=UTC"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, copy.string() + ": 104857600 bytes, modified 2023-11-14 22:13:20\n");
  // Compared piece by piece: neither file is held whole.
  std::ifstream a(original, std::ios::binary), b(copy, std::ios::binary);
  std::string x(1 << 20, '\0'), y(1 << 20, '\0');
  std::size_t same = 0;
  while (a.read(x.data(), x.size()) && b.read(y.data(), y.size()) && x == y) same += x.size();
  EXPECT_EQ(same, 100u << 20);
  EXPECT_TRUE(b.read(y.data(), 1).eof() && b.gcount() == 0);
}

INSTANTIATE_TEST_SUITE_P(Linux, FilesTest, ::testing::Values(Kind::kLinux));
INSTANTIATE_TEST_SUITE_P(Wine, FilesTest, ::testing::Values(Kind::kWine));

}  // namespace
}  // namespace kvt::wire
