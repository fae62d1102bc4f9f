// The folder scan: the plain files of one folder that match wildcard patterns, with their
// sizes and times, as one contiguous block of fixed-size records.
#pragma once
#include <cstddef>
#include <cstdint>

namespace kvt {

// One listed file. The configuration listing sends these records byte for byte, so the
// layout is fixed: 48 bytes, integers in the host's order (little-endian on both targets).
struct FolderEntry {
  char name[40];        // the name, cut after 39 characters, zero-padded; byte 39 is zero
  std::int32_t size;    // bytes
  std::uint32_t mtime;  // low 32 bits of the modification time, seconds since 1970 UTC
};
static_assert(sizeof(FolderEntry) == 48);
static_assert(offsetof(FolderEntry, name) == 0);
static_assert(offsetof(FolderEntry, size) == 40);
static_assert(offsetof(FolderEntry, mtime) == 44);

enum ScanSortKey : int {
  SCAN_SORT_NAME = 2,  // bytes compared unsigned with A-Z folded to a-z; ascending
  SCAN_SORT_TIME = 4,  // mtime as unsigned 32-bit; oldest first
};

// Working limits of one call. Beyond them the call lists nothing (null, count 0); the
// server's own callers stay far below them.
inline constexpr std::size_t kScanPatternText = 1023;  // characters of `patterns`
inline constexpr int kScanPatterns = 60;               // patterns in one text
inline constexpr std::size_t kScanPath = 512;          // "<folder>/<name>" and terminator

// Lists the files of `folder` that match `patterns`: wildcard patterns in the platform
// search's form ("*", "?"), separated by "|" or ","; an empty piece matches nothing.
// Folders and names beginning with "." are left out, and so is a match whose status can't
// be read or whose size is 2 GiB or more. The result is each pattern's run of matches in
// the order of the patterns, each run sorted by `sortKey` on its own (a file matching two
// patterns is listed twice). *count_out is set to 0 first and to the number of entries at
// the end; the result is null exactly when the count is 0. Growing the list failing gives
// null and 0, never a part of the list. Release the list with FreeFolderList.
FolderEntry* ScanFolder(const char* folder, const char* patterns, int* count_out,
                        ScanSortKey sortKey);

// Releases a list of ScanFolder; null is allowed.
void FreeFolderList(FolderEntry* list);

}  // namespace kvt
