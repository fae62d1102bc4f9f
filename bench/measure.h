// Repetition, median and spread, and the one table the benchmark prints.
#pragma once
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace kvt::bench {

// The median of some repetitions and their range.
struct Spread {
  double median = 0, low = 0, high = 0;
};
Spread Summarize(std::vector<double> values);

// Seconds since some fixed point; for differences only.
double Now();

// A ratio goal: KVTnetd / baseline at least (higher is better) or at most (lower is better).
struct Goal {
  double bound = 0;
  bool atLeast = true;
  bool none = false;  // shown for reference only
};
inline constexpr Goal kNoGoal{0, true, true};

// One line of the table, already formatted.
struct Row {
  std::string figure, kvt, baseline, ratio, goal, verdict;
};

// Measures `kvt` and `base` back to back `repetitions` times, alternating which goes first
// so that a drift of the machine's load touches both alike, and makes the row: the median
// ratio of the pairs, the absolute medians with their ranges in `unit`. `scale` converts a
// measured value to that unit.
Row Compare(const std::string& figure, const std::string& unit, Goal goal, int repetitions,
            const std::function<double()>& kvt, const std::function<double()>& base,
            double scale = 1);

// A row of a figure with no baseline: the result and whether it meets its goal ("—": none).
Row Plain(const std::string& figure, const std::string& result, const std::string& goal, bool met);

// The table in Markdown, with the notes below it.
void PrintTable(const std::vector<Row>& rows, const std::vector<std::string>& notes);

}  // namespace kvt::bench
