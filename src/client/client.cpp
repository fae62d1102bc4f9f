#include "client/client.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

namespace kvt::client {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kMaxChunk = 1 << 20;  // one Recv/Send call; keeps counts within int

std::string Format(const char* format, auto... values) {
  char text[256];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

void PutU32(std::uint8_t b[4], std::uint32_t v, ByteOrder order) {
  for (int i = 0; i < 4; ++i) {
    int shift = order == ByteOrder::kLittle ? 8 * i : 24 - 8 * i;
    b[i] = static_cast<std::uint8_t>(v >> shift);
  }
}

std::uint32_t GetU32(const std::uint8_t b[4], ByteOrder order) {
  std::uint32_t v = 0;
  for (int i = 0; i < 4; ++i) {
    int shift = order == ByteOrder::kLittle ? 8 * i : 24 - 8 * i;
    v |= std::uint32_t{b[i]} << shift;
  }
  return v;
}

// The server reads a text field up to its NUL: the field must hold the text and the NUL.
bool FitsField(std::string_view text, std::size_t width) {
  return text.size() < width && text.find('\0') == std::string_view::npos;
}

}  // namespace

ByteOrder OrderOfMarker(const Marker& marker) {
  return marker == kLittleEndianMarker ? ByteOrder::kLittle : ByteOrder::kBig;
}

const char* OrderName(ByteOrder order) {
  return order == ByteOrder::kLittle ? "little-endian" : "big-endian";
}

Connection::~Connection() { Close(); }

Status Connection::Ended(Status status, std::string text) {
  Fail(status, std::move(text));
  return status;
}

Connection::Connection(Connection&& other) noexcept { *this = std::move(other); }

Connection& Connection::operator=(Connection&& other) noexcept {
  if (this != &other) {
    Close();
    socket_ = std::exchange(other.socket_, net::kNoSocket);
    order_ = other.order_;
    timeoutMs_ = other.timeoutMs_;
    status_ = other.status_;
    error_ = std::move(other.error_);
  }
  return *this;
}

bool Connection::Fail(Status status, std::string text) {
  status_ = status;
  error_ = std::move(text);
  return false;
}

bool Connection::Connect(const std::string& host, std::uint16_t port) {
  Close();
  status_ = Status::kOk;
  error_.clear();
  static const int startup = net::Startup();  // once per process
  if (startup != 0)
    return Fail(Status::kFailed, Format("cannot start the sockets library (error %d)", startup));
  int error = 0;
  socket_ = net::Connect(host.c_str(), port, &error);
  if (socket_ == net::kNoSocket) {
    char reason[128];
    return Fail(Status::kFailed, Format("cannot connect to %s:%u: %s", host.c_str(), unsigned{port},
                                        net::ErrorText(error, reason, sizeof reason)));
  }
  return true;
}

void Connection::Close() {
  if (socket_ != net::kNoSocket) net::Close(socket_);
  socket_ = net::kNoSocket;
}

bool Connection::Open(ByteOrder order) {
  return Open(order == ByteOrder::kLittle ? kLittleEndianMarker : kBigEndianMarker);
}

bool Connection::Open(const Marker& marker) {
  order_ = OrderOfMarker(marker);
  if (!SendBytes(marker.data(), marker.size())) return false;
  std::optional<std::uint8_t> answer = RecvByte();
  if (!answer) return Fail(status_, "opening exchange: " + error_);
  if (*answer != 0x01)
    return Fail(Status::kFailed, Format("opening exchange: the server answered 0x%02x, not 0x01",
                                        unsigned{*answer}));
  return true;
}

bool Connection::SendBytes(const void* data, std::size_t count) {
  if (!IsConnected()) return Fail(Status::kFailed, "not connected");
  const auto* bytes = static_cast<const char*>(data);
  std::size_t sent = 0;
  while (sent < count) {
    int chunk = static_cast<int>(std::min(count - sent, kMaxChunk));
    int n = net::Send(socket_, bytes + sent, chunk);
    if (n <= 0)
      return Fail(Status::kFailed,
                  Format("the connection broke after %zu of %zu bytes were sent", sent, count));
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

bool Connection::SendFrame(std::uint8_t code) {
  const std::uint8_t frame[4] = {'K', 'V', 'T', code};
  return SendBytes(frame, sizeof frame);
}

bool Connection::SendU32(std::uint32_t value) {
  std::uint8_t b[4];
  PutU32(b, value, order_);
  return SendBytes(b, sizeof b);
}

bool Connection::SendLe32(std::uint32_t value) {
  std::uint8_t b[4];
  PutU32(b, value, ByteOrder::kLittle);
  return SendBytes(b, sizeof b);
}

bool Connection::SendText(std::string_view text, std::size_t width) {
  if (!FitsField(text, width))
    return Fail(Status::kFailed,
                Format("text of %zu characters does not fit a %zu-byte field", text.size(), width));
  std::string field(width, '\0');
  field.replace(0, text.size(), text);
  return SendBytes(field.data(), field.size());
}

Status Connection::RecvBytes(void* data, std::size_t count) {
  return RecvUntil(data, count, Clock::now() + milliseconds(timeoutMs_));
}

Status Connection::RecvAppend(std::string& out, std::size_t count) {
  constexpr std::size_t kPiece = 64 << 10;
  const Clock::time_point deadline = Clock::now() + milliseconds(timeoutMs_);
  for (std::size_t left = count; left > 0;) {
    const std::size_t at = out.size(), piece = std::min(left, kPiece);
    out.resize(at + piece);
    if (RecvUntil(out.data() + at, piece, deadline) != Status::kOk) {
      out.resize(at);
      return status_;
    }
    left -= piece;
  }
  return Status::kOk;
}

Status Connection::RecvUntil(void* data, std::size_t count, Clock::time_point deadline) {
  if (!IsConnected()) return Ended(Status::kFailed, "not connected");
  auto* bytes = static_cast<char*>(data);
  std::size_t got = 0;
  while (got < count) {
    auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) break;
    if (!net::SetRecvTimeout(socket_, static_cast<int>(left)))
      return Ended(Status::kFailed, "cannot set the receive time-out");
    const Clock::time_point started = Clock::now();
    int n = net::Recv(socket_, bytes + got, static_cast<int>(std::min(count - got, kMaxChunk)));
    if (n > 0) {
      got += static_cast<std::size_t>(n);
      continue;
    }
    if (n == 0)
      return Ended(
          Status::kClosed,
          got == 0 ? std::string("the server closed the connection")
                   : Format("the server closed the connection after %zu of %zu bytes", got, count));
    // The platform does not say why a receive failed: one that waited out (nearly) its whole
    // time-out timed out; one that failed sooner met a broken connection.
    if (Clock::now() - started < milliseconds(left) * 9 / 10)
      return Ended(Status::kFailed,
                   Format("the connection broke after %zu of %zu bytes", got, count));
    break;
  }
  if (got == count) {
    error_.clear();
    return status_ = Status::kOk;
  }
  const char* text = "no answer from the server within %d ms (%zu of %zu bytes came)";
  return Ended(Status::kTimedOut, Format(text, timeoutMs_, got, count));
}

std::optional<std::uint8_t> Connection::RecvByte() {
  std::uint8_t b;
  if (RecvBytes(&b, 1) != Status::kOk) return std::nullopt;
  return b;
}

std::optional<std::uint32_t> Connection::RecvU32() {
  std::uint8_t b[4];
  if (RecvBytes(b, sizeof b) != Status::kOk) return std::nullopt;
  return GetU32(b, order_);
}

std::optional<std::uint32_t> Connection::RecvLe32() {
  std::uint8_t b[4];
  if (RecvBytes(b, sizeof b) != Status::kOk) return std::nullopt;
  return GetU32(b, ByteOrder::kLittle);
}

std::optional<std::string> Connection::RecvText(std::size_t width) {
  std::string field(width, '\0');
  if (RecvBytes(field.data(), width) != Status::kOk) return std::nullopt;
  field.resize(field.find('\0') == std::string::npos ? width : field.find('\0'));
  return field;
}

bool Connection::ExpectEnd() {
  std::uint8_t b;
  switch (RecvBytes(&b, 1)) {
    case Status::kClosed:
      status_ = Status::kOk;
      error_.clear();
      return true;
    case Status::kOk:
      return Fail(Status::kFailed,
                  Format("the server sent 0x%02x instead of closing the connection", unsigned{b}));
    case Status::kTimedOut:
      return Fail(Status::kTimedOut,
                  Format("the server did not close the connection within %d ms", timeoutMs_));
    case Status::kFailed:
      break;
  }
  return false;
}

bool Connection::SendClose() {
  bool ended = SendFrame(CMD_CLOSE) && ExpectEnd();
  Close();
  return ended;
}

std::optional<GamutInfo> Connection::GetGamut(std::string_view folder, std::string_view base,
                                              const Sink& sink) {
  // Checked before a byte goes out, so that a refused request leaves the stream in step.
  if (!FitsField(folder, 100) || !FitsField(base, 40)) {
    Fail(Status::kFailed, "a gamut folder name has at most 99 characters, a file name 39");
    return std::nullopt;
  }
  if (!SendFrame(CMD_GET_GAMUT) || !SendText(folder, 100) || !SendText(base, 40))
    return std::nullopt;
  GamutInfo info;
  std::optional<std::uint32_t> mtime = RecvU32(), size;  // the time comes first
  if (!mtime || !(size = RecvU32())) return std::nullopt;
  info.mtime = *mtime;
  info.size = *size;
  char buffer[8192];
  for (std::uint32_t left = info.size; left > 0;) {
    std::size_t piece = std::min<std::size_t>(left, sizeof buffer);
    if (RecvBytes(buffer, piece) != Status::kOk) return std::nullopt;
    if (!sink(buffer, piece)) {
      Close();
      Fail(Status::kFailed, "the content could not be stored");
      return std::nullopt;
    }
    left -= static_cast<std::uint32_t>(piece);
  }
  return info;
}

std::optional<std::vector<ConfigRecord>> Connection::ListConfigs(std::string_view folder) {
  if (!FitsField(folder, 80)) {
    Fail(Status::kFailed, "a configuration folder name has at most 79 characters");
    return std::nullopt;
  }
  if (!SendFrame(CMD_LIST_CONFIGS) || !SendText(folder, 80)) return std::nullopt;
  std::optional<std::uint32_t> count = RecvU32();
  if (!count) return std::nullopt;
  // Grown record by record: a bad count runs into the time-out, not into a huge block.
  std::vector<ConfigRecord> records;
  for (std::uint32_t i = 0; i < *count; ++i) {
    std::uint8_t b[48];
    if (RecvBytes(b, sizeof b) != Status::kOk) return std::nullopt;
    ConfigRecord& record = records.emplace_back();
    std::copy(b, b + 40, record.field.begin());
    record.size = GetU32(b + 40, ByteOrder::kLittle);  // little-endian for every client
    record.mtime = GetU32(b + 44, order_);
  }
  return records;
}

std::optional<std::uint32_t> Connection::RegisterColorTable(std::string_view name,
                                                            std::string_view data) {
  if (name.size() > UINT32_MAX || data.size() > UINT32_MAX) {
    Fail(Status::kFailed, "a colour table's name and data have at most 4 GiB - 1 bytes each");
    return std::nullopt;
  }
  // The lengths and the result are little-endian whatever the client order.
  if (!SendFrame(CMD_REGISTER_COLOR_TABLE) || !SendLe32(static_cast<std::uint32_t>(name.size())) ||
      !SendBytes(name.data(), name.size()) ||
      !SendLe32(static_cast<std::uint32_t>(data.size())) || !SendBytes(data.data(), data.size()))
    return std::nullopt;
  return RecvLe32();
}

std::string Ping(const std::string& host, std::uint16_t port, ByteOrder order, int timeoutMs) {
  Connection connection;
  connection.SetTimeout(timeoutMs);
  if (!connection.Connect(host, port) || !connection.Open(order) || !connection.SendClose())
    return connection.error();
  return {};
}

}  // namespace kvt::client
