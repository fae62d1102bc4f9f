#include "platform/thread.h"

#include <pthread.h>

#include <new>
#include <time.h>

namespace kvt::thread {

namespace {

struct Start {
  Routine routine;
  void* argument;
};

void* Trampoline(void* raw) {
  Start start = *static_cast<Start*>(raw);
  delete static_cast<Start*>(raw);
  start.routine(start.argument);
  return nullptr;
}

}  // namespace

bool StartDetached(Routine routine, void* argument) {
  auto* start = new (std::nothrow) Start{routine, argument};
  if (start == nullptr) return false;
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) {
    delete start;
    return false;
  }
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t id;
  int rc = pthread_create(&id, &attributes, Trampoline, start);
  pthread_attr_destroy(&attributes);
  if (rc != 0) delete start;
  return rc == 0;
}

void SleepMilliseconds(int milliseconds) {
  timespec ts{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

}  // namespace kvt::thread
