// The ZMODEM sender's window as the program chooses it.
#include "zmodem_window.h"

#include "zvxfer.h"

namespace zvxfer::cli {

ZmodemWindow ChooseZmodemWindow(bool noWindow, std::optional<int32_t> windowBytes) {
    ZmodemWindow window;
    // A window the user sized is kept, unless --no-window says otherwise
    // as well (then streaming wins: it is the faster of the two).
    if (windowBytes && !noWindow) {
        window.stream = false;
        window.bytes = windowBytes;
    }
    return window;
}

void AppendWindowWords(const ZmodemWindow &window, std::vector<int32_t> &words) {
    if (window.stream) {
        words.push_back(XferOptZmNoWindow);
        return;
    }
    if (window.bytes) {
        words.push_back(XferOptZmWindowSize);
        words.push_back(*window.bytes);
    }
}

} // namespace zvxfer::cli
