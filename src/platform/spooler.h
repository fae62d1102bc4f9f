// The print spooler: its printers, their jobs, and cancelling a job.
// Windows: winspool. Linux: CUPS, through libcups; its job states are mapped onto the
// Windows job status bits (see posix/spooler.cpp).
#pragma once
#include <cstdint>

namespace kvt::spooler {

// An open printer; null when opening failed.
using PrinterHandle = void*;

// The bits of a job's status word that the job listing looks at (Windows' JOB_STATUS_*).
inline constexpr std::uint32_t kJobPaused = 0x01;
inline constexpr std::uint32_t kJobError = 0x02;
inline constexpr std::uint32_t kJobDeleting = 0x04;
inline constexpr std::uint32_t kJobSpooling = 0x08;
inline constexpr std::uint32_t kJobPrinting = 0x10;
inline constexpr std::uint32_t kJobOffline = 0x20;
inline constexpr std::uint32_t kJobPaperOut = 0x40;
inline constexpr std::uint32_t kJobPrinted = 0x80;

// One job as the spooler lists it. A text the spooler does not give is null; an empty text
// is not null. The texts live only until the visit that receives them returns.
struct Job {
  std::int32_t id;          // the spooler's job number
  const char* printerName;  // the printer that holds the job
  const char* machineName;  // the submitting machine, "\\host"
  const char* userName;
  const char* document;
  const char* statusText;  // the spooler's own words on the job; null when it has none
  std::uint32_t status;    // kJob* bits, and others that nobody here looks at
};

// Calls visit(context, name) for every local printer and printer connection, in the
// spooler's order. False when the printers can't be listed; nothing was visited then.
bool ForEachPrinter(void (*visit)(void* context, const char* name), void* context);

// Opens a printer by name with the default access; null when that fails.
PrinterHandle Open(const char* name);

// Calls visit(context, job) for the printer's jobs from queue position 0, at most `max`,
// in the spooler's order. False when they can't be listed; a printer without jobs is true.
bool ForEachJob(PrinterHandle printer, int max, void (*visit)(void* context, const Job& job),
                void* context);

// Cancels the printer's job `id` (Windows: SetJobA with JOB_CONTROL_CANCEL). True when the
// spooler took the command. A job of another printer is never touched.
bool CancelJob(PrinterHandle printer, std::int32_t id);

void ClosePrinter(PrinterHandle printer);

}  // namespace kvt::spooler
