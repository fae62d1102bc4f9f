// Files, folders and the folder search of the in-memory machine: one map from normalised
// path to node. Paths are taken as a POSIX system takes them ("." and ".." steps resolved,
// repeated "/" folded, relative to "/"), so a client's odd path names what it would there.
#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <vector>

#include "memory.h"
#include "platform/files.h"
#include "platform/folders.h"
#include "platform/posix/wildcard.h"
#include "platform/search.h"

namespace kvt {
namespace {

struct Node {
  bool folder = false;
  std::string data;
  std::uint32_t mtime = 0;
  std::optional<std::int64_t> size;
  std::size_t readable = SIZE_MAX;  // bytes that can be read before reads fail
};

struct OpenFile {
  std::string data;
  std::size_t at = 0, readable = SIZE_MAX;
};

std::mutex lock;
std::map<std::string, Node> nodes;
bool changed = true;  // since nodes were last as kept
std::map<int, OpenFile> readers;
std::string programPath = memory::kProgramPath;
int nextReader = 3;
std::atomic<std::size_t> writable = SIZE_MAX;  // bytes the disk still takes

std::string Normal(const std::string& path) {
  constexpr auto kNone = std::string::npos;  // the common case, quickly: already normal
  if (path == "/" || (path.starts_with('/') && !path.ends_with('/') && !path.ends_with("/.") &&
                      !path.ends_with("/..") && path.find("//") == kNone &&
                      path.find("/./") == kNone && path.find("/../") == kNone))
    return path;
  std::string normal = std::filesystem::path("/" + path).lexically_normal().generic_string();
  if (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

std::string Parent(const std::string& normal) {
  const std::size_t slash = normal.rfind('/');
  return slash == 0 ? "/" : normal.substr(0, slash);
}

bool IsFolder(const std::string& normal) {
  auto node = nodes.find(normal);
  return node != nodes.end() && node->second.folder;
}

// The plain file at `path`, or none.
Node* FileAt(const char* path) {
  auto node = nodes.find(Normal(path));
  return node == nodes.end() || node->second.folder ? nullptr : &node->second;
}

void MakeFolders(const std::string& normal) {
  if (normal != "/") MakeFolders(Parent(normal));
  nodes[normal].folder = true;
  changed = true;
}

// What Reset brings back: the standard folders, those the program made (they stay, as on a
// disk) and, once KeepFiles was called, every file and folder as it was then.
std::map<std::string, Node> kept = [] {
  using namespace memory;
  for (const char* folder : {kProgramFolder, kCommonData, kProgramFiles, "/tmp"})
    MakeFolders(folder);
  for (const char* folder : {"/Documents", "/Desktop"}) MakeFolders(kHome + std::string(folder));
  return nodes;
}();

// Writes as much as the disk takes; the number written.
std::size_t Store(Node& node, const void* data, std::size_t size) {
  changed = true;
  const std::size_t taken = std::min(size, writable.load());
  if (writable != SIZE_MAX) writable -= taken;
  node = Node{};
  node.data.assign(static_cast<const char*>(data), taken);
  return taken;
}

bool Fits(char* out, std::size_t size, const std::string& text) {
  const int n = std::snprintf(out, size, "%s", text.c_str());
  if (n >= 0 && static_cast<std::size_t>(n) < size) return true;
  if (size > 0) out[0] = '\0';
  return false;
}

}  // namespace

namespace memory {

void internal::ResetFiles() {
  std::lock_guard guard(lock);
  readers.clear();
  writable = SIZE_MAX;
  programPath = kProgramPath;
  if (changed) nodes = kept;
  changed = false;
}

void SetProgramPath(const std::string& path) {
  std::lock_guard guard(lock);
  programPath = path;
}

void KeepFiles() {
  std::lock_guard guard(lock);
  kept = nodes;
  changed = false;
}

bool internal::IsFile(const char* path) {
  std::lock_guard guard(lock);
  return FileAt(path) != nullptr;
}

void PutFile(const std::string& path, std::string_view content, std::uint32_t mtime,
             std::optional<std::int64_t> size) {
  std::lock_guard guard(lock);
  const std::string normal = Normal(path);
  MakeFolders(Parent(normal));
  nodes[normal] = Node{false, std::string(content), mtime, size};
  changed = true;
}

void PutFolder(const std::string& path) {
  std::lock_guard guard(lock);
  MakeFolders(Normal(path));
}

std::optional<std::string> FileContent(const std::string& path) {
  std::lock_guard guard(lock);
  const Node* file = FileAt(path.c_str());
  return file ? std::optional(file->data) : std::nullopt;
}

std::vector<std::string> Listing(const std::string& folder) {
  std::lock_guard guard(lock);
  const std::string normal = Normal(folder), prefix = normal == "/" ? "/" : normal + "/";
  std::vector<std::string> names;
  for (auto it = nodes.upper_bound(prefix); it != nodes.end() && it->first.starts_with(prefix); ++it)
    if (it->first.find('/', prefix.size()) == std::string::npos)
      names.push_back(it->first.substr(prefix.size()));
  return names;
}

int OpenReaders() {
  std::lock_guard guard(lock);
  return static_cast<int>(readers.size());
}

void LimitWrites(std::size_t bytes) { writable = bytes; }

void BreakReads(const std::string& path, std::size_t bytes) {
  std::lock_guard guard(lock);
  nodes[Normal(path)].readable = bytes;
  changed = true;
}

}  // namespace memory

namespace files {

bool GetStatus(const char* path, Status* out) {
  std::lock_guard guard(lock);
  const Node* file = FileAt(path);
  const std::int64_t size = file ? file->size.value_or(std::int64_t(file->data.size())) : -1;
  if (size < 0 || size > 0x7FFFFFFF) return false;
  *out = {static_cast<std::int32_t>(size), file->mtime};
  return true;
}

Created CreateNew(const char* path, const void* data, std::size_t size) {
  std::lock_guard guard(lock);
  const std::string normal = Normal(path);
  if (nodes.count(normal) != 0) return Created::kExists;
  if (!IsFolder(Parent(normal))) return Created::kFailed;
  Store(nodes[normal], data, size);
  return Created::kCreated;
}

long long Replace(const char* path, const void* data, std::size_t size) {
  std::lock_guard guard(lock);
  const std::string normal = Normal(path);
  if (IsFolder(normal) || !IsFolder(Parent(normal))) return -1;
  return static_cast<long long>(Store(nodes[normal], data, size));
}

bool Remove(const char* path) {
  std::lock_guard guard(lock);
  if (FileAt(path) == nullptr) return false;
  nodes.erase(Normal(path));
  return changed = true;
}

Reader OpenForReading(const char* path) {
  std::lock_guard guard(lock);
  const Node* file = FileAt(path);
  if (file == nullptr) return kNoReader;
  readers[nextReader] = {file->data, 0, file->readable};
  return nextReader++;
}

std::size_t Read(Reader file, void* buffer, std::size_t count) {
  std::lock_guard guard(lock);
  OpenFile& r = readers.at(file);
  std::size_t end = std::min(r.data.size(), r.readable);
  std::size_t got = std::min(count, end - std::min(end, r.at));
  std::memcpy(buffer, r.data.data() + r.at, got);
  r.at += got;
  if (got < count && r.at >= r.readable) errno = EIO;
  return got;
}

void Close(Reader file) {
  std::lock_guard guard(lock);
  readers.erase(file);
}

}  // namespace files

namespace folders {

bool StandardFolder(int selector, char* out, std::size_t size) {
  using namespace memory;
  static const std::string home = kHome;
  static const std::map<int, std::string> known = {
      {0, kProgramFolder}, {7, kProgramFolder}, {8, kProgramFolder}, {1, home},
      {3, kCommonData},    {4, home + "/Documents"}, {5, home + "/Desktop"}, {6, kProgramFiles}};
  const auto folder = known.find(selector);
  const bool knownSelector = folder != known.end();
  return Fits(out, size, knownSelector ? folder->second : "") && knownSelector;
}

bool ProgramPath(char* out, std::size_t size) {
  std::lock_guard guard(lock);
  return Fits(out, size, programPath);
}
bool TempPath(char* out, std::size_t size) { return Fits(out, size, memory::kTempPath); }

bool MakeFolder(const char* path) {
  std::lock_guard guard(lock);
  const std::string normal = Normal(path);
  if (nodes.count(normal) != 0) return true;  // as mkdir's EEXIST
  if (!IsFolder(Parent(normal))) return false;
  nodes[normal].folder = true;
  kept[normal].folder = true;  // the same in both: nothing to bring back
  return true;
}

}  // namespace folders

namespace search {

// A search's handle: the matches not handed out yet.
using Left = std::deque<Match>;

Handle Start(const char* path, Match* first) {
  const std::string text = path;
  const std::size_t slash = text.rfind('/');  // none: npos + 1 is 0, the whole text
  const std::string normal = Normal(slash == std::string::npos ? "/" : text.substr(0, slash));
  const std::string pattern = text.substr(slash + 1);
  Left matches;
  for (const std::string& name : memory::Listing(normal)) {
    if (name.size() >= sizeof(Match::name) || !Matches(pattern.c_str(), name.c_str())) continue;
    Match match{};
    std::memcpy(match.name, name.c_str(), name.size() + 1);
    const std::string path = normal == "/" ? "/" + name : normal + "/" + name;
    match.plain = files::GetStatus(path.c_str(), &match.status);
    std::lock_guard guard(lock);
    match.directory = IsFolder(path);
    matches.push_back(match);
  }
  return Next(&matches, first) ? new Left(std::move(matches)) : nullptr;
}

bool Next(Handle handle, Match* match) {
  auto* left = static_cast<Left*>(handle);
  if (left->empty()) return false;
  *match = left->front();
  left->pop_front();
  return true;
}

void End(Handle handle) { delete static_cast<Left*>(handle); }

}  // namespace search

}  // namespace kvt
