// The client library against a broken or hostile server: the server's whole answer is written
// beforehand on the in-memory machine, then the client asks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>

#include "client/listing_json.h"
#include "client/print_client.h"
#include "memory/memory.h"
#include "toolkit/toolkit.h"

namespace kvt {
namespace {

using namespace client;
using test::Le32;

// A length that can't be true closes the connection: what follows it is out of step.
TEST(Client, BrokenAnswersAreRefusedWithTheirReason) {
  std::string error;
  const std::tuple<std::string, std::function<bool(Connection&)>, std::string> rows[] = {
      {Le32(1249) + std::string(1249, 'r'), [&](Connection& c) { return !!ListJobRecords(c, &error); },
       "the server announced 1249 bytes, which is no whole number of job records"},
      {Le32(2496) + std::string(1248, 'r'), [&](Connection& c) { return !!ListJobRecords(c, &error); },
       "the server closed the connection after 1248 of 2496 bytes"},
      {"L" + Le32((256u << 20) + 1), [&](Connection& c) {
         return !!GetStoredList(c, StoredList::kPrinters, &error); },
       "the server announced a list of 268435457 bytes"},
      {"L" + Le32(5) + "abc", [&](Connection& c) {
         return !!GetStoredList(c, StoredList::kScanners, &error); },
       "the server closed the connection after 3 of 5 bytes"},
      {Le32(1) + Le32(3) + "ab", [&](Connection& c) {
         return !!c.GetGamut("F", "G", [](const char*, std::size_t) { return true; }); }, ""},
  };
  for (const auto& [answers, call, reason] : rows) {
    SCOPED_TRACE(reason);
    memory::Reset();
    const memory::Pair pair = memory::Connect();
    memory::Write(pair.server, "\x01" + answers, true);
    memory::OfferConnection(pair.client);
    Connection c;
    ASSERT_TRUE(c.Connect("memhost") && c.Open()) << c.error();
    error.clear();
    EXPECT_FALSE(call(c));
    EXPECT_EQ(error.empty() ? c.error() : error,
              reason.empty() ? "the server closed the connection after 2 of 3 bytes" : reason);
    EXPECT_EQ(c.IsConnected(), reason.find("announced") == std::string::npos);
  }
}

// A record's texts in the JSON documents: well-formed UTF-8 as it is, every other byte read as
// Latin-1 (what the JSON library would refuse must never reach it), control bytes escaped.
TEST(Json, RecordTextsBecomeUtf8) {
  const std::pair<std::string, std::string> rows[] = {
      {"Proof \"A\"\\\t", "\"Proof \\\"A\\\"\\\\\\t\""},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x96\xA8\xF4\x8F\xBF\xBF", "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x96\xA8\xF4\x8F\xBF\xBF\""},
      {"\xC2\xA9\xDF\xBF", "\"\xC2\xA9\xDF\xBF\""},  // the lowest and highest leads of two bytes
      {"\xE9t\xE9", "\"\xC3\xA9t\xC3\xA9\""},          // Latin-1
      {"\xC0\x80", "\"\xC3\x80\xC2\x80\""},             // overlong
      {"\xE0\x9F\xBF", "\"\xC3\xA0\xC2\x9F\xC2\xBF\""},  // overlong
      {"\xED\xA0\x80", "\"\xC3\xAD\xC2\xA0\xC2\x80\""},  // a surrogate
      {"\xF0\x8F\xBF\xBF", "\"\xC3\xB0\xC2\x8F\xC2\xBF\xC2\xBF\""},  // overlong
      {"\xF4\x90\x80\x80", "\"\xC3\xB4\xC2\x90\xC2\x80\xC2\x80\""},  // past U+10FFFF
      {"\xF5\x80\x80\x80", "\"\xC3\xB5\xC2\x80\xC2\x80\xC2\x80\""},
      {"\xFF\xC3", "\"\xC3\xBF\xC3\x83\""},              // a sequence cut short
  };
  for (const auto& [text, json] : rows) EXPECT_EQ(json::Dump(json::Text(text)), json) << text;
}

// A time's offset from its two broken-down times, seconds included (45 s: not "+00:01").
TEST(Json, TimeInUtcHasNoOffset) {
  const char* zone = std::getenv("TZ");
  static std::string previous = "TZ=" + std::string(zone ? zone : "");  // putenv keeps it
  putenv(const_cast<char*>("TZ=UTC0"));
  tzset();
  EXPECT_EQ(json::Dump(json::Time(1767323085)), "\"2026-01-02T03:04:45+00:00\"");  // 03:04:45 UTC
  putenv(previous.data());
  tzset();
}

}  // namespace
}  // namespace kvt
