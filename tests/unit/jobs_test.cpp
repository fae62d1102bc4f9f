// The job listing and job references against the scripted spooler.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>

#include "client/print_client.h"
#include "memory/served.h"
#include "memory/spooler_double.h"
#include "print/jobs.h"
#include "server/wire.h"

namespace kvt {
namespace {

namespace fake = spooler::fake;
using fake::FakeJob;
using fake::FakePrinter;

std::string JobName(const std::string& record) { return client::ParseJobRecord(record).jobName; }

// Each test talks to a connection of its own, served on the in-memory machine.
class JobsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    memory::Reset();
    served_.emplace();
  }
  std::vector<std::string> List() {
    std::string error;
    const std::string answer = client::ListJobRecords(served_->client, &error).value_or("");
    EXPECT_EQ(error, "");
    std::vector<std::string> records;
    for (std::size_t at = 0; at < answer.size(); at += sizeof(JobRecord))
      records.push_back(answer.substr(at, sizeof(JobRecord)));
    return records;
  }
  int Cancel(const std::string& name) {
    return client::CancelJobOrSpoolFile(served_->client, name).value_or(-1);
  }
  std::optional<test::Served> served_;
};

// The status table in its order on one printer; on another, every field of a record.
TEST_F(JobsTest, StatusTableAndRecordFieldsBigEndian) {
  using namespace spooler;
  struct Case {
    std::uint32_t status;
    std::optional<std::string> text;
    int code;  // -1: no record
    std::string words;
  } cases[] = {
      {kJobError, "", 1, ""},
      {kJobPrinting, std::string(100, 'w'), 1, std::string(79, 'w')},
      {kJobError | kJobPrinting, {}, 3, "error"},
      {kJobPaperOut, {}, 3, "paper out"},
      {kJobOffline, {}, 9, "job held"},
      {kJobPaused | kJobPrinting, {}, 11, "stopped"},
      {kJobDeleting | kJobPrinting, {}, 12, "cancelled"},
      {kJobSpooling, {}, -1, ""},
      {kJobSpooling | kJobPrinting, {}, 10, "printing"},
      {kJobPrinted, {}, 14, "completed"},
      {0x100, {}, 15, "unknown status"},
  };
  FakeJob named{17, kJobPrinting, {}, std::string(100, 'd'), "\\\\ws12", std::string(70, 'u')};
  fake::Printers() = {{"P"}, {"Second", {named, {-5, 0, {}, "", "\\", ""}}}};
  for (int id = 0; id < int(std::size(cases)); ++id)
    fake::Printers()[0].jobs.push_back({id, cases[id].status, cases[id].text});
  served_.emplace(client::ByteOrder::kBig);
  std::vector<std::string> records = List();
  std::size_t r = 0;
  for (int id = 0; id < int(std::size(cases)); ++id) {
    if (cases[id].code < 0) continue;  // the next job's record takes its place
    ASSERT_LT(r, records.size());
    EXPECT_EQ(std::uint8_t(records[r][1]), cases[id].code) << id;
    EXPECT_EQ(client::ParseJobRecord(records[r]).statusText, cases[id].words) << id;
    EXPECT_EQ(JobName(records[r++]), "*0-" + std::to_string(id));
  }
  ASSERT_EQ(records.size(), r + 2);
  std::string expected(sizeof(JobRecord), '\0');
  const std::pair<std::size_t, std::string> fields[] = {
      {1, "\x0A"},     {2, std::string(79, 'd')}, {82, "printing"}, {162, "Second"},
      {922, "*1-17"}, {958, "WS12"}, {1022, std::string(63, 'u')}};
  for (const auto& [at, text] : fields) expected.replace(at, text.size(), text);
  EXPECT_EQ(records[r], expected);  // every other byte is zero
  EXPECT_EQ(JobName(records[r + 1]), "*1--5");
  EXPECT_EQ(client::ParseJobRecord(records[r + 1]).machineName, "");  // a machine name shorter than two characters
}

TEST_F(JobsTest, LimitsAndFailuresOfPrinters) {
  FakePrinter busy{"Busy"}, closed{"Closed", {{1}}, true}, broken{"Broken", {{2}}, false, true};
  for (int id = 1; id <= 60; ++id) busy.jobs.push_back({id});
  fake::Printers() = {busy, closed, broken, {std::string(160, 'n'), {{3}}}};
  for (int i = 0; i < 5; ++i) fake::Printers().push_back({"More" + std::to_string(i), busy.jobs});
  std::vector<std::string> records = List();
  ASSERT_EQ(records.size(), 256u);  // 50 from each printer, until the listing is full
  EXPECT_EQ(JobName(records[49]), "*0-50");
  EXPECT_EQ(JobName(records[50]), "*4-1");
  EXPECT_EQ(JobName(records[255]), "*8-6");
  for (const std::string& call : fake::Calls())
    EXPECT_EQ(call.find("Open(nnn"), std::string::npos) << "a cut name was opened";
  EXPECT_EQ(Cancel("*1-1"), 0);  // the printer that failed to open has no handle
  EXPECT_EQ(Cancel("*2-2"), 0);
  EXPECT_EQ(fake::Calls().back(), "Cancel(Broken, 2)");
  served_.reset();  // the connection's teardown closes its printers
  EXPECT_EQ(fake::OpenHandles(), 0);
}

// A connection makes its printer table at its first listing, once, even when the spooler
// failed to list its printers; the next connection makes its own, of at most 256 printers.
TEST_F(JobsTest, TableIsBuiltOncePerConnectionAndReferencesUseIt) {
  fake::FailPrinterListing(true);
  EXPECT_TRUE(List().empty());
  fake::FailPrinterListing(false);
  fake::Printers() = {{"A", {{3}}}};
  EXPECT_TRUE(List().empty());  // the table is not made again
  served_.emplace();
  EXPECT_EQ(Cancel("*0-3"), 0);  // no table yet: nothing reaches the spooler
  ASSERT_EQ(List().size(), 1u);
  fake::Printers().push_back({"Later", {{4}}});
  EXPECT_EQ(List().size(), 1u);  // a printer added since is not seen by this connection
  for (const char* ignored : {"*1-4", "*-1-3", "*0", "*0+3", "*x-3", "*0-99999999999", "* 0- 3"})
    EXPECT_EQ(Cancel(ignored), 0) << ignored;
  std::vector<std::string> expected = {"Open(A)", "Jobs(A, 50)", "Jobs(A, 50)", "Cancel(A, 3)"};
  EXPECT_EQ(fake::Calls(), expected);

  for (int i = 2; i < 300; ++i) fake::Printers().push_back({"P" + std::to_string(i), {{i}}});
  served_.emplace();
  std::vector<std::string> records = List();
  ASSERT_EQ(records.size(), 256u);
  EXPECT_EQ(JobName(records[255]), "*255-255");
  EXPECT_EQ(client::ParseJobRecord(records[255]).printerName, "P255");
}

}  // namespace
}  // namespace kvt
