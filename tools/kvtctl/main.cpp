// kvtctl: the operator's command-line tool for a KVTnetd server.
//   kvtctl [--host H] [--port P] [--big-endian] [--timeout S] <command> [arguments]
// Exit status: 0 on success, 1 on any failure (the reason goes to standard error).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/client.h"

namespace {

namespace client = kvt::client;

struct Options {
  std::string host = "127.0.0.1";
  std::uint16_t port = client::kDefaultPort;
  client::ByteOrder order = client::ByteOrder::kLittle;
  int timeoutMs = client::kDefaultTimeoutMs;
};

// A command gets the options and the words after its name; it returns the exit status.
using Run = int (*)(const Options& options, int argc, char** argv);

struct Command {
  const char* name;
  const char* arguments;  // as shown in the usage text
  const char* summary;
  Run run;
};

int Fail(const std::string& reason) {
  std::fprintf(stderr, "kvtctl: %s\n", reason.c_str());
  return 1;
}

int Ping(const Options& options, int argc, char**) {
  if (argc != 0) return Fail("ping takes no arguments");
  std::string error = client::Ping(options.host, options.port, options.order, options.timeoutMs);
  if (!error.empty()) return Fail(error);
  std::printf("KVTnetd at %s:%u answered (%s)\n", options.host.c_str(), unsigned{options.port},
              client::OrderName(options.order));
  return 0;
}

constexpr Command kCommands[] = {
    {"ping", "", "connect, do the opening exchange and close again", Ping},
};

void Usage(std::FILE* out) {
  std::fprintf(out,
               "usage: kvtctl [--host H] [--port P] [--big-endian] [--timeout S] <command> "
               "[arguments]\n"
               "  --host H      server address (default 127.0.0.1)\n"
               "  --port P      server port (default %u)\n"
               "  --big-endian  talk in big-endian byte order (default little-endian)\n"
               "  --timeout S   seconds to wait for each answer (default %d)\n"
               "  --help        show this text\n"
               "commands:\n",
               unsigned{client::kDefaultPort}, client::kDefaultTimeoutMs / 1000);
  for (const Command& command : kCommands) {
    std::string head = std::string(command.name) + " " + command.arguments;
    std::fprintf(out, "  %-12s  %s\n", head.c_str(), command.summary);
  }
}

// A whole decimal number within [low, high].
bool ParseNumber(const char* text, long low, long high, long* out) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) return false;
  *out = value;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  int i = 1;
  for (; i < argc && std::strncmp(argv[i], "-", 1) == 0; ++i) {
    const std::string option = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    long number = 0;
    if (option == "--help" || option == "-h") {
      Usage(stdout);
      return 0;
    } else if (option == "--big-endian") {
      options.order = client::ByteOrder::kBig;
    } else if (option == "--host" && value != nullptr && *value != '\0') {
      options.host = value;
      ++i;
    } else if (option == "--port" && ParseNumber(value, 1, 65535, &number)) {
      options.port = static_cast<std::uint16_t>(number);
      ++i;
    } else if (option == "--timeout" && ParseNumber(value, 1, 3600, &number)) {
      options.timeoutMs = static_cast<int>(number) * 1000;
      ++i;
    } else {
      Fail("unknown option, or a missing or bad value: " + option);
      Usage(stderr);
      return 1;
    }
  }
  if (i == argc) {
    Fail("no command given");
    Usage(stderr);
    return 1;
  }
  for (const Command& command : kCommands)
    if (std::strcmp(argv[i], command.name) == 0)
      return command.run(options, argc - i - 1, argv + i + 1);
  Fail(std::string("unknown command: ") + argv[i]);
  Usage(stderr);
  return 1;
}
