// The protocol table: every protocol number has its descriptor, and the
// generic entries pass each protocol exactly the block slots its entries
// are documented to get, in order.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "core/options.h"
#include "core/protocol.h"

namespace zvxfer {
namespace {

using V = std::vector<int>;

// The block slots the generic entries pass for a descriptor's code list.
V SlotsOf(std::span<const int32_t> codes) {
    V slots;
    for (int32_t code : codes) {
        const int slot = BlockSlot(code);
        slots.push_back(slot);
        if (OptionTakesValue(code)) slots.push_back(slot + 1);
    }
    return slots;
}

TEST(ProtocolTable, EveryNumberHasItsOwnDescriptorAndNoneOther) {
    ASSERT_EQ(Protocols().size(), 9u);
    std::set<std::string> names;
    for (int32_t number = 0; number <= 8; ++number) {
        const ProtocolInfo *info = FindProtocol(number);
        ASSERT_NE(info, nullptr) << number;
        EXPECT_EQ(info->number, number);
        EXPECT_EQ(Protocols()[number], info) << "listed in number order";
        EXPECT_TRUE(names.insert(info->name).second) << info->name << " twice";
        EXPECT_GT(info->bufferSize, 0u);
    }
    for (int32_t stranger : {-1, 9, 1000}) EXPECT_EQ(FindProtocol(stranger), nullptr) << stranger;
    EXPECT_EQ(&ProtocolOf(9), &kUnknownProtocol);
}

TEST(ProtocolTable, GenericEntriesPassTheDocumentedSlots) {
    const struct {
        int32_t protocol;
        bool offered; // the generic entries have its entries
        V send, receive;
    } cases[] = {
        // clang-format off
        {Xmodem, true, {4, 5, 6, 7, 8, 9, 22, 23}, {4, 5, 6, 7, 22, 23}},
        {Ymodem, true, {4, 3, 11, 10, 5, 6, 7, 8, 9, 22, 23}, {4, 3, 11, 5, 6, 22, 23}},
        {Kermit, true, {0, 1, 2, 4, 10, 3, 5, 6, 22, 23}, {1, 2, 4, 3, 5, 6, 22, 23}},
        {Zmodem, true, {4, 10, 3, 5, 6, 16, 14, 17, 22, 23, 24, 25, 26, 27},
                       {4, 3, 5, 6, 14, 15, 22, 23, 24, 25}},
        {Xmodem1K, true, {4, 5, 6, 7, 8, 9, 11, 22, 23}, {4, 5, 6, 11, 22, 23}},
        {CompuServeBPlus, true, {4, 5, 6, 18, 19, 20, 21, 22, 23}, {4, 5, 6, 18, 19, 20, 21, 22, 23}},
        {Xmodem1KG, false, {}, {}},
        {YmodemG, false, {}, {}},
        {Ascii, true, {4, 5, 6, 10, 22, 23}, {4, 5, 6, 10, 22, 23, 12, 13}},
        // clang-format on
    };
    for (const auto &c : cases) {
        const ProtocolInfo &info = *FindProtocol(c.protocol);
        EXPECT_EQ(SlotsOf(info.sendSlots), c.send) << info.name;
        EXPECT_EQ(SlotsOf(info.receiveSlots), c.receive) << info.name;
        EXPECT_EQ(info.send != nullptr, c.offered) << info.name;
        EXPECT_EQ(info.receive != nullptr, c.offered) << info.name;
    }
}

} // namespace
} // namespace zvxfer
