// The spooler on Linux: CUPS through libcups, on the calling thread's own connection to the
// scheduler (libcups keeps one per thread and closes it when the thread ends).
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

#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace kvt::spooler {

namespace {

// An open printer: CUPS has no handles, only the queue's name.
struct Queue {
  std::string name;
};

const Queue& QueueOf(PrinterHandle printer) { return *static_cast<const Queue*>(printer); }

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

// Sends the request (and releases it); the answer when the scheduler succeeded, else null.
ipp_t* Ask(ipp_t* request) {
  ipp_t* response = cupsDoRequest(CUPS_HTTP_DEFAULT, request, "/");
  if (response != nullptr && ippGetStatusCode(response) <= IPP_STATUS_OK_EVENTS_COMPLETE)
    return response;
  ippDelete(response);
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
std::uint32_t PrinterTroubles(const Queue& queue) {
  ipp_t* request = QueueRequest(IPP_OP_GET_PRINTER_ATTRIBUTES, queue.name);
  RequestAttributes(request, {"printer-state-reasons"});
  ipp_t* response = Ask(request);
  std::uint32_t bits = 0;
  ipp_attribute_t* reasons = ippFindAttribute(response, "printer-state-reasons", IPP_TAG_KEYWORD);
  for (int i = 0; i < ippGetCount(reasons); ++i) {
    const char* reason = ippGetString(reasons, i, nullptr);
    if (reason == nullptr) continue;
    const std::size_t length = std::strlen(reason);
    if (StartsWith(reason, "offline")) bits |= kJobOffline;
    if (StartsWith(reason, "media-empty") || StartsWith(reason, "media-needed"))
      bits |= kJobPaperOut;
    if (length > 6 && std::strcmp(reason + length - 6, "-error") == 0) bits |= kJobError;
  }
  ippDelete(response);
  return bits;
}

// One job of a Get-Jobs answer; the texts point into the answer.
struct Listed {
  std::int32_t id = 0;
  int state = 0;
  bool incoming = false;
  const char *document = nullptr, *user = nullptr, *host = nullptr, *message = nullptr;
};

void Take(Listed& job, ipp_attribute_t* attribute, const char* name) {
  const char* text = ippGetString(attribute, 0, nullptr);
  if (std::strcmp(name, "job-id") == 0)
    job.id = ippGetInteger(attribute, 0);
  else if (std::strcmp(name, "job-state") == 0)
    job.state = ippGetInteger(attribute, 0);
  else if (std::strcmp(name, "job-state-reasons") == 0)
    job.incoming = ippContainsString(attribute, "job-incoming") != 0;
  else if (std::strcmp(name, "job-name") == 0)
    job.document = text;
  else if (std::strcmp(name, "job-originating-user-name") == 0)
    job.user = text;
  else if (std::strcmp(name, "job-originating-host-name") == 0)
    job.host = text;
  else if (std::strcmp(name, "job-printer-state-message") == 0)
    job.message = text;
}

}  // namespace

bool ForEachPrinter(void (*visit)(void* context, const char* name), void* context) {
  struct Visit {
    void (*visit)(void*, const char*);
    void* context;
  } call{visit, context};
  // Queues only: printers that DNS-SD finds on the network are not queues of this
  // scheduler, and looking for them would hold every listing up.
  cupsEnumDests(
      CUPS_DEST_FLAGS_NONE, 0, nullptr, 0, CUPS_PRINTER_DISCOVERED,
      [](void* data, unsigned, cups_dest_t* dest) {
        auto* call = static_cast<Visit*>(data);
        if (dest->instance == nullptr) call->visit(call->context, dest->name);
        return 1;
      },
      &call);
  // No queues at all is "not found"; anything else past success is a failure.
  const ipp_status_t status = cupsLastError();
  return status <= IPP_STATUS_OK_EVENTS_COMPLETE || status == IPP_STATUS_ERROR_NOT_FOUND;
}

PrinterHandle Open(const char* name) {
  ipp_t* request = QueueRequest(IPP_OP_GET_PRINTER_ATTRIBUTES, name);
  RequestAttributes(request, {"printer-name"});
  ipp_t* response = Ask(request);
  if (response == nullptr) return nullptr;
  ippDelete(response);
  return new (std::nothrow) Queue{name};
}

bool ForEachJob(PrinterHandle printer, int max, void (*visit)(void* context, const Job& job),
                void* context) {
  if (printer == nullptr || max <= 0) return false;
  const Queue& queue = QueueOf(printer);
  ipp_t* request = QueueRequest(IPP_OP_GET_JOBS, queue.name);
  ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "which-jobs", nullptr, "not-completed");
  ippAddInteger(request, IPP_TAG_OPERATION, IPP_TAG_INTEGER, "limit", max);
  RequestAttributes(request,
                    {"job-id", "job-name", "job-originating-user-name", "job-originating-host-name",
                     "job-state", "job-state-reasons", "job-printer-state-message"});
  ipp_t* response = cupsDoRequest(CUPS_HTTP_DEFAULT, request, "/");
  // No jobs at all comes back as "not found".
  const ipp_status_t status = response ? ippGetStatusCode(response) : cupsLastError();
  if (status > IPP_STATUS_OK_EVENTS_COMPLETE) {
    ippDelete(response);
    return status == IPP_STATUS_ERROR_NOT_FOUND;
  }

  // The attributes of a job come in no fixed order: a job ends where its group does.
  std::vector<Listed> jobs;
  bool inJob = false;
  for (ipp_attribute_t* a = ippFirstAttribute(response); a; a = ippNextAttribute(response)) {
    const char* name = ippGetName(a);
    if (ippGetGroupTag(a) != IPP_TAG_JOB || name == nullptr) {
      inJob = false;
      continue;
    }
    if (!inJob) jobs.emplace_back();
    inJob = true;
    Take(jobs.back(), a, name);
  }

  bool processing = false;
  for (const Listed& job : jobs) processing |= job.state == IPP_JSTATE_PROCESSING;
  const std::uint32_t troubles = processing ? PrinterTroubles(queue) : 0;
  std::string machine;
  for (std::size_t i = 0; i < jobs.size() && i < static_cast<std::size_t>(max); ++i) {
    const Listed& j = jobs[i];
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
  ippDelete(response);
  return true;
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
  ipp_t* response = Ask(request);
  const char* uri = Text(response, "job-printer-uri");
  char scheme[32], user[256], host[256], resource[1024];
  int port = 0;
  bool ours =
      uri != nullptr &&
      httpSeparateURI(HTTP_URI_CODING_ALL, uri, scheme, sizeof scheme, user, sizeof user, host,
                      sizeof host, &port, resource, sizeof resource) >= HTTP_URI_STATUS_OK &&
      (strcasecmp(resource, ("/printers/" + queue.name).c_str()) == 0 ||
       strcasecmp(resource, ("/classes/" + queue.name).c_str()) == 0);
  ippDelete(response);
  return ours && cupsCancelJob2(CUPS_HTTP_DEFAULT, queue.name.c_str(), id, 0) == IPP_STATUS_OK;
}

void ClosePrinter(PrinterHandle printer) { delete static_cast<Queue*>(printer); }

}  // namespace kvt::spooler
