#include "host/entry.h"
#include "platform/process.h"

int main(int argc, char** argv) { return kvt::RunProcess(kvt::process::ArgumentText(argc, argv)); }
