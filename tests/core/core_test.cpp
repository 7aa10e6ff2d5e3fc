// The transfer core over a PortOpen port and the scripted host: status
// lines, the abort check, XferInit, clean-up and quiet wait, the patient
// writers, names, opening and closing files; then the option lists, the
// generic entries' option block, the result texts and the protocol table.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "core/core.h"
#include "core/file_writer.h"
#include "core/options.h"
#include "core/protocol.h"
#include "core/results.h"
#include "fake_clock.h"
#include "link_files.h"
#include "locale/locale.h"
#include "platform/heap.h"
#include "port/port.h"
#include "status_log.h"
#include "system_files.h"
#include "temp_tree.h"
#include "test_host.h"

namespace zvxfer {
namespace {

using test::CountStatus;
using test::StatusLines;
using V = std::vector<int32_t>; // results of calls made in order, checked at once
const std::string kCancel(test::kCancelBytes.begin(), test::kCancelBytes.end());

// A record on a PortOpen port over the scripted host, with a clock that
// steps on every tick read and starts just before the 32-bit wrap: 30- and
// 60-second limits pass in a few thousand rounds, and deadlines cross the
// wrap.  The port's close puts the hooks back to their defaults.
template <uint32_t StepMs>
struct Rec : ::testing::Test {
    Rec() : clock(0xFFFF0000u) {
        clock.SetStepPerRead(StepMs);
        record.File = XFER_INVALID_FILE; // a zeroed File would be descriptor 0
        Fresh(Xmodem, false);
    }
    ~Rec() override {
        XferCleanup(&record);
        port->Ops.PortClose(port);
    }
    // Clean up the last record and start a new one (through XferInit when `init`).
    bool Fresh(int8_t protocol, bool init = true) {
        XferCleanup(&record);
        record = XferRecord{};
        record.Port = port;
        record.File = XFER_INVALID_FILE;
        record.Protocol = protocol;
        record.StatusCallback = &test::CollectStatus;
        StatusLines().clear();
        return !init || XferInit(&record) == 1;
    }
    void Abort(int32_t answer) {
        answer_ = answer;
        calls_ = 0;
        port->Hooks->AbortFunction = [](XferRecord *) { return ++calls_, answer_; };
    }
    static inline int32_t answer_ = 0;
    static inline int calls_ = 0;
    // A receiving XMODEM record for `name` (with room for the free-name counter).
    void Receive(const std::string &name, int32_t policy) {
        ASSERT_TRUE(Fresh(Xmodem));
        host.ClearWritten();
        port->ExistingFilePolicy = policy;
        record.FileName = std::strcpy(name_, name.c_str());
    }
    test::TempTree tree;
    char name_[512] = {};
    test::FakeClock clock;
    test::TestHost host;
    XferPort *port = PortOpen(0, host.Window(), "/tmp/", XFER_EXISTING_OVERWRITE);
    XferRecord record{};
};
using CoreRecord = Rec<100>;  // clean-ups settle in a few rounds
using Cleanup = Rec<50>;      // finer steps for the quiet-wait timings
using PatientWrite = Rec<97>; // about 300 ms a retry round; limits: below

TEST_F(CoreRecord, StatusLinesShowTheBareNameAndAreCutNotOverflowed) {
    // A 249-character name leaves room for a 6-character format, 250 do not:
    // the texts of 28264 and 28263 stand in.  Lines are cut at 341
    // characters, messages at 255.
    std::string names[] = {"/tmp/dl/report.txt", std::string(249, 'n'), std::string(250, 'n'),
                           std::string(400, 'y')};
    for (std::string &name : names) {
        record.FileName = name.data();
        XferStatus(&record, 0, "abc %d", 5);
    }
    record.FileName = nullptr;
    XferStatus(&record, 1, "%s", std::string(1000, 'x').c_str());
    char first[256], second[256];
    MessageTextCopy(28264, first, sizeof first);
    MessageTextCopy(28263, second, sizeof second);
    EXPECT_EQ(StatusLines(),
              (std::vector<std::string>{
                  "0 report.txt : abc 5", "0 " + names[1] + " : abc 5",
                  ("0 " + names[2] + " : " + first + ". " + second).substr(0, 343),
                  ("0 " + names[3]).substr(0, 343), "1 <\?\?\?> : " + std::string(255, 'x')}));
}

TEST_F(CoreRecord, AbortCheckAsksTheHookOnlyWhileRunningAndAnyVerdictStops) {
    static int progress;
    progress = 0;
    record.ProgressCallback = [](XferRecord *) { return ++progress; };
    Abort(0);
    const int32_t running = XferCheckAbort(&record);
    record.Result = -602; // a failed transfer never asks the host again
    EXPECT_EQ(
        V({running, XferCheckAbort(&record), calls_, progress, int32_t(StatusLines().size())}),
        V({0, 0, 1, 2, 0}));
    // XferInit asks last.  A verdict, positive too, stops: notice 28263 (not
    // B+) and the clean-up (not Kermit, B+ or ASCII, whose engines end it).
    const int32_t cases[][2] = {{Ascii, -605}, {Ymodem, 3}, {Kermit, -605}, {CompuServeBPlus, -8}};
    for (const auto &[protocol, answer] : cases) {
        ASSERT_TRUE(Fresh(int8_t(protocol), false));
        Abort(answer);
        EXPECT_EQ(
            V({XferInit(&record), record.Result, CountStatus("", 1), record.Buffer == nullptr}),
            V({0, answer, protocol != CompuServeBPlus, protocol == Ymodem}))
            << protocol;
    }
    ASSERT_TRUE(Fresh(Ascii, false));
    plat::SetAllocFailAfter(0);
    const int ok = XferInit(&record);
    plat::SetAllocFailAfter(-1);
    EXPECT_EQ(V({ok, record.Result, CountStatus("Failed to allocate XFER buffer(s)")}),
              V({0, -601, 1}));
}

TEST_F(Cleanup, FailureSendsTheCancelStringSettlesAndDrains) {
    // Protocol, result, cancel string sent: the XMODEM family always, ZMODEM
    // (once though cleaned up twice) unless the remote cancelled.
    const int32_t cases[][3] = {{Xmodem, -606, 1}, {Ymodem, -606, 1}, {Xmodem1K, -606, 1},
                                {Kermit, -606, 0}, {Ascii, -606, 0},  {YmodemG, -606, 0},
                                {Zmodem, -606, 0}, {Zmodem, -605, 1}, {Ymodem, 0, 0}};
    for (const auto &[p, result, cancels] : cases) {
        ASSERT_TRUE(Fresh(int8_t(p)));
        host.ClearWritten();
        record.Result = result;
        host.SetChunkSize(7);
        host.Receive(std::string(100, 'g'));
        const uint32_t start = clock.Now();
        XferCleanup(&record);
        if (p == Zmodem) XferCleanup(&record);
        EXPECT_EQ(V({host.WrittenString() == (cancels ? kCancel : ""), clock.Now() - start >= 1000,
                     host.Unread() == 0, record.Buffer == nullptr, record.Result}),
                  V({1, result != 0, result != 0, 1, result}))
            << "settled a second and drained, or not; " << p;
    }
    ASSERT_TRUE(Fresh(Xmodem));
    record.Result = -608;
    host.SetWriteError(true); // a lost line keeps the failure that ended the transfer
    XferCleanup(&record);
    EXPECT_EQ(V({record.Result, CountStatus("Error -1 sending buffer")}), V({-608, 1}));
}

TEST_F(Cleanup, WaitQuietEndsAfterASilentSecondOrANulOrOnAbort) {
    // A byte the line hands over once the clock has reached its time.
    static std::pair<uint32_t, std::string> late;
    host.OnRequest([this](test::TestHost &h, uintptr_t request) {
        if (request == PORT_READ && !late.second.empty() && int32_t(clock.Now() - late.first) >= 0)
            h.Receive(std::exchange(late.second, ""));
    });
    host.Receive("noise");
    const uint32_t t = clock.Now();
    late = {t + 900, "y"};
    // It ends a full second after the last byte, or at a NUL.
    EXPECT_EQ(V({XferWaitQuiet(&record), int32_t(host.Unread()), clock.Now() - t >= 1900}),
              V({1, 0, 1}));
    late = {clock.Now() + 600, std::string(1, '\0')};
    EXPECT_EQ(V({XferWaitQuiet(&record), clock.Now() - late.first < 100}), V({1, 1}));
    Abort(-605);
    EXPECT_EQ(V({XferWaitQuiet(&record), record.Result}), V({0, -605}));
}

// A line that is never quiet: the quiet wait gives up after three seconds
// (counting one error) and the clean-up's drain stops after three seconds,
// whether the bytes come as a flood or one a second.
TEST_F(Cleanup, QuietWaitAndDrainEndOnALineThatNeverStops) {
    for (const bool flood : {true, false}) {
        SCOPED_TRACE(flood ? "flood" : "a byte a second");
        static uint32_t next;
        next = clock.Now();
        host.OnRequest([this, flood](test::TestHost &h, uintptr_t request) {
            if (request != PORT_READ) return;
            if (flood) h.Receive(std::string(64, 'n'));
            if (!flood && int32_t(clock.Now() - next) >= 0)
                h.Receive("n"), next = clock.Now() + 1000;
        });
        ASSERT_TRUE(Fresh(Xmodem));
        StatusLines().clear();
        uint32_t t = clock.Now();
        EXPECT_EQ(V({XferWaitQuiet(&record), record.ErrorRun, record.ErrorTotal,
                     CountStatus("Line not quiet for 3 seconds")}),
                  V({1, 1, 1, 1}));
        EXPECT_TRUE(clock.Now() - t >= 3000 && clock.Now() - t < 5000) << clock.Now() - t;
        record.Result = -610;
        t = clock.Now();
        XferCleanup(&record); // a second of settling, then the drain
        EXPECT_LT(clock.Now() - t, 5000u);
        host.OnRequest(nullptr);
    }
}

TEST_F(PatientWrite, PartialWritesAreResentALostLineAnIdleStopOrAnAbortEndThem) {
    host.SetWriteLimit(100);
    std::vector<uint8_t> data(300);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(255 - i);
    // A full port is no failure yet.
    EXPECT_EQ(V({XferWriteBuffer(&record, data.data(), 300), host.WriteRequests(),
                 int32_t(port->Count), port->Status, host.Written() == data}),
              V({0, 3, 300, 0, 1}));

    host.SetWriteLimit(0);
    record.Protocol = Ascii; // no cancel string when an abort cleans up
    port->Hooks->IdleFunction = [](XferPort *) { return -77; };
    EXPECT_EQ(V({XferWriteChar(&record, 'A'), record.Result}), V({-77, -615}));
    record.Result = 0;
    port->Hooks->IdleFunction = &DefaultIdle;
    Abort(-605);
    EXPECT_EQ(V({XferWriteChar(&record, 'A'), record.Result, CountStatus("", 1)}),
              V({-605, -605, 1}))
        << "notice 28263 from the abort check";
    record.Result = 0;
    host.SetWriteError(true);
    EXPECT_EQ(V({XferWriteBuffer(&record, data.data(), 3), record.Result,
                 CountStatus("Error -1 sending buffer")}),
              V({-1, -612, 1}));
}

// The patient writers' limits to the millisecond, on a sleepless clock
// where only their own pauses move time: a port that takes the byte as the
// limit ends is in time (a try comes before the clock is read); one that
// takes it a millisecond later is not.  A countdown line every five seconds
// down to 0 either way; notice 28295 only when the time is up.
TEST(PatientWriteLimit, ThirtySecondsForACharAndSixtyForABufferExactly) {
    test::FakeClock clock(test::FakeClock::kSleepless, 0xFFFF0000u); // deadlines cross the wrap
    test::TestHost host;
    XferPort *port = PortOpen(0, host.Window(), "/tmp/", XFER_EXISTING_OVERWRITE);
    ASSERT_NE(port, nullptr);
    for (const bool buffer : {false, true}) {
        const uint32_t limit = buffer ? 60000 : 30000;
        for (const uint32_t freeAt : {limit, limit + 1}) {
            SCOPED_TRACE(std::to_string(limit) + " free at " + std::to_string(freeAt));
            XferRecord record{};
            record.Port = port;
            record.File = XFER_INVALID_FILE;
            record.Protocol = Ascii;
            record.StatusCallback = &test::CollectStatus;
            StatusLines().clear();
            host.ClearWritten();
            const uint32_t start = clock.Now();
            host.OnRequest([&](test::TestHost &h, uintptr_t) {
                h.SetWriteLimit(clock.Now() - start >= freeAt ? SIZE_MAX : 0);
            });
            const bool late = freeAt > limit;
            const int32_t failure = buffer ? -612 : -615, bytes = buffer ? 5 : 1;
            EXPECT_EQ(V({buffer ? XferWriteBuffer(&record, test::kCancelBytes.data(), 5)
                                : XferWriteChar(&record, 'A'),
                         record.Result, int32_t(host.Written().size())}),
                      late ? V({-9, failure, 0}) : V({0, 0, bytes}));
            EXPECT_EQ(clock.Now() - start, limit);
            const std::string last =
                buffer ? "0 sec to complete WriteBuffer" : "0 sec left to WriteChar";
            EXPECT_EQ(
                V({CountStatus(last.substr(2), 0), CountStatus(" " + last), CountStatus("", 1)}),
                V({int32_t(limit / 5000), 1, late}));
            host.OnRequest(nullptr);
        }
    }
    host.SetWriteLimit(SIZE_MAX);
    port->Ops.PortClose(port);
}

std::string FreeName(const std::string &name, std::size_t extra = kFreeNameRoom + 1) {
    std::string buffer = name;
    buffer.resize(name.size() + extra, '\0');
    return XferFreeName(buffer.data(), buffer.size()) ? buffer.c_str() : "<none>";
}

// Bare names are checked through the received-name mapping.
TEST_F(CoreRecord, ExistenceAndFreeNames) {
    const std::string d = tree.Folder();
    tree.File("report.txt");
    tree.Dir("v1.2");
    EXPECT_FALSE(XferFileExists((d + "v1.2").c_str())) << "files only, not folders";

    // Trailing dots go (no extension then); a folder's dot is no extension.
    const char *names[] = {"report.txt", "report(1).txt", "notes...",    "notes(1)",
                           "a.tar.gz",   "a.tar(1).gz",   "v1.2/readme", "v1.2/readme(1)"};
    for (std::size_t i = 0; i < std::size(names); i += 2)
        EXPECT_EQ(FreeName(d + names[i]), d + names[i + 1]);
    for (char c = '1'; c <= '8'; ++c) tree.File(std::string("report(") + c + ").txt");
    EXPECT_EQ(FreeName(d + "report.txt"), d + "report(9).txt");
    EXPECT_EQ(FreeName(d + "report(1).txt"), d + "report(9).txt") << "counts on from its counter";
    EXPECT_EQ(FreeName(d + "other.txt", 3), "<none>") << "no room for (1) and the terminator";

    // '\' ends the folder part as '/' does, and the names found through it
    // are the files of that folder.
    EXPECT_EQ(FreeName(d + "v1.2\\readme"), d + "v1.2\\readme(1)");
    tree.File("v1.2/notes.txt");
    tree.File("v1.2/notes(1).txt");
    EXPECT_TRUE(XferFileExists((d + "v1.2\\notes.txt").c_str()));
    EXPECT_EQ(FreeName(d + "v1.2\\notes.txt"), d + "v1.2\\notes(2).txt");
}

using test::FileText;

// ZMODEM's skip (-620, the file not counted) is checked by its receiver's tests.
// The policies, gathered data written on close with the file's time, and a
// failed open that ends the transfer with -602 and the cancel string.
TEST_F(CoreRecord, ExistingFilePoliciesLoseNothingAndCloseWritesWhatWasGathered) {
    std::string data(70000, 0), old(80000, 'o');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = char(i * 31 + i / 251);
    const int32_t policies[] = {XFER_EXISTING_OVERWRITE, XFER_EXISTING_RENAME, XFER_EXISTING_SKIP};
    const char *opened[] = {"a.txt", "a(1).txt", nullptr}; // null: skipped
    for (int i = 0; i < 3; ++i) {
        const std::string path = tree.File("a.txt", old);
        std::remove(tree.Path("a(1).txt").c_str());
        Receive(path, policies[i]);
        // A skipped file counts as handled, with its notice.
        EXPECT_EQ(
            V({XferOpenFile(&record), record.FileCount, record.FilePos, record.Result,
               record.SkipFile, CountStatus("", 1), CountStatus("a.txt : Opening file " + path)}),
            V({1, 1, 0, 0, !opened[i], !opened[i], 1}))
            << i;
        if (opened[i]) {
            const std::string name = tree.Path(opened[i]);
            record.FileTime = -86400; // a time before 1970 is stamped too
            FileWriter writer(&record);
            ASSERT_TRUE(writer.Append(reinterpret_cast<const uint8_t *>(data.data()), data.size()));
            // One full piece written so far; an old file is untouched until
            // the new one is complete.
            EXPECT_EQ(FileText(name), i == 0 ? old : data.substr(0, 65536));
            XferCloseFile(&record);
            int64_t time = 0;
            EXPECT_TRUE(FileText(name) == data && test::ModTime(name, time) && time == -86400);
        }
        EXPECT_TRUE(record.File == XFER_INVALID_FILE && FileText(path) == (i == 0 ? data : old))
            << "closed; overwrite replaced the old file";
    }
    tree.File("n.txt");
    for (char c = '1'; c <= '9'; ++c) tree.File(std::string("n(") + c + ").txt");
    for (const char *name : {"no/such/folder/x.txt", "n.txt"}) { // no free name past nine
        Receive(tree.Path(name), XFER_EXISTING_RENAME);
        EXPECT_EQ(V({XferOpenFile(&record), record.Result, CountStatus("", 1),
                     record.Buffer == nullptr, host.WrittenString() == kCancel}),
                  V({0, -602, 1, 1, 1}))
            << name;
    }
}

V Collect(int first, ...) {
    va_list args;
    va_start(args, first);
    V words = CollectOptionWords(args);
    va_end(args);
    return words;
}

// An unknown code refused with -7 is checked through the XMODEM entries.
TEST(OptionList, ReaderEndsSkipsAndTakesValueWordsThatLookLikeCodes) {
    // The result, then the (code, value) pairs taken.
    const auto read = [](V words) {
        constexpr int32_t kXmodemReceive[] = {1006, 1007, 1008, 1027};
        std::vector<Option> out;
        V got{ReadOptionList(words, kXmodemReceive, out)};
        for (const Option &o : out) got.insert(got.end(), {o.code, o.value});
        return got;
    };
    EXPECT_EQ(read({1008, 1011, 1006, 0}), (V{-7, 1008, 0})) << "nothing after a refused code";
    EXPECT_EQ(read({1001, 1007, 1012, 1027, 0, 1008, 0, 1012}),
              (V{0, 1007, 1012, 1027, 0, 1008, 0}));
    EXPECT_EQ(read({0, 4711}), V{0});
    EXPECT_EQ(read({1012, 500, 0}), V{-7}) << "ASCII's code: refused though its value follows";
    // The variadic collector reads a value word (0 too) after a value code,
    // and ends at 0 or right after a word that is no option code.
    EXPECT_EQ(Collect(0, 1027, 0, 1012, -5, 0), (V{1027, 0, 1012, -5, 0}));
    EXPECT_EQ(Collect(0, 1008, 77), (V{1008, 77}));
}

// The generic entries release the block, refusing or not.
FileTransferOptions *Block(V words) {
    return CLSetFileTransferOptions(words.data());
}

TEST_F(CoreRecord, OptionBlockHoldsCodesInTheirSlotsForTheGenericEntries) {
    const struct {
        V words, set;     // (slot, value) pairs; every other slot holds 1001
        int32_t protocol; // refused by the generic entries
    } cases[] = {
        // clang-format off
        {{1010, 1022, 1007, 5, 0}, {5, 1007, 6, 5}, 6}, // skipped words (1022 has no slot)
        {{1018, 1020, 1003, -1, 1004, 0}, {17, 1020, 1, 1003}, 9}, // 1018..1023 share slot 17; -1 ends
        {{1016, 0, 1008, 0}, {8, 1016, 9, 0}, 7}, // a value code takes the end as its value; nothing after it is read
        {{1012, 700, 1029, 2048, 1028, 4, 1024, 0x102, 1027, 1, 1008, 1016, 9, 0},
         {12, 1012, 13, 700, 26, 1029, 27, 2048, 24, 1028, 25, 4, 18, 1024, 19, 0x102,
          22, 1027, 23, 1, 7, 1008, 8, 1016, 9, 9}, -1},
        // clang-format on
    };
    for (const auto &c : cases) {
        FileTransferOptions *b = Block(c.words);
        ASSERT_NE(b, nullptr);
        V expected(28, 1001);
        for (std::size_t i = 0; i < c.set.size(); i += 2) expected[c.set[i]] = c.set[i + 1];
        EXPECT_EQ(V(b->Slot, b->Slot + 28), expected) << ::testing::PrintToString(c.words);
        EXPECT_EQ(CLFileSend(nullptr, c.protocol, nullptr, 0, 0, b, nullptr, nullptr), -7);
    }
    // Checksum mode is an XMODEM option; through the block it refuses YMODEM.
    // XMODEM receive in checksum mode asks with NAK; nothing answers, so it
    // ends after its retries, but the first request shows the option.
    std::string name = tree.Path("x");
    EXPECT_EQ(V({CLFileSend(port, Ymodem, name.data(), 0, 0, Block({1008, 0}), nullptr, nullptr),
                 int32_t(host.Written().size())}),
              V({-7, 0}));
    EXPECT_EQ(CLFileReceive(port, Xmodem, name.data(), 0, Block({1008, 0}), nullptr, nullptr),
              XferErrPacketTimeout);
    EXPECT_EQ(host.Written().at(0), 0x15);
}

TEST(ResultTexts, TheHooksTextWhereItAnswersElseBothTables) {
    EXPECT_STREQ(XferErrorName(-9), "Buffer is Full") << "the default hook's own text";
    SetUserErrorNameFunctionPtr([](int32_t code) { return code == -24 ? "Nicht da" : nullptr; });
#define CHECK_TEXT_(code, name, text)                                                              \
    EXPECT_STREQ(PortErrorName(code), code == -24 ? "Nicht da" : text);
    PORT_RESULT_MAP(CHECK_TEXT_)
    XFER_RESULT_MAP(CHECK_TEXT_)
#undef CHECK_TEXT_
    for (int32_t code : {-29, -43, -600, -624, 1})
        EXPECT_STREQ(PortErrorName(code), "Unknown error code") << code;
    SetUserErrorNameFunctionPtr(&XferErrorName);
}

// The protocol table: every protocol number has its descriptor, and the
// generic entries pass each protocol exactly the block slots its entries
// are documented to get, in order.
// The block slots the generic entries pass for a descriptor's code list.
V SlotsOf(std::span<const int32_t> codes) {
    V slots;
    for (int32_t code : codes) {
        const int slot = BlockSlot(code);
        slots.push_back(slot);
        if (OptionTakesValue(code)) slots.push_back(slot + 1);
    }
    return slots;
}

// Every number 0..8 has its own descriptor, listed in number order, with the
// slots its entries get; no other number has one.
TEST(ProtocolTable, EachNumberHasItsDescriptorPassingTheDocumentedSlots) {
    const struct {
        int32_t protocol;
        bool offered; // the generic entries have its entries
        V send, receive;
    } cases[] = {
        // clang-format off
        {Xmodem, true, {4, 5, 6, 7, 8, 9, 22, 23}, {4, 5, 6, 7, 22, 23}},
        {Ymodem, true, {4, 3, 11, 10, 5, 6, 7, 8, 9, 22, 23}, {4, 3, 11, 5, 6, 22, 23}},
        {Kermit, true, {0, 1, 2, 4, 10, 3, 5, 6, 22, 23}, {1, 2, 4, 3, 5, 6, 22, 23}},
        {Zmodem, true, {4, 10, 3, 5, 6, 16, 14, 17, 22, 23, 24, 25, 26, 27},
                       {4, 3, 5, 6, 14, 15, 22, 23, 24, 25}},
        {Xmodem1K, true, {4, 5, 6, 7, 8, 9, 11, 22, 23}, {4, 5, 6, 11, 22, 23}},
        {CompuServeBPlus, true, {4, 5, 6, 18, 19, 20, 21, 22, 23}, {4, 5, 6, 18, 19, 20, 21, 22, 23}},
        {Xmodem1KG, false, {}, {}},
        {YmodemG, false, {}, {}},
        {Ascii, true, {4, 5, 6, 10, 22, 23}, {4, 5, 6, 10, 22, 23, 12, 13}},
        // clang-format on
    };
    ASSERT_EQ(Protocols().size(), std::size(cases));
    for (const auto &c : cases) {
        ASSERT_NE(FindProtocol(c.protocol), nullptr) << c.protocol;
        const ProtocolInfo &info = *FindProtocol(c.protocol);
        EXPECT_TRUE(Protocols()[c.protocol] == &info && info.number == c.protocol &&
                    info.bufferSize > 0)
            << info.name;
        EXPECT_EQ(SlotsOf(info.sendSlots), c.send) << info.name;
        EXPECT_EQ(SlotsOf(info.receiveSlots), c.receive) << info.name;
        EXPECT_EQ(info.send != nullptr, c.offered) << info.name;
        EXPECT_EQ(info.receive != nullptr, c.offered) << info.name;
    }
    for (int32_t stranger : {-1, 9, 1000}) EXPECT_EQ(FindProtocol(stranger), nullptr) << stranger;
    EXPECT_EQ(&ProtocolOf(9), &kUnknownProtocol);
}

} // namespace
} // namespace zvxfer
