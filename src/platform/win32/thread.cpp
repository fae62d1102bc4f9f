#include "platform/thread.h"

#include <windows.h>
#include <process.h>

#include <cstdint>
#include <new>

namespace kvt::thread {

namespace {

struct Start {
  Routine routine;
  void* argument;
};

unsigned __stdcall Trampoline(void* raw) {
  Start start = *static_cast<Start*>(raw);
  delete static_cast<Start*>(raw);
  start.routine(start.argument);
  return 0;
}

}  // namespace

bool StartDetached(Routine routine, void* argument) {
  auto* start = new (std::nothrow) Start{routine, argument};
  if (start == nullptr) return false;
  // _beginthreadex rather than CreateThread: the routine uses the C runtime, which then
  // sets up its per-thread data properly. Closing the handle detaches the thread.
  std::uintptr_t handle = ::_beginthreadex(nullptr, 0, Trampoline, start, 0, nullptr);
  if (handle == 0) {
    delete start;
    return false;
  }
  ::CloseHandle(reinterpret_cast<HANDLE>(handle));
  return true;
}

void SleepMilliseconds(int milliseconds) {
  ::Sleep(milliseconds > 0 ? static_cast<DWORD>(milliseconds) : 0);
}

}  // namespace kvt::thread
