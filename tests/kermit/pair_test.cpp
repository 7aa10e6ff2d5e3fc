// Kermit against itself over the link simulator: batches on a clean line
// (empty, large, every byte value, text mode, through the generic entries
// too), and noisy and lossy lines where every run ends by itself, each file
// that is kept is the exact file, and nothing else is left in the folder.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "link_files.h"
#include "link_pair.h"
#include "temp_tree.h"
#include "turns.h"
#include "zvxfer.h"

namespace zvxfer::kermit {
namespace {

namespace fs = std::filesystem;
using namespace test;
using Batch = std::vector<FileBytes>;

struct Outcome {
    host::LinkResult result;
    int exact = 0;     // files received equal to what was expected
    int wrong = 0;     // files kept that differ: never allowed
    int strangers = 0; // anything else left in the folder: never allowed
};

enum class Route { Entries, Generic };

// The end (1 the sender, 0 the receiver) whose user stops the transfer once
// its file is past 100000 bytes; -1: nobody stops.
std::atomic<int> gStoppingEnd{-1};
int32_t StopPartWay(XferRecord *r) {
    return r->Sending == gStoppingEnd && r->FilePos > 100000 ? XferErrUserAbort : 0;
}

// The bytes the receiver keeps for a file sent in text mode: every LF goes
// out as CR LF, and a receiver on a system like ours keeps the CR.
FileBytes AsText(const FileBytes &data) {
    FileBytes out;
    for (char c : data) {
        if (c == '\n') out.push_back('\r');
        out.push_back(c);
    }
    return out;
}

Outcome Transfer(const Batch &batch, host::LinkConfig config, bool text = false,
                 Route route = Route::Entries) {
    TempTree tree;
    std::string names;
    for (std::size_t i = 0; i < batch.size(); ++i)
        names +=
            "\"" +
            tree.File("out/f" + std::to_string(i), std::string(batch[i].begin(), batch[i].end())) +
            "\"";
    fs::create_directories(tree.Path("in"));
    config.b.receiveFolder = tree.Path("in/");
    const int32_t mode = text ? XferOptKermitTextMode : XferOptNone;
    Outcome run;
    Turns turns(config);
    run.result = turns.Run(
        [&](XferPort *port) {
            port->Hooks->AbortFunction = &StopPartWay; // one hook record for both ends
            if (route == Route::Generic) {
                const int32_t list[] = {mode, 0};
                return CLFileSend(port, Kermit, names.data(), 0, 0, CLSetFileTransferOptions(list),
                                  nullptr, nullptr);
            }
            return KermitSendWithOptions(port, names.data(), nullptr, nullptr, mode, 0);
        },
        [&](XferPort *port) {
            if (route == Route::Generic) {
                const int32_t list[] = {mode, 0};
                return CLFileReceive(port, Kermit, nullptr, 0, CLSetFileTransferOptions(list),
                                     nullptr, nullptr);
            }
            return KermitReceiveWithOptions(port, nullptr, nullptr, mode, 0);
        });
    for (const auto &entry : fs::directory_iterator(tree.Path("in"))) {
        const std::string name = entry.path().filename().string();
        std::size_t i = batch.size();
        if (name.size() > 1 && name[0] == 'f' &&
            name.find_first_not_of("0123456789", 1) == std::string::npos)
            i = std::stoul(name.substr(1));
        if (i >= batch.size() || !entry.is_regular_file()) {
            ++run.strangers;
            continue;
        }
        const FileBytes want = text ? AsText(batch[i]) : batch[i];
        ++(ReadFileBytes(entry.path().string()) == want ? run.exact : run.wrong);
    }
    return run;
}

FileBytes AllByteValues(int rounds) {
    FileBytes data;
    for (int r = 0; r < rounds; ++r)
        for (int b = 0; b < 256; ++b) data.push_back(static_cast<char>(r % 2 ? 255 - b : b));
    // Runs long enough for repeat counts, of controls and high bytes.
    data.insert(data.end(), 300, '\x01');
    data.insert(data.end(), 200, '\xff');
    data.insert(data.end(), 2, '~');
    data.insert(data.end(), 150, '#');
    return data;
}

TEST(KermitLinkPair, CleanLineCarriesEveryFileWhole) {
    const Batch batch = {
        {}, RandomBytes(1, 2), AllByteValues(8), RandomBytes(4 << 20, 3), RandomBytes(4001, 4)};
    host::LinkConfig config;
    config.deadlineMs = 120000;
    const Outcome run = Transfer(batch, config);
    EXPECT_FALSE(run.result.timedOut);
    EXPECT_EQ(run.result.a, 0);
    EXPECT_EQ(run.result.b, 0);
    EXPECT_EQ(run.exact, static_cast<int>(batch.size()));
    EXPECT_EQ(run.wrong + run.strangers, 0);
}

// A user's stop on either end ends the batch with both entries returning
// 0, and neither the file under way nor the rest of the batch is kept.
TEST(KermitLinkPair, AStopOnEitherEndKeepsNoPartOfTheBatch) {
    const Batch batch = {RandomBytes(1 << 20, 11), RandomBytes(5000, 12)};
    for (int end : {1, 0}) {
        SCOPED_TRACE(end == 1 ? "sender stops" : "receiver stops");
        gStoppingEnd = end;
        host::LinkConfig config;
        config.deadlineMs = 60000;
        const Outcome run = Transfer(batch, config);
        gStoppingEnd = -1;
        EXPECT_FALSE(run.result.timedOut);
        EXPECT_EQ(run.result.a, 0);
        EXPECT_EQ(run.result.b, 0);
        EXPECT_EQ(run.exact + run.wrong + run.strangers, 0);
    }
}

TEST(KermitLinkPair, TextModeSendsLineEndsAsCrLfThroughEitherRoute) {
    const std::string lines = "first line\nsecond\n\nlast without end";
    const std::string longLine(9000, 'x');
    const Batch batch = {
        FileBytes(lines.begin(), lines.end()), {}, FileBytes(longLine.begin(), longLine.end())};
    for (Route route : {Route::Entries, Route::Generic}) {
        SCOPED_TRACE(route == Route::Entries ? "entries" : "generic");
        host::LinkConfig config;
        config.deadlineMs = 60000;
        const Outcome text = Transfer(batch, config, true, route);
        EXPECT_FALSE(text.result.timedOut);
        EXPECT_EQ(text.exact, 3);
        EXPECT_EQ(text.wrong + text.strangers, 0);
        // Without the option the same files arrive unchanged.
        const Outcome binary =
            Transfer({FileBytes(lines.begin(), lines.end())}, config, false, route);
        EXPECT_EQ(binary.exact, 1);
    }
}

// Bit errors and dropped bytes: a run may lose files, but it always ends by
// itself, a file that is kept is always the exact file and nothing
// incomplete stays behind.  The ends run in turns on a simulated clock, so
// each seed's run is the same every time.
TEST(KermitLinkPair, NoisyLinesNeverKeepAWrongFile) {
    const Batch large = {RandomBytes(60000, 7), {}, AllByteValues(4), RandomBytes(3000, 8)};
    // Every packet is long (up to 4000 characters) whatever the line, so
    // at 1e-4 most of them are damaged: small files keep some runs whole.
    const Batch small = {RandomBytes(900, 9), {}, RandomBytes(400, 10)};
    const struct Case {
        double bitErrors;
        bool lossy; // dropped bytes on a slow line with latency
        const Batch &batch;
        uint64_t runs;
        int mostlyWhole; // at least this many runs carry every file
    } cases[] = {{1e-5, false, large, 4, 3},
                 {1e-4, false, large, 2, 0},
                 {1e-4, false, small, 6, 4},
                 {0, true, large, 4, 3},
                 {1e-5, true, large, 2, 1}};
    int runsWithLosses = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        host::LinkConfig config;
        config.deadlineMs = 120000;
        for (host::LineConfig *line : {&config.aToB, &config.bToA}) {
            line->bitErrorRate = c.bitErrors;
            if (!c.lossy) continue;
            line->bytesPerSecond = 11520;
            line->latencyMs = 5;
            line->dropRate = 5e-5;
        }
        const Batch &batch = c.batch;
        const int n = static_cast<int>(batch.size());
        int whole = 0;
        for (config.seed = 1; config.seed <= c.runs; ++config.seed) {
            SCOPED_TRACE(config.seed);
            const Outcome run = Transfer(batch, config);
            ASSERT_FALSE(run.result.timedOut);
            EXPECT_EQ(run.result.a, 0);
            EXPECT_EQ(run.result.b, 0);
            EXPECT_EQ(run.wrong, 0) << "a kept file differs";
            EXPECT_EQ(run.strangers, 0) << "something incomplete stayed";
            whole += run.exact == n;
            runsWithLosses += run.exact < n;
        }
        EXPECT_GE(whole, c.mostlyWhole);
    }
    // The heaviest noise must really have cost files, or the rows above
    // tested nothing but clean runs.
    EXPECT_GT(runsWithLosses, 0);
}

} // namespace
} // namespace zvxfer::kermit
