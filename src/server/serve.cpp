#include <cstring>

#include "server/connection.h"
#include "server/dispatch.h"
#include "server/wire.h"
#include "support/log.h"

namespace kvt {

namespace {

void ClosePath(ConnectionRecord* record) {
  LogWrite(kLogTag, "Closing connection...");
  net::Close(record->socket);
  EndConnection(record);
}

// "KVT" compared as text of at most three characters: a NUL among them is a mismatch.
bool HasMagic(const std::uint8_t frame[4]) {
  return std::strncmp(reinterpret_cast<const char*>(frame), "KVT", 3) == 0;
}

}  // namespace

void ServeConnection(void* argument) {
  auto* record = static_cast<ConnectionRecord*>(argument);
  if (RecvAll(record->socket, record->byteOrderMark, 4) < 4) return ClosePath(record);
  const std::uint8_t ready = 0x01;
  SendAll(record->socket, &ready, 1);  // a failure shows at the next frame read

  for (;;) {
    LogWrite(kLogTag, "Waiting command...");
    std::uint8_t frame[4];
    if (RecvAll(record->socket, frame, 4) < 4) {
      LogWrite(kLogTag, "Receive error");
      return ClosePath(record);
    }
    if (!HasMagic(frame)) {
      LogWrite(kLogTag, "Invalid command");
      return ClosePath(record);
    }
    const std::uint8_t code = frame[3];
    LogWrite(kLogTag, "Got command code: %d", code);
    if (code == CMD_CLOSE) return ClosePath(record);
    if (CommandHandler handler = HandlerFor(code)) {
      if (handler(*record) == Served::kConnectionEnded) return;
    }
  }
}

}  // namespace kvt
