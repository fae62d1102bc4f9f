#include "print/upload.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/files.h"
#include "platform/launch.h"
#include "server/wire.h"
#include "support/body_budget.h"
#include "support/folders.h"
#include "support/text.h"

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

// Body blocks of finished uploads, kept for the next ones. A fresh block of many megabytes
// is mapped anew and takes a page fault for each of its pages at first touch, which costs
// more than receiving the body; a kept block is already in place. What is kept is bounded
// (kKeptBlocks blocks, kKeptBytes in all), so a body near the 1 GiB ceiling is freed after
// its upload as before, and idle memory stays below that bound. Every block, kept or in
// use, is counted in the body budget; kept blocks are freed whenever a request finds the
// budget short.
class BodyBlocks {
 public:
  struct Block {
    char* data = nullptr;
    std::size_t size = 0;
  };

  // A block of at least `length` bytes: the smallest kept one that is large enough, else a
  // fresh one; a null block when the budget has no room for it or none can be allocated
  // even after letting go of the kept.
  Block Take(std::size_t length) {
    {
      std::lock_guard lock(mutex_);
      Block* best = nullptr;
      for (Block& k : kept_)
        if (k.data != nullptr && k.size >= length && (best == nullptr || k.size < best->size))
          best = &k;
      if (best != nullptr) return std::exchange(*best, Block{});
    }
    // Rounded up so that bodies of nearly the same length share a block (1 GiB stays 1 GiB).
    const std::size_t size = length > kGrain ? (length + kGrain - 1) / kGrain * kGrain : kGrain;
    if (!TakeBodyBytes(size)) return {};
    Block fresh{static_cast<char*>(std::malloc(size)), size};
    if (fresh.data == nullptr) {
      Release();
      fresh.data = static_cast<char*>(std::malloc(size));
      if (fresh.data == nullptr) GiveBodyBytes(size);
    }
    return fresh;
  }

  // Keeps `block` for a later upload when it fits the bound, in an empty place or in that
  // of a smaller kept block; frees what is not kept.
  void Give(Block block) {
    Block dropped = block;
    {
      std::lock_guard lock(mutex_);
      Block* place = &kept_[0];  // an empty place, else that of the smallest block
      std::size_t total = 0;
      for (Block& k : kept_) {
        total += k.size;
        if (place->data != nullptr && (k.data == nullptr || k.size < place->size)) place = &k;
      }
      if (block.size > place->size && total - place->size + block.size <= kKeptBytes)
        dropped = std::exchange(*place, block);
    }
    Free(dropped);
  }

  void Release() {
    Block released[kKeptBlocks];
    {
      std::lock_guard lock(mutex_);
      for (int i = 0; i < kKeptBlocks; ++i) released[i] = std::exchange(kept_[i], Block{});
    }
    for (Block& k : released) Free(k);
  }

 private:
  static void Free(Block block) {
    if (block.data == nullptr) return;
    std::free(block.data);
    GiveBodyBytes(block.size);
  }

  static constexpr std::size_t kGrain = 64 * 1024;
  static constexpr int kKeptBlocks = 4;
  static constexpr std::size_t kKeptBytes = std::size_t{128} << 20;  // 128 MiB
  std::mutex mutex_;
  Block kept_[kKeptBlocks];
};

BodyBlocks bodyBlocks;

// Lets every request that finds the budget short free the kept blocks.
struct ReclaimKeptBlocks {
  ReclaimKeptBlocks() { SetBodyBytesReclaim([] { bodyBlocks.Release(); }); }
} reclaimKeptBlocks;

// Receives the body whole, then stores it: an existing file is touched only once every
// byte has arrived. True when the whole body was written.
bool ReceiveAndStore(net::Socket socket, const char* name, std::uint32_t length) {
  char path[80];
  bool acceptable = NameStaysInFolder(name) && SpoolFolder[0] != '\0' &&
                    FormatFits(path, sizeof path, "%s/%s.spl", SpoolFolder, name);
  // Checked before anything is allocated; a refused body is only read off the connection.
  BodyBlocks::Block body;
  if (acceptable && length <= kMaxSpoolBody) body = bodyBlocks.Take(length);
  if (body.data == nullptr) {
    DrainBytes(socket, length);
    return false;
  }
  const int count = static_cast<int>(length);  // at most kMaxSpoolBody
  long long written = -1;
  if (RecvAll(socket, body.data, count) == count) written = files::Replace(path, body.data, length);
  bodyBlocks.Give(body);
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
