/*
 * A C program built against an installed zvxfer, the way a terminal program
 * would be: prints the library's text of one message (default 28259) in the
 * user's language, which shows that the library found its catalogues, and
 * fills an option block through the generic calls.  Exit status 1 when the
 * text or the block cannot be had.
 */
#include <stdio.h>
#include <stdlib.h>
#include <zvxfer.h>

int main(int argc, char **argv) {
    int32_t number = argc > 1 ? (int32_t)atoi(argv[1]) : 28259;
    char text[256];
    if (ZvMessageText(number, text, sizeof text) < 0) {
        fprintf(stderr, "consumer: the library has no text for message %d\n", (int)number);
        return 1;
    }
    /* The option block comes from the library's allocator; handing it to
       CLFileReceive with a protocol number it refuses releases it again. */
    const int32_t options[] = {0};
    FileTransferOptions *block = CLSetFileTransferOptions(options);
    if (block == NULL) {
        fprintf(stderr, "consumer: no option block\n");
        return 1;
    }
    int32_t refused = CLFileReceive(NULL, 9999, NULL, 0, block, NULL, NULL);
    printf("%s\n", text);
    return refused == -7 ? 0 : 1;
}
