#include "measure.h"

#include <algorithm>
#include <cstdio>

namespace kvt::bench {

namespace {

// Three significant digits, the way the table shows every figure.
std::string Number(double value) {
  char text[32];
  if (value >= 1000)
    std::snprintf(text, sizeof text, "%.0f", value);
  else
    std::snprintf(text, sizeof text, "%.3g", value);
  return text;
}

std::string Cell(const Spread& s, const std::string& unit) {
  return Number(s.median) + " " + unit + " (" + Number(s.low) + "–" + Number(s.high) + ")";
}

}  // namespace

Spread Summarize(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  const double median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  return {median, values.front(), values.back()};
}

double Now() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

Row Compare(const std::string& figure, const std::string& unit, Goal goal, int repetitions,
            const std::function<double()>& kvt, const std::function<double()>& base, double scale) {
  std::vector<double> ours, theirs, ratios;
  for (int i = 0; i < repetitions; ++i) {
    double a, b;
    if (i % 2 == 0) {
      a = kvt();
      b = base();
    } else {
      b = base();
      a = kvt();
    }
    ours.push_back(a * scale);
    theirs.push_back(b * scale);
    ratios.push_back(b > 0 ? a / b : 0);
  }
  const Spread ratio = Summarize(ratios);
  Row row{figure,
          Cell(Summarize(ours), unit),
          Cell(Summarize(theirs), unit),
          Number(ratio.median) + " (" + Number(ratio.low) + "–" + Number(ratio.high) + ")",
          "",
          ""};
  if (goal.none) {
    row.goal = "—";
    row.verdict = "—";
  } else {
    row.goal = (goal.atLeast ? "≥ " : "≤ ") + Number(goal.bound);
    const bool met = goal.atLeast ? ratio.median >= goal.bound : ratio.median <= goal.bound;
    row.verdict = met ? "met" : "**missed**";
  }
  std::fprintf(stderr, "  %s: ratio %s\n", figure.c_str(), row.ratio.c_str());
  return row;
}

Row Plain(const std::string& figure, const std::string& result, const std::string& goal, bool met) {
  std::fprintf(stderr, "  %s: %s\n", figure.c_str(), result.c_str());
  return {figure, result, "", "", goal, goal == "—" ? "—" : met ? "met" : "**missed**"};
}

void PrintTable(const std::vector<Row>& rows, const std::vector<std::string>& notes) {
  std::printf(
      "| figure | KVTnetd: median (min–max) | baseline: median (min–max) | "
      "ratio: median (min–max) | goal | result |\n");
  std::printf("|---|---|---|---|---|---|\n");
  for (const Row& r : rows)
    std::printf("| %s | %s | %s | %s | %s | %s |\n", r.figure.c_str(), r.kvt.c_str(),
                r.baseline.c_str(), r.ratio.c_str(), r.goal.c_str(), r.verdict.c_str());
  if (!notes.empty()) std::printf("\n");
  for (const std::string& note : notes) std::printf("- %s\n", note.c_str());
}

}  // namespace kvt::bench
