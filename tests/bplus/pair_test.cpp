// The zvxfer program's B+ terminal session against the B+ service of the
// host library on a simulated line: downloads and uploads, every check
// method, resume, empty files, failures from either side, the refusal of
// uploads the user did not offer, and noise.  A transfer either arrives
// byte for byte or ends with a defined code; with a CRC no damaged file is
// ever reported good.
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

// A file compared without printing its bytes.
testing::AssertionResult Holds(const std::string &path, const std::string &data) {
    if (!fs::exists(path)) return testing::AssertionFailure() << path << " missing";
    const std::string got = Read(path);
    if (got == data) return testing::AssertionSuccess();
    std::size_t at = 0;
    while (at < got.size() && at < data.size() && got[at] == data[at]) ++at;
    return testing::AssertionFailure() << path << ": " << got.size() << " bytes, expected "
                                       << data.size() << ", first difference at " << at;
}

struct PairSetup {
    std::vector<host::ServiceRequest> requests;
    host::BPlusServiceConfig service;
    BPlusTerminalSettings terminal;
    double ber = 0;
    double drops = 0;
    uint64_t seed = 1;
};

struct PairRun {
    std::vector<host::RequestReport> service;
    BPlusSessionOutcome terminal;
};

// Service on end A, terminal on end B; the terminal's downloads land in
// `down`, the service's uploads in `up`.
PairRun RunPair(PairSetup setup, const std::string &down, const std::string &up) {
    host::LinkConfig config;
    for (host::LineConfig *line : {&config.aToB, &config.bToA}) {
        line->bitErrorRate = setup.ber;
        line->dropRate = setup.drops;
    }
    config.seed = setup.seed;
    config.b.receiveFolder = down;
    config.b.policy = XFER_EXISTING_RENAME;
    config.hangUpOnExit = true;
    config.deadlineMs = 100000;
    setup.service.folder = up;
    if (setup.service.readTimeoutMs == 10000) setup.service.readTimeoutMs = 1500;
    if (setup.terminal.quietMs == 5000) setup.terminal.quietMs = 1500;
    PairRun run;
    Reporter reporter(Verbosity::Quiet, false);
    host::LinkPair link(config);
    const host::LinkResult result = link.Run(
        [&](XferPort *port) {
            host::PortServiceLine line(port);
            host::BPlusService service(line, setup.service);
            run.service = service.Run(setup.requests);
            return 0;
        },
        [&](XferPort *port) {
            run.terminal = RunBPlusSession(port, setup.terminal, reporter, {});
            return 0;
        });
    EXPECT_FALSE(result.timedOut);
    return run;
}

host::ServiceRequest Download(const std::string &path) {
    host::ServiceRequest r;
    r.path = path;
    return r;
}

host::ServiceRequest Upload(const std::string &name) {
    host::ServiceRequest r;
    r.kind = host::ServiceRequest::Upload;
    r.path = name;
    return r;
}

class BPlusPair : public testing::Test {
  protected:
    test::TempTree tree;
    std::string down = tree.Dir("down") + "/";
    std::string up = tree.Dir("up") + "/";
};

// ------------------------------------------------------------ clean line

// Every check method, both directions, a file of several packets and an
// empty one: the check the terminal asks for is the one used (the service
// offers CRC-32, the lower of the two wins).
TEST_F(BPlusPair, EveryCheckMethodBothDirections) {
    const std::string data = Random(5000, 7);
    const std::string file = tree.File("src/data.bin", data);
    const std::string empty = tree.File("src/empty.bin", "");
    for (int method = 0; method <= 3; ++method) {
        SCOPED_TRACE("check method " + std::to_string(method));
        fs::remove_all(down);
        fs::remove_all(up);
        fs::create_directories(down);
        fs::create_directories(up);
        PairSetup setup;
        setup.service.checkMethod = 3;
        setup.terminal.checkMethod = method;
        setup.terminal.offered = {file, empty};
        setup.requests = {Download(file), Download(empty), Upload("data.bin"), Upload("empty.bin")};
        const PairRun run = RunPair(setup, down, up);
        ASSERT_EQ(run.service.size(), 4u);
        for (const host::RequestReport &r : run.service) {
            EXPECT_TRUE(r.ok) << r.request.path << ": " << r.why;
            EXPECT_EQ(r.checkMethod, method);
        }
        ASSERT_EQ(run.terminal.requests.size(), 4u);
        for (const BPlusRequestOutcome &r : run.terminal.requests) EXPECT_EQ(r.result, 1) << r.name;
        EXPECT_TRUE(run.terminal.requests[2].upload);
        EXPECT_FALSE(run.terminal.requests[0].upload);
        EXPECT_TRUE(Holds(down + "data.bin", data));
        EXPECT_TRUE(fs::exists(down + "empty.bin"));
        EXPECT_EQ(fs::file_size(down + "empty.bin"), 0u);
        EXPECT_TRUE(Holds(up + "data.bin", data));
        EXPECT_EQ(fs::file_size(up + "empty.bin"), 0u);
        EXPECT_EQ(ReportBPlusSession(run.terminal, setup.terminal, Verbosity::Quiet), 0);
    }
}

// ------------------------------------------------------------ resume

// A partial file continues where it ends when the terminal resumes and the
// partial bytes are right; a wrong partial file makes the service restart
// it; without --resume an existing file is left alone and the download
// takes a free name.
TEST_F(BPlusPair, ResumeContinuesOrRestarts) {
    const std::string data = Random(9000, 11);
    const std::string file = tree.File("src/r.bin", data);
    struct Case {
        const char *name;
        bool resume;
        std::string partial;
        bool restarted;
        int64_t point;
    };
    std::string wrong = data.substr(0, 3000);
    wrong[1234] ^= 0x40;
    const Case cases[] = {
        {"matching partial", true, data.substr(0, 3000), false, 3000},
        {"damaged partial", true, wrong, true, 3000},
        {"no partial", true, "", false, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(down);
        fs::create_directories(down);
        if (c.point > 0 || !c.partial.empty())
            std::ofstream(down + "r.bin", std::ios::binary) << c.partial;
        PairSetup setup;
        setup.service.downloadResume = 1;
        setup.terminal.resume = c.resume;
        setup.requests = {Download(file)};
        const PairRun run = RunPair(setup, down, up);
        ASSERT_EQ(run.service.size(), 1u);
        EXPECT_TRUE(run.service[0].ok) << run.service[0].why;
        EXPECT_EQ(run.service[0].resumePoint, c.point);
        EXPECT_EQ(run.service[0].restarted, c.restarted);
        // The file the terminal wrote (a restart may open a free name).
        ASSERT_EQ(run.terminal.requests.size(), 1u);
        EXPECT_TRUE(Holds(run.terminal.requests[0].name, data));
        if (!c.restarted) {
            EXPECT_EQ(run.terminal.requests[0].name, down + "r.bin");
        }
    }

    // Without resuming, the old file stays and the copy gets a free name.
    fs::remove_all(down);
    fs::create_directories(down);
    std::ofstream(down + "r.bin", std::ios::binary) << "old";
    PairSetup setup;
    setup.service.downloadResume = 1;
    setup.requests = {Download(file)};
    const PairRun run = RunPair(setup, down, up);
    ASSERT_EQ(run.service.size(), 1u);
    EXPECT_TRUE(run.service[0].ok);
    EXPECT_EQ(run.service[0].resumePoint, -1);
    EXPECT_EQ(Read(down + "r.bin"), "old");
    std::size_t copies = 0;
    for (const auto &entry : fs::directory_iterator(down))
        if (Read(entry.path().string()) == data) ++copies;
    EXPECT_EQ(copies, 1u);
}

// ------------------------------------------------------------ failures

// The service fails a download midway: the terminal reports the request
// failed, with the service's notice, and the exit status says so.
TEST_F(BPlusPair, ServiceFailureIsReported) {
    const std::string file = tree.File("src/f.bin", Random(6000, 3));
    PairSetup setup;
    setup.service.blockSize = 1;
    setup.service.faults = {{host::ServiceFault::FailAt, 3, 'A'}};
    setup.requests = {Download(file)};
    const PairRun run = RunPair(setup, down, up);
    ASSERT_EQ(run.service.size(), 1u);
    EXPECT_FALSE(run.service[0].ok);
    ASSERT_EQ(run.terminal.requests.size(), 1u);
    EXPECT_LT(run.terminal.requests[0].result, 0);
    EXPECT_NE(run.terminal.requests[0].notice.find("The service reported a failure"),
              std::string::npos)
        << run.terminal.requests[0].notice;
    EXPECT_EQ(ReportBPlusSession(run.terminal, setup.terminal, Verbosity::Quiet), 1);
}

// Upload requests for anything the user did not offer are refused with a
// failure packet: another name, an absolute path, a way out of the folder,
// the offered name under another folder.  Nothing of the file travels and
// the program's status says the session failed.  (After its failure packet
// the engine waits for the service to give up, so one request a session.)
TEST_F(BPlusPair, UploadOnlyWhatWasOffered) {
    const std::string offered = tree.File("src/offered.txt", "fine to send");
    const std::string secret = tree.File("src/secret.txt", "do not send");
    const std::vector<std::string> refused = {"secret.txt", secret, "../src/secret.txt",
                                              "sub/../offered.txt", "other/offered.txt"};
    for (const std::string &name : refused) {
        SCOPED_TRACE(name);
        PairSetup setup;
        setup.terminal.offered = {offered};
        host::ServiceRequest request = Upload("stored.txt");
        request.remoteName = name;
        setup.requests = {request};
        const PairRun run = RunPair(setup, down, up);
        ASSERT_EQ(run.service.size(), 1u);
        EXPECT_FALSE(run.service[0].ok);
        EXPECT_EQ(run.service[0].failureCode, 'M');
        EXPECT_EQ(run.service[0].bytes, 0u);
        EXPECT_EQ(Read(up + "stored.txt"), "");
        ASSERT_EQ(run.terminal.requests.size(), 1u);
        EXPECT_EQ(run.terminal.requests[0].name, name);
        EXPECT_FALSE(run.terminal.requests[0].refused.empty());
        EXPECT_EQ(ReportBPlusSession(run.terminal, setup.terminal, Verbosity::Quiet), 1);
    }
}

TEST(BPlusUploadPath, Table) {
    const std::vector<std::string> offered = {"/home/u/a.txt", "docs/b.txt", "c.txt",
                                              "../up/e.txt"};
    struct Case {
        const char *asked;
        const char *path; // "" refused
    };
    const Case cases[] = {
        {"a.txt", "/home/u/a.txt"},
        {"b.txt", "docs/b.txt"},
        {"docs/b.txt", "docs/b.txt"},
        {"c.txt", "c.txt"},
        {"/home/u/a.txt", ""},
        {"home/u/a.txt", ""},
        {"..", ""},
        {"../c.txt", ""},
        {"docs/../c.txt", ""},
        {"docs\\..\\c.txt", ""},
        {"\\c.txt", ""},
        {"d.txt", ""},
        {"", ""},
        {"A.TXT", ""},
        // Offered, but a name with ".." is never served as it stands.
        {"e.txt", "../up/e.txt"},
        {"../up/e.txt", ""},
    };
    for (const Case &c : cases) {
        std::string why;
        EXPECT_EQ(UploadPath(c.asked, offered, why), c.path) << c.asked;
        EXPECT_EQ(why.empty(), *c.path != '\0') << c.asked;
    }
}

TEST(BPlusOptionWords, AsTheCommandLineSays) {
    BPlusTerminalSettings s;
    EXPECT_EQ(BPlusOptionWords(s), (std::vector<int32_t>{1024, 3, 0}));
    s.checkMethod = 1;
    s.fileInfo = true;
    s.resume = true;
    EXPECT_EQ(BPlusOptionWords(s), (std::vector<int32_t>{1024, 1, 1025, 1026, 0}));
}

// ------------------------------------------------------------ noise

// Bit errors and dropped bytes both ways, for every check method and both
// directions: each transfer arrives exactly or ends with a defined code;
// with a CRC none that differs is reported good.  (The 8-bit checksum's
// misses are counted by the benchmark, not here.)
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
    int good = 0;
    for (double ber : {1e-5, 1e-4}) {
        for (int method = 1; method <= 3; ++method) {
            for (uint64_t seed = 1; seed <= 2; ++seed) {
                SCOPED_TRACE(testing::Message()
                             << "ber " << ber << " method " << method << " seed " << seed);
                fs::remove_all(down);
                fs::remove_all(up);
                fs::create_directories(down);
                fs::create_directories(up);
                PairSetup setup;
                setup.ber = ber;
                setup.drops = ber / 4;
                setup.seed = seed;
                setup.service.checkMethod = 3;
                setup.service.blockSize = 2;
                setup.terminal.checkMethod = method;
                setup.terminal.offered = {file};
                setup.requests = {Download(file), Upload("n.bin")};
                const PairRun run = RunPair(setup, down, up);
                for (const BPlusRequestOutcome &r : run.terminal.requests) {
                    EXPECT_NE(std::find(std::begin(known), std::end(known), r.result),
                              std::end(known))
                        << r.result;
                    if (r.result == 1 && !r.upload) {
                        EXPECT_TRUE(Holds(down + "n.bin", data)) << "download reported good";
                        ++good;
                    }
                }
                for (const host::RequestReport &r : run.service)
                    if (r.ok && r.request.kind == host::ServiceRequest::Upload) {
                        EXPECT_TRUE(Holds(up + "n.bin", data)) << "upload reported good";
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
