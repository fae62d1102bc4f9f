// Helpers of the file-service tests: a scratch folder and files with chosen times.
#pragma once
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace kvt::testing_files {

namespace fs = std::filesystem;

// A fresh folder below the temporary folder for the running test, removed afterwards.
struct ScratchFolder {
  ScratchFolder() {
    fs::remove_all(path);
    fs::create_directories(path);
  }
  ~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  // Random: the Linux builds' test runs share the temporary folder and may overlap.
  const fs::path path = fs::temp_directory_path() /
                        ("kvt-" + std::to_string(std::random_device{}()) + "-" +
                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
};

inline void WriteFile(const fs::path& file, const std::string& content, unsigned seconds) {
  std::ofstream(file, std::ios::binary) << content;
  using namespace std::chrono;
  fs::last_write_time(file, file_clock::from_sys(sys_seconds{std::chrono::seconds{seconds}}));
}

inline std::string ReadFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// `count` bytes that differ from position to position.
inline std::string Pattern(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

}  // namespace kvt::testing_files
