// The in-memory machine's service control manager (memory.h), scripted: it records each
// call, fails the steps it is told to, and knows which handles are still open. Query is
// left out: only the Wine tests' probe asks it.
#pragma once
#include <string>
#include <vector>

#include "platform/service.h"

namespace kvt::service::fake {

// Forgets calls, failures, reports and controls; no handle is open.
void Reset();
// Every later call of `step` fails with `error`. Steps: OpenManager, Open, Create, Start,
// Control, Delete, Dispatcher, Register, SetStatus.
void Fail(const std::string& step, int error);
// The controls the dispatcher passes to the registered handler after the main routine.
void Deliver(const std::vector<std::uint32_t>& controls);

// Each call as "Step(arguments)"; handles show as "manager" or "service".
const std::vector<std::string>& Calls();
// What SetStatus was given, as "type state controls exit specific checkpoint hint".
const std::vector<std::string>& Reports();
int OpenHandles();

}  // namespace kvt::service::fake
