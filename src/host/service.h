// The Windows service: install and start, stop, remove, and the service's own run.
#pragma once

namespace kvt {

int InstallService();        // "-c"
int StopService();           // "-k"
int RemoveService();         // "-d"
int RunServiceDispatcher();  // "-s"

}  // namespace kvt
