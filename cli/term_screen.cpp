// Drawing on the last row of the screen.  ESC 7 / ESC 8 save and restore
// the cursor with its colours; CSI row;1 H moves to the row's start; CSI 2 K
// clears it.
#include "term_screen.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zvxfer::cli {

namespace {

std::string Goto(int rows) {
    return fmt::format("\033[{};1H\033[0m\033[2K", rows < 1 ? 1 : rows);
}

} // namespace

std::string BottomLineBytes(std::string_view text, int rows) {
    return "\0337" + Goto(rows) + std::string(text) + "\0338";
}

std::string QuestionBytes(std::string_view text, int rows, bool first) {
    return (first ? "\0337" : "") + Goto(rows) + std::string(text);
}

std::string EndQuestionBytes(int rows) {
    return Goto(rows) + "\0338";
}

int TerminalRows() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0) return size.ws_row;
    return 24;
}

} // namespace zvxfer::cli
