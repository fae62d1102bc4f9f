#include "support/folders.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/files.h"
#include "platform/folders.h"

namespace kvt {

namespace {

constexpr int kSelectors = 9;

// A slot is written once, under the mutex, and then only read: `filled` is raised
// after the text is complete, so a reader that sees it set sees the whole text.
char folderTable[kSelectors][kFolderSize];
std::atomic<bool> filled[kSelectors];
std::mutex fillMutex;

bool PrivateTempFolder(char* out, std::size_t size) {
  char temp[kFolderSize];
  if (!folders::TempPath(temp, sizeof temp)) return false;
  int n = std::snprintf(out, size, "%sVelmora", temp);
  if (n < 0 || static_cast<std::size_t>(n) >= size) {
    out[0] = '\0';
    return false;
  }
  folders::MakeFolder(out);  // an existing folder is fine
  return true;
}

}  // namespace

const char* GetAppFolder(int selector) {
  if (selector < 0 || selector >= kSelectors) return "";
  if (filled[selector].load(std::memory_order_acquire)) return folderTable[selector];
  std::lock_guard lock(fillMutex);
  if (filled[selector].load(std::memory_order_relaxed)) return folderTable[selector];
  char* slot = folderTable[selector];
  bool found = selector == 2 ? PrivateTempFolder(slot, kFolderSize)
                             : folders::StandardFolder(selector, slot, kFolderSize);
  if (!found || slot[0] == '\0') {
    slot[0] = '\0';
    return "";  // not the slot: a later request may fill it while the caller reads
  }
  filled[selector].store(true, std::memory_order_release);
  return slot;
}

const char* GetProgramFolder(const char* product) {
  if (product == nullptr) return GetAppFolder(0);
  // One buffer per thread: connection threads ask at the same time, and each must see
  // its own complete answer.
  thread_local char buffer[kFolderSize];
  int n = std::snprintf(buffer, sizeof buffer, "%s/Velmora/%s", GetAppFolder(3), product);
  if (n < 0 || static_cast<std::size_t>(n) >= sizeof buffer) {
    buffer[0] = '\0';
    return buffer;
  }
  // The first line, at most 255 characters of it; CR LF ends it as LF does.
  char line[kFolderSize];
  const long long got = files::ReadHead(buffer, line, sizeof line - 1);
  if (got >= 0) {
    line[got] = '\0';
    if (char* lf = std::strchr(line, '\n')) *lf = '\0';
    if (char* cr = std::strrchr(line, '\r')) *cr = '\0';
    std::memcpy(buffer, line, sizeof line);
  }
  return buffer;
}

}  // namespace kvt
