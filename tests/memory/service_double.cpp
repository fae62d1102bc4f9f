#include "service_double.h"

#include <cstdio>
#include <map>

namespace kvt::service {

namespace {

std::vector<std::string> calls, reports;
std::map<std::string, int> failures;
std::vector<std::uint32_t> controls;
std::map<Handle, std::string> open;  // handle -> "manager" or "service"
char handleSpace[16];                // handles are addresses in here
unsigned nextHandle = 0;
int lastError = 0;
ControlRoutine handler = nullptr;

std::string Text(const char* format, std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, format, value);
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

std::string Name(Handle handle) { return open.count(handle) ? open[handle] : "?"; }

}  // namespace

Handle OpenManager(std::uint32_t access) {
  return Fails("OpenManager", Text("0x%x", access)) ? nullptr : NewHandle("manager");
}

Handle Open(Handle manager, const char* name, std::uint32_t access) {
  bool failed = Fails("Open", Name(manager) + ", " + name + ", " + Text("0x%x", access));
  return failed ? nullptr : NewHandle("service");
}

Handle Create(Handle manager, const char* name, const char* displayName, std::uint32_t access,
              std::uint32_t serviceType, std::uint32_t startType, std::uint32_t errorControl,
              const char* binaryPath) {
  bool failed = Fails("Create", Name(manager) + ", " + name + ", " + displayName + ", " +
                                    Text("0x%x", access) + ", " + Text("0x%x", serviceType) +
                                    ", " + Text("%u", startType) + ", " +
                                    Text("%u", errorControl) + ", " + binaryPath);
  return failed ? nullptr : NewHandle("service");
}

bool Start(Handle service) { return !Fails("Start", Name(service)); }
bool Control(Handle service, std::uint32_t control) {
  return !Fails("Control", Name(service) + ", " + Text("%u", control));
}
bool Delete(Handle service) { return !Fails("Delete", Name(service)); }
bool Query(Handle service, Status*) { return !Fails("Query", Name(service)); }

bool Close(Handle handle) {
  calls.push_back("Close(" + Name(handle) + ")");
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
  char text[96];
  std::snprintf(text, sizeof text, "0x%x %u %u %u %u %u %u", s.serviceType, s.currentState,
                s.controlsAccepted, s.win32ExitCode, s.serviceSpecificExitCode, s.checkPoint,
                s.waitHint);
  reports.push_back(text);
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
void Deliver(std::initializer_list<std::uint32_t> list) { controls.assign(list); }
const std::vector<std::string>& Calls() { return calls; }
const std::vector<std::string>& Reports() { return reports; }
int OpenHandles() { return static_cast<int>(open.size()); }

}  // namespace fake

}  // namespace kvt::service
