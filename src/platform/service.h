// The service control manager: the calls the service commands and the service's own run
// make, one for one. Windows: advapi32. POSIX has no service control manager: every call
// fails, and the last error is ERROR_CALL_NOT_IMPLEMENTED (120).
#pragma once
#include <cstdint>

namespace kvt::service {

using Handle = void*;        // SC_HANDLE; null when the call failed
using StatusHandle = void*;  // SERVICE_STATUS_HANDLE; null when registration failed

// SERVICE_STATUS, field for field.
struct Status {
  std::uint32_t serviceType;
  std::uint32_t currentState;
  std::uint32_t controlsAccepted;
  std::uint32_t win32ExitCode;
  std::uint32_t serviceSpecificExitCode;
  std::uint32_t checkPoint;
  std::uint32_t waitHint;
};

// The platform's values (the Windows implementation checks them against its SDK).
inline constexpr std::uint32_t kScManagerCreateService = 0x2;
inline constexpr std::uint32_t kServiceStart = 0x10;
inline constexpr std::uint32_t kServiceStop = 0x20;
inline constexpr std::uint32_t kDelete = 0x10000;
inline constexpr std::uint32_t kServiceAllAccess = 0xF01FF;
inline constexpr std::uint32_t kServiceWin32OwnProcess = 0x10;
inline constexpr std::uint32_t kServiceWin32 = 0x30;
inline constexpr std::uint32_t kServiceInteractiveProcess = 0x100;
inline constexpr std::uint32_t kServiceAutoStart = 2;
inline constexpr std::uint32_t kServiceErrorNormal = 1;
inline constexpr std::uint32_t kServiceStopped = 1;
inline constexpr std::uint32_t kServiceStartPending = 2;
inline constexpr std::uint32_t kServiceRunning = 4;
inline constexpr std::uint32_t kServiceAcceptStop = 1;
inline constexpr std::uint32_t kServiceControlStop = 1;
inline constexpr std::uint32_t kServiceControlInterrogate = 4;
inline constexpr int kErrorCallNotImplemented = 120;
inline constexpr int kErrorFilenameExcedRange = 206;
inline constexpr int kErrorServiceDoesNotExist = 1060;

// OpenSCManagerA on the local machine's default database.
Handle OpenManager(std::uint32_t access);
// OpenServiceA.
Handle Open(Handle manager, const char* name, std::uint32_t access);
// CreateServiceA with no load-order group, tag, dependencies, account or password: the
// service runs as the local system account.
Handle Create(Handle manager, const char* name, const char* displayName, std::uint32_t access,
              std::uint32_t serviceType, std::uint32_t startType, std::uint32_t errorControl,
              const char* binaryPath);
// StartServiceA with no arguments.
bool Start(Handle service);
// ControlService; the status that comes back is dropped.
bool Control(Handle service, std::uint32_t control);
// DeleteService.
bool Delete(Handle service);
// QueryServiceStatus.
bool Query(Handle service, Status* status);
// CloseServiceHandle, for the manager's and a service's handles.
bool Close(Handle handle);

using MainRoutine = void (*)(std::uint32_t argc, char** argv);
using ControlRoutine = void (*)(std::uint32_t control);

// StartServiceCtrlDispatcherA with a table of one entry, `name` and `main`, and the closing
// empty entry. Blocks until the service has stopped; false when the dispatcher can't start.
// `main` then runs on a thread of the dispatcher.
bool RunDispatcher(const char* name, MainRoutine main);
// RegisterServiceCtrlHandlerA. One handler per process.
StatusHandle RegisterHandler(const char* name, ControlRoutine handler);
// SetServiceStatus.
bool SetStatus(StatusHandle handle, const Status& status);

// GetLastError: the error code of the calling thread's last failed call.
int LastError();

}  // namespace kvt::service
