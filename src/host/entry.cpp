#include "host/entry.h"

#include <cstdio>
#include <cstring>

#include "host/service.h"
#include "platform/net.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "server/connection.h"
#include "support/log.h"

namespace kvt {

bool SplitCommandLine(const char* arguments, CommandLine& line) {
  line.count = 0;
  line.words[0] = nullptr;
  int n = std::snprintf(line.text, sizeof line.text, "kvtnetd %s", arguments);
  if (n < 0 || n >= kCommandTextSize) return false;

  const int length = n;
  char* text = line.text;
  char separator = ' ';
  int pos = 0;
  int count = 1;
  line.words[0] = text;
  for (;;) {
    while (text[pos] != '\0' && text[pos] != separator) ++pos;
    text[pos] = '\0';
    ++pos;
    while (pos < length && text[pos] == ' ') ++pos;
    if (pos < length && text[pos] == '"') {
      separator = '"';
      ++pos;
    } else {
      separator = ' ';
    }
    if (pos >= length) break;
    if (count == kWordTableSize - 1) {  // a 29th word: refuse the whole line
      line.words[0] = nullptr;
      return false;
    }
    line.words[count++] = text + pos;
  }
  line.words[count] = nullptr;
  line.count = count;
  return true;
}

RunMode ChooseRunMode(int count, char* const* words) {
  for (int i = 0; i < count; ++i)
    if (std::strcmp(words[i], "-debug") == 0) return RunMode::kDebug;
  if (count < 2) return RunMode::kPlainServer;
  const char* word = words[1];
  if (std::strcmp(word, "-s") == 0) return RunMode::kService;
  if (std::strcmp(word, "-c") == 0) return RunMode::kInstall;
  if (std::strcmp(word, "-k") == 0) return RunMode::kStop;
  if (std::strcmp(word, "-d") == 0) return RunMode::kRemove;
  return RunMode::kNone;
}

namespace {

constexpr int kWsaInProgress = 10036;
constexpr int kWsaSysNotReady = 10091;
constexpr int kWsaVerNotSupported = 10092;

// Waits out a busy or not-ready sockets library; false when version 2.2 is not supported.
// Any other failure shows later, when the listener opens no socket.
bool StartSockets() {
  for (;;) {
    int result = net::Startup();
    if (result == kWsaInProgress || result == kWsaSysNotReady) {
      thread::SleepMilliseconds(1000);
      continue;
    }
    return result != kWsaVerNotSupported;
  }
}

// The command text and its words live for the whole process.
CommandLine commandLine;

}  // namespace

int RunProcess(const char* arguments) {
  bool fits = SplitCommandLine(arguments, commandLine);
  process::SetBinaryMode();
  process::KeepRunningAtFileSizeLimit();
  if (!StartSockets()) {
    std::printf("KVTnetd: WinSocket version not supported!\n");
    std::fflush(stdout);
    return -1;
  }
  if (!fits) return kExitCommandLineTooLong;

  switch (ChooseRunMode(commandLine.count, commandLine.words)) {
    case RunMode::kDebug:
      DebugMode = true;
      return RunListener(), 0;
    case RunMode::kPlainServer:
      return RunListener(), 0;
    case RunMode::kService:
      return RunServiceDispatcher();
    case RunMode::kInstall:
      return InstallService();
    case RunMode::kStop:
      return StopService();
    case RunMode::kRemove:
      return RemoveService();
    case RunMode::kNone:
      break;
  }
  return 0;
}

}  // namespace kvt
