#include "platform/folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace kvt::folders {

namespace {

bool Put(char* out, std::size_t size, const char* first, const char* second = "") {
  int n = std::snprintf(out, size, "%s%s", first, second);
  if (n < 0 || static_cast<std::size_t>(n) >= size) {
    out[0] = '\0';
    return false;
  }
  return true;
}

// The first of the environment variables that is set and not empty.
const char* FirstSet(const char* a, const char* b = nullptr) {
  for (const char* name : {a, b}) {
    if (name == nullptr) continue;
    const char* value = std::getenv(name);
    if (value != nullptr && value[0] != '\0') return value;
  }
  return nullptr;
}

bool ProgramFolder(char* out, std::size_t size) {
  char path[4096];
  if (!ProgramPath(path, sizeof path)) return false;
  char* slash = std::strrchr(path, '/');
  if (slash == nullptr) return false;
  *slash = '\0';
  return Put(out, size, path[0] ? path : "/");
}

bool UnderHome(char* out, std::size_t size, const char* below) {
  const char* home = FirstSet("HOME");
  return home != nullptr && Put(out, size, home, below);
}

}  // namespace

bool StandardFolder(int selector, char* out, std::size_t size) {
  out[0] = '\0';
  switch (selector) {
    case 0:
    case 7:
    case 8:
      return ProgramFolder(out, size);
    case 1:
      return UnderHome(out, size, "");
    case 3: {
      const char* data = FirstSet("ProgramData");
      return Put(out, size, data ? data : "/var/lib");
    }
    case 4:
      return UnderHome(out, size, "/Documents");
    case 5:
      return UnderHome(out, size, "/Desktop");
    case 6: {
      const char* programs = FirstSet("ProgramFiles(x86)", "ProgramFiles");
      return Put(out, size, programs ? programs : "/opt");
    }
    default:
      return false;
  }
}

bool ProgramPath(char* out, std::size_t size) {
  if (out == nullptr || size == 0) return false;
  out[0] = '\0';
  ssize_t n = ::readlink("/proc/self/exe", out, size);
  if (n <= 0 || static_cast<std::size_t>(n) >= size) {  // n == size: the path was cut
    out[0] = '\0';
    return false;
  }
  out[n] = '\0';
  return true;
}

bool TempPath(char* out, std::size_t size) {
  const char* temp = FirstSet("TMPDIR");
  if (temp == nullptr) temp = "/tmp";
  std::size_t length = std::strlen(temp);
  return Put(out, size, temp, length > 0 && temp[length - 1] == '/' ? "" : "/");
}

bool MakeFolder(const char* path) { return ::mkdir(path, 0777) == 0 || errno == EEXIST; }

}  // namespace kvt::folders
