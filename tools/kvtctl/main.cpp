// kvtctl: the operator's command-line tool for a KVTnetd server.
//   kvtctl [--host H] [--port P] [--big-endian] [--timeout S] [--json] <command> [arguments]
// Exit status: 0 on success, 1 on any failure (the reason goes to standard error).
// With --json the listing commands (ping, jobs, configs) print one JSON document instead
// of their table; kvtweb's /api endpoints answer the same documents.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>  // isatty, also in mingw-w64

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

#include "client/client.h"
#include "client/listing_json.h"
#include "client/print_client.h"
#include "client/spool_client.h"

namespace {

namespace client = kvt::client;

struct Options {
  std::string host = "127.0.0.1";
  std::uint16_t port = client::kDefaultPort;
  client::ByteOrder order = client::ByteOrder::kLittle;
  int timeoutMs = client::kDefaultTimeoutMs;
  bool json = false;
};

// A command gets the options and the words after its name; it returns the exit status.
using Run = int (*)(const Options& options, int argc, char** argv);

struct Command {
  const char* name;
  const char* arguments;  // as shown in the usage text
  const char* summary;
  Run run;
  bool lists = false;  // has a --json form
};

int Fail(const std::string& reason) {
  std::fprintf(stderr, "kvtctl: %s\n", reason.c_str());
  return 1;
}

int Ping(const Options& options, int argc, char**) {
  if (argc != 0) return Fail("ping takes no arguments");
  if (options.json) {
    client::Connection connection;
    connection.SetTimeout(options.timeoutMs);
    double ms = 0;
    std::string error =
        client::json::OpenTimed(connection, options.host, options.port, options.order, &ms);
    if (error.empty() && !connection.SendClose()) error = connection.error();
    if (!error.empty()) return Fail(error);
    const std::string server = options.host + ":" + std::to_string(options.port);
    const client::json::Json document = client::json::Ping(server, options.order, ms, {});
    std::printf("%s\n", client::json::Dump(document).c_str());
    return 0;
  }
  std::string error = client::Ping(options.host, options.port, options.order, options.timeoutMs);
  if (!error.empty()) return Fail(error);
  std::printf("KVTnetd at %s:%u answered (%s)\n", options.host.c_str(), unsigned{options.port},
              client::OrderName(options.order));
  return 0;
}

// Connects and does the opening exchange; false, with the reason printed, when that fails.
bool Connected(const Options& options, client::Connection& connection) {
  connection.SetTimeout(options.timeoutMs);
  if (connection.Connect(options.host, options.port) && connection.Open(options.order))
    return true;
  Fail(connection.error());
  return false;
}

// Ends a conversation whose command succeeded: CMD_CLOSE; the exit status.
int Finish(client::Connection& connection) {
  return connection.SendClose() ? 0 : Fail(connection.error());
}

std::string LocalTime(std::uint32_t seconds) {
  const std::time_t time = seconds;
  char text[32];
  const std::tm* local = std::localtime(&time);  // one thread: the shared buffer is fine
  if (local == nullptr || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", local) == 0)
    return std::to_string(seconds);
  return text;
}

int Gamut(const Options& options, int argc, char** argv) {
  std::vector<const char*> words;
  const char* output = nullptr;  // standard output when none
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc)
      output = argv[++i];
    else
      words.push_back(argv[i]);
  }
  if (words.size() != 2) return Fail("gamut takes FOLDER NAME [-o FILE]");
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  // The output file is made only once the gamut file is known to exist, so that a missing
  // one leaves an existing output file alone.
  std::FILE* out = nullptr;
  int writeError = 0;
  auto write = [&](const char* bytes, std::size_t count) {
    if (out == nullptr && output == nullptr) {
#if defined(_WIN32)
      _setmode(_fileno(stdout), _O_BINARY);
#endif
      out = stdout;
    }
    if (out == nullptr) out = std::fopen(output, "wb");
    if (out != nullptr && std::fwrite(bytes, 1, count, out) == count) return true;
    writeError = errno != 0 ? errno : EIO;
    return false;
  };
  std::optional<client::GamutInfo> info = connection.GetGamut(words[0], words[1], write);
  if (info && info->size == 0 && info->found()) write("", 0);  // an empty file is a file too
  if (out != nullptr && (out == stdout ? std::fflush(out) : std::fclose(out)) != 0 && !writeError)
    writeError = errno != 0 ? errno : EIO;
  if (output != nullptr && out != nullptr && (writeError || !info)) std::remove(output);
  if (writeError)
    return Fail(std::string("cannot write ") + (output ? output : "the standard output") + ": " +
                std::strerror(writeError));
  if (!info) return Fail(connection.error());
  if (!info->found())
    return Fail(std::string("no gamut file ") + words[1] + ".gamut in " + words[0]);
  if (output != nullptr)
    std::printf("%s: %u bytes, modified %s\n", output, unsigned{info->size},
                LocalTime(info->mtime).c_str());
  return Finish(connection);
}

int Configs(const Options& options, int argc, char** argv) {
  if (argc != 1) return Fail("configs takes FOLDER");
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  std::optional<std::vector<client::ConfigRecord>> records = connection.ListConfigs(argv[0]);
  if (!records) return Fail(connection.error());
  if (options.json) {
    std::printf("%s\n", client::json::Dump(client::json::Configs(argv[0], *records)).c_str());
  } else if (records->empty()) {
    std::printf("no configurations in %s\n", argv[0]);
  } else {
    std::printf("%-39s %10s  %s\n", "name", "size", "colour file time");
    for (const client::ConfigRecord& record : *records)
      std::printf("%-39s %10u  %s\n", record.name().c_str(), unsigned{record.size},
                  record.mtime == 0 ? "none" : LocalTime(record.mtime).c_str());
  }
  return Finish(connection);
}

int RegisterTable(const Options& options, int argc, char** argv) {
  if (argc != 2) return Fail("register-table takes NAME FILE");
  std::ifstream in(argv[1], std::ios::binary);
  if (!in.is_open()) return Fail(std::string("cannot open ") + argv[1]);
  const std::string data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad()) return Fail(std::string("cannot read ") + argv[1]);
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  std::optional<std::uint32_t> result = connection.RegisterColorTable(argv[0], data);
  if (!result) return Fail(connection.error());
  std::printf("%u\n", unsigned{*result});
  return Finish(connection);
}

// The progress bar on a terminal's standard error, redrawn when the percentage changes.
void DrawProgress(std::uint64_t sent, std::uint64_t total) {
  static int shown = -1;
  const int percent = total == 0 ? 100 : static_cast<int>(sent * 100 / total);
  if (percent == shown) return;
  shown = percent;
  char bar[41];
  std::memset(bar, ' ', 40);
  std::memset(bar, '#', static_cast<std::size_t>(percent * 40 / 100));
  bar[40] = '\0';
  std::fprintf(stderr, "\r[%s] %3d%% of %llu bytes", bar, percent,
               static_cast<unsigned long long>(total));
  std::fflush(stderr);
}

int Upload(const Options& options, int argc, char** argv) {
  const char* file = nullptr;
  const char* name = nullptr;  // a fresh one from the server when none is given
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--name") == 0 && i + 1 < argc && name == nullptr)
      name = argv[++i];
    else if (file == nullptr)
      file = argv[i];
    else
      return Fail("upload takes FILE [--name NAME]");
  }
  if (file == nullptr) return Fail("upload takes FILE [--name NAME]");
  if (name != nullptr && std::strlen(name) >= client::kSpoolNameField)
    return Fail("a spool file's name has at most 15 characters");
  std::error_code sizeError;
  const std::uintmax_t size = std::filesystem::file_size(file, sizeError);
  if (sizeError) return Fail(std::string("cannot read ") + file + ": " + sizeError.message());
  if (size > 0xFFFFFFFFu) return Fail(std::string(file) + " is too large: 4 GiB at most");
  std::FILE* in = std::fopen(file, "rb");
  if (in == nullptr) return Fail(std::string("cannot open ") + file);
  client::Connection connection;
  std::string jobName = name != nullptr ? name : "";
  if (!Connected(options, connection)) {
    std::fclose(in);
    return 1;
  }
  if (name == nullptr) {
    std::optional<std::string> fresh = client::FreshJobName(connection);
    if (!fresh || fresh->empty()) {
      std::fclose(in);
      return Fail("no job name from the server: " + connection.error());
    }
    jobName = *fresh;
  }
  // A bar only where someone watches, and only for a file that takes a while.
  constexpr std::uintmax_t kBarFrom = 1 << 20;
  const bool bar = size >= kBarFrom && isatty(fileno(stderr));
  std::string error;
  std::optional<bool> stored = client::UploadSpool(
      connection, jobName, static_cast<std::uint32_t>(size),
      [&](char* buffer, std::size_t count) { return std::fread(buffer, 1, count, in); },
      bar ? client::Progress(DrawProgress) : client::Progress(), &error);
  if (bar) std::fputc('\n', stderr);
  std::fclose(in);
  if (!stored) return Fail(error);
  if (!*stored) return Fail("the server did not store " + jobName + ".spl (answer 0)");
  std::printf("%s stored as %s.spl (%llu bytes)\n", file, jobName.c_str(),
              static_cast<unsigned long long>(size));
  return Finish(connection);
}

// A record's text as shown: control bytes become "?".
std::string Shown(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  return text;
}

int Jobs(const Options& options, int argc, char**) {
  if (argc != 0) return Fail("jobs takes no arguments");
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  std::string error;
  std::optional<std::string> records = client::ListJobRecords(connection, &error);
  if (!records) return Fail(error);
  if (options.json) {
    const client::json::Json document = client::json::Jobs(client::json::ParseJobRecords(*records));
    std::printf("%s\n", client::json::Dump(document).c_str());
    return Finish(connection);
  }
  std::vector<std::vector<std::string>> rows = {
      {"PRINTER", "JOB NAME", "STATUS", "DOCUMENT", "USER", "MACHINE"}};
  for (std::size_t at = 0; at < records->size(); at += client::kJobRecordSize) {
    client::JobEntry job =
        client::ParseJobRecord(std::string_view(*records).substr(at, client::kJobRecordSize));
    std::string status = job.statusText.empty() ? "code " + std::to_string(job.statusCode)
                                                : Shown(job.statusText);
    rows.push_back({Shown(job.printerName),
                    Shown(job.jobName) + (job.spoolFile() ? " (spool file)" : ""), status,
                    Shown(job.document), Shown(job.userName), Shown(job.machineName)});
  }
  if (rows.size() == 1) {
    std::printf("no jobs and no spool files\n");
    return Finish(connection);
  }
  std::vector<std::size_t> widths(rows[0].size(), 0);
  for (const auto& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i)
      line += i + 1 < row.size() ? row[i] + std::string(widths[i] - row[i].size() + 2, ' ')
                                 : row[i];
    std::printf("%s\n", line.c_str());
  }
  return Finish(connection);
}

int JobName(const Options& options, int argc, char**) {
  if (argc != 0) return Fail("job-name takes no arguments");
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  std::optional<std::string> name = client::FreshJobName(connection);
  if (!name) return Fail(connection.error());
  std::printf("%s\n", name->c_str());
  return Finish(connection);
}

int Cancel(const Options& options, int argc, char** argv) {
  if (argc != 1) return Fail("cancel takes NAME: a job *P-J or a spool file's name");
  const std::string name = argv[0];
  if (name.size() >= 16) return Fail("a job or spool file name has at most 15 characters");
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  const bool job = name[0] == '*';
  // The server resolves *P-J against the printer table that a listing on the same
  // connection builds: list first, then cancel, then see whether the job is gone.
  std::string error;
  if (job && !client::ListsJob(connection, name, &error)) return Fail(error);
  std::optional<std::uint8_t> answer = client::CancelJobOrSpoolFile(connection, name);
  if (!answer) return Fail(connection.error());
  if (job) {
    const std::optional<bool> still = client::ListsJob(connection, name, &error);
    if (!still) return Fail(error);
    std::printf("%s: answer %u; %s\n", name.c_str(), unsigned{*answer},
                *still ? "the job is still listed" : "the job is no longer listed");
  } else if (*answer != 1) {
    return Fail("no spool file " + name + ".spl was deleted (answer " +
                std::to_string(*answer) + ")");
  } else {
    std::printf("deleted the spool file %s.spl\n", name.c_str());
  }
  return Finish(connection);
}

int Delete(const Options& options, int argc, char** argv) {
  if (argc != 1) return Fail("delete takes PATH");
  if (std::strlen(argv[0]) >= 512) return Fail("a path has at most 511 characters");
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  std::optional<std::uint8_t> answer = client::DeleteServerFile(connection, argv[0]);
  if (!answer) return Fail(connection.error());
  if (*answer != 1)
    return Fail(std::string(argv[0]) + " was not deleted (answer " + std::to_string(*answer) + ")");
  std::printf("deleted %s\n", argv[0]);
  return Finish(connection);
}

int StoredList(const Options& options, int argc, char** argv, client::StoredList which) {
  const char* what = which == client::StoredList::kPrinters ? "printer" : "scanner";
  const char* output = nullptr;  // standard output when none
  if (argc == 2 && std::strcmp(argv[0], "-o") == 0)
    output = argv[1];
  else if (argc != 0)
    return Fail(std::string(what) + "-list takes [-o FILE]");
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  std::string error;
  std::optional<std::string> list = client::GetStoredList(connection, which, &error);
  if (!list) return Fail(error);
  if (list->empty()) {
    Finish(connection);
    return Fail(std::string("the server has no ") + what + " list");
  }
  if (output == nullptr) {
#if defined(_WIN32)
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    if (std::fwrite(list->data(), 1, list->size(), stdout) != list->size() ||
        std::fflush(stdout) != 0)
      return Fail("cannot write the standard output");
  } else {
    std::ofstream out(output, std::ios::binary);
    if (!out.write(list->data(), static_cast<std::streamsize>(list->size())) || !out.flush())
      return Fail(std::string("cannot write ") + output);
    std::printf("%s: %zu bytes\n", output, list->size());
  }
  return Finish(connection);
}

int PrinterList(const Options& options, int argc, char** argv) {
  return StoredList(options, argc, argv, client::StoredList::kPrinters);
}

int ScannerList(const Options& options, int argc, char** argv) {
  return StoredList(options, argc, argv, client::StoredList::kScanners);
}

int Quit(const Options& options, int argc, char**) {
  if (argc != 0) return Fail("quit takes no arguments");
  client::Connection connection;
  if (!Connected(options, connection)) return 1;
  if (!client::Quit(connection)) return Fail(connection.error());
  std::printf("the server ended the connection\n");
  return 0;
}

constexpr Command kCommands[] = {
    {"ping", "", "connect, do the opening exchange and close again", Ping, true},
    {"gamut", "FOLDER NAME [-o FILE]", "fetch the gamut file NAME of FOLDER (to standard output)",
     Gamut},
    {"configs", "FOLDER", "list FOLDER's configurations and their colour files' times", Configs,
     true},
    {"register-table", "NAME FILE", "hand FILE to the colour tool as NAME, print its exit code",
     RegisterTable},
    {"upload", "FILE [--name NAME]",
     "store FILE as NAME.spl (a fresh job name without --name); start jobfeeder", Upload},
    {"jobs", "", "list the spooler's jobs and the waiting spool files", Jobs, true},
    {"job-name", "", "get a fresh job name", JobName},
    {"cancel", "NAME", "cancel the job *P-J that jobs lists, or delete the spool file NAME.spl",
     Cancel},
    {"delete", "PATH", "delete the file PATH on the server", Delete},
    {"printer-list", "[-o FILE]", "fetch the stored printer list (to standard output)",
     PrinterList},
    {"scanner-list", "[-o FILE]", "fetch the stored scanner list (to standard output)",
     ScannerList},
    {"quit", "", "send the quit command; the server ends the connection", Quit},
};

void Usage(std::FILE* out) {
  std::fprintf(out,
               "usage: kvtctl [--host H] [--port P] [--big-endian] [--timeout S] [--json] "
               "<command> [arguments]\n"
               "  --host H      server address (default 127.0.0.1)\n"
               "  --port P      server port (default %u)\n"
               "  --big-endian  talk in big-endian byte order (default little-endian)\n"
               "  --timeout S   seconds to wait for each answer (default %d)\n"
               "  --json        ping, jobs, configs: one JSON document instead of the table\n"
               "  --help        show this text\n"
               "  --version     show the version\n"
               "commands:\n",
               unsigned{client::kDefaultPort}, client::kDefaultTimeoutMs / 1000);
  for (const Command& command : kCommands) {
    std::string head = std::string(command.name) + " " + command.arguments;
    std::fprintf(out, "  %-27s  %s\n", head.c_str(), command.summary);
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
    } else if (option == "--version") {
      std::printf("kvtctl %s\n", KVT_VERSION);
      return 0;
    } else if (option == "--json") {
      options.json = true;
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
  for (const Command& command : kCommands) {
    if (std::strcmp(argv[i], command.name) != 0) continue;
    if (options.json && !command.lists)
      return Fail(std::string("--json is for ping, jobs and configs, not ") + command.name);
    return command.run(options, argc - i - 1, argv + i + 1);
  }
  Fail(std::string("unknown command: ") + argv[i]);
  Usage(stderr);
  return 1;
}
