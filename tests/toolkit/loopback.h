// A connection over loopback for the tests that drive the server's handlers in-process: the
// client's socket, and a connection record (allocated as the listener does) with the other end.
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

struct Loopback {
  Loopback() {
    EXPECT_EQ(net::Startup(), 0);
    const std::uint8_t address[4] = {127, 0, 0, 1};
    const net::Socket listener = net::OpenListener(address, 0, 1);
    int error = 0;
    client = net::Connect("127.0.0.1", net::LocalPort(listener), &error);
    EXPECT_NE(client, net::kNoSocket) << error;
    net::SetRecvTimeout(client, 20000);
    record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
    record->socket = net::Accept(listener);
    EXPECT_NE(record->socket, net::kNoSocket);
    net::Close(listener);
  }
  ~Loopback() { CloseClient(); }
  void CloseClient() {
    if (client != net::kNoSocket) net::Close(std::exchange(client, net::kNoSocket));
  }
  void Send(const std::string& bytes) {
    EXPECT_EQ(SendAll(client, bytes.data(), int(bytes.size())), int(bytes.size()));
  }
  // `count` bytes from the server, fewer when it closes the connection.
  std::string Read(std::size_t count) {
    std::string bytes(count, '\0');
    bytes.resize(std::size_t(RecvAll(client, bytes.data(), int(count))));
    return bytes;
  }
  std::string Ask(const std::string& request, std::size_t count) {
    Send(request);
    return Read(count);
  }
  net::Socket client = net::kNoSocket;
  ConnectionRecord* record = nullptr;
};

// Served by ServeConnection on its own thread, which releases the record when it ends; opened
// with the little-endian marker unless told not to.
struct Served : Loopback {
  explicit Served(bool open = true) : server(ServeConnection, record) {
    if (open) {
      EXPECT_EQ(Ask("\x04\x03\x02\x01", 1), "\x01");
    }
  }
  ~Served() { Leave(); }
  // The client goes; returns once the server's thread has ended.
  void Leave() {
    CloseClient();
    if (server.joinable()) server.join();
  }
  std::thread server;
};

}  // namespace kvt::testing_net
