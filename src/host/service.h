// The Windows service: install and start, stop, remove, and the service's own run. Each
// returns 0 or the Windows error code of the step that failed, and prints that step's
// message on standard output.
#pragma once
#include <cstdint>

namespace kvt {

int InstallService();        // "-c"
int StopService();           // "-k"
int RemoveService();         // "-d"
int RunServiceDispatcher();  // "-s": returns once the service has stopped

// Called by the service control manager's dispatcher.
void ServiceMain(std::uint32_t argc, char** argv);
void ServiceControlHandler(std::uint32_t control);

}  // namespace kvt
