#include "platform/launch.h"

#include <process.h>
#include <windows.h>

namespace kvt::launch {

bool JoinsEntries() { return true; }

std::intptr_t StartNoWait(const char* program, const char* const* argv) {
  // The runtime's errno is not a success test here: probing the name without an extension
  // leaves ENOENT behind even when the start succeeds. Only the result counts.
  std::intptr_t process = ::_spawnv(P_NOWAIT, program, argv);
  if (process == -1) return -1;
  HANDLE handle = reinterpret_cast<HANDLE>(process);
  DWORD id = ::GetProcessId(handle);
  ::CloseHandle(handle);
  return static_cast<std::intptr_t>(id);
}

}  // namespace kvt::launch
