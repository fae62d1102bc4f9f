// The POSIX folder search's pattern matching, in a header of its own so that the in-memory
// platform of the tests matches names exactly as the real one does.
#pragma once

namespace kvt::search {

inline char FoldCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// "*" and "?" as the Windows search takes them in the patterns this server uses; letters
// match either case, as file names do on Windows. Iterative with one back-track point for
// the last "*": linear in practice and never recursive.
inline bool Matches(const char* pattern, const char* name) {
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*name != '\0') {
    if (*pattern == '*') {
      star = pattern++;
      resume = name;
    } else if (*pattern != '\0' && (*pattern == '?' || FoldCase(*pattern) == FoldCase(*name))) {
      ++pattern;
      ++name;
    } else if (star != nullptr) {
      pattern = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == '*') ++pattern;
  return *pattern == '\0';
}

}  // namespace kvt::search
