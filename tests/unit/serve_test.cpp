// Commands served on the in-memory machine, for what the wire tests can't arrange from
// outside: a spool folder of a chosen length or none, a budget of a chosen size, a stored
// list whose status and bytes disagree.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "client/print_client.h"
#include "client/spool_client.h"
#include "memory/served.h"
#include "support/body_budget.h"

namespace kvt {
namespace {

std::string error;  // of the last upload

// Uploads `body`, announced as `length` bytes (its own size when 0): whether the server stored
// it; none when the upload failed.
std::optional<bool> Upload(client::Connection& c, const std::string& name, std::string body,
                           std::uint32_t length = 0) {
  error.clear();
  return client::UploadSpool(c, name, length != 0 ? length : std::uint32_t(body.size()),
                             [&](char* buffer, std::size_t size) {
                               const std::size_t n = body.copy(buffer, size);
                               return body.erase(0, n), n;
                             }, nullptr, &error);
}

// The spool path holds at most 79 characters: a folder of 60, "/", the name, ".spl". A body
// takes a block of whole 64 KiB steps from the budget: one byte short of two steps fits a
// budget of two, one byte more does not. A body cut short is not stored.
TEST(Upload, SpoolPathBoundsAndBodyBlocksInStepsOfTheBudget) {
  memory::Reset();
  const std::string padded = "/" + std::string(59, 'p');
  std::snprintf(SpoolFolder, sizeof SpoolFolder, "%s", padded.c_str());
  memory::PutFolder(padded);
  memory::SetUsableMemory(256 << 10);
  SetBodyBudget(nullptr);  // half: 128 KiB
  test::Served s;
  EXPECT_EQ(Upload(s.client, "123456789012345", "abc"), false) << error;
  EXPECT_EQ(Upload(s.client, "12345678901234", "abc"), true) << error;
  EXPECT_EQ(memory::FileContent(padded + "/12345678901234.spl"), "abc");
  EXPECT_EQ(Upload(s.client, "Fits", std::string((128 << 10) - 1, 'f')), true) << error;
  EXPECT_EQ(Upload(s.client, "Over", std::string((128 << 10) + 1, 'o')), false) << error;
  SpoolFolder[0] = '\0';  // no spool folder: refused, and nothing stored anywhere
  EXPECT_EQ(Upload(s.client, "Empty", ""), false) << error;
  // A body that ends before its announced length is stored nowhere: the connection is closed.
  std::snprintf(SpoolFolder, sizeof SpoolFolder, "%s", padded.c_str());
  EXPECT_EQ(Upload(s.client, "Part", std::string(10, 'p'), 100), std::nullopt);
  EXPECT_EQ(error, "the data ended after 10 of 100 bytes");
  EXPECT_FALSE(s.client.IsConnected());
  s.Leave();
  EXPECT_EQ(memory::Listing(padded), (std::vector<std::string>{"12345678901234.spl", "Fits.spl"}));
  memory::SetUsableMemory(0);
  SetBodyBudget(nullptr);  // no bound for the other tests
}

// A stored list's length is its status's, and exactly that many bytes follow: zeros where
// the file gave fewer, nothing of what it gave more.
TEST(StoredList, AsLongAsItsStatusSays) {
  memory::Reset();
  const std::string list = std::string(memory::kCommonData) + "/Corvina/PrinterList";
  const std::tuple<std::string, std::int64_t, std::string> rows[] = {
      {"Abc", 10, "Abc" + std::string(7, '\0')}, {"Abcdef", 3, "Abc"}, {"A", 1, ""}};
  for (const auto& [content, size, answer] : rows) {
    memory::PutFile(list, content, 0, size);
    test::Served s;
    std::string error;
    EXPECT_EQ(client::GetStoredList(s.client, client::StoredList::kPrinters, &error), answer)
        << content << error;
  }
}

}  // namespace
}  // namespace kvt
