// The wildcard folder search: the entries of one folder whose names match a pattern.
// Windows: FindFirstFileA / FindNextFileA / FindClose, with the system's own matching.
// POSIX: opendir / readdir; "*" matches any run of characters, "?" exactly one, and ASCII
// letters match either case; no other character is special.
#pragma once

#include "platform/files.h"

namespace kvt::search {

struct Match {
  char name[260];  // the entry's name, no folder part
  bool directory;  // the entry is a folder
  // A plain file whose status files::GetStatus would give (below 2 GiB, status readable):
  // then `status` holds it. Read with the search, where that costs least: POSIX asks
  // relative to the open folder, not by the whole path again.
  bool plain;
  files::Status status;
};

using Handle = void*;

// Starts a search on "<folder>/<pattern>" and reports the first match. Null when the
// folder is missing, nothing matches or the search cannot start; nothing to close then.
Handle Start(const char* path, Match* first);

// The next match; false when there is none left.
bool Next(Handle search, Match* match);

void End(Handle search);

}  // namespace kvt::search
