// The service commands and the service's run against the scripted service control manager.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "host/service.h"
#include "platform/folders.h"
#include "service_double.h"

namespace kvt {
namespace {

namespace fake = service::fake;
using Texts = std::vector<std::string>;

struct Outcome {
  int code;
  std::string output;
};

Outcome Capture(int (*command)()) {
  testing::internal::CaptureStdout();
  int code = command();
  return {code, testing::internal::GetCapturedStdout()};
}

class Service : public testing::Test {
 protected:
  void SetUp() override { fake::Reset(); }
  void TearDown() override { EXPECT_EQ(fake::OpenHandles(), 0) << "a handle was left open"; }
};

// Each command's steps with the rights it asks for; each failed step's message and code.
TEST_F(Service, CommandsTakeTheirStepsAndEachFailedStepPrintsItsMessageAndCode) {
  char path[256];
  ASSERT_TRUE(folders::ProgramPath(path, sizeof path));
  auto steps = [](const char* access, Texts middle) {  // between opening and closing
    middle.insert(middle.begin(), {"OpenManager(0x2)", "Open(manager, KVTnetd, " +
                                                           std::string(access) + ")"});
    middle.insert(middle.end(), {"Close(service)", "Close(manager)"});
    return middle;
  };
  struct Case {
    int (*command)();
    std::vector<std::pair<const char*, int>> failures;
    const char* output;
    int code;
    Texts calls = {};  // not checked when empty
  };
  const char* manager = "Cannot open Control Manager Database on local machine (5)";
  const char* absent =
      "Cannot open the Control Manager Database to delete the service KVTnetd (error 1060)";
  const Case cases[] = {
      {InstallService, {{"Open", 1060}}, "", 0,
       steps("0x10", {"Create(manager, KVTnetd, KVTnetd, 0xf01ff, 0x10, 2, 1, " +
                          std::string(path) + " -s)",
                      "Start(service)"})},
      {InstallService, {}, "", 0, steps("0x10", {"Start(service)"})},  // used unchanged
      {StopService, {}, "", 0, steps("0x20", {"Control(service, 1)"})},
      {RemoveService, {}, "", 0, steps("0x10000", {"Delete(service)"})},
      {InstallService, {{"OpenManager", 5}}, manager, 5},
      {StopService, {{"OpenManager", 5}}, manager, 5},
      {RemoveService, {{"OpenManager", 5}}, manager, 5},
      {InstallService, {{"Open", 5}, {"Create", 1072}},
       "Cannot create the service KVTnetd (error 1072)", 1072},
      {InstallService, {{"Start", 1056}}, "Cannot START the service KVTnetd (error 1056)", 1056},
      {StopService, {{"Open", 1060}}, absent, 1060},
      {StopService, {{"Control", 1062}}, "Cannot STOP the service KVTnetd (error 1062)", 1062},
      {RemoveService, {{"Open", 1060}}, absent, 1060},
      {RemoveService, {{"Delete", 1072}}, "Cannot delete the service KVTnetd (error 1072)", 1072},
      {RemoveService, {{"Delete", 1060}}, "", 0},  // already gone: what was asked for
      {RunServiceDispatcher, {{"Dispatcher", 1063}},
       "KVTnetd: StartServiceCtrlDispatcher error (1063)\n", 1063},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(std::to_string(i) + ": " + c.output);
    fake::Reset();
    for (auto [step, error] : c.failures) fake::Fail(step, error);
    Outcome outcome = Capture(c.command);
    EXPECT_EQ(outcome.output, c.output);
    EXPECT_EQ(outcome.code, c.code);
    EXPECT_EQ(fake::OpenHandles(), 0);
    if (!c.calls.empty()) {
      EXPECT_EQ(fake::Calls(), c.calls);
    }
  }
}

TEST_F(Service, RunsReportsRunningAndAnswersControlsUntilStopped) {
  fake::Deliver({4, 200, 1});
  Outcome outcome = Capture(RunServiceDispatcher);
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.output, "KVTnetd Unrecognized opcode 200\nKVTnetd Leaving KVTnetd \n");
  EXPECT_EQ(fake::Calls()[1], "Register(KVTnetd)");
  const std::string running = "0x130 4 1 0 0 0 0";
  EXPECT_EQ(fake::Reports(), (Texts{running, running, running, "0x130 1 1 0 0 0 0"}));
}

TEST_F(Service, FailedRegistrationOrReportsArePrintedAndTheServiceGoesOn) {
  fake::Fail("Register", 6);
  fake::Deliver({1});
  Outcome outcome = Capture(RunServiceDispatcher);
  EXPECT_EQ(outcome.output, "KVTnetd: RegisterServiceCtrlHandler failed 6\n");
  EXPECT_EQ(fake::Reports(), Texts{});

  fake::Reset();
  fake::Fail("SetStatus", 6);
  fake::Deliver({4, 1});
  outcome = Capture(RunServiceDispatcher);
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.output,
            "KVTnetd: SetServiceStatus error 6\n"
            "KVTnetd SetServiceStatus error 6\n"
            "KVTnetd SetServiceStatus error 6\nKVTnetd Leaving KVTnetd \n");
}

}  // namespace
}  // namespace kvt
