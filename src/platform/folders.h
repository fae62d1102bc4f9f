// The machine's standard folders, as the platform names them. Caching, the private
// temporary folder's name and the pointer files live in support/folders.
#pragma once
#include <cstddef>

namespace kvt::folders {

// The platform's answer for a folder selector, without a closing separator:
//   0, 7, 8  the folder of the running program
//   1        the user's profile folder
//   3        the common application data folder
//   4        the user's documents folder
//   5        the user's desktop folder
//   6        the program-files folder for 32-bit programs
// Selector 2 is composed by the caller from TempPath(). Returns false, and leaves
// `out` empty, when the platform gives nothing or the answer does not fit in `size`.
bool StandardFolder(int selector, char* out, std::size_t size);

// The full path of the running program's file (Windows: GetModuleFileNameA with no module).
// False, and `out` empty, when the platform gives none or the path does not fit in `size`.
bool ProgramPath(char* out, std::size_t size);

// The temporary-files path, ending with a separator. False when none or too long.
bool TempPath(char* out, std::size_t size);

// Creates one folder with default permissions; an existing folder is not an error.
bool MakeFolder(const char* path);

}  // namespace kvt::folders
