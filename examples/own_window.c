/*
 * own_window.c - a C host that answers the port message itself.
 *
 * The library never touches the connection: it asks the host for received
 * bytes and hands it bytes to send, through one message sent to a window
 * the host creates.  This program is that host, written out in full over
 * its standard input and output (a pipe, a socket, a serial line made raw
 * by whoever started it), the way a terminal program embeds the library:
 *
 *     own_window send FILE...     send the files with ZMODEM
 *     own_window receive DIR      receive ZMODEM files into DIR
 *
 * It shows the window procedure (PORT_READ and PORT_WRITE answered from
 * non-blocking descriptors), ZvWatchFd, PortOpen, ClearRXBuffer, one
 * protocol's own entry with an option list, and the hooks a terminal
 * installs: status and progress callbacks, an abort hook, a file-open hook.
 * The library's C line host (ZvLineOpen) does all of the line work below
 * for you; write your own window when your program already owns its
 * connection and its event loop.
 *
 * Progress and notices go to standard error; standard output carries only
 * protocol bytes.  Exit status: 0 when every file went, 1 when the
 * transfer failed, 2 for a usage error.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <zvxfer.h>

/* ---------------------------------------------------------------------- */
/* The line: two descriptors and what the window procedure needs          */
/* ---------------------------------------------------------------------- */

struct line {
    int in, out;           /* read from in, write to out (may be one fd) */
    int inFlags, outFlags; /* their flags before we made them non-blocking */
    int lost;              /* set once the far end is gone */
    int watchingOut;       /* out is watched for room (see want_room) */
    unsigned char rx[16384];
};

/*
 * The wait inside the library sleeps until a message arrives or a
 * descriptor registered with ZvWatchFd becomes ready.  The read side is
 * watched for the whole transfer: without it, a wait sleeps its full 5 ms
 * slice before it asks for bytes again, and a transfer runs many times
 * slower without any error to say why.  The write side is watched only
 * while a write found the descriptor full: a descriptor that has room is
 * always "ready", and watching it then would wake every wait at once.
 * ZvWatchFd replaces the events of an fd already watched.
 */
static void want_room(struct line *line, int on) {
    if (on == line->watchingOut) return;
    line->watchingOut = on;
    if (line->out == line->in)
        ZvWatchFd(line->in, ZV_FD_READ | (on ? ZV_FD_WRITE : 0));
    else if (on)
        ZvWatchFd(line->out, ZV_FD_WRITE);
    else
        ZvUnwatchFd(line->out);
}

/*
 * PORT_READ: point the block at the bytes received.  The library takes
 * them straight from our memory, a few at a time, over many later calls,
 * and sends PORT_READ again only once it has taken every one of them.  So
 * the buffer must stay alive and unchanged until the next PORT_READ (never
 * a local array of this function), and each PORT_READ may reuse it from
 * the start: no byte is waiting in it any more.
 */
static void answer_read(struct line *line, PortBlock *block) {
    ssize_t n;
    do n = read(line->in, line->rx, sizeof line->rx);
    while (n < 0 && errno == EINTR);
    block->Data = line->rx;
    block->Length = n > 0 ? (uint32_t)n : 0;
    /* Nothing there yet is not an error: the library waits and asks again.
       End of file or a real error means the far end is gone; say so with
       Error, which ends the transfer instead of letting it time out.  (A
       tty must be raw with VMIN 1: with VMIN 0 an idle tty reads 0.) */
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) line->lost = 1;
    block->Error = (n <= 0 && line->lost) ? 1 : 0;
}

/*
 * PORT_WRITE: take the block's bytes.  Lowering Length to what the
 * descriptor took is allowed: the library offers the rest again (after a
 * short wait, or sooner when our watched descriptor gets room).  The bytes
 * are the library's: copy them or write them before returning.
 */
static void answer_write(struct line *line, PortBlock *block) {
    uint32_t done = 0;
    while (done < block->Length && !line->lost) {
        ssize_t n = write(line->out, block->Data + done, block->Length - done);
        if (n > 0)
            done += (uint32_t)n;
        else if (n < 0 && errno == EINTR)
            continue;
        else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        else
            line->lost = 1; /* EPIPE, EIO, ECONNRESET: the far end is gone */
    }
    want_room(line, done < block->Length && !line->lost);
    block->Length = done;
    block->Error = line->lost;
}

/* The window procedure: called on this thread, synchronously, from inside
   the transfer entry.  lParam points at the port's PortBlock. */
static intptr_t line_window(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    struct line *line = ZvGetWindowUserData(window);
    PortBlock *block = (PortBlock *)lParam;
    if (message != XferPortMessage || block == NULL) return 0;
    if (wParam == PORT_READ)
        answer_read(line, block);
    else if (wParam == PORT_WRITE)
        answer_write(line, block);
    return 0;
}

/* Returns the flags to restore, or -1. */
static int make_non_blocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    return flags;
}

/* ---------------------------------------------------------------------- */
/* Hooks and callbacks                                                    */
/* ---------------------------------------------------------------------- */

static struct line g_line;
static volatile sig_atomic_t g_interrupted;
static XferFileOpenFn g_defaultOpen; /* the opener our hook passes the work on to */
static int g_lastPercent = -1;

static void on_signal(int sig) {
    (void)sig;
    g_interrupted = 1;
}

/* The abort hook runs many times a second during a transfer.  Whatever it
   returns other than 0 becomes the transfer's result; the engine then
   sends the peer its cancel sequence and returns that code. */
static int32_t check_abort(XferRecord *record) {
    (void)record;
    if (g_interrupted) return XferErrUserAbort;
    if (g_line.lost) return XferErrLostCarrier;
    return 0;
}

/* Notices (level 1) are worth showing the user; level 0 is a trace.  The
   text is valid during the call only. */
static int32_t show_status(XferRecord *record, int32_t level, const char *text) {
    (void)record;
    if (level >= 1 && text != NULL) fprintf(stderr, "own_window: %s\n", text);
    return 0;
}

/* Called at every abort check: cheap, and only prints when the percentage
   moved on by ten. */
static int32_t show_progress(XferRecord *record) {
    if (record->FileName == NULL || record->FileSize <= 0) return 0;
    int percent = (int)((int64_t)record->FilePos * 100 / record->FileSize);
    if (percent / 10 != g_lastPercent / 10) {
        fprintf(stderr, "own_window: %s %3d%%\n", record->FileName, percent);
        g_lastPercent = percent;
    }
    return 0;
}

/* The file-open hook sees every file the library opens: "rb" to send,
   "wb" to receive (name is then already inside the receive folder).  It
   could hand out files from anywhere a terminal keeps them; this one
   announces the file and passes the work on to the library's own opener,
   which it took from the port's hook record before installing itself
   (hooks are process-wide, so a host keeps and calls the previous one). */
static XferFile open_file(XferRecord *record, const char *name, const char *mode) {
    fprintf(stderr, "own_window: %s %s\n", mode[0] == 'r' ? "sending" : "receiving", name);
    g_lastPercent = -1;
    return g_defaultOpen(record, name, mode);
}

/* Result codes and their texts come as one table in the header. */
static const char *result_text(int32_t code) {
#define RESULT_CASE(value, name, text)                                                             \
    case value:                                                                                    \
        return text;
    switch (code) {
        PORT_RESULT_MAP(RESULT_CASE)
        XFER_RESULT_MAP(RESULT_CASE)
    }
#undef RESULT_CASE
    return "unknown result";
}

/* ---------------------------------------------------------------------- */
/* The send name list and the receive folder                              */
/* ---------------------------------------------------------------------- */

/*
 * The send entries take one string of double-quoted names separated by
 * commas, "\"a.txt\",\"b c.bin\"", and split it in place: it must be
 * writable memory (the library refuses a string literal with -7) and it is
 * spoilt afterwards.
 * A name with '*' or '?' is a pattern the library expands.  Returns a
 * malloc'd list, or NULL when a name holds a double quote.
 */
static char *quoted_names(char **files, int count) {
    size_t size = 1;
    for (int i = 0; i < count; ++i) {
        if (strchr(files[i], '"') != NULL) return NULL;
        size += strlen(files[i]) + 3;
    }
    char *list = malloc(size);
    if (list == NULL) return NULL;
    char *at = list;
    for (int i = 0; i < count; ++i) at += sprintf(at, "%s\"%s\"", i ? "," : "", files[i]);
    return list;
}

/*
 * The receive folder is glued in front of every received name as it is:
 * "in" + "x.bin" would make "inx.bin" beside the folder.  It must end in
 * '/'.  PortOpen keeps the pointer, not a copy, so the text must outlive
 * the port.
 */
static char *folder_with_separator(const char *dir) {
    size_t n = strlen(dir);
    char *folder = malloc(n + 2);
    if (folder == NULL) return NULL;
    memcpy(folder, dir, n + 1);
    if (n == 0 || folder[n - 1] != '/') strcpy(folder + n, "/");
    return folder;
}

/* ---------------------------------------------------------------------- */
/* main                                                                   */
/* ---------------------------------------------------------------------- */

static int usage(void) {
    fprintf(stderr, "usage: own_window send FILE...\n"
                    "       own_window receive DIR\n");
    return 2;
}

int main(int argc, char **argv) {
    int sending = argc >= 3 && strcmp(argv[1], "send") == 0;
    if (!sending && !(argc == 3 && strcmp(argv[1], "receive") == 0)) return usage();

    char *names = sending ? quoted_names(argv + 2, argc - 2) : NULL;
    char *folder = folder_with_separator(sending ? "." : argv[2]);
    if ((sending && names == NULL) || folder == NULL) {
        fprintf(stderr, "own_window: a name holds a double quote, or no memory\n");
        free(names);
        free(folder);
        return 2;
    }

    /* A write to a closed pipe or socket would kill us with SIGPIPE; with
       it ignored the write fails with EPIPE and answer_write notes it. */
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);

    g_line.in = STDIN_FILENO;
    g_line.out = STDOUT_FILENO;
    g_line.inFlags = make_non_blocking(g_line.in);
    g_line.outFlags = make_non_blocking(g_line.out);

    /* The window belongs to this thread, which also runs the transfer, so
       the port message is a direct call of line_window. */
    ZvHwnd window = ZvCreateWindow(line_window, &g_line);
    if (window == NULL || ZvWatchFd(g_line.in, ZV_FD_READ) != 0) {
        fprintf(stderr, "own_window: cannot create the window\n");
        return 1;
    }
    XferPort *port = PortOpen(0, window, folder, XFER_EXISTING_RENAME);
    if (port == NULL) {
        fprintf(stderr, "own_window: cannot open a port\n");
        return 1;
    }

    SetAbortXferFunctionPtr(check_abort);
    g_defaultOpen = port->Hooks->FileOpenFunction;
    SetXferFileOpenFunctionPtr(open_file);

    /* Whatever arrived before the transfer (a terminal's echo of the
       command that started us) is not for the protocol. */
    ClearRXBuffer(port);

    /* Option words follow the fixed arguments and end with XferOptEnd; a
       "+ value" option takes the next word as its value. */
    int32_t rc;
    if (sending)
        rc = ZmodemSendWithOptions(port, names, show_status, show_progress, XferOptZmWindowSize,
                                   16384, XferOptMaxErrors, 20, XferOptEnd);
    else
        rc = ZmodemReceiveWithOptions(port, show_status, show_progress, XferOptMaxErrors, 20,
                                      XferOptEnd);

    port->Ops.PortClose(port);
    ZvUnwatchFd(g_line.in);
    want_room(&g_line, 0);
    ZvDestroyWindow(window);
    if (g_line.inFlags >= 0) fcntl(g_line.in, F_SETFL, g_line.inFlags);
    if (g_line.outFlags >= 0) fcntl(g_line.out, F_SETFL, g_line.outFlags);
    free(names);
    free(folder);

    /* A negative result is a failure; otherwise the number of files. */
    if (rc < 0) {
        fprintf(stderr, "own_window: transfer failed: %d %s\n", (int)rc, result_text(rc));
        return 1;
    }
    fprintf(stderr, "own_window: %d file(s) %s\n", (int)rc, sending ? "sent" : "received");
    return 0;
}
