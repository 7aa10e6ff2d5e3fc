// ASCII upload and capture against a scripted host on a sleepless clock
// (the library's waits pass time at once, so delays and the idle time-out
// are met to the millisecond), through both entries and the generic ones,
// and over the link simulator both ways.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "ascii/protocol.h"
#include "fake_clock.h"
#include "link_files.h"
#include "link_pair.h"
#include "system_files.h"
#include "temp_tree.h"
#include "test_host.h"
#include "turns.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using Lines = std::vector<std::string>;

std::string Shown;
void Show(uint8_t c) {
    Shown.push_back(static_cast<char>(c));
}

void WriteFile(const std::string &path, const std::string &data) {
    std::ofstream(path, std::ios::binary).write(data.data(), static_cast<long>(data.size()));
}
using test::FileText;

class AsciiTest : public ::testing::Test {
  protected:
    void SetUp() override {
        host_.UseClock([this] { return clock_.Now(); });
        port_ = PortOpen(0, host_.Window(), "", XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
        Shown.clear();
        progressAt_.clear();
        abortAt_ = UINT32_MAX;
        self_ = this;
    }
    void TearDown() override {
        port_->Hooks->AbortFunction = nullptr;
        port_->Hooks->FileOpenFunction = nullptr;
        port_->Ops.PortClose(port_);
    }

    // The written bytes cut where the clock moved between two of them: on
    // a sleepless clock a line goes out at one instant, the delay after it
    // moves time.
    Lines WrittenLines() const {
        const std::vector<uint8_t> bytes = host_.Written();
        const std::vector<uint32_t> times = host_.WriteTimes();
        Lines lines;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (i == 0 || times[i] != times[i - 1]) lines.emplace_back();
            lines.back().push_back(static_cast<char>(bytes[i]));
        }
        return lines;
    }

    // The entries with their option words as a list (the exported variadic
    // forms are run by the option-table and link-pair tests).
    int32_t Send(std::string names, uint8_t dropLf, int32_t delay, std::vector<int32_t> words = {0},
                 XferProgressFn progress = nullptr, XferCharFn show = nullptr) {
        return ascii::AsciiSendEntry({port_, names.data(), nullptr, progress, show, dropLf, delay},
                                     words);
    }
    int32_t Capture(std::vector<int32_t> words = {0}, uint8_t dropLf = 0,
                    XferProgressFn progress = nullptr, XferCharFn show = nullptr) {
        return ascii::AsciiReceiveEntry({port_, cap_.data(), nullptr, progress, show, dropLf, 0},
                                        words);
    }
    void Drain() {
        while (host_.Unread() != 0) port_->Ops.ReadChar(port_);
    }

    std::string Names(std::initializer_list<const char *> files) {
        std::string names;
        for (const char *f : files) names += "\"" + tree_.Path(f) + "\",";
        return names;
    }

    // Progress callback: notes the clock and the byte count at every abort
    // check; the abort hook stops once the clock reaches abortAt_ or the
    // count reaches abortAtByte_.
    static int32_t Progress(XferRecord *r) {
        self_->progressAt_.push_back(self_->clock_.Now());
        self_->positions_.push_back(r->FilePos);
        return 0;
    }
    static int32_t AbortHook(XferRecord *r) {
        if (self_->clock_.Now() >= self_->abortAt_) return XferErrUserAbort;
        if (self_->abortAtByte_ != 0 && r->FilePos >= self_->abortAtByte_) return XferErrUserAbort;
        return 0;
    }
    static int32_t StopLate(XferRecord *) {
        return self_->clock_.Now() >= self_->abortAt_ ? 1234 : 0;
    }
    void StopAt(uint32_t tick, int32_t byte = 0) {
        abortAt_ = tick;
        abortAtByte_ = byte;
        port_->Hooks->AbortFunction = &AbortHook;
    }

    static inline AsciiTest *self_ = nullptr;
    test::FakeClock clock_{test::FakeClock::kSleepless};
    test::TempTree tree_;
    std::string cap_ = tree_.Path("cap.txt");
    test::TestHost host_;
    XferPort *port_ = nullptr;
    std::vector<uint32_t> progressAt_;
    std::vector<int32_t> positions_;
    uint32_t abortAt_ = UINT32_MAX;
    int32_t abortAtByte_ = 0;
};

// Lines end after a CR, after 82 stored bytes, or at the end of the file;
// drop-LF removes line feeds before they count.  Each line goes out at one
// instant and the delay follows every line, the last one too.
TEST_F(AsciiTest, SenderCutsLinesAndWaitsTheDelayAfterEach) {
    const std::string x82(82, 'x'), x200(200, 'y');
    const struct {
        const char *what;
        std::string file;
        uint8_t dropLf;
        Lines lines;
    } cases[] = {
        {"CR LF dropped", "ab\r\ncd\r\n", 1, {"ab\r", "cd\r"}},
        {"CR LF kept", "ab\r\ncd\r\n", 0, {"ab\r", "\ncd\r", "\n"}},
        {"no CR: 82 82 36", x200, 0, {x200.substr(0, 82), x200.substr(82, 82), x200.substr(164)}},
        {"CR as the 82nd byte", std::string(81, 'x') + "\r", 0, {std::string(81, 'x') + "\r"}},
        {"CR after 82", x82 + "\rz", 0, {x82, "\r", "z"}},
        {"dropped LFs do not count",
         std::string(41, 'x') + "\n" + x82,
         1,
         {x82, std::string(41, 'x')}},
        {"LFs only at line starts", "\n" + x82 + "\n\nq", 1, {x82, "q"}},
        {"only LFs, dropped", "\n\n\n", 1, {}},
        {"empty file", "", 0, {}},
    };
    constexpr int32_t kDelay = 250;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        WriteFile(tree_.Path("t.txt"), c.file);
        std::string names = Names({"t.txt"});
        host_.ClearWritten();
        const uint32_t start = clock_.Now();
        EXPECT_EQ(Send(names, c.dropLf, kDelay), 1);
        EXPECT_EQ(WrittenLines(), c.lines);
        const std::vector<uint32_t> times = host_.WriteTimes();
        std::vector<uint32_t> starts;
        for (std::size_t i = 0; i < times.size(); ++i)
            if (i == 0 || times[i] != times[i - 1]) starts.push_back(times[i] - start);
        std::vector<uint32_t> expected;
        for (std::size_t i = 0; i < c.lines.size(); ++i) expected.push_back(kDelay * i);
        EXPECT_EQ(starts, expected);
        EXPECT_EQ(clock_.Now() - start, kDelay * c.lines.size()) << "a delay after the last line";
    }
}

// Across files the last line of one is never sent again, an empty file or
// one that cannot be read sends nothing, and the result counts the files
// opened; no file at all is -619 with nothing sent.
TEST_F(AsciiTest, FilesFollowOneAnotherAndNoneMatchingIsRefused) {
    WriteFile(tree_.Path("a"), "one\rtwo");
    WriteFile(tree_.Path("b"), "");
    WriteFile(tree_.Path("c"), "three\r");
    std::string names = Names({"a", "b", "c"});
    EXPECT_EQ(Send(names, 0, 10), 3);
    EXPECT_EQ(WrittenLines(), (Lines{"one\r", "two", "three\r"}));

    host_.ClearWritten();
    std::string none = Names({"nothing*"});
    EXPECT_EQ(Send(none, 0, 10), -619);
    EXPECT_EQ(host_.WrittenString(), "");

    // A file that opens but cannot be read fails the transfer: it is not
    // taken for an empty file with the next one sent after it.
    port_->Hooks->FileOpenFunction = [](XferRecord *, const char *, const char *) -> XferFile {
        return test::OpenNullDevice(true);
    };
    EXPECT_EQ(Send(names, 0, 0), -607);
    EXPECT_EQ(host_.WrittenString(), "");
}

// The echo is drained after every line through the character callback, and
// dropped without one.  An abort during the delay ends the upload there, and
// so does an idle hook that asks to stop.
TEST_F(AsciiTest, EchoGoesToTheCallbackOrIsDroppedAndAnAbortEndsTheDelay) {
    WriteFile(tree_.Path("t"), "ab\rcd\ref\r");
    std::string names = Names({"t"});
    const uint32_t start = clock_.Now();
    host_.ReceiveAt(start, "AB");
    host_.ReceiveAt(start + 100, "CD");
    EXPECT_EQ(Send(names, 0, 100, {0}, nullptr, &Show), 1);
    EXPECT_EQ(Shown, "ABCD");

    Shown.clear();
    host_.ClearWritten();
    host_.Receive("lost");
    EXPECT_EQ(Send(names, 0, 0), 1);
    EXPECT_EQ(host_.Unread(), 0u);
    EXPECT_EQ(Shown, "");

    host_.ClearWritten();
    StopAt(clock_.Now() + 150);
    EXPECT_EQ(Send(names, 0, 100), -605);
    EXPECT_EQ(WrittenLines(), (Lines{"ab\r", "cd\r"}));

    // An idle hook that answers negative (the application is closing) stops
    // the upload during its delay, and a capture without a time limit.
    abortAt_ = clock_.Now() + 60000; // else a stop of another kind, in case it ran on
    port_->Hooks->AbortFunction = &StopLate;
    const XferIdleFn idle = port_->Hooks->IdleFunction;
    port_->Hooks->IdleFunction = [](XferPort *) { return int32_t{-1}; };
    host_.ClearWritten();
    const int32_t upload = Send(names, 0, 100), capture = Capture({1012, -1, 0});
    port_->Hooks->IdleFunction = idle;
    EXPECT_EQ(upload, -605);
    EXPECT_EQ(host_.WrittenString(), "ab\r");
    EXPECT_EQ(capture, -605);
}

// A port that answers -9 or -36 gets the same byte again, for as long as it
// takes (far past the 30 s the patient writers allow), with the echo shown
// meanwhile and the port's status word as it was; any other refusal is
// -615 and ends the upload.
struct RefusingPort {
    static inline int32_t (*write)(XferPort *, uint8_t) = nullptr;
    static inline int refusals = 0, failAfter = -1, calls = 0;
    static int32_t WriteChar(XferPort *port, uint8_t byte) {
        ++calls;
        if (failAfter >= 0 && calls > failAfter) return PortCtsLow;
        if (refusals > 0) {
            --refusals;
            port->Status = refusals % 2 ? PortBufferFull : PortBlockedByHandshake;
            return port->Status;
        }
        return write(port, byte);
    }
};

TEST_F(AsciiTest, FullOrBlockedPortIsRetriedWithoutLimitOtherFailuresEnd) {
    WriteFile(tree_.Path("t"), "hello\rworld\r");
    std::string names = Names({"t"});
    RefusingPort::write = port_->Ops.WriteChar;
    port_->Ops.WriteChar = &RefusingPort::WriteChar;
    RefusingPort::refusals = 40000;
    RefusingPort::calls = 0;
    RefusingPort::failAfter = -1;
    const uint32_t start = clock_.Now();
    host_.ReceiveAt(start + 20000, "echo");
    EXPECT_EQ(Send(names, 0, 0, {0}, &Progress, &Show), 1);
    EXPECT_GT(clock_.Now() - start, 30000u) << "longer than a patient writer would wait";
    EXPECT_EQ(host_.WrittenString(), "hello\rworld\r");
    EXPECT_EQ(Shown, "echo") << "drained while the port refused";
    EXPECT_GT(progressAt_.size(), 40000u) << "an abort check with every retry";
    EXPECT_EQ(port_->Status, 0);

    host_.ClearWritten();
    RefusingPort::refusals = 3;
    RefusingPort::calls = 0;
    RefusingPort::failAfter = 7; // three refusals, "hell", then a failure
    EXPECT_EQ(Send(names, 0, 0), -615);
    EXPECT_EQ(host_.WrittenString(), "hell");
    port_->Ops.WriteChar = RefusingPort::write;
}

// The capture writes what arrives (line feeds dropped on request), shows
// every byte, and ends after the idle time-out of silence, measured from
// the last byte, to the millisecond: -617, its normal end.  Any byte value
// is taken as it is.
TEST_F(AsciiTest, CaptureTakesEveryByteUntilTheLineIsQuiet) {
    std::string all;
    for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
    const struct {
        const char *what;
        std::vector<int32_t> options;
        uint8_t dropLf;
        std::vector<std::pair<uint32_t, std::string>> arrivals; // after the start
        std::string file;
        uint32_t endsAt; // the last abort check, after the start
    } cases[] = {
        {"silence from the start", {0}, 0, {}, "", 10000},
        {"drop-LF", {1012, 500, 0}, 1, {{0, "ab\r\ncd\n"}, {300, "\n\ne"}}, "ab\rcde", 800},
        {"LF kept", {1012, 500, 0}, 0, {{0, "ab\r\n"}, {495, "x"}}, "ab\r\nx", 995},
        {"every byte value", {1012, 40, 0}, 0, {{10, all}, {20, all}}, all + all, 60},
        {"no wait at all", {1012, 0, 0}, 0, {{0, "q"}}, "q", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Shown.clear();
        progressAt_.clear();
        const std::string &name = cap_;
        const uint32_t start = clock_.Now();
        std::string sent;
        for (const auto &[at, bytes] : c.arrivals) {
            host_.ReceiveAt(start + at, bytes);
            sent += bytes;
        }
        EXPECT_EQ(Capture(c.options, c.dropLf, &Progress, &Show), -617);
        EXPECT_EQ(FileText(name), c.file);
        EXPECT_EQ(Shown, sent);
        ASSERT_FALSE(progressAt_.empty());
        EXPECT_EQ(progressAt_.back() - start, c.endsAt);
    }
}

// 300 bytes: the receive loop checks for an abort once, at the 256th byte
// (the other checks come from the start and the wait); an abort there ends
// the capture with the bytes before it in the file.  With no time limit
// only an abort ends the capture, and the file it stopped takes the place
// of the old one of its name.
TEST_F(AsciiTest, CaptureChecksForAnAbortEvery256BytesAndWithoutLimitEndsOnlySo) {
    const std::string &name = cap_;
    const std::string text(300, 'z');
    host_.Receive(text);
    positions_.clear();
    EXPECT_EQ(Capture({1012, 100, 0}, 0, &Progress), -617);
    std::vector<int32_t> inLoop;
    for (int32_t p : positions_)
        if (p > 0 && p < 300) inLoop.push_back(p);
    EXPECT_EQ(inLoop, std::vector<int32_t>{256});

    WriteFile(name, "old");
    host_.Receive(text);
    StopAt(UINT32_MAX, 256);
    EXPECT_EQ(Capture(), -605);
    EXPECT_EQ(FileText(name), std::string(255, 'z'));
    Drain();

    WriteFile(name, "old");
    const uint32_t start = clock_.Now();
    host_.ReceiveAt(start + 30000, "late");
    StopAt(start + 60000);
    EXPECT_EQ(Capture({1012, -1, 0}), -605);
    EXPECT_GE(clock_.Now() - start, 60000u);
    EXPECT_EQ(FileText(name), "late");
}

// A port that cannot be read is -616 and a file that cannot be written
// -607; either leaves an old file of the name as it was.  An existing file
// under the skip policy is kept and nothing is taken from the line.
TEST_F(AsciiTest, CaptureFailuresKeepTheOldFile) {
    const std::string &name = cap_;
    WriteFile(name, "old");
    const XferPortOps ops = port_->Ops;
    static int waiting; // bytes the port claims to hold (the clean-up drains it too)
    waiting = 5;
    port_->Ops.RxCount = [](XferPort *) { return waiting > 0 ? waiting-- : 0; };
    port_->Ops.ReadChar = [](XferPort *) { return int32_t{PortGeneralError}; };
    const int32_t unreadable = Capture();
    port_->Ops = ops;
    EXPECT_EQ(unreadable, -616);
    EXPECT_EQ(FileText(name), "old");

    port_->Hooks->FileOpenFunction = [](XferRecord *, const char *, const char *) -> XferFile {
        return test::OpenNullDevice(false);
    };
    host_.Receive("new");
    EXPECT_EQ(Capture(), -607);
    port_->Hooks->FileOpenFunction = nullptr;
    EXPECT_EQ(FileText(name), "old");
    Drain();

    port_->ExistingFilePolicy = XFER_EXISTING_SKIP;
    host_.Receive("new");
    EXPECT_EQ(Capture(), 1);
    EXPECT_EQ(FileText(name), "old");
    EXPECT_EQ(host_.Unread(), 3u);
}

// Each entry takes exactly its own options; any other is -7 before a byte
// is sent, a file opened or a callback called.
TEST_F(AsciiTest, EachEntryRefusesOptionsNotItsOwn) {
    WriteFile(tree_.Path("t"), "line\r");
    const std::string target = tree_.Path("never.txt");
    const struct {
        int32_t code, value;
        bool send, receive; // accepted by
    } cases[] = {
        {1001, 0, true, true},   {1002, 0, false, false}, {1003, 0, false, false},
        {1004, 0, false, false}, {1005, 0, false, false}, {1006, 0, true, true},
        {1007, 3, true, true},   {1008, 0, false, false}, {1009, 0, true, false},
        {1010, 0, false, false}, {1011, 0, false, false}, {1012, 5, false, true},
        {1014, 0, false, false}, {1016, 9, false, false}, {1024, 1, false, false},
        {1027, 0, true, true},   {1028, 3, false, false}, {1029, 64, false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.code);
        host_.ClearWritten();
        progressAt_.clear();
        std::string names = Names({"t"});
        const int32_t sent = AsciiSendWithOptions(port_, names.data(), nullptr, &Progress, nullptr,
                                                  0, 0, c.code, c.value, 0);
        EXPECT_EQ(sent, c.send ? 1 : -7);
        EXPECT_EQ(host_.WrittenString(), c.send ? "line\r" : "");
        EXPECT_EQ(progressAt_.empty(), !c.send);

        host_.Receive("r");
        const int32_t got =
            AsciiReceiveWithOptions(port_, const_cast<char *>(target.c_str()), nullptr, nullptr,
                                    nullptr, 0, c.code, c.value, 1012, 1, 0);
        EXPECT_EQ(got, c.receive ? -617 : -7);
        EXPECT_EQ(std::filesystem::exists(target), c.receive);
        std::filesystem::remove(target);
        Drain();
    }
}

// Through the generic entries: a non-zero flag drops line feeds and the
// value is the line delay; the block's 1012 reaches the capture, and its
// 1009 (passed to both ASCII entries) makes the capture refuse.
TEST_F(AsciiTest, GenericEntriesDriveBothDirections) {
    WriteFile(tree_.Path("t"), "ab\r\ncd\r\n");
    std::string names = Names({"t"});
    const int32_t none[] = {0};
    const uint32_t start = clock_.Now();
    EXPECT_EQ(CLFileSend(port_, Ascii, names.data(), 7, 40, CLSetFileTransferOptions(none), nullptr,
                         nullptr),
              1);
    EXPECT_EQ(WrittenLines(), (Lines{"ab\r", "cd\r"}));
    EXPECT_EQ(clock_.Now() - start, 80u);

    const int32_t subfolders[] = {XferOptSubfolders, 0};
    host_.ClearWritten();
    EXPECT_EQ(CLFileSend(port_, Ascii, names.data(), 0, 0, CLSetFileTransferOptions(subfolders),
                         nullptr, nullptr),
              1);
    EXPECT_EQ(host_.WrittenString(), "ab\r\ncd\r\n");

    const std::string &name = cap_;
    EXPECT_EQ(CLFileReceive(port_, Ascii, const_cast<char *>(name.c_str()), 0,
                            CLSetFileTransferOptions(subfolders), nullptr, &Progress),
              -7);
    EXPECT_TRUE(progressAt_.empty());
    EXPECT_FALSE(std::filesystem::exists(name));

    const int32_t idle[] = {XferOptReceiveTimeout, 300, XferOptAbortKey, 27, 0};
    const uint32_t from = clock_.Now();
    host_.ReceiveAt(from + 100, "a\r\nb");
    EXPECT_EQ(CLFileReceive(port_, Ascii, const_cast<char *>(name.c_str()), 1,
                            CLSetFileTransferOptions(idle), nullptr, &Progress),
              -617);
    EXPECT_EQ(FileText(name), "a\rb");
    EXPECT_EQ(progressAt_.back() - from, 400u);
}

// Over the simulated line, run in turns: one end uploads while the other
// captures, then the other way round; the capture ends by silence with
// exactly the file's bytes (drop-LF on one of the runs).
TEST(AsciiLinkPair, UploadIntoCaptureBothWays) {
    test::TempTree tree;
    std::string text;
    for (int i = 0; i < 300; ++i) text += "line " + std::to_string(i) + " of the text\r\n";
    WriteFile(tree.Path("text.txt"), text);
    std::string noLf = text;
    std::erase(noLf, '\n');
    for (const bool aSends : {true, false}) {
        SCOPED_TRACE(aSends ? "A to B" : "B to A");
        const uint8_t dropLf = aSends ? 1 : 0;
        std::string names = "\"" + tree.Path("text.txt") + "\"";
        std::string target = tree.Path(aSends ? "at-b.txt" : "at-a.txt");
        host::LinkConfig config;
        config.deadlineMs = 120000;
        test::Turns turns(config);
        const auto send = [&](XferPort *p) {
            return AsciiSendWithOptions(p, names.data(), nullptr, nullptr, nullptr, dropLf, 5, 0);
        };
        const auto capture = [&](XferPort *p) {
            return AsciiReceiveWithOptions(p, target.data(), nullptr, nullptr, nullptr, 0,
                                           XferOptReceiveTimeout, 2000, 0);
        };
        const host::LinkResult r = aSends ? turns.Run(send, capture) : turns.Run(capture, send);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(aSends ? r.a : r.b, 1);
        EXPECT_EQ(aSends ? r.b : r.a, -617);
        EXPECT_EQ(FileText(target), dropLf ? noLf : text);
    }
}

} // namespace
} // namespace zvxfer
