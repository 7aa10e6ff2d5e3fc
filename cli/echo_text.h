// The far end's echo during an ASCII upload, made safe for the user's
// terminal.  It is text the remote program sends back, so it is escaped like
// every other text from the line, except that CR, LF and TAB keep their
// meaning: the echo of a typed line should read as that line.
#pragma once
#include <cstdint>
#include <string>

namespace zvxfer::cli {

class EchoText {
  public:
    // One byte of the echo, as the library hands it over.
    void Add(uint8_t byte) { pending_ += static_cast<char>(byte); }

    // What can be shown of the bytes added so far, escaped.  A UTF-8
    // sequence cut at the end stays pending until its last byte arrives (or
    // `final` says no more will come, and its bytes are shown escaped).
    std::string Take(bool final = false);

    bool Empty() const { return pending_.empty(); }

  private:
    std::string pending_;
};

// A piece of echo as shown text: ShownText with CR, LF and TAB kept.
std::string ShownEcho(const std::string &bytes);

} // namespace zvxfer::cli
