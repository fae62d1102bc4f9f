// Connections to the server's code on the in-memory machine: a Link drives its handlers
// directly; a Served connection is served by ServeConnection on a thread of its own and
// talked to through the client library.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>

#include "client/client.h"
#include "memory/memory.h"
#include "server/connection.h"

namespace kvt::test {

struct Link {
  Link() : pair(memory::Connect()) {
    // Allocated as the listener does; EndConnection releases it.
    record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
    record->socket = pair.server;
    std::copy_n("\x04\x03\x02\x01", 4, record->byteOrderMark);
  }
  void Send(const std::string& bytes) { memory::Write(pair.client, bytes); }
  std::string Answer() { return memory::Take(pair.client); }
  memory::Pair pair;
  ConnectionRecord* record;
};

struct Served {
  Served() : pair(memory::Connect()) {
    auto* record = static_cast<ConnectionRecord*>(std::calloc(1, sizeof(ConnectionRecord)));
    record->socket = pair.server;
    memory::OfferConnection(pair.client);
    server = std::thread(ServeConnection, record);
    EXPECT_TRUE(client.Connect("memhost") && client.Open()) << client.error();
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
