#include "platform/search.h"

#include <windows.h>

#include <cstring>
#include <new>
#include <string>

namespace kvt::search {

namespace {

struct Search {
  HANDLE find;
  std::string folder;  // the search path up to its last separator, which it keeps
};

// The status comes from the file itself, as files::GetStatus reads it: a folder's entry may
// carry an old size while the file is being written.
void Fill(const Search& search, const WIN32_FIND_DATAA& data, Match* match) {
  // cFileName holds MAX_PATH (260) characters with its terminator, as the match does.
  static_assert(sizeof data.cFileName == sizeof match->name);
  std::memcpy(match->name, data.cFileName, sizeof match->name);
  match->name[sizeof match->name - 1] = '\0';
  match->directory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  match->plain = !match->directory &&
                 files::GetStatus((search.folder + match->name).c_str(), &match->status);
}

}  // namespace

Handle Start(const char* path, Match* first) {
  WIN32_FIND_DATAA data;
  HANDLE find = ::FindFirstFileA(path, &data);
  if (find == INVALID_HANDLE_VALUE) return nullptr;
  const char* end = std::strrchr(path, '/');
  if (const char* backslash = std::strrchr(path, '\\'); backslash > end) end = backslash;
  auto* search = new (std::nothrow) Search{find, std::string(path, end ? end + 1 - path : 0)};
  if (search == nullptr) {
    ::FindClose(find);
    return nullptr;
  }
  Fill(*search, data, first);
  return search;
}

bool Next(Handle handle, Match* match) {
  WIN32_FIND_DATAA data;
  auto* search = static_cast<Search*>(handle);
  if (!::FindNextFileA(search->find, &data)) return false;
  Fill(*search, data, match);
  return true;
}

void End(Handle handle) {
  auto* search = static_cast<Search*>(handle);
  if (search == nullptr) return;
  ::FindClose(search->find);
  delete search;
}

}  // namespace kvt::search
