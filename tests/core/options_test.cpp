// The option-list reader: ending, skipping, refusing, value words, and the
// variadic collector's stop rules.
#include <gtest/gtest.h>

#include <cstdarg>
#include <vector>

#include "core/options.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

// What an XMODEM receiver accepts: the "all" codes plus the checksum flag.
constexpr int32_t kXmodemReceive[] = {1006, 1007, 1008, 1027};

int32_t Read(std::vector<int32_t> words, std::vector<Option> &out) {
    return ReadOptionList(words, kXmodemReceive, out);
}

TEST(OptionList, RefusesUnacceptedCodesAtOnce) {
    std::vector<Option> out;
    // 1012 belongs to ASCII receive: refused even though its value follows.
    EXPECT_EQ(Read({1012, 500, 0}, out), -7);
    EXPECT_TRUE(out.empty());
    // Codes before the refused one were taken; nothing after it is read.
    out.clear();
    EXPECT_EQ(Read({1008, 1011, 1006, 0}, out), -7);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].code, 1008);
    // 1010 and 1013 are accepted by no entry; a stray value word neither.
    for (int32_t code : {1010, 1013, 1030, 42, -1}) {
        out.clear();
        EXPECT_EQ(Read({code, 0}, out), -7) << code;
    }
}

TEST(OptionList, FillersEndAndValues) {
    std::vector<Option> out;
    EXPECT_EQ(Read({1001, 1001, 0}, out), 0);
    EXPECT_TRUE(out.empty()) << "1001 only: the entry keeps its defaults";

    // A value word is consumed even when it looks like a code (or like 0).
    EXPECT_EQ(Read({1007, 1012, 1027, 0, 1008, 0, 1012}, out), 0);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].code, 1007);
    EXPECT_EQ(out[0].value, 1012);
    EXPECT_EQ(out[1].code, 1027);
    EXPECT_EQ(out[1].value, 0);
    EXPECT_EQ(out[2].code, 1008);

    // Nothing after the ending 0 is looked at, and an empty list is fine.
    out.clear();
    EXPECT_EQ(Read({0, 4711}, out), 0);
    EXPECT_EQ(Read({}, out), 0);
    EXPECT_TRUE(out.empty());
}

TEST(OptionList, ValueCodes) {
    const std::vector<int32_t> withValue = {1007, 1012, 1016, 1024, 1027, 1028, 1029};
    for (int32_t code = 1001; code <= 1029; ++code) {
        const bool expected =
            std::find(withValue.begin(), withValue.end(), code) != withValue.end();
        EXPECT_EQ(OptionTakesValue(code), expected) << code;
    }
    EXPECT_FALSE(OptionTakesValue(0));
}

std::vector<int32_t> Collect(int first, ...) {
    va_list args;
    va_start(args, first);
    std::vector<int32_t> words = CollectOptionWords(args);
    va_end(args);
    return words;
}

TEST(OptionList, CollectsVariadicWordsUpToTheirEnd) {
    using V = std::vector<int32_t>;
    EXPECT_EQ(Collect(0, 0), V{0});
    EXPECT_EQ(Collect(0, 1001, 1008, 0), (V{1001, 1008, 0}));
    // A value word of 0 does not end the list.
    EXPECT_EQ(Collect(0, 1027, 0, 1012, -5, 0), (V{1027, 0, 1012, -5, 0}));
    // A word that is no option code ends the reading right after it: the
    // caller passed nothing beyond it that could safely be read.
    EXPECT_EQ(Collect(0, 1008, 77), (V{1008, 77}));
    EXPECT_EQ(Collect(0, 1010), V{1010});

    // Whatever was collected, the reader then refuses or accepts it.
    std::vector<Option> out;
    constexpr int32_t kAscii[] = {1006, 1007, 1012, 1027};
    EXPECT_EQ(ReadOptionList(Collect(0, 1012, 2500, 0), kAscii, out), 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].value, 2500);
    EXPECT_EQ(ReadOptionList(Collect(0, 1012, 2500, 77), kAscii, out), -7);
}

} // namespace
} // namespace zvxfer
