// No exception leaves the library: an exception inside a transfer ends it
// like any failure (its file closed, the cancel string sent, its memory
// released) and the entry returns -601 for memory or -611 for anything
// else; an allocation that fails before anything happened returns -601
// with nothing sent.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "garbage_feed.h"
#include "system_files.h"
#include "zvxfer.h"

namespace {
// Set around one call: every operator new on this thread then fails.  The
// replacements below take every form a library allocation may use, so that
// each block is released by the form that made it.
thread_local bool t_allocationsFail = false;
} // namespace

void *operator new(std::size_t size) {
    if (t_allocationsFail) throw std::bad_alloc();
    if (void *p = std::malloc(size != 0 ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept {
    std::free(p);
}
void operator delete(void *p, std::size_t) noexcept {
    std::free(p);
}
void *operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete[](void *p) noexcept {
    std::free(p);
}
void operator delete[](void *p, std::size_t) noexcept {
    std::free(p);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return t_allocationsFail ? nullptr : std::malloc(size != 0 ? size : 1);
}
void *operator new[](std::size_t size, const std::nothrow_t &tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void *p, const std::nothrow_t &) noexcept {
    std::free(p);
}
void operator delete[](void *p, const std::nothrow_t &) noexcept {
    std::free(p);
}

namespace zvxfer {
namespace {

using Boundary = test::SteppedPort;

enum class Throw { Memory, Other };
Throw g_throw = Throw::Memory;
XferFile g_file = XFER_INVALID_FILE;
int g_progressCalls = 0;

// Throws from inside the engine as soon as the transfer's file is open.
int32_t ThrowOnceOpen(XferRecord *record) {
    if (record->File == XFER_INVALID_FILE) return 0;
    g_file = record->File;
    if (g_throw == Throw::Memory) throw std::bad_alloc();
    throw std::runtime_error("host fault");
}

int32_t CountProgress(XferRecord *) {
    ++g_progressCalls;
    return 0;
}

TEST_F(Boundary, AnExceptionInsideATransferEndsItAndBecomesACode) {
    const std::string source = tree.File("source.bin", std::string(300, 'a'));
    const struct {
        bool sending;
        Throw kind;
        int32_t expected;
    } cases[] = {
        {true, Throw::Memory, XferErrNoBuffer},
        {true, Throw::Other, XferErrInternal},
        {false, Throw::Memory, XferErrNoBuffer},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(n);
        host.ClearWritten();
        g_throw = c.kind;
        g_file = XFER_INVALID_FILE;
        std::string names = "\"" + source + "\"";
        std::string target = tree.Path("target" + std::to_string(n++));
        const int32_t result =
            c.sending
                ? XmodemSendWithOptions(port, names.data(), nullptr, ThrowOnceOpen, XferOptEnd)
                : XmodemReceiveWithOptions(port, target.data(), nullptr, ThrowOnceOpen, XferOptEnd);
        EXPECT_EQ(result, c.expected);
        ASSERT_NE(g_file, XFER_INVALID_FILE) << "the file was opened";
        EXPECT_FALSE(test::HandleIsOpen(g_file)) << "and closed again";
        EXPECT_TRUE(test::EndsWithCancel(host.Written())) << "ended like a failed transfer";
    }
}

TEST_F(Boundary, NoMemoryForTheOptionsRefusesBeforeAnythingHappens) {
    const std::string source = tree.File("source.bin");
    for (bool generic : {false, true}) {
        SCOPED_TRACE(generic);
        host.ClearWritten();
        g_progressCalls = 0;
        std::string names = "\"" + source + "\"";
        int32_t list[] = {XferOptFlag1006, XferOptEnd};
        FileTransferOptions *block = generic ? CLSetFileTransferOptions(list) : nullptr;
        t_allocationsFail = true;
        const int32_t result =
            generic ? CLFileSend(port, Xmodem, names.data(), 0, 0, block, nullptr, CountProgress)
                    : XmodemSendWithOptions(port, names.data(), nullptr, CountProgress,
                                            XferOptFlag1006, XferOptEnd);
        t_allocationsFail = false;
        EXPECT_EQ(result, XferErrNoBuffer);
        EXPECT_EQ(g_progressCalls, 0);
        EXPECT_TRUE(host.Written().empty());
    }
}

} // namespace
} // namespace zvxfer
