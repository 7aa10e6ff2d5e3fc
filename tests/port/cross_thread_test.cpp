// A host window running its message loop on one thread and a transfer on
// another, talking through a real PortOpen port: the port messages are
// answered inside the host's loop while the host keeps handling its own
// posted messages.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "hook_reset.h"
#include "port/port.h"
#include "test_host.h"

namespace zvxfer {
namespace {

TEST(CrossThreadPort, HostLoopAndTransferThreadBothMakeProgress) {
    test::ResetHooks();
    constexpr int kBytes = 3000;
    std::string line;
    for (int i = 0; i < kBytes; ++i) line.push_back(static_cast<char>(i * 7));

    std::promise<test::TestHost *> ready;
    std::atomic<int> painted{0};
    std::thread hostThread([&] {
        test::TestHost host;
        host.SetChunkSize(97);
        host.SetWriteLimit(3); // partial writes: the port retries
        host.Receive(line);
        ready.set_value(&host);
        ZvMsg msg{};
        while (ZvGetMessage(&msg)) {
            if (msg.Message == ZV_WM_PAINT) ++painted;
            ZvDispatchMessage(&msg);
        }
        EXPECT_EQ(host.WrittenString(), line);
        EXPECT_GT(host.ReadRequests(), kBytes / 97);
    });
    test::TestHost *host = ready.get_future().get();

    XferPort *port = PortOpen(0, host->Window(), "", 0);
    ASSERT_NE(port, nullptr);
    for (int i = 0; i < kBytes; ++i) {
        const int32_t c = ReadCharTimed(port, 5000);
        ASSERT_EQ(c, static_cast<uint8_t>(line[i])) << "at " << i;
        ASSERT_EQ(WriteCharTimed(port, static_cast<uint8_t>(c), 5000), 0);
        // The host's own messages keep flowing meanwhile.
        if (i % 300 == 0) ZvPostMessage(host->Window(), ZV_WM_PAINT, 0, 0);
    }
    EXPECT_EQ(ReadCharTimed(port, 0), PortBufferEmpty);
    EXPECT_EQ(port->Ops.PortClose(port), 0);
    ZvPostMessage(host->Window(), ZV_WM_QUIT, 0, 0);
    hostThread.join();
    EXPECT_EQ(painted.load(), kBytes / 300);
}

TEST(CrossThreadPort, ReadOnAPortWhoseHostThreadEndedDoesNotHang) {
    test::ResetHooks();
    std::promise<ZvHwnd> made;
    std::thread hostThread([&] {
        // The window outlives its thread on purpose: the host forgot it.
        made.set_value(ZvCreateWindow(
            [](ZvHwnd, uint32_t, uintptr_t, intptr_t) -> intptr_t { return 0; }, nullptr));
    });
    ZvHwnd orphan = made.get_future().get();
    hostThread.join();
    XferPort *port = PortOpen(0, orphan, "", 0);
    EXPECT_EQ(port->Ops.ReadChar(port), PortBufferEmpty);
    const uint8_t b = 1;
    EXPECT_EQ(port->Ops.WriteBuffer(port, &b, 1), 0); // nobody lowered Length
    port->Ops.PortClose(port);
    ZvDestroyWindow(orphan);
}

} // namespace
} // namespace zvxfer
