// What every test of this tree shares: request bytes, files, waiting for an event, and the
// records that the stand-in programs leave.
#pragma once
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kvt::test {

namespace fs = std::filesystem;
using Milliseconds = std::chrono::milliseconds;

// Polls `done` until it holds or `limit` has passed; the last answer. The limit only turns
// a hang into a failure: it is never what a test waits for.
bool WaitUntil(const std::function<bool()>& done, Milliseconds limit = std::chrono::seconds(30));

// Request bytes: a command frame, a 32-bit value little-endian, a text NUL-padded (or cut)
// to a field's width, and `count` bytes that seldom repeat, different for each seed.
std::string Frame(int code);
std::string Le32(std::uint32_t value);
std::string Field(std::string text, std::size_t width);
std::string Pattern(std::size_t count, int seed = 0);

std::string ReadFile(const fs::path& path);
// Writes `content` (creating the folder), and sets the modification time (seconds since
// 1970 UTC) when one is given.
void WriteFile(const fs::path& file, std::string_view content,
               std::optional<std::uint32_t> mtime = std::nullopt);
// Copies a program to `to` (creating the folder). A copy there that an earlier test started
// may still run, and writing over a running program fails: it is removed first.
void InstallProgram(const fs::path& from, const fs::path& to);
// The names in a folder (none when it is missing).
std::set<std::string> Listing(const fs::path& folder);

// A fresh folder below the temporary folder, removed with the object.
struct ScratchFolder {
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  fs::path path;
};

// The folder in which the stand-ins record what they were asked (KVT_STANDIN_DIR): each
// start of jobfeeder, and the colour tool's last call, whose exit code it takes from here.
class StandinRecords {
 public:
  explicit StandinRecords(fs::path folder) : folder_(std::move(folder)) {}
  const fs::path& folder() const { return folder_; }

  // jobfeeder's starts so far: the arguments of each, each after a tab ("" for none).
  std::vector<std::string> Starts() const;
  // Waits until at least `count` starts are recorded; the starts then.
  std::vector<std::string> WaitForStarts(std::size_t count) const;
  // A jobfeeder started without "-l" stays while the folder holds "jobfeeder-hold"; by
  // default it ends. How many that stayed have ended (each records its end).
  std::size_t Ends() const;

  // The colour tool answers `code` from now on.
  void SetToolExit(int code) const;
  // The arguments of the tool's last call, and the data file's content as the tool saw it;
  // both are removed, so that the next call is seen afresh. None when the tool did not run.
  struct ToolCall {
    std::vector<std::string> args;
    std::string data;
  };
  std::optional<ToolCall> TakeToolCall() const;

  // Forgets every record.
  void Clear() const;

 private:
  fs::path folder_;
};

}  // namespace kvt::test
