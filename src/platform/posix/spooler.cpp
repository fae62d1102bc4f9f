#include "platform/spooler.h"

namespace kvt::spooler {

// No printer is opened on this platform yet, so there is nothing to close.
void ClosePrinter(PrinterHandle) {}

}  // namespace kvt::spooler
