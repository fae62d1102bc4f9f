#include "platform/process.h"

#include <csignal>
#include <cstring>
#include <string>

namespace kvt::process {

const char* ArgumentText(int argc, char** argv) {
  // Quoting only what holds a blank (or is empty) gives back the same words when the text
  // is split; a double quote inside an argument cannot be carried and stays as it is.
  static std::string text;
  text.clear();
  for (int i = 1; i < argc; ++i) {
    if (i > 1) text += ' ';
    const char* word = argv[i];
    bool quote = word[0] == '\0' || std::strchr(word, ' ') != nullptr;
    if (quote) text += '"';
    text += word;
    if (quote) text += '"';
  }
  return text.c_str();
}

void SetBinaryMode() {}

void KeepRunningAtFileSizeLimit() { std::signal(SIGXFSZ, SIG_IGN); }

bool LocalTimeNow(std::tm* out) {
  std::time_t now = std::time(nullptr);
  return localtime_r(&now, out) != nullptr;
}

}  // namespace kvt::process
