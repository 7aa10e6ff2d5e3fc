// The protocol loop against a scripted peer on a test host: the packets our
// side puts on the line, in order, for sends and receives, and how an
// exchange ends on silence, refusals, interruptions and errors.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fake_clock.h"
#include "kermit/engine.h"
#include "temp_tree.h"
#include "test_host.h"
#include "wire.h"

namespace zvxfer::kermit {
namespace {

using test::FakeClock;
using test::TempTree;
using test::TestHost;

using Sent = wire::Packet;

std::string Packet(char type, int seq, const std::string &data, int check) {
    return wire::Frame(type, seq, data, check);
}

// The receiver's answer to S: MAXL 94, TIME 10, no padding, CR, '#', no
// eighth-bit prefixing, check type as given, no repeats, attribute packets
// when asked for.
std::string ReceiverInit(char check, bool attributes) {
    return std::string("~* @-#N") + check + ' ' + (attributes ? '(' : ' ');
}

const std::string kOurInit = "~' @-#Y3~*!J*0+++B\"U1A";

class KermitExchange : public ::testing::Test {
  protected:
    void SetUp() override {
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
        record_.Port = port_;
        record_.File = XFER_INVALID_FILE;
        record_.FileName = noName_;
        record_.Protocol = Kermit;
        record_.FileTime = -1;
        k_->record = &record_;
        k_->hostWindow = host_.Window();
        host_.OnRequest([this](TestHost &h, uintptr_t request) {
            if (request == PORT_READ) Answer(h);
        });
    }
    void TearDown() override {
        host_.OnRequest(nullptr);
        k_->closeLeftovers();
        if (port_ != nullptr) port_->Ops.PortClose(port_);
    }

    // Reads the packets our side wrote since the last look and puts the
    // peer's answers on the line.  Runs in the host's read requests.
    void Answer(TestHost &h) {
        const std::string all = h.WrittenString();
        for (Sent s; wire::NextPacket(all, parsed_, check_, s);) {
            EXPECT_TRUE(s.checked) << "check of " << s.type << " " << s.seq;
            sent_.push_back(s);
            if (peer_) {
                const std::string reply = peer_(s);
                if (!reply.empty()) h.Receive(reply);
            }
        }
    }

    // A receiver that takes everything: its init in the Y to S, after which
    // both sides use the check type agreed; an empty Y to every other packet
    // unless `answer` gives another reply.
    void Receiver(char check, bool attributes,
                  std::function<std::string(const Sent &)> answer = nullptr) {
        peer_ = [this, check, attributes, answer](const Sent &s) -> std::string {
            if (s.type == 'S') {
                const std::string reply = Packet('Y', s.seq, ReceiverInit(check, attributes), 1);
                check_ = check == '3' ? 3 : 1;
                return reply;
            }
            if (s.type == 'E') return "";
            if (answer) {
                const std::string reply = answer(s);
                if (!reply.empty()) return reply;
            }
            return Packet('Y', s.seq, "", check_);
        };
    }

    // A sender that starts with S (check type 1, `init`), then puts the next
    // packet of `script` on the line each time our side answers with Y.
    void Sender(const std::string &init, int agreedCheck, std::vector<std::string> script) {
        host_.Receive(Packet('S', 0, init, 1));
        auto next = std::make_shared<std::size_t>(0);
        peer_ = [this, agreedCheck, script, next](const Sent &s) -> std::string {
            if (s.type != 'Y') return "";
            check_ = agreedCheck;
            return *next < script.size() ? script[(*next)++] : "";
        };
    }

    // The whole exchange; then the packets our side wrote last, which it
    // no longer waits to have answered.
    int Run() {
        const int result = k_->wart();
        Answer(host_);
        return result;
    }

    void SendNames(const std::vector<std::string> &names) {
        list_.clear();
        for (const std::string &n : names) list_ += n + '\0';
        k_->sendNext = list_.data();
        k_->sendLeft = static_cast<int32_t>(names.size());
        k_->startev = 's';
    }

    std::string Types() const {
        std::string types;
        for (const Sent &s : sent_) types += s.type;
        return types;
    }
    std::vector<int> Seqs() const {
        std::vector<int> seqs;
        for (const Sent &s : sent_) seqs.push_back(s.seq);
        return seqs;
    }
    std::string Content(const std::string &name) const {
        std::ifstream in(tree_.Path(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    bool Exists(const std::string &name) const { return std::ifstream(tree_.Path(name)).good(); }

    FakeClock clock_{FakeClock::kSleepless};
    TestHost host_;
    TempTree tree_;
    std::string folder_ = tree_.Folder();
    XferPort *port_ = nullptr;
    XferRecord record_{};
    char noName_[1] = "";
    std::unique_ptr<KermitEngine> k_ = std::make_unique<KermitEngine>();
    std::function<std::string(const Sent &)> peer_;
    std::vector<Sent> sent_;
    std::size_t parsed_ = 0;
    int check_ = 1; // block check of the packets on the line now
    std::string list_;
};

// ---- sending -----------------------------------------------------------

TEST_F(KermitExchange, EmptyFileGoesOutAsHeaderAttributesAndEndAtOnce) {
    tree_.File("out/empty.bin", "");
    Receiver('1', true);
    SendNames({tree_.Path("out/empty.bin")});
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Types(), "SFAZB");
    EXPECT_EQ(Seqs(), (std::vector<int>{0, 1, 2, 3, 4}));
    ASSERT_EQ(sent_.size(), 5u);
    EXPECT_EQ(sent_[0].data, kOurInit);
    EXPECT_EQ(sent_[1].data, "empty.bin");
    EXPECT_EQ(sent_[2].data, "\"\"B81!0"); // binary, 0 bytes
    EXPECT_EQ(sent_[3].data, "");
    EXPECT_EQ(record_.FileCount, 1);
}

TEST_F(KermitExchange, ReceiverRefusingTheAttributesSkipsToTheFileEnd) {
    tree_.File("a.bin", std::string(500, 'a'));
    tree_.File("b.bin", "b");
    Receiver('1', true, [&](const Sent &s) -> std::string {
        if (s.type == 'A' && s.seq == 2) return Packet('Y', s.seq, "N", 1);
        return "";
    });
    SendNames({tree_.Path("a.bin"), tree_.Path("b.bin")});
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Types(), "SFAZFADZB");
    ASSERT_EQ(sent_.size(), 9u);
    EXPECT_EQ(sent_[3].data, "D");
    EXPECT_EQ(sent_[7].data, "");
}

// X in the Y to a data packet stops this file, Z the batch after it: either
// way the file ends with a discarding Z and the batch with B.
TEST_F(KermitExchange, ReceiverAskingToStopGetsADiscardingEnd) {
    tree_.File("big.bin", std::string(2000, 'z'));
    tree_.File("next.bin", "n");
    for (const char *stop : {"X", "Z"}) {
        SCOPED_TRACE(stop);
        Receiver('1', false, [&](const Sent &s) -> std::string {
            return s.type == 'D' && s.seq == 2 ? Packet('Y', s.seq, stop, 1) : "";
        });
        record_.FileCount = 0;
        if (stop[0] == 'X')
            SendNames({tree_.Path("big.bin")});
        else
            SendNames({tree_.Path("big.bin"), tree_.Path("next.bin")});
        EXPECT_EQ(Run(), 1); // a file was interrupted
        EXPECT_EQ(Types(), "SFDZB");
        ASSERT_EQ(sent_.size(), 5u);
        EXPECT_EQ(sent_[3].data, "D");
        EXPECT_EQ(record_.FileCount, 1); // after Z the second name is never taken
        sent_.clear();
        host_.ClearWritten();
        parsed_ = 0;
        check_ = 1;
        k_ = std::make_unique<KermitEngine>();
        k_->record = &record_;
        k_->hostWindow = host_.Window();
    }
}

// ---- receiving ---------------------------------------------------------

TEST_F(KermitExchange, ReceivesAFileAndAnswersEveryPacket) {
    Sender("~* @-#N3 (", 3,
           {Packet('F', 1, "got.txt", 3), Packet('A', 2, "\"\"B81!7", 3),
            Packet('D', 3, "abc#Mdef", 3), Packet('Z', 4, "", 3), Packet('B', 5, "", 3)});
    k_->startev = 'v';
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Types(), "YYYYYY");
    EXPECT_EQ(Seqs(), (std::vector<int>{0, 1, 2, 3, 4, 5}));
    ASSERT_EQ(sent_.size(), 6u);
    // Our parameters, with the check type just agreed; the local name.
    EXPECT_EQ(sent_[0].data, kOurInit);
    EXPECT_EQ(sent_[1].data, "got.txt");
    EXPECT_EQ(Content("got.txt"), "abc\rdef");
    EXPECT_EQ(record_.FileSize, 7);
    EXPECT_EQ(record_.FileCount, 1);
}

TEST_F(KermitExchange, DuplicateDataIsAnsweredAgainButWrittenOnce) {
    Sender("~* @-#N1 (", 1,
           {Packet('F', 1, "dup.txt", 1), Packet('D', 2, "abc", 1), Packet('D', 2, "abc", 1),
            Packet('D', 3, "def", 1), Packet('Z', 4, "", 1), Packet('B', 5, "", 1)});
    k_->startev = 'v';
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Seqs(), (std::vector<int>{0, 1, 2, 2, 3, 4, 5}));
    EXPECT_EQ(Types(), "YYYYYYY");
    EXPECT_EQ(Content("dup.txt"), "abcdef");
}

TEST_F(KermitExchange, SixTimeOutsWaitingForTheSendInitGiveFiveNaksThenAnError) {
    k_->startev = 'v';
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(Types(), "NNNNNE");
    EXPECT_EQ(Seqs(), (std::vector<int>{0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sent_.back().data, "Too many retries");
}

TEST_F(KermitExchange, UnknownFileTypeIsRefusedAndTheFileGoesOn) {
    Sender("~* @-#N1 (", 1,
           {Packet('F', 1, "c.txt", 1), Packet('A', 2, "\"!C", 1), Packet('D', 3, "xyz", 1),
            Packet('Z', 4, "", 1), Packet('B', 5, "", 1)});
    k_->startev = 'v';
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Types(), "YYYYYY");
    ASSERT_EQ(sent_.size(), 6u);
    EXPECT_EQ(sent_[2].data, "\"");
    EXPECT_EQ(Content("c.txt"), "xyz");
}

TEST_F(KermitExchange, DiscardedFileIsRemovedAndFoldersInTheNameAreDropped) {
    Sender("~* @-#N1 (", 1,
           {Packet('F', 1, "../up/gone.txt", 1), Packet('D', 2, "abc", 1), Packet('Z', 3, "D", 1),
            Packet('F', 4, "..\\up\\kept.txt", 1), Packet('D', 5, "kept", 1), Packet('Z', 6, "", 1),
            Packet('B', 7, "", 1)});
    k_->startev = 'v';
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Types(), "YYYYYYYY");
    ASSERT_EQ(sent_.size(), 8u);
    EXPECT_EQ(sent_[1].data, "gone.txt");
    EXPECT_FALSE(Exists("gone.txt"));
    EXPECT_FALSE(Exists("../up/gone.txt"));
    EXPECT_EQ(Content("kept.txt"), "kept");
    EXPECT_EQ(record_.FileCount, 2);
}

// A drive before the name ("C:", after the folders or alone) goes with the
// folders: on Windows it would name that drive's current folder.
TEST_F(KermitExchange, DrivesInReceivedNamesAreDroppedWithTheFolders) {
    Sender("~* @-#N1 (", 1,
           {Packet('F', 1, "x\\C:one.txt", 1), Packet('D', 2, "one", 1), Packet('Z', 3, "", 1),
            Packet('F', 4, "D:two.txt", 1), Packet('D', 5, "two", 1), Packet('Z', 6, "", 1),
            Packet('B', 7, "", 1)});
    k_->startev = 'v';
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Types(), "YYYYYYYY");
    EXPECT_EQ(Content("one.txt"), "one");
    EXPECT_EQ(Content("two.txt"), "two");
    EXPECT_FALSE(Exists("C:one.txt") || Exists("D:two.txt"));
    EXPECT_EQ(record_.FileCount, 2);
}

// The start that asks a server for files: I with our parameters, R with an
// empty name under the same number, then a receive.
TEST_F(KermitExchange, GetStartSendsInitInfoThenTheRequestThenReceives) {
    peer_ = [this](const Sent &s) -> std::string {
        if (s.type == 'I') return Packet('Y', 0, "~* @-#N1 (", 1);
        if (s.type == 'R') return Packet('S', 0, "~* @-#N1 (", 1);
        if (s.type == 'Y' && s.seq == 0) return Packet('B', 1, "", 1);
        return "";
    };
    k_->startev = 'r';
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Types(), "IRYY");
    EXPECT_EQ(Seqs(), (std::vector<int>{0, 0, 0, 1}));
    ASSERT_EQ(sent_.size(), 4u);
    EXPECT_EQ(sent_[0].data, kOurInit);
    EXPECT_EQ(sent_[1].data, "");
}

// The loop's own lines in the debug log, in order (the packet layer's lines
// are left out).
TEST_F(KermitExchange, TraceLinesOfAReceiveThatEndsOnSilence) {
    static std::vector<std::string> lines;
    lines.clear();
    ZvSetDebugOutput([](const char *text) {
        const std::string line = std::string(text).substr(13); // after the time stamp
        for (const char *own : {"WART", "Escape", "KERMIT", "Download", "input", "nak", "resend",
                                "Exit", "spar", "\n"}) {
            if (line.rfind(own, 0) == 0) lines.push_back(line);
        }
    });
    k_->tracing = true;
    Sender("~* @-#N1 (", 1, {});
    k_->startev = 'v';
    EXPECT_EQ(Run(), 1);
    ZvSetDebugOutput(nullptr);
    const std::vector<std::string> expected = {
        "input[v] (start)\n",
        "WART: State: 0, Action: 8, Packet Type = 'v'\n",
        "Escape back to your local Kermit and give a SEND command.\n",
        "\n",
        "KERMIT READY TO RECEIVE...\n",
        "input[S]\n",
        "WART: State: 8, Action: 9, Packet Type = 'S'\n",
        "Download starting...\n",
        "spar attributes=1 longpackets=0\n",
        "resend #1 (1/5)\n",
        "resend #1 (2/5)\n",
        "resend #1 (3/5)\n",
        "resend #1 (4/5)\n",
        "resend #1 (5/5)\n",
        "resend #1 (6/5)\n",
        "Exit requested 1\n",
    };
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(sent_.back().data, "Too many retries");
}

} // namespace
} // namespace zvxfer::kermit
