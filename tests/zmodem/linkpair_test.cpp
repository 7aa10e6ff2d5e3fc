// ZMODEM against itself over the link simulator: batches on a clean line in
// every window mode, and noisy, lossy and stalling lines where every run
// must end with the exact files or a defined failure, never a wrong file
// reported good.
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
constexpr long kTime = 1500000000;

struct Batch {
    std::vector<Bytes> files;
};

struct Outcome {
    host::LinkResult result;
    int exact = 0;     // received files equal to their originals
    int timesKept = 0; // of those, files that kept their time
};

// Send every file of the batch from end A to end B with the sender's
// option words.
Outcome Transfer(const Batch &batch, const host::LinkConfig &base, std::vector<int32_t> sendWords,
                 uint64_t seed) {
    test::TempTree tree;
    std::filesystem::create_directories(tree.Path("out"));
    std::filesystem::create_directories(tree.Path("in"));
    std::string names;
    for (std::size_t i = 0; i < batch.files.size(); ++i) {
        const std::string path = tree.Path("out/file " + std::to_string(i) + ".bin");
        std::ofstream(path, std::ios::binary)
            .write(batch.files[i].data(), static_cast<long>(batch.files[i].size()));
        struct timespec times[2] = {{kTime, 0}, {kTime, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
        names += "\"" + path + "\"";
    }
    host::LinkConfig config = base;
    config.seed = seed;
    config.b.receiveFolder = tree.Path("in") + "/";
    sendWords.push_back(XferOptEnd);
    while (sendWords.size() < 8) sendWords.push_back(XferOptEnd);
    const int32_t *w = sendWords.data();

    host::LinkPair link(config);
    Outcome run;
    run.result = link.Run(
        [&](XferPort *port) {
            return ZmodemSendWithOptions(port, names.data(), nullptr, nullptr, w[0], w[1], w[2],
                                         w[3], w[4], w[5], w[6], w[7]);
        },
        [&](XferPort *port) { return ZmodemReceiveWithOptions(port, nullptr, nullptr, 0); });
    for (std::size_t i = 0; i < batch.files.size(); ++i) {
        const std::string copy = tree.Path("in/file " + std::to_string(i) + ".bin");
        if (!std::filesystem::exists(copy) || test::ReadFileBytes(copy) != batch.files[i]) continue;
        ++run.exact;
        struct stat st {};
        run.timesKept += stat(copy.c_str(), &st) == 0 && st.st_mtime == kTime;
    }
    return run;
}

TEST(ZmodemLinkPair, BatchesArriveExactInEveryWindowMode) {
    test::FakeClock clock{test::FakeClock::Scaled{20}};
    host::LinkConfig config;
    config.deadlineMs = 60000;
    Batch batch;
    for (std::size_t size : {0u, 1u, 1023u, 1024u, 1025u, 70000u, 300001u})
        batch.files.push_back(RandomBytes(size, size + 1));
    const int n = static_cast<int>(batch.files.size());
    const std::vector<std::vector<int32_t>> modes = {
        {}, {XferOptZmNoWindow}, {XferOptZmWindowSize, 5000}, {XferOptZmWindowSize, 1024}};
    for (const auto &words : modes) {
        const Outcome run = Transfer(batch, config, words, 1);
        const std::string mode = words.empty() ? "window" : std::to_string(words[0]);
        EXPECT_FALSE(run.result.timedOut) << mode;
        EXPECT_EQ(run.result.a, n) << mode;
        EXPECT_EQ(run.result.b, n) << mode;
        EXPECT_EQ(run.exact, n) << mode;
        EXPECT_EQ(run.timesKept, n) << mode;
    }
}

// Under noise a run may fail, but only with a defined code and within its
// limits; a file counted as received is always the exact file.  ZRPOS
// recovery must carry most runs through.
void NoisyRuns(host::LinkConfig config, std::vector<int32_t> words, std::size_t size,
               int minCompleted) {
    // The library's clock runs 20 times faster than the line's: a 10-second
    // silence limit passes in half a second.
    test::FakeClock clock{test::FakeClock::Scaled{20}};
    config.deadlineMs = 120000;
    Batch batch{{RandomBytes(size, 7), RandomBytes(3000, 8)}};
    int completed = 0;
    for (uint64_t seed = 1; seed <= 4; ++seed) {
        const Outcome run = Transfer(batch, config, words, seed);
        SCOPED_TRACE("seed " + std::to_string(seed));
        ASSERT_FALSE(run.result.timedOut);
        if (run.result.b >= 0) {
            EXPECT_EQ(run.exact, run.result.b) << "a file reported good differs";
        } else {
            EXPECT_TRUE(DefinedFailure(run.result.b)) << run.result.b;
        }
        if (run.result.a < 0) {
            EXPECT_TRUE(DefinedFailure(run.result.a)) << run.result.a;
        }
        completed += run.result.b == 2 && run.exact == 2;
    }
    EXPECT_GE(completed, minCompleted) << completed << " of 4 runs completed";
}

TEST(ZmodemLinkPair, BitErrorsAreRecoveredByRepositioning) {
    host::LinkConfig config;
    config.aToB.bitErrorRate = config.bToA.bitErrorRate = 1e-5;
    NoisyRuns(config, {}, 150000, 3);
    NoisyRuns(config, {XferOptZmNoWindow}, 150000, 3);
}

// At 1e-4 a damaged ZRPOS or final ZACK leaves both ends waiting until the
// silence limit: runs may fail, but only that way.
TEST(ZmodemLinkPair, HeavyNoiseEndsWithTheExactFilesOrADefinedFailure) {
    host::LinkConfig config;
    config.aToB.bitErrorRate = config.bToA.bitErrorRate = 1e-4;
    NoisyRuns(config, {}, 20000, 0);
    NoisyRuns(config, {XferOptZmNoWindow}, 20000, 0);
}

TEST(ZmodemLinkPair, DroppedBytesAndStallsOnASerialLine) {
    host::LinkConfig config;
    for (host::LineConfig *line : {&config.aToB, &config.bToA}) {
        line->bytesPerSecond = 200000;
        line->latencyMs = 5;
        line->dropRate = 2e-5;
        line->stallEveryBytes = 60000;
        line->stallMs = 150; // three seconds of the library's time
    }
    NoisyRuns(config, {}, 150000, 3);
}

} // namespace
} // namespace zvxfer
