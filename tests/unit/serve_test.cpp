#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "platform/net.h"
#include "server/connection.h"
#include "server/dispatch.h"
#include "server/wire.h"

namespace kvt {
namespace {

// A connected pair over loopback: the server end runs ServeConnection on its own thread.
class ServeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(net::Startup(), 0);
    const std::uint8_t loopback[4] = {127, 0, 0, 1};
    net::Socket listener = net::OpenListener(loopback, 0, 1);
    ASSERT_NE(listener, net::kNoSocket);
    int error = 0;
    client_ = net::Connect("127.0.0.1", net::LocalPort(listener), &error);
    ASSERT_NE(client_, net::kNoSocket) << error;
    net::SetRecvTimeout(client_, 10000);
    auto* record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
    record->socket = net::Accept(listener);
    net::Close(listener);
    ASSERT_NE(record->socket, net::kNoSocket);
    server_ = std::thread(ServeConnection, record);
  }
  void TearDown() override {
    net::Close(client_);
    if (server_.joinable()) server_.join();
  }
  void Send(const std::string& bytes) {
    ASSERT_EQ(SendAll(client_, bytes.data(), static_cast<int>(bytes.size())),
              static_cast<int>(bytes.size()));
  }
  // The next byte from the server, or -1 once it has closed the connection.
  int NextByte() {
    unsigned char byte;
    return net::Recv(client_, &byte, 1) == 1 ? byte : -1;
  }
  net::Socket client_ = net::kNoSocket;
  std::thread server_;
};

TEST_F(ServeTest, IgnoredCodesAreSkippedAndCodeZeroCloses) {
  Send(std::string("\x04\x03\x02\x01", 4));
  EXPECT_EQ(NextByte(), 0x01);
  for (int code : {12, 22, 24, 255}) Send(std::string("KVT") + char(code));
  // One byte per segment is still one frame.
  for (char c : std::string("KVT\0", 4)) Send(std::string(1, c));
  EXPECT_EQ(NextByte(), -1);  // nothing was answered, then the connection closed
}

TEST_F(ServeTest, WrongMagicClosesWithoutAnswer) {
  Send(std::string("\x01\x02\x03\x04", 4));
  EXPECT_EQ(NextByte(), 0x01);
  Send(std::string("KV\0\x0c", 4));
  EXPECT_EQ(NextByte(), -1);
}

TEST_F(ServeTest, ShortMarkerClosesAtOnce) {
  Send("\x04\x03");
  net::Close(client_);
  client_ = net::kNoSocket;
  server_.join();  // the thread ends: the record is released (the sanitizer build checks)
}

TEST(Wire, ClientOrderFollowsTheMarker) {
  ConnectionRecord record{};
  std::uint8_t bytes[4];
  const std::uint8_t little[4] = {4, 3, 2, 1}, big[4] = {1, 2, 3, 4}, zero[4] = {};
  for (const auto* marker : {little, big, zero}) {
    std::copy(marker, marker + 4, record.byteOrderMark);
    PutClientU32(record, bytes, 0x000009C0);
    const bool le = marker == little;
    EXPECT_EQ(ClientIsLittleEndian(record), le);
    EXPECT_EQ(bytes[0], le ? 0xC0 : 0x00);
    EXPECT_EQ(bytes[3], le ? 0x00 : 0xC0);
    EXPECT_EQ(GetClientU32(record, bytes), 0x000009C0u);
  }
  PutLe32(bytes, 3);
  EXPECT_EQ(bytes[0], 3);
  EXPECT_EQ(GetLe32(bytes), 3u);
}

TEST(Wire, CodesWithoutACommandHaveNoHandler) {
  for (int code = 12; code <= 22; ++code) EXPECT_EQ(HandlerFor(code), nullptr) << code;
  for (int code = 24; code <= 255; ++code) EXPECT_EQ(HandlerFor(code), nullptr) << code;
}

}  // namespace
}  // namespace kvt
