// ZMODEM against itself over the link simulator: batches on a clean line in
// every window mode, and noisy, lossy and stalling lines where every run
// must end with the exact files or a defined failure, never a wrong file
// reported good.
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "fake_clock.h"
#include "link_files.h"
#include "link_pair.h"
#include "temp_tree.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using Bytes = test::FileBytes;
using test::DefinedFailure;
using test::RandomBytes;
constexpr long kTime = 1500000000;

using Batch = std::vector<Bytes>;

struct Outcome {
    host::LinkResult result;
    int exact = 0;     // received files equal to their originals
    int timesKept = 0; // of those, files that kept their time
};

// Send every file of the batch from end A to end B with up to three option words.
Outcome Transfer(const Batch &batch, host::LinkConfig config, std::vector<int32_t> w,
                 uint64_t seed) {
    test::TempTree tree;
    std::string names;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        const std::string path = tree.File("out/" + std::to_string(i));
        std::ofstream(path, std::ios::binary)
            .write(batch[i].data(), static_cast<long>(batch[i].size()));
        const struct timespec times[2] = {{kTime, 0}, {kTime, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
        names += "\"" + path + "\"";
    }
    config.seed = seed;
    config.b.receiveFolder = tree.Dir("in") + "/";
    w.resize(4, XferOptEnd);
    host::LinkPair link(config);
    Outcome run;
    run.result = link.Run(
        [&](XferPort *port) {
            return ZmodemSendWithOptions(port, names.data(), nullptr, nullptr, w[0], w[1], w[2],
                                         w[3]);
        },
        [&](XferPort *port) { return ZmodemReceiveWithOptions(port, nullptr, nullptr, 0); });
    for (std::size_t i = 0; i < batch.size(); ++i) {
        const std::string copy = tree.Path("in/" + std::to_string(i));
        if (!std::filesystem::exists(copy) || test::ReadFileBytes(copy) != batch[i]) continue;
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
        batch.push_back(RandomBytes(size, size + 1));
    const int n = static_cast<int>(batch.size());
    for (const auto &words : std::vector<std::vector<int32_t>>{
             {}, {XferOptZmNoWindow}, {XferOptZmWindowSize, 5000}, {XferOptZmWindowSize, 1024}}) {
        SCOPED_TRACE(words.empty() ? 0 : words.back());
        const Outcome run = Transfer(batch, config, words, 1);
        EXPECT_FALSE(run.result.timedOut);
        EXPECT_EQ((std::vector<int>{run.result.a, run.result.b, run.exact, run.timesKept}),
                  std::vector<int>(4, n));
    }
}

// Bit errors, dropped bytes and stalls: a run may fail, but only with a
// defined code and within its limits; a file counted as received is always
// the exact file, and ZRPOS recovery carries most runs through where the
// noise is light.  At 1e-4 a damaged ZRPOS or final ZACK may leave both
// ends waiting until the silence limit, so runs may fail, but only that way.
TEST(ZmodemLinkPair, NoisyLinesEndWithTheExactFilesOrADefinedFailure) {
    // The library's clock runs 20 times faster than the line's: a 10-second
    // silence limit passes in half a second.
    test::FakeClock clock{test::FakeClock::Scaled{20}};
    struct Case {
        double bitErrors;
        bool lossy; // dropped bytes and stalls on a serial line
        int32_t word;
        std::size_t size;
        int minCompleted; // of four runs
    } const cases[] = {{1e-5, false, 0, 150000, 3},
                       {1e-5, false, XferOptZmNoWindow, 150000, 3},
                       {1e-4, false, 0, 20000, 0},
                       {1e-4, false, XferOptZmNoWindow, 20000, 0},
                       {0, true, 0, 150000, 3}};
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << c.bitErrors << " " << c.lossy << " " << c.word);
        host::LinkConfig config;
        config.deadlineMs = 120000;
        for (host::LineConfig *line : {&config.aToB, &config.bToA}) {
            line->bitErrorRate = c.bitErrors;
            if (!c.lossy) continue;
            line->bytesPerSecond = 200000;
            line->latencyMs = 5;
            line->dropRate = 2e-5;
            line->stallEveryBytes = 60000;
            line->stallMs = 150; // three seconds of the library's time
        }
        const Batch batch{RandomBytes(c.size, 7), RandomBytes(3000, 8)};
        int completed = 0;
        for (uint64_t seed = 1; seed <= 4; ++seed) {
            const Outcome run = Transfer(batch, config, {c.word}, seed);
            ASSERT_FALSE(run.result.timedOut) << seed;
            // Never a file reported good that differs; failures with defined codes.
            EXPECT_TRUE(run.result.b >= 0 ? run.exact == run.result.b
                                          : DefinedFailure(run.result.b))
                << "seed " << seed << ": " << run.result.b << ", exact " << run.exact;
            EXPECT_TRUE(run.result.a >= 0 || DefinedFailure(run.result.a)) << run.result.a;
            completed += run.result.b == 2 && run.exact == 2;
        }
        EXPECT_GE(completed, c.minCompleted);
    }
}

} // namespace
} // namespace zvxfer
