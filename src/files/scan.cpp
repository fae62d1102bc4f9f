#include "files/scan.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/files.h"
#include "platform/search.h"

namespace kvt {

namespace {

constexpr std::size_t kGrowth = 100;  // entries per allocation step

unsigned char Fold(unsigned char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; }

// Folding to lower case, not upper, whatever the locale: "[" (0x5B) sorts before "A".
bool NameBefore(const FolderEntry& a, const FolderEntry& b) {
  for (std::size_t i = 0; i < sizeof a.name; ++i) {
    unsigned char x = Fold(static_cast<unsigned char>(a.name[i]));
    unsigned char y = Fold(static_cast<unsigned char>(b.name[i]));
    if (x != y) return x < y;
    if (x == 0) return false;
  }
  return false;
}

bool TimeBefore(const FolderEntry& a, const FolderEntry& b) { return a.mtime < b.mtime; }

bool FormatPath(char (&path)[kScanPath], const char* folder, const char* name) {
  int n = std::snprintf(path, sizeof path, "%s/%s", folder, name);
  return n >= 0 && static_cast<std::size_t>(n) < sizeof path;
}

// Splits the working copy in place; false when it holds more patterns than allowed.
bool SplitPatterns(char* text, const char* (&pieces)[kScanPatterns], int& count) {
  count = 0;
  pieces[count++] = text;
  for (char* p = text; *p != '\0'; ++p) {
    if (*p != '|' && *p != ',') continue;
    if (count == kScanPatterns) return false;
    *p = '\0';
    pieces[count++] = p + 1;
  }
  return true;
}

// The list and its room, grown in steps with the entries kept in place.
struct List {
  FolderEntry* entries = nullptr;
  std::size_t count = 0;
  std::size_t room = 0;

  bool Grow() {
    std::size_t wanted = room + kGrowth;
    auto* grown =
        static_cast<FolderEntry*>(std::realloc(entries, wanted * sizeof(FolderEntry)));
    if (grown == nullptr) return false;  // the old block is still ours
    std::memset(grown + room, 0, kGrowth * sizeof(FolderEntry));
    entries = grown;
    room = wanted;
    return true;
  }
};

// Adds the files one pattern matches; false when the list could not grow.
bool AddMatches(List& list, const char* folder, const char* pattern) {
  char path[kScanPath];
  if (*pattern == '\0' || !FormatPath(path, folder, pattern)) return true;
  search::Match match;
  search::Handle search = search::Start(path, &match);
  if (search == nullptr) return true;
  bool grown = true;
  const std::size_t folderLength = std::strlen(folder);
  do {
    if (match.directory || match.name[0] == '.') continue;
    // The search has read the file's status; a file whose path "<folder>/<name>" would not
    // fit is still left out.
    if (folderLength + 1 + std::strlen(match.name) >= kScanPath || !match.plain) continue;
    const files::Status& status = match.status;
    FolderEntry& entry = list.entries[list.count++];
    std::memset(entry.name, 0, sizeof entry.name);
    const void* end = std::memchr(match.name, '\0', sizeof entry.name - 1);
    std::size_t length = end ? static_cast<const char*>(end) - match.name : sizeof entry.name - 1;
    std::memcpy(entry.name, match.name, length);
    entry.size = status.size;
    entry.mtime = status.mtime;
    if (list.count == list.room) grown = list.Grow();
  } while (grown && search::Next(search, &match));
  search::End(search);
  return grown;
}

}  // namespace

FolderEntry* ScanFolder(const char* folder, const char* patterns, int* count_out,
                        ScanSortKey sortKey) {
  *count_out = 0;
  if (std::strlen(patterns) > kScanPatternText) return nullptr;
  List list;
  if (!list.Grow()) return nullptr;
  char text[kScanPatternText + 1];
  std::strcpy(text, patterns);
  const char* pieces[kScanPatterns];
  int pieceCount = 0;
  bool complete = SplitPatterns(text, pieces, pieceCount);
  for (int i = 0; complete && i < pieceCount; ++i) {
    std::size_t first = list.count;
    complete = AddMatches(list, folder, pieces[i]);
    std::sort(list.entries + first, list.entries + list.count,
              sortKey == SCAN_SORT_TIME ? TimeBefore : NameBefore);
  }
  // The count goes out as a signed 32-bit number.
  if (!complete || list.count == 0 || list.count > 0x7FFFFFFF) {
    std::free(list.entries);
    return nullptr;
  }
  *count_out = static_cast<int>(list.count);
  return list.entries;
}

void FreeFolderList(FolderEntry* list) { std::free(list); }

}  // namespace kvt
