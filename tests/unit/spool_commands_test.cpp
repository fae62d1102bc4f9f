#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "memory/memory.h"
#include "print/upload.h"

namespace kvt {
namespace {

using Texts = std::vector<std::string>;

// What each start hands the program, where the platform passes the entries as they are
// and where it joins them into one command line (each entry then in quotes).
TEST(Launch, RunProgram) {
  const std::string blanks = "/a folder/jobfeeder";
  const std::string longest = "/" + std::string(88, 'p') + "/jobfeeder";  // 99 characters
  const std::string over = "/" + std::string(89, 'p') + "/jobfeeder";
  std::vector<std::string> numbers;
  std::vector<const char*> sixty{blanks.c_str()};
  for (int i = 0; i < kMaxProgramArguments; ++i) numbers.push_back(std::to_string(i));
  for (const std::string& n : numbers) sixty.push_back(n.c_str());
  sixty.push_back(nullptr);
  std::vector<const char*> sixtyOne = sixty;
  sixtyOne.insert(sixtyOne.end() - 1, "61");

  for (bool joins : {false, true}) {
    SCOPED_TRACE(joins ? "joined" : "as they are");
    memory::Reset();
    memory::SetJoinsEntries(joins);
    for (const std::string& program : {blanks, longest, over}) memory::PutFile(program, "");
    auto q = [joins](const std::string& entry) { return joins ? "\"" + entry + "\"" : entry; };

    EXPECT_GE(RunProgram(blanks.c_str(), "two words", "", nullptr), 0);
    EXPECT_GE(RunProgramList(sixty.data()), 0);
    EXPECT_EQ(RunProgramList(sixtyOne.data()), -1);
    EXPECT_GE(RunProgram(longest.c_str(), nullptr), 0);
    EXPECT_EQ(RunProgram(over.c_str(), nullptr), -1);
    EXPECT_EQ(RunProgram("/missing/jobfeeder", nullptr), -1);
    // Entries that quotes can't carry are refused on every platform alike.
    EXPECT_EQ(RunProgram(blanks.c_str(), "say \"hi\"", nullptr), -1);
    EXPECT_EQ(RunProgram(blanks.c_str(), "C:\\folder\\", nullptr), -1);

    const auto& starts = memory::Starts();
    ASSERT_EQ(starts.size(), 3u);
    EXPECT_EQ(starts[0], (Texts{q(blanks), q("two words"), q("")}));
    ASSERT_EQ(starts[1].size(), 61u);
    EXPECT_EQ(starts[1][60], q("59"));
    EXPECT_EQ(starts[2], Texts{q(longest)});
  }
}

}  // namespace
}  // namespace kvt
