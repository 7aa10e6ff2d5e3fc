// The transfer record's core operations, shared by every engine but Kermit
// (which uses XferCheckAbort only).  All of them run on the transfer's own
// thread and work on the record the entry built on its stack.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "locale/messages.h"
#include "zvxfer.h"

namespace zvxfer {

// Ten CAN then ten backspace bytes: sent to the remote side after a failure.
extern const uint8_t XferCancelString[20];

// Reset the counters, allocate Buffer (128 bytes for ASCII, 1025 for B+,
// 1024 otherwise; plat::HeapAllocZero), set the protocol defaults, clear the
// port's Status and make the first abort check.  1 = go on; 0 = stop (the
// buffer failed: Result -601 and the clean-up ran; or the host aborted).
int XferInit(XferRecord *record);

// A status line "<name> : <message>" to the record's StatusCallback (none
// when it is null).  The message is formatted into 256 bytes; when the full
// FileName is too long for the format (length >= 256 - strlen(format)) it
// is replaced by the texts of MsgNameTooLong and MsgTransferCancelled.  The line lives in a
// 342-byte global-heap block freed after the callback (a stack block when
// the heap fails).  Texts are cut, never overflowed.
void XferStatus(XferRecord *record, int32_t level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
void XferStatusV(XferRecord *record, int32_t level, const char *format, va_list args);
// A status line whose format is the text of message `number` (copied before
// anything else is looked up); the arguments are those the message takes.
void XferStatusMessage(XferRecord *record, int32_t level, int32_t number, ...);

// A transfer has stopped once its result is not 0: a failure code, or any
// value a host's abort hook answered with, positive ones included (the
// entry then returns that value).
inline bool XferStopped(const XferRecord *record) {
    return record->Result != 0;
}
// The negative code a routine hands its caller once the transfer has
// stopped: the result itself, or -605 when a host's abort hook stopped it
// with a positive value.
inline int32_t XferStopCode(const XferRecord *record) {
    return record->Result < 0 ? record->Result : XferErrUserAbort;
}

// Progress callback, then the host's abort hook.  1 = stop now.  A non-zero
// hook value becomes Result; then (not for B+) notice MsgTransferCancelled and (not for
// Kermit, not for B+) XferCleanup.
int XferCheckAbort(XferRecord *record);

// Open the current file: "rb" for a sender (FileName = SendList->Path when
// there is a list), "wb" for a receiver under the port's existing-file
// policy.  1 = go on (open, or skipped with SkipFile = 1); 0 = stop (Result
// set, clean-up done).  A receiver's FileName buffer must hold at least
// three characters more than the name (policy 1 may grow it by "(1)").
int XferOpenFile(XferRecord *record);
// Open the current received file to continue it: "ab" through the host's
// hook, without the existing-file policy (the old content is wanted).  The
// default opener places it like a new file and opens it at its end, for
// reading and writing, creating it when missing.  Returns like XferOpenFile.
int XferOpenFileToAppend(XferRecord *record);
// Write what is gathered, flush and close; safe when nothing is open.  Only
// a file whose transfer completed (Result 0) is stamped with FileTime
// (unless -1) and, when it replaces an old file, renamed over it; any other
// replacement is removed and the old file stays.  A failed last write or
// rename makes a complete file fail with -607.
void XferCloseFile(XferRecord *record);
// End the transfer: close the file, on failure send the cancel string
// (XMODEM family; ZMODEM after PurgeTx unless the remote aborted), settle for
// one second, drain the line, then release Buffer, a ZMODEM receiver's
// FileName, the send list, the B+ state and (option 1027) the hook record's
// WorkBuffer.  Buffer, the ZMODEM receiver's FileName, the B+ state and the
// WorkBuffer are released with plat::HeapFreeBlock, so their owners take
// them from plat::HeapAllocZero.  Safe to call more than once.
void XferCleanup(XferRecord *record);
// 1 once the line has been quiet (or sent a NUL) for one second; 0 when the
// transfer must stop.
int XferWaitQuiet(XferRecord *record);

// The patient writers: retry a full (-9) or handshake-blocked (-36) port
// for 30 s (one byte) or 60 s (a buffer, partial takes continued), calling
// the abort check and the idle hook between tries.  0, or the port's (or
// idle hook's) negative answer with Result set to -615 / -612.
int32_t XferWriteChar(XferRecord *record, uint8_t byte);
int32_t XferWriteBuffer(XferRecord *record, const uint8_t *bytes, uint32_t count);

// Pointer into `name` after its last '/' or '\'; when there is neither,
// after its last ':'; else `name` itself.  A name from the remote side cut
// this way can never leave the receive folder.
const char *BareName(const char *name);
char *BareName(char *name);

// A name from the line as a name relative to the receive folder, at most
// `room` characters (cut, never inside a UTF-8 sequence).  A NUL ends it;
// control bytes (0x01-0x1F, 0x7F) become '_'.  Without `fullPath` it is the
// bare name (BareName) without a leading drive ("x\C:y" gives "y", which
// on Windows would name drive C's current folder); with it the components
// between '/' and '\', with a leading drive ("C:") and the components "",
// "." and ".." dropped, joined with '/'.  A final name that is empty
// becomes "unnamed", "." becomes "_" and ".." becomes "__".  So the result
// is never absolute and never climbs.
std::string MapReceivedName(std::string_view received, bool fullPath, std::size_t room);

// The local name for a name received from the other side, into `out` (at
// least 256 bytes), cut to 255 characters: the port's receive folder text
// followed by the mapped name, bare with StripPath, with its folders
// otherwise (an empty folder is the current one).  With StripPath and a
// folder text that names no folder, the folder text itself.  Traces the
// mapped bare name after `strippedLabel`, then "Complete Path %s".
void XferReceivedName(XferRecord *r, const char *received, char *out, const char *strippedLabel);

// Where the default file opener creates a received file: the folder `base`
// (up to and including the last '/' or '\' of the receive folder text for names
// from the line, of the name itself for names from the host; "" is the
// current folder) and the part `rest` below it.  A name from the line must
// start with the receive folder text.  False when it does not, or when
// `rest` is empty, absolute or holds an empty, "." or ".." component.
bool XferReceivePlace(const XferRecord *r, const char *name, std::string &base, std::string &rest);

// True when a directory entry of this name exists that is not a folder: a
// file found by a directory search, or any symlink (dangling or to a
// folder too).  Null and empty names do not exist.
bool XferFileExists(const char *name);

// Room a receiver's name buffer needs beyond the name for XferFreeName.
constexpr std::size_t kFreeNameRoom = 3;

// Replace `name` (capacity `size`) by a free name: report.txt becomes
// report(1).txt, report(2).txt, ...; report(1).txt itself counts on from its
// own counter; trailing dots go ("notes." -> "notes(1)").  The counter is
// one character and stops at '9': false (name unchanged) when every name up
// to (9) exists or the result would not fit `size`.
bool XferFreeName(char *name, std::size_t size);

} // namespace zvxfer
