// The zvxfer program's B+ terminal session against the B+ service of the
// host library on a simulated line: both directions under every check
// method, resume, the names an upload request may ask for, and noise: a
// transfer either arrives byte for byte or ends with a defined code, and
// with a CRC no damaged file is ever reported good.  (Failures and refused
// uploads through the program: tests/cli/bplus_checks.py.)
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "bplus_service.h"
#include "bplus_terminal.h"
#include "link_pair.h"
#include "temp_tree.h"

namespace zvxfer::cli {
namespace {

namespace fs = std::filesystem;

std::string Random(std::size_t size, uint32_t seed) {
    std::mt19937 gen(seed);
    std::string s(size, '\0');
    for (char &c : s) c = static_cast<char>(gen() & 0xFF);
    return s;
}

std::string Read(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

host::ServiceRequest Request(const std::string &path, bool upload = false) {
    host::ServiceRequest r;
    r.kind = upload ? host::ServiceRequest::Upload : host::ServiceRequest::Download;
    r.path = path;
    return r;
}

struct PairRun {
    std::vector<host::RequestReport> service;
    BPlusSessionOutcome terminal;
    int status = -1; // the program's exit status for the session
};

class BPlusPair : public testing::Test {
  protected:
    // Service on end A, terminal on end B, on a line with the given noise;
    // the terminal's downloads land in `down`, the service's uploads in
    // `up`, both emptied first unless `keep`.
    PairRun Run(const std::vector<host::ServiceRequest> &requests, double ber = 0,
                uint64_t seed = 1, bool keep = false) {
        for (const std::string &d : {down, up}) {
            if (!keep) fs::remove_all(d);
            fs::create_directories(d);
        }
        host::LinkConfig config;
        for (host::LineConfig *line : {&config.aToB, &config.bToA}) {
            line->bitErrorRate = ber;
            line->dropRate = ber / 4;
        }
        config.seed = seed;
        config.b.receiveFolder = down;
        config.b.policy = XFER_EXISTING_RENAME;
        config.hangUpOnExit = true;
        config.deadlineMs = 100000;
        service.folder = up;
        service.readTimeoutMs = 1500;
        terminal.quietMs = 1500;
        PairRun run;
        Reporter reporter(Verbosity::Quiet, false);
        host::LinkPair link(config);
        EXPECT_FALSE(link.Run(
                             [&](XferPort *port) {
                                 host::PortServiceLine line(port);
                                 host::BPlusService bplus(line, service);
                                 run.service = bplus.Run(requests);
                                 return 0;
                             },
                             [&](XferPort *port) {
                                 run.terminal = RunBPlusSession(port, terminal, reporter, {});
                                 return 0;
                             })
                         .timedOut);
        run.status = ReportBPlusSession(run.terminal, terminal, Verbosity::Quiet);
        return run;
    }

    test::TempTree tree;
    std::string down = tree.Dir("down") + "/";
    std::string up = tree.Dir("up") + "/";
    host::BPlusServiceConfig service;
    BPlusTerminalSettings terminal;
};

// Every check method, both directions, a file of several packets and an
// empty one: the check the terminal asks for is the one used (the service
// offers CRC-32, the lower of the two wins).
TEST_F(BPlusPair, EveryCheckMethodBothDirections) {
    const std::string data = Random(5000, 7);
    const std::string file = tree.File("src/data.bin", data);
    const std::string empty = tree.File("src/empty.bin", "");
    service.checkMethod = 3;
    terminal.offered = {file, empty};
    for (int method = 0; method <= 3; ++method) {
        SCOPED_TRACE(method);
        terminal.checkMethod = method;
        const PairRun run = Run(
            {Request(file), Request(empty), Request("data.bin", true), Request("empty.bin", true)});
        ASSERT_EQ(run.service.size(), 4u);
        for (const host::RequestReport &r : run.service) {
            EXPECT_TRUE(r.ok) << r.request.path << ": " << r.why;
            EXPECT_EQ(r.checkMethod, method);
        }
        EXPECT_EQ(run.status, 0);
        EXPECT_TRUE(Read(down + "data.bin") == data);
        EXPECT_TRUE(Read(up + "data.bin") == data);
        EXPECT_TRUE(fs::exists(down + "empty.bin") && fs::file_size(down + "empty.bin") == 0);
        EXPECT_TRUE(fs::exists(up + "empty.bin") && fs::file_size(up + "empty.bin") == 0);
    }
}

// A partial file continues where it ends when the terminal resumes and the
// partial bytes are right; a wrong partial file makes the service restart
// it; without resume the old file stays and the copy takes a free name.
TEST_F(BPlusPair, ResumeContinuesOrRestarts) {
    const std::string data = Random(9000, 11);
    const std::string file = tree.File("src/r.bin", data);
    std::string wrong = data.substr(0, 3000);
    wrong[1234] ^= 0x40;
    const struct {
        bool resume;
        std::string partial;
        bool restarted;
        int64_t point;
    } cases[] = {{true, data.substr(0, 3000), false, 3000},
                 {true, wrong, true, 3000},
                 {false, "old", false, -1}};
    service.downloadResume = 1;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.partial.size());
        terminal.resume = c.resume;
        fs::remove_all(down);
        fs::create_directories(down);
        std::ofstream(down + "r.bin", std::ios::binary) << c.partial;
        const PairRun run = Run({Request(file)}, 0, 1, true);
        ASSERT_EQ(run.service.size(), 1u);
        EXPECT_TRUE(run.service[0].ok) << run.service[0].why;
        EXPECT_EQ(run.service[0].resumePoint, c.point);
        EXPECT_EQ(run.service[0].restarted, c.restarted);
        ASSERT_EQ(run.terminal.requests.size(), 1u);
        EXPECT_TRUE(Read(run.terminal.requests[0].name) == data);
        EXPECT_EQ(run.terminal.requests[0].name == down + "r.bin", c.resume && !c.restarted);
        if (!c.resume) {
            EXPECT_EQ(Read(down + "r.bin"), "old");
        }
    }
}

// Which asked names map to which offered files.
TEST(BPlusUploadPath, Table) {
    const std::vector<std::string> offered = {"/home/u/a.txt", "docs/b.txt", "c.txt",
                                              "../up/e.txt"};
    const std::pair<const char *, const char *> cases[] = {
        {"a.txt", "/home/u/a.txt"},
        {"b.txt", "docs/b.txt"},
        {"docs/b.txt", "docs/b.txt"},
        {"c.txt", "c.txt"},
        {"e.txt", "../up/e.txt"}, // offered: its base name is served
        {"/home/u/a.txt", ""},
        {"home/u/a.txt", ""},
        {"..", ""},
        {"docs/../c.txt", ""},
        {"docs\\..\\c.txt", ""},
        {"\\c.txt", ""},
        {"d.txt", ""},
        {"", ""},
        {"A.TXT", ""},
        {"../up/e.txt", ""}, // a name with ".." is never served as it stands
    };
    for (const auto &[asked, path] : cases) {
        std::string why;
        EXPECT_EQ(UploadPath(asked, offered, why), path) << asked;
        EXPECT_EQ(why.empty(), *path != '\0') << asked;
    }
}

// Bit errors and dropped bytes both ways, for each CRC method and both
// directions: each transfer arrives exactly or ends with a defined code,
// and none that differs is reported good.  (The checksum's misses are
// counted by bench/, not here.)
TEST_F(BPlusPair, NoiseNeverPassesDamageWithACrc) {
    const std::string data = Random(12000, 21);
    const std::string file = tree.File("src/n.bin", data);
    const int32_t known[] = {1,
                             XferErrTooManyErrors,
                             XferErrPacketTimeout,
                             XferErrCharTimeout,
                             XferErrLostCarrier,
                             XferErrUserAbort,
                             XferErrOpenFile,
                             XferErrBPlusSequence,
                             XferErrPacketSize,
                             XferErrProtocol,
                             XferErrGetChar};
    service.checkMethod = 3;
    service.blockSize = 2;
    terminal.offered = {file};
    int good = 0;
    for (double ber : {1e-5, 1e-4}) {
        for (int method = 1; method <= 3; ++method) {
            for (uint64_t seed = 1; seed <= 2; ++seed) {
                SCOPED_TRACE(testing::Message() << ber << " method " << method << " seed " << seed);
                terminal.checkMethod = method;
                const PairRun run = Run({Request(file), Request("n.bin", true)}, ber, seed);
                for (const BPlusRequestOutcome &r : run.terminal.requests) {
                    EXPECT_NE(std::find(std::begin(known), std::end(known), r.result),
                              std::end(known))
                        << r.result;
                    if (r.result == 1 && !r.upload) {
                        EXPECT_TRUE(Read(down + "n.bin") == data) << "download reported good";
                        ++good;
                    }
                }
                for (const host::RequestReport &r : run.service)
                    if (r.ok && r.request.kind == host::ServiceRequest::Upload) {
                        EXPECT_TRUE(Read(up + "n.bin") == data) << "upload reported good";
                        ++good;
                    }
            }
        }
    }
    // Most runs at these rates get through; a line that never lets a file
    // through would make this test say nothing.
    EXPECT_GT(good, 0);
}

} // namespace
} // namespace zvxfer::cli
