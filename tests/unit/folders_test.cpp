#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "memory/memory.h"
#include "support/folders.h"

namespace kvt {
namespace {

const std::string kPointers = std::string(memory::kCommonData) + "/Velmora/";

TEST(Folders, StandardFoldersCachedAndTheProgramFolderFromItsPointerFile) {
  memory::Reset();
  const std::pair<int, std::string> selectors[] = {
      {0, memory::kProgramFolder}, {1, memory::kHome}, {2, "/tmp/Velmora"},
      {3, memory::kCommonData}, {4, std::string(memory::kHome) + "/Documents"},
      {6, memory::kProgramFiles}, {-1, ""}, {9, ""}};
  for (const auto& [selector, folder] : selectors) EXPECT_EQ(GetAppFolder(selector), folder);
  EXPECT_EQ(GetAppFolder(2), GetAppFolder(2));  // the same text from the same place
  EXPECT_EQ(memory::Listing("/tmp"), std::vector<std::string>{"Velmora"});  // made once

  // The program folder: the pointer file's first line, read afresh at every call, at most
  // 255 characters of it.
  const std::pair<std::string, std::string> pointers[] = {
      {"/opt/corvina\nsecond line\n", "/opt/corvina"}, {"C:\\Corvina\r\n", "C:\\Corvina"},
      {"a\rb\r\n", "a\rb"}, {"", ""}, {std::string(300, 'p') + "\n", std::string(255, 'p')},
      {"/second", "/second"}};
  for (const auto& [content, folder] : pointers) {
    memory::PutFile(kPointers + "KvtUnitPointer", content);
    EXPECT_EQ(std::string(GetProgramFolder("KvtUnitPointer")), folder) << content;
  }
  // Without a pointer file the answer is the pointer file's own path.
  memory::Reset();
  EXPECT_EQ(std::string(GetProgramFolder("KvtUnitPointer")), kPointers + "KvtUnitPointer");
  // A path that does not fit in a folder text is refused, not cut.
  EXPECT_STREQ(GetProgramFolder(std::string(300, 'n').c_str()), "");
  EXPECT_EQ(memory::OpenReaders(), 0);
}

TEST(Folders, ThreadsAskingAtOnceEachGetTheirOwnCompleteAnswer) {
  memory::Reset();
  memory::PutFile(kPointers + "KvtUnitA", "/folder/of/a\n");
  memory::PutFile(kPointers + "KvtUnitB", "/folder/of/b\n");
  std::vector<std::thread> threads;
  std::vector<std::string> seen(16);
  for (int t = 0; t < 16; ++t)
    threads.emplace_back([t, &seen] {
      for (int i = 0; i < 200; ++i) {
        const bool a = (t + i) % 2;
        const std::string got = GetProgramFolder(a ? "KvtUnitA" : "KvtUnitB");
        if (got != (a ? "/folder/of/a" : "/folder/of/b")) seen[t] = got;
      }
    });
  for (auto& t : threads) t.join();
  for (const auto& s : seen) EXPECT_EQ(s, "");
}

}  // namespace
}  // namespace kvt
