// What kvtweb answers, built from one snapshot of the fleet: the JSON documents of the pages
// and the API (nlohmann-json, through the client library's listing documents) and the
// metrics in Prometheus's text format (prometheus-cpp's core: its data model and serializer,
// without its HTTP part).
#pragma once
#include <string>
#include <vector>

#include "client/listing_json.h"
#include "fleet.h"

namespace kvtweb {

using Json = kvt::client::json::Json;

// The fleet page's document: one row per server, problems first.
Json FleetDocument(const std::vector<ServerView>& views, int intervalMs, int timeoutMs);

// One server's documents, as `kvtctl --json ping` and `jobs` print them: the last poll's.
Json PingDocument(const ServerView& view, int timeoutMs);
Json JobsDocument(const ServerView& view);  // the last good listing
// The overview page's: "server" (the ping document), "listing" (the last good listing, or
// null before there was one), "stale" (true when the listing is not the last poll's),
// "label" and "interval" (the poll interval in seconds).
Json OverviewDocument(const ServerView& view, int intervalMs, int timeoutMs);

// The scrape: text/plain; version=0.0.4.
std::string Metrics(const std::vector<ServerView>& views, const std::string& version);

}  // namespace kvtweb
