#include "spooler_double.h"

#include <map>

namespace kvt::spooler {

namespace {

std::vector<fake::FakePrinter> printers;
std::vector<std::string> calls;
std::map<PrinterHandle, std::string> open;  // handle -> printer name
char handleSpace[512];                      // handles are addresses in here
unsigned nextHandle = 0;
bool listingFails = false;

fake::FakePrinter* Find(const std::string& name) {
  for (fake::FakePrinter& p : printers)
    if (p.name == name) return &p;
  return nullptr;
}

}  // namespace

std::vector<fake::FakePrinter>& fake::Printers() { return printers; }
void fake::FailPrinterListing(bool fail) { listingFails = fail; }
const std::vector<std::string>& fake::Calls() { return calls; }
int fake::OpenHandles() { return static_cast<int>(open.size()); }
void fake::Reset() {
  printers.clear();
  calls.clear();
  open.clear();
  nextHandle = 0;
  listingFails = false;
}

bool ForEachPrinter(void (*visit)(void*, const char*), void* context) {
  if (listingFails) return false;
  std::vector<std::string> names;  // the visit may open printers
  for (const fake::FakePrinter& p : printers) names.push_back(p.name);
  for (const std::string& name : names) visit(context, name.c_str());
  return true;
}

PrinterHandle Open(const char* name) {
  calls.push_back("Open(" + std::string(name) + ")");
  fake::FakePrinter* printer = Find(name);
  if (printer == nullptr || printer->openFails) return nullptr;
  PrinterHandle handle = handleSpace + nextHandle++ % sizeof handleSpace;
  open[handle] = name;
  return handle;
}

bool ForEachJob(PrinterHandle handle, int max, void (*visit)(void*, const Job&), void* context) {
  const std::string name = open.at(handle);
  calls.push_back("Jobs(" + name + ", " + std::to_string(max) + ")");
  fake::FakePrinter* printer = Find(name);
  if (printer == nullptr || printer->listFails) return false;
  for (int i = 0; i < max && i < static_cast<int>(printer->jobs.size()); ++i) {
    const fake::FakeJob& j = printer->jobs[static_cast<std::size_t>(i)];
    visit(context, Job{j.id, name.c_str(), j.machine.c_str(), j.user.c_str(), j.document.c_str(),
                       j.statusText ? j.statusText->c_str() : nullptr, j.status});
  }
  return true;
}

bool CancelJob(PrinterHandle handle, std::int32_t id) {
  calls.push_back("Cancel(" + open.at(handle) + ", " + std::to_string(id) + ")");
  return true;
}

void ClosePrinter(PrinterHandle handle) {
  calls.push_back("Close(" + open.at(handle) + ")");
  open.erase(handle);
}

}  // namespace kvt::spooler
