// kvtweb's HTTP front on libmicrohttpd: the request rules, the routes, and the answers built
// from the fleet's snapshot (render.h).
//
// Safe by default: it listens on loopback only unless told otherwise; it answers only
// requests whose Host names it and whose Origin, if any, is its own (so that neither another
// web site nor a rebound DNS name can use it); a state-changing request is a POST that must
// carry the token the page got from it; it never deletes or reaches anything by path.
//
// Slow clients: a status page is often opened to the shop's network, where anyone can hold
// connections open and send a request head a byte at a time. A thread per connection (as a
// worker pool of blocking reads) is then taken by whoever holds the most connections. The
// library's event loop instead serves every connection from one thread, so a slow or idle
// connection costs only its descriptor and its bounded buffer: caps on the connections in
// all and per client address bound those, and a connection idle for 10 s is closed. The
// two requests that talk to a server (cancel, configurations) are suspended while a small
// pool of workers does that, so they never stall the event loop either.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fleet.h"

namespace kvtweb {

struct WebOptions {
  std::string listenHost = "127.0.0.1";
  int listenPort = 51480;
  std::vector<std::string> allowHosts;
  std::string token;
  std::string version;
};

class Web {
 public:
  Web(const WebOptions& options, Fleet& fleet);
  ~Web();
  Web(const Web&) = delete;
  Web& operator=(const Web&) = delete;
  // Starts serving; false, with *error, when it cannot listen.
  bool Start(std::string* error);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace kvtweb
