// Message queues of the calling thread, as the library's waits use them.
// The host-side calls (ZvCreateWindow, ZvPostMessage, ZvSendMessage,
// ZvPeekMessage, ZvWaitMessage, ZvWatchFd, ...) are declared in zvxfer.h and
// implemented beside these.
#pragma once
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer::plat {

// Cheap test for a queued message or a pending cross-thread send on the
// calling thread: no system call and no lock when there is none.
bool InputPending();

// Take the next message of the calling thread (handling cross-thread sends
// first); false when the queue is empty.
bool PeekMessage(ZvMsg &msg, bool remove);

// Wait for input of any kind (messages, sends, watched fds) for up to
// `timeoutMs`; true when input arrived.  Returns at once while a posted
// message is queued.
bool WaitForInput(uint32_t timeoutMs);

// Like WaitForInput, but messages that were already queued do not end the
// wait: only new input does (a post or send after the last wait, a watched
// fd).  For pauses between the rounds of a wait whose idle hook may leave
// messages queued, so that the pause still sleeps.
bool WaitForNewInput(uint32_t timeoutMs);

// True when the calling thread's waits watch at least one descriptor
// (ZvWatchFd): then a wait ends as soon as the host's line has bytes.
// Always true on Windows, where waits end on messages and a host's reader
// posts or sends one when bytes arrive: there is nothing left to watch.
bool WatchesAnyFd();

// Keyboard translation has no meaning here; kept so call sites read alike.
inline void TranslateMessage(const ZvMsg &) {}

inline intptr_t DispatchMessage(const ZvMsg &msg) {
    return ZvDispatchMessage(&msg);
}

inline intptr_t SendMessage(ZvHwnd w, uint32_t m, uintptr_t wp, intptr_t lp) {
    return ZvSendMessage(w, m, wp, lp);
}

inline bool PostMessage(ZvHwnd w, uint32_t m, uintptr_t wp, intptr_t lp) {
    return ZvPostMessage(w, m, wp, lp) != 0;
}

} // namespace zvxfer::plat
