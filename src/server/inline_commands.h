// The small commands the connection loop serves itself: the stored printer and scanner
// lists, unique job names, cancelling a spooler job or deleting a spool file, deleting a
// file by path, and quitting.
#pragma once
#include <atomic>
#include <cstdint>

#include "server/connection.h"

namespace kvt {

// Behind the job names: shared by all connections, raised once for every name made.
extern std::atomic<std::int32_t> NameCounter;

// CMD_GET_PRINTER_LIST / CMD_GET_SCANNER_LIST: the byte 0 when there is no usable list;
// else the file's first byte, the length of the rest (client order) and the rest.
Served SendPrinterList(ConnectionRecord& record);
Served SendScannerList(ConnectionRecord& record);

// CMD_NEW_JOB_NAME: 16 bytes, "<time, 10 digits><counter mod 100000, 5 digits>" and a NUL.
Served SendNewJobName(ConnectionRecord& record);

// CMD_CANCEL_JOB: a 16-byte name. "*<printer>-<job>" cancels a job of the connection's
// printer table and answers 0; any other name deletes "<SpoolFolder>/<name>.spl" and
// answers 1 when it did.
Served CancelJobOrSpoolFile(ConnectionRecord& record);

// CMD_DELETE_FILE: a 512-byte path; answers 1 when the file was deleted.
Served DeleteFileByPath(ConnectionRecord& record);

// CMD_QUIT: two 80-byte fields, read and not used; no answer, the connection ends.
Served Quit(ConnectionRecord& record);

}  // namespace kvt
