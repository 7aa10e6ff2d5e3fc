// The XMODEM family against itself over the link simulator: every variant
// end to end on a clean line, and under bit errors and dropped bytes, where a
// transfer must either deliver the exact file or fail with a defined code in
// bounded time, never report success with a wrong file.
#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

#include "fake_clock.h"
#include "link_files.h"
#include "link_pair.h"
#include "temp_tree.h"

namespace zvxfer {
namespace {

using test::DefinedFailure;
using test::FileBytes;
using test::RandomBytes;

constexpr struct Variant {
    const char *name;
    int32_t protocol;
    bool streaming;
} kVariants[] = {
    {"xmodem", Xmodem, false}, {"xmodem-1k", Xmodem1K, false}, {"xmodem-1k-g", Xmodem1K, true},
    {"ymodem", Ymodem, false}, {"ymodem-g", Ymodem, true},
};

struct Outcome {
    host::LinkResult result;
    bool fileOk = false; // the exact file (XMODEM: plus zero padding only)
    bool timeOk = true;  // YMODEM: the sender's time kept
};

Outcome Transfer(const Variant &v, host::LinkConfig config, const FileBytes &data) {
    test::TempTree tree;
    const std::string source = tree.File("out/source.bin", std::string(data.begin(), data.end()));
    const struct timespec times[2] = {{1500000000, 0}, {1500000000, 0}};
    utimensat(AT_FDCWD, source.c_str(), times, 0);
    config.b.receiveFolder = tree.Dir("in") + "/";
    const std::string target = tree.Path("in/source.bin");
    int32_t words[] = {v.streaming ? XferOptStreaming : XferOptEnd, XferOptEnd};
    const bool batch = v.protocol == Ymodem;

    host::LinkPair link(config);
    Outcome run;
    run.result = link.Run(
        [&](XferPort *port) {
            std::string names = "\"" + source + "\"";
            return CLFileSend(port, v.protocol, names.data(), 0, 0, CLSetFileTransferOptions(words),
                              nullptr, nullptr);
        },
        [&](XferPort *port) {
            std::string name = target;
            return CLFileReceive(port, v.protocol, name.data(), 0, CLSetFileTransferOptions(words),
                                 nullptr, nullptr);
        });
    FileBytes copy = test::ReadFileBytes(target);
    if (!batch && copy.size() > data.size() &&
        std::all_of(copy.begin() + static_cast<long>(data.size()), copy.end(),
                    [](char c) { return c == 0; }))
        copy.resize(data.size());
    run.fileOk = copy == data;
    struct stat st {};
    if (batch) run.timeOk = stat(target.c_str(), &st) == 0 && st.st_mtime == 1500000000;
    return run;
}

TEST(XmodemLinkPair, EveryVariantDeliversTheExactFileOnACleanLine) {
    test::FakeClock clock{test::FakeClock::Scaled{20}};
    host::LinkConfig config;
    config.deadlineMs = 60000;
    for (std::size_t size : {1u, 896u, 897u, 70000u}) {
        const FileBytes data = RandomBytes(size, size);
        for (const Variant &v : kVariants) {
            SCOPED_TRACE(std::string(v.name) + " " + std::to_string(size));
            const Outcome run = Transfer(v, config, data);
            EXPECT_FALSE(run.result.timedOut);
            EXPECT_EQ(run.result.a, 1);
            EXPECT_EQ(run.result.b, 1);
            EXPECT_TRUE(run.fileOk);
            EXPECT_TRUE(run.timeOk);
        }
    }
}

// Under noise a transfer may fail, but only with a defined code and within
// its limits; a reported success always comes with the exact file.
TEST(XmodemLinkPair, NoisyLineNeverYieldsAWrongFile) {
    test::FakeClock clock{test::FakeClock::Scaled{50}};
    host::LinkConfig config;
    config.aToB.bitErrorRate = config.bToA.bitErrorRate = 1e-5;
    config.aToB.dropRate = config.bToA.dropRate = 2e-6;
    config.deadlineMs = 120000;
    const FileBytes data = RandomBytes(200000, 7);
    int completed = 0, runs = 0;
    for (const Variant &v : kVariants) {
        for (config.seed = 1; config.seed <= 3; ++config.seed, ++runs) {
            SCOPED_TRACE(std::string(v.name) + " seed " + std::to_string(config.seed));
            const Outcome run = Transfer(v, config, data);
            ASSERT_FALSE(run.result.timedOut);
            if (run.result.b >= 1) {
                EXPECT_TRUE(run.fileOk) << "success reported with a wrong file";
                ++completed;
            } else {
                EXPECT_TRUE(DefinedFailure(run.result.b)) << run.result.b;
            }
            if (run.result.a < 0) {
                EXPECT_TRUE(DefinedFailure(run.result.a)) << run.result.a;
            }
        }
    }
    // The acknowledged variants recover from damaged blocks: most runs must
    // complete (the streaming ones may give up at the first error).
    EXPECT_GE(completed, runs / 2) << completed << " of " << runs << " completed";
}

} // namespace
} // namespace zvxfer
