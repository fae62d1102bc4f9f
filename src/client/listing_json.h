// The listings as JSON documents, one implementation for `kvtctl --json` and kvtweb's /api
// endpoints, so that a script sees the same document from either. Built with nlohmann-json
// (Debian's nlohmann-json3-dev, header-only): quoting, escaping and numbers are the library's.
//
// Field names are stable English words; numbers are JSON numbers; times are ISO 8601 in the
// local time zone with its offset ("2026-11-24T22:15:03+01:00"). A field the wire does not
// carry (a spooler job's submission time, a spool file's size) is there as null, so that
// scripts can rely on the names. Of the record texts (the platform's code page on Windows),
// well-formed UTF-8 (what CUPS gives) passes as it is, other bytes are read as Latin-1; control
// bytes are escaped.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/client.h"
#include "client/print_client.h"

namespace kvt::client::json {

// Keeps the fields in the order they are set: the documents read as they are described.
using Json = nlohmann::ordered_json;

// A record text as a JSON string: well-formed UTF-8 as it is, other bytes read as Latin-1.
Json Text(std::string_view bytes);

// The document as one line of text.
std::string Dump(const Json& document);

// ISO 8601 local time with its offset; null for 0 (no time).
Json Time(std::int64_t secondsSince1970);

// The time of day, as a number of seconds since 1970 UTC, that a 15-digit job name of
// CMD_NEW_JOB_NAME carries in its first 10 digits; 0 for any other name.
std::int64_t TimeOfJobName(std::string_view name);

// The opening exchange, timed: connects and does it. Empty on success, else the error;
// *milliseconds gets the round-trip time of the connection and the exchange.
std::string OpenTimed(Connection& connection, const std::string& host, std::uint16_t port,
                      ByteOrder order, double* milliseconds);

// {"server":"HOST:PORT","reachable":true,"roundTripMs":0.41,"byteOrder":"little-endian",
//  "time":...}; with `error` non-empty: reachable false and "error" instead of the figures.
Json Ping(const std::string& server, ByteOrder order, double milliseconds,
          const std::string& error);

// The records of CMD_LIST_JOBS, kJobRecordSize bytes each, parsed.
std::vector<JobEntry> ParseJobRecords(std::string_view records);

// {"jobs":[...],"spoolFiles":[...]} from a listing's records.
Json Jobs(const std::vector<JobEntry>& entries);

// {"folder":...,"configurations":[{"name":...,"size":N,"colourFileTime":...}]}
Json Configs(std::string_view folder, const std::vector<ConfigRecord>& records);

// {"error":...}
Json Error(std::string_view text);

}  // namespace kvt::client::json
