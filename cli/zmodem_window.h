// How the zvxfer program's ZMODEM sender paces itself against the
// receiver's acknowledgements.
//
// The library's own default is a window of 4096 bytes: the sender stops
// after every 4 KiB until a ZACK comes back, so over a line with latency it
// waits a round trip per 4 KiB (8 MiB took 85 s at 20 ms one way).  The
// program therefore streams by default, as the usual Unix senders do: no
// window, the receiver answers only at frame ends and on errors, and a
// position request still stops the stream at once.  A streaming sender
// leaves no acknowledgements piling up unread on the way back either (a
// large window does: one ZACK per subpacket, read only when the window
// is full).  --window N keeps the window with N bytes (--window 4096: the
// library's default), --no-window says the default out loud.
#pragma once
#include <cstdint>
#include <optional>
#include <vector>

namespace zvxfer::cli {

struct ZmodemWindow {
    bool stream = true;           // option 1017: no window at all
    std::optional<int32_t> bytes; // option 1029 with this many bytes
};

// The choice for what the user gave: --no-window, --window N (or neither).
ZmodemWindow ChooseZmodemWindow(bool noWindow, std::optional<int32_t> windowBytes);

// The option words of the choice, appended to `words`.
void AppendWindowWords(const ZmodemWindow &window, std::vector<int32_t> &words);

} // namespace zvxfer::cli
