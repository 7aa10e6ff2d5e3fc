// The program's verdict on a Kermit exchange from the packets it saw: whole
// batches, error packets from either end, discarded and missing files,
// noise, resent packets, and packets cut anywhere by the line's reads.
#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "../kermit/wire.h"
#include "kermit_watch.h"

namespace zvxfer::cli {
namespace {

using Bytes = std::vector<uint8_t>;

// A packet as a Kermit program puts it on the line, with check type `check`.
Bytes Packet(char type, int seq, const std::string &data, int check) {
    const std::string p = wire::Frame(type, seq, data, check);
    return Bytes(p.begin(), p.end());
}

// A send-init string asking for block-check type `check`.
std::string Init(char check) {
    return std::string("~* @-#Y") + check + "~*";
}

// One exchange seen from this end: who sent each packet, and which check
// type it carries.
struct Step {
    bool ours;
    char type;
    int seq;
    std::string data;
    int check;
};

struct Exchange {
    const char *what;
    bool sending;
    int names;
    std::vector<Step> steps;
    bool ok;
    int files;
    const char *why; // a part of the reason, when not ok
};

KermitWatch Watch(const Exchange &e, std::size_t piece) {
    KermitWatch watch(e.sending);
    for (const Step &s : e.steps) {
        const Bytes bytes = Packet(s.type, s.seq, s.data, s.check);
        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            const std::size_t n = std::min(piece, bytes.size() - at);
            if (s.ours)
                watch.Written(bytes.data() + at, n);
            else
                watch.Read(bytes.data() + at, n);
        }
    }
    return watch;
}

const std::string kLong(3000, 'x');

// A send of one file, from this end (the packets we write are ours).
std::vector<Step> OneFileSent(int check) {
    return {
        {true, 'S', 0, Init('3'), 1},   {false, 'Y', 0, Init(static_cast<char>('0' + check)), 1},
        {true, 'F', 1, "A.TXT", check}, {false, 'Y', 1, "", check},
        {true, 'D', 2, "hello", check}, {false, 'Y', 2, "", check},
        {true, 'Z', 3, "", check},      {false, 'Y', 3, "", check},
        {true, 'B', 4, "", check},      {false, 'Y', 4, "", check}};
}

// The same exchange seen by the receiving end.
std::vector<Step> Mirrored(std::vector<Step> steps) {
    for (Step &s : steps) s.ours = !s.ours;
    return steps;
}

std::vector<Step> With(std::vector<Step> steps, std::size_t at, std::vector<Step> more) {
    steps.insert(steps.begin() + static_cast<long>(at), more.begin(), more.end());
    return steps;
}

std::vector<Step> Cut(std::vector<Step> steps, std::size_t keep) {
    steps.resize(keep);
    return steps;
}

TEST(KermitWatch, JudgesExchanges) {
    const std::vector<Exchange> cases{
        {"clean send, CRC", true, 1, OneFileSent(3), true, 1, ""},
        {"clean send, type 1 agreed", true, 1, OneFileSent(1), true, 1, ""},
        {"clean receive", false, 0, Mirrored(OneFileSent(3)), true, 1, ""},
        {"long data packets", true, 1,
         With(OneFileSent(3), 6, {{true, 'D', 3, kLong, 3}, {false, 'Y', 3, "", 3}}), true, 1, ""},
        {"resent F and Z are one file", true, 1,
         With(With(OneFileSent(3), 7, {{true, 'Z', 3, "", 3}}), 3, {{true, 'F', 1, "A.TXT", 3}}),
         true, 1, ""},
        {"peer's E midway, its text escaped", true, 1,
         With(Cut(OneFileSent(3), 5), 5, {{false, 'E', 2, "Disk full\x1b[2J", 3}}), false, 0,
         "the other end stopped with the error: Disk full\\x1b[2J"},
        {"our own E", false, 0,
         With(Cut(Mirrored(OneFileSent(3)), 5), 5, {{true, 'E', 3, "Too many retries", 3}}), false,
         0, "stopped with the error: Too many retries"},
        {"file discarded", true, 1,
         [] {
             auto s = OneFileSent(3);
             s[6].data = "D";
             return s;
         }(),
         false, 0, "1 file discarded"},
        {"batch never acknowledged", true, 1, Cut(OneFileSent(3), 9), false, 1,
         "before the end of the batch"},
        {"line went quiet mid-file", false, 0, Cut(Mirrored(OneFileSent(3)), 6), false, 0,
         "before the end of the batch"},
        {"a name passed over", true, 2, OneFileSent(3), false, 1, "1 of 2 files sent"},
        {"second file ended by B without Z", true, 2,
         [] {
             auto s = With(OneFileSent(3), 8, {{true, 'F', 4, "B.TXT", 3}, {false, 'Y', 4, "", 3}});
             s[10].seq = s[11].seq = 5; // B and its answer
             return s;
         }(),
         false, 1, "1 file not finished"},
        {"empty batch",
         true,
         1,
         {{true, 'S', 0, Init('3'), 1},
          {false, 'Y', 0, Init('3'), 1},
          {true, 'B', 1, "", 3},
          {false, 'Y', 1, "", 3}},
         false,
         0,
         "no file was sent"},
        {"damaged E from the peer means nothing", true, 1,
         With(OneFileSent(3), 5, {{false, 'E', 2, "noise", 1}}), true, 1, ""},
        {"check type 2 answered: type 1 for the rest", false, 0,
         [] {
             auto s = Mirrored(OneFileSent(1));
             s[0].data = Init('2');
             s[1].data = Init('1');
             return s;
         }(),
         true, 1, ""},
    };
    for (const Exchange &e : cases)
        for (std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{100000}}) {
            SCOPED_TRACE(std::string(e.what) + ", read " + std::to_string(piece) + " at a time");
            const KermitWatch::Verdict v = Watch(e, piece).Judge(e.names);
            EXPECT_EQ(v.ok, e.ok) << v.why;
            EXPECT_EQ(v.files, e.files);
            if (!e.ok) {
                EXPECT_NE(v.why.find(e.why), std::string::npos) << v.why;
            }
        }
}

TEST(KermitWatch, AgreesOnTheCheckTypeLikeTheEngine) {
    struct Agreement {
        char asked, answered;
        int used;
    };
    for (const Agreement a :
         {Agreement{'3', '3', 3}, Agreement{'3', '1', 1}, Agreement{'3', '2', 1},
          Agreement{'2', '2', 2}, Agreement{'3', 'B', 1}}) {
        KermitWatch watch(false);
        const Bytes s = Packet('S', 0, Init(a.asked), 1), y = Packet('Y', 0, Init(a.answered), 1);
        watch.Read(s.data(), s.size());
        watch.Written(y.data(), y.size());
        EXPECT_EQ(watch.CheckType(), a.used) << a.asked << a.answered;
    }
}

// Junk between packets, a MARK that starts no packet, a packet cut short
// by a control byte, a stray MARK right before the packet's own: only
// whole, checked packets count.
TEST(KermitWatch, FindsPacketsAmidNoise) {
    KermitWatch watch(true);
    const std::vector<Step> steps = OneFileSent(3);
    for (const Step &s : steps) {
        const Bytes junk{0x01, 0x01, '!', 'x', 0x01, 0x05, 0xFF, '\r', 0x01};
        const Bytes p = Packet(s.type, s.seq, s.data, s.check);
        Bytes line = junk;
        line.insert(line.end(), p.begin(), p.end());
        if (s.ours)
            watch.Written(line.data(), line.size());
        else
            watch.Read(line.data(), line.size());
    }
    const KermitWatch::Verdict v = watch.Judge(1);
    EXPECT_TRUE(v.ok) << v.why;
    EXPECT_EQ(watch.FilesStarted(), 1);
    EXPECT_EQ(watch.FilesCompleted(), 1);
    EXPECT_TRUE(watch.BatchEnded());
}

} // namespace
} // namespace zvxfer::cli
