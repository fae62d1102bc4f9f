// Stand-in for the colour-matching tool, for tests. In the folder named by KVT_STANDIN_DIR
// it writes "args" (each argument after the program's own name, one per line) and "data"
// (a copy of the file named by the last argument), then exits with the number in that
// folder's "exit-code" file, or 0 without one. Without KVT_STANDIN_DIR it only exits 0.
#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
  const char* dir = std::getenv("KVT_STANDIN_DIR");
  if (dir == nullptr || *dir == '\0') return 0;
  const std::string folder = dir;

  if (std::FILE* out = std::fopen((folder + "/data").c_str(), "wb")) {
    if (std::FILE* in = argc > 1 ? std::fopen(argv[argc - 1], "rb") : nullptr) {
      char buffer[8192];
      while (std::size_t n = std::fread(buffer, 1, sizeof buffer, in)) std::fwrite(buffer, 1, n, out);
      std::fclose(in);
    }
    std::fclose(out);
  }
  // Written last: a test that finds "args" finds "data" complete.
  if (std::FILE* out = std::fopen((folder + "/args").c_str(), "wb")) {
    for (int i = 1; i < argc; ++i) std::fprintf(out, "%s\n", argv[i]);
    std::fclose(out);
  }
  int code = 0;
  if (std::FILE* in = std::fopen((folder + "/exit-code").c_str(), "rb")) {
    if (std::fscanf(in, "%d", &code) != 1) code = 0;
    std::fclose(in);
  }
  return code;
}
