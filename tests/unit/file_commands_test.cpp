#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "files/commands.h"
#include "files_helpers.h"
#include "platform/net.h"
#include "server/connection.h"
#include "server/wire.h"
#include "support/folders.h"

namespace kvt {
namespace {

using namespace testing_files;

std::string Le32(std::uint32_t v) {
  const char b[4] = {char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
  return std::string(b, 4);
}

std::string Field(std::string text, std::size_t width) {
  text.resize(width, '\0');
  return text;
}

// A connection served by ServeConnection over loopback, little- or big-endian by the
// parameter, with the gamut folder in a scratch folder.
class FileCommandTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    std::snprintf(GamutFolder, sizeof GamutFolder, "%s", gamut_.path.string().c_str());
    ASSERT_EQ(net::Startup(), 0);
    const std::uint8_t loopback[4] = {127, 0, 0, 1};
    net::Socket listener = net::OpenListener(loopback, 0, 1);
    int error = 0;
    client_ = net::Connect("127.0.0.1", net::LocalPort(listener), &error);
    ASSERT_NE(client_, net::kNoSocket) << error;
    net::SetRecvTimeout(client_, 20000);
    auto* record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
    record->socket = net::Accept(listener);
    net::Close(listener);
    server_ = std::thread(ServeConnection, record);
    ASSERT_EQ(Ask(GetParam() ? "\x04\x03\x02\x01" : "\x01\x02\x03\x04", 1), "\x01");
  }
  void TearDown() override {
    net::Close(client_);
    if (server_.joinable()) server_.join();
    GamutFolder[0] = '\0';
  }
  std::string Client32(std::uint32_t v) const {
    std::string le = Le32(v);
    return GetParam() ? le : std::string(le.rbegin(), le.rend());
  }
  // Sends the request and reads `count` bytes of answer (fewer if the server closes).
  std::string Ask(const std::string& request, std::size_t count) {
    EXPECT_EQ(SendAll(client_, request.data(), int(request.size())), int(request.size()));
    std::string answer(count, '\0');
    answer.resize(std::size_t(RecvAll(client_, answer.data(), int(count))));
    return answer;
  }

  ScratchFolder gamut_;
  net::Socket client_ = net::kNoSocket;
  std::thread server_;
};

TEST_P(FileCommandTest, GamutSendsTimeSizeAndBytes) {
  fs::create_directories(gamut_.path / "Proofs" / "Dir.gamut");
  const std::string exact = Pattern(8192), over = Pattern(8193), zeros(8, '\0');
  WriteFile(gamut_.path / "Proofs" / "Empty.gamut", "", 0x5F000001);
  WriteFile(gamut_.path / "Proofs" / "Exact.gamut", exact, 0x5F000002);
  WriteFile(gamut_.path / "Proofs" / "Over.gamut", over, 0x5F000003);
  auto gamut = [&](const std::string& folder, const std::string& base, std::size_t size) {
    return Ask("KVT\x04" + folder + base, 8 + size);
  };
  const std::string proofs = Field("Proofs", 100);

  EXPECT_EQ(gamut(proofs, Field("Missing", 40), 0), zeros);
  EXPECT_EQ(gamut(proofs, Field("Empty", 40), 0), Client32(0x5F000001) + Client32(0));
  EXPECT_EQ(gamut(proofs, Field("Exact", 40), 8192), Client32(0x5F000002) + Client32(8192) + exact);
  EXPECT_EQ(gamut(proofs, Field("Over", 40), 8193), Client32(0x5F000003) + Client32(8193) + over);
  // Fields without their NUL, and a folder of that name, are refused like a missing file.
  EXPECT_EQ(gamut(std::string(100, 'P'), Field("Exact", 40), 0), zeros);
  EXPECT_EQ(gamut(proofs, std::string(40, 'E'), 0), zeros);
  EXPECT_EQ(gamut(proofs, Field("Dir", 40), 0), zeros);
  // Still in step: nothing followed the answers above.
  EXPECT_EQ(gamut(proofs, Field("Empty", 40), 0), Client32(0x5F000001) + Client32(0));
}

TEST_P(FileCommandTest, ConfigsListRecordsByteForByte) {
  const fs::path sub = gamut_.path / "Sub";
  fs::create_directories(sub / "Old.cfg");
  WriteFile(sub / "Matte.cfg", "matte", 1000);  // no colour file
  WriteFile(sub / "Glossy.cfg", "glossy!", 2000);
  WriteFile(sub / "Glossy.icc", "", 3000);  // before the .icm
  WriteFile(sub / "Glossy.icm", "", 3500);
  WriteFile(sub / "Paper.matte.cfg", "pap", 1500);
  WriteFile(sub / "Paper.icc", "", 4500);
  WriteFile(sub / "Paper.gamut", "", 4000);  // before the .icc
  WriteFile(sub / ".Hidden.cfg", "", 1200);
  const std::string expected =
      Client32(3) + Field(std::string("Matte\0cfg", 9), 40) + Le32(5) + Client32(0) +
      Field(std::string("Paper\0matte.cfg", 15), 40) + Le32(3) + Client32(4000) +
      Field(std::string("Glossy\0cfg", 10), 40) + Le32(7) + Client32(3000);

  EXPECT_EQ(Ask("KVT\x0b" + Field("Sub", 80), expected.size()), expected);
  EXPECT_EQ(Ask("KVT\x0b" + Field("Missing", 80), 4), Client32(0));
  EXPECT_EQ(Ask("KVT\x0b" + std::string(80, 'S'), 4), Client32(0));  // no NUL
  EXPECT_EQ(Ask("KVT\x0b" + Field("Sub", 80), expected.size()), expected);
}

// The colour tool's stand-in, put where the server looks for the tool; it records its
// calls in $KVT_STANDIN_DIR.
class ColorTableTest : public FileCommandTest {
 protected:
  void SetUp() override {
    const char* records = std::getenv("KVT_STANDIN_DIR");
    if (!records || (!std::getenv("ProgramFiles") && !std::getenv("ProgramFiles(x86)")))
      GTEST_SKIP() << "run through ctest: needs KVT_STANDIN_DIR and ProgramFiles";
    records_ = records;
    fs::create_directories(records_);
    tool_ = fs::path(GetAppFolder(6)) / "KVT" / "ShadeProof" / "ShadeProof.exe";
    fs::create_directories(tool_.parent_path());
    fs::copy_file(KVT_STANDIN_TOOL, tool_, fs::copy_options::overwrite_existing);
    FileCommandTest::SetUp();
  }
  void TearDown() override {
    FileCommandTest::TearDown();
    for (const auto& file : stored_) fs::remove(file);
  }
  // Registers a table with the stand-in set to exit with `exitCode`; the 4 answer bytes.
  std::string Register(const std::string& name, const std::string& data, int exitCode) {
    std::ofstream(records_ / "exit-code") << exitCode;
    fs::remove(records_ / "args");
    return Ask("KVT\x17" + Le32(std::uint32_t(name.size())) + name +
               Le32(std::uint32_t(data.size())) + data, 4);
  }
  // How many stored files hold `data`; they are removed after the test.
  int StoredWith(const std::string& data) {
    int count = 0;
    for (const auto& entry : fs::directory_iterator(GetAppFolder(2)))
      if (entry.path().extension() == ".ldf" && ReadFile(entry.path()) == data)
        ++count, stored_.insert(entry.path());
    return count;
  }
  // Checks the last three arguments (a program path with blanks may come split into
  // several words) and the stored file, which is left in place.
  void ExpectCall(const std::string& name, const std::string& data) {
    std::vector<std::string> args;
    std::ifstream in(records_ / "args", std::ios::binary);
    for (std::string line; std::getline(in, line);) args.push_back(line);
    ASSERT_GE(args.size(), 3u);
    EXPECT_EQ(args[args.size() - 3], "-add");
    EXPECT_EQ(args[args.size() - 2], name);
    stored_.insert(args.back());
    EXPECT_EQ(fs::path(args.back()).extension(), ".ldf");
    EXPECT_EQ(ReadFile(args.back()), data);
    EXPECT_EQ(ReadFile(records_ / "data"), data);  // complete while the tool ran
  }

  fs::path records_, tool_;
  std::set<fs::path> stored_;
};

TEST_P(ColorTableTest, StoresTheDataRunsTheToolAndAnswersItsExitCode) {
  // Unique data: other test runs may store files in the same folder.
  const std::string data = Pattern(1000) + std::to_string(std::time(nullptr)) + GetAppFolder(0);
  EXPECT_EQ(Register("Glossy", data, 3), std::string("\x03\x00\x00\x00", 4));
  ExpectCall("Glossy", data);
  EXPECT_EQ(Register("", "", 0), Le32(0));
  ExpectCall("", "");
  EXPECT_EQ(stored_.size(), 2u);  // two files, even within one second

  // Refused without storing or running: a double quote; a name over the limit, which is
  // read and dropped so that the next request is still found.
  EXPECT_EQ(Register("Gl\"ossy", data + "q", 5), Le32(0));
  EXPECT_EQ(Register(std::string(kMaxTableName + 1, 'n'), data + "n", 5), Le32(0));
  EXPECT_FALSE(fs::exists(records_ / "args"));  // not run
  EXPECT_EQ(StoredWith(data + "q") + StoredWith(data + "n"), 0);

  // Without the tool the answer is 0, and the stored file stays.
  fs::rename(tool_, tool_.string() + ".away");
  EXPECT_EQ(Register("Matte", data + "m", 5), Le32(0));
  fs::rename(tool_.string() + ".away", tool_);
  EXPECT_EQ(StoredWith(data + "m"), 1);

  // A data length over the limit is never allocated (the sanitizer build fails on a huge
  // allocation): what comes is dropped until the client leaves; the tool does not run.
  Ask("KVT\x17" + Le32(4) + "Over" + Le32(0xFFFFFFFF) + std::string(100, 'd'), 0);
  net::Close(client_);
  client_ = net::kNoSocket;
  server_.join();
  EXPECT_FALSE(fs::exists(records_ / "args"));  // not run
}

const auto kOrders = ::testing::Values(true, false);
std::string OrderName(const ::testing::TestParamInfo<bool>& info) {
  return info.param ? "Little" : "Big";
}
INSTANTIATE_TEST_SUITE_P(Order, FileCommandTest, kOrders, OrderName);
INSTANTIATE_TEST_SUITE_P(Order, ColorTableTest, kOrders, OrderName);

}  // namespace
}  // namespace kvt
