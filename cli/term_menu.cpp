// Typed bytes of a terminal session: the escape key, the menu, the answers.
#include "term_menu.h"

#include <fmt/format.h>

namespace zvxfer::cli {

std::optional<uint8_t> ParseEscapeKey(std::string_view text) {
    if (text.size() == 1) {
        const auto byte = static_cast<uint8_t>(text[0]);
        if (byte < 0x20 || byte == 0x7f) return byte;
        return std::nullopt;
    }
    if (text.size() != 2 || text[0] != '^') return std::nullopt;
    const char c = text[1];
    if (c == '?') return 0x7f;
    if (c >= 'a' && c <= 'z') return static_cast<uint8_t>(c - 'a' + 1);
    if (c >= '@' && c <= '_') return static_cast<uint8_t>(c - '@');
    return std::nullopt;
}

std::string EscapeKeyName(uint8_t key) {
    if (key == 0x7f) return "^?";
    if (key < 0x20) return fmt::format("^{}", static_cast<char>(key + '@'));
    return std::string(1, static_cast<char>(key));
}

namespace {

constexpr uint8_t kCtrlC = 0x03, kBackspace = 0x08, kCtrlU = 0x15, kEsc = 0x1b, kDelete = 0x7f;

std::optional<MenuItem> ItemOf(uint8_t key) {
    switch (key) {
    case 'q':
    case 'Q':
        return MenuItem::Quit;
    case 'c':
    case 'C':
        return MenuItem::Capture;
    case 'b':
    case 'B':
        return MenuItem::Break;
    case 's':
    case 'S':
        return MenuItem::Send;
    case 'r':
    case 'R':
        return MenuItem::Receive;
    case 'a':
    case 'A':
        return MenuItem::Upload;
    default:
        return std::nullopt;
    }
}

// Remove the last character of a UTF-8 text (its continuation bytes too).
void DropLastCharacter(std::string &text) {
    while (!text.empty()) {
        const auto byte = static_cast<uint8_t>(text.back());
        text.pop_back();
        if ((byte & 0xc0) != 0x80) break;
    }
}

} // namespace

void TermKeys::Ask(std::string initial) {
    state_ = State::Asking;
    answer_ = std::move(initial);
}

void TermKeys::Feed(std::string_view typed, const std::function<void(const KeyEvent &)> &on) {
    std::string line;
    auto flush = [&] {
        if (line.empty()) return;
        on({KeyEvent::ToLine, std::move(line)});
        line.clear();
    };
    for (const char ch : typed) {
        const auto byte = static_cast<uint8_t>(ch);
        switch (state_) {
        case State::Typing:
            if (byte != escape_) {
                line += ch;
                continue;
            }
            flush();
            state_ = State::Menu;
            on({KeyEvent::OpenMenu, {}});
            break;
        case State::Menu: {
            state_ = State::Typing;
            if (byte == escape_) {
                // Pressed twice: the key itself goes to the line.
                on({KeyEvent::Choose, {}, MenuItem::Close});
                line += ch;
                continue;
            }
            const std::optional<MenuItem> item = ItemOf(byte);
            on({KeyEvent::Choose, {}, item.value_or(MenuItem::Close)});
            break;
        }
        case State::Asking:
            if (byte == '\r' || byte == '\n') {
                // Taken out first: the handler may ask the next question.
                state_ = State::Typing;
                std::string answer = std::move(answer_);
                answer_.clear();
                on({KeyEvent::Answer, std::move(answer)});
            } else if (byte == kCtrlC || byte == kEsc || byte == escape_) {
                state_ = State::Typing;
                answer_.clear();
                on({KeyEvent::Cancel, {}});
            } else if (byte == kDelete || byte == kBackspace) {
                DropLastCharacter(answer_);
                on({KeyEvent::Edit, answer_});
            } else if (byte == kCtrlU) {
                answer_.clear();
                on({KeyEvent::Edit, answer_});
            } else if (byte >= 0x20 && answer_.size() < kAnswerMax) {
                answer_ += ch;
                on({KeyEvent::Edit, answer_});
            }
            break;
        }
    }
    flush();
}

} // namespace zvxfer::cli
