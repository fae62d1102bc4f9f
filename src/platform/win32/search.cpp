#include "platform/search.h"

#include <windows.h>

#include <cstring>
#include <new>

namespace kvt::search {

namespace {

struct Search {
  HANDLE find;
};

void Fill(const WIN32_FIND_DATAA& data, Match* match) {
  // cFileName holds MAX_PATH (260) characters with its terminator, as the match does.
  static_assert(sizeof data.cFileName == sizeof match->name);
  std::memcpy(match->name, data.cFileName, sizeof match->name);
  match->name[sizeof match->name - 1] = '\0';
  match->directory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

}  // namespace

Handle Start(const char* path, Match* first) {
  WIN32_FIND_DATAA data;
  HANDLE find = ::FindFirstFileA(path, &data);
  if (find == INVALID_HANDLE_VALUE) return nullptr;
  auto* search = new (std::nothrow) Search{find};
  if (search == nullptr) {
    ::FindClose(find);
    return nullptr;
  }
  Fill(data, first);
  return search;
}

bool Next(Handle handle, Match* match) {
  WIN32_FIND_DATAA data;
  if (!::FindNextFileA(static_cast<Search*>(handle)->find, &data)) return false;
  Fill(data, match);
  return true;
}

void End(Handle handle) {
  auto* search = static_cast<Search*>(handle);
  if (search == nullptr) return;
  ::FindClose(search->find);
  delete search;
}

}  // namespace kvt::search
