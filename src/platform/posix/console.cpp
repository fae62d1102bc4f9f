#include "platform/console.h"

#include <unistd.h>

namespace kvt::console {

// A POSIX process has its terminal already: the debug console is standard error.
bool Open() { return true; }

void Write(const char* text, std::size_t length) {
  ssize_t ignored = ::write(STDERR_FILENO, text, length);
  (void)ignored;
}

void Close() {}

}  // namespace kvt::console
