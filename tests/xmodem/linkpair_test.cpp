// The XMODEM family against itself over the link simulator: every variant
// end to end on a clean line, and under bit errors and dropped bytes, where a
// transfer must either deliver the exact file or fail with a defined code in
// bounded time, never report success with a wrong file.
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "temp_tree.h"
#include "fake_clock.h"
#include "link_files.h"
#include "link_pair.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using Bytes = test::FileBytes;
using test::DefinedFailure;
using test::RandomBytes;

struct Variant {
    const char *name;
    int32_t protocol;
    bool streaming;
};

constexpr Variant kVariants[] = {
    {"xmodem", Xmodem, false}, {"xmodem-1k", Xmodem1K, false}, {"xmodem-1k-g", Xmodem1K, true},
    {"ymodem", Ymodem, false}, {"ymodem-g", Ymodem, true},
};

bool Batch(const Variant &v) {
    return v.protocol == Ymodem;
}

// What the receiver wrote must be the original; XMODEM carries no size, so
// it may add zero padding up to its block size.
bool SameFile(const Bytes &original, Bytes copy, bool padded) {
    if (padded && copy.size() > original.size()) {
        for (std::size_t i = original.size(); i < copy.size(); ++i)
            if (copy[i] != 0) return false;
        copy.resize(original.size());
    }
    return copy == original;
}

struct Outcome {
    host::LinkResult result;
    bool fileOk = false;
    bool timeOk = true;
};

// Send one file from end A to end B with the given variant.
Outcome Transfer(const Variant &v, const host::LinkConfig &base, const Bytes &data, uint64_t seed) {
    test::TempTree tree;
    const std::string source = tree.Path("out/source.bin");
    std::filesystem::create_directories(tree.Path("out"));
    std::filesystem::create_directories(tree.Path("in"));
    std::ofstream(source, std::ios::binary).write(data.data(), static_cast<long>(data.size()));
    struct timespec times[2] = {{1500000000, 0}, {1500000000, 0}};
    utimensat(AT_FDCWD, source.c_str(), times, 0);

    host::LinkConfig config = base;
    config.seed = seed;
    config.b.receiveFolder = tree.Path("in") + "/";
    const std::string target = tree.Path("in/source.bin");

    std::vector<int32_t> words;
    if (v.streaming) words.push_back(XferOptStreaming);
    words.push_back(XferOptEnd);

    host::LinkPair link(config);
    Outcome run;
    run.result = link.Run(
        [&](XferPort *port) {
            std::string names = "\"" + source + "\"";
            return CLFileSend(port, v.protocol, names.data(), 0, 0,
                              CLSetFileTransferOptions(words.data()), nullptr, nullptr);
        },
        [&](XferPort *port) {
            std::string name = target;
            return CLFileReceive(port, v.protocol, name.data(), 0,
                                 CLSetFileTransferOptions(words.data()), nullptr, nullptr);
        });
    run.fileOk = SameFile(data, test::ReadFileBytes(target), !Batch(v));
    if (Batch(v)) {
        struct stat st {};
        run.timeOk = stat(target.c_str(), &st) == 0 && st.st_mtime == 1500000000;
    }
    return run;
}

TEST(XmodemLinkPair, EveryVariantDeliversTheExactFileOnACleanLine) {
    test::FakeClock clock{test::FakeClock::Scaled{20}};
    host::LinkConfig config;
    config.deadlineMs = 60000;
    for (std::size_t size : {1u, 896u, 897u, 70000u}) {
        const Bytes data = RandomBytes(size, size);
        for (const Variant &v : kVariants) {
            const Outcome run = Transfer(v, config, data, 1);
            EXPECT_FALSE(run.result.timedOut) << v.name << " " << size;
            EXPECT_EQ(run.result.a, 1) << v.name << " " << size;
            EXPECT_EQ(run.result.b, 1) << v.name << " " << size;
            EXPECT_TRUE(run.fileOk) << v.name << " " << size;
            EXPECT_TRUE(run.timeOk) << v.name << " " << size;
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
    const Bytes data = RandomBytes(200000, 7);
    int completed = 0, runs = 0;
    for (const Variant &v : kVariants) {
        for (uint64_t seed = 1; seed <= 3; ++seed) {
            const Outcome run = Transfer(v, config, data, seed);
            ++runs;
            SCOPED_TRACE(std::string(v.name) + " seed " + std::to_string(seed));
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
    // The acknowledged variants recover from damaged blocks: most runs of
    // them must complete (the streaming ones may give up at the first error).
    EXPECT_GE(completed, runs / 2) << completed << " of " << runs << " completed";
}

} // namespace
} // namespace zvxfer
