// A host's mistakes the library sees cheaply: read-only send names are
// refused with -7 before anything happens, a receive folder that looks
// wrong is traced while the behaviour stays as it was.  (Reads on a thread
// that watches no descriptor: unwatched_reads_test.cpp.)
#include <gtest/gtest.h>

#include <string>

#include "fake_clock.h"
#include "platform/probe.h"
#include "port/port.h"
#include "temp_tree.h"
#include "test_host.h"
#include "traced.h"

namespace zvxfer {
namespace {

int gStatusLines = 0;
int32_t CountStatus(XferRecord *, int32_t, const char *) {
    ++gStatusLines;
    return 0;
}

TEST(Probe, TellsReadOnlyFromWritableAndKeepsTheByte) {
    char writable[] = "ab";
    EXPECT_TRUE(plat::ByteWritable(writable));
    EXPECT_TRUE(plat::ByteWritable(writable + 2));
    EXPECT_STREQ(writable, "ab");
    EXPECT_FALSE(plat::ByteWritable(const_cast<char *>("ab")));
}

using SendNames = Traced;

// Every sending protocol, through the generic entry and its own: a string
// literal would crash where the names are split; it is refused with -7
// before a byte is sent or a callback called.  A writable list of a name
// that matches nothing runs as before.
TEST_F(SendNames, ReadOnlyListsAreRefused) {
    test::TestHost host;
    XferPort *port = PortOpen(0, host.Window(), "", XFER_EXISTING_OVERWRITE);
    gStatusLines = 0;
    for (const int32_t protocol : {Xmodem, Ymodem, Kermit, Zmodem, Xmodem1K, Ascii}) {
        SCOPED_TRACE(protocol);
        EXPECT_EQ(CLFileSend(port, protocol, const_cast<char *>("\"/nonexistent/a\""), 0, 0,
                             CLSetFileTransferOptions(nullptr), &CountStatus, nullptr),
                  PortInvalidParameter);
    }
    char *const literal = const_cast<char *>("\"/nonexistent/b\"");
    EXPECT_EQ(XmodemSendWithOptions(port, literal, &CountStatus, nullptr, 0), PortInvalidParameter);
    EXPECT_EQ(ZmodemSendWithOptions(port, literal, &CountStatus, nullptr, 0), PortInvalidParameter);
    EXPECT_EQ(KermitSendWithOptions(port, literal, &CountStatus, nullptr, 0), PortInvalidParameter);
    EXPECT_EQ(AsciiSendWithOptions(port, literal, &CountStatus, nullptr, nullptr, 0, 0, 0),
              PortInvalidParameter);
    EXPECT_EQ(gStatusLines, 0);
    EXPECT_EQ(host.WriteRequests(), 0);
    EXPECT_EQ(Count("read-only"), 10);

    char writable[] = "\"/nonexistent/c\"";
    EXPECT_EQ(AsciiSendWithOptions(port, writable, &CountStatus, nullptr, nullptr, 0, 0, 0),
              XferErrNoFilesSent);
    EXPECT_GT(gStatusLines, 0);
    EXPECT_EQ(Count("read-only"), 10);
    port->Ops.PortClose(port);
}

using ReceiveFolder = Traced;

// The folder stays as given (by reference); only the texts that look
// meant otherwise are traced: a folder without its '/' or '\', and a
// text so ended that names no folder.  A text without '/' that names no folder is
// the one file to write, and "" is the current folder.
TEST_F(ReceiveFolder, LikelyMistakesAreTracedAndKept) {
    test::TempTree tree;
    const std::string bare = tree.Folder().substr(0, tree.Folder().size() - 1);
    const std::string missing = tree.Path("none/"), file = tree.Path("one.bin");
    const struct {
        std::string text;
        std::string traced; // what the trace says ("": no trace)
    } cases[] = {
        {bare, "\"" + bare + "\" does not end in '/'"},
        {bare + "/", ""},
        {bare + "\\", ""}, // '\' ends a folder as well
        {missing, "\"" + missing + "\" does not exist"},
        {missing + "\\", "\"" + missing + "\\\" does not exist"},
        {file, ""},
        {"", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Trace().clear();
        XferPort *port = PortOpen(0, nullptr, c.text.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port, nullptr);
        EXPECT_EQ(port->ReceiveFolder, c.text.c_str());
        if (c.traced.empty())
            EXPECT_EQ(Trace(), "");
        else
            EXPECT_EQ(Count(c.traced), 1) << Trace();
        port->Ops.PortClose(port);
    }
}

} // namespace
} // namespace zvxfer
