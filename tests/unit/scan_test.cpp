#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "files/scan.h"
#include "toolkit/toolkit.h"

namespace kvt {
namespace {

using namespace test;
using Names = std::vector<std::string>;

std::vector<FolderEntry> Scan(const fs::path& folder, const std::string& patterns,
                              ScanSortKey key = SCAN_SORT_NAME) {
  int count = -1;
  FolderEntry* list = ScanFolder(folder.string().c_str(), patterns.c_str(), &count, key);
  EXPECT_EQ(list == nullptr, count == 0);
  std::vector<FolderEntry> entries(list, list + count);
  FreeFolderList(list);
  return entries;
}

Names NamesOf(const fs::path& folder, const std::string& patterns) {
  Names names;
  for (const FolderEntry& entry : Scan(folder, patterns)) {
    EXPECT_EQ(entry.name[39], '\0');
    names.emplace_back(entry.name);
  }
  return names;
}

TEST(Scan, MatchesPlainFilesAndSortsByFoldedName) {
  ScratchFolder dir;
  const std::string long45 = std::string(41, 'm') + ".spl";
  for (const char* name : {"b.spl", "A.spl", "Z.SPL", "[1].spl", "x.txt", ".x.spl", "ab.spl"})
    WriteFile(dir.path / name, name, 1000u);
  WriteFile(dir.path / long45, "123456", 1001u);
  fs::create_directory(dir.path / "old.spl");

  // Folded to lower case: "[" (0x5B) before "a" (0x61); a prefix before its extensions.
  EXPECT_EQ(NamesOf(dir.path, "*.spl"),
            (Names{"[1].spl", "A.spl", "ab.spl", "b.spl", long45.substr(0, 39), "Z.SPL"}));
  const FolderEntry cut = Scan(dir.path, "m*")[0];
  EXPECT_EQ(cut.size, 6);
  EXPECT_EQ(cut.mtime, 1001u);
  EXPECT_EQ(NamesOf(dir.path, "?.SpL"), (Names{"A.spl", "b.spl", "Z.SPL"}));
  EXPECT_EQ(NamesOf(dir.path, "a*"), (Names{"A.spl", "ab.spl"}));
  EXPECT_TRUE(NamesOf(dir.path, "*.sp").empty());
  EXPECT_TRUE(NamesOf(dir.path / "missing", "*.spl").empty());
}

TEST(Scan, PatternsMakeSortedRunsInTheirOrder) {
  ScratchFolder dir;
  for (const char* name : {"b.cfg", "a.cfg", "c.icc", "a.icc"}) WriteFile(dir.path / name, "", 1u);
  EXPECT_EQ(NamesOf(dir.path, "*.cfg|*.icc"), (Names{"a.cfg", "b.cfg", "a.icc", "c.icc"}));
  EXPECT_EQ(NamesOf(dir.path, "*.icc,*.cfg"), (Names{"a.icc", "c.icc", "a.cfg", "b.cfg"}));
  EXPECT_EQ(NamesOf(dir.path, "*.cfg,*.cfg").size(), 4u);
  EXPECT_EQ(NamesOf(dir.path, "||*.cfg,"), (Names{"a.cfg", "b.cfg"}));
  EXPECT_TRUE(NamesOf(dir.path, "").empty());

  // Working limits: 60 patterns and 1,023 characters are served, one more is refused.
  std::string sixty = "*.cfg";
  for (int i = 1; i < 60; ++i) sixty += "|x";
  EXPECT_EQ(NamesOf(dir.path, sixty).size(), 2u);
  EXPECT_TRUE(NamesOf(dir.path, sixty + "|x").empty());
  const std::string longest = "*.cfg|" + std::string(1017, 'y');  // a path too long: no match
  EXPECT_EQ(NamesOf(dir.path, longest).size(), 2u);
  EXPECT_TRUE(NamesOf(dir.path, longest + "y").empty());
}

TEST(Scan, GrowsPast200AndSortsTheWholeList) {
  ScratchFolder dir;
  char name[16];
  for (int i = 0; i < 250; ++i) {
    std::snprintf(name, sizeof name, "f%03d.dat", (i * 97) % 250);  // created out of order
    WriteFile(dir.path / name, "", 5000 + (i * 31) % 250u);
  }
  const Names byName = NamesOf(dir.path, "*.dat");
  const std::vector<FolderEntry> byTime = Scan(dir.path, "*.dat", SCAN_SORT_TIME);
  ASSERT_EQ(byName.size(), 250u);
  ASSERT_EQ(byTime.size(), 250u);
  for (int i = 0; i < 250; ++i) {
    std::snprintf(name, sizeof name, "f%03d.dat", i);
    EXPECT_EQ(byName[i], name);
    EXPECT_EQ(byTime[i].mtime, 5000u + i);
  }
}

TEST(Scan, FilesOf2GiBAndMoreAreLeftOut) {
  ScratchFolder dir;
  std::error_code error;
  for (const char* name : {"under.spl", "limit.spl"}) std::ofstream(dir.path / name);
  fs::resize_file(dir.path / "under.spl", 0x7FFFFFFF, error);
  if (!error) fs::resize_file(dir.path / "limit.spl", 0x80000000u, error);
  if (error) GTEST_SKIP() << "no sparse files of 2 GiB here: " << error.message();
  const std::vector<FolderEntry> listed = Scan(dir.path, "*.spl");
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_STREQ(listed[0].name, "under.spl");
  EXPECT_EQ(listed[0].size, 0x7FFFFFFF);
}

}  // namespace
}  // namespace kvt
