#include "render.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <tuple>

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

namespace kvtweb {

namespace json = kvt::client::json;
using kvt::client::JobEntry;

namespace {

// A job's state as one of a few fixed words, fit for a label: the listing's own text may
// be the spooler's free-form message.
std::string StateName(const JobEntry& job) {
  switch (job.statusCode) {
    case 1: return "message";  // the spooler's own status text
    case 3: return job.statusText == "paper out" ? "paper_out" : "error";
    case 9: return "held";
    case 10: return "printing";
    case 11: return "stopped";
    case 12: return "cancelled";
    case 14: return "completed";
    case 15: return "unknown";
    default: return "other";
  }
}

bool InError(const std::string& state) { return state == "error" || state == "paper_out"; }

std::string Utf8(const std::string& bytes) { return json::Text(bytes).get<std::string>(); }

// What one listing comes to: jobs by printer and state, spool files by printer, the oldest
// spool file's time (0: none with a known time).
struct Summary {
  std::map<std::pair<std::string, std::string>, int> jobs;  // (printer, state)
  std::map<std::string, int> spool;                          // printer
  std::map<std::string, int> byState;
  std::int64_t oldestSpool = 0;
  int jobCount = 0, spoolCount = 0, inError = 0, printersWithJobs = 0;
};

Summary Summarize(const ServerView& view) {
  Summary s;
  if (!view.result->listing) return s;
  std::map<std::string, bool> printers;
  for (const JobEntry& job : *view.result->listing) {
    const std::string printer = Utf8(job.printerName);
    if (job.spoolFile()) {
      ++s.spool[printer];
      ++s.spoolCount;
      const std::int64_t time = json::TimeOfJobName(job.jobName);
      if (time != 0 && (s.oldestSpool == 0 || time < s.oldestSpool)) s.oldestSpool = time;
      continue;
    }
    const std::string state = StateName(job);
    ++s.jobs[{printer, state}];
    ++s.byState[state];
    ++s.jobCount;
    s.inError += InError(state);
    printers[printer] = true;
  }
  s.printersWithJobs = static_cast<int>(printers.size());
  return s;
}

Json OrNull(bool present, Json value) { return present ? std::move(value) : Json(nullptr); }

// Why the server counts as unreachable; empty when it does not.
std::string Problem(const ServerView& view, int timeoutMs) {
  if (view.overdue) return "no answer within " + std::to_string(timeoutMs / 1000) + " s";
  if (!view.result->polled) return "not polled yet";
  return view.result->reachable ? std::string() : view.result->error;
}

}  // namespace

Json FleetDocument(const std::vector<ServerView>& views, int intervalMs, int timeoutMs) {
  const std::int64_t now = std::time(nullptr);
  struct Row {
    int rank;
    std::int64_t oldest;
    std::string name;
    Json json;
  };
  std::vector<Row> rows;
  for (const ServerView& view : views) {
    const PollResult& r = *view.result;
    const Summary s = Summarize(view);
    const bool reachable = view.reachable();
    std::vector<std::string> problems;
    const std::string problem = Problem(view, timeoutMs);
    if (!reachable) problems.push_back(r.polled || view.overdue ? "unreachable" : problem);
    if (s.inError) problems.push_back("jobs in error");
    Json states = Json::object();
    for (const auto& [state, count] : s.byState) states[state] = count;
    // The servers file's bytes need not be UTF-8, which the library insists on.
    Json row{{"server", json::Text(view.entry.address())},
             {"label", OrNull(!view.entry.label.empty(), json::Text(view.entry.label))},
             {"reachable", reachable},
             {"error", OrNull(!reachable, json::Text(problem))},
             {"roundTripMs", OrNull(r.lastGoodTime != 0, std::round(r.roundTripMs * 1000) / 1000)},
             {"lastGood", json::Time(r.lastGoodTime)},
             {"lastGoodAgeSeconds", OrNull(r.lastGoodTime != 0, now - r.lastGoodTime)},
             {"stale", !reachable && r.lastGoodTime != 0},
             {"printersWithJobs", s.printersWithJobs},
             {"jobs", s.jobCount},
             {"jobsByState", std::move(states)},
             {"spoolFiles", s.spoolCount},
             {"oldestSpoolFileAgeSeconds", OrNull(s.oldestSpool != 0, now - s.oldestSpool)},
             {"problems", problems}};
    const int rank = !reachable ? 0 : s.inError ? 1 : 2;
    rows.push_back({rank, s.oldestSpool == 0 ? now : s.oldestSpool,
                    view.entry.label + view.entry.address(), std::move(row)});
  }
  // Problems first: unreachable, then jobs in error, then the longest-waiting spool files.
  std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
    return std::tie(a.rank, a.oldest, a.name) < std::tie(b.rank, b.oldest, b.name);
  });
  Json servers = Json::array();
  for (Row& row : rows) servers.push_back(std::move(row.json));
  return Json{{"interval", intervalMs / 1000.0}, {"time", json::Time(now)},
              {"servers", std::move(servers)}};
}

Json PingDocument(const ServerView& view, int timeoutMs) {
  return json::Ping(view.entry.address(), kvt::client::ByteOrder::kLittle,
                    view.result->roundTripMs, Problem(view, timeoutMs));
}

Json JobsDocument(const ServerView& view) {
  static const std::vector<JobEntry> kNone;
  return json::Jobs(view.result->listing ? *view.result->listing : kNone);
}

Json OverviewDocument(const ServerView& view, int intervalMs, int timeoutMs) {
  return Json{{"server", PingDocument(view, timeoutMs)},
              {"label", OrNull(!view.entry.label.empty(), json::Text(view.entry.label))},
              {"listing", OrNull(view.result->listing != nullptr, JobsDocument(view))},
              {"stale", !view.reachable()},
              {"lastGood", json::Time(view.result->lastGoodTime)},
              {"interval", intervalMs / 1000.0}};
}

std::string Metrics(const std::vector<ServerView>& views, const std::string& version) {
  using prometheus::ClientMetric;
  using prometheus::MetricFamily;
  using prometheus::MetricType;
  auto family = [](const char* name, const char* help, MetricType type) {
    return MetricFamily{name, help, type, {}};
  };
  MetricFamily up = family("kvtnetd_up", "1 when the last poll of the server listed its jobs.",
                           MetricType::Gauge),
               rtt = family("kvtnetd_round_trip_seconds",
                            "Connection and opening exchange of the last good poll.",
                            MetricType::Gauge),
               jobs = family("kvtnetd_jobs", "Spooler jobs by printer and state.",
                             MetricType::Gauge),
               spool = family("kvtnetd_spool_files", "Waiting spool files by printer.",
                              MetricType::Gauge),
               oldest = family("kvtnetd_oldest_spool_file_age_seconds",
                               "Age of the oldest waiting spool file whose name gives its time.",
                               MetricType::Gauge),
               last = family("kvtnetd_last_success_timestamp_seconds",
                             "Time of the last good poll, seconds since 1970.",
                             MetricType::Gauge),
               polls = family("kvtweb_polls_total", "Polls of the server.", MetricType::Counter),
               failures = family("kvtweb_poll_failures_total",
                                 "Polls of the server that did not list its jobs.",
                                 MetricType::Counter),
               build = family("kvtweb_build_info", "kvtweb's version.", MetricType::Gauge);
  const std::int64_t now = std::time(nullptr);
  auto gauge = [](MetricFamily& f, std::vector<ClientMetric::Label> labels, double value) {
    ClientMetric m;
    m.label = std::move(labels);
    m.gauge.value = value;
    f.metric.push_back(std::move(m));
  };
  auto counter = [](MetricFamily& f, std::vector<ClientMetric::Label> labels, double value) {
    ClientMetric m;
    m.label = std::move(labels);
    m.counter.value = value;
    f.metric.push_back(std::move(m));
  };
  for (const ServerView& view : views) {
    const PollResult& r = *view.result;
    std::vector<ClientMetric::Label> server{{"server", Utf8(view.entry.address())}};
    if (!view.entry.label.empty()) server.push_back({"label", Utf8(view.entry.label)});
    auto with = [&server](std::vector<ClientMetric::Label> more) {
      more.insert(more.begin(), server.begin(), server.end());
      return more;
    };
    gauge(up, server, view.reachable() ? 1 : 0);
    counter(polls, server, static_cast<double>(r.polls));
    counter(failures, server, static_cast<double>(r.failures));
    if (r.lastGoodTime != 0) gauge(last, server, static_cast<double>(r.lastGoodTime));
    // A server that does not answer shows no figures of its own: its last ones are stale.
    if (!view.reachable()) continue;
    gauge(rtt, server, r.roundTripMs / 1000);
    const Summary s = Summarize(view);
    for (const auto& [key, count] : s.jobs)
      gauge(jobs, with({{"printer", key.first}, {"state", key.second}}), count);
    for (const auto& [printer, count] : s.spool)
      gauge(spool, with({{"printer", printer}}), count);
    if (s.oldestSpool != 0)
      gauge(oldest, server, static_cast<double>(std::max<std::int64_t>(0, now - s.oldestSpool)));
  }
  gauge(build, {{"version", version}}, 1);
  std::vector<MetricFamily> families;
  for (MetricFamily* f : {&up, &rtt, &jobs, &spool, &oldest, &last, &polls, &failures, &build})
    if (!f->metric.empty()) families.push_back(std::move(*f));
  return prometheus::TextSerializer().Serialize(families);
}

}  // namespace kvtweb
