// Message texts by number: the three-slot cache, the fallback text, texts
// whose conversions do not fit their arguments, and copies.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "locale/locale.h"
#include "locale_test_env.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

std::string Fallback(int number) {
    return "Unable to find string " + std::to_string(number) + ". Internal Error!";
}

// Each test starts with no catalogue and an untouched cache, and gets a
// registry whose component key names a catalogue in a temporary folder.
class MessageTextTest : public ::testing::Test {
  protected:
    void SetUp() override {
        UnregisterXferDLL();
        ResetMessageCache();
        reg_.Add("HKCR", kComponentKey, "", (reg_.Dir() / "lib") + "/libzvxfer.so");
    }
    void TearDown() override {
        UnregisterXferDLL();
        ResetMessageCache();
    }
    // Write the catalogue and load it again (the cache keeps its texts).
    void Catalogue(const std::string &lines) {
        test::WriteText(reg_.Dir() / "lib/zvui32.nls", lines);
        UnregisterXferDLL();
        ASSERT_EQ(RegisterXferDLL(), 0);
    }
    test::TestRegistry reg_;
};

TEST_F(MessageTextTest, FourthNumberTakesTheSlotOfTheFirst) {
    Catalogue("1\tA1\n2\tA2\n3\tA3\n4\tA4\n");
    const char *first = MessageText(1);
    EXPECT_STREQ(first, "A1");
    EXPECT_STREQ(MessageText(2), "A2");
    EXPECT_STREQ(MessageText(3), "A3");
    // New texts in the catalogue show only for numbers that are loaded anew.
    Catalogue("1\tB1\n2\tB2\n3\tB3\n4\tB4\n");
    EXPECT_STREQ(MessageText(2), "A2");
    EXPECT_STREQ(MessageText(4), "B4");
    EXPECT_STREQ(first, "B4"); // same slot
    EXPECT_STREQ(MessageText(2), "A2");
    EXPECT_STREQ(MessageText(3), "A3");
    EXPECT_STREQ(MessageText(1), "B1");
    EXPECT_STREQ(MessageText(2), "B2"); // 1 took the slot of 2
}

TEST_F(MessageTextTest, MissingNumberNeverStaysCached) {
    Catalogue("1\tA1\n");
    EXPECT_STREQ(MessageText(1), "A1");
    EXPECT_EQ(MessageText(99), Fallback(99));
    Catalogue("1\tB1\n99\tB99\n");
    EXPECT_STREQ(MessageText(99), "B99");     // looked up again, not served from a slot
    EXPECT_STREQ(MessageText(1), "A1");       // a found number stays cached
    EXPECT_EQ(MessageText(-1), Fallback(-1)); // not the text of the slot marked -1
    EXPECT_EQ(MessageText(-5), Fallback(-5));
    EXPECT_EQ(MessageText(-5), Fallback(-5));
}

TEST_F(MessageTextTest, NumberZeroAtStartIsEmpty) {
    Catalogue("1\tA1\n");
    EXPECT_STREQ(MessageText(0), "");
    EXPECT_STREQ(MessageText(1), "A1");
    EXPECT_STREQ(MessageText(0), ""); // slot 0 is still untouched
    MessageText(2);
    MessageText(3); // the third load reaches slot 0
    EXPECT_EQ(MessageText(0), Fallback(0));
}

TEST_F(MessageTextTest, TextsWithoutCatalogue) {
    // Registered, but no catalogue in the folder: registration fails and
    // every number still has a text.
    EXPECT_EQ(RegisterXferDLL(), 1);
    EXPECT_EQ(MessageText(28258), Fallback(28258));
    EXPECT_EQ(MessageText(28311), Fallback(28311));
    // Not registered at all: nothing is loaded, and that is no failure.
    test::TestRegistry empty;
    EXPECT_EQ(RegisterXferDLL(), 0);
    EXPECT_EQ(MessageText(28285), Fallback(28285));
}

TEST_F(MessageTextTest, TextsThatDoNotFitTheirArgumentsCountAsMissing) {
    Catalogue("28285\tblock %s\n"      // table: one %ld
              "28286\tCRC error %ld\n" // fits
              "28288\tbytes %d\n"      // table: two %d
              "28258\tdone 100%\n"     // a lone '%' is no valid text
              "28259\tdone 100%%\n"    // an escaped percent is fine
              "5\tnot a library message %s\n");
    EXPECT_EQ(MessageText(28285), Fallback(28285));
    EXPECT_STREQ(MessageText(28286), "CRC error %ld");
    EXPECT_EQ(MessageText(28288), Fallback(28288));
    EXPECT_EQ(MessageText(28258), Fallback(28258));
    EXPECT_STREQ(MessageText(28259), "done 100%%");
    EXPECT_EQ(MessageText(5), Fallback(5));
}

TEST_F(MessageTextTest, CopiesSurviveLaterLookups) {
    Catalogue("1\tfirst text\n2\tsecond\n3\tthird\n4\tfourth\n");
    char held[32];
    MessageTextCopy(1, held, sizeof held);
    for (int n : {2, 3, 4}) MessageText(n);
    EXPECT_STREQ(held, "first text");
    char small[6];
    MessageTextCopy(1, small, sizeof small);
    EXPECT_STREQ(small, "first");
    MessageTextCopy(1, nullptr, 10); // nothing to copy into: no crash
}

TEST_F(MessageTextTest, LookupsFromSeveralThreadsNeverMix) {
    std::string lines;
    for (int n = 1; n <= 6; ++n)
        lines += std::to_string(n) + "\ttext number " + std::to_string(n) + "\n";
    Catalogue(lines);
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &wrong] {
            for (int i = 0; i < 2000; ++i) {
                int n = 1 + (i * 7 + t) % 6;
                char copy[64];
                MessageTextCopy(n, copy, sizeof copy);
                if (std::string(copy) != "text number " + std::to_string(n)) ++wrong[t];
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

} // namespace
} // namespace zvxfer
