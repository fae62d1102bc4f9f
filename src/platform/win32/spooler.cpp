#include "platform/spooler.h"

#include <windows.h>
#include <winspool.h>

namespace kvt::spooler {

void ClosePrinter(PrinterHandle printer) { ::ClosePrinter(static_cast<HANDLE>(printer)); }

}  // namespace kvt::spooler
