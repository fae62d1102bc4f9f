// The job listing and job references against the scripted spooler, over a real connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/net.h"
#include "print/jobs.h"
#include "server/inline_commands.h"
#include "server/wire.h"
#include "spooler_double.h"

namespace kvt {
namespace {

namespace fake = spooler::fake;
using fake::FakeJob;
using fake::FakePrinter;

std::string Field(const std::string& record, std::size_t offset, std::size_t width) {
  std::string field = record.substr(offset, width);
  return field.substr(0, field.find('\0'));
}
std::string JobName(const std::string& record) { return Field(record, 922, 36); }

// The handlers run on the test's thread with the server's end of a loopback connection.
class JobsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake::Reset();
    Connect();
  }
  void TearDown() override { Disconnect(); }
  void Connect() {
    ASSERT_EQ(net::Startup(), 0);
    const std::uint8_t loopback[4] = {127, 0, 0, 1};
    net::Socket listener = net::OpenListener(loopback, 0, 1);
    int error = 0;
    client_ = net::Connect("127.0.0.1", net::LocalPort(listener), &error);
    ASSERT_NE(client_, net::kNoSocket) << error;
    record_ = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
    record_->socket = net::Accept(listener);
    net::Close(listener);
    std::copy_n("\x04\x03\x02\x01", 4, record_->byteOrderMark);
  }
  void Disconnect() {  // the connection's teardown closes its printers
    net::Close(client_);
    net::Close(record_->socket);
    EndConnection(record_);
  }
  std::string Read(std::size_t count) {
    std::string bytes(count, '\0');
    bytes.resize(std::size_t(RecvAll(client_, bytes.data(), int(count))));
    return bytes;
  }
  std::vector<std::string> List() {
    std::thread server([this] { ListJobs(*record_); });  // the reply may outgrow the buffers
    std::uint8_t length[4];
    EXPECT_EQ(RecvAll(client_, length, 4), 4);
    std::string body = Read(GetClientU32(*record_, length));
    server.join();
    std::vector<std::string> records;
    for (std::size_t at = 0; at < body.size(); at += sizeof(JobRecord))
      records.push_back(body.substr(at, sizeof(JobRecord)));
    return records;
  }
  int Cancel(std::string name) {
    name.resize(16, '\0');
    SendAll(client_, name.data(), 16);
    CancelJobOrSpoolFile(*record_);
    return Read(1)[0];
  }
  net::Socket client_ = net::kNoSocket;
  ConnectionRecord* record_ = nullptr;
};

TEST_F(JobsTest, StatusTableInItsOrder) {
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
  fake::Printers() = {{"P"}};
  for (int id = 0; id < int(std::size(cases)); ++id)
    fake::Printers()[0].jobs.push_back({id, cases[id].status, cases[id].text});
  std::vector<std::string> records = List();
  std::size_t r = 0;
  for (int id = 0; id < int(std::size(cases)); ++id) {
    if (cases[id].code < 0) continue;  // the next job's record takes its place
    ASSERT_LT(r, records.size());
    EXPECT_EQ(std::uint8_t(records[r][1]), cases[id].code) << id;
    EXPECT_EQ(Field(records[r], 82, 80), cases[id].words) << id;
    EXPECT_EQ(JobName(records[r++]), "*0-" + std::to_string(id));
  }
  EXPECT_EQ(r, records.size());
}

TEST_F(JobsTest, RecordFieldsOfTwoPrintersBigEndian) {
  std::copy_n("\x01\x02\x03\x04", 4, record_->byteOrderMark);  // List() reads big-endian
  FakeJob named{17,         spooler::kJobPrinting, {}, std::string(100, 'd'),
                "\\\\ws12", std::string(70, 'u')};
  fake::Printers() = {{"First", {{-5, 0, {}, "", "\\", ""}}}, {"Second", {named}}};
  std::vector<std::string> records = List();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(JobName(records[0]), "*0--5");
  EXPECT_EQ(Field(records[0], 958, 64), "");  // a machine name shorter than two characters
  std::string expected(sizeof(JobRecord), '\0');
  auto put = [&](std::size_t at, const std::string& text) {
    expected.replace(at, text.size(), text);
  };
  expected[1] = 10;
  put(2, std::string(79, 'd'));
  put(82, "printing");
  put(162, "Second");
  put(922, "*1-17");
  put(958, "WS12");
  put(1022, std::string(63, 'u'));
  EXPECT_EQ(records[1], expected);  // every other byte is zero
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
  Disconnect();
  EXPECT_EQ(fake::OpenHandles(), 0);
  Connect();
}

TEST_F(JobsTest, TableIsBuiltOnceAndReferencesUseIt) {
  fake::Printers() = {{"A", {{3}}}};
  EXPECT_EQ(Cancel("*0-3"), 0);  // no table yet: nothing reaches the spooler
  ASSERT_EQ(List().size(), 1u);
  fake::Printers().push_back({"Later", {{4}}});
  EXPECT_EQ(List().size(), 1u);  // a printer added since is not seen by this connection
  for (const char* ignored : {"*1-4", "*-1-3", "*0", "*0+3", "*x-3", "*0-99999999999"})
    EXPECT_EQ(Cancel(ignored), 0) << ignored;
  EXPECT_EQ(Cancel("* 0- 3"), 0);
  std::vector<std::string> expected = {"Open(A)", "Jobs(A, 50)", "Jobs(A, 50)", "Cancel(A, 3)"};
  EXPECT_EQ(fake::Calls(), expected);
}

TEST_F(JobsTest, FailedPrinterListingAndMoreThan256Printers) {
  fake::FailPrinterListing(true);
  EXPECT_TRUE(List().empty());
  fake::FailPrinterListing(false);
  for (int i = 0; i < 300; ++i) fake::Printers().push_back({"P" + std::to_string(i), {{i}}});
  EXPECT_TRUE(List().empty());  // the table is not made again
  Disconnect();
  Connect();  // a new connection sees the printers, the first 256 of them
  std::vector<std::string> records = List();
  ASSERT_EQ(records.size(), 256u);
  EXPECT_EQ(JobName(records[255]), "*255-255");
  EXPECT_EQ(Field(records[255], 162, 80), "P255");
}

}  // namespace
}  // namespace kvt
