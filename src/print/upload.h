// Spool file upload (CMD_UPLOAD_SPOOL) and the launcher of the programs it starts.
#pragma once
#include <cstdint>

#include "server/connection.h"

namespace kvt {

// CMD_UPLOAD_SPOOL: a 16-byte name, a length in client order and that many bytes. The body
// is received whole, then stored as "<SpoolFolder>/<name>.spl" (created, or cut and
// rewritten) and `jobfeeder` is started from the program folder of "Corvina". Answers the
// byte 1 when every byte was written, else 0.
Served UploadSpoolFile(ConnectionRecord& record);

// The longest body an upload may announce; a longer one is read off the connection and
// dropped without being kept, and the answer is 0.
inline constexpr std::uint32_t kMaxSpoolBody = 1u << 30;  // 1 GiB

// Bounds of RunProgram: the program path's characters and the arguments after it.
inline constexpr std::size_t kMaxProgramPath = 99;
inline constexpr int kMaxProgramArguments = 60;

// Starts `program` with the arguments that follow it, up to a null entry, and does not wait
// for it. Each entry, the program path first, reaches the program as one argument, blanks
// and all: where the platform joins them into one command line (Windows), each is put in
// double quotes. Returns the new process's identifier, or -1 when it was not started: also
// for a program path over 99 characters, more than 60 arguments, or an entry that quoting
// can't carry (a double quote in it, or a backslash at its end), on every platform alike.
std::intptr_t RunProgram(const char* program, ...)
#if defined(__GNUC__)
    __attribute__((sentinel))
#endif
    ;

// The same with the entries in an array: entries[0] is the program path, then the
// arguments, then a null entry.
std::intptr_t RunProgramList(const char* const* entries);

}  // namespace kvt
