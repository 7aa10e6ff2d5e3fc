// The program's own file-open hook for sending.  The library's own opens
// every file with an exclusive lock, so a second program sending or
// reading the same file at the same time would be refused; a sender only
// reads, and takes no lock.
#pragma once

namespace zvxfer::cli {

// Install the hook: files are opened for reading only, without a lock;
// any other mode is refused.  Only for a process that sends and receives
// nothing (the hook serves every transfer of the process).
void InstallSendOnlyFileOpen();

} // namespace zvxfer::cli
