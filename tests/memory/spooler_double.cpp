#include "spooler_double.h"

#include <map>

namespace kvt::spooler {

namespace {

// What Reset forgets.
struct State {
  std::vector<fake::FakePrinter> printers;
  std::vector<std::string> calls;
  std::map<PrinterHandle, std::string> open;  // handle -> printer name
  unsigned nextHandle = 0;
  bool listingFails = false;
} s;
char handleSpace[512];  // handles are addresses in here

fake::FakePrinter* Find(const std::string& name) {
  for (fake::FakePrinter& p : s.printers)
    if (p.name == name) return &p;
  return nullptr;
}

}  // namespace

std::vector<fake::FakePrinter>& fake::Printers() { return s.printers; }
void fake::FailPrinterListing(bool fail) { s.listingFails = fail; }
const std::vector<std::string>& fake::Calls() { return s.calls; }
int fake::OpenHandles() { return static_cast<int>(s.open.size()); }
void fake::Reset() { s = {}; }

bool ForEachPrinter(void (*visit)(void*, const char*), void* context) {
  if (s.listingFails) return false;
  std::vector<std::string> names;  // the visit may open printers
  for (const fake::FakePrinter& p : s.printers) names.push_back(p.name);
  for (const std::string& name : names) visit(context, name.c_str());
  return true;
}

PrinterHandle Open(const char* name) {
  s.calls.push_back("Open(" + std::string(name) + ")");
  fake::FakePrinter* printer = Find(name);
  if (printer == nullptr || printer->openFails) return nullptr;
  PrinterHandle handle = handleSpace + s.nextHandle++ % sizeof handleSpace;
  s.open[handle] = name;
  return handle;
}

bool ForEachJob(PrinterHandle handle, int max, void (*visit)(void*, const Job&), void* context) {
  const std::string name = s.open.at(handle);
  s.calls.push_back("Jobs(" + name + ", " + std::to_string(max) + ")");
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
  s.calls.push_back("Cancel(" + s.open.at(handle) + ", " + std::to_string(id) + ")");
  return true;
}

void ClosePrinter(PrinterHandle handle) {
  s.calls.push_back("Close(" + s.open.at(handle) + ")");
  s.open.erase(handle);
}

}  // namespace kvt::spooler
