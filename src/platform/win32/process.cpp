#include "platform/process.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <utility>

namespace kvt::process {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

const char* ArgumentText(int, char**) {
  // The raw command line, so that quoting reaches the program's own word splitting as
  // typed; this is the text the C runtime passes to WinMain. It lives as long as the process.
  const char* p = ::GetCommandLineA();
  if (p == nullptr) return "";
  if (*p == '"') {
    ++p;
    while (*p != '\0' && *p != '"') ++p;
    if (*p == '"') ++p;
  } else {
    while (*p != '\0' && !IsBlank(*p)) ++p;
  }
  while (IsBlank(*p)) ++p;
  return p;
}

void SetBinaryMode() {
  _fmode = _O_BINARY;
  for (std::FILE* stream : {stdin, stdout, stderr}) {
    int fd = _fileno(stream);
    if (fd >= 0) _setmode(fd, _O_BINARY);  // a GUI program may have no such stream
  }
}

void KeepRunningAtFileSizeLimit() {}

void RaiseDescriptorLimit() {}

std::uint64_t UsableMemory() {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  std::uint64_t usable = ::GlobalMemoryStatusEx(&status) ? status.ullTotalPhys : 0;
  // A job object that limits the process's (or all its processes') committed memory.
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION job{};
  if (::QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &job, sizeof job,
                                  nullptr)) {
    const DWORD flags = job.BasicLimitInformation.LimitFlags;
    for (auto [flag, limit] : {std::pair{DWORD{JOB_OBJECT_LIMIT_PROCESS_MEMORY}, job.ProcessMemoryLimit},
                               std::pair{DWORD{JOB_OBJECT_LIMIT_JOB_MEMORY}, job.JobMemoryLimit}})
      if ((flags & flag) != 0 && limit > 0 && (usable == 0 || limit < usable)) usable = limit;
  }
  return usable;
}

bool LocalTimeNow(std::tm* out) {
  std::time_t now = std::time(nullptr);
  return now != static_cast<std::time_t>(-1) && localtime_s(out, &now) == 0;
}

}  // namespace kvt::process
