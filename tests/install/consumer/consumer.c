/*
 * A C program built against an installed zvxfer, the way a terminal program
 * would be.  It prints the library's text of one message (default 28259) in
 * the user's language, which shows that the library found its catalogues,
 * then sends a file to itself with ZMODEM through the generic entries: a
 * sending and a receiving thread, each with its own host window, joined by
 * a socket pair.  Exit status 1 when the text, the transfer or the received
 * copy is wrong (the reason goes to standard error).
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zvxfer.h>

enum { PayloadSize = 70000 };

/* One end of the line: its socket and the bytes last handed to the library,
   which stay valid until it asks for more. */
typedef struct End {
    int fd;
    uint8_t received[4096];
    char folder[256]; /* receive folder, ending in '/' */
    char names[320];  /* send names: writable, split in place */
    int32_t result;
} End;

static intptr_t EndProc(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    End *end = ZvGetWindowUserData(window);
    PortBlock *block = (PortBlock *)lParam;
    if (message != XferPortMessage) return 0;
    if (wParam == PORT_READ) {
        ssize_t n = recv(end->fd, end->received, sizeof end->received, MSG_DONTWAIT);
        block->Data = end->received;
        block->Length = n > 0 ? (uint32_t)n : 0;
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) block->Error = 1;
    } else if (wParam == PORT_WRITE) {
        /* A blocking write: the far end's thread reads on its own. */
        ssize_t n = send(end->fd, block->Data, block->Length, MSG_NOSIGNAL);
        if (n < 0) {
            block->Length = 0;
            block->Error = 1;
        } else {
            block->Length = (uint32_t)n;
        }
    }
    return 0;
}

static int32_t Status(XferRecord *record, int32_t level, const char *text) {
    (void)record, (void)level, (void)text;
    return 0;
}

static int32_t Progress(XferRecord *record) {
    (void)record;
    return 0;
}

static void *RunEnd(void *arg) {
    End *end = arg;
    end->result = -1000;
    ZvHwnd window = ZvCreateWindow(EndProc, end);
    if (window == NULL || ZvWatchFd(end->fd, ZV_FD_READ) != 0) return NULL;
    XferPort *port = PortOpen(0, window, end->folder, XFER_EXISTING_OVERWRITE);
    if (port != NULL) {
        const int32_t options[] = {XferOptEnd};
        FileTransferOptions *block = CLSetFileTransferOptions(options);
        if (end->names[0] != '\0')
            end->result = CLFileSend(port, Zmodem, end->names, 0, 0, block, Status, Progress);
        else
            end->result = CLFileReceive(port, Zmodem, NULL, 0, block, Status, Progress);
        port->Ops.PortClose(port);
    }
    ZvUnwatchFd(end->fd);
    ZvDestroyWindow(window);
    return NULL;
}

/* Sends a file from one thread to the other; 1 when the copy is exact. */
static int SendToOurselves(void) {
    static End sender, receiver;
    static uint8_t payload[PayloadSize], back[PayloadSize + 1];
    char dir[] = "/tmp/zvxfer-consumer-XXXXXX", path[300], copy[300];
    if (mkdtemp(dir) == NULL) return perror("consumer: mkdtemp"), 0;
    snprintf(path, sizeof path, "%s/payload.bin", dir);
    snprintf(sender.names, sizeof sender.names, "\"%s\"", path);
    snprintf(sender.folder, sizeof sender.folder, "%s/", dir);
    snprintf(receiver.folder, sizeof receiver.folder, "%s/in/", dir);
    snprintf(copy, sizeof copy, "%spayload.bin", receiver.folder);

    for (size_t i = 0; i < sizeof payload; ++i) payload[i] = (uint8_t)(i * 7 + i / 251);
    FILE *f = fopen(path, "wb");
    int written = f != NULL && fwrite(payload, 1, sizeof payload, f) == sizeof payload;
    if (f != NULL && fclose(f) != 0) written = 0;
    int fds[2];
    if (!written || mkdir(receiver.folder, 0700) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        return perror("consumer: setting up the transfer"), 0;
    sender.fd = fds[0];
    receiver.fd = fds[1];

    pthread_t threads[2];
    pthread_create(&threads[0], NULL, RunEnd, &receiver);
    pthread_create(&threads[1], NULL, RunEnd, &sender);
    pthread_join(threads[0], NULL);
    pthread_join(threads[1], NULL);
    close(fds[0]);
    close(fds[1]);

    size_t got = 0;
    if ((f = fopen(copy, "rb")) != NULL) {
        got = fread(back, 1, sizeof back, f);
        fclose(f);
    }
    int same = got == sizeof payload && memcmp(back, payload, got) == 0;
    if (sender.result != 1 || receiver.result != 1 || !same)
        fprintf(stderr, "consumer: ZMODEM to ourselves: send %d, receive %d, %zu of %d bytes %s\n",
                (int)sender.result, (int)receiver.result, got, PayloadSize,
                same ? "came through" : "differ");
    remove(copy);
    remove(path);
    rmdir(receiver.folder);
    rmdir(dir);
    return sender.result == 1 && receiver.result == 1 && same;
}

int main(int argc, char **argv) {
    int32_t number = argc > 1 ? (int32_t)atoi(argv[1]) : 28259;
    char text[256];
    if (ZvMessageText(number, text, sizeof text) < 0) {
        fprintf(stderr, "consumer: the library has no text for message %d\n", (int)number);
        return 1;
    }
    printf("%s\n", text);
    return SendToOurselves() ? 0 : 1;
}
