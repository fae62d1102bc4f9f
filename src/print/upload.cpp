#include "print/upload.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "files/commands.h"
#include "platform/files.h"
#include "platform/launch.h"
#include "server/wire.h"
#include "support/folders.h"

namespace kvt {

namespace {

constexpr std::size_t kNameField = 16;

// A name that stays inside the spool folder: it ends within its field and holds no folder
// separator, drive or parent step.
bool NameStaysInFolder(const char* name) {
  return FieldHasEnd(name, kNameField) && std::strpbrk(name, "/\\:") == nullptr &&
         std::strstr(name, "..") == nullptr;
}

// Starts jobfeeder without waiting. Whether it starts does not change the answer: the file
// is stored either way, and jobfeeder finds it whenever it runs next.
void StartJobfeeder() {
  const char* folder = GetProgramFolder("Corvina");
  char program[200];
  if (folder[0] == '\0' || !FormatFits(program, sizeof program, "%s/%s", folder, "jobfeeder"))
    return;
  RunProgram(program, nullptr);
}

// Receives the body whole, then stores it: an existing file is touched only once every
// byte has arrived. True when the whole body was written.
bool ReceiveAndStore(net::Socket socket, const char* name, std::uint32_t length) {
  char path[80];
  bool acceptable = NameStaysInFolder(name) && SpoolFolder[0] != '\0' &&
                    FormatFits(path, sizeof path, "%s/%s.spl", SpoolFolder, name);
  // Checked before anything is allocated; a refused body is only read off the connection.
  char* body = nullptr;
  if (acceptable && length <= kMaxSpoolBody)
    body = static_cast<char*>(std::malloc(length > 0 ? length : 1));
  if (body == nullptr) {
    DrainBytes(socket, length);
    return false;
  }
  const int count = static_cast<int>(length);  // at most kMaxSpoolBody
  long long written = -1;
  if (RecvAll(socket, body, count) == count) written = files::Replace(path, body, length);
  std::free(body);
  if (written != count) return false;
  StartJobfeeder();
  return true;
}

// Quotes can carry neither of these: the program would split the entry differently.
bool QuotingCarries(const char* entry) {
  std::size_t length = std::strlen(entry);
  return std::strchr(entry, '"') == nullptr && (length == 0 || entry[length - 1] != '\\');
}

}  // namespace

Served UploadSpoolFile(ConnectionRecord& record) {
  char name[kNameField];
  std::uint8_t length[4];
  std::uint8_t answer = 0;
  // A name or length that arrived short means the client has gone; the answer is lost and
  // the loop's next read ends the connection.
  if (RecvAll(record.socket, name, sizeof name) == sizeof name &&
      RecvAll(record.socket, length, sizeof length) == sizeof length)
    answer = ReceiveAndStore(record.socket, name, GetClientU32(record, length)) ? 1 : 0;
  SendAll(record.socket, &answer, 1);
  return Served::kContinue;
}

std::intptr_t RunProgramList(const char* const* entries) {
  if (entries == nullptr || entries[0] == nullptr) return -1;
  char program[kMaxProgramPath + 1];  // the path that is started, never quoted
  if (!FormatFits(program, sizeof program, "%s", entries[0])) return -1;
  int count = 0;
  std::size_t quotedSize = 0;
  for (; entries[count] != nullptr; ++count) {
    if (count > kMaxProgramArguments || !QuotingCarries(entries[count])) return -1;
    quotedSize += std::strlen(entries[count]) + 3;  // two quotes and a NUL
  }
  const char* argv[kMaxProgramArguments + 2];
  char* quoted = nullptr;
  if (launch::JoinsEntries()) {
    quoted = static_cast<char*>(std::malloc(quotedSize));
    if (quoted == nullptr) return -1;
    char* next = quoted;
    for (int i = 0; i < count; ++i) {
      std::size_t room = std::strlen(entries[i]) + 3;
      FormatFits(next, room, "\"%s\"", entries[i]);
      argv[i] = next;
      next += room;
    }
  } else {
    for (int i = 0; i < count; ++i) argv[i] = entries[i];
  }
  argv[count] = nullptr;
  std::intptr_t started = launch::StartNoWait(program, argv);
  std::free(quoted);
  return started;
}

std::intptr_t RunProgram(const char* program, ...) {
  if (program == nullptr) return -1;
  const char* entries[kMaxProgramArguments + 2];
  int count = 0;
  entries[count++] = program;
  std::va_list args;
  va_start(args, program);
  for (const char* entry; (entry = va_arg(args, const char*)) != nullptr;) {
    if (count > kMaxProgramArguments) {
      va_end(args);
      return -1;
    }
    entries[count++] = entry;
  }
  va_end(args);
  entries[count] = nullptr;
  return RunProgramList(entries);
}

}  // namespace kvt
