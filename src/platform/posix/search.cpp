#include "platform/search.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <new>

#include "platform/posix/wildcard.h"

namespace kvt::search {

namespace {

struct Search {
  DIR* folder;
  char* path;           // a copy of the search path, cut at its last "/"
  const char* pattern;  // within `path`
};

// The entry's kind and status as stat gives them (a link counts as what it names).
void ReadStatus(DIR* folder, const char* name, Match* match) {
  struct stat status;
  const bool read = ::fstatat(::dirfd(folder), name, &status, 0) == 0;
  match->directory = read && S_ISDIR(status.st_mode);
  match->plain = read && S_ISREG(status.st_mode) && status.st_size >= 0 &&
                 status.st_size <= 0x7FFFFFFF;
  match->status = {static_cast<std::int32_t>(match->plain ? status.st_size : 0),
                   static_cast<std::uint32_t>(read ? status.st_mtime : 0)};
}

bool Advance(Search* search, Match* match) {
  while (const dirent* entry = ::readdir(search->folder)) {
    if (!Matches(search->pattern, entry->d_name)) continue;
    std::size_t length = std::strlen(entry->d_name);
    if (length >= sizeof match->name) continue;  // NAME_MAX is 255: does not happen
    std::memcpy(match->name, entry->d_name, length + 1);
    ReadStatus(search->folder, entry->d_name, match);
    return true;
  }
  return false;
}

}  // namespace

Handle Start(const char* path, Match* first) {
  std::size_t length = std::strlen(path);
  auto* search = new (std::nothrow) Search{nullptr, nullptr, ""};
  if (search == nullptr) return nullptr;
  search->path = new (std::nothrow) char[length + 1];
  if (search->path == nullptr) {
    delete search;
    return nullptr;
  }
  std::memcpy(search->path, path, length + 1);
  const char* folder = ".";
  if (char* slash = std::strrchr(search->path, '/')) {
    *slash = '\0';
    folder = slash == search->path ? "/" : search->path;
    search->pattern = slash + 1;
  } else {
    search->pattern = search->path;
  }
  // readdir on different streams is safe across threads; the stream is never shared.
  if (*search->pattern != '\0') search->folder = ::opendir(folder);
  if (search->folder == nullptr || !Advance(search, first)) {
    End(search);
    return nullptr;
  }
  return search;
}

bool Next(Handle handle, Match* match) { return Advance(static_cast<Search*>(handle), match); }

void End(Handle handle) {
  auto* search = static_cast<Search*>(handle);
  if (search == nullptr) return;
  if (search->folder != nullptr) ::closedir(search->folder);
  delete[] search->path;
  delete search;
}

}  // namespace kvt::search
