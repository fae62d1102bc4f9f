#include <gtest/gtest.h>

#include <cstdarg>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/log.h"
#include "toolkit/toolkit.h"

namespace kvt {
namespace {

namespace fs = std::filesystem;

std::string Line(const char* tag, const char* format, ...) {
  char line[kLogLineSize];
  std::va_list args;
  va_start(args, format);
  std::size_t length = FormatLogLine(line, tag, format, args);
  va_end(args);
  EXPECT_EQ(length, std::string(line).size());
  return line;
}

TEST(Log, FileNameAndLineFormats) {
  std::tm when{};
  when.tm_year = 125, when.tm_mon = 1, when.tm_mday = 3;  // 2025-02-03
  when.tm_hour = 14, when.tm_min = 5, when.tm_sec = 9;
  char name[32];
  ASSERT_TRUE(FormatLogFileName(name, sizeof name, "KVTnetd", when));
  EXPECT_STREQ(name, "KVTnetd-S250203140509");

  // Too long for the 200-byte line: cut, still ending with its line feed.
  const std::string cut = Line("KVTnetd", "%s", std::string(500, 'm').c_str());
  EXPECT_EQ(cut.size(), 199u);  // 198 characters and the line feed
  EXPECT_EQ(cut.back(), '\n');
  EXPECT_EQ(cut.substr(0, 10), "KVTnetd: m");
  EXPECT_EQ(Line(std::string(300, 't').c_str(), "x").size(), 199u);
}

// Runs in a folder of its own: the log file lies in the current folder.
TEST(Log, WritesOnlyInDebugModeAndNeverMixesLines) {
  const test::ScratchFolder folder;
  struct Restore {  // before the folder goes, unless Windows keeps the open log file
    const fs::path previous = fs::current_path();
    ~Restore() {
      DebugMode = false;
      fs::current_path(previous);
    }
  } restore;
  fs::current_path(folder.path);
  LogWrite("KVTnetd", "not written");
  EXPECT_TRUE(test::Listing(folder.path).empty());

  DebugMode = true;
  constexpr int kThreads = 4, kLines = 100;
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t)
    writers.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) LogWrite("KVTnetd", "writer %d line %d", t, i);
    });
  for (auto& w : writers) w.join();

  const auto files = test::Listing(folder.path);
  ASSERT_EQ(files.size(), 1u);
  std::ifstream in(folder.path / *files.begin());  // text mode: CR LF reads as LF
  std::string line;
  std::vector<int> next(kThreads, 0);
  const std::regex entry("KVTnetd: writer ([0-3]) line ([0-9]+)");
  while (std::getline(in, line)) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, entry)) << line;
    int t = std::stoi(m[1]);
    EXPECT_EQ(std::stoi(m[2]), next[t]++);  // each writer's lines in its own order
    ASSERT_TRUE(std::getline(in, line));
    EXPECT_EQ(line, "");  // every entry is followed by an empty line
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

}  // namespace
}  // namespace kvt
