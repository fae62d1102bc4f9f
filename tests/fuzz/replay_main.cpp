// Runs a fuzz target once on every file named, or in a folder named, as libFuzzer's -runs=0
// does: the builds without libFuzzer (g++, the sanitizer builds, the mutation runs) replay the
// seeds and the regression inputs this way.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i])) inputs.emplace_back(argv[i]);
    else
      for (const auto& entry : fs::directory_iterator(argv[i])) inputs.push_back(entry.path());
  }
  for (const fs::path& input : inputs) {
    std::ifstream in(input, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  return inputs.empty() ? 1 : 0;  // nothing to replay is a mistake in the command
}
