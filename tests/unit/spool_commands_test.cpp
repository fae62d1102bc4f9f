#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "files_helpers.h"
#include "platform/net.h"
#include "print/upload.h"
#include "server/connection.h"
#include "server/wire.h"

namespace kvt {
namespace {

using namespace testing_files;

// Scratch paths hold the test's name: the names are short, for the path bounds.
TEST(Launch, RunProgram) {
  const char* records = std::getenv("KVT_STANDIN_DIR");
  if (records == nullptr) GTEST_SKIP() << "run through ctest: needs KVT_STANDIN_DIR";
  const fs::path starts = fs::path(records) / "jobfeeder-starts", standin = KVT_STANDIN_JOBFEEDER;
  fs::create_directories(records);
  fs::remove(starts);
  ScratchFolder scratch;
  // The stand-in, named without its extension: on Windows the start completes it.
  auto place = [&](const fs::path& folder) {
    fs::create_directories(folder);
    fs::copy_file(standin, folder / standin.filename());
    return (folder / "jobfeeder").string();
  };
  const std::string blanks = place(scratch.path / "a folder");
  const std::size_t room = kMaxProgramPath - scratch.path.string().size() - 11;  // 2 "/", name
  const std::string longest = place(scratch.path / std::string(room, 'p'));
  const std::string over = place(scratch.path / std::string(room + 1, 'p'));
  ASSERT_EQ(longest.size(), kMaxProgramPath);

  EXPECT_GE(RunProgram(blanks.c_str(), "two words", "", nullptr), 0);
  std::vector<std::string> numbers;
  std::vector<const char*> entries{blanks.c_str()};
  std::string sixty;
  for (int i = 0; i < kMaxProgramArguments; ++i) numbers.push_back(std::to_string(i));
  for (const std::string& n : numbers) entries.push_back(n.c_str()), sixty += "\t" + n;
  entries.push_back(nullptr);
  EXPECT_GE(RunProgramList(entries.data()), 0);
  entries.insert(entries.end() - 1, "61");
  EXPECT_EQ(RunProgramList(entries.data()), -1);
  EXPECT_GE(RunProgram(longest.c_str(), nullptr), 0);
  EXPECT_EQ(RunProgram(over.c_str(), nullptr), -1);
  // Entries that quotes can't carry are refused on every platform alike.
  EXPECT_EQ(RunProgram(blanks.c_str(), "say \"hi\"", nullptr), -1);
  EXPECT_EQ(RunProgram(blanks.c_str(), "C:\\folder\\", nullptr), -1);

  // The stand-in's lines: the time, then each argument after a tab.
  std::vector<std::string> lines;
  for (int wait = 0; wait < 1000 && lines.size() < 3; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::istringstream text(ReadFile(starts));
    lines.clear();
    for (std::string line; std::getline(text, line);)
      lines.push_back(line.substr(std::min(line.find('\t'), line.size())));
  }
  std::sort(lines.begin(), lines.end());  // they run at the same time
  EXPECT_EQ(lines, (std::vector<std::string>{"", sixty, "\ttwo words\t"}));
}

// Uploads over loopback, served by ServeConnection, for the bounds a real server can't show:
// the spool path's length, no spool folder, and the ceiling in the sanitizer build.
TEST(Upload, Bounds) {
  ScratchFolder scratch;
  ASSERT_EQ(net::Startup(), 0);
  const std::uint8_t loopback[4] = {127, 0, 0, 1};
  net::Socket listener = net::OpenListener(loopback, 0, 1);
  int error = 0;
  net::Socket client = net::Connect("127.0.0.1", net::LocalPort(listener), &error);
  ASSERT_NE(client, net::kNoSocket) << error;
  net::SetRecvTimeout(client, 20000);
  auto* record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
  record->socket = net::Accept(listener);
  net::Close(listener);
  std::thread server(ServeConnection, record);
  auto send = [&](const std::string& name, std::uint32_t length, const std::string& body) {
    const char b[4] = {char(length), char(length >> 8), char(length >> 16), char(length >> 24)};
    std::string request =
        "KVT\x03" + name + std::string(16 - name.size(), '\0') + std::string(b, 4) + body;
    SendAll(client, request.data(), int(request.size()));
  };
  auto ask = [&](const std::string& name, const std::string& body) {
    send(name, std::uint32_t(body.size()), body);
    char answer = 'x';
    RecvAll(client, &answer, 1);
    return int(answer);
  };
  char ready = 0;
  SendAll(client, "\x04\x03\x02\x01", 4);
  ASSERT_EQ(RecvAll(client, &ready, 1), 1);

  // The spool path holds at most 79 characters: a folder of 60, "/", the name, ".spl".
  const fs::path padded = scratch.path / std::string(59 - scratch.path.string().size(), 'p');
  fs::create_directories(padded);
  std::snprintf(SpoolFolder, sizeof SpoolFolder, "%s", padded.string().c_str());
  EXPECT_EQ(ask("123456789012345", "abc"), 0);
  EXPECT_EQ(ask("12345678901234", "abc"), 1);
  EXPECT_EQ(ReadFile(padded / "12345678901234.spl"), "abc");
  SpoolFolder[0] = '\0';
  EXPECT_EQ(ask("Empty", ""), 0);
  // Over the ceiling nothing is allocated (the sanitizer build would fail): what comes is
  // dropped until the client leaves.
  std::snprintf(SpoolFolder, sizeof SpoolFolder, "%s", padded.string().c_str());
  send("Huge", kMaxSpoolBody + 1, Pattern(5000));
  net::Close(client);
  server.join();
  SpoolFolder[0] = '\0';
  EXPECT_FALSE(fs::exists(padded / "Huge.spl"));
}

}  // namespace
}  // namespace kvt
