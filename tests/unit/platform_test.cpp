// The platform's own layer on the real machine, where the in-memory one can't stand in: the
// system's folders, and a program started for real (the Windows command line's quoting).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "print/upload.h"
#include "support/folders.h"
#include "toolkit/toolkit.h"

namespace kvt {
namespace {

using namespace test;

TEST(Platform, StandardFoldersFollowTheSystem) {
  EXPECT_TRUE(fs::is_directory(GetAppFolder(0)));
  const fs::path temp = GetAppFolder(2);
  EXPECT_EQ(temp.filename(), "Velmora");
  EXPECT_TRUE(fs::is_directory(temp));
  const char* x86 = std::getenv("ProgramFiles(x86)");
  const char* plain = std::getenv("ProgramFiles");
  const std::string expected = x86 && *x86 ? x86 : plain && *plain ? plain : "";
  if (!expected.empty()) {
    EXPECT_EQ(GetAppFolder(6), expected);
  }
}

TEST(Platform, StartsAProgramWithEachEntryWhole) {
  const char* records = std::getenv("KVT_STANDIN_DIR");
  if (records == nullptr) GTEST_SKIP() << "run through ctest: needs KVT_STANDIN_DIR";
  const StandinRecords standins(records);
  fs::create_directories(records);
  standins.Clear();
  ScratchFolder scratch;
  // Named without its extension, in a folder with a blank: on Windows the start completes
  // the name, and the command line must quote each entry.
  const fs::path standin = KVT_STANDIN_JOBFEEDER;
  InstallProgram(standin, scratch.path / "a folder" / standin.filename());
  const std::string program = (scratch.path / "a folder" / "jobfeeder").string();
  EXPECT_GE(RunProgram(program.c_str(), "two words", "", nullptr), 0);
  EXPECT_EQ(standins.WaitForStarts(1), std::vector<std::string>{"\ttwo words\t"});
}

}  // namespace
}  // namespace kvt
