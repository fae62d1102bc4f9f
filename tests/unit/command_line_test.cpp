#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "host/entry.h"

namespace kvt {
namespace {

// Each command line's words, split on blanks and quotes, and the run mode they choose.
TEST(CommandLine, SplitsOnBlanksAndQuotesAndChoosesTheRunMode) {
  using enum RunMode;
  const std::tuple<const char*, std::vector<std::string>, RunMode> rows[] = {
      {"", {}, kPlainServer},
      {"   ", {}, kPlainServer},
      {"  -c   x  ", {"-c", "x"}, kInstall},
      {"\"a b\"c", {"a b", "c"}, kNone},    // next word starts right after the quote
      {"a\"b c", {"a\"b", "c"}, kNone},     // a quote inside a word is ordinary
      {"a\tb", {"a\tb"}, kNone},            // only the blank separates
      {"\"\" x", {"", "x"}, kNone},         // two quotes: an empty word
      {"x \"", {"x"}, kNone},               // an opening quote at the end: no word
      {"\"unclosed tail", {"unclosed tail"}, kNone},
      {"\"-debug\"", {"-debug"}, kDebug},
      {"-s -debug", {"-s", "-debug"}, kDebug},  // -debug wins wherever it stands
      {"x y -debug", {"x", "y", "-debug"}, kDebug},
      {"-s", {"-s"}, kService},
      {"-k", {"-k"}, kStop},
      {"-d", {"-d"}, kRemove},
      {"-S", {"-S"}, kNone},
      {"-debugx", {"-debugx"}, kNone},
      {"x -s", {"x", "-s"}, kNone},  // only the first word chooses
  };
  for (const auto& [arguments, words, mode] : rows) {
    SCOPED_TRACE(arguments);
    CommandLine line;
    ASSERT_TRUE(SplitCommandLine(arguments, line));
    EXPECT_EQ(line.words[line.count], nullptr);
    EXPECT_EQ(std::vector<std::string>(line.words + 1, line.words + line.count), words);
    EXPECT_EQ(ChooseRunMode(line.count, line.words), mode);
  }
}

}  // namespace
}  // namespace kvt
