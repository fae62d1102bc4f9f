// Threads: detached threads with one argument, as the listener starts them.
#pragma once

namespace kvt::thread {

using Routine = void (*)(void* argument);

// Runs routine(argument) on a new detached thread with the default stack size.
// Returns false when the thread could not be started (the routine then never runs).
bool StartDetached(Routine routine, void* argument);

void SleepMilliseconds(int milliseconds);

}  // namespace kvt::thread
