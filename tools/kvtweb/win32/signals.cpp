#include "../signals.h"

#include <windows.h>

namespace kvtweb {

namespace {
HANDLE stopEvent = nullptr;

BOOL WINAPI OnControl(DWORD) {
  SetEvent(stopEvent);
  return TRUE;
}
}  // namespace

void CatchSignals() {
  stopEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  SetConsoleCtrlHandler(OnControl, TRUE);
}

Signal WaitForSignal() {
  WaitForSingleObject(stopEvent, INFINITE);
  return Signal::kStop;
}

}  // namespace kvtweb
