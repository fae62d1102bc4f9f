// The in-memory machine's print spooler (memory.h): scripted printers and jobs. It records
// the calls and knows which printers are open.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "platform/spooler.h"

namespace kvt::spooler::fake {

struct FakeJob {
  std::int32_t id;
  std::uint32_t status = 0;
  std::optional<std::string> statusText = std::nullopt;  // none: the spooler gives no text
  std::string document = "doc", machine = "\\\\host", user = "user";
};

struct FakePrinter {
  std::string name;
  std::vector<FakeJob> jobs = {};
  bool openFails = false, listFails = false;
};

// The printers the spooler lists from now on (editable), and whether listing them fails.
std::vector<FakePrinter>& Printers();
void FailPrinterListing(bool fail);
// Forgets printers, calls and open handles.
void Reset();

// "Open(name)", "Jobs(name, max)", "Cancel(name, id)", "Close(name)".
const std::vector<std::string>& Calls();
int OpenHandles();

}  // namespace kvt::spooler::fake
