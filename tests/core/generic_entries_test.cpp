// The generic entries: the option block's slots and the protocol table.
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_clock.h"
#include "test_host.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

// Every slot 1001 except the given ones.
void ExpectSlots(const FileTransferOptions *block, std::initializer_list<std::pair<int, int>> set) {
    ASSERT_NE(block, nullptr);
    for (int slot = 0; slot < 28; ++slot) {
        int expected = 1001;
        for (auto [s, v] : set)
            if (s == slot) expected = v;
        EXPECT_EQ(block->Slot[slot], expected) << "slot " << slot;
    }
}

// The generic entries release the block; blocks that no entry takes are
// released here (the allocator is the library's process heap).
FileTransferOptions *Block(std::initializer_list<int32_t> words) {
    const std::vector<int32_t> list(words);
    return CLSetFileTransferOptions(list.data());
}

TEST(OptionBlock, StoresCodesAndValuesInTheirSlots) {
    XferPort *none = nullptr;
    FileTransferOptions *b = Block({1007, 3, 0});
    ExpectSlots(b, {{5, 1007}, {6, 3}});
    EXPECT_EQ(CLFileSend(none, 99, nullptr, 0, 0, b, nullptr, nullptr), -7);

    b = Block({1018, 1020, 0}); // the management options share slot 17
    ExpectSlots(b, {{17, 1020}});
    EXPECT_EQ(CLFileSend(none, 99, nullptr, 0, 0, b, nullptr, nullptr), -7);

    b = Block({1022, 0}); // management option 7 has no slot
    ExpectSlots(b, {});
    EXPECT_EQ(CLFileSend(none, 99, nullptr, 0, 0, b, nullptr, nullptr), -7);

    b = Block({1010, 1007, 5, 0}); // a skipped word does not eat the next one
    ExpectSlots(b, {{5, 1007}, {6, 5}});
    EXPECT_EQ(CLFileSend(none, 99, nullptr, 0, 0, b, nullptr, nullptr), -7);

    b = Block({1003, -1, 1004, 0}); // -1 ends the list too
    ExpectSlots(b, {{1, 1003}});
    EXPECT_EQ(CLFileReceive(none, 99, nullptr, 0, b, nullptr, nullptr), -7);

    b = Block({1012, 700, 1029, 2048, 1028, 4, 1024, 0x102, 1027, 1, 0});
    ExpectSlots(b, {{12, 1012},
                    {13, 700},
                    {26, 1029},
                    {27, 2048},
                    {24, 1028},
                    {25, 4},
                    {18, 1024},
                    {19, 0x102},
                    {22, 1027},
                    {23, 1}});
    EXPECT_EQ(CLFileReceive(none, 99, nullptr, 0, b, nullptr, nullptr), -7);
}

class GenericEntries : public ::testing::Test {
  protected:
    void SetUp() override {
        port_ = PortOpen(0, host_.Window(), "/tmp/", XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override { port_->Ops.PortClose(port_); }

    test::FakeClock clock_{test::FakeClock::Scaled{1000}};
    test::TestHost host_;
    XferPort *port_ = nullptr;
};

TEST_F(GenericEntries, RefusedProtocolsAndOptionsSendNothing) {
    char names[] = "\"/nonexistent\"";
    for (int32_t protocol : {6, 7, 9, -1})
        EXPECT_EQ(CLFileSend(port_, protocol, names, 0, 0, Block({0}), nullptr, nullptr), -7)
            << protocol;
    // Checksum mode is an XMODEM option; through the block it refuses YMODEM.
    EXPECT_EQ(CLFileSend(port_, Ymodem, names, 0, 0, Block({1008, 0}), nullptr, nullptr), -7);
    EXPECT_TRUE(host_.Written().empty());
}

TEST_F(GenericEntries, ReceiveRunsTheProtocolWithTheBlocksOptions) {
    // XMODEM receive in checksum mode asks with NAK; nothing answers, so the
    // transfer ends after its retries, but the first request shows the option.
    char name[] = "/tmp/zvxfer-generic-never-written";
    const int32_t result =
        CLFileReceive(port_, Xmodem, name, 0, Block({1008, 0}), nullptr, nullptr);
    EXPECT_EQ(result, XferErrPacketTimeout);
    ASSERT_FALSE(host_.Written().empty());
    EXPECT_EQ(host_.Written()[0], 0x15);
    std::remove(name);
}

} // namespace
} // namespace zvxfer
