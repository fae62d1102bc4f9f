#include "platform/spooler.h"

#include <windows.h>
#include <winspool.h>

#include <cstdlib>

namespace kvt::spooler {

static_assert(kJobPaused == JOB_STATUS_PAUSED && kJobError == JOB_STATUS_ERROR &&
              kJobDeleting == JOB_STATUS_DELETING && kJobSpooling == JOB_STATUS_SPOOLING &&
              kJobPrinting == JOB_STATUS_PRINTING && kJobOffline == JOB_STATUS_OFFLINE &&
              kJobPaperOut == JOB_STATUS_PAPEROUT && kJobPrinted == JOB_STATUS_PRINTED);

namespace {

// The two-call protocol of the Enum* functions: ask for the size, then fetch into a block
// of that size. A list that grows between the calls is asked for again, a few times.
// Returns the block (null when there is nothing to list) and the count; false on failure.
template <typename Enum>
bool Fetch(Enum enumerate, BYTE** block, DWORD* count) {
  *block = nullptr;
  *count = 0;
  DWORD needed = 0;
  if (enumerate(nullptr, 0, &needed, count)) {
    *count = 0;  // nothing fits in no buffer
    return true;
  }
  for (int attempt = 0; attempt < 3 && needed > 0; ++attempt) {
    const DWORD size = needed;
    BYTE* buffer = static_cast<BYTE*>(std::malloc(size));
    if (buffer == nullptr) return false;
    if (enumerate(buffer, size, &needed, count)) {
      *block = buffer;
      return true;
    }
    std::free(buffer);
    if (needed <= size) break;  // it failed for another reason than the size
  }
  *count = 0;
  // Nothing needed is nothing to list: Wine's EnumJobsA is a stub that fails so.
  return needed == 0;
}

}  // namespace

bool ForEachPrinter(void (*visit)(void* context, const char* name), void* context) {
  BYTE* block;
  DWORD count;
  bool listed = Fetch(
      [](BYTE* buffer, DWORD size, DWORD* needed, DWORD* returned) {
        return ::EnumPrintersA(PRINTER_ENUM_LOCAL | PRINTER_ENUM_CONNECTIONS, nullptr, 2, buffer,
                               size, needed, returned) != FALSE;
      },
      &block, &count);
  if (!listed) return false;
  const auto* printers = reinterpret_cast<const PRINTER_INFO_2A*>(block);
  for (DWORD i = 0; i < count; ++i)
    if (printers[i].pPrinterName != nullptr) visit(context, printers[i].pPrinterName);
  std::free(block);
  return true;
}

PrinterHandle Open(const char* name) {
  HANDLE printer = nullptr;
  if (!::OpenPrinterA(const_cast<char*>(name), &printer, nullptr)) return nullptr;
  return printer;
}

bool ForEachJob(PrinterHandle printer, int max, void (*visit)(void* context, const Job& job),
                void* context) {
  BYTE* block;
  DWORD count;
  bool listed = Fetch(
      [&](BYTE* buffer, DWORD size, DWORD* needed, DWORD* returned) {
        return ::EnumJobsA(static_cast<HANDLE>(printer), 0, static_cast<DWORD>(max), 1, buffer,
                           size, needed, returned) != FALSE;
      },
      &block, &count);
  if (!listed) return false;
  const auto* jobs = reinterpret_cast<const JOB_INFO_1A*>(block);
  for (DWORD i = 0; i < count && i < static_cast<DWORD>(max); ++i) {
    const JOB_INFO_1A& j = jobs[i];
    visit(context, Job{static_cast<std::int32_t>(j.JobId), j.pPrinterName, j.pMachineName,
                       j.pUserName, j.pDocument, j.pStatus, j.Status});
  }
  std::free(block);
  return true;
}

bool CancelJob(PrinterHandle printer, std::int32_t id) {
  return ::SetJobA(static_cast<HANDLE>(printer), static_cast<DWORD>(id), 0, nullptr,
                   JOB_CONTROL_CANCEL) != FALSE;
}

void ClosePrinter(PrinterHandle printer) { ::ClosePrinter(static_cast<HANDLE>(printer)); }

}  // namespace kvt::spooler
