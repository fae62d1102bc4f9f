#include "service_double.h"

#include <cstdio>
#include <map>

namespace kvt::service {

namespace {

std::vector<std::string> calls, reports;
std::map<std::string, int> failures;
std::vector<std::uint32_t> controls;
std::map<Handle, const char*> open;  // handle -> "manager" or "service"
char handleSpace[16];                // handles are addresses in here
unsigned nextHandle = 0;
int lastError = 0;
ControlRoutine handler = nullptr;

template <class... Values>
std::string Text(const char* format, Values... values) {
  char text[512];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// Records the call; true when it is scripted to fail (the last error is then set).
bool Fails(const std::string& step, const std::string& arguments) {
  calls.push_back(step + "(" + arguments + ")");
  auto failure = failures.find(step);
  if (failure != failures.end()) lastError = failure->second;
  return failure != failures.end();
}

Handle NewHandle(const char* kind) {
  Handle handle = handleSpace + nextHandle++ % sizeof handleSpace;
  open[handle] = kind;
  return handle;
}

const char* Name(Handle handle) { return open.count(handle) ? open[handle] : "?"; }

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
  calls.push_back(Text("Close(%s)", Name(handle)));
  return open.erase(handle) == 1;
}

bool RunDispatcher(const char* name, MainRoutine main) {
  if (Fails("Dispatcher", name)) return false;
  char* argv[] = {const_cast<char*>(name), nullptr};
  main(1, argv);
  if (handler != nullptr)
    for (std::uint32_t control : controls) handler(control);
  return true;
}

StatusHandle RegisterHandler(const char* name, ControlRoutine routine) {
  if (Fails("Register", name)) return nullptr;
  handler = routine;
  return handleSpace;
}

bool SetStatus(StatusHandle, const Status& s) {
  reports.push_back(Text("0x%x %u %u %u %u %u %u", s.serviceType, s.currentState,
                         s.controlsAccepted, s.win32ExitCode, s.serviceSpecificExitCode,
                         s.checkPoint, s.waitHint));
  return !Fails("SetStatus", "");
}

int LastError() { return lastError; }

namespace fake {

void Reset() {
  calls.clear();
  reports.clear();
  failures.clear();
  controls.clear();
  open.clear();
  nextHandle = 0;
  lastError = 0;
  handler = nullptr;
}

void Fail(const std::string& step, int error) { failures[step] = error; }
void Deliver(const std::vector<std::uint32_t>& list) { controls = list; }
const std::vector<std::string>& Calls() { return calls; }
const std::vector<std::string>& Reports() { return reports; }
int OpenHandles() { return static_cast<int>(open.size()); }

}  // namespace fake

}  // namespace kvt::service
