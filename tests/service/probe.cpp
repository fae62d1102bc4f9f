// The Wine tests' view of the service control manager (Wine's sc shows neither the accepted
// controls nor the registration, and sends no user control codes):
//   kvt_service_probe query NAME          type=0x.. state=N controls=N exit=N
//   kvt_service_probe config NAME         type=0x.. start=N error=N account=... path=...
//   kvt_service_probe control NAME CODE   sends the control code
// Exit code 0, or the Windows error code of the failed call, printed as "<call> error=N".
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/service.h"

namespace {

namespace service = kvt::service;

int Report(const char* call) {
  int error = service::LastError();
  std::printf("%s error=%d\n", call, error);
  return error;
}

int Ask(service::Handle svc, const char* command, const char* code) {
  if (std::strcmp(command, "control") == 0)
    return service::Control(svc, std::strtoul(code, nullptr, 10)) ? 0 : Report("control");
  if (std::strcmp(command, "query") == 0) {
    service::Status s;
    if (!service::Query(svc, &s)) return Report("query");
    std::printf("type=0x%x state=%u controls=%u exit=%u\n", s.serviceType, s.currentState,
                s.controlsAccepted, s.win32ExitCode);
    return 0;
  }
  alignas(QUERY_SERVICE_CONFIGA) char buffer[8192];
  auto* c = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(buffer);
  DWORD needed = 0;
  if (!::QueryServiceConfigA(static_cast<SC_HANDLE>(svc), c, sizeof buffer, &needed))
    return Report("config");
  std::printf("type=0x%lx start=%lu error=%lu account=%s path=%s\n", c->dwServiceType,
              c->dwStartType, c->dwErrorControl,
              c->lpServiceStartName ? c->lpServiceStartName : "", c->lpBinaryPathName);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* command = argc > 1 ? argv[1] : "";
  bool known = (argc == 3 && (std::strcmp(command, "query") == 0 ||
                              std::strcmp(command, "config") == 0)) ||
               (argc == 4 && std::strcmp(command, "control") == 0);
  if (!known) {
    std::printf("usage: kvt_service_probe query|config NAME, or control NAME CODE\n");
    return 2;
  }
  service::Handle manager = service::OpenManager(SC_MANAGER_CONNECT);
  if (manager == nullptr) return Report("manager");
  service::Handle svc = service::Open(manager, argv[2], SERVICE_ALL_ACCESS);
  int result = svc == nullptr ? Report("open") : Ask(svc, command, argv[3]);
  if (svc != nullptr) service::Close(svc);
  service::Close(manager);
  return result;
}
