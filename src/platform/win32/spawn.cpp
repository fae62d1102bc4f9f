#include "platform/spawn.h"

#include <windows.h>

#include <cstring>

namespace kvt::spawn {

bool RunAndWait(const Call& call, std::uint32_t* exitCode) {
  // CreateProcessA may write into the command line: give it a copy of its own.
  char line[1024];
  std::size_t length = std::strlen(call.commandLine);
  if (length >= sizeof line) return false;
  std::memcpy(line, call.commandLine, length + 1);
  STARTUPINFOA startup;
  ::GetStartupInfoA(&startup);
  PROCESS_INFORMATION process;
  constexpr DWORD kFlags = DETACHED_PROCESS | NORMAL_PRIORITY_CLASS;  // 0x28
  if (!::CreateProcessA(nullptr, line, nullptr, nullptr, FALSE, kFlags, nullptr, nullptr,
                        &startup, &process))
    return false;
  ::WaitForSingleObject(process.hProcess, INFINITE);
  DWORD code = 0;
  bool known = ::GetExitCodeProcess(process.hProcess, &code) != 0;
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  *exitCode = code;
  return known;
}

}  // namespace kvt::spawn
