// A connection to the server's code on the in-memory machine, served by ServeConnection on a
// thread of its own and talked to through the client library.
#pragma once
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "client/client.h"
#include "memory/memory.h"
#include "server/connection.h"

namespace kvt::test {

struct Served {
  explicit Served(client::ByteOrder order = client::ByteOrder::kLittle) : pair(memory::Connect()) {
    auto* record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
    record->socket = pair.server;
    memory::OfferConnection(pair.client);
    server = std::thread(ServeConnection, record);
    EXPECT_TRUE(client.Connect("memhost") && client.Open(order)) << client.error();
  }
  ~Served() { Leave(); }
  // The client goes; returns once the connection's thread has ended.
  void Leave() {
    client.Close();
    if (server.joinable()) server.join();
  }
  memory::Pair pair;
  client::Connection client;
  std::thread server;
};

}  // namespace kvt::test
