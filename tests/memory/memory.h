// An in-memory machine for tests and fuzzing. Linked in place of posix/ or win32/ (CMake's
// kvt_platform_memory), it implements every header of src/platform: files, folders and the
// folder search held in memory; sockets as in-memory byte pipes; program starts recorded
// instead of made; the scripted spooler and service control manager (spooler_double.h,
// service_double.h); a seeded random source, so that a run replays exactly. Feature code is
// the same as in the real programs. Safe to use from several threads at once.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/net.h"

namespace kvt::memory {

// The standard folders of the machine (selector: folder); the temporary path ends with "/".
inline constexpr const char* kProgramFolder = "/kvt";    // 0, 7, 8: the running program's
inline constexpr const char* kProgramPath = "/kvt/kvtnetd";
inline constexpr const char* kHome = "/home/op";          // 1; 4 and 5 are below it
inline constexpr const char* kCommonData = "/data";       // 3
inline constexpr const char* kProgramFiles = "/programs";  // 6
inline constexpr const char* kTempPath = "/tmp/";

// A fresh machine: only the standard folders exist, no program, no connection, no spooler
// printer; the random source starts again from `seed`; nothing is scripted to fail.
void Reset(std::uint32_t seed = 0);

// ---- Files and folders ----
// Writes a file, making its folders. `size`, when given, is what the file's status says
// (a file of 2 GiB without its bytes): reads give the content, then the file ends.
void PutFile(const std::string& path, std::string_view content, std::uint32_t mtime = 0,
             std::optional<std::int64_t> size = std::nullopt);
void PutFolder(const std::string& path);
// From now on Reset brings back the files and folders as they are now (and copies nothing
// when nothing changed them since), instead of only the standard folders.
void KeepFiles();
// The running program's path until the next Reset.
void SetProgramPath(const std::string& path);
// A file's content; none when there is no file at that path.
std::optional<std::string> FileContent(const std::string& path);
// The names of a folder's files and folders, in byte order.
std::vector<std::string> Listing(const std::string& folder);
// Files open for reading now: every reader must be closed again.
int OpenReaders();
// From now on only `bytes` more are written to files, as on a full disk.
void LimitWrites(std::size_t bytes);
// Reads of this file fail after `bytes`, as on a failing disk.
void BreakReads(const std::string& path, std::size_t bytes);

// ---- Programs ----
// A program can be started when a file lies at its path. Each start's entries (the program
// first), in order:
const std::vector<std::vector<std::string>>& Starts();
// Programs run and waited for end with this code (0 at first).
void SetExitCode(std::uint32_t code);
// Whether the platform joins a program's entries into one command line, as Windows does.
void SetJoinsEntries(bool joins);
// A handed-off program starts, but the socket can't be passed to it.
void FailHandOffs(bool fail);

// ---- Sockets ----
// A connection: two sockets, each reading what the other sends.
struct Pair {
  net::Socket client, server;
};
Pair Connect();
// Sends `bytes` from `end` to its peer, then (when `shut`) closes the sending side.
void Write(net::Socket end, std::string_view bytes, bool shut = false);
// Bytes that arrive at `end` are counted and dropped (a client that never reads them).
void Discard(net::Socket end);
// Each receive at `end` gives at most `bytes` (short reads); 0: no limit.
void LimitReceives(net::Socket end, std::size_t bytes);
// After `bytes` more arrive at `end`, its peer's sends fail (the peer reset the connection).
void BreakAfter(net::Socket end, std::size_t bytes);
// Sockets not closed yet, of those that Connect and Accept made.
int OpenSockets();
// Connections for the listener: each is accepted once, in order; with none left, waiting
// on the listening sockets fails, and the listener returns.
void QueueForAccept(net::Socket serverEnd);
// The next `count` accepts fail; `exhausted`: for lack of descriptors (the connection stays).
void FailAccepts(int count, bool exhausted);
// The host's own name resolves to these addresses (none at first).
void SetHostAddresses(const std::vector<std::uint32_t>& addresses);
// The client side: the next net::Connect gets this socket (a Pair's client end); without
// one it fails with "Connection refused".
void OfferConnection(net::Socket clientEnd);

// ---- The process ----
void SetUsableMemory(std::uint64_t bytes);  // 1 GiB at first
// The next `count` thread starts fail.
void FailThreadStarts(int count);

// What the parts of the machine tell each other; not for tests.
namespace internal {
void ResetFiles();
void ResetSockets();
void ResetPrograms();
void ResetProcess(unsigned seed);
// Whether a plain file lies at `path` (a program can be started from it).
bool IsFile(const char* path);
}  // namespace internal

}  // namespace kvt::memory
