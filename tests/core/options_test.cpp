// Options and results: the option-list reader and variadic collector, the
// generic entries' option block and protocol table, and the result texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "core/options.h"
#include "core/results.h"
#include "fake_clock.h"
#include "port/port.h"
#include "test_host.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using Words = std::vector<int32_t>;

// What an XMODEM receiver accepts: the "all" codes plus the checksum flag.
constexpr int32_t kXmodemReceive[] = {1006, 1007, 1008, 1027};

TEST(OptionList, ReaderRefusesEndsSkipsAndTakesValues) {
    // Words, result, then the (code, value) pairs taken.
    const struct {
        Words words;
        int32_t result;
        Words taken;
    } cases[] = {
        // clang-format off
        {{1012, 500, 0}, -7, {}},               // ASCII's code: refused though its value follows
        {{1008, 1011, 1006, 0}, -7, {1008, 0}}, // nothing after a refused code is read
        {{1010, 0}, -7, {}}, {{42, 0}, -7, {}}, {{-1, 0}, -7, {}}, // accepted by no entry
        {{1001, 1001, 0}, 0, {}},               // fillers: the entry keeps its defaults
        // A value word is consumed even when it looks like a code or like 0.
        {{1007, 1012, 1027, 0, 1008, 0, 1012}, 0, {1007, 1012, 1027, 0, 1008, 0}},
        {{0, 4711}, 0, {}}, {{}, 0, {}},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.words));
        std::vector<Option> out;
        EXPECT_EQ(ReadOptionList(c.words, kXmodemReceive, out), c.result);
        Words taken;
        for (const Option &o : out) taken.insert(taken.end(), {o.code, o.value});
        EXPECT_EQ(taken, c.taken);
    }
    const Words withValue = {1007, 1012, 1016, 1024, 1027, 1028, 1029};
    for (int32_t code = 1000; code <= 1030; ++code)
        EXPECT_EQ(OptionTakesValue(code), std::count(withValue.begin(), withValue.end(), code))
            << code;
}

Words Collect(int first, ...) {
    va_list args;
    va_start(args, first);
    Words words = CollectOptionWords(args);
    va_end(args);
    return words;
}

TEST(OptionList, CollectsVariadicWordsUpToTheirEnd) {
    EXPECT_EQ(Collect(0, 0), Words{0});
    EXPECT_EQ(Collect(0, 1027, 0, 1012, -5, 0), (Words{1027, 0, 1012, -5, 0})) << "value 0";
    // A word that is no option code ends the reading right after it.
    EXPECT_EQ(Collect(0, 1008, 77), (Words{1008, 77}));
    EXPECT_EQ(Collect(0, 1010), Words{1010});
    std::vector<Option> out;
    constexpr int32_t kAscii[] = {1006, 1007, 1012, 1027};
    EXPECT_EQ(ReadOptionList(Collect(0, 1012, 2500, 77), kAscii, out), -7);
}

// The generic entries release the block; a refused protocol does too.
FileTransferOptions *Block(Words words) {
    return CLSetFileTransferOptions(words.data());
}

TEST(OptionBlock, StoresCodesAndValuesInTheirSlots) {
    // Words, then the (slot, value) pairs set; every other slot holds 1001.
    const struct {
        Words words, set;
    } cases[] = {
        // clang-format off
        {{1007, 3, 0}, {5, 1007, 6, 3}},
        {{1018, 1020, 0}, {17, 1020}},            // the management options share slot 17
        {{1022, 0}, {}},                          // management option 7 has no slot
        {{1010, 1007, 5, 0}, {5, 1007, 6, 5}},    // a skipped word eats nothing
        {{1003, -1, 1004, 0}, {1, 1003}},         // -1 ends the list too
        {{1012, 700, 1029, 2048, 1028, 4, 1024, 0x102, 1027, 1, 1008, 1016, 9, 0},
         {12, 1012, 13, 700, 26, 1029, 27, 2048, 24, 1028, 25, 4, 18, 1024, 19, 0x102,
          22, 1027, 23, 1, 7, 1008, 8, 1016, 9, 9}},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.words));
        FileTransferOptions *b = Block(c.words);
        ASSERT_NE(b, nullptr);
        Words expected(28, 1001);
        for (std::size_t i = 0; i < c.set.size(); i += 2) expected[c.set[i]] = c.set[i + 1];
        EXPECT_EQ(Words(b->Slot, b->Slot + 28), expected);
        EXPECT_EQ(CLFileReceive(nullptr, 99, nullptr, 0, b, nullptr, nullptr), -7);
    }
}

TEST(GenericEntries, RefuseUnknownProtocolsAndOptionsOrRunWithTheBlocksOptions) {
    test::FakeClock clock{test::FakeClock::Scaled{1000}};
    test::TestHost host;
    XferPort *port = PortOpen(0, host.Window(), "/tmp/", XFER_EXISTING_OVERWRITE);
    char names[] = "\"/nonexistent\"";
    for (int32_t protocol : {6, 7, 9, -1})
        EXPECT_EQ(CLFileSend(port, protocol, names, 0, 0, Block({0}), nullptr, nullptr), -7)
            << protocol;
    // Checksum mode is an XMODEM option; through the block it refuses YMODEM.
    EXPECT_EQ(CLFileSend(port, Ymodem, names, 0, 0, Block({1008, 0}), nullptr, nullptr), -7);
    EXPECT_TRUE(host.Written().empty());

    // XMODEM receive in checksum mode asks with NAK; nothing answers, so it
    // ends after its retries, but the first request shows the option.
    char name[] = "/tmp/zvxfer-generic-never-written";
    EXPECT_EQ(CLFileReceive(port, Xmodem, name, 0, Block({1008, 0}), nullptr, nullptr),
              XferErrPacketTimeout);
    ASSERT_FALSE(host.Written().empty());
    EXPECT_EQ(host.Written()[0], 0x15);
    std::remove(name);
    port->Ops.PortClose(port);
}

struct CodeText {
    int32_t code;
    const char *text;
};
#define TEST_CODE_TEXT_(code, name, text) CodeText{code, text},
constexpr CodeText kTransfer[] = {XFER_RESULT_MAP(TEST_CODE_TEXT_)};
constexpr CodeText kPortLayer[] = {PORT_RESULT_MAP(TEST_CODE_TEXT_)};
#undef TEST_CODE_TEXT_

const char *NamesNothing(int32_t) {
    return nullptr;
}
const char *NamesMinus24(int32_t code) {
    return code == -24 ? "Nicht unterstuetzt" : nullptr;
}

TEST(ResultTexts, OwnTextsTablesAndTheHook) {
    const std::string unknown = "Unknown error code";
    EXPECT_STREQ(XferErrorName(0), "Successful");
    EXPECT_STREQ(XferErrorName(-1), "General Error");
    EXPECT_STREQ(XferErrorName(-8), "Buffer Empty");
    EXPECT_STREQ(XferErrorName(-9), "Buffer is Full");
    EXPECT_STREQ(XferErrorName(-10), "Timeout Error");
    for (const CodeText &c : kTransfer) EXPECT_STREQ(XferErrorName(c.code), c.text) << c.code;
    // The port-layer codes it has no short text for are unknown to it.
    for (int32_t code : {-7, -2, -11, -24, -600, -624, 1, INT32_MIN})
        EXPECT_EQ(XferErrorName(code), unknown) << code;

    ThreadHooks *hooks = ThreadHooksFind();
    const XferErrorNameFn saved = hooks->UserErrorNameFunction;
    hooks->UserErrorNameFunction = &XferErrorName; // what a new hook record holds
    EXPECT_EQ(PortErrorName(-24), unknown);
    EXPECT_STREQ(PortErrorName(-602), "Can't open xfer file");
    // A hook that names nothing leaves it to the tables.
    hooks->UserErrorNameFunction = &NamesNothing;
    for (const CodeText &c : kPortLayer) EXPECT_STREQ(PortErrorName(c.code), c.text) << c.code;
    for (const CodeText &c : kTransfer) EXPECT_STREQ(PortErrorName(c.code), c.text) << c.code;
    for (int32_t code : {-29, -43, -600, -624, 1, -100})
        EXPECT_EQ(PortErrorName(code), unknown) << code;
    hooks->UserErrorNameFunction = &NamesMinus24; // its text wins where it answers
    EXPECT_STREQ(PortErrorName(-24), "Nicht unterstuetzt");
    EXPECT_STREQ(PortErrorName(-25), "Illegal baud rate");
    hooks->UserErrorNameFunction = saved;
}

} // namespace
} // namespace zvxfer
