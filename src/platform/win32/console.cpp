#include "platform/console.h"

#include <windows.h>

namespace kvt::console {

namespace {

// Output handle of the console this process allocated; null while none is open. The log
// serialises every call, so no lock is needed here.
HANDLE output = nullptr;

}  // namespace

bool Open() {
  if (output != nullptr) return true;
  // A console that the process already has (started from one) is not ours to use or free.
  if (!::AllocConsole()) return false;
  HANDLE handle = ::GetStdHandle(STD_OUTPUT_HANDLE);
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) {
    ::FreeConsole();
    return false;
  }
  output = handle;
  return true;
}

void Write(const char* text, std::size_t length) {
  if (output == nullptr || text == nullptr) return;
  // A log line is short; a longer text is cut rather than split across calls.
  DWORD count = length > 0xFFFFu ? 0xFFFFu : static_cast<DWORD>(length);
  DWORD written = 0;
  ::WriteConsoleA(output, text, count, &written, nullptr);  // headless: fails, dropped
}

void Close() {
  if (output == nullptr) return;
  output = nullptr;
  ::FreeConsole();
}

}  // namespace kvt::console
