// The wire: exact-length reads and writes, client byte order and the command codes.
#pragma once
#include <cstddef>
#include <cstdint>

#include "server/connection.h"
#include "server/protocol.h"

namespace kvt {

// Reads exactly `count` bytes unless the peer closes or a receive fails; returns how many
// arrived. Blocks without a time-out.
int RecvAll(net::Socket socket, void* buffer, int count);

// Writes exactly `count` bytes: returns count, 0 when a send returned 0, -1 on failure.
int SendAll(net::Socket socket, const void* buffer, int count);

// Reads and drops `count` bytes of a request that can't be kept, so that the next frame is
// read where the client put it. Stops early when the peer has gone.
void DrainBytes(net::Socket socket, std::uint32_t count);

// Client order: little-endian when the marker arrived as 04 03 02 01, else big-endian.
bool ClientIsLittleEndian(const ConnectionRecord& record);
std::uint32_t GetClientU32(const ConnectionRecord& record, const std::uint8_t bytes[4]);
void PutClientU32(const ConnectionRecord& record, std::uint8_t bytes[4], std::uint32_t value);

// The few integers that are little-endian whatever the marker.
std::uint32_t GetLe32(const std::uint8_t bytes[4]);
void PutLe32(std::uint8_t bytes[4], std::uint32_t value);

// True when a fixed-width text field holds its terminator within its width.
inline bool FieldHasEnd(const char* field, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i)
    if (field[i] == '\0') return true;
  return false;
}

}  // namespace kvt
