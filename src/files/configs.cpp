#include <cstring>

#include "files/commands.h"
#include "files/scan.h"
#include "platform/files.h"
#include "server/wire.h"
#include "support/text.h"

namespace kvt {

namespace {

// Looked for in this order; the first that exists gives the record's time.
constexpr const char* kColorExtensions[] = {"gamut", "icc", "icm"};

// The longest tail a colour file's path adds to the listed folder: "/", a base name of at
// most 39 characters, "." and the longest extension.
constexpr std::size_t kColorTail = 1 + 39 + 1 + 5;

// The modification time of the configuration's colour file, or 0 when it has none.
std::uint32_t ColorFileTime(const char* folder, const char* baseName) {
  for (const char* extension : kColorExtensions) {
    char path[200];
    files::Status status;
    if (FormatFits(path, sizeof path, "%s/%s.%s", folder, baseName, extension) &&
        files::GetStatus(path, &status))
      return status.mtime;
  }
  return 0;
}

}  // namespace

Served ListConfigurations(ConnectionRecord& record) {
  char folderName[80] = {};  // zero-filled: a short field still ends in a NUL
  RecvAll(record.socket, folderName, sizeof folderName);

  // Refused as an empty listing: a field without its NUL, no gamut folder, or a folder
  // whose colour-file paths might not fit their 200-byte buffer. The bound is checked for
  // the longest possible name up front, so whether a folder is listed never depends on the
  // names of the files in it.
  char folder[200];
  int count = 0;
  FolderEntry* list = nullptr;
  if (FieldHasEnd(folderName, sizeof folderName) && GamutFolder[0] != '\0' &&
      FormatFits(folder, sizeof folder, "%s/%s", GamutFolder, folderName) &&
      std::strlen(folder) + kColorTail < sizeof folder)
    list = ScanFolder(folder, "*.cfg", &count, SCAN_SORT_TIME);

  std::uint8_t countBytes[4];
  PutClientU32(record, countBytes, static_cast<std::uint32_t>(count));
  SendAll(record.socket, countBytes, sizeof countBytes);
  for (int i = 0; i < count; ++i) {
    FolderEntry& entry = list[i];
    // The base name ends at the first "."; the rest of the name stays behind the NUL.
    if (char* dot = std::strchr(entry.name, '.')) *dot = '\0';
    std::uint8_t bytes[4];
    PutClientU32(record, bytes, ColorFileTime(folder, entry.name));
    std::memcpy(&entry.mtime, bytes, sizeof bytes);
    PutLe32(bytes, static_cast<std::uint32_t>(entry.size));  // little-endian for every client
    std::memcpy(&entry.size, bytes, sizeof bytes);
  }
  // The records go out as they lie in the list, in pieces that SendAll's count can carry.
  constexpr int kPiece = 1 << 16;
  for (int sent = 0; sent < count; sent += kPiece) {
    int n = count - sent < kPiece ? count - sent : kPiece;
    SendAll(record.socket, list + sent, n * static_cast<int>(sizeof(FolderEntry)));
  }
  FreeFolderList(list);
  return Served::kContinue;
}

}  // namespace kvt
