#include "print/handoff.h"

#include "platform/handoff.h"
#include "support/folders.h"
#include "support/text.h"

namespace kvt {

Served HandOffConnection(ConnectionRecord& record) {
  // Windows takes the program from the unquoted command line's first word, blanks in the
  // folder and all; POSIX starts the same path with the one argument "-l".
  const char* folder = GetProgramFolder("Corvina");
  char program[200];
  char line[sizeof program + 3];
  if (folder[0] == '\0' || !FormatFits(program, sizeof program, "%s/%s", folder, "jobfeeder") ||
      !FormatFits(line, sizeof line, "%s -l", program))
    return Served::kContinue;
  const char* const argv[] = {program, "-l", nullptr};
  if (handoff::RunWithSocket({line, program, argv}, record.socket) == handoff::Outcome::kNotStarted)
    return Served::kContinue;  // ignored: the client's next frame is served as usual
  // The program has ended, whether or not it got its socket: the connection ends here even
  // if the client has not closed it.
  net::Close(record.socket);
  EndConnection(&record);
  return Served::kConnectionEnded;
}

}  // namespace kvt
