// Process entry: the command text, its words and the run mode they choose.
#pragma once

namespace kvt {

inline constexpr int kCommandTextSize = 400;  // 399 characters and the terminator
inline constexpr int kWordTableSize = 30;     // entry 0, 28 words, the closing null entry

struct CommandLine {
  char text[kCommandTextSize];
  char* words[kWordTableSize];
  int count;  // entry 0 and the words, not the closing entry
};

// Composes "kvtnetd <arguments>" and splits it into words: blanks separate words, a word
// that begins with a double quote runs to the next double quote. False, with no words,
// when the text is longer than 399 characters or holds more than 28 words.
bool SplitCommandLine(const char* arguments, CommandLine& line);

enum class RunMode { kDebug, kPlainServer, kService, kInstall, kStop, kRemove, kNone };

// "-debug" anywhere wins; no word is the plain server; otherwise the first word alone.
RunMode ChooseRunMode(int count, char* const* words);

// The whole start-up: split, binary mode, sockets, run mode. Returns the exit code.
int RunProcess(const char* arguments);

// Exit code of a command line that does not fit the command text or the word table
// (ERROR_INVALID_PARAMETER): the process does nothing and prints nothing.
inline constexpr int kExitCommandLineTooLong = 87;

}  // namespace kvt
