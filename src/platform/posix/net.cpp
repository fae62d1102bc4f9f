#include "platform/net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace kvt::net {

int Startup() {
  // A send to a client that has gone must not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  return 0;
}

int Recv(Socket s, void* buffer, int count) {
  ssize_t n;
  do n = ::recv(static_cast<int>(s), buffer, static_cast<size_t>(count), 0);
  while (n < 0 && errno == EINTR);
  return static_cast<int>(n);
}

int Send(Socket s, const void* buffer, int count) {
  ssize_t n;
  do n = ::send(static_cast<int>(s), buffer, static_cast<size_t>(count), MSG_NOSIGNAL);
  while (n < 0 && errno == EINTR);
  return static_cast<int>(n);
}

void Close(Socket s) { ::close(static_cast<int>(s)); }

int GetHostName(char* name, int size) { return ::gethostname(name, static_cast<size_t>(size)); }

int ResolveIPv4(const char* name, std::uint8_t (*addresses)[4], int max) {
  // Only the listener's start-up calls this, on the main thread before any connection
  // thread exists, so the resolver's shared result is safe to read.
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
  int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return kNoSocket;
  // Lets a restarted server bind while its old connections sit in TIME_WAIT; on Linux this
  // never lets two listeners share a port.
  int on = 1;
  ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  std::memcpy(&address.sin_addr, addr, 4);
  if (::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(s, backlog) != 0) {
    ::close(s);
    return kNoSocket;
  }
  return s;
}

int WaitReadable(const Socket* sockets, int count, bool* ready) {
  // poll rather than select: a listening descriptor may lie above FD_SETSIZE when the
  // process already holds many descriptors.
  pollfd fds[64];
  for (int i = 64; i < count; ++i) ready[i] = false;
  if (count > 64) count = 64;
  for (int i = 0; i < count; ++i) fds[i] = {static_cast<int>(sockets[i]), POLLIN, 0};
  int n;
  do n = ::poll(fds, static_cast<nfds_t>(count), -1);
  while (n < 0 && errno == EINTR);
  for (int i = 0; i < count; ++i) ready[i] = n > 0 && (fds[i].revents & (POLLIN | POLLERR));
  return n;
}

Socket Accept(Socket listener, bool* exhausted) {
  int s;
  do s = ::accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_CLOEXEC);
  while (s < 0 && errno == EINTR);
  if (exhausted != nullptr)
    *exhausted = s < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM);
  return s < 0 ? kNoSocket : s;
}

Socket OpenSpare() {
  int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  return fd < 0 ? kNoSocket : fd;
}

void Refuse(Socket s) {
  // The end goes out first: a close with the client's opening bytes still unread would
  // otherwise send a reset in its place.
  ::shutdown(static_cast<int>(s), SHUT_WR);
  ::close(static_cast<int>(s));
}

Socket Connect(const char* host, std::uint16_t port, int* error) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  char service[8];
  std::snprintf(service, sizeof service, "%u", static_cast<unsigned>(port));
  if (int rc = ::getaddrinfo(host, service, &hints, &found); rc != 0) {
    *error = rc == EAI_SYSTEM ? errno : EHOSTUNREACH;
    return kNoSocket;
  }
  int s = -1;
  *error = 0;
  for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
    s = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (s < 0) {
      *error = errno;
      continue;
    }
    if (::connect(s, a->ai_addr, a->ai_addrlen) == 0) break;
    *error = errno;
    ::close(s);
    s = -1;
  }
  ::freeaddrinfo(found);
  if (s < 0) return kNoSocket;
  int on = 1;
  ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return s;
}

bool SetRecvTimeout(Socket s, int milliseconds) {
  timeval tv{milliseconds / 1000, (milliseconds % 1000) * 1000};
  return ::setsockopt(static_cast<int>(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

const char* ErrorText(int error, char* buffer, std::size_t size) {
  std::snprintf(buffer, size, "%s", std::strerror(error));
  return buffer;
}

}  // namespace kvt::net
