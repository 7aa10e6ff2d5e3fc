/*
 * send_receive.c - send and receive files with every protocol of zvxfer
 * through its generic entries, over the library's C line host.
 *
 *     send_receive send     PROTOCOL FILE...        on standard input/output
 *     send_receive receive  PROTOCOL TARGET         on standard input/output
 *     send_receive loopback PROTOCOL DIR FILE...    both ends in this process
 *
 * PROTOCOL is xmodem, xmodem-1k, xmodem-1k-g, ymodem, ymodem-g, zmodem,
 * kermit, bplus or ascii.  TARGET is the folder received files go to, or
 * for xmodem, xmodem-1k, xmodem-1k-g and ascii (which carry no name) the
 * file to write.  `loopback` joins a sender and a receiver over a socket
 * pair, one on each of two threads, and puts the copies in DIR.
 *
 * A terminal program runs the same calls on its serial line: ZvLineOpen on
 * the line's fd, ZvLinePort, then CLSetFileTransferOptions and CLFileSend
 * or CLFileReceive with a protocol number.  Progress and notices go to
 * standard error; standard output carries protocol bytes only.
 * Exit status: 0 when the transfer worked, 1 when it failed, 2 for a
 * usage error.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <zvxfer.h>

/* ---------------------------------------------------------------------- */
/* The protocols, as the generic entries know them                        */
/* ---------------------------------------------------------------------- */

struct protocol {
    const char *name;
    int32_t number;  /* the generic entries' protocol number */
    int streaming;   /* the streaming forms are an option of their base */
    int namesOnLine; /* the receiver gets names from the sender */
};

static const struct protocol kProtocols[] = {
    {"xmodem", Xmodem, 0, 0}, {"xmodem-1k", Xmodem1K, 0, 0},    {"xmodem-1k-g", Xmodem1K, 1, 0},
    {"ymodem", Ymodem, 0, 1}, {"ymodem-g", Ymodem, 1, 1},       {"zmodem", Zmodem, 0, 1},
    {"kermit", Kermit, 0, 1}, {"bplus", CompuServeBPlus, 0, 1}, {"ascii", Ascii, 0, 0},
};

static const struct protocol *find_protocol(const char *name) {
    for (size_t i = 0; i < sizeof kProtocols / sizeof kProtocols[0]; ++i)
        if (strcmp(kProtocols[i].name, name) == 0) return &kProtocols[i];
    return NULL;
}

/* An ASCII capture has no end of its own: it ends when the line has been
   quiet this long. */
#define CAPTURE_QUIET_MS 3000

/* The option block of the generic entries, made from an option list that
   ends with XferOptEnd; a "+ value" option takes the next word as its
   value.  CLFileSend and CLFileReceive release the block, whatever the
   outcome, so every call gets a new one. */
static FileTransferOptions *options_for(const struct protocol *p) {
    int32_t list[8];
    int n = 0;
    if (p->streaming) list[n++] = XferOptStreaming;
    if (p->number == Ascii) {
        list[n++] = XferOptReceiveTimeout;
        list[n++] = CAPTURE_QUIET_MS;
    }
    list[n++] = XferOptEnd;
    return CLSetFileTransferOptions(list);
}

/* ---------------------------------------------------------------------- */
/* Callbacks and hooks                                                    */
/* ---------------------------------------------------------------------- */

/* One end of a transfer: its line and port and what the callbacks saw. */
struct end {
    const char *label; /* "send" or "receive", for the messages */
    ZvLine *line;
    XferPort *port;
    int32_t filesSeen; /* the record's FileCount at the last progress call */
    int lastPercent;
};

/* Callbacks and hooks run on the thread that runs the transfer, so each
   thread finds its own end here.  (The hooks are one set for the whole
   process; the record's Port would tell the ends apart as well.) */
static _Thread_local struct end *t_end;
static volatile sig_atomic_t g_interrupted;

static void on_signal(int sig) {
    (void)sig;
    g_interrupted = 1;
}

/* The abort hook: asked many times a second.  What it returns other than
   0 becomes the transfer's result, and the engine tells the peer. */
static int32_t check_abort(XferRecord *record) {
    (void)record;
    if (g_interrupted) return XferErrUserAbort;
    if (t_end != NULL && ZvLineLost(t_end->line)) return XferErrLostCarrier;
    return 0;
}

/* The idle hook runs while the library waits for the line; a negative
   answer ends the wait at once.  Some waits have no time limit of their
   own (a B+ terminal waits for its service as long as it takes), so this
   is where a lost line or Ctrl-C ends them.  The library's own idle hook
   handles the thread's messages, which the line host relies on: it is
   called for everything else. */
static XferIdleFn g_libraryIdle;

static int32_t on_idle(XferPort *port) {
    if (g_interrupted || (t_end != NULL && ZvLineLost(t_end->line))) return -1;
    return g_libraryIdle(port);
}

/* The hooks are one set for the whole process, shared by both ends of a
   loopback: the first end to get its port installs them, keeping the
   library's idle hook (from the port's hook record) to call on. */
static pthread_mutex_t g_hookLock = PTHREAD_MUTEX_INITIALIZER;

static void install_hooks(XferPort *port) {
    pthread_mutex_lock(&g_hookLock);
    if (g_libraryIdle == NULL && port->Hooks->IdleFunction != NULL) {
        g_libraryIdle = port->Hooks->IdleFunction;
        SetPortIdleFunctionPtr(on_idle);
        SetAbortXferFunctionPtr(check_abort);
    }
    pthread_mutex_unlock(&g_hookLock);
}

/* Level 1 is a notice for the user, level 0 a trace; the text is valid
   during the call only. */
static int32_t show_status(XferRecord *record, int32_t level, const char *text) {
    (void)record;
    if (level >= 1 && text != NULL)
        fprintf(stderr, "%s: %s\n", t_end ? t_end->label : "zvxfer", text);
    return 0;
}

/* Called at every abort check: keep it cheap. */
static int32_t show_progress(XferRecord *record) {
    struct end *e = t_end;
    if (e == NULL) return 0;
    e->filesSeen = record->FileCount;
    if (record->FileName == NULL || record->FileSize <= 0) return 0;
    int percent = (int)((int64_t)record->FilePos * 100 / record->FileSize);
    if (percent / 25 != e->lastPercent / 25 || percent < e->lastPercent) {
        fprintf(stderr, "%s: %s %d%%\n", e->label, record->FileName, percent);
        e->lastPercent = percent;
    }
    return 0;
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
/* Names                                                                  */
/* ---------------------------------------------------------------------- */

/* The send entries take one string of double-quoted names separated by
   commas and split it in place: it must be writable (a string literal is
   refused with -7) and is spoilt afterwards.  '*' and '?' in a name are patterns
   the library expands. */
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

/* Received names are glued to the folder as it is ("in" + "x" would be
   "inx"), so the folder must end in '/'.  The port keeps this pointer, not
   a copy: it must outlive the port. */
static char *folder_with_separator(const char *dir) {
    size_t n = strlen(dir);
    char *folder = malloc(n + 2);
    if (folder == NULL) return NULL;
    memcpy(folder, dir, n + 1);
    if (n == 0 || folder[n - 1] != '/') strcpy(folder + n, "/");
    return folder;
}

static const char *base_name(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

/* ---------------------------------------------------------------------- */
/* CompuServe B+: the service drives                                      */
/* ---------------------------------------------------------------------- */

/* The files a B+ service may ask for (send mode), and the opener the
   file-open hook passes the work to. */
static char **g_offered;
static int g_offeredCount;
static XferFileOpenFn g_defaultOpen;

/* The service names the file it wants uploaded; only a file given on the
   command line is sent, whatever name the service asks for. */
static XferFile open_offered(XferRecord *record, const char *name, const char *mode) {
    if (mode[0] != 'r') return g_defaultOpen(record, name, mode);
    for (int i = 0; i < g_offeredCount; ++i)
        if (strcmp(base_name(g_offered[i]), base_name(name)) == 0)
            return g_defaultOpen(record, g_offered[i], mode);
    fprintf(stderr, "send: the service asked for %s, which was not offered\n", name);
    return XFER_INVALID_FILE;
}

/* A B+ terminal waits in terminal mode: ENQ from the service is answered
   with CompuServeBPlusRespond, and after DLE 'B' the service runs one
   request through the entry (it says which way the file goes; both
   generic entries reach the same B+ entry).  The session ends when the
   line goes or stays quiet. */
static int32_t bplus_session(struct end *e, const struct protocol *p) {
    const uint32_t quietLimitMs = 30000;
    uint32_t quietMs = 0;
    int32_t done = 0, previous = -1;
    while (!ZvLineLost(e->line) && !g_interrupted && quietMs < quietLimitMs) {
        int32_t c = e->port->Ops.ReadChar(e->port);
        if (c < 0) { /* nothing there: sleep until bytes arrive */
            quietMs += ZvWaitMessage(500) ? 0 : 500;
            continue;
        }
        quietMs = 0;
        if (c == 0x05) CompuServeBPlusRespond(e->port, 1);
        if (previous == 0x10 && c == 'B') {
            int32_t rc = CLFileReceive(e->port, p->number, NULL, 0, options_for(p), show_status,
                                       show_progress);
            if (rc < 0) return rc;
            ++done;
            c = -1;
        }
        previous = c;
    }
    return done > 0 ? done : XferErrNoFilesSent;
}

/* ---------------------------------------------------------------------- */
/* One end: send or receive on a line                                     */
/* ---------------------------------------------------------------------- */

struct job {
    const struct protocol *protocol;
    int sending;
    int readFd, writeFd;
    char **files; /* sending: the names; receiving: files[0] is the target */
    int count;
    int32_t result;
};

static void *run_end(void *arg) {
    struct job *job = arg;
    const struct protocol *p = job->protocol;
    struct end e = {job->sending ? "send" : "receive", NULL, NULL, 0, -1};
    t_end = &e;
    job->result = XferErrNoBuffer;

    /* The line's window belongs to the thread that opens it, and that
       thread runs the transfer: open the line here, not before. */
    e.line = ZvLineOpen(job->readFd, job->writeFd, NULL);
    const char *target = job->sending ? "." : job->files[0];
    char *folder = folder_with_separator(p->namesOnLine ? target : ".");
    char *names = job->sending ? quoted_names(job->files, job->count) : NULL;
    /* XMODEM and ASCII carry no name: the receiver is told the file. */
    char *name = !job->sending && !p->namesOnLine ? job->files[0] : NULL;
    if (e.line == NULL) {
        perror("ZvLineOpen");
        goto out;
    }
    if (folder == NULL || (job->sending && names == NULL)) {
        fprintf(stderr, "%s: a name holds '\"', or no memory\n", e.label);
        job->result = PortInvalidParameter;
        goto out;
    }
    e.port = ZvLinePort(e.line, folder, XFER_EXISTING_RENAME);
    if (e.port == NULL) goto out;
    install_hooks(e.port);

    if (p->number == CompuServeBPlus) {
        /* The service may ask for an upload whichever way we meant to go.
           Hooks are process-wide: keep the opener that is there (the
           library's own, from the port's hook record) and call it. */
        g_defaultOpen = e.port->Hooks->FileOpenFunction;
        SetXferFileOpenFunctionPtr(open_offered);
    }
    if (p->number == CompuServeBPlus)
        job->result = bplus_session(&e, p);
    else if (job->sending)
        /* ASCII: 0 keeps the file's line feeds, 0 ms pause after a line. */
        job->result =
            CLFileSend(e.port, p->number, names, 0, 0, options_for(p), show_status, show_progress);
    else
        job->result =
            CLFileReceive(e.port, p->number, name, 0, options_for(p), show_status, show_progress);

    /* A capture ends when the line stays quiet: that time-out is its
       normal end, and what it took is kept. */
    if (p->number == Ascii && !job->sending && job->result == XferErrCharTimeout) job->result = 1;
    /* The Kermit entries return 0 whatever happened; the record's file
       count, seen by the progress callback, is the best the example has.
       (A host that must know watches the packets on the line.) */
    if (p->number == Kermit && job->result == 0)
        job->result = e.filesSeen > 0 ? e.filesSeen : XferErrNoFilesSent;

    e.port->Ops.PortClose(e.port);
out:
    /* On a failure the other end should not wait for its time-outs: hang
       the line up.  After a success it may still be reading our last
       bytes, so the line stays up until both ends are done. */
    if (job->result < 0 && job->readFd == job->writeFd) shutdown(job->readFd, SHUT_RDWR);
    if (e.line != NULL) ZvLineClose(e.line); /* puts out what is queued, restores the fds */
    free(folder);
    free(names);
    t_end = NULL;
    return NULL;
}

static int report(const struct job *job) {
    if (job->result < 0) {
        fprintf(stderr, "%s: failed: %d %s\n", job->sending ? "send" : "receive", (int)job->result,
                result_text(job->result));
        return 1;
    }
    fprintf(stderr, "%s: done (%d)\n", job->sending ? "send" : "receive", (int)job->result);
    return 0;
}

/* ---------------------------------------------------------------------- */
/* main                                                                   */
/* ---------------------------------------------------------------------- */

static int usage(void) {
    fprintf(stderr, "usage: send_receive send PROTOCOL FILE...\n"
                    "       send_receive receive PROTOCOL TARGET\n"
                    "       send_receive loopback PROTOCOL DIR FILE...\n"
                    "PROTOCOL: xmodem xmodem-1k xmodem-1k-g ymodem ymodem-g zmodem kermit"
                    " bplus ascii\n");
    return 2;
}

int main(int argc, char **argv) {
    if (argc < 4) return usage();
    const char *mode = argv[1];
    const struct protocol *p = find_protocol(argv[2]);
    if (p == NULL) return usage();

    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);

    if (strcmp(mode, "send") == 0 || strcmp(mode, "receive") == 0) {
        struct job job = {p, mode[0] == 's', STDIN_FILENO, STDOUT_FILENO, argv + 3, argc - 3, 0};
        if (!job.sending && argc != 4) return usage();
        g_offered = job.files; /* B+: what the service may ask us for */
        g_offeredCount = job.sending ? job.count : 0;
        run_end(&job);
        return report(&job);
    }

    if (strcmp(mode, "loopback") != 0 || argc < 5) return usage();
    if (p->number == CompuServeBPlus) {
        /* Both ends of B+ are terminals answering a service: there is
           nothing for two of them to say to each other. */
        fprintf(stderr, "loopback: B+ needs a service on the other end (zvxfer serve)\n");
        return 2;
    }
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        perror("socketpair");
        return 1;
    }
    struct job sender = {p, 1, pair[0], pair[0], argv + 4, argc - 4, 0};
    char *target = argv[3];
    char *file = NULL;
    if (!p->namesOnLine) { /* the copy of the first file, in DIR */
        file = malloc(strlen(argv[3]) + strlen(argv[4]) + 2);
        if (file == NULL) return 1;
        sprintf(file, "%s/%s", argv[3], base_name(argv[4]));
        target = file;
    }
    struct job receiver = {p, 0, pair[1], pair[1], &target, 1, 0};
    pthread_t thread;
    if (pthread_create(&thread, NULL, run_end, &receiver) != 0) return 1;
    run_end(&sender);
    pthread_join(thread, NULL);
    close(pair[0]);
    close(pair[1]);
    free(file);
    int failed = report(&sender) | report(&receiver);
    return failed;
}
