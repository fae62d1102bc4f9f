#include "host/service.h"

namespace kvt {

// The service commands are accepted and do nothing yet.
int InstallService() { return 0; }
int StopService() { return 0; }
int RemoveService() { return 0; }
int RunServiceDispatcher() { return 0; }

}  // namespace kvt
