#include "client/listing_json.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace kvt::client::json {

namespace {

// The length of the well-formed UTF-8 sequence at text[at], or 0. Well-formed as the JSON
// library checks it: no overlong form, no surrogate, nothing past U+10FFFF.
std::size_t Utf8Length(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const std::size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4
                             : lead >= 0xE0 && lead <= 0xEF ? 3
                             : lead >= 0xC2 && lead <= 0xDF ? 2
                                                            : 0;
  if (length == 0 || at + length > text.size()) return 0;
  // The second byte's range narrows after these leads (Unicode's table of well-formed UTF-8).
  const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  const auto second = static_cast<unsigned char>(text[at + 1]);
  if (second < low || second > high) return 0;
  for (std::size_t i = 2; i < length; ++i)
    if ((static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80) return 0;
  return length;
}

}  // namespace

// The library refuses bytes that are not UTF-8; the records may hold a code page's.
Json Text(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x80) {
      out += text[at];
    } else if (const std::size_t length = Utf8Length(text, at)) {  // CUPS gives UTF-8
      out.append(text.substr(at, length));
      at += length - 1;
    } else {  // a single-byte code page: read as Latin-1
      out += static_cast<char>(0xC0 | (byte >> 6));
      out += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return out;
}

// Never throws: a text that Text() let through malformed would be replaced, not fatal.
std::string Dump(const Json& document) {
  return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json Time(std::int64_t seconds) {
  if (seconds == 0) return nullptr;
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm local{}, utc{};
  {
    // localtime and gmtime share buffers; kvtweb calls this from several threads.
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    const std::tm* l = std::localtime(&time);
    const std::tm* u = std::gmtime(&time);
    if (l == nullptr || u == nullptr) return nullptr;
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
  return std::string(text);
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

Json Ping(const std::string& server, ByteOrder order, double milliseconds,
          const std::string& error) {
  Json out{{"server", Text(server)}};
  if (error.empty()) {
    out["reachable"] = true;
    out["roundTripMs"] = std::round(milliseconds * 1000) / 1000;  // to the microsecond
    out["byteOrder"] = OrderName(order);
  } else {
    out["reachable"] = false;
    out["error"] = Text(error);
  }
  out["time"] = Time(std::time(nullptr));
  return out;
}

std::vector<JobEntry> ParseJobRecords(std::string_view records) {
  std::vector<JobEntry> entries;
  for (std::size_t at = 0; at + kJobRecordSize <= records.size(); at += kJobRecordSize)
    entries.push_back(ParseJobRecord(records.substr(at, kJobRecordSize)));
  return entries;
}

Json Jobs(const std::vector<JobEntry>& entries) {
  Json jobs = Json::array(), spool = Json::array();
  // The fields both kinds of record share, then the kind's own.
  for (const JobEntry& job : entries) {
    const bool file = job.spoolFile();
    Json record{{file ? "name" : "reference", Text(job.jobName)},
                {"printer", Text(job.printerName)},
                {"state", Text(job.statusText)},
                {"statusCode", job.statusCode},
                {"document", Text(job.document)},
                {"owner", Text(job.userName)},
                {"machine", Text(job.machineName)}};
    if (file) {
      record["size"] = nullptr;
      record["time"] = Time(TimeOfJobName(job.jobName));
      spool.push_back(std::move(record));
    } else {
      record["submitted"] = nullptr;
      jobs.push_back(std::move(record));
    }
  }
  return Json{{"jobs", std::move(jobs)}, {"spoolFiles", std::move(spool)}};
}

Json Configs(std::string_view folder, const std::vector<ConfigRecord>& records) {
  Json list = Json::array();
  for (const ConfigRecord& record : records)
    list.push_back(Json{{"name", Text(record.name())},
                        {"size", record.size},
                        {"colourFileTime", Time(record.mtime)}});
  return Json{{"folder", Text(folder)}, {"configurations", std::move(list)}};
}

Json Error(std::string_view text) { return Json{{"error", Text(text)}}; }

}  // namespace kvt::client::json
