// The spool upload in-process, for what the wire tests can't arrange from outside: a spool
// folder of a chosen length, or none at all.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "client/spool_client.h"
#include "memory/served.h"

namespace kvt {
namespace {

// The spool path holds at most 79 characters: a folder of 60, "/", the name, ".spl".
TEST(Upload, SpoolPathBounds) {
  memory::Reset();
  const std::string padded = "/" + std::string(59, 'p');
  std::snprintf(SpoolFolder, sizeof SpoolFolder, "%s", padded.c_str());
  memory::PutFolder(padded);
  test::Served s;
  auto upload = [&](const std::string& name, std::string body) {
    std::string error;
    auto stored = client::UploadSpool(s.client, name, std::uint32_t(body.size()),
                                      [&](char* buffer, std::size_t size) {
                                        const std::size_t n = body.copy(buffer, size);
                                        return body.erase(0, n), n;
                                      }, nullptr, &error);
    EXPECT_TRUE(stored.has_value()) << error;
    return stored.value_or(false);
  };
  EXPECT_FALSE(upload("123456789012345", "abc"));
  EXPECT_TRUE(upload("12345678901234", "abc"));
  EXPECT_EQ(memory::FileContent(padded + "/12345678901234.spl"), "abc");
  SpoolFolder[0] = '\0';  // no spool folder: refused, and nothing stored anywhere
  EXPECT_FALSE(upload("Empty", ""));
  s.Leave();
  EXPECT_EQ(memory::Listing(padded), std::vector<std::string>{"12345678901234.spl"});
}

}  // namespace
}  // namespace kvt
