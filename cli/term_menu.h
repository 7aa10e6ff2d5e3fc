// The keys typed in a `zvxfer term` session: everything goes to the line
// except the escape key, which opens the one-line menu; the menu's choices
// and the questions it asks on the bottom line.  Pure: the session draws
// and acts on the events.
#pragma once
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zvxfer::cli {

// "^]", "^A" (any case), "^?" or one control byte: the escape key's byte.
// nullopt for anything else (a printable key would be typed by accident).
std::optional<uint8_t> ParseEscapeKey(std::string_view text);
// The key as users write it: "^]".
std::string EscapeKeyName(uint8_t key);

enum class MenuItem { Quit, Capture, Break, Send, Receive, Upload, Close };

// What one typed byte did.
struct KeyEvent {
    enum Kind {
        ToLine,   // `bytes` go to the line
        OpenMenu, // the escape key: show the menu
        Choose,   // a menu key (the menu is closed; Close: nothing chosen)
        Edit,     // the answer being typed changed (`bytes`: all of it)
        Answer,   // Enter: `bytes` is the answer
        Cancel,   // the question was cancelled
    };
    Kind kind;
    std::string bytes;
    MenuItem item = MenuItem::Close;
};

class TermKeys {
  public:
    static constexpr std::size_t kAnswerMax = 1024;

    explicit TermKeys(uint8_t escape) : escape_(escape) {}

    // Feed typed bytes; `on` is called for each event in order, and may
    // call Ask() before the next byte is taken (a choice that needs an
    // answer).  Runs of bytes for the line come as one ToLine event.
    void Feed(std::string_view typed, const std::function<void(const KeyEvent &)> &on);
    // Take the following bytes as an answer (ended by Enter; Ctrl-C, Esc or
    // the escape key cancel it), starting from `initial`.
    void Ask(std::string initial = {});

    bool InMenu() const { return state_ == State::Menu; }
    bool Asking() const { return state_ == State::Asking; }

  private:
    enum class State { Typing, Menu, Asking };
    uint8_t escape_;
    State state_ = State::Typing;
    std::string answer_;
};

} // namespace zvxfer::cli
