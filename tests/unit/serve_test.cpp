// The spool upload in-process, for what the wire tests can't arrange from outside: a spool
// folder of a chosen length, or none at all.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "print/upload.h"
#include "toolkit/loopback.h"
#include "toolkit/toolkit.h"

namespace kvt {
namespace {

using namespace test;

// The spool path holds at most 79 characters: a folder of 60, "/", the name, ".spl".
TEST(Upload, SpoolPathBounds) {
  ScratchFolder scratch;
  const fs::path padded = scratch.path / std::string(59 - scratch.path.string().size(), 'p');
  fs::create_directories(padded);
  auto upload = [](const std::string& name, const std::string& body) {
    return Frame(CMD_UPLOAD_SPOOL) + Field(name, 16) + Le32(std::uint32_t(body.size())) + body;
  };
  testing_net::Served s;
  std::snprintf(SpoolFolder, sizeof SpoolFolder, "%s", padded.string().c_str());
  EXPECT_EQ(s.Ask(upload("123456789012345", "abc"), 1), std::string(1, '\0'));
  EXPECT_EQ(s.Ask(upload("12345678901234", "abc"), 1), "\x01");
  EXPECT_EQ(ReadFile(padded / "12345678901234.spl"), "abc");
  SpoolFolder[0] = '\0';  // no spool folder: refused, and nothing stored anywhere
  EXPECT_EQ(s.Ask(upload("Empty", ""), 1), std::string(1, '\0'));
  s.Leave();
  EXPECT_EQ(Listing(padded), std::set<std::string>{"12345678901234.spl"});
}

}  // namespace
}  // namespace kvt
