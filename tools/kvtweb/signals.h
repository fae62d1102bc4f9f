// How kvtweb is told to read its servers file again or to stop. POSIX: SIGHUP reloads,
// SIGTERM and SIGINT stop. Windows has no SIGHUP: Ctrl-C or Ctrl-Break stops (restart the
// program to read the file again). One implementation per platform, picked by CMake.
#pragma once

namespace kvtweb {

enum class Signal { kReload, kStop };

// Call before any thread starts, so that every thread leaves the signals to WaitForSignal.
void CatchSignals();
Signal WaitForSignal();

}  // namespace kvtweb
