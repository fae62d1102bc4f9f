#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "print/upload.h"
#include "toolkit/toolkit.h"

namespace kvt {
namespace {

using namespace test;

TEST(Launch, RunProgram) {
  const char* records = std::getenv("KVT_STANDIN_DIR");
  if (records == nullptr) GTEST_SKIP() << "run through ctest: needs KVT_STANDIN_DIR";
  const StandinRecords standins(records);
  const fs::path standin = KVT_STANDIN_JOBFEEDER;
  fs::create_directories(records);
  standins.Clear();
  ScratchFolder scratch;
  // The stand-in, named without its extension: on Windows the start completes it.
  auto place = [&](const fs::path& folder) {
    fs::create_directories(folder);
    fs::copy_file(standin, folder / standin.filename());
    return (folder / "jobfeeder").string();
  };
  const std::string blanks = place(scratch.path / "a folder");
  const std::size_t room = 99 - scratch.path.string().size() - 11;  // 99 in all: 2 "/", name
  const std::string longest = place(scratch.path / std::string(room, 'p'));
  const std::string over = place(scratch.path / std::string(room + 1, 'p'));
  ASSERT_EQ(longest.size(), 99u);

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

  std::vector<std::string> lines = standins.WaitForStarts(3);
  std::sort(lines.begin(), lines.end());  // they run at the same time
  EXPECT_EQ(lines, (std::vector<std::string>{"", sixty, "\ttwo words\t"}));
}

}  // namespace
}  // namespace kvt
