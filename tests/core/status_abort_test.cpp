// Status lines, the abort check and XferInit's defaults.
#include <gtest/gtest.h>

#include <cstdarg>
#include <string>

#include "core/core.h"
#include "host_record.h"
#include "locale/locale.h"
#include "platform/heap.h"

namespace zvxfer {
namespace {

using test::CountStatus;
using test::StatusLines;

void StatusV(XferRecord *record, const char *format, ...) {
    va_list args;
    va_start(args, format);
    XferStatusV(record, 0, format, args);
    va_end(args);
}

class CoreRecord : public ::testing::Test, public test::HostRecord {
  protected:
    CoreRecord() : HostRecord(100) {} // clean-ups settle in a few rounds

    static std::string Substitute() {
        char first[256], second[256];
        MessageTextCopy(28264, first, sizeof first);
        MessageTextCopy(28263, second, sizeof second);
        return std::string(first) + ". " + second;
    }
};

TEST_F(CoreRecord, StatusLineShowsTheBareNameOrPlaceholder) {
    XferStatus(&record, 0, "Sending block %ld", 7L);
    record.FileName = const_cast<char *>("/tmp/dl/report.txt");
    XferStatus(&record, 1, "%s", "done");
    ASSERT_EQ(StatusLines().size(), 2u);
    EXPECT_EQ(StatusLines()[0], "0 <\?\?\?> : Sending block 7");
    EXPECT_EQ(StatusLines()[1], "1 report.txt : done");

    // Without the heap the line still arrives.
    record.FileName = nullptr;
    plat::SetAllocFailAfter(0);
    XferStatus(&record, 1, "no heap %d", 1);
    plat::SetAllocFailAfter(-1);
    ASSERT_EQ(StatusLines().size(), 3u);
    EXPECT_EQ(StatusLines()[2], "1 <\?\?\?> : no heap 1");

    record.StatusCallback = nullptr; // no callback: nothing happens
    XferStatus(&record, 0, "x");
    EXPECT_EQ(StatusLines().size(), 3u);
}

// Names and texts too long for the line are cut, or the substitute message
// stands in for the text; nothing overflows.
TEST_F(CoreRecord, LongNamesAndTextsAreCutOrSubstituted) {
    std::string name(249, 'n');
    record.FileName = name.data();
    XferStatus(&record, 0, "abc %d", 5); // a format of six characters
    name.push_back('n');                 // 250 characters
    record.FileName = name.data();
    XferStatus(&record, 0, "abc %d", 5);
    ASSERT_EQ(StatusLines().size(), 2u);
    EXPECT_EQ(StatusLines()[0].substr(2), std::string(249, 'n') + " : abc 5");
    const std::string expected = std::string(250, 'n') + " : " + Substitute();
    EXPECT_EQ(StatusLines()[1].substr(2), expected.substr(0, 341));

    StatusLines().clear();
    record.FileName = nullptr;
    const std::string huge(1000, 'x');
    XferStatus(&record, 0, "%s", huge.c_str());
    ASSERT_EQ(StatusLines().size(), 1u);
    EXPECT_EQ(StatusLines()[0].substr(2), "<\?\?\?> : " + std::string(255, 'x'));

    // A bare name longer than the line block: the line is cut at 341.
    std::string longName(400, 'y');
    record.FileName = longName.data();
    XferStatus(&record, 0, "x");
    EXPECT_EQ(StatusLines()[1].size() - 2, 341u);
    // A format longer than the message buffer itself leaves no room for
    // any name: the substitute message is shown.
    record.FileName = nullptr;
    const std::string longFormat(300, 'f');
    StatusV(&record, longFormat.c_str());
    ASSERT_EQ(StatusLines().size(), 3u);
    EXPECT_EQ(StatusLines()[2].substr(2), "<\?\?\?> : " + Substitute());
}

int progressCalls = 0;
int abortCalls = 0;
int32_t abortAnswer = 0;
int32_t CountProgress(XferRecord *) {
    return ++progressCalls;
}
int32_t AbortWith(XferRecord *) {
    ++abortCalls;
    return abortAnswer;
}

TEST_F(CoreRecord, AbortCheckSkipsTheHookOnceFailed) {
    progressCalls = abortCalls = 0;
    abortAnswer = -605;
    record.ProgressCallback = &CountProgress;
    port->Hooks->AbortFunction = &AbortWith;

    record.Result = -602;
    EXPECT_EQ(XferCheckAbort(&record), 0);
    record.Result = -605;
    EXPECT_EQ(XferCheckAbort(&record), 1);
    EXPECT_EQ(progressCalls, 2);
    EXPECT_EQ(abortCalls, 0) << "a failed transfer never asks the host again";

    record.Result = 0;
    abortAnswer = 0;
    EXPECT_EQ(XferCheckAbort(&record), 0);
    EXPECT_EQ(abortCalls, 1);
    EXPECT_TRUE(StatusLines().empty());
}

TEST_F(CoreRecord, AbortByProtocol) {
    port->Hooks->AbortFunction = &AbortWith;
    struct Case {
        int8_t protocol;
        int32_t answer;
        bool notice, cleanedUp;
    } cases[] = {
        {Ascii, -605, true, true},
        {Ymodem, 3, true, true}, // a positive verdict ends the transfer too
        {Kermit, -605, true, false},
        {CompuServeBPlus, -605, false, false},
    };
    for (const Case &c : cases) {
        abortAnswer = 0;
        ASSERT_TRUE(Fresh(c.protocol));
        StatusLines().clear();
        abortAnswer = c.answer;
        EXPECT_EQ(XferCheckAbort(&record), 1);
        EXPECT_EQ(record.Result, c.answer);
        EXPECT_EQ(CountStatus("", 1), c.notice ? 1 : 0) << int(c.protocol);
        EXPECT_EQ(record.Buffer == nullptr, c.cleanedUp) << int(c.protocol);
        abortAnswer = 0;
        XferCleanup(&record);
    }
}

TEST_F(CoreRecord, InitSetsDefaultsOrFailsWithoutBufferOrOnAnAbort) {
    port->Status = -9;
    record.Protocol = CompuServeBPlus;
    ASSERT_EQ(XferInit(&record), 1);
    EXPECT_EQ(port->Status, 0);
    EXPECT_EQ(record.BlockSize, 1031);
    EXPECT_EQ(record.RxSeq, 0);
    EXPECT_EQ(record.FilePos, 0);
    EXPECT_EQ(record.ProtocolHook, 1);
    EXPECT_EQ(record.ProtocolBytes.Bytes[3], 1);
    EXPECT_EQ(record.ProtocolBytes.Bytes[4], 1);
    EXPECT_EQ(record.BlockNumber, 1);

    ASSERT_TRUE(Fresh(Ascii, false, false));
    plat::SetAllocFailAfter(0);
    const int ok = XferInit(&record);
    plat::SetAllocFailAfter(-1);
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(record.Result, -601);
    EXPECT_EQ(CountStatus("Failed to allocate XFER buffer(s)"), 1);

    ASSERT_TRUE(Fresh(Ascii, false, false));
    abortAnswer = -605;
    port->Hooks->AbortFunction = &AbortWith;
    EXPECT_EQ(XferInit(&record), 0);
    EXPECT_EQ(record.Result, -605);
    EXPECT_EQ(record.Buffer, nullptr) << "the abort ran the clean-up";
}

} // namespace
} // namespace zvxfer
