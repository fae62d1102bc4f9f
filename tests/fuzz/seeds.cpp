// Writes the fuzzer's seed corpus into the folder given: the conversations of the wire tests,
// one client each, as the client library sends them (the little-endian marker first).
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "toolkit/toolkit.h"

namespace {

using namespace kvt::test;

std::string Upload(const std::string& name, const std::string& body) {
  return Frame(3) + Field(name, 16) + Le32(std::uint32_t(body.size())) + body;
}
std::string Table(const std::string& name, const std::string& data) {
  return Frame(23) + Le32(std::uint32_t(name.size())) + name + Le32(std::uint32_t(data.size())) + data;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string header = "Proof.pdf" + std::string(1239, '\0');
  const std::string gamut = Frame(4) + Field("Proofs", 100);
  const std::vector<std::pair<const char*, std::string>> seeds = {
      {"close", Frame(0)},
      {"ignored-codes", Frame(12) + Frame(22) + Frame(255) + Frame(0)},
      {"wrong-magic", "KVU" + std::string(1, '\0')},
      {"jobs-and-references",
       Frame(1) + Frame(6) + Field("*0-7", 16) + Frame(6) + Field("*1-9", 16) + Frame(6) +
           Field("*5-1", 16) + Frame(1) + Frame(0)},
      {"lists", Frame(2) + Frame(10) + Frame(0)},
      {"name-upload-list-cancel",
       Frame(5) + Upload("123456789012346", header + "data") + Frame(1) +
           Frame(6) + Field("123456789012346", 16) + Frame(0)},
      {"upload-short-and-existing", Upload("Tiny", "x") + Upload("Short", "again") + Frame(0)},
      {"upload-huge-length", Frame(3) + Field("Huge", 16) + Le32(0xFFFFFFFFu) + "abc"},
      {"gamut", gamut + Field("Over", 40) + gamut + Field("Empty", 40) + gamut + Field("Missing", 40)},
      {"configs", Frame(11) + Field("Proofs", 80) + Frame(11) + Field("None", 80) + Frame(0)},
      {"color-table", Table("Table A", "0123456789abcdef") + Table("", "") + Frame(0)},
      {"color-table-huge", Frame(23) + Le32(5) + "Table" + Le32(0xFFFFFFF0u) + "abc"},
      {"delete", Frame(7) + Field("Corvina/PrinterList", 512) + Frame(6) + Field("Short", 16)},
      {"quit", Frame(9) + Field("a", 80) + Field("b", 80)},
      {"handoff", Frame(8) + "e"},
  };
  // Each also from a big-endian client, whose lengths then read differently.
  for (const auto& [name, conversation] : seeds) {
    const std::filesystem::path folder = argv[1];
    std::ofstream(folder / name, std::ios::binary) << std::string("\x04\x03\x02\x01", 4) << conversation;
    std::ofstream(folder / (std::string(name) + "-be"), std::ios::binary)
        << std::string("\x01\x02\x03\x04", 4) << conversation;
  }
  return 0;
}
