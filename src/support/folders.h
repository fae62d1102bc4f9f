// Where things are on disk: the machine's standard folders by selector, and the
// installation folders of the maker's products, read from their pointer files.
#pragma once
#include <cstddef>

namespace kvt {

inline constexpr std::size_t kFolderSize = 256;  // a folder text and its terminator

// The folder for a selector 0 to 8 (see platform/folders.h; 2 is the private temporary
// folder "<temp>Velmora", created at the first request). Each answer is kept for the life
// of the process; an empty answer is asked for again next time. The text must not be
// changed or freed. Any other selector gives an empty text.
const char* GetAppFolder(int selector);

// The installation folder of a product, from the first line of the pointer file
// "<common app data>/Velmora/<product>"; the program's own folder when `product` is null.
// Without a pointer file the answer is the pointer file's own path; when that path does
// not fit in a folder text, the answer is empty. The text lives in a buffer of the calling
// thread, overwritten by that thread's next call.
const char* GetProgramFolder(const char* product);

}  // namespace kvt
