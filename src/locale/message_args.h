// The arguments each numbered message is formatted with, made from the
// message table in `messages.h`.  Engines pass a block counter as long
// (%ld), byte values and other ints as int (%d) and names as char * (%s);
// every catalogue text must use exactly the conversions listed there, or
// formatting it would read the wrong arguments.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "locale/messages.h"

namespace zvxfer {

struct MessageArguments {
    int32_t number;
    // The message's name in the library ("MsgFileReceived").
    std::string_view name;
    // Conversions in order, each as its length modifier and conversion
    // letter: "ld" is one %ld, "dd" two %d, "" none.
    std::string_view conversions;
};

// One entry per message of ZVXFER_MESSAGE_MAP, in its order.
inline constexpr std::array kMessageArguments{
#define ZVXFER_MESSAGE_ARGUMENTS_(number, name, conversions)                                       \
    MessageArguments{(number), #name, (conversions)},
    ZVXFER_MESSAGE_MAP(ZVXFER_MESSAGE_ARGUMENTS_)
#undef ZVXFER_MESSAGE_ARGUMENTS_
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
