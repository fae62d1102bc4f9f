// The job listing (CMD_LIST_JOBS): the spooler's jobs of every printer and the spool files
// that wait in the spool folder, as one block of fixed-size records; and the connection's
// printer table, which job references ("*<printer>-<job>") are resolved against.
#pragma once
#include <cstddef>
#include <cstdint>

#include "server/connection.h"

namespace kvt {

// One record of the listing, and the header of every spool file. All text fields are
// NUL-terminated; the client owns the meaning of the reserved bytes.
struct JobRecord {
  std::uint8_t reserved0;
  std::uint8_t statusCode;
  char document[80];
  char statusText[80];
  char printerName[80];
  std::uint8_t reserved1[680];
  char jobName[36];      // "*<printer index>-<job id>" for a spooler job
  char machineName[64];  // upper case in every record sent
  char userName[64];
  std::uint8_t reserved2[162];
};
static_assert(sizeof(JobRecord) == 1248);
static_assert(offsetof(JobRecord, statusCode) == 1);
static_assert(offsetof(JobRecord, document) == 2);
static_assert(offsetof(JobRecord, statusText) == 82);
static_assert(offsetof(JobRecord, printerName) == 162);
static_assert(offsetof(JobRecord, reserved1) == 242);
static_assert(offsetof(JobRecord, jobName) == 922);
static_assert(offsetof(JobRecord, machineName) == 958);
static_assert(offsetof(JobRecord, userName) == 1022);
static_assert(offsetof(JobRecord, reserved2) == 1086);

// Working limits of the listing.
inline constexpr int kMaxJobsPerPrinter = 50;  // asked of each printer
inline constexpr int kMaxListedJobs = 256;     // spooler jobs of one listing, all printers
inline constexpr int kMaxListedSpoolFiles = 256;
inline constexpr int kMaxPrinters = 256;  // the printer index travels in one byte

// CMD_LIST_JOBS: builds the printer table on first use, then sends the length (client
// order) and the records, spooler jobs first, then spool headers in name order.
Served ListJobs(ConnectionRecord& record);

// Makes the connection's printer table: the spooler's printers in its order, each opened.
// Always leaves a table (with no printers when the spooler can't list them) in `printers`.
void BuildPrinterTable(ConnectionRecord& record);

}  // namespace kvt
