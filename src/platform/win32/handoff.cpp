#include "platform/handoff.h"

#include <windows.h>
#include <winsock2.h>

#include <cstring>

namespace kvt::handoff {

static_assert(sizeof(WSAPROTOCOL_INFOA) == kRecordSize);

Outcome RunWithSocket(const spawn::Call& call, net::Socket socket) {
  // CreateProcessA may write into the command line: give it a copy of its own.
  char line[1024];
  std::size_t length = std::strlen(call.commandLine);
  if (length >= sizeof line) return Outcome::kNotStarted;
  std::memcpy(line, call.commandLine, length + 1);

  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  if (!::CreatePipe(&readEnd, &writeEnd, &inheritable, 4096)) return Outcome::kNotStarted;

  STARTUPINFOA startup{};
  startup.cb = sizeof startup;  // 104 on x86_64
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = readEnd;  // no standard output or error
  PROCESS_INFORMATION process{};
  if (!::CreateProcessA(nullptr, line, nullptr, nullptr, TRUE, DETACHED_PROCESS, nullptr, nullptr,
                        &startup, &process)) {
    ::CloseHandle(writeEnd);
    ::CloseHandle(readEnd);
    return Outcome::kNotStarted;
  }

  // The record fits in the pipe's buffer: the write does not wait for the program to read.
  WSAPROTOCOL_INFOA info;
  DWORD written = 0;
  bool passed =
      ::WSADuplicateSocketA(static_cast<SOCKET>(socket), process.dwProcessId, &info) == 0 &&
      ::WriteFile(writeEnd, &info, sizeof info, &written, nullptr) && written == sizeof info;
  if (!passed) ::TerminateProcess(process.hProcess, 1);
  ::WaitForSingleObject(process.hProcess, INFINITE);

  ::CloseHandle(writeEnd);
  ::CloseHandle(readEnd);
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  return passed ? Outcome::kServed : Outcome::kNotPassed;
}

}  // namespace kvt::handoff
