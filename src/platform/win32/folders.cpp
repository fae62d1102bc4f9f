#include "platform/folders.h"

#include <windows.h>
#include <knownfolders.h>
#include <objbase.h>
#include <shlobj.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace kvt::folders {

namespace {

constexpr std::size_t kPathRoom = 256;  // the size every query below is asked for

// Copies `text` whole or not at all: a cut path would name another folder.
bool Put(char* out, std::size_t size, const char* text) {
  std::size_t length = std::strlen(text);
  if (length >= size) return false;
  std::memcpy(out, text, length + 1);
  return true;
}

bool ProgramFolder(char* out, std::size_t size) {
  char path[kPathRoom];
  if (!ProgramPath(path, kPathRoom)) return false;
  char* backslash = std::strrchr(path, '\\');
  if (backslash == nullptr) return false;
  *backslash = '\0';
  return Put(out, size, path);
}

bool ShellFolder(int csidl, char* out, std::size_t size) {
  char path[MAX_PATH] = {};
  constexpr DWORD kDefaultPath = 1;  // SHGFP_TYPE_DEFAULT
  if (::SHGetFolderPathA(nullptr, csidl, nullptr, kDefaultPath, path) != S_OK) return false;
  return path[0] != '\0' && Put(out, size, path);
}

bool DocumentsFolder(char* out, std::size_t size) {
  constexpr DWORD kSimpleIdList = 0x100;  // KF_FLAG_SIMPLE_IDLIST
  PWSTR wide = nullptr;
  HRESULT hr = ::SHGetKnownFolderPath(FOLDERID_Documents, kSimpleIdList, nullptr, &wide);
  char path[kPathRoom];
  int n = 0;
  BOOL lossy = FALSE;  // a character the code page lacks would come out as '?': another path
  if (SUCCEEDED(hr) && wide != nullptr)
    n = ::WideCharToMultiByte(CP_ACP, 0, wide, -1, path, kPathRoom, nullptr, &lossy);
  ::CoTaskMemFree(wide);  // also on failure, and a null pointer is fine
  return n > 1 && !lossy && Put(out, size, path);
}

// The first of the environment variables that is set and not empty.
const char* FirstSet(const char* a, const char* b) {
  for (const char* name : {a, b}) {
    const char* value = std::getenv(name);
    if (value != nullptr && value[0] != '\0') return value;
  }
  return nullptr;
}

}  // namespace

bool StandardFolder(int selector, char* out, std::size_t size) {
  if (out == nullptr || size == 0) return false;
  out[0] = '\0';
  bool found = false;
  switch (selector) {
    case 0:
    case 7:
    case 8:
      found = ProgramFolder(out, size);
      break;
    case 1:
      found = ShellFolder(CSIDL_PROFILE, out, size);
      break;
    case 3:
      found = ShellFolder(CSIDL_COMMON_APPDATA, out, size);
      break;
    case 4:
      found = DocumentsFolder(out, size);
      break;
    case 5:
      found = ShellFolder(CSIDL_DESKTOPDIRECTORY, out, size);
      break;
    case 6: {
      const char* programs = FirstSet("ProgramFiles(x86)", "ProgramFiles");
      found = programs != nullptr && Put(out, size, programs);
      break;
    }
    default:
      break;
  }
  if (!found) out[0] = '\0';
  return found;
}

bool ProgramPath(char* out, std::size_t size) {
  if (out == nullptr || size == 0) return false;
  DWORD room = size > 0xFFFFu ? 0xFFFFu : static_cast<DWORD>(size);
  DWORD n = ::GetModuleFileNameA(nullptr, out, room);
  if (n == 0 || n >= room) {  // n == room: the path was cut
    out[0] = '\0';
    return false;
  }
  out[n] = '\0';
  return true;
}

bool TempPath(char* out, std::size_t size) {
  if (out == nullptr || size == 0) return false;
  out[0] = '\0';
  char path[kPathRoom];
  DWORD n = ::GetTempPathA(kPathRoom, path);
  // n counts without the terminator when it fits, and the room needed when it does not.
  if (n == 0 || n >= kPathRoom) return false;
  return Put(out, size, path);
}

bool MakeFolder(const char* path) {
  if (path == nullptr) return false;
  return ::CreateDirectoryA(path, nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS;
}

}  // namespace kvt::folders
