// Sockets: the thin layer under the listener, the command loop and the client library.
// Windows: Winsock 2.2. POSIX: BSD sockets; a send to a vanished peer never raises SIGPIPE.
#pragma once
#include <cstddef>
#include <cstdint>

namespace kvt::net {

using Socket = std::intptr_t;            // SOCKET on Windows, a descriptor on POSIX
inline constexpr Socket kNoSocket = -1;  // INVALID_SOCKET on both

// Starts the sockets library asking for version 2.2; returns its result code
// (0 on success, a WSA error code otherwise). POSIX: always 0.
int Startup();

// One receive / one send call with flags 0: the byte count, 0 when the peer closed,
// or a negative value on error.
int Recv(Socket s, void* buffer, int count);
int Send(Socket s, const void* buffer, int count);
void Close(Socket s);

// The host's own name, NUL-terminated within `size` bytes; 0 on success.
int GetHostName(char* name, int size);

// The host lookup the listener uses (gethostbyname): the IPv4 addresses of `name`
// in the order of the resolver's list, at most `max`; returns how many were stored.
int ResolveIPv4(const char* name, std::uint8_t (*addresses)[4], int max);

// socket(AF_INET, SOCK_STREAM, 0), bind to addr:port, listen(backlog).
// kNoSocket when any step fails; the half-made socket is closed.
Socket OpenListener(const std::uint8_t addr[4], std::uint16_t port, int backlog);

// select() for readability on `count` listening sockets, no time-out.
// Returns -1 on failure, 0 if nothing is ready, else the number ready; ready[i] is set
// for each socket that can accept.
int WaitReadable(const Socket* sockets, int count, bool* ready);

// accept() on a listening socket; kNoSocket on failure. *exhausted tells whether it failed
// for lack of descriptors or buffers (EMFILE, ENFILE, ENOBUFS, ENOMEM; WSAEMFILE,
// WSAENOBUFS): the connection then stays queued and the socket stays ready.
Socket Accept(Socket listener, bool* exhausted = nullptr);

// A descriptor (Windows: a socket) held only so that it can be let go when the process has
// none left; kNoSocket when none could be had. Close it with Close.
Socket OpenSpare();

// Ends a connection the server will not serve so that its client reads the end of the
// stream (the end is sent before the socket is closed) instead of a reset.
void Refuse(Socket s);

// Client side. Connects to host:port (name or dotted address); on failure returns
// kNoSocket and stores the platform's error code in *error.
Socket Connect(const char* host, std::uint16_t port, int* error);
// Receive time-out for a client socket, in milliseconds (0 = none).
bool SetRecvTimeout(Socket s, int milliseconds);
// Readable text of a platform error code ("Connection refused").
const char* ErrorText(int error, char* buffer, std::size_t size);

}  // namespace kvt::net
