// The client side of the KVTnetd wire protocol: a connection with the wire's primitives
// (frames, integers in client order, fixed-width text, raw bytes, exact-length reads with a
// time-out) and, on top of them, one helper per command. Built on the platform's sockets
// only, so the same code serves the Linux and the Windows programs.
//
// No exceptions: a call that fails returns false or an empty optional, and status() and
// error() tell why. After an error the connection is not usable any more; after a time-out
// it is on POSIX, but portable callers close it (on Windows a receive that timed out leaves
// the socket in an undefined state).
#pragma once
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/net.h"
#include "server/protocol.h"

namespace kvt::client {

inline constexpr std::uint16_t kDefaultPort = kServerPort;
inline constexpr int kDefaultTimeoutMs = 10000;

// The opening marker: 0x01020304 in the client's byte order. The server takes 04 03 02 01
// as little-endian and any other four bytes as big-endian.
using Marker = std::array<std::uint8_t, 4>;
inline constexpr Marker kLittleEndianMarker{4, 3, 2, 1};
inline constexpr Marker kBigEndianMarker{1, 2, 3, 4};

enum class ByteOrder { kLittle, kBig };
ByteOrder OrderOfMarker(const Marker& marker);
const char* OrderName(ByteOrder order);  // "little-endian" / "big-endian"

// How the last read ended.
enum class Status {
  kOk,
  kClosed,    // the server closed the connection (end of stream)
  kTimedOut,  // nothing more arrived within the time-out
  kFailed,    // not connected, or the connection broke (reset, send failure)
};

// CMD_GET_GAMUT's answer head. A missing file is answered with both zero.
struct GamutInfo {
  std::uint32_t mtime = 0;  // last modification, seconds since 1970 UTC (low 32 bits)
  std::uint32_t size = 0;
  bool found() const { return mtime != 0 || size != 0; }
};

// Takes a piece of streamed content; false stops the transfer.
using Sink = std::function<bool(const char* bytes, std::size_t count)>;

// One record of CMD_LIST_CONFIGS.
struct ConfigRecord {
  std::array<char, 40> field{};  // as sent: the base name, a NUL, the rest of the file name
  std::uint32_t size = 0;        // of the configuration file
  std::uint32_t mtime = 0;       // of its colour file (.gamut, else .icc, else .icm); 0: none
  std::string name() const {
    std::string_view all(field.data(), field.size());
    return std::string(all.substr(0, all.find('\0')));
  }
};

class Connection {
 public:
  Connection() = default;
  ~Connection();
  Connection(Connection&& other) noexcept;
  Connection& operator=(Connection&& other) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Connects to host:port. On failure error() reads
  // "cannot connect to 127.0.0.1:51470: Connection refused".
  bool Connect(const std::string& host, std::uint16_t port = kDefaultPort);
  bool IsConnected() const { return socket_ != net::kNoSocket; }
  void Close();

  // The time-out of every exact-length read that follows, in milliseconds (at least 1).
  void SetTimeout(int milliseconds) { timeoutMs_ = milliseconds > 0 ? milliseconds : 1; }

  // The opening exchange: sends the marker and expects the single byte 0x01. Integers in
  // client order then travel in the order the server derives from the marker.
  bool Open(ByteOrder order = ByteOrder::kLittle);
  bool Open(const Marker& marker);
  ByteOrder order() const { return order_; }

  // ---- Wire primitives ----
  bool SendBytes(const void* data, std::size_t count);
  bool SendFrame(std::uint8_t code);                        // "KVT" and the code
  bool SendU32(std::uint32_t value);                        // client order
  bool SendLe32(std::uint32_t value);                       // always little-endian
  bool SendText(std::string_view text, std::size_t width);  // NUL-padded to the full width

  // Reads exactly `count` bytes within the time-out; the bytes that did arrive stay in
  // `data`. kClosed also when the stream ended part-way.
  Status RecvBytes(void* data, std::size_t count);
  // The same onto the end of `out`, which grows as the bytes arrive: a length that a broken
  // server announces costs no more memory than the bytes that really come.
  Status RecvAppend(std::string& out, std::size_t count);
  std::optional<std::uint8_t> RecvByte();
  std::optional<std::uint32_t> RecvU32();   // client order
  std::optional<std::uint32_t> RecvLe32();  // always little-endian
  // A fixed-width text field: the text up to the first NUL (all of it when there is none).
  std::optional<std::string> RecvText(std::size_t width);

  // Waits for the server to close the connection without sending anything more; when it
  // does not, status() and error() say what came instead.
  bool ExpectEnd();

  // ---- Commands ----
  // CMD_CLOSE: the server closes the connection and answers nothing; then so do we.
  bool SendClose();

  // CMD_GET_GAMUT: the gamut file `base`.gamut of the gamut folder's sub-folder `folder`
  // (at most 99 and 39 characters). The content goes to `sink` in pieces of at most 8,192
  // bytes as it arrives, never held whole. When the sink refuses a piece the connection is
  // closed: the rest of the content would still be on its way.
  std::optional<GamutInfo> GetGamut(std::string_view folder, std::string_view base,
                                    const Sink& sink);
  // CMD_LIST_CONFIGS: the configurations of the sub-folder `folder` (at most 79
  // characters), oldest configuration file first. A missing folder lists none.
  std::optional<std::vector<ConfigRecord>> ListConfigs(std::string_view folder);
  // CMD_REGISTER_COLOR_TABLE: hands `data` under `name` to the server's colour tool and
  // returns its exit code, which is 0 also when the server refused the table or could not
  // start the tool.
  std::optional<std::uint32_t> RegisterColorTable(std::string_view name, std::string_view data);

  Status status() const { return status_; }
  const std::string& error() const { return error_; }

 private:
  bool Fail(Status status, std::string text);     // for calls that answer true/false
  Status RecvUntil(void* data, std::size_t count, std::chrono::steady_clock::time_point deadline);
  Status Ended(Status status, std::string text);  // for reads

  net::Socket socket_ = net::kNoSocket;
  ByteOrder order_ = ByteOrder::kLittle;
  int timeoutMs_ = kDefaultTimeoutMs;
  Status status_ = Status::kOk;
  std::string error_;
};

// Connects, does the opening exchange in the given order, ends with CMD_CLOSE and checks
// that the server closes the connection. Empty on success, else the error text.
std::string Ping(const std::string& host, std::uint16_t port, ByteOrder order,
                 int timeoutMs = kDefaultTimeoutMs);

}  // namespace kvt::client
