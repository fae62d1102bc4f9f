// libFuzzer target of the other side of the wire: what kvtctl and kvtweb read from a server,
// when the server is hostile or broken. The input is
//   1 byte: the client's byte order (bit 0) and how many bytes each receive gives (bits 1-2),
//   4 bytes: the requests made on one connection, one byte each, in order,
//   the rest: every byte the "server" sends before it closes the connection.
// The client library (src/client) runs on the in-memory machine; each answer it accepts is
// also made into the JSON documents that kvtctl and kvtweb print. A crash, a leak, an
// allocation past libFuzzer's limit or a hang is a finding.
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>

#include "client/listing_json.h"
#include "client/print_client.h"
#include "client/spool_client.h"
#include "memory/memory.h"

namespace {

using namespace kvt;
using namespace kvt::client;

// The requests, picked by an input byte (modulo their number; bit 7 also picks a list).
using Request = void (*)(Connection&, std::uint8_t which, std::string* error);
const Request kRequests[] = {
    [](Connection& c, std::uint8_t, std::string* error) {
      if (auto records = ListJobRecords(c, error))
        json::Dump(json::Jobs(json::ParseJobRecords(*records)));
    },
    [](Connection& c, std::uint8_t, std::string* error) { ListsJob(c, "*0-7", error); },
    [](Connection& c, std::uint8_t which, std::string* error) {
      GetStoredList(c, which & 0x80 ? StoredList::kScanners : StoredList::kPrinters, error);
    },
    [](Connection& c, std::uint8_t, std::string*) {
      std::size_t taken = 0;
      c.GetGamut("Proofs", "Over", [&](const char*, std::size_t n) { return (taken += n) < 20000; });
    },
    [](Connection& c, std::uint8_t, std::string*) {
      if (auto configs = c.ListConfigs("Proofs")) json::Dump(json::Configs("Proofs", *configs));
    },
    [](Connection& c, std::uint8_t, std::string*) { c.RegisterColorTable("Table", "0123456789"); },
    [](Connection& c, std::uint8_t, std::string*) {
      if (auto name = FreshJobName(c)) json::TimeOfJobName(*name);
    },
    [](Connection& c, std::uint8_t, std::string* error) {
      std::size_t left = 3000;
      UploadSpool(c, "123456789012345", 3000, [&](char* buffer, std::size_t size) {
            const std::size_t n = size < left ? size : left;
            for (std::size_t i = 0; i < n; ++i) buffer[i] = 'u';
            return left -= n, n;
          }, nullptr, error);
    },
    [](Connection& c, std::uint8_t, std::string*) { CancelJobOrSpoolFile(c, "*1-2"); },
    [](Connection& c, std::uint8_t, std::string*) { DeleteServerFile(c, "/data/x"); },
    [](Connection& c, std::uint8_t, std::string*) { Quit(c, "a", "b"); },
    [](Connection& c, std::uint8_t, std::string*) { c.SendClose(); },
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 5) return 0;
  memory::Reset();
  const memory::Pair pair = memory::Connect();
  static constexpr std::size_t kReceiveLimits[] = {0, 1, 5, 4096};
  memory::LimitReceives(pair.client, kReceiveLimits[(data[0] >> 1) & 3]);
  memory::Write(pair.server, std::string_view(reinterpret_cast<const char*>(data) + 5, size - 5), true);
  memory::Discard(pair.server);
  memory::OfferConnection(pair.client);
  {
    Connection c;  // nothing waits: the server's bytes are all there, then its end
    if (c.Connect("127.0.0.1") && c.Open(data[0] & 1 ? ByteOrder::kBig : ByteOrder::kLittle))
      for (int i = 1; i <= 4; ++i) {
        std::string error;
        kRequests[data[i] % std::size(kRequests)](c, data[i], &error);
        json::Dump(json::Error(error + c.error()));
      }
    json::Dump(json::Ping("127.0.0.1:51470", c.order(), 0.25, c.error()));
  }
  net::Close(pair.server);
  if (memory::OpenSockets() != 0) std::abort();  // the client left its socket open
  return 0;
}
