// The send-init parameters: the string this side announces, how each field
// of the peer's string is read, and the protocol loop's transition table.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <ostream>
#include <string>

#include "kermit/engine.h"

namespace zvxfer::kermit {
namespace {

std::unique_ptr<KermitEngine> NewEngine() {
    return std::make_unique<KermitEngine>();
}

// The peer's init as a received packet's data field.
void Spar(KermitEngine &k, const std::string &init) {
    std::memcpy(k.rcvbuf + 4, init.data(), init.size());
    k.rcvbuf[4 + init.size()] = 0;
    k.rdata = k.rcvbuf + 4;
    k.rdlen = static_cast<int32_t>(init.size());
    k.spar(k.rdata);
}

char C(int x) {
    return static_cast<char>(x + 32);
}

// A full init, field by field: MAXL TIME NPAD PADC EOL QCTL QBIN CHKT REPT,
// the capability bytes, WINDO MAXLX1 MAXLX2, five ignored, the system id.
std::string Init(char chkt, char qbin, const std::string &capas, int longLength,
                 const std::string &sysid) {
    std::string s = {C(80), C(5), C(0), '@', C(13), '#', qbin, chkt, '~'};
    s += capas;
    s += {C(1), C(longLength / 95), C(longLength % 95), '0', '_', '_', '_', C(0)};
    s += C(static_cast<int>(sysid.size()));
    s += sysid;
    return s;
}

TEST(KermitMypar, AnnouncesTwentyTwoCharactersForEachMode) {
    auto k = NewEngine();
    EXPECT_STREQ(k->mypar(), "~' @-#Y3~*!J*0+++B\"U1A");
    k->textmode = 1;
    k->chkwant = 1;
    k->rptchar = '%';
    k->rpton = 1;
    EXPECT_STREQ(k->mypar(), "~' @-#Y1%*!J*0+++@\"U1A");
    k->rpton = 0; // repeats off: the default prefix is announced
    k->rcvmax = 60;
    const std::string off = k->mypar();
    ASSERT_EQ(off.size(), 22u);
    EXPECT_EQ(off[0], C(60));
    EXPECT_EQ(off[8], '~');
}

struct SparCase {
    const char *what;
    std::string init;
    int sndmax, timo, padcount, padchar, sndeol, rcvctlq, ebqon, ebq, chkwant, rpton;
    int attrok, longok, crlocal;
};

void PrintTo(const SparCase &c, std::ostream *os) {
    *os << c.what;
}

class KermitSpar : public ::testing::TestWithParam<SparCase> {};

TEST_P(KermitSpar, ReadsEveryField) {
    const SparCase &c = GetParam();
    auto k = NewEngine();
    Spar(*k, c.init);
    EXPECT_EQ(k->sndmax, c.sndmax) << c.what;
    EXPECT_EQ(k->timo, c.timo) << c.what;
    EXPECT_EQ(k->padcount, c.padcount) << c.what;
    EXPECT_EQ(k->padchar, c.padchar) << c.what;
    EXPECT_EQ(k->sndeol, c.sndeol) << c.what;
    EXPECT_EQ(k->rcvctlq, c.rcvctlq) << c.what;
    EXPECT_EQ(k->ebqon, c.ebqon) << c.what;
    EXPECT_EQ(k->ebq, c.ebq) << c.what;
    EXPECT_EQ(k->chkwant, c.chkwant) << c.what;
    EXPECT_EQ(k->rpton, c.rpton) << c.what;
    EXPECT_EQ(k->attrok, c.attrok) << c.what;
    EXPECT_EQ(k->longok, c.longok) << c.what;
    EXPECT_EQ(k->crlocal, c.crlocal) << c.what;
}

const std::string kOwn = "~' @-#Y3~*!J*0+++B\"U1A";

INSTANTIATE_TEST_SUITE_P(
    Fields, KermitSpar,
    ::testing::Values(
        // sndmax timo pad padc eol ctlq ebqon ebq chk rpt attr long crlocal
        SparCase{"one field", "~", 94, 5, 0, 0, 13, '#', 0, '&', 1, 0, 0, 0, 1},
        SparCase{"nothing at all", "", 80, 5, 0, 0, 13, '#', 0, '&', 1, 0, 0, 0, 1},
        SparCase{"our own init", kOwn, 4000, 7, 0, 0, 13, '#', 0, '&', 3, 1, 1, 1, 1},
        SparCase{"check 2 against our 3", Init('2', 'Y', "*", 500, "U1"), 500, 5, 0, 0, 13, '#', 0,
                 '&', 1, 1, 1, 1, 1},
        SparCase{"check 1", Init('1', 'Y', "*", 500, "U1"), 500, 5, 0, 0, 13, '#', 0, '&', 1, 1, 1,
                 1, 1},
        SparCase{"check out of range", Init('7', 'Y', "*", 500, "U1"), 500, 5, 0, 0, 13, '#', 0,
                 '&', 1, 1, 1, 1, 1},
        SparCase{"QBIN &", Init('3', '&', "*", 500, "U1"), 500, 5, 0, 0, 13, '#', 1, '&', 3, 1, 1,
                 1, 1},
        SparCase{"QBIN %", Init('3', '%', "*", 500, "U1"), 500, 5, 0, 0, 13, '#', 1, '%', 3, 1, 1,
                 1, 1},
        SparCase{"QBIN N", Init('3', 'N', "*", 500, "U1"), 500, 5, 0, 0, 13, '#', 0, '&', 3, 1, 1,
                 1, 1},
        SparCase{"long length cut", Init('3', 'Y', "*", 9024, "U1"), 9000, 5, 0, 0, 13, '#', 0, '&',
                 3, 1, 1, 1, 1},
        SparCase{"long length too small", Init('3', 'Y', "*", 5, "U1"), 80, 5, 0, 0, 13, '#', 0,
                 '&', 3, 1, 1, 1, 1},
        SparCase{"long length without the capability", Init('3', 'Y', "(", 500, "U1"), 80, 5, 0, 0,
                 13, '#', 0, '&', 3, 1, 1, 0, 1},
        SparCase{"two capability bytes", Init('3', 'Y', "+ ", 3000, "D7"), 3000, 5, 0, 0, 13, '#',
                 0, '&', 3, 1, 1, 1, 0},
        SparCase{"system id D7", Init('3', 'Y', "*", 500, "D7"), 500, 5, 0, 0, 13, '#', 0, '&', 3,
                 1, 1, 1, 0},
        SparCase{"system id too long for the field", Init('3', 'Y', "*", 500, "D7").substr(0, 20),
                 500, 5, 0, 0, 13, '#', 0, '&', 3, 1, 1, 1, 1},
        SparCase{"small MAXL, padding, odd EOL and QCTL", "%#*A!A", 80, 3, 10, 1, 13, '#', 0, '&',
                 1, 0, 0, 0, 1},
        SparCase{"own EOL and QCTL", "~(  *!", 94, 8, 0, 96, 10, '!', 0, '&', 1, 0, 0, 0, 1}));

// The transition table: the start events and E the same in every state,
// blank and characters outside the printable range ignored, the entries
// particular to each state, everything else an unexpected packet.
TEST(KermitWartTable, EveryStateAndEvent) {
    struct Entry {
        int state;
        char event;
        int action;
    };
    const Entry particular[] = {
        {1, 'Y', 2},   {2, 'Y', 3},   {3, 'Y', 5},   {4, 'Y', 4},   {5, 'Y', 21},
        {6, 'Y', 6},   {7, 'Y', 18},  {8, 'S', 9},   {9, 'F', 11},  {9, 'B', 22},
        {10, 'D', 15}, {10, 'Z', 16}, {11, 'A', 12}, {11, 'D', 13}, {11, 'Z', 14},
    };
    for (int state = 0; state < 14; ++state) {
        for (int event = 32; event < 128; ++event) {
            int expected = 20;
            if (event == ' ') expected = -1;
            if (event == 's') expected = 1;
            if (event == 'v') expected = 8;
            if (event == 'r') expected = 17;
            if (event == 'E') expected = 19;
            for (const Entry &e : particular) {
                if (e.state == state && e.event == event) expected = e.action;
            }
            EXPECT_EQ(KermitEngine::wartAction(state, event), expected)
                << "state " << state << " event " << static_cast<char>(event);
        }
        for (int outside : {-1, 0, 13, 31, 128, 200}) {
            EXPECT_EQ(KermitEngine::wartAction(state, outside), -1) << outside;
        }
    }
}

} // namespace
} // namespace zvxfer::kermit
