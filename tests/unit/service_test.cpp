// The service commands and the service's run against the scripted service control manager.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "host/service.h"
#include "platform/folders.h"
#include "memory/memory.h"
#include "service_double.h"

namespace kvt {
namespace {

namespace fake = service::fake;
using Texts = std::vector<std::string>;

// Each command's steps with the rights it asks for; each failed step's message and code; the
// service's run: the states it reports and its answers to the controls it is sent.
TEST(Service, CommandsTakeTheirStepsAndEachFailedStepPrintsItsMessageAndCode) {
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
    std::vector<std::uint32_t> controls = {};  // sent to a running service
    Texts reports = {};
  };
  const char* manager = "Cannot open Control Manager Database on local machine (5)";
  const char* absent =
      "Cannot open the Control Manager Database to delete the service KVTnetd (error 1060)";
  const std::string running = "0x130 4 1 0 0 0 0", stopped = "0x130 1 1 0 0 0 0";
  const Case cases[] = {
      {InstallService, {{"Open", 1060}}, "", 0,
       steps("0x10", {"Create(manager, KVTnetd, KVTnetd, 0xf01ff, 0x10, 2, 1, " +
                          std::string(path) + " -s)",
                      "Start(service)"})},
      {InstallService, {}, "", 0, steps("0x10", {"Start(service)"})},  // used unchanged
      {StopService, {}, "", 0, steps("0x20", {"Control(service, 1)"})},
      {RemoveService, {}, "", 0, steps("0x10000", {"Delete(service)"})},
      {InstallService, {{"OpenManager", 5}}, manager, 5},
      {StopService, {{"OpenManager", 5}}, manager, 5},  // and RemoveService: the same steps
      {InstallService, {{"Open", 5}, {"Create", 1072}},
       "Cannot create the service KVTnetd (error 1072)", 1072},
      {InstallService, {{"Start", 1056}}, "Cannot START the service KVTnetd (error 1056)", 1056},
      {StopService, {{"Open", 1060}}, absent, 1060},  // the same text for both
      {StopService, {{"Control", 1062}}, "Cannot STOP the service KVTnetd (error 1062)", 1062},
      {RemoveService, {{"Delete", 1072}}, "Cannot delete the service KVTnetd (error 1072)", 1072},
      {RemoveService, {{"Delete", 1060}}, "", 0},  // already gone: what was asked for
      {RunServiceDispatcher, {{"Dispatcher", 1063}},
       "KVTnetd: StartServiceCtrlDispatcher error (1063)\n", 1063},
      {RunServiceDispatcher, {}, "KVTnetd Unrecognized opcode 200\nKVTnetd Leaving KVTnetd \n", 0,
       {"Dispatcher(KVTnetd)", "Register(KVTnetd)", "SetStatus()", "SetStatus()", "SetStatus()",
        "SetStatus()"},
       {4, 200, 1}, {running, running, running, stopped}},
      // A failed registration or report is printed, and the service goes on.
      {RunServiceDispatcher, {{"Register", 6}}, "KVTnetd: RegisterServiceCtrlHandler failed 6\n",
       0, {}, {1}},
      {RunServiceDispatcher, {{"SetStatus", 6}},
       "KVTnetd: SetServiceStatus error 6\nKVTnetd SetServiceStatus error 6\n"
       "KVTnetd SetServiceStatus error 6\nKVTnetd Leaving KVTnetd \n",
       0, {}, {4, 1}, {running, running, stopped}},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(std::to_string(i) + ": " + c.output);
    fake::Reset();
    for (auto [step, error] : c.failures) fake::Fail(step, error);
    fake::Deliver(c.controls);
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.command(), c.code);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.output);
    EXPECT_EQ(fake::OpenHandles(), 0) << "a handle was left open";
    EXPECT_EQ(fake::Reports(), c.reports);
    if (!c.calls.empty()) {
      EXPECT_EQ(fake::Calls(), c.calls);
    }
  }
}

// A path that would not fit the registration's 256 characters with " -s" is refused before
// anything is created.
TEST(Service, AProgramPathTooLongToRegisterIsRefused) {
  memory::Reset();
  memory::SetProgramPath("/" + std::string(252, 'p'));
  fake::Reset();
  fake::Fail("Open", 1060);
  testing::internal::CaptureStdout();
  EXPECT_EQ(InstallService(), 206);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Cannot create the service KVTnetd (error 206)");
  memory::Reset();
}

}  // namespace
}  // namespace kvt
