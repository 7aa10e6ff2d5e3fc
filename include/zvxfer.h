/*
 * zvxfer.h - the public interface of the zvxfer file-transfer library.
 *
 * zvxfer moves files over a connection that the host program owns: XMODEM
 * (checksum, CRC, 1K, streaming), YMODEM and YMODEM-G, ZMODEM, Kermit,
 * CompuServe B+ and plain ASCII upload and capture.
 *
 * How a host uses it
 * ------------------
 * 1. Give the library a window that answers the port message.  A host on
 *    file descriptors (tty, socket, pipes, pty) takes the library's own:
 *    ZvLineOpen, then ZvLinePort opens the port on it (see "The line
 *    host").  Any other host creates a window (ZvCreateWindow; on
 *    Windows a window of its own, see "Host windows and messages") whose
 *    procedure answers XferPortMessage (1425): wParam PORT_READ asks for
 *    received bytes, PORT_WRITE hands over bytes to send; lParam points at
 *    the PortBlock to fill or to take.
 * 2. Optionally install hooks: SetPortIdleFunctionPtr, SetAbortXferFunctionPtr,
 *    SetUserErrorNameFunctionPtr, SetXferFileOpenFunctionPtr.
 * 3. Open a port with PortOpen(userData, window, receiveFolder, policy).
 * 4. Call one entry point, for example
 *        XmodemReceiveWithOptions(port, name, status, progress, XferOptEnd);
 *    The whole exchange runs on the calling thread.  Option codes follow the
 *    fixed arguments as int words and end with 0 (XferOptEnd).
 * 5. Read the result: 0 or a file count on success, a negative code on
 *    failure (XFER_RESULT_MAP and PORT_RESULT_MAP below give every code with
 *    its text).  -7 means the call was refused before anything was opened,
 *    sent or called back: an option or protocol number, a missing port or
 *    option block, or send names the library cannot write to.
 * 6. Close the port with port->Ops.PortClose(port).
 *
 * Who owns what
 * -------------
 * - A port is made by PortOpen (or ZvLinePort) and released by its own
 *   port->Ops.PortClose.  Its receive folder text stays the host's: the
 *   port keeps the pointer, so the text must live as long as the port.
 * - An option block is made by CLSetFileTransferOptions and released by
 *   the CLFileSend or CLFileReceive it is given to, whatever the outcome.
 *   Give every block to one such call: nothing else releases it.
 * - Send names are the host's and are written to (see "Transfers").  A file
 *   name given to a receiver is copied.
 * - The XferRecord a callback is given lives on the entry's stack; it, its
 *   FileName and a status text are valid during the callback only.
 * - PORT_READ: the bytes the host points RxBlock at stay the host's and
 *   must stay unchanged until the library asks again (see "Traps").
 *   PORT_WRITE: TxBlock's bytes are valid during the message only; a host
 *   copies what it keeps.
 * - A file the file-open hook returns belongs to the library, which closes
 *   it.  A WorkBuffer a host puts in the hook record must come from malloc:
 *   option 1027 makes the clean-up free it.
 * - Windows (ZvCreateWindow/ZvDestroyWindow) and lines (ZvLineOpen/
 *   ZvLineClose) are the host's; close the ports on them first.
 *
 * Threads
 * -------
 * - A transfer runs wholly on the thread that called its entry; one
 *   transfer at a time on a port.  Several threads may run transfers at
 *   once, each on its own port.
 * - A window, and a line, belongs to the thread that created it: destroy
 *   it there.  ZvSendMessage and ZvPostMessage work from any thread; a
 *   window of another thread handles a sent message only while its thread
 *   peeks, gets or waits for messages (the port message then blocks until
 *   it does).
 * - ZvPeekMessage, ZvGetMessage, ZvWaitMessage, ZvWatchFd and
 *   ZvAddWaitPrepare work on the calling thread's own queue and waits.
 * - There is one set of hooks for the whole process: a setter called on
 *   any thread changes every transfer, a running one at its next use of the
 *   hook.  Hooks and callbacks run on the transfer's thread; the debug sink
 *   on any thread that writes a line.
 *
 * Traps
 * -----
 * - Send names are split in place (a NUL over the quote after each name):
 *   pass a writable array, never a string literal.  A read-only list is
 *   refused with -7 (and traced) where the platform can tell.
 * - A received name is joined to the receive folder as it is: end the
 *   folder with a separator.  "dl/" + "a.txt" is "dl/a.txt"; "dl" gives
 *   "dla.txt".  '/' and '\\' both separate folders, on every system (on
 *   Linux the library hands '\\' to the system as '/'); a received name is
 *   reduced to its last component, drive letters included, and so never
 *   leaves the receive folder.  A text that names no folder is taken as
 *   the one file to write.  A folder without its separator, or a missing
 *   one, is traced.
 * - A host that answers PORT_READ from a descriptor must register it with
 *   ZvWatchFd on the transfer's thread.  Otherwise no wait wakes when
 *   bytes arrive: each sleeps its whole round and a transfer runs some 70
 *   times slower, with no error.  ZvLineOpen does it.  Reads on a thread
 *   that watches no descriptor are traced once per transfer.
 * - Bytes of a PORT_READ block that the engine has not taken stay in
 *   port->RxBlock, pointing into the host's memory; the library asks for
 *   more only once it has taken them all.  The next transfer on the port
 *   reads them first; a failed transfer's clean-up drains them with the
 *   line, and ClearRXBuffer and PortClose drop them.  The Kermit engine
 *   reads through a block of its own: it does not see bytes left in
 *   port->RxBlock, and what it was handed but did not take is dropped when
 *   its entry returns.
 *
 * The traces go to the debug output: ZvSetDebugOutput, or the file the
 * environment variable ZVXFER_DEBUG names ("stderr" allowed).
 *
 * Errors are values: no function of this header throws or aborts, except the
 * debug log's documented length limit.
 */
#ifndef ZVXFER_H
#define ZVXFER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ZVXFER_EXTERN marks the library's 25 exported functions.  On Windows the
   export table of zvxfer.dll is made from its .def file (those 25 names and
   nothing else), so the declarations carry no attribute and serve the DLL
   (through its import library libzvxfer.dll.a) and the static library
   alike.  ZVXFER_HOST_EXTERN marks the host-side calls: exported by the
   Linux library, never by the DLL (see "Host windows and messages"). */
#if defined(_WIN32)
#define ZVXFER_EXTERN
#define ZVXFER_HOST_EXTERN
#elif defined(__GNUC__)
#define ZVXFER_EXTERN __attribute__((visibility("default")))
#define ZVXFER_HOST_EXTERN __attribute__((visibility("default")))
#else
#define ZVXFER_EXTERN
#define ZVXFER_HOST_EXTERN
#endif

/* No exported function lets a C++ exception out: for C++ callers they are
   declared noexcept. */
#ifdef __cplusplus
#define ZVXFER_NOEXCEPT noexcept
#else
#define ZVXFER_NOEXCEPT
#endif

/* ------------------------------------------------------------------------ */
/* Host windows and messages (the host side of the platform layer)          */
/* ------------------------------------------------------------------------ */

/*
 * On Windows the host window is a real window and the calls below are not
 * exported by zvxfer.dll: a Windows host
 * - creates its own window (RegisterClassA, CreateWindowExA) whose window
 *   procedure answers XferPortMessage, and passes its HWND to PortOpen; the
 *   library sends the port message with SendMessageA, so a host window of
 *   another thread answers while that thread pumps its messages;
 * - pumps with PeekMessageA/GetMessageA/DispatchMessageA as usual;
 * - has no ZvWatchFd: the library's waits are MsgWaitForMultipleObjects on
 *   the calling thread's message queue, so a host wakes a waiting transfer
 *   by posting (PostMessageA) or sending a message to a window of that
 *   thread when bytes arrive;
 * - reads the library's debug lines in a debugger (OutputDebugStringA) or
 *   the file ZVXFER_DEBUG names, and the catalogue's texts with
 *   LoadStringA on zvui32*.nls.
 * The ZvLine host (file descriptors) exists on Linux only.  The other Zv
 * calls are in the static library on Windows too (the windows as thin
 * wrappers over real ones, ZvWatchFd refused), so that one test host
 * serves both systems; zvxfer.dll exports none of them.
 */

/** Host window handle: the system's HWND on Windows (the same type as
 *  <windows.h> declares, without including it: its macros would rename
 *  functions such as SendMessage and LoadString in every includer), an
 *  opaque handle elsewhere.  NULL is never a valid window. */
#ifdef _WIN32
struct HWND__;
typedef struct HWND__ *ZvHwnd;
#else
typedef struct ZvWindow *ZvHwnd;
#endif

/** Window procedure: called on the window's owner thread. */
typedef intptr_t (*ZvWndProc)(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam);

/** A queued message, as ZvPeekMessage returns it. */
typedef struct ZvMsg {
    ZvHwnd Window;
    uint32_t Message;
    uintptr_t WParam;
    intptr_t LParam;
} ZvMsg;

/* Message numbers keep their Windows values so code and tests read alike. */
#define ZV_WM_DESTROY 2u
#define ZV_WM_PAINT 15u
#define ZV_WM_CLOSE 16u
#define ZV_WM_QUIT 18u
#define ZV_WM_NCDESTROY 130u
#define ZV_WM_SYSCOMMAND 274u
#define ZV_SC_CLOSE 0xF060u
#define ZV_WM_USER 1024u

/** The port message: sent synchronously to the host window. */
#define XferPortMessage (ZV_WM_USER + 401u)
/** wParam of XferPortMessage: point the block at the received bytes not
 *  yet handed over (Length 0 when there are none; Error non-zero once the
 *  connection is lost).  The library asks again only after it has taken
 *  every byte, so the host may then reuse its buffer. */
#define PORT_READ 1u
/** wParam of XferPortMessage: take (send or queue) the block's bytes; lower
 *  Length to what was taken when not all fit (the library offers the rest
 *  again); Error non-zero once the connection is lost.  The bytes are valid
 *  during the message only. */
#define PORT_WRITE 2u

/** Poll events for ZvWatchFd (same values as POLLIN / POLLOUT). */
#define ZV_FD_READ 0x001
#define ZV_FD_WRITE 0x004

/**
 * Create a window owned by the calling thread.
 * @param[in] proc  window procedure (not NULL)
 * @param[in] user  value returned by ZvGetWindowUserData
 * @return the window, or NULL when out of memory or proc is NULL.
 */
ZVXFER_HOST_EXTERN ZvHwnd ZvCreateWindow(ZvWndProc proc, void *user) ZVXFER_NOEXCEPT;

/** Destroy a window; its queued messages are dropped.  Owner thread only;
 *  close the ports that use it first. */
ZVXFER_HOST_EXTERN void ZvDestroyWindow(ZvHwnd window) ZVXFER_NOEXCEPT;

/** The user value given to ZvCreateWindow. */
ZVXFER_HOST_EXTERN void *ZvGetWindowUserData(ZvHwnd window) ZVXFER_NOEXCEPT;

/**
 * Send a message and wait for its result.  On the owner thread this calls
 * the procedure directly; from any other thread it queues the message and
 * blocks until the owner handles it (in ZvPeekMessage, ZvGetMessage or
 * ZvWaitMessage).  Returns 0 for a NULL window.
 */
ZVXFER_HOST_EXTERN intptr_t ZvSendMessage(ZvHwnd window, uint32_t message, uintptr_t wParam,
                                          intptr_t lParam) ZVXFER_NOEXCEPT;

/** Append a message to the owner thread's queue and wake that thread. 1 = queued. */
ZVXFER_HOST_EXTERN int ZvPostMessage(ZvHwnd window, uint32_t message, uintptr_t wParam,
                                     intptr_t lParam) ZVXFER_NOEXCEPT;

/** Post WM_QUIT (window NULL, wParam = exitCode) to the calling thread. */
ZVXFER_HOST_EXTERN void ZvPostQuitMessage(int exitCode) ZVXFER_NOEXCEPT;

/**
 * Take the next posted message of the calling thread without waiting.
 * Messages sent from other threads are handled first.
 * @param[out] msg     the message (when 1 is returned)
 * @param[in]  remove  non-zero: remove it from the queue
 * @return 1 when a message was found, 0 when the queue is empty.
 */
ZVXFER_HOST_EXTERN int ZvPeekMessage(ZvMsg *msg, int remove) ZVXFER_NOEXCEPT;

/** Wait for and remove the next message.  Returns 0 for WM_QUIT, else 1. */
ZVXFER_HOST_EXTERN int ZvGetMessage(ZvMsg *msg) ZVXFER_NOEXCEPT;

/** Call the message's window procedure (nothing for a NULL window). */
ZVXFER_HOST_EXTERN intptr_t ZvDispatchMessage(const ZvMsg *msg) ZVXFER_NOEXCEPT;

/**
 * Wait until the calling thread has input: a posted or sent message, or a
 * watched file descriptor that is ready.  Sent messages are handled inside.
 * @param[in] timeoutMs  milliseconds, or UINT32_MAX for no limit
 * @return 1 when input arrived, 0 on time-out.
 */
ZVXFER_HOST_EXTERN int ZvWaitMessage(uint32_t timeoutMs) ZVXFER_NOEXCEPT;

/**
 * Make the calling thread's waits wake when fd becomes ready for the given
 * events (ZV_FD_READ, ZV_FD_WRITE).  Calling again for the same fd replaces
 * its events.  Returns 0, or -1 when the table is full (64 per thread).
 * A host that answers PORT_READ from a descriptor must watch it on the
 * thread that runs the transfers, or every wait for bytes sleeps its whole
 * round (see "Traps"); ZvLineOpen does this for its line.  On Windows it
 * returns -1: a host wakes a waiting transfer by posting a message to it.
 */
ZVXFER_HOST_EXTERN int ZvWatchFd(int fd, int events) ZVXFER_NOEXCEPT;

/** Stop watching fd on the calling thread. */
ZVXFER_HOST_EXTERN void ZvUnwatchFd(int fd) ZVXFER_NOEXCEPT;

/** A wait-prepare callback (see ZvAddWaitPrepare). */
typedef void (*ZvPrepareFn)(void *context);

/**
 * Call fn(context) on the calling thread each time one of its waits (the
 * library's, ZvGetMessage's, ZvWaitMessage's) is about to sleep: the place
 * for a host to put out bytes it gathered while the thread was busy, so
 * that nothing is held back while the thread waits for an answer.
 * @return 0, or -1 when the pair is already registered or 8 are.
 */
ZVXFER_HOST_EXTERN int ZvAddWaitPrepare(ZvPrepareFn fn, void *context) ZVXFER_NOEXCEPT;

/** Remove a registration made by ZvAddWaitPrepare on the calling thread. */
ZVXFER_HOST_EXTERN void ZvRemoveWaitPrepare(ZvPrepareFn fn, void *context) ZVXFER_NOEXCEPT;

/**
 * Install the sink of the library's debugger output: trace lines of the
 * Kermit engine, and the traces of a host's likely mistakes (see "Traps").
 * NULL restores the default: the file named by the environment variable
 * ZVXFER_DEBUG ("stderr" allowed), or nothing when it is unset.  The sink
 * is called on whichever thread writes a line (make it thread-safe); the
 * text is valid during the call only.  Any thread, process-wide.  Not in
 * zvxfer.dll, which writes its lines to the file ZVXFER_DEBUG names or
 * else to an attached debugger (OutputDebugStringA).
 */
ZVXFER_HOST_EXTERN void ZvSetDebugOutput(void (*sink)(const char *text)) ZVXFER_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Result codes                                                             */
/* ------------------------------------------------------------------------ */

/* Port-layer codes, -1 to -42, with the texts PortErrorName gives them. */
#define PORT_RESULT_MAP(XX)                                                                        \
    XX(0, PortSuccess, "Success")                                                                  \
    XX(-1, PortGeneralError, "General error")                                                      \
    XX(-2, PortInvalidPort, "Invalid port")                                                        \
    XX(-3, PortInUse, "In use")                                                                    \
    XX(-4, PortInvalidBufferSize, "Invalid buffer size")                                           \
    XX(-5, PortNoMemory, "No memory available")                                                    \
    XX(-6, PortNotSetUp, "Not set up")                                                             \
    XX(-7, PortInvalidParameter, "Invalid parameter")                                              \
    XX(-8, PortBufferEmpty, "Buffer empty")                                                        \
    XX(-9, PortBufferFull, "Buffer full")                                                          \
    XX(-10, PortTimeOut, "Time out")                                                               \
    XX(-11, PortCtsLow, "CTS is low")                                                              \
    XX(-12, PortCdLow, "CD is low")                                                                \
    XX(-13, PortDsrLow, "DSR is low")                                                              \
    XX(-14, PortNo8250, "No 8250 present")                                                         \
    XX(-15, PortXmodemStatus, "XMODEM status")                                                     \
    XX(-16, PortUserAbort, "User abort")                                                           \
    XX(-17, PortFileIoError, "File I/O error")                                                     \
    XX(-18, PortXmodemStatus2, "XMODEM status")                                                    \
    XX(-19, PortNotWideTrack, "Not wide track")                                                    \
    XX(-20, PortHardwareConflict, "Hardware conflict")                                             \
    XX(-21, PortCrcMode, "CRC mode")                                                               \
    XX(-22, PortModemNoOk, "Modem didn't send OK")                                                 \
    XX(-23, PortNoModemResponse, "No modem response")                                              \
    XX(-24, PortNotSupported, "Function not supported")                                            \
    XX(-25, PortIllegalBaudRate, "Illegal baud rate")                                              \
    XX(-26, PortIllegalParity, "Illegal parity")                                                   \
    XX(-27, PortIllegalWordLength, "Ilegal word length")                                           \
    XX(-28, PortIllegalStopBits, "Illegal number of stop bits")                                    \
    XX(-30, PortDriverNotInstalled, "Driver not installed")                                        \
    XX(-31, PortUserBufferOverflow, "User buffer overflow")                                        \
    XX(-32, PortConnectFailure, "Failure to connect to port")                                      \
    XX(-33, PortDosExtenderError, "DOS Extender returned an error")                                \
    XX(-34, PortIllegalBoard, "Illegal board number")                                              \
    XX(-35, PortBoardInUse, "Board is in use")                                                     \
    XX(-36, PortBlockedByHandshake, "Blocked by handshaking")                                      \
    XX(-37, PortTooManyPorts, "Maximum number of ports exceeded")                                  \
    XX(-38, PortIllegalIrq, "Illegal IRQ line")                                                    \
    XX(-39, PortIrqInUse, "IRQ line in use")                                                       \
    XX(-40, PortThunkFailed, "Thunk setup failed")                                                 \
    XX(-41, PortAnsiError, "ANSI Error")                                                           \
    XX(-42, PortPackingError, "Compiler packing error")

/* Transfer codes, -601 to -623, stored in XferRecord.Result. */
#define XFER_RESULT_MAP(XX)                                                                        \
    XX(-601, XferErrNoBuffer, "Can't allocate xfer buffer")                                        \
    XX(-602, XferErrOpenFile, "Can't open xfer file")                                              \
    XX(-603, XferErrSendNak, "Can't send NAK, buffer full")                                        \
    XX(-604, XferErrSendAck, "Can't send ACK, buffer full")                                        \
    XX(-605, XferErrUserAbort, "User hit abort key")                                               \
    XX(-606, XferErrRemoteAbort, "Remote end sent abort code")                                     \
    XX(-607, XferErrFileIo, "Error during file I/O")                                               \
    XX(-608, XferErrPacketTimeout, "Timed out waiting for packet")                                 \
    XX(-609, XferErrPacketSize, "Got an invalid packet size")                                      \
    XX(-610, XferErrTooManyErrors, "Too many errors to continue")                                  \
    XX(-611, XferErrInternal, "Internal error")                                                    \
    XX(-612, XferErrSendBlock, "Can't send block, buffer full")                                    \
    XX(-613, XferErrSendEot, "Can't send EOT, buffer full")                                        \
    XX(-614, XferErrProtocol, "Protocol error")                                                    \
    XX(-615, XferErrSendChar, "Can't send char, buffer full")                                      \
    XX(-616, XferErrGetChar, "Can't get character")                                                \
    XX(-617, XferErrCharTimeout, "Timeout waiting for characters")                                 \
    XX(-618, XferErrLostCarrier, "Lost carrier during transfer")                                   \
    XX(-619, XferErrNoFilesSent, "No files were sent")                                             \
    XX(-620, XferErrShouldSkip, "Receiver should send ZSKIP")                                      \
    XX(-621, XferErrBPlusSequence, "CompuServe B+ packet sequence err")                            \
    XX(-622, XferErrBPlusPacket, "CompuServe B+ packet arrived")                                   \
    XX(-623, XferErrFileEngine, "File engine failed")

#define ZVXFER_RESULT_ENUM_(code, name, text) name = (code),
typedef enum PortResult { PORT_RESULT_MAP(ZVXFER_RESULT_ENUM_) } PortResult;
typedef enum XferResult { XFER_RESULT_MAP(ZVXFER_RESULT_ENUM_) } XferResult;
#undef ZVXFER_RESULT_ENUM_

/* ------------------------------------------------------------------------ */
/* Protocols and option codes                                               */
/* ------------------------------------------------------------------------ */

typedef enum XferProtocol {
    Xmodem = 0,
    Ymodem = 1,
    Kermit = 2,
    Zmodem = 3,
    Xmodem1K = 4,
    CompuServeBPlus = 5,
    Xmodem1KG = 6, /* only through XferOptStreaming */
    YmodemG = 7,   /* only through XferOptStreaming */
    Ascii = 8
} XferProtocol;

/* Option codes; "+ value" codes take the next word as their value. */
typedef enum XferOption {
    XferOptEnd = 0,
    XferOptNone = 1001,
    XferOptKermitQuote8Bit = 1002,
    XferOptKermitTextMode = 1003,
    XferOptKermitNoRepeat = 1004,
    XferOptFullPath = 1005,
    XferOptFlag1006 = 1006,
    XferOptAbortKey = 1007, /* + key code */
    XferOptChecksum = 1008,
    XferOptSubfolders = 1009,
    XferOptStreaming = 1011,
    XferOptReceiveTimeout = 1012, /* + milliseconds */
    XferOptZmResume = 1014,
    XferOptZmPacing = 1015,
    XferOptSendTimeout = 1016, /* + milliseconds */
    XferOptZmNoWindow = 1017,
    XferOptZmNewerLonger = 1018,
    XferOptZmAppend = 1019,
    XferOptZmReplace = 1020,
    XferOptZmDiffer = 1021,
    XferOptZmProtect = 1022,
    XferOptZmNewer = 1023,
    XferOptBPlusCheckMethod = 1024, /* + check method */
    XferOptBPlusFileInfo = 1025,
    XferOptBPlusResume = 1026,
    XferOptReleaseHookBuffer = 1027, /* + flag */
    XferOptMaxErrors = 1028,         /* + count */
    XferOptZmWindowSize = 1029       /* + bytes */
} XferOption;

/* Existing-file policies (fourth argument of PortOpen). */
#define XFER_EXISTING_OVERWRITE 0
#define XFER_EXISTING_RENAME 1
#define XFER_EXISTING_SKIP 2

/* ------------------------------------------------------------------------ */
/* Records                                                                  */
/* ------------------------------------------------------------------------ */

/** A local file: a file descriptor on Linux, a file HANDLE on Windows;
 *  -1 (INVALID_HANDLE_VALUE on Windows) is invalid. */
typedef intptr_t XferFile;
#define XFER_INVALID_FILE ((XferFile)-1)

typedef struct XferPort XferPort;
typedef struct XferRecord XferRecord;
typedef struct ThreadHooks ThreadHooks;
typedef struct SendFileList SendFileList;

/* The hooks and callbacks run on the transfer's thread.  A record pointer
   they get lives on the entry's stack: valid during the call only. */

/** Idle hook: >= 0 keep waiting, < 0 end the wait with that value.  Called
 *  on every read, so it must return quickly. */
typedef int32_t (*XferIdleFn)(XferPort *port);
/** Abort hook: 0 go on; any other value becomes the transfer's Result. */
typedef int32_t (*XferAbortFn)(XferRecord *record);
/** File-open hook: mode is "rb" or "wb"; returns a file or XFER_INVALID_FILE.
 *  The file then belongs to the library, which closes it. */
typedef XferFile (*XferFileOpenFn)(XferRecord *record, const char *name, const char *mode);
/** Error-name hook: a text for the code (one that stays valid, such as a
 *  string constant), or NULL to let the library answer. */
typedef const char *(*XferErrorNameFn)(int32_t code);
/** Status callback: level 0 trace, 1 notice; text valid during the call only. */
typedef int32_t (*XferStatusFn)(XferRecord *record, int32_t level, const char *text);
/** Progress callback: called at every abort check; the result is ignored. */
typedef int32_t (*XferProgressFn)(XferRecord *record);
/** ASCII character callback: every byte echoed or captured. */
typedef void (*XferCharFn)(uint8_t ch);

/** The three words the port and the host exchange through XferPortMessage
 *  (see PORT_READ and PORT_WRITE for who owns Data, and for how long). */
typedef struct PortBlock {
    uint8_t *Data;   /* first byte concerned */
    uint32_t Length; /* bytes at Data */
    int32_t Error;   /* non-zero: the host reports a lost connection */
} PortBlock;

/** The port's 17 link operations, in slot order.  Each returns 0, a byte
 *  value or a count on success and a negative code on failure. */
typedef struct XferPortOps {
    int32_t (*ReadChar)(XferPort *port);
    int32_t (*PeekChar)(XferPort *port);
    int32_t (*WriteChar)(XferPort *port, uint8_t byte);
    int32_t (*PortClose)(XferPort *port);
    int32_t (*Reserved1)(XferPort *port, intptr_t value);
    int32_t (*Reserved2)(XferPort *port, intptr_t value); /* always NULL */
    int32_t (*Reserved3)(XferPort *port, intptr_t value);
    int32_t (*Reserved4)(XferPort *port, intptr_t value);
    int32_t (*Reserved5)(XferPort *port, intptr_t value);
    int32_t (*TxFree)(XferPort *port);
    int32_t (*TxCount)(XferPort *port);
    int32_t (*RxFree)(XferPort *port);
    int32_t (*RxCount)(XferPort *port);
    int32_t (*PurgeTx)(XferPort *port);
    int32_t (*WriteBuffer)(XferPort *port, const uint8_t *data, uint32_t length);
    int32_t (*ReadBuffer)(XferPort *port, uint8_t *destination, uint32_t length);
    void (*ClearError)(XferPort *port);
} XferPortOps;

#define XFER_TX_BUFFER_SIZE 4096

/** The port object made by PortOpen, in field order. */
struct XferPort {
    int32_t Status;             /* last reported code: 0 or a port-layer code */
    uint32_t Count;             /* bytes moved by the last ReadBuffer/WriteBuffer */
    PortBlock RxBlock;          /* host's received bytes not yet consumed */
    PortBlock TxBlock;          /* bytes offered by the last WriteBuffer */
    ZvHwnd HostWindow;          /* target of XferPortMessage */
    int32_t ExistingFilePolicy; /* XFER_EXISTING_* */
    const char *ReceiveFolder;  /* by reference: the host keeps it alive */
    uint8_t *TxBuffer;          /* 4096-byte staging block */
    XferPortOps Ops;            /* the link operations */
    uintptr_t PortUserData;     /* the host's, never used by the library */
    ThreadHooks *Hooks;         /* the hook record; the port holds one reference */
};

/** The process's hook record (one serves every thread), in field order. */
struct ThreadHooks {
    XferIdleFn IdleFunction;
    XferFileOpenFn FileOpenFunction;
    XferAbortFn AbortFunction;
    void *WorkBuffer; /* a malloc block; clean-up frees it when option 1027 is non-zero */
    int32_t AbortKey; /* 27 by default */
    XferErrorNameFn UserErrorNameFunction;
    uintptr_t Thread; /* the current-thread pseudo-handle */
    int32_t PortRefs;
};

#define XFER_PATH_MAX 512

/** The public face of a send-file list (the library allocates it). */
struct SendFileList {
    int32_t (*Next)(XferRecord *record, SendFileList *list); /* 1 = a file is ready */
    int32_t (*Destroy)(SendFileList *list);
    char Path[XFER_PATH_MAX]; /* full name of the current file */
    int32_t Size;             /* its size in bytes */
    int32_t ModTime;          /* its modification time, seconds since 1970 UTC */
    int32_t SearchError;      /* 0, -601, or non-zero when a name matched nothing */
};

/** The state of one transfer, in field order; what callbacks can see. */
struct XferRecord {
    int32_t SkipFile;
    SendFileList *SendList;
    char *FileName;
    int32_t BlockNumber;
    int32_t FilePos;
    int32_t FileSize;
    int32_t FileTime; /* seconds since 1970-01-01 UTC, -1 unknown */
    XferStatusFn StatusCallback;
    XferProgressFn ProgressCallback;
    uint8_t *Buffer;
    XferFile File;
    XferPort *Port;
    int32_t AbortKey;
    int32_t FileCount;
    int32_t Result;
    int32_t BlockSize;
    int32_t RxCheck;
    int32_t RxSeq;
    int32_t Option1006Flag;
    int32_t ErrorTotal;
    int32_t ErrorRun;
    int8_t Sending;
    int8_t StripPath;
    int32_t ReleaseHookBuffer;
    int8_t Protocol; /* XferProtocol */
    intptr_t ProtocolParam;
    intptr_t ProtocolHook;
    int32_t ProtocolFlag;
    union {
        uint8_t Bytes[64];
        int32_t Words[16];
    } ProtocolBytes;
};

/** The option block of the generic entries: 28 words, unset slots 1001. */
typedef struct FileTransferOptions {
    int32_t Slot[28];
} FileTransferOptions;

/* ------------------------------------------------------------------------ */
/* Port and hooks                                                           */
/* ------------------------------------------------------------------------ */

/**
 * Open a port on the host's window.
 * @param[in] userData  kept in PortUserData, never used by the library
 * @param[in] window    the host window that answers XferPortMessage
 * @param[in] receiveFolder  folder for received files, ending in '/' or
 *                      '\\' (NULL
 *                      or "": the current folder).  A received name is
 *                      joined to it as it is; a text that names no folder
 *                      is the one file every received file is written to.
 *                      Stored by reference: keep it alive while the port is.
 *                      Traced (not refused) when it lacks its separator or names
 *                      no folder but ends in one.
 * @param[in] existingFilePolicy  XFER_EXISTING_OVERWRITE, _RENAME or _SKIP
 * @return the port, or NULL when out of memory or no hook record can be had.
 * Close it with port->Ops.PortClose(port), after the last transfer on it
 * has returned; unread received bytes are dropped then.  Any thread; the
 * port's transfers may run on any one thread at a time.
 */
ZVXFER_EXTERN XferPort *PortOpen(uintptr_t userData, ZvHwnd window, const char *receiveFolder,
                                 int32_t existingFilePolicy) ZVXFER_NOEXCEPT;

/** Discard everything the host has received so far: the unread bytes of
 *  port->RxBlock and whatever the host hands over until it has nothing.
 *  0, or a negative code (-1: the connection is lost). */
ZVXFER_EXTERN int32_t ClearRXBuffer(XferPort *port) ZVXFER_NOEXCEPT;

/* Hook setters: one set of hooks serves the whole process, so a setter on
   any thread changes every thread's transfers (a running one at its next
   use of the hook).  NULL is ignored: the hook in force stays.  Hooks
   set before the first PortOpen stay; when the last port closes, the
   hooks go back to the defaults. */
ZVXFER_EXTERN void SetPortIdleFunctionPtr(XferIdleFn idle) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN void SetAbortXferFunctionPtr(XferAbortFn abortFn) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN void SetUserErrorNameFunctionPtr(XferErrorNameFn errorName) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN void SetXferFileOpenFunctionPtr(XferFileOpenFn fileOpen) ZVXFER_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* The line host: a window and port over file descriptors                   */
/* ------------------------------------------------------------------------ */

/*
 * The library's own host for a connection on file descriptors: a C host
 * needs no window procedure of its own.  Linux only.
 *
 *     ZvLine *line = ZvLineOpen(fd, fd, NULL);
 *     XferPort *port = ZvLinePort(line, "./", XFER_EXISTING_RENAME);
 *     char names[] = "\"report.pdf\"";        (writable: see Transfers)
 *     int32_t rc = CLFileSend(port, Zmodem, names, 0, 0,
 *                             CLSetFileTransferOptions(NULL), NULL, NULL);
 *     port->Ops.PortClose(port);
 *     ZvLineClose(line);
 *
 * PORT_READ hands over what one non-blocking read brings (read-ahead
 * first); PORT_WRITE gathers the bytes in a send queue that goes out
 * without blocking: when it holds flushAt bytes, before a read while it
 * holds less than answerBytes, when the engine polls twice in vain, before
 * the thread sleeps in any wait, on ZvLineFlush and in ZvLineClose.  A full
 * descriptor takes part of a block (the port's -9; the engines retry).
 * While writes wait for room, arriving bytes are read ahead so a far end
 * that talks while it listens is never stalled by us.  Writes never raise
 * SIGPIPE.  End of file, hang-up, EPIPE, EIO or ECONNRESET marks the line
 * lost: the bytes read before still come first, then every request gets
 * Error (the engines end with their lost-line codes).  A tty's read of 0
 * bytes is a hang-up only when poll says so.
 *
 * Threads: a line belongs to the thread that opened it.  Its window is
 * owned by that thread and its descriptors are watched by that thread's
 * waits, so run the transfers on that thread and call every ZvLine
 * function there.
 */

/** A line carried by one or two file descriptors (a tty, a socket, a pipe
 *  pair, a pty) with a host window that answers XferPortMessage. */
typedef struct ZvLine ZvLine;

/** A size field set to this asks for none: no send queue (every write goes
 *  out at once), no read-ahead store, no answer rule (0 keeps the default). */
#define ZV_LINE_NONE ((size_t)-1)

/** Tuning of a line; zero fields keep their defaults (in parentheses). */
typedef struct ZvLineOptions {
    size_t size;          /* sizeof(ZvLineOptions): lets the struct grow */
    size_t receiveBuffer; /* bytes one PORT_READ hands over at most (64 KiB) */
    size_t sendQueue;     /* bytes PORT_WRITE may gather before they go out (16 KiB) */
    size_t flushAt;       /* a queue this long goes out at once (8 KiB) */
    size_t answerBytes;   /* a queue shorter than this goes out before a read (1 KiB) */
    size_t readAhead;     /* bytes read ahead while writes wait for room (4 MiB) */
    int closeFds;         /* non-zero: ZvLineClose also closes the descriptors */
} ZvLineOptions;

/**
 * Open a line on the calling thread.  The descriptors become non-blocking
 * until ZvLineClose puts their flags back; the read descriptor is watched
 * by this thread's waits (ZvWatchFd) and a flush runs before each of its
 * sleeps (ZvAddWaitPrepare: at most 8 lines per thread).
 * @param[in] readFd   descriptor to read (open for reading)
 * @param[in] writeFd  descriptor to write; may equal readFd
 * @param[in] options  NULL for the defaults; read during the call only.
 *                     Its `size` must be set (0 is refused).
 * @return the line, or NULL: bad options or descriptors, or no room in this
 * thread's tables.  errno says why and a debug trace names it; the
 * descriptors are left as they were (not closed, whatever closeFds says).
 */
ZVXFER_HOST_EXTERN ZvLine *ZvLineOpen(int readFd, int writeFd,
                                      const ZvLineOptions *options) ZVXFER_NOEXCEPT;

/**
 * Open a port on the line's window: PortOpen(line, window, receiveFolder,
 * existingFilePolicy), so PortUserData holds the line (yours to change).
 * Close it with port->Ops.PortClose(port), before ZvLineClose.
 * @return the port, or NULL (line NULL, or as PortOpen).
 */
ZVXFER_HOST_EXTERN XferPort *ZvLinePort(ZvLine *line, const char *receiveFolder,
                                        int32_t existingFilePolicy) ZVXFER_NOEXCEPT;

/** The line's window (for PortOpen or a host's own messages); NULL for NULL. */
ZVXFER_HOST_EXTERN ZvHwnd ZvLineWindow(const ZvLine *line) ZVXFER_NOEXCEPT;

/**
 * Put the queued bytes on the line, waiting up to timeoutMs (0: only what
 * fits now) for the descriptor to take them.
 * @return 1 when nothing is left queued, 0 when bytes are still queued or
 * the line is lost.
 */
ZVXFER_HOST_EXTERN int ZvLineFlush(ZvLine *line, int timeoutMs) ZVXFER_NOEXCEPT;

/** Bytes accepted from PORT_WRITE and not yet written. */
ZVXFER_HOST_EXTERN size_t ZvLineQueued(const ZvLine *line) ZVXFER_NOEXCEPT;

/** 1 once a read or write found the line gone (EOF, hang-up, EPIPE, EIO). */
ZVXFER_HOST_EXTERN int ZvLineLost(const ZvLine *line) ZVXFER_NOEXCEPT;

/** Bytes read from the read descriptor so far. */
ZVXFER_HOST_EXTERN uint64_t ZvLineBytesIn(const ZvLine *line) ZVXFER_NOEXCEPT;

/** Bytes written to the write descriptor so far. */
ZVXFER_HOST_EXTERN uint64_t ZvLineBytesOut(const ZvLine *line) ZVXFER_NOEXCEPT;

/**
 * Close the line: the queue goes out (waiting at most 2 s for a full
 * descriptor; the rest is dropped), the window goes, the descriptors are
 * no longer watched, their flags come back, and with closeFds they are
 * closed.  Close the line's ports first.  NULL is ignored.  On the thread
 * that opened the line only (elsewhere it is traced: that thread's waits
 * would go on watching the descriptor).
 */
ZVXFER_HOST_EXTERN void ZvLineClose(ZvLine *line) ZVXFER_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Transfers                                                                */
/* ------------------------------------------------------------------------ */
/*
 * Every entry returns the transfer's Result when it is not 0, else the number
 * of files handled.  Option words follow the fixed arguments, ended by 0.
 * Each runs wholly on the calling thread and returns when the exchange is
 * over; the status and progress callbacks (NULL: none) run inside it.
 *
 * Send names: one string of double-quoted names with wildcards, for
 * example "\"/tmp/a b.txt\",\"/tmp/x?.bin\"".  The library writes to it
 * (a NUL over the quote that ends each name; Kermit moves the names to the
 * front), so it must be writable and is changed after the call:
 *     char names[] = "\"a.txt\"";     works
 *     "\"a.txt\""                     a string literal: refused with -7
 * A receiver's file name (XMODEM, XMODEM-1K, ASCII) is copied; a received
 * name from the line is placed in the port's receive folder.
 */

/**
 * Make an option block for CLFileSend or CLFileReceive from a list of option
 * words ended by 0 (NULL or an empty list: no options).
 * @return the block, or NULL when out of memory.  The CLFileSend or
 * CLFileReceive it is given to releases it, whatever the outcome; give
 * every block to exactly one such call.
 */
ZVXFER_EXTERN FileTransferOptions *CLSetFileTransferOptions(const int32_t *list) ZVXFER_NOEXCEPT;
/**
 * Send with protocol number `protocol`, its options taken from `block`
 * (released before the call returns, whatever the outcome; NULL: -7).
 * @param[in,out] names  the send names, written to (see above)
 * @param[in] asciiFlag, asciiValue  ASCII: drop line feeds; line delay in ms
 * @return the protocol entry's result, or -7 for a protocol number that has
 * none, a NULL block, or names the library cannot write to.
 */
ZVXFER_EXTERN int32_t CLFileSend(XferPort *port, int32_t protocol, char *names, int32_t asciiFlag,
                                 int32_t asciiValue, FileTransferOptions *block,
                                 XferStatusFn status, XferProgressFn progress) ZVXFER_NOEXCEPT;
/**
 * Receive with protocol number `protocol`, its options taken from `block`
 * (released before the call returns, whatever the outcome; NULL: -7).
 * @param[in] name       the file to write: XMODEM, XMODEM-1K and ASCII only
 * @param[in] asciiFlag  ASCII: non-zero drops received line feeds
 * @return the protocol entry's result, or -7 for a protocol number that has
 * none.  For ASCII the block's receive time-out (option 1012 and its value)
 * is passed on as well, so a silence limit set in the block reaches the
 * capture; its subfolder option (1009) is passed too and makes an ASCII
 * receive fail with -7.
 */
ZVXFER_EXTERN int32_t CLFileReceive(XferPort *port, int32_t protocol, char *name, int32_t asciiFlag,
                                    FileTransferOptions *block, XferStatusFn status,
                                    XferProgressFn progress) ZVXFER_NOEXCEPT;

ZVXFER_EXTERN int32_t XmodemSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                            XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t XmodemReceiveWithOptions(XferPort *port, char *fileName, XferStatusFn status,
                                               XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t Xmodem1KSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                              XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t Xmodem1KReceiveWithOptions(XferPort *port, char *fileName,
                                                 XferStatusFn status, XferProgressFn progress,
                                                 ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t YmodemSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                            XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t YmodemReceiveWithOptions(XferPort *port, XferStatusFn status,
                                               XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t ZmodemSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                            XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t ZmodemReceiveWithOptions(XferPort *port, XferStatusFn status,
                                               XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t KermitSendWithOptions(XferPort *port, char *fileList, XferStatusFn status,
                                            XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t KermitReceiveWithOptions(XferPort *port, XferStatusFn status,
                                               XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t CompuServeBPlusWithOptions(XferPort *port, XferStatusFn status,
                                                 XferProgressFn progress, ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t CompuServeBPlusRespond(XferPort *port, int32_t bplusFlag) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t AsciiSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                           XferProgressFn progress, XferCharFn charCallback,
                                           uint8_t dropLf, int32_t lineDelayMs,
                                           ...) ZVXFER_NOEXCEPT;
ZVXFER_EXTERN int32_t AsciiReceiveWithOptions(XferPort *port, char *fileName, XferStatusFn status,
                                              XferProgressFn progress, XferCharFn charCallback,
                                              uint8_t dropLf, ...) ZVXFER_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Message library                                                          */
/* ------------------------------------------------------------------------ */

/**
 * Load the message catalogue in the user's language.  Runs by itself when
 * the library is loaded; a host may call it again after UnregisterXferDLL.
 * @return 0 when loaded (or already loaded, or not registered), 1 when the
 * registration was found but no catalogue could be loaded.
 */
ZVXFER_EXTERN int32_t RegisterXferDLL(void) ZVXFER_NOEXCEPT;

/**
 * Copy the catalogue's text of message `number` into `buffer` (NUL-ended,
 * cut to `size` - 1 bytes), so that a host can show the library's words in
 * the same language as its status lines.
 * @return the length copied, or -1 (and an empty buffer when there is one)
 * when the loaded catalogue has no usable text for that number.  Not in
 * zvxfer.dll: a Windows host loads zvui32.<code>.nls (LoadLibraryExA with
 * LOAD_LIBRARY_AS_DATAFILE) and reads the number with LoadStringA.
 */
ZVXFER_HOST_EXTERN int32_t ZvMessageText(int32_t number, char *buffer, size_t size) ZVXFER_NOEXCEPT;

/** Release the message catalogue (runs by itself when the library unloads). */
ZVXFER_EXTERN void UnregisterXferDLL(void) ZVXFER_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* ZVXFER_H */
