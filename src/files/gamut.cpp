#include <cerrno>
#include <cstring>

#include "files/commands.h"
#include "platform/files.h"
#include "server/wire.h"
#include "support/log.h"
#include "support/text.h"

namespace kvt {

namespace {

constexpr std::size_t kChunk = 8192;

}  // namespace

Served SendGamutFile(ConnectionRecord& record) {
  // Zero-filled: a field that arrives short (the peer has gone) still ends in a NUL.
  char folderName[100] = {};
  char baseName[40] = {};
  RecvAll(record.socket, folderName, sizeof folderName);
  RecvAll(record.socket, baseName, sizeof baseName);

  // A field without its NUL, no gamut folder, or a path longer than its buffer is refused
  // like a missing file: the 8 zero bytes.
  std::uint8_t header[8] = {};
  char path[252];
  files::Status status{};
  if (!FieldHasEnd(folderName, sizeof folderName) || !FieldHasEnd(baseName, sizeof baseName) ||
      GamutFolder[0] == '\0' ||
      !FormatFits(path, sizeof path, "%s/%s/%s.gamut", GamutFolder, folderName, baseName) ||
      !files::GetStatus(path, &status)) {
    SendAll(record.socket, header, sizeof header);
    return Served::kContinue;
  }
  PutClientU32(record, header, status.mtime);
  PutClientU32(record, header + 4, static_cast<std::uint32_t>(status.size));
  if (SendAll(record.socket, header, sizeof header) != sizeof header || status.size == 0)
    return Served::kContinue;

  // The client now waits for exactly `size` bytes: whatever the file gives, that many go
  // out. A file that can't be opened any more, or that shrank, is made up with zero bytes
  // from the buffer; a file that grew is sent only up to the announced size.
  const files::Reader file = files::OpenForReading(path);
  if (file == files::kNoReader) LogWrite(kLogTag, "data read error %d", errno);
  char buffer[kChunk];
  for (std::size_t remaining = static_cast<std::size_t>(status.size); remaining > 0;) {
    std::size_t chunk = remaining < kChunk ? remaining : kChunk;
    std::size_t got = 0;
    if (file != files::kNoReader) {
      errno = 0;
      got = files::Read(file, buffer, chunk);
      if (got < chunk) LogWrite(kLogTag, "data read error %d", errno);
    }
    std::memset(buffer + got, 0, chunk - got);
    // A failed send means the client has gone: reading the rest of the file would be for
    // nobody. The command loop finds the closed connection at its next frame read.
    if (SendAll(record.socket, buffer, static_cast<int>(chunk)) != static_cast<int>(chunk))
      break;
    remaining -= chunk;
  }
  if (file != files::kNoReader) files::Close(file);
  return Served::kContinue;
}

}  // namespace kvt
