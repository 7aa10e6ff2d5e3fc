// ZMODEM against itself over the link simulator: batches on a clean line in
// every window mode, and noisy, lossy and stalling lines where every run
// must end with the exact files or a defined failure, never a wrong file
// reported good.
#include <gtest/gtest.h>

#include "link_files.h"
#include "link_pair.h"
#include "system_files.h"
#include "temp_tree.h"
#include "turns.h"

namespace zvxfer::zm {
namespace {

using namespace test;
using Batch = std::vector<FileBytes>;
constexpr long kTime = 1500000000;

struct Outcome {
    host::LinkResult result;
    int exact = 0, timesKept = 0; // files equal to their originals; of those, with their time
};

// Send every file of the batch from end A to end B with up to two option words.
Outcome Transfer(const Batch &batch, host::LinkConfig config, std::vector<int32_t> w) {
    TempTree tree;
    std::string names;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        const std::string path =
            tree.File("out/" + std::to_string(i), std::string(batch[i].begin(), batch[i].end()));
        test::SetModTime(path, kTime);
        names += "\"" + path + "\"";
    }
    config.b.receiveFolder = tree.Dir("in") + "/";
    w.resize(2, XferOptEnd);
    Outcome run;
    Turns turns(config);
    run.result = turns.Run(
        [&](XferPort *port) {
            return ZmodemSendWithOptions(port, names.data(), nullptr, nullptr, w[0], w[1], 0, 0);
        },
        [&](XferPort *port) { return ZmodemReceiveWithOptions(port, nullptr, nullptr, 0); });
    for (std::size_t i = 0; i < batch.size(); ++i) {
        const std::string copy = tree.Path("in/" + std::to_string(i));
        int64_t time = 0;
        if (!test::ModTime(copy, time) || ReadFileBytes(copy) != batch[i]) continue;
        ++run.exact;
        run.timesKept += time == kTime;
    }
    return run;
}

// A clean line in each window mode carries a batch of awkward sizes whole,
// with its times.  Bit errors, dropped bytes and stalls: a run may fail, but
// only with a defined code and within its limits; a file counted as received
// is always the exact file.  The ends run in turns on a simulated clock, so
// each seed's run is the same every time: the number of complete runs per
// row is exact (ZRPOS recovery carries every run through where the noise is
// light; at 1e-4 a damaged ZRPOS or final ZACK may leave both ends waiting
// until the silence limit), and a change in it is a change in behaviour.
TEST(ZmodemLinkPair, EveryRunEndsWithTheExactFilesOrADefinedFailure) {
    Batch clean;
    for (std::size_t size : {0u, 1u, 1023u, 1024u, 1025u, 70000u, 300001u})
        clean.push_back(RandomBytes(size, size + 1));
    struct Case {
        double bitErrors;
        bool lossy; // dropped bytes and stalls on a serial line
        std::vector<int32_t> words;
        uint64_t runs;
        int completed; // runs that carry every file whole, with its time
    } const cases[] = {{0, false, {}, 1, 1},
                       {0, false, {XferOptZmNoWindow}, 1, 1},
                       {0, false, {XferOptZmWindowSize, 5000}, 1, 1},
                       {0, false, {XferOptZmWindowSize, 1024}, 1, 1},
                       {1e-5, false, {}, 4, 4},
                       {1e-5, false, {XferOptZmNoWindow}, 4, 4},
                       {1e-4, false, {}, 4, 3},
                       {1e-4, false, {XferOptZmNoWindow}, 4, 3},
                       {0, true, {}, 4, 4}};
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases); // the row
        host::LinkConfig config;
        config.deadlineMs = 120000;
        for (host::LineConfig *line : {&config.aToB, &config.bToA}) {
            line->bitErrorRate = c.bitErrors;
            if (!c.lossy) continue;
            line->bytesPerSecond = 11520;
            line->latencyMs = 5;
            line->dropRate = 2e-5;
            line->stallEveryBytes = 60000;
            line->stallMs = 3000;
        }
        const Batch batch = c.runs == 1 ? clean
                                        : Batch{RandomBytes(c.bitErrors > 5e-5 ? 20000 : 150000, 7),
                                                RandomBytes(3000, 8)};
        const int n = static_cast<int>(batch.size());
        int completed = 0;
        for (config.seed = 1; config.seed <= c.runs; ++config.seed) {
            SCOPED_TRACE(config.seed);
            const Outcome run = Transfer(batch, config, c.words);
            const auto [a, b, timedOut] = run.result;
            ASSERT_FALSE(timedOut);
            // Never a file reported good that differs; failures with defined codes.
            EXPECT_TRUE(b >= 0 ? run.exact == b : DefinedFailure(b)) << b << " " << run.exact;
            EXPECT_TRUE(a >= 0 || DefinedFailure(a)) << a;
            completed += a == n && b == n && run.timesKept == n;
        }
        EXPECT_EQ(completed, c.completed);
    }
}

} // namespace
} // namespace zvxfer::zm
