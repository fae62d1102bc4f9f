#include "client/print_client.h"

namespace kvt::client {

namespace {

// Larger answers than these are taken for a broken stream; smaller ones grow only as their
// bytes arrive (Connection::RecvAppend).
constexpr std::uint32_t kMaxListing = 64u << 20;
constexpr std::uint32_t kMaxStoredList = 256u << 20;

std::string Field(std::string_view record, std::size_t offset, std::size_t width) {
  std::string_view field = record.substr(offset, width);
  return std::string(field.substr(0, field.find('\0')));
}

std::optional<std::uint8_t> Result(Connection& connection, bool sent) {
  if (!sent) return std::nullopt;
  return connection.RecvByte();
}

}  // namespace

JobEntry ParseJobRecord(std::string_view record) {
  JobEntry entry;
  if (record.size() < kJobRecordSize) return entry;
  entry.statusCode = static_cast<std::uint8_t>(record[1]);
  entry.document = Field(record, 2, 80);
  entry.statusText = Field(record, 82, 80);
  entry.printerName = Field(record, 162, 80);
  entry.jobName = Field(record, 922, 36);
  entry.machineName = Field(record, 958, 64);
  entry.userName = Field(record, 1022, 64);
  return entry;
}

std::optional<std::string> ListJobRecords(Connection& connection, std::string* error) {
  std::optional<std::uint32_t> length;
  if (!connection.SendFrame(CMD_LIST_JOBS) || !(length = connection.RecvU32())) {
    *error = connection.error();
    return std::nullopt;
  }
  if (*length % kJobRecordSize != 0 || *length > kMaxListing) {
    *error = "the server announced " + std::to_string(*length) +
             " bytes, which is no whole number of job records";
    connection.Close();
    return std::nullopt;
  }
  std::string records;
  if (connection.RecvAppend(records, *length) != Status::kOk) {
    *error = connection.error();
    return std::nullopt;
  }
  return records;
}

std::optional<bool> ListsJob(Connection& connection, std::string_view name, std::string* error) {
  const std::optional<std::string> records = ListJobRecords(connection, error);
  if (!records) return std::nullopt;
  for (std::size_t at = 0; at < records->size(); at += kJobRecordSize)
    if (ParseJobRecord(std::string_view(*records).substr(at, kJobRecordSize)).jobName == name)
      return true;
  return false;
}

std::optional<std::uint8_t> CancelJobOrSpoolFile(Connection& connection, std::string_view name) {
  return Result(connection, connection.SendFrame(CMD_CANCEL_JOB) && connection.SendText(name, 16));
}

std::optional<std::uint8_t> DeleteServerFile(Connection& connection, std::string_view path) {
  return Result(connection,
                connection.SendFrame(CMD_DELETE_FILE) && connection.SendText(path, 512));
}

std::optional<std::string> GetStoredList(Connection& connection, StoredList list,
                                         std::string* error) {
  auto failed = [&]() -> std::optional<std::string> {
    *error = connection.error();
    return std::nullopt;
  };
  std::optional<std::uint8_t> first;
  if (!connection.SendFrame(list == StoredList::kPrinters ? CMD_GET_PRINTER_LIST
                                                          : CMD_GET_SCANNER_LIST) ||
      !(first = connection.RecvByte()))
    return failed();
  if (*first == 0) return std::string();
  std::optional<std::uint32_t> length = connection.RecvU32();
  if (!length) return failed();
  if (*length > kMaxStoredList) {
    *error = "the server announced a list of " + std::to_string(*length) + " bytes";
    connection.Close();
    return std::nullopt;
  }
  std::string bytes(1, static_cast<char>(*first));
  if (connection.RecvAppend(bytes, *length) != Status::kOk) return failed();
  return bytes;
}

bool Quit(Connection& connection, std::string_view first, std::string_view second) {
  bool ended = connection.SendFrame(CMD_QUIT) && connection.SendText(first, 80) &&
               connection.SendText(second, 80) && connection.ExpectEnd();
  connection.Close();
  return ended;
}

}  // namespace kvt::client
