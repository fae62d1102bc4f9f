#include "print/jobs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "files/scan.h"
#include "platform/files.h"
#include "platform/spooler.h"
#include "server/wire.h"
#include "support/text.h"

namespace kvt {

namespace {

// Copies a text into a zeroed field, cut so that the field's last byte stays NUL. A text
// the spooler did not give leaves the field empty.
void CopyField(char* field, std::size_t width, const char* text) {
  if (text != nullptr) std::memcpy(field, text, strnlen(text, width - 1));
}

template <std::size_t N>
void CopyField(char (&field)[N], const char* text) {
  CopyField(field, N, text);
}

// The status table; the first row whose bit is set decides. A job's own status text, even
// an empty one, goes before all of them, and a job with none of the bits is "unknown".
struct StatusRow {
  std::uint32_t bit;
  std::uint8_t code;
  const char* text;  // null: the job gets no record
};
constexpr StatusRow kStatusRows[] = {
    {spooler::kJobError, 3, "error"},         {spooler::kJobPaperOut, 3, "paper out"},
    {spooler::kJobOffline, 9, "job held"},    {spooler::kJobPaused, 11, "stopped"},
    {spooler::kJobDeleting, 12, "cancelled"}, {spooler::kJobPrinting, 10, "printing"},
    {spooler::kJobPrinted, 14, "completed"},  {spooler::kJobSpooling, 0, nullptr},
};

// Sets the record's status code and words; false for a job that is only being spooled.
bool DecideStatus(const spooler::Job& job, JobRecord& record) {
  if (job.statusText != nullptr) {
    record.statusCode = 1;
    CopyField(record.statusText, job.statusText);
    return true;
  }
  for (const StatusRow& row : kStatusRows) {
    if ((job.status & row.bit) == 0) continue;
    if (row.text == nullptr) return false;
    record.statusCode = row.code;
    CopyField(record.statusText, row.text);
    return true;
  }
  record.statusCode = 15;
  CopyField(record.statusText, "unknown status");
  return true;
}

// The spooler's jobs, made into records in place as the printers list them.
struct Gathering {
  JobRecord* records;
  int count;
  int capacity;
  std::uint8_t printerIndex;
};

void AddJob(void* context, const spooler::Job& job) {
  auto& gathering = *static_cast<Gathering*>(context);
  if (gathering.count == gathering.capacity) return;  // the listing is full
  JobRecord& record = gathering.records[gathering.count];
  std::memset(&record, 0, sizeof record);
  CopyField(record.document, job.document);
  CopyField(record.printerName, job.printerName);
  // The spooler begins a machine name with two backslashes; a shorter text gives none.
  const char* machine = job.machineName;
  if (machine != nullptr && machine[0] != '\0' && machine[1] != '\0')
    CopyField(record.machineName, machine + 2);
  CopyField(record.userName, job.userName);
  if (!DecideStatus(job, record)) return;  // the next job's record takes this place
  std::snprintf(record.jobName, sizeof record.jobName, "*%d-%d", gathering.printerIndex, job.id);
  ++gathering.count;
}

struct TableBuild {
  PrinterEntry* table;  // always one zero entry past the last printer
  int count;
};

void AddPrinter(void* context, const char* name) {
  auto& build = *static_cast<TableBuild*>(context);
  // An empty name would end the table early. Past 256 printers the one-byte index of a
  // job reference would name two printers: the rest are left out.
  if (name[0] == '\0' || build.count == kMaxPrinters) return;
  void* grown = std::realloc(build.table, (build.count + 2) * sizeof(PrinterEntry));
  if (grown == nullptr) return;
  build.table = static_cast<PrinterEntry*>(grown);
  PrinterEntry& entry = build.table[build.count++];
  std::memset(&entry, 0, 2 * sizeof entry);
  CopyField(entry.name, name);
  // A name cut to fit would open another printer, or none: such an entry stays closed.
  if (strnlen(name, sizeof entry.name) < sizeof entry.name) entry.handle = spooler::Open(name);
}

}  // namespace

void BuildPrinterTable(ConnectionRecord& record) {
  TableBuild build{static_cast<PrinterEntry*>(std::calloc(1, sizeof(PrinterEntry))), 0};
  if (build.table == nullptr) return;  // tried again at the next listing
  spooler::ForEachPrinter(AddPrinter, &build);
  record.printers = build.table;
}

Served ListJobs(ConnectionRecord& record) {
  int spoolCount = 0;
  FolderEntry* spool = SpoolFolder[0] != '\0'
                           ? ScanFolder(SpoolFolder, "*.spl", &spoolCount, SCAN_SORT_NAME)
                           : nullptr;
  if (spoolCount > kMaxListedSpoolFiles) spoolCount = kMaxListedSpoolFiles;

  if (record.printers == nullptr) BuildPrinterTable(record);
  int openPrinters = 0;
  for (PrinterEntry* p = record.printers; p != nullptr && p->name[0] != '\0'; ++p)
    openPrinters += p->handle != nullptr;
  int jobCapacity = openPrinters * kMaxJobsPerPrinter;
  if (jobCapacity > kMaxListedJobs) jobCapacity = kMaxListedJobs;

  // Sized for every record that may come; jobs and files left out leave its end unused.
  const std::size_t capacity = static_cast<std::size_t>(jobCapacity + spoolCount);
  auto* reply = static_cast<std::uint8_t*>(std::malloc(4 + capacity * sizeof(JobRecord)));
  if (reply == nullptr) {
    const std::uint8_t empty[4] = {};
    SendAll(record.socket, empty, sizeof empty);
    FreeFolderList(spool);
    return Served::kContinue;
  }
  auto* records = reinterpret_cast<JobRecord*>(reply + 4);

  Gathering gathering{records, 0, jobCapacity, 0};
  for (int i = 0; record.printers != nullptr && record.printers[i].name[0] != '\0'; ++i) {
    if (record.printers[i].handle == nullptr) continue;
    gathering.printerIndex = static_cast<std::uint8_t>(i);
    spooler::ForEachJob(record.printers[i].handle, kMaxJobsPerPrinter, AddJob, &gathering);
  }

  int count = gathering.count;
  for (int i = 0; i < spoolCount; ++i) {
    // A file whose path does not fit, that can't be opened (deleted meanwhile) or that is
    // shorter than a header gives no record.
    char path[200];
    if (!JoinPath(path, sizeof path, SpoolFolder, spool[i].name)) continue;
    if (files::ReadHead(path, &records[count], sizeof(JobRecord)) == sizeof(JobRecord)) ++count;
  }

  for (int i = 0; i < count; ++i) {
    char* machine = records[i].machineName;
    for (std::size_t c = 0; c < sizeof records[i].machineName && machine[c] != '\0'; ++c)
      if (machine[c] >= 'a' && machine[c] <= 'z') machine[c] = static_cast<char>(machine[c] - 32);
  }

  const std::size_t length = static_cast<std::size_t>(count) * sizeof(JobRecord);
  PutClientU32(record, reply, static_cast<std::uint32_t>(length));
  SendAll(record.socket, reply, static_cast<int>(4 + length));
  std::free(reply);
  FreeFolderList(spool);
  return Served::kContinue;
}

}  // namespace kvt
