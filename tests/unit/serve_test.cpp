// What the server refuses on a served loopback connection, for what the wire tests can't
// arrange or see from outside: the spool path's bound, a tool that must not run, lengths
// that must never be allocated (the sanitizer build fails on a huge allocation), records
// that must be released.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "files/commands.h"
#include "files_helpers.h"
#include "loopback.h"
#include "print/upload.h"
#include "server/dispatch.h"
#include "support/folders.h"

namespace kvt {
namespace {

using namespace testing_files;
using testing_net::Le32;
using testing_net::Served;

TEST(Serve, ShortMarkerClosesAtOnce) {
  Served s(false);
  s.Send("\x04\x03");
  s.Leave();  // the thread ends: the record is released (the sanitizer build checks)
}

TEST(Serve, AnyMarkerButLittleEndianIsBigEndianAndCodesWithoutACommandHaveNoHandler) {
  ConnectionRecord zero{};  // both orders are checked by the wire tests
  std::uint8_t bytes[4];
  PutClientU32(zero, bytes, 0x000009C0);
  EXPECT_FALSE(ClientIsLittleEndian(zero));
  EXPECT_EQ(bytes[3], 0xC0);
  EXPECT_EQ(GetClientU32(zero, bytes), 0x000009C0u);
  for (int code = 12; code <= 22; ++code) EXPECT_EQ(HandlerFor(code), nullptr) << code;
  for (int code = 24; code <= 255; ++code) EXPECT_EQ(HandlerFor(code), nullptr) << code;
}

// The colour tool's stand-in, put where the server looks for the tool, records its calls in
// $KVT_STANDIN_DIR and exits with the code in its "exit-code" file.
TEST(Serve, ColorTableRefusalsStoreAndRunNothing) {
  const char* records = std::getenv("KVT_STANDIN_DIR");
  if (!records || (!std::getenv("ProgramFiles") && !std::getenv("ProgramFiles(x86)")))
    GTEST_SKIP() << "run through ctest: needs KVT_STANDIN_DIR and ProgramFiles";
  const fs::path args = fs::path(records) / "args",
                 tool = fs::path(GetAppFolder(6)) / "KVT" / "ShadeProof" / "ShadeProof.exe";
  fs::create_directories(tool.parent_path());
  fs::copy_file(KVT_STANDIN_TOOL, tool, fs::copy_options::overwrite_existing);
  fs::create_directories(records);
  std::ofstream(fs::path(records) / "exit-code") << 5;
  fs::remove(args);
  // Unique data: other test runs may store files in the same folder.
  const std::string data = Pattern(1000) + std::to_string(std::time(nullptr)) + GetAppFolder(0);
  auto storedAndRemoved = [&] {
    int count = 0;
    for (const auto& entry : fs::directory_iterator(GetAppFolder(2)))
      if (entry.path().extension() == ".ldf" && ReadFile(entry.path()) == data)
        count += fs::remove(entry.path());
    return count;
  };
  Served s;
  auto add = [&](const std::string& name) {
    return s.Ask("KVT\x17" + Le32(std::uint32_t(name.size())) + name +
                     Le32(std::uint32_t(data.size())) + data, 4);
  };
  // A double quote; a name over the limit, read and dropped so that the next request is found.
  EXPECT_EQ(add("Gl\"ossy"), Le32(0));
  EXPECT_EQ(add(std::string(kMaxTableName + 1, 'n')), Le32(0));
  EXPECT_FALSE(fs::exists(args));
  EXPECT_EQ(storedAndRemoved(), 0);
  EXPECT_EQ(add("Glossy"), Le32(5));
  EXPECT_EQ(add("Matte"), Le32(5));
  EXPECT_EQ(storedAndRemoved(), 2);  // two files, even within one second
  fs::remove(args);
  // Data over the limit: what comes is dropped until the client leaves; the tool does not run.
  s.Send("KVT\x17" + Le32(4) + "Over" + Le32(0xFFFFFFFF) + std::string(100, 'd'));
  s.Leave();
  EXPECT_FALSE(fs::exists(args));
}

// Named "Bounds" for a short scratch path: the spool path holds at most 79 characters, a
// folder of 60, "/", the name, ".spl".
TEST(Upload, Bounds) {
  ScratchFolder scratch;
  const fs::path padded = scratch.path / std::string(59 - scratch.path.string().size(), 'p');
  fs::create_directories(padded);
  auto upload = [](const std::string& name, std::uint32_t length, const std::string& body) {
    return "KVT\x03" + name + std::string(16 - name.size(), '\0') + Le32(length) + body;
  };
  const std::string refused(1, '\0');
  Served s;
  std::snprintf(SpoolFolder, sizeof SpoolFolder, "%s", padded.string().c_str());
  EXPECT_EQ(s.Ask(upload("123456789012345", 3, "abc"), 1), refused);
  EXPECT_EQ(s.Ask(upload("12345678901234", 3, "abc"), 1), "\x01");
  EXPECT_EQ(ReadFile(padded / "12345678901234.spl"), "abc");
  SpoolFolder[0] = '\0';  // no spool folder
  EXPECT_EQ(s.Ask(upload("Empty", 0, ""), 1), refused);
  std::snprintf(SpoolFolder, sizeof SpoolFolder, "%s", padded.string().c_str());
  s.Send(upload("Huge", kMaxSpoolBody + 1, Pattern(5000)));  // dropped until the client leaves
  s.Leave();
  SpoolFolder[0] = '\0';
  EXPECT_FALSE(fs::exists(padded / "Huge.spl"));
}

}  // namespace
}  // namespace kvt
