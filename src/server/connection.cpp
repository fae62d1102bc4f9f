#include <cstdlib>

#include "platform/thread.h"
#include "server/connection.h"

namespace kvt {

char SpoolFolder[256];
char GamutFolder[256];

bool StartThread(void (*routine)(void*), void* argument) {
  return thread::StartDetached(routine, argument);
}

void EndConnection(ConnectionRecord* record) {
  if (record->printers) {
    for (PrinterEntry* entry = record->printers; entry->name[0] != '\0'; ++entry)
      if (entry->handle) spooler::ClosePrinter(entry->handle);
    std::free(record->printers);
  }
  std::free(record);
}

}  // namespace kvt
