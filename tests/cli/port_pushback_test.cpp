// Bytes the terminal session already read, put in front of the line: the
// engine's reads see them first and then the line, whole or in pieces; what
// it did not take is told and never left pointing at freed memory; writes
// still reach the line; a tap made afterwards sees the bytes as read.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "port_pushback.h"
#include "port_tap.h"
#include "zvxfer.h"

namespace zvxfer::cli {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes B(const std::string &s) {
    return Bytes(s.begin(), s.end());
}
std::string S(const Bytes &b) {
    return std::string(b.begin(), b.end());
}

// A line host that hands over its pieces one PORT_READ each, then nothing,
// and keeps what it is given to send.
struct ScriptedLine {
    std::vector<std::string> pieces;
    std::size_t next = 0;
    std::string current;
    std::string written;
    ZvHwnd window = nullptr;
    XferPort *port = nullptr;

    explicit ScriptedLine(std::vector<std::string> p) : pieces(std::move(p)) {
        window = ZvCreateWindow(&Procedure, this);
        port = PortOpen(0, window, "", XFER_EXISTING_OVERWRITE);
    }
    ~ScriptedLine() {
        if (port != nullptr) port->Ops.PortClose(port);
        if (window != nullptr) ZvDestroyWindow(window);
    }
    static intptr_t Procedure(ZvHwnd w, uint32_t message, uintptr_t wParam, intptr_t lParam) {
        auto *self = static_cast<ScriptedLine *>(ZvGetWindowUserData(w));
        auto *block = reinterpret_cast<PortBlock *>(lParam);
        if (message != XferPortMessage || block == nullptr) return 0;
        block->Error = 0;
        if (wParam == PORT_READ) {
            self->current = self->next < self->pieces.size() ? self->pieces[self->next++] : "";
            block->Data = reinterpret_cast<uint8_t *>(self->current.data());
            block->Length = static_cast<uint32_t>(self->current.size());
        } else if (wParam == PORT_WRITE) {
            self->written.append(reinterpret_cast<const char *>(block->Data), block->Length);
        }
        return 0;
    }
    // Reads `n` bytes at most, `step` at a time, until the line has none.
    std::string Read(std::size_t n, uint32_t step) {
        std::string got;
        uint8_t buffer[64];
        while (got.size() < n) {
            const uint32_t want =
                static_cast<uint32_t>(std::min<std::size_t>(step, n - got.size()));
            port->Ops.ReadBuffer(port, buffer, want);
            if (port->Count == 0) break;
            got.append(reinterpret_cast<const char *>(buffer), port->Count);
        }
        return got;
    }
};

TEST(PortPushback, ReadsSeePutBackBytesFirst) {
    const struct {
        const char *what;
        std::string pushed;
        std::vector<std::string> line;
        uint32_t step;
    } cases[] = {
        {"one byte a read",
         "**\x18"
         "B0100000023be50",
         {"\r\x8a\x11", "more"},
         1},
        {"large reads",
         "\x01"
         "9 S~' @-#Y3~*!J*0+++J\"U1@O",
         {"\r", "next packet"},
         64},
        {"reads of 5",
         "\x10"
         "B",
         {"0+abc"},
         5},
        {"nothing put back", "", {"plain", " line"}, 3},
        {"an empty line", "\x05", {}, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedLine line(c.line);
        ASSERT_NE(line.port, nullptr);
        std::string expected = c.pushed;
        for (const std::string &p : c.line) expected += p;
        PortPushback pushback(line.port, B(c.pushed));
        ASSERT_TRUE(pushback.Ok());
        EXPECT_EQ(line.Read(1000, c.step), expected);
        EXPECT_TRUE(pushback.Untaken().empty());
    }
}

TEST(PortPushback, UntakenBytesAreToldAndDropped) {
    ScriptedLine line({"line"});
    const ZvHwnd host = line.port->HostWindow;
    {
        PortPushback pushback(line.port, B("START"));
        EXPECT_EQ(S(pushback.Untaken()), "START"); // not handed over yet
        EXPECT_EQ(line.Read(3, 3), "STA");
        EXPECT_EQ(S(pushback.Untaken()), "RT");
    }
    // The port points at nothing of the pushback's any more, and reads go
    // to the line again.
    EXPECT_EQ(line.port->HostWindow, host);
    EXPECT_EQ(line.port->RxBlock.Length, 0u);
    EXPECT_EQ(line.Read(100, 10), "line");
}

// Bytes the port still holds from a read made before the pushback came
// after the put-back ones on the line: they are read after them.
TEST(PortPushback, BytesLeftInThePortFollow) {
    ScriptedLine line({"rz\r**", "tail"});
    EXPECT_EQ(line.Read(3, 3), "rz\r");
    PortPushback pushback(line.port, B("START"));
    EXPECT_EQ(line.Read(100, 4), "START**tail");
}

TEST(PortPushback, WritesReachTheLineAndATapSeesTheBytes) {
    ScriptedLine line({"abc"});
    PortPushback pushback(line.port, B("\x01"
                                       "# S?"));
    std::string seenRead, seenWritten;
    PortTap tap(line.port, [&](bool written, const uint8_t *data, std::size_t n) {
        (written ? seenWritten : seenRead).append(reinterpret_cast<const char *>(data), n);
    });
    ASSERT_TRUE(tap.Ok());
    const Bytes answer = B("\x01# Y?\r");
    EXPECT_EQ(line.port->Ops.WriteBuffer(line.port, answer.data(), 6), 0);
    EXPECT_EQ(line.written, S(answer));
    EXPECT_EQ(seenWritten, S(answer));
    EXPECT_EQ(line.Read(100, 4), "\x01# S?abc");
    EXPECT_EQ(seenRead, "\x01# S?abc");
}

} // namespace
} // namespace zvxfer::cli
