// The debug log: time stamp, whole lines to the debugger output, the length
// limit; and where the debugger output goes.
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "locale/locale.h"
#include "locale_test_env.h"
#include "platform/debugout.h"
#include "platform/localtime.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

std::mutex gLinesMutex;
std::vector<std::string> gLines;

void CollectLine(const char *text) {
    std::lock_guard lock(gLinesMutex);
    gLines.emplace_back(text);
}

plat::TimeOfDay FixedTime() {
    return {9, 5, 3, 7};
}

class DebugLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        gLines.clear();
        ZvSetDebugOutput(CollectLine);
        plat::SetLocalTimeSource(FixedTime);
    }
    void TearDown() override {
        ZvSetDebugOutput(nullptr);
        plat::SetLocalTimeSource(nullptr);
    }
};

TEST_F(DebugLogTest, StampedLinesReachTheSink) {
    DebugLog(0, "seof\n");
    DebugLog(42, "%s %d %ld %c", "rpacket", -3, 123456789L, 'Y');
    ASSERT_EQ(gLines.size(), 2u);
    EXPECT_EQ(gLines[0], "09:05:03.007 seof\n");
    EXPECT_EQ(gLines[1], "09:05:03.007 rpacket -3 123456789 Y"); // no line end added

    plat::SetLocalTimeSource(nullptr);
    DebugLog(0, "x");
    ASSERT_EQ(gLines.size(), 3u);
    const std::string &line = gLines[2];
    ASSERT_EQ(line.size(), 14u);
    for (int i : {2, 5}) EXPECT_EQ(line[i], ':');
    EXPECT_EQ(line[8], '.');
    EXPECT_EQ(line.substr(12), " x");
}

TEST_F(DebugLogTest, LongestTextIsWrittenWhole) {
    std::string text(23997, 'k');
    DebugLog(0, "%s", text.c_str());
    ASSERT_EQ(gLines.size(), 1u);
    EXPECT_EQ(gLines[0], "09:05:03.007 " + text);
}

TEST(DebugLogDeathTest, TooLongTextEndsTheProcess) {
    std::string text(23998, 'k');
    EXPECT_DEATH(DebugLog(0, "%s", text.c_str()), "String passed to DebugPrintf is too long!");
    EXPECT_DEATH(DebugLog(0, "%s%s", text.c_str(), "more"),
                 "String passed to DebugPrintf is too long!");
}

TEST(DebugOutput, FileNamedByTheEnvironment) {
    test::ScopedEnv env;
    test::TempDir dir;
    ZvSetDebugOutput(nullptr);
    env.Set("ZVXFER_DEBUG", std::nullopt);
    plat::OutputDebugString("dropped\n");
    env.Set("ZVXFER_DEBUG", dir / "first.log");
    plat::OutputDebugString("one\n");
    plat::OutputDebugString("two\n");
    env.Set("ZVXFER_DEBUG", dir / "second.log");
    plat::OutputDebugString("three\n");
    env.Set("ZVXFER_DEBUG", std::nullopt);
    plat::OutputDebugString("dropped too\n");

    auto read = [](const std::string &file) {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    };
    EXPECT_EQ(read(dir / "first.log"), "one\ntwo\n");
    EXPECT_EQ(read(dir / "second.log"), "three\n");
}

TEST(DebugOutputDeathTest, FatalExitPrintsAndAborts) {
    EXPECT_DEATH(plat::FatalAppExit("fatal text here"), "fatal text here");
}

} // namespace
} // namespace zvxfer
