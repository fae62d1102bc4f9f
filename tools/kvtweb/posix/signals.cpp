#include "../signals.h"

#include <signal.h>

namespace kvtweb {

namespace {
sigset_t Caught() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGHUP);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}
}  // namespace

// Blocked in every thread (threads inherit the mask) and taken with sigwait: no handler
// runs in the middle of anything.
void CatchSignals() {
  const sigset_t set = Caught();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Signal WaitForSignal() {
  const sigset_t set = Caught();
  int signal = 0;
  while (sigwait(&set, &signal) != 0) {
  }
  return signal == SIGHUP ? Signal::kReload : Signal::kStop;
}

}  // namespace kvtweb
