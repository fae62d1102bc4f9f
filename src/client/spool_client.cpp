#include "client/spool_client.h"

#include <algorithm>
#include <vector>

namespace kvt::client {

std::optional<std::string> FreshJobName(Connection& connection) {
  if (!connection.SendFrame(CMD_NEW_JOB_NAME)) return std::nullopt;
  return connection.RecvText(kSpoolNameField);
}

std::optional<bool> UploadSpool(Connection& connection, std::string_view name, std::uint32_t length,
                                const Source& source, const Progress& progress,
                                std::string* error) {
  auto failed = [&](std::string text) -> std::optional<bool> {
    *error = std::move(text);
    return std::nullopt;
  };
  if (!connection.SendFrame(CMD_UPLOAD_SPOOL) || !connection.SendText(name, kSpoolNameField) ||
      !connection.SendU32(length))
    return failed(connection.error());
  std::vector<char> piece(std::min<std::size_t>(length, 1 << 16));
  std::uint64_t sent = 0;
  while (sent < length) {
    std::size_t want =
        static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), length - sent));
    std::size_t got = source(piece.data(), want);
    if (got == 0 || got > want) {
      connection.Close();  // a body cut short is stored nowhere
      return failed("the data ended after " + std::to_string(sent) + " of " +
                    std::to_string(length) + " bytes");
    }
    if (!connection.SendBytes(piece.data(), got)) return failed(connection.error());
    sent += got;
    if (progress) progress(sent, length);
  }
  std::optional<std::uint8_t> answer = connection.RecvByte();
  if (!answer) return failed(connection.error());
  return *answer == 1;
}

}  // namespace kvt::client
