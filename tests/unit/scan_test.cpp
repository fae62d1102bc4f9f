#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "files/scan.h"
#include "memory/memory.h"

namespace kvt {
namespace {

using Names = std::vector<std::string>;

std::vector<FolderEntry> Scan(const std::string& folder, const std::string& patterns,
                              ScanSortKey key = SCAN_SORT_NAME) {
  int count = -1;
  FolderEntry* list = ScanFolder(folder.c_str(), patterns.c_str(), &count, key);
  EXPECT_EQ(list == nullptr, count == 0);
  std::vector<FolderEntry> entries(list, list + count);
  FreeFolderList(list);
  return entries;
}

Names NamesOf(const std::string& folder, const std::string& patterns) {
  Names names;
  for (const FolderEntry& entry : Scan(folder, patterns)) {
    EXPECT_EQ(entry.name[39], '\0');
    names.emplace_back(entry.name);
  }
  return names;
}

const std::string dir = "/scan";

TEST(Scan, MatchesPlainFilesAndSortsByFoldedName) {
  memory::Reset();
  const std::string long45 = std::string(41, 'm') + ".spl";
  for (const char* name : {"b.spl", "A.spl", "Z.SPL", "[1].spl", "x.txt", ".x.spl", "ab.spl"})
    memory::PutFile(dir + "/" + name, name, 1000u);
  memory::PutFile(dir + "/" + long45, "123456", 1001u);
  memory::PutFolder(dir + "/old.spl");
  memory::PutFile(dir + "/under.spl", "", 0, 0x7FFFFFFF);  // files of 2 GiB and more are left out
  memory::PutFile(dir + "/limit.spl", "", 0, 0x80000000);

  // Folded to lower case: "[" (0x5B) before "a" (0x61); a prefix before its extensions.
  EXPECT_EQ(NamesOf(dir, "*.spl"), (Names{"[1].spl", "A.spl", "ab.spl", "b.spl",
                                          long45.substr(0, 39), "under.spl", "Z.SPL"}));
  const FolderEntry cut = Scan(dir, "m*")[0];
  EXPECT_EQ(cut.size, 6);
  EXPECT_EQ(cut.mtime, 1001u);
  EXPECT_EQ(Scan(dir, "u*")[0].size, 0x7FFFFFFF);
  EXPECT_EQ(NamesOf(dir, "?.SpL"), (Names{"A.spl", "b.spl", "Z.SPL"}));
  EXPECT_EQ(NamesOf(dir, "a*"), (Names{"A.spl", "ab.spl"}));
  EXPECT_TRUE(NamesOf(dir, "*.sp").empty());
  EXPECT_TRUE(NamesOf(dir + "/missing", "*.spl").empty());

  // Patterns make sorted runs in their order.
  for (const char* name : {"b.cfg", "a.cfg", "c.icc", "a.icc"}) memory::PutFile(dir + "/" + name, "", 1u);
  EXPECT_EQ(NamesOf(dir, "*.cfg|*.icc"), (Names{"a.cfg", "b.cfg", "a.icc", "c.icc"}));
  EXPECT_EQ(NamesOf(dir, "*.icc,*.cfg"), (Names{"a.icc", "c.icc", "a.cfg", "b.cfg"}));
  EXPECT_EQ(NamesOf(dir, "*.cfg,*.cfg").size(), 4u);
  EXPECT_EQ(NamesOf(dir, "||*.cfg,"), (Names{"a.cfg", "b.cfg"}));
  EXPECT_TRUE(NamesOf(dir, "").empty());

  // Working limits: 60 patterns and 1,023 characters are served, one more is refused.
  std::string sixty = "*.cfg";
  for (int i = 1; i < 60; ++i) sixty += "|x";
  EXPECT_EQ(NamesOf(dir, sixty).size(), 2u);
  EXPECT_TRUE(NamesOf(dir, sixty + "|x").empty());
  const std::string longest = "*.cfg|" + std::string(1017, 'y');  // a path too long: no match
  EXPECT_EQ(NamesOf(dir, longest).size(), 2u);
  EXPECT_TRUE(NamesOf(dir, longest + "y").empty());

  // A list grows past 200 entries and is sorted whole, by name or by time.
  char name[16];
  for (int i = 0; i < 250; ++i) {
    std::snprintf(name, sizeof name, "f%03d.dat", (i * 97) % 250);  // created out of order
    memory::PutFile(dir + "/" + name, "", 5000 + (i * 31) % 250u);
  }
  const Names byName = NamesOf(dir, "*.dat");
  const std::vector<FolderEntry> byTime = Scan(dir, "*.dat", SCAN_SORT_TIME);
  ASSERT_EQ(byName.size(), 250u);
  ASSERT_EQ(byTime.size(), 250u);
  for (int i = 0; i < 250; ++i) {
    std::snprintf(name, sizeof name, "f%03d.dat", i);
    EXPECT_EQ(byName[i], name);
    EXPECT_EQ(byTime[i].mtime, 5000u + i);
  }
}

}  // namespace
}  // namespace kvt
