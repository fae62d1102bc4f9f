#include "service_double.h"

#include <cstdio>
#include <map>

namespace kvt::service {

namespace {

// What Reset forgets.
struct State {
  std::vector<std::string> calls, reports;
  std::map<std::string, int> failures;
  std::vector<std::uint32_t> controls;
  std::map<Handle, const char*> open;  // handle -> "manager" or "service"
  unsigned nextHandle = 0;
  int lastError = 0;
  ControlRoutine handler = nullptr;
} s;
char handleSpace[16];  // handles are addresses in here

template <class... Values>
std::string Text(const char* format, Values... values) {
  char text[512];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// Records the call; true when it is scripted to fail (the last error is then set).
bool Fails(const std::string& step, const std::string& arguments) {
  s.calls.push_back(step + "(" + arguments + ")");
  auto failure = s.failures.find(step);
  if (failure != s.failures.end()) s.lastError = failure->second;
  return failure != s.failures.end();
}

Handle NewHandle(const char* kind) {
  Handle handle = handleSpace + s.nextHandle++ % sizeof handleSpace;
  s.open[handle] = kind;
  return handle;
}

const char* Name(Handle handle) { return s.open.count(handle) ? s.open[handle] : "?"; }

}  // namespace

Handle OpenManager(std::uint32_t access) {
  return Fails("OpenManager", Text("0x%x", access)) ? nullptr : NewHandle("manager");
}

Handle Open(Handle manager, const char* name, std::uint32_t access) {
  bool failed = Fails("Open", Text("%s, %s, 0x%x", Name(manager), name, access));
  return failed ? nullptr : NewHandle("service");
}

Handle Create(Handle manager, const char* name, const char* displayName, std::uint32_t access,
              std::uint32_t serviceType, std::uint32_t startType, std::uint32_t errorControl,
              const char* binaryPath) {
  bool failed = Fails("Create", Text("%s, %s, %s, 0x%x, 0x%x, %u, %u, %s", Name(manager), name,
                                     displayName, access, serviceType, startType, errorControl,
                                     binaryPath));
  return failed ? nullptr : NewHandle("service");
}

bool Start(Handle service) { return !Fails("Start", Name(service)); }
bool Control(Handle service, std::uint32_t control) {
  return !Fails("Control", Text("%s, %u", Name(service), control));
}
bool Delete(Handle service) { return !Fails("Delete", Name(service)); }

bool Close(Handle handle) {
  s.calls.push_back(Text("Close(%s)", Name(handle)));
  return s.open.erase(handle) == 1;
}

bool RunDispatcher(const char* name, MainRoutine main) {
  if (Fails("Dispatcher", name)) return false;
  char* argv[] = {const_cast<char*>(name), nullptr};
  main(1, argv);
  if (s.handler != nullptr)
    for (std::uint32_t control : s.controls) s.handler(control);
  return true;
}

StatusHandle RegisterHandler(const char* name, ControlRoutine routine) {
  if (Fails("Register", name)) return nullptr;
  s.handler = routine;
  return handleSpace;
}

bool SetStatus(StatusHandle, const Status& status) {
  s.reports.push_back(Text("0x%x %u %u %u %u %u %u", status.serviceType, status.currentState,
                           status.controlsAccepted, status.win32ExitCode,
                           status.serviceSpecificExitCode, status.checkPoint, status.waitHint));
  return !Fails("SetStatus", "");
}

int LastError() { return s.lastError; }

namespace fake {

void Reset() { s = {}; }
void Fail(const std::string& step, int error) { s.failures[step] = error; }
void Deliver(const std::vector<std::uint32_t>& list) { s.controls = list; }
const std::vector<std::string>& Calls() { return s.calls; }
const std::vector<std::string>& Reports() { return s.reports; }
int OpenHandles() { return static_cast<int>(s.open.size()); }

}  // namespace fake

}  // namespace kvt::service
