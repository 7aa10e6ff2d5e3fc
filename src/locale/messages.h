// The numbered messages: each message's number, its name and the printf
// conversions of the arguments its users pass, in one table.  The names
// (`MsgFileReceived`, ...) and the argument table of `message_args.h` are
// made from it, so a number is written here and nowhere else.
//
// Conversions are written as length modifier and letter, in order: "ld" is
// one %ld (a block counter passed as long), "dd" two %d (ints), "s" one %s
// (a name); "" takes no argument.  Every catalogue has a text for every
// line, with exactly these conversions.  Keep the lines in ascending order
// of number (checked below).
#pragma once
#include <cstddef>
#include <cstdint>

// clang-format off
#define ZVXFER_MESSAGE_MAP(XX)                                                                     \
    /* Any engine: a file done. */                                                                 \
    XX(28258, MsgFileReceived, "")                                                                 \
    XX(28259, MsgFileSent, "")                                                                     \
    /* Send-file lists: a name that matches nothing (the name). */                                 \
    XX(28260, MsgNoFileMatches, "s")                                                               \
    /* B+ packets. */                                                                              \
    XX(28261, MsgBPlusCrcError, "")                                                                \
    XX(28262, MsgBPlusChecksumError, "")                                                           \
    /* An abort stopped the transfer; also the second half of a status                             \
       line too long to format. */                                                                 \
    XX(28263, MsgTransferCancelled, "")                                                            \
    /* A name too long or a file to receive that cannot be created; also                           \
       the first half of a status line too long to format. */                                      \
    XX(28264, MsgNameTooLong, "")                                                             \
    /* B+ transfer. */                                                                             \
    XX(28265, MsgBPlusResumeRefused, "")                                                           \
    XX(28266, MsgBPlusWriteError, "")                                                              \
    XX(28267, MsgBPlusServiceFailure, "") /* the service's own text follows */                    \
    XX(28268, MsgBPlusCannotOpenToSend, "")                                                        \
    XX(28270, MsgBPlusReadError, "")                                                               \
    XX(28271, MsgBPlusBadDirection, "")                                                            \
    XX(28272, MsgBPlusBadFileType, "")                                                             \
    XX(28273, MsgBPlusBadRequest, "")                                                              \
    /* XMODEM blocks. */                                                                           \
    XX(28280, MsgNoBlockInTime, "")                                                                \
    XX(28281, MsgBlockRejected, "")                                                                \
    /* Opening files. */                                                                           \
    XX(28282, MsgCannotOpenFile, "")                                                               \
    XX(28283, MsgFileSkipped, "")                                                                  \
    XX(28284, MsgExistingFileSkipped, "")                                                          \
    /* XMODEM and YMODEM: the block counter, or the two bytes read. */                             \
    XX(28285, MsgWrongBlockNumber, "ld")                                                           \
    XX(28286, MsgBlockCrcError, "ld")                                                              \
    XX(28287, MsgBlockChecksumError, "ld")                                                         \
    XX(28288, MsgBlockNumberMismatch, "dd")                                                        \
    XX(28289, MsgTooManyRetries, "")                                                               \
    XX(28290, MsgCannotSendCheck, "")                                                              \
    XX(28291, MsgCannotSendBlockNumber, "")                                                        \
    XX(28292, MsgCannotSendBlockHeader, "")                                                        \
    /* XMODEM start-up. */                                                                         \
    XX(28293, MsgReceiverCancelled, "")                                                            \
    XX(28294, MsgReceiverWantsChecksum, "")                                                        \
    /* Patient writes. */                                                                          \
    XX(28295, MsgWriteTimedOut, "")                                                                \
    /* ZMODEM frames. */                                                                           \
    XX(28296, MsgNoResponse, "")                                                                   \
    XX(28297, MsgRemoteCancelled, "")                                                              \
    XX(28298, MsgHexHeaderCrc, "")                                                                 \
    XX(28299, MsgBinaryHeaderCrc16, "")                                                            \
    XX(28300, MsgBinaryHeaderCrc32, "")                                                            \
    XX(28301, MsgCannotSendSubpacket, "")                                                          \
    XX(28302, MsgSubpacketCrc32, "")                                                               \
    /* ZMODEM receiver and sender. */                                                              \
    XX(28303, MsgReceivingStopped, "")                                                             \
    XX(28304, MsgSessionNotStarted, "")                                                            \
    XX(28305, MsgSessionNotClosed, "")                                                             \
    XX(28306, MsgTooMuchNoise, "")                                                                 \
    /* Files past what 32-bit positions reach (the name). */                                       \
    XX(28307, MsgTooLargeToSend, "s")                                                              \
    XX(28308, MsgTooLargeToReceive, "s")                                                           \
    /* The display name before the first file is known. */                                         \
    XX(28311, MsgWaitingForFileName, "")
// clang-format on

namespace zvxfer {

// The message numbers by name.  Unscoped, so a name passes wherever a
// message number is taken (`XferStatusMessage`, `MessageText`, ...).
enum MessageNumber : int32_t {
#define ZVXFER_MESSAGE_NUMBER_(number, name, conversions) name = (number),
    ZVXFER_MESSAGE_MAP(ZVXFER_MESSAGE_NUMBER_)
#undef ZVXFER_MESSAGE_NUMBER_
};

namespace detail {

// True when the numbers of the table rise strictly: none written twice.
constexpr bool MessageNumbersRise() {
    int32_t numbers[] = {
#define ZVXFER_MESSAGE_ONLY_NUMBER_(number, name, conversions) (number),
        ZVXFER_MESSAGE_MAP(ZVXFER_MESSAGE_ONLY_NUMBER_)
#undef ZVXFER_MESSAGE_ONLY_NUMBER_
    };
    for (std::size_t i = 1; i < sizeof numbers / sizeof numbers[0]; ++i)
        if (numbers[i] <= numbers[i - 1]) return false;
    return true;
}

} // namespace detail

static_assert(detail::MessageNumbersRise(),
              "message numbers must be unique and in ascending order");

} // namespace zvxfer
