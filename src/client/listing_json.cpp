#include "client/listing_json.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "client/print_client.h"

namespace kvt::client::json {

namespace {

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", value);
  return text;
}

// The length of the well-formed UTF-8 sequence at text[at], or 0.
std::size_t Utf8Length(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const std::size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4
                             : lead >= 0xE0              ? 3
                             : lead >= 0xC2 && lead <= 0xDF ? 2
                                                            : 0;
  if (length == 0 || at + length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i)
    if ((static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80) return 0;
  return length;
}

}  // namespace

std::string Quote(std::string_view text) {
  std::string out = "\"";
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '"' || byte == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte == 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      out += escape;
    } else if (byte < 0x80) {
      out += c;
    } else if (const std::size_t length = Utf8Length(text, at)) {  // CUPS gives UTF-8
      out.append(text.substr(at, length));
      at += length - 1;
    } else {  // a single-byte code page: read as Latin-1
      out += static_cast<char>(0xC0 | (byte >> 6));
      out += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return out + "\"";
}

std::string Time(std::int64_t seconds) {
  if (seconds == 0) return "null";
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm local{}, utc{};
  {
    // localtime and gmtime share buffers; kvtweb calls this from several threads.
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    const std::tm* l = std::localtime(&time);
    const std::tm* u = std::gmtime(&time);
    if (l == nullptr || u == nullptr) return "null";
    local = *l;
    utc = *u;
  }
  // The offset from the two broken-down times: %z is not portable (Windows gives a name).
  int days = local.tm_year != utc.tm_year ? (local.tm_year < utc.tm_year ? -1 : 1)
                                          : local.tm_yday - utc.tm_yday;
  long offset = days * 86400L + (local.tm_hour - utc.tm_hour) * 3600L +
                (local.tm_min - utc.tm_min) * 60L + (local.tm_sec - utc.tm_sec);
  const char sign = offset < 0 ? '-' : '+';
  if (offset < 0) offset = -offset;
  char text[48];
  const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
  std::snprintf(text + n, sizeof text - n, "%c%02ld:%02ld", sign, offset / 3600,
                offset % 3600 / 60);
  return "\"" + std::string(text) + "\"";
}

std::int64_t TimeOfJobName(std::string_view name) {
  if (name.size() != 15) return 0;
  std::int64_t seconds = 0;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return 0;
    if (i < 10) seconds = seconds * 10 + (name[i] - '0');
  }
  return seconds;
}

std::string OpenTimed(Connection& connection, const std::string& host, std::uint16_t port,
                      ByteOrder order, double* milliseconds) {
  const auto start = std::chrono::steady_clock::now();
  if (!connection.Connect(host, port) || !connection.Open(order)) return connection.error();
  *milliseconds =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  return {};
}

std::string Ping(const std::string& server, ByteOrder order, double milliseconds,
                 const std::string& error) {
  std::string out = "{\"server\":" + Quote(server);
  if (error.empty())
    out += ",\"reachable\":true,\"roundTripMs\":" + Number(milliseconds) +
           ",\"byteOrder\":" + Quote(OrderName(order));
  else
    out += ",\"reachable\":false,\"error\":" + Quote(error);
  return out + ",\"time\":" + Time(std::time(nullptr)) + "}";
}

namespace {

// One job-listing record as a JSON object: the fields both kinds of record share, then the
// kind's own.
std::string Record(const JobEntry& job, bool spool) {
  std::string out = "{";
  out += spool ? "\"name\":" + Quote(job.jobName) : "\"reference\":" + Quote(job.jobName);
  out += ",\"printer\":" + Quote(job.printerName);
  out += ",\"state\":" + Quote(job.statusText);
  out += ",\"statusCode\":" + std::to_string(job.statusCode);
  out += ",\"document\":" + Quote(job.document);
  out += ",\"owner\":" + Quote(job.userName);
  out += ",\"machine\":" + Quote(job.machineName);
  if (spool)
    out += ",\"size\":null,\"time\":" + Time(TimeOfJobName(job.jobName));
  else
    out += ",\"submitted\":null";
  return out + "}";
}

}  // namespace

std::string Jobs(std::string_view records) {
  std::string jobs, spool;
  for (std::size_t at = 0; at + kJobRecordSize <= records.size(); at += kJobRecordSize) {
    const JobEntry job = ParseJobRecord(records.substr(at, kJobRecordSize));
    std::string& list = job.spoolFile() ? spool : jobs;
    list += (list.empty() ? "" : ",") + Record(job, job.spoolFile());
  }
  return "{\"jobs\":[" + jobs + "],\"spoolFiles\":[" + spool + "]}";
}

std::string Configs(std::string_view folder, const std::vector<ConfigRecord>& records) {
  std::string out = "{\"folder\":" + Quote(folder) + ",\"configurations\":[";
  for (std::size_t i = 0; i < records.size(); ++i)
    out += std::string(i ? "," : "") + "{\"name\":" + Quote(records[i].name()) +
           ",\"size\":" + std::to_string(records[i].size) +
           ",\"colourFileTime\":" + Time(records[i].mtime) + "}";
  return out + "]}";
}

std::string Error(std::string_view text) { return "{\"error\":" + Quote(text) + "}"; }

}  // namespace kvt::client::json
