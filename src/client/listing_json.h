// The listings as JSON documents, one implementation for `kvtctl --json` and kvtweb's /api
// endpoints, so that a script sees the same document from either.
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

#include "client/client.h"

namespace kvt::client::json {

// A JSON string literal, quotes included.
std::string Quote(std::string_view text);

// ISO 8601 local time with its offset, quoted; null for 0 (no time).
std::string Time(std::int64_t secondsSince1970);

// The time of day, as a number of seconds since 1970 UTC, that a 15-digit job name of
// CMD_NEW_JOB_NAME carries in its first 10 digits; 0 for any other name.
std::int64_t TimeOfJobName(std::string_view name);

// The opening exchange, timed: connects and does it. Empty on success, else the error;
// *milliseconds gets the round-trip time of the connection and the exchange.
std::string OpenTimed(Connection& connection, const std::string& host, std::uint16_t port,
                      ByteOrder order, double* milliseconds);

// {"server":"HOST:PORT","reachable":true,"roundTripMs":0.41,"byteOrder":"little-endian",
//  "time":...}; with `error` non-empty: reachable false and "error" instead of the figures.
std::string Ping(const std::string& server, ByteOrder order, double milliseconds,
                 const std::string& error);

// {"jobs":[...],"spoolFiles":[...]} from the records of CMD_LIST_JOBS.
std::string Jobs(std::string_view records);

// {"folder":...,"configurations":[{"name":...,"size":N,"colourFileTime":...}]}
std::string Configs(std::string_view folder, const std::vector<ConfigRecord>& records);

// {"error":...}
std::string Error(std::string_view text);

}  // namespace kvt::client::json
