#include "support/log.h"

#include <cstdio>
#include <mutex>

#include "platform/console.h"
#include "platform/process.h"
#include "platform/thread.h"

namespace kvt {

bool DebugMode = false;

namespace {

// The log's state. The mutex makes the first open safe whoever calls first, keeps the close
// form away from writers, and keeps a line and its flush together in the file.
std::mutex logMutex;
bool logOpened = false;
std::FILE* logFile = nullptr;
bool consoleOpen = false;

void OpenLog(const char* tag) {
  logOpened = true;
  std::tm now{};
  char name[64];
  if (process::LocalTimeNow(&now) && FormatLogFileName(name, sizeof name, tag, now))
    logFile = std::fopen(name, "wt");
  consoleOpen = console::Open();
}

void WriteLine(const char* line, std::size_t length) {
  if (consoleOpen) console::Write(line, length);
  if (logFile) {
    std::fprintf(logFile, "%s\n", line);
    std::fflush(logFile);
  }
}

}  // namespace

bool FormatLogFileName(char* out, std::size_t size, const char* tag, const std::tm& when) {
  int n = std::snprintf(out, size, "%s-S%2.2d%2.2d%2.2d%2.2d%2.2d%2.2d", tag,
                        when.tm_year + 1900 - 2000, when.tm_mon + 1, when.tm_mday, when.tm_hour,
                        when.tm_min, when.tm_sec);
  return n >= 0 && static_cast<std::size_t>(n) < size;
}

std::size_t FormatLogLine(char (&line)[kLogLineSize], const char* tag, const char* format,
                          std::va_list args) {
  // Room for the text: the buffer less the line feed and the terminator.
  constexpr std::size_t kTextRoom = kLogLineSize - 2;
  int head = std::snprintf(line, kTextRoom + 1, "%s: ", tag);
  std::size_t length = head < 0 ? 0 : static_cast<std::size_t>(head);
  if (length > kTextRoom) length = kTextRoom;
  if (length < kTextRoom) {
    int body = std::vsnprintf(line + length, kTextRoom + 1 - length, format, args);
    if (body > 0) length += static_cast<std::size_t>(body);
    if (length > kTextRoom) length = kTextRoom;  // cut: vsnprintf stopped at the room
  }
  line[length] = '\n';
  line[length + 1] = '\0';
  return length + 1;
}

void LogWrite(const char* tag, const char* format, ...) {
  if (!DebugMode) return;
  std::unique_lock lock(logMutex);
  if (!logOpened) OpenLog(tag);
  if (format == nullptr) {
    lock.unlock();
    LogWrite(tag, "Closing log... (Wait 10 seconds)");
    thread::SleepMilliseconds(10000);
    lock.lock();
    if (consoleOpen) console::Close();
    consoleOpen = false;
    if (logFile) std::fclose(logFile);
    logFile = nullptr;
    logOpened = false;
    return;
  }
  char line[kLogLineSize];
  std::va_list args;
  va_start(args, format);
  std::size_t length = FormatLogLine(line, tag, format, args);
  va_end(args);
  WriteLine(line, length);
}

}  // namespace kvt
