#include "platform/service.h"

namespace kvt::service {

// No service control manager here: every call fails, so the service commands report
// ERROR_CALL_NOT_IMPLEMENTED at their first step. A Linux host runs the plain server under
// systemd instead (packaging/linux/kvtnetd.service).

Handle OpenManager(std::uint32_t) { return nullptr; }
Handle Open(Handle, const char*, std::uint32_t) { return nullptr; }
Handle Create(Handle, const char*, const char*, std::uint32_t, std::uint32_t, std::uint32_t,
              std::uint32_t, const char*) {
  return nullptr;
}
bool Start(Handle) { return false; }
bool Control(Handle, std::uint32_t) { return false; }
bool Delete(Handle) { return false; }
bool Query(Handle, Status*) { return false; }
bool Close(Handle) { return false; }
bool RunDispatcher(const char*, MainRoutine) { return false; }
StatusHandle RegisterHandler(const char*, ControlRoutine) { return nullptr; }
bool SetStatus(StatusHandle, const Status&) { return false; }
int LastError() { return kErrorCallNotImplemented; }

}  // namespace kvt::service
