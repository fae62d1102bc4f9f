// The print spooler: what the printer table needs of it so far.
// Windows: winspool. Linux: CUPS.
#pragma once

namespace kvt::spooler {

// An open printer; null when opening failed.
using PrinterHandle = void*;

void ClosePrinter(PrinterHandle printer);

}  // namespace kvt::spooler
