// Writes the seed corpora of the two fuzz targets into the folders given (nothing binary is
// kept in the tree): kvt_fuzz_seeds SERVE_FOLDER CLIENT_FOLDER.
//   serve: the conversations of the wire tests, every command among them, each from a
//          little- and a big-endian client, on machines that differ in what they have;
//   client: a server's answers to each request the client library makes, whole and broken.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "toolkit/toolkit.h"

namespace {

using namespace kvt::test;
namespace fs = std::filesystem;

const std::string kNext("\xFE\xFD\xFC\xFB", 4);

std::string Upload(const std::string& name, const std::string& body) {
  return Frame(3) + Field(name, 16) + Le32(std::uint32_t(body.size())) + body;
}
std::string Table(const std::string& name, const std::string& data) {
  return Frame(23) + Le32(std::uint32_t(name.size())) + name + Le32(std::uint32_t(data.size())) + data;
}
void Save(const fs::path& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary) << bytes;
}

void ServeSeeds(const fs::path& folder) {
  const std::string header = "Proof.pdf" + std::string(1239, '\0');
  const std::string gamut = Frame(4) + Field("Proofs", 100);
  const std::vector<std::pair<const char*, std::string>> seeds = {
      {"close", Frame(0)},
      {"ignored-codes", Frame(12) + Frame(22) + Frame(255) + Frame(0)},
      {"wrong-magic", "KVU" + std::string(1, '\0')},
      {"jobs-and-references",
       Frame(1) + Frame(6) + Field("*0-7", 16) + Frame(6) + Field("*1-10", 16) + Frame(6) +
           Field("*3-12", 16) + Frame(6) + Field("*2-11", 16) + Frame(1) + Frame(0)},
      {"lists", Frame(2) + Frame(10) + Frame(0)},
      {"name-upload-list-cancel",
       Frame(5) + Upload("123456789012346", header + "data") + Frame(1) +
           Frame(6) + Field("123456789012346", 16) + Frame(0)},
      {"upload-short-and-existing", Upload("Tiny", "x") + Upload("Short", "again") + Frame(0)},
      {"upload-huge-length", Frame(3) + Field("Huge", 16) + Le32(0xFFFFFFFFu) + "abc"},
      {"gamut", gamut + Field("Over", 40) + gamut + Field("Empty", 40) + gamut +
                    Field("Missing", 40) + gamut + Field("Shrunk", 40) + gamut + Field("Bad", 40)},
      {"configs", Frame(11) + Field("Proofs", 80) + Frame(11) + Field("None", 80) + Frame(0)},
      {"color-table", Table("Table A", "0123456789abcdef") + Table("", "") + Frame(0)},
      {"color-table-huge", Frame(23) + Le32(5) + "Table" + Le32(0xFFFFFFF0u) + "abc"},
      {"delete", Frame(7) + Field("/data/Corvina/PrinterList", 512) + Frame(6) + Field("Short", 16)},
      {"quit", Frame(9) + Field("a", 80) + Field("b", 80)},
      {"handoff", Frame(8) + "e"},
      {"two-clients", Upload("123456789012347", header) + kNext + std::string("\x04\x03\x02\x01", 4) +
                          Frame(1) + Frame(6) + Field("123456789012347", 16)},
  };
  // Machines: everything there; no programs and a failing spooler, short receives; the
  // Windows program's quoting, failing hand-offs, a full disk and a client that resets; a
  // thread that can't be started for the first connection.
  const std::string machines[] = {std::string("\x0C\x00\x00", 3), std::string("\x41\x40\x0B", 3),
                                  std::string("\xBE\x93\x35", 3), std::string("\x0C\x60\x00", 3)};
  for (std::size_t m = 0; m < std::size(machines); ++m)
    for (const auto& [name, conversation] : seeds)
      for (const char* marker : {"\x04\x03\x02\x01", "\x01\x02\x03\x04"})
        Save(folder / (name + std::string(marker[0] == 4 ? "-le" : "-be") + std::to_string(m)),
             machines[m] + std::string(marker, 4) + conversation);
}

void ClientSeeds(const fs::path& folder) {
  const std::string record =  // a job record: the document, the printer, the job's name
      Field("", 2) + Field("Proof.pdf", 160) + Field("KvtProof", 760) + Field("*0-7", 326);
  const std::string config = Field("Matte", 40) + Le32(5) + Le32(7000);
  const std::vector<std::pair<const char*, std::string>> seeds = {
      // requests, then what the server sends: the opening byte first
      {"jobs-lists-gamut-configs", std::string("\x00\x02\x03\x04", 4) + "\x01" + Le32(2496) + record +
                                       record + "A" + Le32(3) + "xyz" + Le32(5000) + Le32(4) +
                                       "gggg" + Le32(1) + config},
      {"table-name-upload-cancel", std::string("\x05\x06\x07\x08", 4) + "\x01" + Le32(7) +
                                       "123456789012345" + std::string(1, '\0') + "\x01" + "\x00"},
      {"delete-quit", std::string("\x09\x0A\x0B\x00", 4) + "\x01\x01"},
      {"lying-lengths", std::string("\x00\x02\x04\x03", 4) + "\x01" + Le32(0xFFFFFFF0u) + "\x07" +
                            Le32(0x7FFFFFFF) + Le32(0xFFFFFFFFu)},
      {"refused", std::string("\x00\x00\x00\x00", 4) + "\x02"},
  };
  for (const auto& [name, answers] : seeds)
    for (char order : {'\0', '\x01', '\x02'})  // little-endian, big-endian, one byte a receive
      Save(folder / (name + std::to_string(int(order))), std::string(1, order) + answers);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  for (int i = 1; i < 3; ++i) fs::create_directories(argv[i]);
  ServeSeeds(argv[1]);
  ClientSeeds(argv[2]);
  return 0;
}
