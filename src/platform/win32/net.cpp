#include "platform/net.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cstdio>
#include <cstring>

namespace kvt::net {

namespace {

SOCKET Native(Socket s) { return static_cast<SOCKET>(s); }
Socket Wrap(SOCKET s) { return s == INVALID_SOCKET ? kNoSocket : static_cast<Socket>(s); }

// The server's sockets are inheritable by default, and every program the server starts
// inherits its handles: it would hold the listeners and the other clients' connections open
// after the server closes them. A program is given a connection by duplication instead.
SOCKET NotInherited(SOCKET s) {
  if (s != INVALID_SOCKET)
    ::SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  return s;
}

}  // namespace

int Startup() {
  WSADATA data;
  return ::WSAStartup(0x0202, &data);
}

int Recv(Socket s, void* buffer, int count) {
  return ::recv(Native(s), static_cast<char*>(buffer), count, 0);
}

int Send(Socket s, const void* buffer, int count) {
  return ::send(Native(s), static_cast<const char*>(buffer), count, 0);
}

void Close(Socket s) { ::closesocket(Native(s)); }

int GetHostName(char* name, int size) { return ::gethostname(name, size) == 0 ? 0 : -1; }

int ResolveIPv4(const char* name, std::uint8_t (*addresses)[4], int max) {
  // Winsock keeps the result per thread, so it stays valid while this thread reads it.
  hostent* host = ::gethostbyname(name);
  if (host == nullptr || host->h_addrtype != AF_INET || host->h_addr_list == nullptr) return 0;
  int count = 0;
  for (char** entry = host->h_addr_list; *entry != nullptr && count < max; ++entry) {
    std::memset(addresses[count], 0, 4);
    std::memcpy(addresses[count], *entry, host->h_length < 4 ? host->h_length : 4);
    ++count;
  }
  return count;
}

Socket OpenListener(const std::uint8_t addr[4], std::uint16_t port, int backlog) {
  SOCKET s = NotInherited(::socket(AF_INET, SOCK_STREAM, 0));
  if (s == INVALID_SOCKET) return kNoSocket;
  // No SO_REUSEADDR: on Windows it would let another program bind the same port.
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  std::memcpy(&address.sin_addr, addr, 4);
  if (::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(s, backlog) != 0) {
    ::closesocket(s);
    return kNoSocket;
  }
  return Wrap(s);
}

int WaitReadable(const Socket* sockets, int count, bool* ready) {
  // A Winsock fd_set is a list of sockets, not a bit map: it holds FD_SETSIZE of them
  // whatever their values.
  int watched = count < FD_SETSIZE ? count : FD_SETSIZE;
  fd_set set;
  FD_ZERO(&set);
  for (int i = 0; i < watched; ++i) FD_SET(Native(sockets[i]), &set);
  int n = ::select(0, &set, nullptr, nullptr, nullptr);
  for (int i = 0; i < count; ++i)
    ready[i] = n > 0 && i < watched && FD_ISSET(Native(sockets[i]), &set);
  return n == SOCKET_ERROR ? -1 : n;
}

Socket Accept(Socket listener, bool* exhausted) {
  SOCKET s = NotInherited(::accept(Native(listener), nullptr, nullptr));
  if (exhausted != nullptr) {
    const int error = s == INVALID_SOCKET ? ::WSAGetLastError() : 0;
    *exhausted = error == WSAEMFILE || error == WSAENOBUFS;
  }
  return Wrap(s);
}

Socket OpenSpare() { return Wrap(NotInherited(::socket(AF_INET, SOCK_STREAM, 0))); }

void Refuse(Socket s) {
  ::shutdown(Native(s), SD_SEND);
  ::closesocket(Native(s));
}

Socket Connect(const char* host, std::uint16_t port, int* error) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* found = nullptr;
  char service[8];
  std::snprintf(service, sizeof service, "%u", static_cast<unsigned>(port));
  // getaddrinfo returns a Winsock error code itself.
  if (int rc = ::getaddrinfo(host, service, &hints, &found); rc != 0) {
    *error = rc;
    return kNoSocket;
  }
  SOCKET s = INVALID_SOCKET;
  *error = 0;
  for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
    s = ::socket(a->ai_family, a->ai_socktype, a->ai_protocol);
    if (s == INVALID_SOCKET) {
      *error = ::WSAGetLastError();
      continue;
    }
    if (::connect(s, a->ai_addr, static_cast<int>(a->ai_addrlen)) == 0) break;
    *error = ::WSAGetLastError();
    ::closesocket(s);
    s = INVALID_SOCKET;
  }
  ::freeaddrinfo(found);
  if (s == INVALID_SOCKET) return kNoSocket;
  BOOL on = TRUE;
  ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  return Wrap(s);
}

bool SetRecvTimeout(Socket s, int milliseconds) {
  if (milliseconds < 0) return false;
  DWORD timeout = static_cast<DWORD>(milliseconds);
  return ::setsockopt(Native(s), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout),
                      sizeof timeout) == 0;
}

const char* ErrorText(int error, char* buffer, std::size_t size) {
  if (buffer == nullptr || size == 0) return "";
  DWORD room = size > 0xFFFFu ? 0xFFFFu : static_cast<DWORD>(size);
  DWORD n = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             static_cast<DWORD>(error), 0, buffer, room, nullptr);
  if (n == 0 || n >= room) {  // no text for this code, or it did not fit
    std::snprintf(buffer, size, "error %d", error);
    return buffer;
  }
  // The system's text ends with a line end; the caller puts it inside a line of its own.
  while (n > 0 && (buffer[n - 1] == '\r' || buffer[n - 1] == '\n' || buffer[n - 1] == ' ')) --n;
  buffer[n] = '\0';
  return buffer;
}

}  // namespace kvt::net
