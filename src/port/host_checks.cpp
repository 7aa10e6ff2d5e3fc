// Mistakes of a host that are cheap to see: a send-name list the library
// cannot write to (refused), a receive folder that lacks its final
// separator or does not exist, and reads that find nothing on a thread
// whose waits watch no descriptor (both traced, the behaviour unchanged).
// The traces go to the debugger output (ZvSetDebugOutput, ZVXFER_DEBUG).
#include <cstdarg>
#include <cstring>

#include "platform/debugout.h"
#include "platform/file.h"
#include "platform/format.h"
#include "platform/message.h"
#include "platform/path.h"
#include "platform/probe.h"
#include "port/port.h"

namespace zvxfer {

namespace {

// The unwatched-descriptor note has been written in this transfer.
thread_local bool tNotedUnwatched = false;

void Trace(const char *format, ...) __attribute__((format(printf, 1, 2)));
void Trace(const char *format, ...) {
    if (!plat::DebugOutputWanted()) return;
    char line[512];
    va_list args;
    va_start(args, format);
    plat::FormatV(line, sizeof line, format, args);
    va_end(args);
    plat::OutputDebugString(line);
}

} // namespace

// The send list writes a NUL over the quote after each name and over the
// list's own end; Kermit moves the names to the front of the list.  The
// first byte and the end stand for the whole string: a literal lies in
// read-only memory as a whole.
bool SendNamesWritable(char *names) {
    if (names == nullptr) return true;
    if (plat::ByteWritable(names) && plat::ByteWritable(names + std::strlen(names))) return true;
    Trace("zvxfer: the send names \"%.200s\" are read-only (a string literal?); they are split "
          "in place, so pass a writable copy.  Refused with -7\n",
          names);
    return false;
}

// A received name is joined to the folder as it is given: a folder
// without its final '/' or '\' gets the name glued on ("/tmp/dl" + "a.txt" is
// "/tmp/dla.txt"), and a text that names no folder is taken as the one
// file to write.  That stays; a folder text that looks meant otherwise is
// traced.
void CheckReceiveFolder(const char *folder) {
    if (folder == nullptr || folder[0] == '\0' || !plat::DebugOutputWanted()) return;
    const std::size_t length = std::strlen(folder);
    const bool separator = plat::IsPathSeparator(folder[length - 1]);
    const bool isFolder = plat::FileStat(folder).isDirectory;
    if (isFolder && !separator) {
        Trace("zvxfer: PortOpen: the receive folder \"%.200s\" does not end in '/' or "
              "'\\': received names are glued to it (\"%.200sNAME\")\n",
              folder, folder);
    } else if (!isFolder && separator) {
        Trace("zvxfer: PortOpen: the receive folder \"%.200s\" does not exist (yet): received "
              "files cannot be made in it\n",
              folder);
    }
}

void BeginTransferNotes() {
    tNotedUnwatched = false;
}

void NoteEmptyRead() {
    if (tNotedUnwatched || plat::WatchesAnyFd()) return;
    tNotedUnwatched = true;
    Trace("zvxfer: a read found nothing and no descriptor is watched by this thread: each wait "
          "for bytes sleeps its whole round instead of waking when they arrive.  A host that "
          "reads a descriptor should register it with ZvWatchFd\n");
}

} // namespace zvxfer
