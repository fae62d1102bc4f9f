#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kvt::files {

bool GetStatus(const char* path, Status* out) {
  struct stat status;
  if (::stat(path, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (status.st_size < 0 || status.st_size > 0x7FFFFFFF) return false;
  out->size = static_cast<std::int32_t>(status.st_size);
  out->mtime = static_cast<std::uint32_t>(status.st_mtime);
  return true;
}

Created CreateNew(const char* path, const void* data, std::size_t size) {
  int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return errno == EEXIST ? Created::kExists : Created::kFailed;
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = ::write(fd, bytes, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // disk full or an I/O error: the file stays as far as it got
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
  ::close(fd);
  return Created::kCreated;
}

long long Replace(const char* path, const void* data, std::size_t size) {
  // Written over in place, then cut to what was written, rather than cut to 0 first: ext4
  // flushes a file that was cut to 0 and written again as it is closed (its guard for
  // programs that rewrite without fsync), which costs milliseconds per megabyte.
  int fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return -1;
  const char* bytes = static_cast<const char*>(data);
  std::size_t written = 0;
  while (written < size) {
    ssize_t n = ::write(fd, bytes + written, size - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<std::size_t>(n);
  }
  // The file then holds exactly the bytes written: no tail of a longer old one.
  const bool cut = ::ftruncate(fd, static_cast<off_t>(written)) == 0;
  ::close(fd);
  return cut ? static_cast<long long>(written) : -1;
}

Reader OpenForReading(const char* path) { return ::open(path, O_RDONLY | O_CLOEXEC); }

std::size_t Read(Reader file, void* buffer, std::size_t count) {
  auto* bytes = static_cast<char*>(buffer);
  std::size_t got = 0;
  while (got < count) {
    ssize_t n = ::read(file, bytes + got, count - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  return got;
}

void Close(Reader file) { ::close(file); }


// unlink, not remove: a client's path must never take away a folder, even an empty one.
bool Remove(const char* path) { return ::unlink(path) == 0; }

}  // namespace kvt::files
