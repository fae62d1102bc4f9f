#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/entry.h"

namespace kvt {
namespace {

std::vector<std::string> Words(const char* arguments) {
  CommandLine line;
  if (!SplitCommandLine(arguments, line)) return {"<refused>"};
  EXPECT_EQ(line.words[line.count], nullptr);
  return {line.words + 1, line.words + line.count};
}

using W = std::vector<std::string>;

TEST(CommandLine, SplitsOnBlanksAndQuotes) {
  EXPECT_EQ(Words(""), W{});
  EXPECT_EQ(Words("   "), W{});
  EXPECT_EQ(Words("  -c   x  "), (W{"-c", "x"}));
  EXPECT_EQ(Words("\"a b\"c"), (W{"a b", "c"}));       // next word starts right after the quote
  EXPECT_EQ(Words("a\"b c"), (W{"a\"b", "c"}));        // a quote inside a word is ordinary
  EXPECT_EQ(Words("a\tb"), (W{"a\tb"}));               // only the blank separates
  EXPECT_EQ(Words("\"\" x"), (W{"", "x"}));            // two quotes: an empty word
  EXPECT_EQ(Words("x \""), (W{"x"}));                  // an opening quote at the end: no word
  EXPECT_EQ(Words("\"-debug\""), (W{"-debug"}));
  EXPECT_EQ(Words("\"unclosed tail"), (W{"unclosed tail"}));
}

RunMode ModeOf(const char* arguments) {
  CommandLine line;
  EXPECT_TRUE(SplitCommandLine(arguments, line));
  return ChooseRunMode(line.count, line.words);
}

TEST(CommandLine, ChoosesTheRunMode) {
  EXPECT_EQ(ModeOf(""), RunMode::kPlainServer);
  EXPECT_EQ(ModeOf("-debug"), RunMode::kDebug);
  EXPECT_EQ(ModeOf("-s -debug"), RunMode::kDebug);  // -debug wins wherever it stands
  EXPECT_EQ(ModeOf("x y -debug"), RunMode::kDebug);
  EXPECT_EQ(ModeOf("\"-debug\""), RunMode::kDebug);
  EXPECT_EQ(ModeOf("-s"), RunMode::kService);
  EXPECT_EQ(ModeOf("-c more words"), RunMode::kInstall);
  EXPECT_EQ(ModeOf("-k"), RunMode::kStop);
  EXPECT_EQ(ModeOf("-d"), RunMode::kRemove);
  EXPECT_EQ(ModeOf("-S"), RunMode::kNone);
  EXPECT_EQ(ModeOf("-debugx"), RunMode::kNone);
  EXPECT_EQ(ModeOf("x -s"), RunMode::kNone);  // only the first word chooses
}

}  // namespace
}  // namespace kvt
