// The spooler on Linux: CUPS through libcups, on the calling thread's own connection to the
// scheduler (kept here, one per thread, and closed when the thread ends).
//
// A listing asks the scheduler twice, whatever the number of queues: once for the printers
// with their states, once for every job that is not completed (the snapshot below); the
// jobs are then handed out per printer. The printer list that builds a connection's printer
// table serves as the first listing's printers answer.
//
// CUPS's job states mapped onto the Windows job status bits that the job listing reads:
//
//   job-state             status bits
//   3 pending             none; spooling while job-state-reasons holds job-incoming
//   4 pending-held        paused
//   5 processing          printing, plus offline, paper out or error from the printer's
//                         printer-state-reasons (offline*, media-empty* / media-needed*,
//                         any reason ending in -error)
//   6 processing-stopped  paused and printing
//
// Only jobs that are not completed are listed, so the ended states (7 to 9) never show.
// The status text is job-printer-state-message when CUPS gives a non-empty one.
#include "platform/spooler.h"

#include <cups/cups.h>
#include <strings.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace kvt::spooler {

namespace {

// An open printer: CUPS has no handles, only the queue's name.
struct Queue {
  std::string name;
  std::uint64_t served = 0;  // the snapshot whose jobs it was handed last
};

Queue& QueueOf(PrinterHandle printer) { return *static_cast<Queue*>(printer); }

ipp_t* QueueRequest(ipp_op_t operation, const std::string& queue) {
  char uri[HTTP_MAX_URI];
  httpAssembleURIf(HTTP_URI_CODING_ALL, uri, sizeof uri, "ipp", nullptr, "localhost", ippPort(),
                   "/printers/%s", queue.c_str());
  ipp_t* request = ippNewRequest(operation);
  ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, uri);
  ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr,
               cupsUser());
  return request;
}

void RequestAttributes(ipp_t* request, std::initializer_list<const char*> names) {
  std::vector<const char*> list(names);
  ippAddStrings(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes",
                static_cast<int>(list.size()), nullptr, list.data());
}

struct IppDelete {
  void operator()(ipp_t* answer) const { ippDelete(answer); }
};
using Answer = std::unique_ptr<ipp_t, IppDelete>;

// The thread's own connection to the scheduler, kept from request to request and closed
// with the thread, as libcups keeps its default one; this one lets an answer be read whole.
class Line {
 public:
  ~Line() { httpClose(http_); }
  // The connection, made again when the scheduler has closed it meanwhile; null when the
  // scheduler can't be reached.
  http_t* Get() {
    char byte;
    ssize_t n = 0;
    if (http_ != nullptr &&
        ((n = ::recv(httpGetFd(http_), &byte, 1, MSG_PEEK | MSG_DONTWAIT)) == 0 ||
         (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)))
      Drop();
    if (http_ == nullptr)
      http_ = httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1,
                           30000, nullptr);
    return http_;
  }
  void Drop() {
    httpClose(http_);
    http_ = nullptr;
  }

 private:
  http_t* http_ = nullptr;
};

thread_local Line line;

// The most an answer may take; a scheduler holds at most a few thousand jobs (MaxJobs).
constexpr std::size_t kMaxAnswer = std::size_t{64} << 20;

// Reads the body of an answer whose status has come, whole, and then takes it apart:
// libcups would take it apart straight from the socket, one read per field and value
// (thousands for a listing's jobs).
Answer ReadAnswer(http_t* http) {
  std::string body;
  char block[32768];
  for (ssize_t n; (n = httpRead2(http, block, sizeof block)) > 0;) {
    if (body.size() + static_cast<std::size_t>(n) > kMaxAnswer) {
      line.Drop();  // the rest is not read
      return nullptr;
    }
    body.append(block, static_cast<std::size_t>(n));
  }
  struct Cursor {
    const char* at;
    std::size_t left;
  } cursor{body.data(), body.size()};
  auto read = [](void* data, ipp_uchar_t* buffer, size_t bytes) -> ssize_t {
    auto& from = *static_cast<Cursor*>(data);
    if (bytes > from.left) bytes = from.left;
    std::memcpy(buffer, from.at, bytes);
    from.at += bytes;
    from.left -= bytes;
    return static_cast<ssize_t>(bytes);
  };
  Answer answer(ippNew());
  ipp_state_t state;
  do state = ippReadIO(&cursor, read, 1, nullptr, answer.get());
  while (state != IPP_STATE_DATA && state != IPP_STATE_ERROR);
  return state == IPP_STATE_DATA ? std::move(answer) : nullptr;
}

// Sends the request (and releases it); the answer when the scheduler succeeded, else null.
// `emptyOk`: "not found", which CUPS answers for an empty list, counts as an empty answer.
Answer Ask(ipp_t* request, bool emptyOk = false) {
  http_t* http = line.Get();
  http_status_t status = HTTP_STATUS_ERROR;
  if (http != nullptr) status = cupsSendRequest(http, request, "/", ippLength(request));
  if (status == HTTP_STATUS_CONTINUE || status == HTTP_STATUS_OK) {
    do status = httpUpdate(http);
    while (status == HTTP_STATUS_CONTINUE);
  }
  Answer answer;
  if (status == HTTP_STATUS_OK) {
    answer = ReadAnswer(http);
  } else if (status == HTTP_STATUS_UNAUTHORIZED || status == HTTP_STATUS_UPGRADE_REQUIRED) {
    // Authentication or encryption first: libcups's own round does both, then asks again.
    httpFlush(http);
    answer.reset(cupsDoRequest(http, request, "/"));
    request = nullptr;
  } else if (http != nullptr && httpGetState(http) != HTTP_STATE_WAITING) {
    httpFlush(http);
  }
  ippDelete(request);
  const ipp_status_t code =
      answer ? ippGetStatusCode(answer.get()) : IPP_STATUS_ERROR_SERVICE_UNAVAILABLE;
  if (code <= IPP_STATUS_OK_EVENTS_COMPLETE) return answer;
  if (emptyOk && code == IPP_STATUS_ERROR_NOT_FOUND) return Answer(ippNew());
  return nullptr;
}

const char* Text(ipp_t* response, const char* name) {
  ipp_attribute_t* attribute = ippFindAttribute(response, name, IPP_TAG_ZERO);
  return attribute != nullptr ? ippGetString(attribute, 0, nullptr) : nullptr;
}

bool StartsWith(const char* text, const char* start) {
  return std::strncmp(text, start, std::strlen(start)) == 0;
}

// The printer's troubles that a processing job shares: offline, paper out, error.
std::uint32_t Troubles(ipp_attribute_t* reasons) {
  std::uint32_t bits = 0;
  for (int i = 0; i < ippGetCount(reasons); ++i) {
    const char* reason = ippGetString(reasons, i, nullptr);
    if (reason == nullptr) continue;
    const std::size_t length = std::strlen(reason);
    if (StartsWith(reason, "offline")) bits |= kJobOffline;
    if (StartsWith(reason, "media-empty") || StartsWith(reason, "media-needed"))
      bits |= kJobPaperOut;
    if (length > 6 && std::strcmp(reason + length - 6, "-error") == 0) bits |= kJobError;
  }
  return bits;
}

// Calls take(name, attribute) for each attribute of each object (printer, job) of an
// answer, and done() after each object. The attributes of an object come in no fixed
// order: an object ends where its group does.
template <typename Take, typename Done>
void ForEachObject(ipp_t* answer, ipp_tag_t group, Take take, Done done) {
  bool inObject = false;
  for (ipp_attribute_t* a = ippFirstAttribute(answer); a; a = ippNextAttribute(answer)) {
    const char* name = ippGetName(a);
    const bool member = ippGetGroupTag(a) == group && name != nullptr;
    if (inObject && !member) done();
    inObject = member;
    if (member) take(name, a);
  }
  if (inObject) done();
}

struct Printer {
  std::string name;
  std::uint32_t troubles = 0;
};

// The scheduler's queues in its order, with their troubles; false when it can't list them.
bool AskPrinters(std::vector<Printer>& printers) {
  printers.clear();
  ipp_t* request = ippNewRequest(IPP_OP_CUPS_GET_PRINTERS);
  ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr,
               cupsUser());
  // Queues only: printers that DNS-SD finds on the network are not queues of this scheduler.
  ippAddInteger(request, IPP_TAG_OPERATION, IPP_TAG_ENUM, "printer-type-mask",
                CUPS_PRINTER_DISCOVERED);
  RequestAttributes(request, {"printer-name", "printer-state-reasons"});
  Answer answer = Ask(request, true);
  if (answer == nullptr) return false;
  Printer printer;
  ForEachObject(
      answer.get(), IPP_TAG_PRINTER,
      [&](const char* name, ipp_attribute_t* a) {
        if (std::strcmp(name, "printer-name") == 0) {
          const char* text = ippGetString(a, 0, nullptr);
          printer.name = text != nullptr ? text : "";
        } else if (std::strcmp(name, "printer-state-reasons") == 0) {
          printer.troubles = Troubles(a);
        }
      },
      [&] {
        if (!printer.name.empty()) printers.push_back(std::move(printer));
        printer = Printer{};
      });
  return true;
}

// One job of a Get-Jobs answer; the texts point into the answer.
struct Listed {
  std::int32_t id = 0;
  int state = 0;
  bool incoming = false;
  std::string queue;  // from job-printer-uri; empty when it names no queue
  const char *document = nullptr, *user = nullptr, *host = nullptr, *message = nullptr;
};

// The queue that a printer URI names ("/printers/NAME" or "/classes/NAME"), else "".
std::string QueueOfUri(const char* uri) {
  char scheme[32], user[256], host[256], resource[1024];
  int port = 0;
  if (uri == nullptr ||
      httpSeparateURI(HTTP_URI_CODING_ALL, uri, scheme, sizeof scheme, user, sizeof user, host,
                      sizeof host, &port, resource, sizeof resource) < HTTP_URI_STATUS_OK)
    return {};
  for (const char* folder : {"/printers/", "/classes/"})
    if (StartsWith(resource, folder)) return resource + std::strlen(folder);
  return {};
}

void TakeAttribute(Listed& job, ipp_attribute_t* attribute, const char* name) {
  const char* text = ippGetString(attribute, 0, nullptr);
  if (std::strcmp(name, "job-id") == 0)
    job.id = ippGetInteger(attribute, 0);
  else if (std::strcmp(name, "job-state") == 0)
    job.state = ippGetInteger(attribute, 0);
  else if (std::strcmp(name, "job-state-reasons") == 0)
    job.incoming = ippContainsString(attribute, "job-incoming") != 0;
  else if (std::strcmp(name, "job-printer-uri") == 0)
    job.queue = QueueOfUri(text);
  else if (std::strcmp(name, "job-name") == 0)
    job.document = text;
  else if (std::strcmp(name, "job-originating-user-name") == 0)
    job.user = text;
  else if (std::strcmp(name, "job-originating-host-name") == 0)
    job.host = text;
  else if (std::strcmp(name, "job-printer-state-message") == 0)
    job.message = text;
}

// One listing's view of the scheduler, on the thread that lists (one connection, one
// thread): the printers' troubles and every job that is not completed. A new one is taken
// when a printer asks for its jobs and none is kept or that printer has had this one's jobs
// already (the next listing); it is let go once every printer opened on this thread has had
// its jobs, so an idle connection holds no answer.
struct Snapshot {
  std::uint64_t id = 0;  // unique across threads; 0: none taken yet
  bool complete = false;  // both answers came; otherwise no printer lists a job
  bool kept = false;      // the answers below are still kept
  std::vector<Printer> printers;
  Answer answer;  // the jobs' texts point into it
  std::vector<Listed> jobs;
  // The printer list of ForEachPrinter, kept for the next snapshot (the same listing's).
  std::vector<Printer> fresh;
  bool freshKept = false;
  int openQueues = 0;  // printers opened on this thread and not yet closed
  int handed = 0;      // of them, those that had this snapshot's jobs

  void Take() {
    static std::atomic<std::uint64_t> ids{0};
    id = ++ids;
    complete = false;
    kept = true;
    handed = 0;
    answer.reset();
    jobs.clear();
    if (freshKept) {
      printers.swap(fresh);
      freshKept = false;
    } else if (!AskPrinters(printers)) {
      return;  // no printer list, no snapshot: the jobs are not asked for
    }
    // Every queue's jobs in one request, in the scheduler's order (priority, then age), the
    // order in which each queue's own request would give them.
    ipp_t* request = ippNewRequest(IPP_OP_GET_JOBS);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr,
                 "ipp://localhost/");
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr,
                 cupsUser());
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "which-jobs", nullptr,
                 "not-completed");
    RequestAttributes(request, {"job-id", "job-printer-uri", "job-name",
                                "job-originating-user-name", "job-originating-host-name",
                                "job-state", "job-state-reasons", "job-printer-state-message"});
    answer = Ask(request, true);  // no jobs at all comes back as "not found"
    if (answer == nullptr) return;
    Listed job;
    ForEachObject(
        answer.get(), IPP_TAG_JOB,
        [&](const char* name, ipp_attribute_t* a) { TakeAttribute(job, a, name); },
        [&] {
          jobs.push_back(std::move(job));
          job = Listed{};
        });
    complete = true;
  }

  void Release() {
    kept = false;
    printers.clear();
    jobs.clear();
    answer.reset();
  }
};

thread_local Snapshot snapshot;

}  // namespace

bool ForEachPrinter(void (*visit)(void* context, const char* name), void* context) {
  Snapshot& s = snapshot;
  s.freshKept = AskPrinters(s.fresh);
  if (!s.freshKept) return false;
  for (const Printer& printer : s.fresh) visit(context, printer.name.c_str());
  return true;
}

PrinterHandle Open(const char* name) {
  // A printer of the list just made is there; any other is asked for.
  Snapshot& s = snapshot;
  bool listed = false;
  for (std::size_t i = 0; s.freshKept && !listed && i < s.fresh.size(); ++i)
    listed = s.fresh[i].name == name;
  if (!listed) {
    ipp_t* request = QueueRequest(IPP_OP_GET_PRINTER_ATTRIBUTES, name);
    RequestAttributes(request, {"printer-name"});
    if (Ask(request) == nullptr) return nullptr;
  }
  auto* queue = new (std::nothrow) Queue{name};
  s.openQueues += queue != nullptr;
  return queue;
}

bool ForEachJob(PrinterHandle printer, int max, void (*visit)(void* context, const Job& job),
                void* context) {
  if (printer == nullptr || max <= 0) return false;
  Queue& queue = QueueOf(printer);
  Snapshot& s = snapshot;
  if (!s.kept || queue.served == s.id) s.Take();
  queue.served = s.id;
  const bool complete = s.complete;
  if (complete) {
    // A queue the printer list left out (made after it) has no troubles to share.
    std::uint32_t troubles = 0;
    for (const Printer& p : s.printers)
      if (strcasecmp(p.name.c_str(), queue.name.c_str()) == 0) troubles = p.troubles;
    std::string machine;
    int count = 0;
    for (const Listed& j : s.jobs) {
      if (count == max) break;
      if (strcasecmp(j.queue.c_str(), queue.name.c_str()) != 0) continue;
      ++count;
      std::uint32_t bits = 0;
      switch (j.state) {
        case IPP_JSTATE_PENDING:
          bits = j.incoming ? kJobSpooling : 0;
          break;
        case IPP_JSTATE_HELD:
          bits = kJobPaused;
          break;
        case IPP_JSTATE_PROCESSING:
          bits = kJobPrinting | troubles;
          break;
        case IPP_JSTATE_STOPPED:
          bits = kJobPaused | kJobPrinting;
          break;
        default:
          break;
      }
      // The spooler's form "\\host", which the listing strips again.
      if (j.host != nullptr) machine = std::string("\\\\") + j.host;
      const char* message = j.message != nullptr && *j.message != '\0' ? j.message : nullptr;
      visit(context, Job{j.id, queue.name.c_str(), j.host ? machine.c_str() : nullptr, j.user,
                         j.document, message, bits});
    }
  }
  if (++s.handed >= s.openQueues) s.Release();  // every printer has had its jobs
  return complete;
}

bool CancelJob(PrinterHandle printer, std::int32_t id) {
  // Job 0 and -1 mean "the current job" and "all jobs" to CUPS: never a listed job.
  if (printer == nullptr || id <= 0) return false;
  const Queue& queue = QueueOf(printer);
  // Job numbers are the whole scheduler's and a cancel ignores the queue named with it:
  // check first that the job is this queue's.
  ipp_t* request = QueueRequest(IPP_OP_GET_JOB_ATTRIBUTES, queue.name);
  ippAddInteger(request, IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", id);
  RequestAttributes(request, {"job-printer-uri"});
  Answer answer = Ask(request);
  const std::string owner = answer ? QueueOfUri(Text(answer.get(), "job-printer-uri")) : "";
  const bool ours = !owner.empty() && strcasecmp(owner.c_str(), queue.name.c_str()) == 0;
  return ours && cupsCancelJob2(line.Get(), queue.name.c_str(), id, 0) == IPP_STATUS_OK;
}

void ClosePrinter(PrinterHandle printer) {
  snapshot.openQueues -= printer != nullptr;
  delete static_cast<Queue*>(printer);
}

}  // namespace kvt::spooler
