// The arguments each numbered message is formatted with.  Engines pass a
// block counter as long (%ld), byte values and other ints as int (%d) and
// names as char * (%s); every catalogue text must use exactly the
// conversions listed here, or formatting it would read the wrong arguments.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace zvxfer {

struct MessageArguments {
    int32_t number;
    // Conversions in order, each as its length modifier and conversion
    // letter: "ld" is one %ld, "dd" two %d, "" none.
    std::string_view conversions;
};

inline constexpr std::array kMessageArguments{
    MessageArguments{28258, ""},   // file received
    MessageArguments{28259, ""},   // file sent
    MessageArguments{28260, "s"},  // no file matches the name
    MessageArguments{28261, ""},   // B+ CRC error
    MessageArguments{28262, ""},   // B+ checksum error
    MessageArguments{28263, ""},   // transfer cancelled
    MessageArguments{28264, ""},   // file cannot be created
    MessageArguments{28265, ""},   // B+ resume point not acknowledged
    MessageArguments{28266, ""},   // B+ write error
    MessageArguments{28267, ""},   // B+ failure from the service (its text follows)
    MessageArguments{28268, ""},   // B+ file to send cannot be opened
    MessageArguments{28270, ""},   // B+ read error
    MessageArguments{28271, ""},   // B+ unsupported direction
    MessageArguments{28272, ""},   // B+ unsupported file type
    MessageArguments{28273, ""},   // B+ request cannot be read
    MessageArguments{28280, ""},   // XMODEM: no block arrived in time
    MessageArguments{28281, ""},   // XMODEM: block rejected
    MessageArguments{28282, ""},   // file cannot be opened
    MessageArguments{28283, ""},   // file skipped (ZMODEM)
    MessageArguments{28284, ""},   // existing file skipped
    MessageArguments{28285, "ld"}, // wrong block number: block counter
    MessageArguments{28286, "ld"}, // CRC mismatch: block counter
    MessageArguments{28287, "ld"}, // checksum mismatch: block counter
    MessageArguments{28288, "dd"}, // block number and complement: the two bytes read
    MessageArguments{28289, ""},   // too many retries
    MessageArguments{28290, ""},   // check bytes not sent
    MessageArguments{28291, ""},   // block number not sent
    MessageArguments{28292, ""},   // SOH/STX not sent
    MessageArguments{28293, ""},   // receiver cancelled at start-up
    MessageArguments{28294, ""},   // receiver asked for checksum mode
    MessageArguments{28295, ""},   // patient write timed out
    MessageArguments{28296, ""},   // ten silent seconds
    MessageArguments{28297, ""},   // remote cancel
    MessageArguments{28298, ""},   // hex header CRC
    MessageArguments{28299, ""},   // binary header CRC-16
    MessageArguments{28300, ""},   // binary header CRC-32
    MessageArguments{28301, ""},   // subpacket not sent
    MessageArguments{28302, ""},   // subpacket CRC-32
    MessageArguments{28303, ""},   // data phase ended with an error
    MessageArguments{28304, ""},   // ZRQINIT not sent
    MessageArguments{28305, ""},   // ZFIN exchange failed
    MessageArguments{28306, ""},   // too much noise on the return channel
    MessageArguments{28307, "s"},  // file too large to send: its name
    MessageArguments{28308, "s"},  // file too large to receive: its name
    MessageArguments{28311, ""},   // display name before the first file
};

// The conversions of a message number, or nullptr for a number the library
// does not use.
const std::string_view *ExpectedConversions(int32_t number);

// The conversions of a printf format in the notation above ("%%" is no
// conversion).  A conversion this library never passes arguments for (a '*'
// width or precision, "%n", a positional "%1$") shows as "?".
std::string FormatConversions(std::string_view format);

// True when `text` may be used as the format of message `number`: its
// conversions are those of the table, or none for a number not in it.
bool TextFitsArguments(int32_t number, std::string_view text);

} // namespace zvxfer
