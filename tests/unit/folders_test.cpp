#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/folders.h"
#include "toolkit/toolkit.h"

namespace kvt {
namespace {

namespace fs = std::filesystem;

TEST(Folders, SelectorsFollowThePlatform) {
  const std::string program = GetAppFolder(0);
  EXPECT_FALSE(program.empty());
  EXPECT_TRUE(fs::is_directory(program));

  // Asked for a second time, a selector gives the same text from the same place.
  const char* temp = GetAppFolder(2);
  EXPECT_EQ(temp, GetAppFolder(2));
  EXPECT_EQ(fs::path(temp).filename(), "Velmora");
  EXPECT_TRUE(fs::is_directory(temp));

  const char* x86 = std::getenv("ProgramFiles(x86)");
  const char* plain = std::getenv("ProgramFiles");
  const std::string expected = x86 && *x86 ? x86 : plain && *plain ? plain : "";
  if (!expected.empty()) {
    EXPECT_EQ(GetAppFolder(6), expected);
  }

  EXPECT_STREQ(GetAppFolder(-1), "");
  EXPECT_STREQ(GetAppFolder(9), "");
}

// Writes a pointer file for `product` under the common data folder.
fs::path WritePointer(const std::string& product, const std::string& content) {
  const fs::path pointer = fs::path(GetAppFolder(3)) / "Velmora" / product;
  test::WriteFile(pointer, content);
  return pointer;
}

// The pointer file's first line, read afresh at every call, at most 255 characters of it.
TEST(Folders, ProgramFolderComesFromThePointerFile) {
  const std::pair<std::string, std::string> pointers[] = {
      {"/opt/corvina\nsecond line\n", "/opt/corvina"}, {"C:\\Corvina\r\n", "C:\\Corvina"},
      {"", ""}, {std::string(300, 'p') + "\n", std::string(255, 'p')}, {"/second", "/second"}};
  fs::path pointer;
  for (const auto& [content, folder] : pointers) {
    pointer = WritePointer("KvtUnitPointer", content);
    EXPECT_EQ(std::string(GetProgramFolder("KvtUnitPointer")), folder) << content;
  }
  // Without a pointer file the answer is the pointer file's own path.
  fs::remove(pointer);
  EXPECT_EQ(std::string(GetProgramFolder("KvtUnitPointer")),
            std::string(GetAppFolder(3)) + "/Velmora/KvtUnitPointer");
  // A path that does not fit in a folder text is refused, not cut.
  EXPECT_STREQ(GetProgramFolder(std::string(300, 'n').c_str()), "");
}

TEST(Folders, ThreadsAskingAtOnceEachGetTheirOwnCompleteAnswer) {
  WritePointer("KvtUnitA", "/folder/of/a\n");
  WritePointer("KvtUnitB", "/folder/of/b\n");
  std::vector<std::thread> threads;
  std::vector<std::string> seen(16);
  for (int t = 0; t < 16; ++t)
    threads.emplace_back([t, &seen] {
      for (int i = 0; i < 200; ++i) {
        const char* product = (t + i) % 2 ? "KvtUnitA" : "KvtUnitB";
        std::string got = GetProgramFolder(product);
        std::string want = (t + i) % 2 ? "/folder/of/a" : "/folder/of/b";
        if (got != want) seen[t] = got;
        if (std::string(GetAppFolder(3)).empty()) seen[t] = "empty common folder";
      }
    });
  for (auto& t : threads) t.join();
  for (const auto& s : seen) EXPECT_EQ(s, "");
}

}  // namespace
}  // namespace kvt
