// What the parts of the in-memory machine tell each other; tests use memory.h.
#pragma once

namespace kvt::memory::internal {

void ResetFiles();
void ResetSockets();
void ResetPrograms();
void ResetProcess(unsigned seed);
// Whether a plain file lies at `path` (a program can be started from it).
bool IsFile(const char* path);

}  // namespace kvt::memory::internal
