// Files by path: status, and creation that never replaces an existing file.
#pragma once
#include <cstddef>
#include <cstdint>

namespace kvt::files {

struct Status {
  std::int32_t size;    // bytes
  std::uint32_t mtime;  // low 32 bits of the last-modification time, seconds since 1970 UTC
};

// The status of a plain file. False when there is none at that path, the entry is a folder
// (or, on POSIX, anything but a regular file), or its size does not fit a signed 32-bit
// number (2 GiB or more): the wire carries sizes as 32-bit numbers.
bool GetStatus(const char* path, Status* out);

enum class Created { kCreated, kExists, kFailed };

// Creates the file only if nothing of that name exists, writes `size` bytes to it and
// closes it. kExists: something of that name was there, nothing was touched. kCreated: the
// file is new (a failed write leaves it shorter). The descriptor is never inherited.
Created CreateNew(const char* path, const void* data, std::size_t size);

// Creates the file, or replaces an existing one's content, with `size` bytes as they are:
// afterwards the file holds exactly the bytes written. Their number (fewer when the disk
// fills), or -1 when the file can't be opened for writing or cut to length. The descriptor
// is never inherited.
long long Replace(const char* path, const void* data, std::size_t size);

// Deletes a file; false when there is none, it is a folder, or the system refuses.
bool Remove(const char* path);

// A file open for reading from its start, through the C runtime's descriptors on both
// platforms, so that a failed read leaves the runtime's error number in errno. Never
// inherited by programs the server starts.
using Reader = int;
inline constexpr Reader kNoReader = -1;

// Opens a file for reading in binary mode; kNoReader when it can't be opened.
Reader OpenForReading(const char* path);
// Reads up to `count` bytes from where the last read ended; the number read: fewer at the
// end of the file or after a failure (errno tells which).
std::size_t Read(Reader file, void* buffer, std::size_t count);
void Close(Reader file);

// Opens, reads up to `count` bytes from the start and closes again: the number read, or -1
// when the file can't be opened.
inline long long ReadHead(const char* path, void* buffer, std::size_t count) {
  const Reader file = OpenForReading(path);
  if (file == kNoReader) return -1;
  const std::size_t got = Read(file, buffer, count);
  Close(file);
  return static_cast<long long>(got);
}

}  // namespace kvt::files
