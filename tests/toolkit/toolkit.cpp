#include "toolkit.h"

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace kvt::test {

bool WaitUntil(const std::function<bool()>& done, Milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::string Frame(int code) { return std::string("KVT") + char(code); }

std::string Le32(std::uint32_t value) {
  std::string bytes(4, '\0');
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<char>(value >> 8 * i);
  return bytes;
}

std::string Field(std::string text, std::size_t width) {
  text.resize(width, '\0');
  return text;
}

std::string Pattern(std::size_t count, int seed) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251 + seed);
  return bytes;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const fs::path& file, std::string_view content, std::optional<std::uint32_t> mtime) {
  using namespace std::chrono;
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << content;
  if (mtime) fs::last_write_time(file, file_clock::from_sys(sys_seconds{seconds{*mtime}}));
}

void InstallProgram(const fs::path& from, const fs::path& to) {
  fs::create_directories(to.parent_path());
  fs::remove(to);
  fs::copy_file(from, to);
}

std::set<std::string> Listing(const fs::path& folder) {
  std::set<std::string> names;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(folder, missing)) names.insert(entry.path().filename().string());
  return names;
}

ScratchFolder::ScratchFolder() {
  // Random: the builds' test runs share the temporary folder and may overlap.
  std::random_device random;
  do path = fs::temp_directory_path() / ("kvt-test-" + std::to_string(random()));
  while (!fs::create_directory(path));
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  if (!path.empty()) fs::remove_all(path, ignored);
}

namespace {

// The lines of the record files "<kind>-<time>-<process>" in the order of their names (of
// their times), each without what comes before its first tab (the time).
std::vector<std::string> Lines(const fs::path& folder, const std::string& kind) {
  std::vector<std::string> lines;
  for (const std::string& name : Listing(folder)) {
    if (!name.starts_with(kind + "-")) continue;
    std::istringstream text(ReadFile(folder / name));
    for (std::string line; std::getline(text, line);)
      lines.push_back(line.substr(std::min(line.find('\t'), line.size())));
  }
  return lines;
}

}  // namespace

std::vector<std::string> StandinRecords::Starts() const { return Lines(folder_, "jobfeeder-start"); }

std::vector<std::string> StandinRecords::WaitForStarts(std::size_t count) const {
  std::vector<std::string> starts;
  WaitUntil([&] { return (starts = Starts()).size() >= count; });
  return starts;
}

std::size_t StandinRecords::Ends() const { return Lines(folder_, "jobfeeder-end").size(); }

void StandinRecords::SetToolExit(int code) const {
  WriteFile(folder_ / "exit-code", std::to_string(code));
}

std::optional<StandinRecords::ToolCall> StandinRecords::TakeToolCall() const {
  if (!fs::exists(folder_ / "args")) return std::nullopt;
  ToolCall call;
  std::istringstream args(ReadFile(folder_ / "args"));
  for (std::string line; std::getline(args, line);) call.args.push_back(line);
  call.data = ReadFile(folder_ / "data");
  fs::remove(folder_ / "args");
  fs::remove(folder_ / "data");
  return call;
}

void StandinRecords::Clear() const {
  for (const std::string& name : Listing(folder_))
    if (name.starts_with("jobfeeder-") || name == "args" || name == "data" || name == "exit-code")
      fs::remove(folder_ / name);
}

}  // namespace kvt::test
