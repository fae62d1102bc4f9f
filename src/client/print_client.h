// Client helpers of the print commands: the job listing, cancelling a job or a spool file,
// deleting a file, the stored printer and scanner lists, and quitting.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/client.h"

namespace kvt::client {

inline constexpr std::size_t kJobRecordSize = 1248;

// The named fields of one record of the job listing.
struct JobEntry {
  std::uint8_t statusCode = 0;
  std::string document, statusText, printerName, jobName, machineName, userName;
  // Records the server makes from spooler jobs carry a job name "*<printer>-<job>"; every
  // other record is the header of a waiting spool file.
  bool spoolFile() const { return jobName.empty() || jobName[0] != '*'; }
};

// Reads the fields of a record of kJobRecordSize bytes.
JobEntry ParseJobRecord(std::string_view record);

// CMD_LIST_JOBS: the records as sent, kJobRecordSize bytes each; empty when the exchange
// failed, or when the length is no whole number of records (*error says why).
std::optional<std::string> ListJobRecords(Connection& connection, std::string* error);

// Whether a fresh listing on this connection holds a record of the job name `name`; empty,
// with *error, when the listing failed.
std::optional<bool> ListsJob(Connection& connection, std::string_view name, std::string* error);

// CMD_CANCEL_JOB with a name of at most 15 characters: the result byte.
std::optional<std::uint8_t> CancelJobOrSpoolFile(Connection& connection, std::string_view name);

// CMD_DELETE_FILE with a path of at most 511 characters: the result byte.
std::optional<std::uint8_t> DeleteServerFile(Connection& connection, std::string_view path);

enum class StoredList { kPrinters, kScanners };

// CMD_GET_PRINTER_LIST / CMD_GET_SCANNER_LIST: the stored file's bytes, or an empty text
// when the server has no usable list (a stored list always has 2 bytes or more).
std::optional<std::string> GetStoredList(Connection& connection, StoredList list,
                                         std::string* error);

// CMD_QUIT with two fields of at most 79 characters: true once the server has closed the
// connection without answering.
bool Quit(Connection& connection, std::string_view first = {}, std::string_view second = {});

}  // namespace kvt::client
