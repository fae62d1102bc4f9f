#include "platform/files.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

namespace kvt::files {

namespace {

// 100-ns intervals between 1601-01-01 (FILETIME) and 1970-01-01.
constexpr long long kUnixEpoch = 116444736000000000LL;

}  // namespace

bool GetStatus(const char* path, Status* out) {
  // The attribute query rather than the C runtime's stat: it never expands "*" or "?" in a
  // name sent by a client, and it gives the full 64-bit size for the 2 GiB test.
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExA(path, GetFileExInfoStandard, &data)) return false;
  if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return false;
  if (data.nFileSizeHigh != 0 || data.nFileSizeLow > 0x7FFFFFFFu) return false;
  ULARGE_INTEGER written;
  written.LowPart = data.ftLastWriteTime.dwLowDateTime;
  written.HighPart = data.ftLastWriteTime.dwHighDateTime;
  long long ticks = static_cast<long long>(written.QuadPart) - kUnixEpoch;
  // Whole seconds, rounded down also before 1970, as stat gives them.
  long long seconds = ticks >= 0 ? ticks / 10000000 : -((-ticks + 9999999) / 10000000);
  out->size = static_cast<std::int32_t>(data.nFileSizeLow);
  out->mtime = static_cast<std::uint32_t>(seconds);
  return true;
}

Created CreateNew(const char* path, const void* data, std::size_t size) {
  // Not inheritable (no security attributes), and CREATE_NEW fails on any existing name.
  HANDLE file = ::CreateFileA(path, GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    DWORD error = ::GetLastError();
    return error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS ? Created::kExists
                                                                       : Created::kFailed;
  }
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    DWORD chunk = size > 0x40000000u ? 0x40000000u : static_cast<DWORD>(size);
    DWORD written = 0;
    if (!::WriteFile(file, bytes, chunk, &written, nullptr) || written == 0) break;
    bytes += written;
    size -= written;
  }
  ::CloseHandle(file);
  return Created::kCreated;
}

long long Replace(const char* path, const void* data, std::size_t size) {
  // CREATE_ALWAYS creates the file or cuts it to length 0; no security attributes, so the
  // handle is not inheritable.
  HANDLE file = ::CreateFileA(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return -1;
  const char* bytes = static_cast<const char*>(data);
  std::size_t written = 0;
  while (written < size) {
    std::size_t left = size - written;
    DWORD chunk = left > 0x40000000u ? 0x40000000u : static_cast<DWORD>(left);
    DWORD n = 0;
    if (!::WriteFile(file, bytes + written, chunk, &n, nullptr) || n == 0) break;
    written += n;
  }
  ::CloseHandle(file);
  return static_cast<long long>(written);
}

bool Remove(const char* path) { return ::DeleteFileA(path) != FALSE; }

Reader OpenForReading(const char* path) {
  return ::_open(path, _O_RDONLY | _O_BINARY | _O_NOINHERIT);
}

std::size_t Read(Reader file, void* buffer, std::size_t count) {
  auto* bytes = static_cast<char*>(buffer);
  std::size_t got = 0;
  while (got < count) {
    std::size_t left = count - got;
    unsigned chunk = left > 0x40000000u ? 0x40000000u : static_cast<unsigned>(left);
    int n = ::_read(file, bytes + got, chunk);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  return got;
}

void Close(Reader file) { ::_close(file); }

}  // namespace kvt::files
