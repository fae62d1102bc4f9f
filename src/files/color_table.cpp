#include <cstdlib>
#include <cstring>
#include <ctime>

#include "files/commands.h"
#include "platform/entropy.h"
#include "platform/files.h"
#include "platform/spawn.h"
#include "server/wire.h"
#include "support/body_budget.h"
#include "support/folders.h"
#include "support/text.h"

namespace kvt {

namespace {

constexpr const char* kToolProgram = "%s/KVT/ShadeProof/ShadeProof.exe";
constexpr const char* kToolLine = "%s/KVT/ShadeProof/ShadeProof.exe -add \"%s\" \"%s\"";
constexpr const char* kStoredFile = "%s/%X%X.ldf";

// Fresh names to try before giving up; each collides only with a file made in the same
// second that drew the same number.
constexpr int kNameAttempts = 64;

// A zero-filled block of `length` + `extra` bytes read from the connection, or null, with
// the bytes drained, when the length is over `ceiling` or the block can't be had: not from
// the body budget, or not from the heap. A block is given back with FreeBlock.
char* ReceiveBlock(net::Socket socket, std::uint32_t length, std::uint32_t ceiling,
                   std::size_t extra) {
  char* block = nullptr;
  if (length <= ceiling && TakeBodyBytes(length + extra)) {
    block = static_cast<char*>(std::calloc(length + extra, 1));
    if (block == nullptr) GiveBodyBytes(length + extra);
  }
  if (block == nullptr) {
    DrainBytes(socket, length);
    return nullptr;
  }
  // A block that arrives short is used as far as it came, the rest zero.
  RecvAll(socket, block, static_cast<int>(length));
  return block;
}

void FreeBlock(char* block, std::size_t size) {
  if (block == nullptr) return;
  std::free(block);
  GiveBodyBytes(size);
}

std::uint32_t ReceiveLength(net::Socket socket) {
  std::uint8_t bytes[4] = {};
  RecvAll(socket, bytes, sizeof bytes);
  return GetLe32(bytes);
}

// Checks the request against the tool's command line and stores the data in a new ".ldf"
// file of the private temporary folder. False when the request is refused: then nothing is
// stored and the tool is not started.
bool StoreTable(const char* name, const char* data, std::uint32_t length, char (&path)[260],
                char (&line)[200]) {
  const char* temp = GetAppFolder(2);
  const char* programs = GetAppFolder(6);
  if (temp[0] == '\0' || programs[0] == '\0') return false;
  // The name goes between double quotes without escaping: a quote in it, or a backslash
  // before the closing quote, would change how the tool's command line splits into words.
  std::size_t nameLength = std::strlen(name);
  if (std::strchr(name, '"') != nullptr || (nameLength > 0 && name[nameLength - 1] == '\\'))
    return false;
  // Checked with the longest name the stored file can get, so that the same request is
  // refused or served whatever the clock and the random number give.
  if (!FormatFits(path, sizeof path, kStoredFile, temp, 0xFFFFFFFFu, 0x7FFFu) ||
      !FormatFits(line, sizeof line, kToolLine, programs, name, path))
    return false;
  // Created only if the name is new, so two connections never share a file; a name that
  // exists is drawn again. When the file can't be created at all, the tool still runs and
  // finds no file.
  files::Created created = files::Created::kExists;
  for (int attempt = 0; attempt < kNameAttempts && created == files::Created::kExists;
       ++attempt) {
    auto now = static_cast<std::uint32_t>(std::time(nullptr));
    FormatFits(path, sizeof path, kStoredFile, temp, static_cast<unsigned>(now),
               static_cast<unsigned>(entropy::Random15()));
    created = files::CreateNew(path, data, length);
  }
  if (created == files::Created::kExists) return false;
  return FormatFits(line, sizeof line, kToolLine, programs, name, path);
}

std::uint32_t RunTool(const char* line, const char* name, const char* path) {
  char program[200];
  if (!FormatFits(program, sizeof program, kToolProgram, GetAppFolder(6))) return 0;
  const char* const argv[] = {program, "-add", name, path, nullptr};
  std::uint32_t exitCode = 0;
  return spawn::RunAndWait({line, program, argv}, &exitCode) ? exitCode : 0;
}

}  // namespace

Served RegisterColorTable(ConnectionRecord& record) {
  // The name's block has one byte more, so that it always ends in a NUL.
  std::uint32_t nameLength = ReceiveLength(record.socket);
  char* name = ReceiveBlock(record.socket, nameLength, kMaxTableName, 1);
  std::uint32_t dataLength = ReceiveLength(record.socket);
  // Once the name is refused the data is only read off the connection, never kept.
  char* data = nullptr;
  if (name != nullptr)
    data = ReceiveBlock(record.socket, dataLength, kMaxTableData, dataLength == 0);
  else
    DrainBytes(record.socket, dataLength);

  char path[260];
  char line[200];
  bool stored = name != nullptr && data != nullptr &&
                StoreTable(name, data, dataLength, path, line);
  FreeBlock(data, dataLength + (dataLength == 0));  // not held while the tool runs
  std::uint32_t result = stored ? RunTool(line, name, path) : 0;
  FreeBlock(name, nameLength + 1);

  std::uint8_t bytes[4];
  PutLe32(bytes, result);  // little-endian for every client
  SendAll(record.socket, bytes, sizeof bytes);
  return Served::kContinue;
}

}  // namespace kvt
