// The send-init parameters: the string this side announces, how each field
// of the peer's string is read, and the protocol loop's transition table.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
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

// What spar set, written out.
std::string Fields(const KermitEngine &k) {
    char text[120];
    std::snprintf(text, sizeof text,
                  "max%d t%d pad%d,%d eol%d q%c ebq%d%c chk%d rpt%d a%d l%d cr%d", k.sndmax, k.timo,
                  k.padcount, k.padchar, k.sndeol, k.rcvctlq, k.ebqon, k.ebq, k.chkwant, k.rpton,
                  k.attrok, k.longok, k.crlocal);
    return text;
}

TEST(KermitSpar, ReadsEveryField) {
    const std::string plain = "max500 t5 pad0,0 eol13 q# ebq0& chk3 rpt1 a1 l1 cr1";
    const struct {
        std::string init, fields;
    } cases[] = {
        {"~", "max94 t5 pad0,0 eol13 q# ebq0& chk1 rpt0 a0 l0 cr1"},
        {"", "max80 t5 pad0,0 eol13 q# ebq0& chk1 rpt0 a0 l0 cr1"},
        {"~' @-#Y3~*!J*0+++B\"U1A", "max4000 t7 pad0,0 eol13 q# ebq0& chk3 rpt1 a1 l1 cr1"},
        {Init('3', 'Y', "*", 500, "U1"), plain},
        // Only the check type asked for, or type 1.
        {Init('2', 'Y', "*", 500, "U1"), "max500 t5 pad0,0 eol13 q# ebq0& chk1 rpt1 a1 l1 cr1"},
        // Eighth-bit prefixing when the peer names a prefix, with that prefix.
        {Init('3', '&', "*", 500, "U1"), "max500 t5 pad0,0 eol13 q# ebq1& chk3 rpt1 a1 l1 cr1"},
        {Init('3', 'N', "*", 500, "U1"), plain},
        // The long length: cut to 9000, ignored below 10 or without the capability.
        {Init('3', 'Y', "*", 9024, "U1"), "max9000 t5 pad0,0 eol13 q# ebq0& chk3 rpt1 a1 l1 cr1"},
        {Init('3', 'Y', "*", 5, "U1"), "max80 t5 pad0,0 eol13 q# ebq0& chk3 rpt1 a1 l1 cr1"},
        {Init('3', 'Y', "(", 500, "U1"), "max80 t5 pad0,0 eol13 q# ebq0& chk3 rpt1 a1 l0 cr1"},
        // A peer whose system id is D7 ends lines with LF alone.
        {Init('3', 'Y', "+ ", 3000, "D7"), "max3000 t5 pad0,0 eol13 q# ebq0& chk3 rpt1 a1 l1 cr0"},
        {Init('3', 'Y', "*", 500, "D7").substr(0, 20), plain}, // the id is cut off
        // Small MAXL, padding, odd EOL and QCTL; then EOL and QCTL taken.
        {"%#*A!A", "max80 t3 pad10,1 eol13 q# ebq0& chk1 rpt0 a0 l0 cr1"},
        {"~(  *!", "max94 t8 pad0,96 eol10 q! ebq0& chk1 rpt0 a0 l0 cr1"},
    };
    for (const auto &c : cases) {
        auto k = NewEngine();
        Spar(*k, c.init);
        EXPECT_EQ(Fields(*k), c.fields) << c.init;
    }
}

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
