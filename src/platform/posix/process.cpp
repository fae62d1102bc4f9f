#include "platform/process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>

namespace kvt::process {

namespace {

// The folder of the process's memory cgroup and the mount it lies in: the hierarchy with the
// memory controller under cgroup v1, else the unified one (v2). The group's path from
// /proc/self/cgroup is relative to the hierarchy's root, of which the mount shows `root`.
struct Group {
  std::string folder, mount, limitFile;
};

// A small file of /proc or /sys whole; empty when it can't be read.
std::string ReadSmall(const std::string& path) {
  std::string text;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, std::size_t(n));
  ::close(fd);
  return text;
}

// `groups` is /proc/self/cgroup: "id:controllers:path" lines.
bool FindMemoryGroup(const std::string& groups, Group& group) {
  std::istringstream lines(groups);
  std::string line, path, version;
  while (std::getline(lines, line)) {
    const std::size_t first = line.find(':'), second = line.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    const std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
    if (controllers.find(",memory,") != std::string::npos) {
      path = line.substr(second + 1), version = "cgroup";
      break;
    }
    if (controllers == ",," && line.compare(0, first, "0") == 0)
      path = line.substr(second + 1), version = "cgroup2";
  }
  if (version.empty()) return false;
  group.limitFile = version == "cgroup" ? "/memory.limit_in_bytes" : "/memory.max";
  // mountinfo: id parent dev root mountpoint options [tags] - fstype source superoptions
  std::ifstream mounts("/proc/self/mountinfo");
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string id, parent, dev, root, point, word, type, source, options;
    fields >> id >> parent >> dev >> root >> point;
    while (fields >> word && word != "-") {
    }
    fields >> type >> source >> options;
    if (type != version || (version == "cgroup" && ("," + options + ",").find(",memory,") ==
                                                       std::string::npos))
      continue;
    if (root != "/" && path.compare(0, root.size(), root) != 0) continue;
    group.mount = point;
    group.folder = point + (root == "/" ? path : path.substr(root.size()));
    return true;
  }
  return false;
}

// The process's group, found again only when /proc/self/cgroup has changed (the process was
// moved): the body budget asks before every large request.
std::optional<Group> MemoryGroup() {
  static std::mutex lock;
  static std::string groups;
  static std::optional<Group> found;
  std::string now = ReadSmall("/proc/self/cgroup");
  std::lock_guard guard(lock);
  if (now != groups) {
    Group group;
    found = FindMemoryGroup(now, group) ? std::optional(group) : std::nullopt;
    groups = std::move(now);
  }
  return found;
}

}  // namespace

const char* ArgumentText(int argc, char** argv) {
  // Quoting only what holds a blank (or is empty) gives back the same words when the text
  // is split; a double quote inside an argument cannot be carried and stays as it is.
  static std::string text;
  text.clear();
  for (int i = 1; i < argc; ++i) {
    if (i > 1) text += ' ';
    const char* word = argv[i];
    bool quote = word[0] == '\0' || std::strchr(word, ' ') != nullptr;
    if (quote) text += '"';
    text += word;
    if (quote) text += '"';
  }
  return text.c_str();
}

void SetBinaryMode() {}

void KeepRunningAtFileSizeLimit() { std::signal(SIGXFSZ, SIG_IGN); }

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::uint64_t UsableMemory() {
  const long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
  std::uint64_t usable = pages > 0 && pageSize > 0 ? std::uint64_t(pages) * std::uint64_t(pageSize) : 0;
  // A parent group's limit binds its children too: the tightest on the way up counts. "max"
  // (v2) and v1's huge "unlimited" number read as no tighter than physical memory.
  const std::optional<Group> group = MemoryGroup();
  if (!group) return usable;
  for (std::string folder = group->folder;; folder.erase(folder.rfind('/'))) {
    const std::string value = ReadSmall(folder + group->limitFile);
    if (!value.empty() && !value.starts_with("max")) {
      const std::uint64_t limit = std::strtoull(value.c_str(), nullptr, 10);
      if (limit > 0) usable = usable == 0 ? limit : std::min(usable, limit);
    }
    if (folder.size() <= group->mount.size() || folder.rfind('/') == std::string::npos) break;
  }
  return usable;
}

bool LocalTimeNow(std::tm* out) {
  std::time_t now = std::time(nullptr);
  return localtime_r(&now, out) != nullptr;
}

}  // namespace kvt::process
