#include "server/inline_commands.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/files.h"
#include "platform/spooler.h"
#include "server/wire.h"
#include "support/folders.h"
#include "support/text.h"

namespace kvt {

std::atomic<std::int32_t> NameCounter{0};

namespace {

// `value` as `width` decimal digits with leading zeros (it has no more digits than that).
void PutDigits(char* out, std::uint32_t value, int width) {
  for (int i = width - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
}

Served SendResult(ConnectionRecord& record, std::uint8_t result) {
  SendAll(record.socket, &result, 1);
  return Served::kContinue;
}

Served SendListFile(ConnectionRecord& record, const char* name) {
  const char* data = GetAppFolder(3);
  char path[300];
  files::Status status{};
  files::Reader file = files::kNoReader;
  if (data[0] != '\0' && FormatFits(path, sizeof path, "%s/Corvina/%s", data, name) &&
      files::GetStatus(path, &status) && status.size > 1)
    file = files::OpenForReading(path);
  std::uint8_t first = 0;
  if (file == files::kNoReader || files::Read(file, &first, 1) != 1) {
    if (file != files::kNoReader) files::Close(file);
    return SendResult(record, 0);
  }
  SendResult(record, first);

  // The length comes from the size taken before reading, and exactly that many bytes
  // follow: zeros where the file has shrunk since, nothing of what it has grown by.
  std::uint8_t buffer[8192];
  PutClientU32(record, buffer, static_cast<std::uint32_t>(status.size - 1));
  std::size_t used = 4, remaining = static_cast<std::size_t>(status.size - 1);
  while (remaining > 0) {
    const std::size_t chunk = remaining < sizeof buffer - used ? remaining : sizeof buffer - used;
    const std::size_t got = files::Read(file, buffer + used, chunk);
    std::memset(buffer + used + got, 0, chunk - got);
    used += chunk;
    remaining -= chunk;
    if (SendAll(record.socket, buffer, static_cast<int>(used)) != static_cast<int>(used)) break;
    used = 0;
  }
  files::Close(file);
  return Served::kContinue;
}

// A decimal number as "%d" reads one (blanks, a sign, digits); false when there is none or
// it does not fit 32 bits: such a reference names nothing.
bool ReadNumber(const char*& text, std::int32_t* out) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  if (end == text || errno == ERANGE || value < INT32_MIN || value > INT32_MAX) return false;
  *out = static_cast<std::int32_t>(value);
  text = end;
  return true;
}

// "*<printer>-<job>": the job of the printer at that index of the connection's table. A
// table exists only after the connection's first job listing.
void CancelReferencedJob(const ConnectionRecord& record, const char* reference) {
  const char* text = reference + 1;
  std::int32_t index = 0, job = 0;
  if (!ReadNumber(text, &index) || *text++ != '-' || !ReadNumber(text, &job)) return;
  if (record.printers == nullptr || index < 0) return;
  for (std::int32_t i = 0; i < index; ++i)
    if (record.printers[i].name[0] == '\0') return;  // past the table's end
  const PrinterEntry& entry = record.printers[index];
  if (entry.name[0] != '\0' && entry.handle != nullptr) spooler::CancelJob(entry.handle, job);
}

}  // namespace

Served SendPrinterList(ConnectionRecord& record) { return SendListFile(record, "PrinterList"); }
Served SendScannerList(ConnectionRecord& record) { return SendListFile(record, "ScannerList"); }

Served SendNewJobName(ConnectionRecord& record) {
  // Both parts are taken as unsigned: the name then stays 15 digits until 2106 (a signed
  // time would need 11 characters from 2038 on), and the counter part 5 digits for ever.
  const auto time = static_cast<std::uint32_t>(std::time(nullptr));
  const auto counter = static_cast<std::uint32_t>(NameCounter.fetch_add(1));
  // "%010lu%05lu", with the digits put down directly: a formatted print would cost this
  // request, the most frequent one, more than all the rest of its work together.
  char name[16] = {};
  PutDigits(name, time, 10);
  PutDigits(name + 10, counter % 100000, 5);
  SendAll(record.socket, name, sizeof name);
  return Served::kContinue;
}

Served CancelJobOrSpoolFile(ConnectionRecord& record) {
  char name[17] = {};  // a name of all 16 bytes still ends in a NUL
  if (RecvAll(record.socket, name, 16) != 16) return SendResult(record, 0);
  if (name[0] == '*') {
    CancelReferencedJob(record, name);
    return SendResult(record, 0);  // whatever the spooler made of it
  }
  // The path is formed in 80 bytes; one that does not fit names no file of ours.
  char path[80];
  const bool deleted = SpoolFolder[0] != '\0' &&
                       FormatFits(path, sizeof path, "%s/%s.spl", SpoolFolder, name) &&
                       files::Remove(path);
  return SendResult(record, deleted ? 1 : 0);
}

Served DeleteFileByPath(ConnectionRecord& record) {
  char path[513] = {};
  if (RecvAll(record.socket, path, 512) != 512) return SendResult(record, 0);
  return SendResult(record, path[0] != '\0' && files::Remove(path) ? 1 : 0);
}

Served Quit(ConnectionRecord& record) {
  char fields[2][80];
  RecvAll(record.socket, fields[0], sizeof fields[0]);
  RecvAll(record.socket, fields[1], sizeof fields[1]);
  net::Close(record.socket);
  EndConnection(&record);
  return Served::kConnectionEnded;
}

}  // namespace kvt
