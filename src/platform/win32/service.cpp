#include "platform/service.h"

#include <windows.h>

namespace kvt::service {

static_assert(kScManagerCreateService == SC_MANAGER_CREATE_SERVICE);
static_assert(kServiceStart == SERVICE_START && kServiceStop == SERVICE_STOP);
static_assert(kDelete == DELETE && kServiceAllAccess == SERVICE_ALL_ACCESS);
static_assert(kServiceWin32OwnProcess == SERVICE_WIN32_OWN_PROCESS);
static_assert(kServiceWin32 == SERVICE_WIN32);
static_assert(kServiceInteractiveProcess == SERVICE_INTERACTIVE_PROCESS);
static_assert(kServiceAutoStart == SERVICE_AUTO_START);
static_assert(kServiceErrorNormal == SERVICE_ERROR_NORMAL);
static_assert(kServiceStopped == SERVICE_STOPPED && kServiceRunning == SERVICE_RUNNING);
static_assert(kServiceStartPending == SERVICE_START_PENDING);
static_assert(kServiceAcceptStop == SERVICE_ACCEPT_STOP);
static_assert(kServiceControlStop == SERVICE_CONTROL_STOP);
static_assert(kServiceControlInterrogate == SERVICE_CONTROL_INTERROGATE);
static_assert(kErrorCallNotImplemented == ERROR_CALL_NOT_IMPLEMENTED);
static_assert(kErrorFilenameExcedRange == ERROR_FILENAME_EXCED_RANGE);
static_assert(kErrorServiceDoesNotExist == ERROR_SERVICE_DOES_NOT_EXIST);
static_assert(sizeof(Status) == sizeof(SERVICE_STATUS));

namespace {

SC_HANDLE Sc(Handle handle) { return static_cast<SC_HANDLE>(handle); }

// The dispatcher and the manager call WINAPI routines; these pass the calls on to the
// routines given, which are set before the dispatcher or the handler can run.
MainRoutine mainRoutine = nullptr;
ControlRoutine controlRoutine = nullptr;

void WINAPI MainEntry(DWORD argc, LPSTR* argv) { mainRoutine(argc, argv); }
void WINAPI ControlEntry(DWORD control) { controlRoutine(control); }

}  // namespace

Handle OpenManager(std::uint32_t access) { return ::OpenSCManagerA(nullptr, nullptr, access); }

Handle Open(Handle manager, const char* name, std::uint32_t access) {
  return ::OpenServiceA(Sc(manager), name, access);
}

Handle Create(Handle manager, const char* name, const char* displayName, std::uint32_t access,
              std::uint32_t serviceType, std::uint32_t startType, std::uint32_t errorControl,
              const char* binaryPath) {
  return ::CreateServiceA(Sc(manager), name, displayName, access, serviceType, startType,
                          errorControl, binaryPath, nullptr, nullptr, nullptr, nullptr, nullptr);
}

bool Start(Handle service) { return ::StartServiceA(Sc(service), 0, nullptr); }

bool Control(Handle service, std::uint32_t control) {
  SERVICE_STATUS status;
  return ::ControlService(Sc(service), control, &status);
}

bool Delete(Handle service) { return ::DeleteService(Sc(service)); }

bool Query(Handle service, Status* status) {
  SERVICE_STATUS s;
  if (!::QueryServiceStatus(Sc(service), &s)) return false;
  *status = {s.dwServiceType, s.dwCurrentState, s.dwControlsAccepted, s.dwWin32ExitCode,
             s.dwServiceSpecificExitCode, s.dwCheckPoint, s.dwWaitHint};
  return true;
}

bool Close(Handle handle) { return ::CloseServiceHandle(Sc(handle)); }

bool RunDispatcher(const char* name, MainRoutine main) {
  mainRoutine = main;
  SERVICE_TABLE_ENTRYA table[] = {{const_cast<char*>(name), MainEntry}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherA(table);
}

StatusHandle RegisterHandler(const char* name, ControlRoutine handler) {
  controlRoutine = handler;
  return ::RegisterServiceCtrlHandlerA(name, ControlEntry);
}

bool SetStatus(StatusHandle handle, const Status& status) {
  SERVICE_STATUS s = {status.serviceType,  status.currentState,
                      status.controlsAccepted, status.win32ExitCode,
                      status.serviceSpecificExitCode, status.checkPoint,
                      status.waitHint};
  return ::SetServiceStatus(static_cast<SERVICE_STATUS_HANDLE>(handle), &s);
}

int LastError() { return static_cast<int>(::GetLastError()); }

}  // namespace kvt::service
