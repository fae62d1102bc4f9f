// A connection over loopback served in-process, for the tests that drive the server's
// command loop directly: ServeConnection runs on a thread of its own with a record allocated
// as the listener does, and releases it when it ends; the client's end is the test's.
#pragma once
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

#include "platform/net.h"
#include "server/connection.h"
#include "server/wire.h"

namespace kvt::testing_net {

struct Served {
  // Opened with `marker` (an empty one: not opened).
  explicit Served(const std::string& marker = "\x04\x03\x02\x01") {
    EXPECT_EQ(net::Startup(), 0);
    const std::uint8_t address[4] = {127, 0, 0, 1};
    const net::Socket listener = net::OpenListener(address, 0, 1);
    int error = 0;
    client = net::Connect("127.0.0.1", net::LocalPort(listener), &error);
    EXPECT_NE(client, net::kNoSocket) << error;
    net::SetRecvTimeout(client, 20000);
    auto* record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
    record->socket = net::Accept(listener);
    net::Close(listener);
    server = std::thread(ServeConnection, record);
    if (!marker.empty()) {
      EXPECT_EQ(Ask(marker, 1), "\x01");
    }
  }
  ~Served() { Leave(); }
  // The client goes; returns once the server's thread has ended.
  void Leave() {
    if (client != net::kNoSocket) net::Close(std::exchange(client, net::kNoSocket));
    if (server.joinable()) server.join();
  }
  void Send(const std::string& bytes) {
    EXPECT_EQ(SendAll(client, bytes.data(), int(bytes.size())), int(bytes.size()));
  }
  // `count` bytes from the server, fewer when it closes the connection.
  std::string Read(std::size_t count) {
    std::string bytes(count, '\0');
    bytes.resize(std::size_t(std::max(0, RecvAll(client, bytes.data(), int(count)))));
    return bytes;
  }
  std::string Ask(const std::string& request, std::size_t count) {
    Send(request);
    return Read(count);
  }
  net::Socket client = net::kNoSocket;
  std::thread server;
};

}  // namespace kvt::testing_net
