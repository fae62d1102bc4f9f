#include "server/wire.h"

namespace kvt {

int RecvAll(net::Socket socket, void* buffer, int count) {
  auto* bytes = static_cast<char*>(buffer);
  int received = 0;
  while (received < count) {
    int n = net::Recv(socket, bytes + received, count - received);
    if (n <= 0) break;
    received += n;
  }
  return received;
}

int SendAll(net::Socket socket, const void* buffer, int count) {
  const auto* bytes = static_cast<const char*>(buffer);
  int sent = 0;
  while (sent < count) {
    int n = net::Send(socket, bytes + sent, count - sent);
    if (n == 0) return 0;
    if (n < 0) return -1;
    sent += n;
  }
  return count;
}

void DrainBytes(net::Socket socket, std::uint32_t count) {
  char sink[8192];
  while (count > 0) {
    int chunk = count < sizeof sink ? static_cast<int>(count) : static_cast<int>(sizeof sink);
    if (RecvAll(socket, sink, chunk) < chunk) return;
    count -= static_cast<std::uint32_t>(chunk);
  }
}

std::uint32_t GetLe32(const std::uint8_t b[4]) {
  return std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8 | std::uint32_t{b[2]} << 16 |
         std::uint32_t{b[3]} << 24;
}

void PutLe32(std::uint8_t b[4], std::uint32_t v) {
  b[0] = static_cast<std::uint8_t>(v);
  b[1] = static_cast<std::uint8_t>(v >> 8);
  b[2] = static_cast<std::uint8_t>(v >> 16);
  b[3] = static_cast<std::uint8_t>(v >> 24);
}

bool ClientIsLittleEndian(const ConnectionRecord& record) {
  return GetLe32(record.byteOrderMark) == 0x01020304;
}

std::uint32_t GetClientU32(const ConnectionRecord& record, const std::uint8_t b[4]) {
  if (ClientIsLittleEndian(record)) return GetLe32(b);
  return std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 |
         std::uint32_t{b[3]};
}

void PutClientU32(const ConnectionRecord& record, std::uint8_t b[4], std::uint32_t v) {
  if (ClientIsLittleEndian(record)) return PutLe32(b, v);
  b[0] = static_cast<std::uint8_t>(v >> 24);
  b[1] = static_cast<std::uint8_t>(v >> 16);
  b[2] = static_cast<std::uint8_t>(v >> 8);
  b[3] = static_cast<std::uint8_t>(v);
}

}  // namespace kvt
