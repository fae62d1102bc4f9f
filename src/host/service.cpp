#include "host/service.h"

#include <cstdarg>
#include <cstdio>

#include "platform/folders.h"
#include "platform/service.h"

namespace kvt {

namespace {

constexpr char kServiceName[] = "KVTnetd";
constexpr int kBinaryPathSize = 256;

constexpr char kCannotOpenManager[] =
    "Cannot open Control Manager Database on local machine (%d)";
// Stop uses the removal's message: one text for "the service can't be opened".
constexpr char kCannotOpenService[] =
    "Cannot open the Control Manager Database to delete the service KVTnetd (error %d)";
constexpr char kCannotCreate[] = "Cannot create the service KVTnetd (error %d)";
constexpr char kCannotStart[] = "Cannot START the service KVTnetd (error %d)";
constexpr char kCannotStop[] = "Cannot STOP the service KVTnetd (error %d)";
constexpr char kCannotDelete[] = "Cannot delete the service KVTnetd (error %d)";

// Standard output is these commands' only report, and a GUI program's stdout is a file or a
// pipe when it has a reader at all: flush every message at once.
void Print(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::fflush(stdout);
}

// Prints a failed step's message with its error code and returns the code. The code is
// taken before any handle is closed, since closing may change the last error.
int Failed(const char* format) {
  int code = service::LastError();
  Print(format, code);
  return code;
}

// The program's own path and " -s", in 256 characters. A longer path can't be registered:
// false, with nothing written past the buffer.
bool ComposeBinaryPath(char (&binaryPath)[kBinaryPathSize]) {
  char path[kBinaryPathSize];
  if (!folders::ProgramPath(path, sizeof path)) return false;
  int n = std::snprintf(binaryPath, sizeof binaryPath, "%s -s", path);
  return n > 0 && n < kBinaryPathSize;
}

// The first step of every command: the access right is the same whatever the command needs.
service::Handle OpenManager() { return service::OpenManager(service::kScManagerCreateService); }

}  // namespace

int InstallService() {
  service::Handle manager = OpenManager();
  if (manager == nullptr) return Failed(kCannotOpenManager);
  char binaryPath[kBinaryPathSize];
  bool pathFits = ComposeBinaryPath(binaryPath);

  // An existing registration is used unchanged, so the path matters only when creating.
  service::Handle svc = service::Open(manager, kServiceName, service::kServiceStart);
  if (svc == nullptr) {
    if (!pathFits) {
      // Refused like a failed creation, as ERROR_FILENAME_EXCED_RANGE: nothing is created.
      int code = service::kErrorFilenameExcedRange;
      Print(kCannotCreate, code);
      service::Close(manager);
      return code;
    }
    svc = service::Create(manager, kServiceName, kServiceName, service::kServiceAllAccess,
                          service::kServiceWin32OwnProcess, service::kServiceAutoStart,
                          service::kServiceErrorNormal, binaryPath);
    if (svc == nullptr) {
      int code = Failed(kCannotCreate);
      service::Close(manager);
      return code;
    }
  }
  // Not waited on: the service reports running by itself.
  if (!service::Start(svc)) {
    int code = Failed(kCannotStart);
    service::Close(svc);
    service::Close(manager);
    return code;
  }
  service::Close(svc);
  service::Close(manager);
  return 0;
}

namespace {

// Opens the manager and the service with `access`, runs `step` on the service, and closes
// both on every path; `step` gives 0 or its failure's code, its message already printed.
template <typename Step>
int WithService(std::uint32_t access, Step step) {
  service::Handle manager = OpenManager();
  if (manager == nullptr) return Failed(kCannotOpenManager);
  service::Handle svc = service::Open(manager, kServiceName, access);
  int code = svc == nullptr ? Failed(kCannotOpenService) : step(svc);
  if (svc != nullptr) service::Close(svc);
  service::Close(manager);
  return code;
}

}  // namespace

int StopService() {
  return WithService(service::kServiceStop, [](service::Handle svc) {
    return service::Control(svc, service::kServiceControlStop) ? 0 : Failed(kCannotStop);
  });
}

int RemoveService() {
  return WithService(service::kDelete, [](service::Handle svc) {
    // A running service is only marked; the platform removes it once it stops.
    if (service::Delete(svc)) return 0;
    int code = service::LastError();
    if (code == service::kErrorServiceDoesNotExist) return 0;  // already gone: as asked
    Print(kCannotDelete, code);
    return code;
  });
}

// The service's own run. ServiceMain and the control handler run on the dispatcher's
// threads and share the status without a lock: the handler is registered only after the
// status is filled, and until the first report accepts stop the manager passes no stop, so
// only ServiceMain writes it until then. Run by the manager, the messages have no reader.
namespace {
service::Status ServiceStatus;
service::StatusHandle ServiceStatusHandle = nullptr;
}  // namespace

void ServiceControlHandler(std::uint32_t control) {
  switch (control) {
    case service::kServiceControlStop:
      ServiceStatus.win32ExitCode = 0;
      ServiceStatus.currentState = service::kServiceStopped;
      ServiceStatus.checkPoint = 0;
      ServiceStatus.waitHint = 0;
      if (!service::SetStatus(ServiceStatusHandle, ServiceStatus))
        Print("KVTnetd SetServiceStatus error %d\n", service::LastError());
      Print("KVTnetd Leaving KVTnetd \n");
      return;
    case service::kServiceControlInterrogate:
      break;
    default:
      Print("KVTnetd Unrecognized opcode %d\n", static_cast<int>(control));
      break;
  }
  if (!service::SetStatus(ServiceStatusHandle, ServiceStatus))
    Print("KVTnetd SetServiceStatus error %d\n", service::LastError());
}

void ServiceMain(std::uint32_t, char**) {
  // No pending state is ever reported: the first report says running.
  ServiceStatus = {service::kServiceWin32 | service::kServiceInteractiveProcess,
                   service::kServiceStartPending, service::kServiceAcceptStop, 0, 0, 0, 0};
  ServiceStatusHandle = service::RegisterHandler(kServiceName, ServiceControlHandler);
  if (ServiceStatusHandle == nullptr) {
    Print("KVTnetd: RegisterServiceCtrlHandler failed %d\n", service::LastError());
    return;
  }
  ServiceStatus.currentState = service::kServiceRunning;
  ServiceStatus.checkPoint = 0;
  ServiceStatus.waitHint = 0;
  if (!service::SetStatus(ServiceStatusHandle, ServiceStatus))
    Print("KVTnetd: SetServiceStatus error %d\n", service::LastError());
}

int RunServiceDispatcher() {
  if (service::RunDispatcher(kServiceName, ServiceMain)) return 0;
  int code = service::LastError();
  Print("KVTnetd: StartServiceCtrlDispatcher error (%d)\n", code);
  return code;
}

}  // namespace kvt
