// A start seen by the terminal session, handed to the engine that answers
// it: the far end runs a real sender or receiver; our end reads the line
// as the session does, in odd-sized reads through the start detector, and
// on a start runs the matching engine on the same port with the bytes it
// needs put back in front of the line.  The file must arrive whole.
#include <cstring>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>
#include <string>

#include "bplus_service.h"
#include "link_pair.h"
#include "port_pushback.h"
#include "port_tap.h"
#include "temp_tree.h"
#include "term_detect.h"
#include "zvxfer.h"

namespace zvxfer::cli {
namespace {

std::string Slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

struct Case {
    const char *what;
    StartKind kind;
    bool putStartBack; // the engine reads the start itself
    std::function<int32_t(XferPort *, char *names)> farEnd;
    std::function<int32_t(XferPort *, char *names)> ourEngine;
    bool weSend;
};

TEST(TermHandoff, EngineTakesOverAfterTheStart) {
    const std::vector<Case> cases = {
        {"far ZMODEM sender", StartKind::ZmodemSender, false,
         [](XferPort *p, char *n) { return ZmodemSendWithOptions(p, n, nullptr, nullptr, 0); },
         [](XferPort *p, char *) { return ZmodemReceiveWithOptions(p, nullptr, nullptr, 0); },
         false},
        {"far ZMODEM receiver", StartKind::ZmodemReceiver, true,
         [](XferPort *p, char *) { return ZmodemReceiveWithOptions(p, nullptr, nullptr, 0); },
         [](XferPort *p, char *n) { return ZmodemSendWithOptions(p, n, nullptr, nullptr, 0); },
         true},
        {"far Kermit sender", StartKind::KermitSendInit, true,
         [](XferPort *p, char *n) { return KermitSendWithOptions(p, n, nullptr, nullptr, 0); },
         [](XferPort *p, char *) { return KermitReceiveWithOptions(p, nullptr, nullptr, 0); },
         false},
        {"B+ service download", StartKind::BPlusPacket, false,
         [](XferPort *p, char *n) {
             host::PortServiceLine line(p);
             host::BPlusService service(line, {});
             host::ServiceRequest download;
             download.path = std::string(n + 1, std::strlen(n) - 2); // without the quotes
             const auto reports = service.Run({download});
             return reports.size() == 1 && reports[0].ok ? 1 : -1;
         },
         [](XferPort *p, char *) { return CompuServeBPlusWithOptions(p, nullptr, nullptr, 0); },
         false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        test::TempTree tree;
        std::string content;
        for (int i = 0; i < 3000; ++i) content += static_cast<char>((i * 7919) % 256);
        const std::string source = tree.File("out/data.bin", content);
        tree.Dir("far");
        tree.Dir("ours");
        host::LinkConfig config;
        config.a.receiveFolder = tree.Folder() + "far/";
        config.b.receiveFolder = tree.Folder() + "ours/";
        config.deadlineMs = 60000;
        host::LinkPair link(config);
        std::string names = "\"" + source + "\"";
        std::string ourNames = names;

        std::optional<StartKind> found;
        std::string shown, handed, engineRead;
        std::size_t startSize = 0, handedAfter = 0, enquiries = 0;
        const host::LinkResult r = link.Run(
            [&](XferPort *port) { return c.farEnd(port, names.data()); },
            [&](XferPort *port) -> int32_t {
                StartDetector detector;
                uint8_t buffer[37];
                for (int reads = 0; reads < 4000; ++reads) {
                    port->Ops.ReadBuffer(port, buffer, sizeof buffer);
                    if (port->Count == 0) continue; // the read waited a little
                    auto out = detector.Feed(buffer, port->Count);
                    // The B+ service's ENQ is answered in terminal mode; the
                    // rest of the chunk is output again.
                    while (out.start == StartKind::BPlusEnquiry) {
                        shown.append(out.show.begin(), out.show.end());
                        enquiries += out.startBytes.size();
                        CompuServeBPlusRespond(port, 1);
                        const std::vector<uint8_t> rest = out.after;
                        out = detector.Feed(rest.data(), rest.size());
                    }
                    shown.append(out.show.begin(), out.show.end());
                    if (!out.start) continue;
                    found = out.start;
                    std::vector<uint8_t> back;
                    if (c.putStartBack) back = out.startBytes;
                    back.insert(back.end(), out.after.begin(), out.after.end());
                    handed.assign(back.begin(), back.end());
                    startSize = out.startBytes.size();
                    handedAfter = out.after.size();
                    PortPushback pushback(port, back);
                    // What the engine reads, put-back bytes first.
                    PortTap tap(port, [&](bool written, const uint8_t *data, std::size_t n) {
                        if (!written) engineRead.append(reinterpret_cast<const char *>(data), n);
                    });
                    return c.ourEngine(port, ourNames.data());
                }
                return -1;
            });
        EXPECT_FALSE(r.timedOut);
        ASSERT_TRUE(found);
        EXPECT_EQ(*found, c.kind);
        // Only the B+ service greets with ENQ, answered before its first packet.
        EXPECT_EQ(enquiries > 0, c.kind == StartKind::BPlusPacket);
        // The engine read the put-back bytes before anything from the line.
        EXPECT_FALSE(handed.empty());
        EXPECT_EQ(engineRead.substr(0, handed.size()), handed);
        // Every byte our end took from the line was read once: by the
        // session, or by the engine after what was put back.
        const uint64_t sessionRead = shown.size() + enquiries + startSize + handedAfter;
        EXPECT_EQ(link.Counters(host::LinkPair::AtoB).delivered,
                  sessionRead + engineRead.size() - handed.size());
        EXPECT_GE(r.a, 0);
        EXPECT_GE(r.b, 0);
        const std::string landed = tree.Folder() + (c.weSend ? "far/" : "ours/") + "data.bin";
        EXPECT_EQ(Slurp(landed), content);
    }
}

} // namespace
} // namespace zvxfer::cli
