// The port object, its link operations and the timed helpers every engine
// waits with; the per-thread host hooks.
#pragma once
#include <atomic>
#include <cstdint>
#include <span>

#include "platform/message.h"
#include "zvxfer.h"

namespace zvxfer {

// --- timed helpers over a port made by PortOpen (or any port with ops) ---

// A byte 0..255, -8 on time-out, or the idle hook's negative answer.
// timeoutMs -1 waits without limit.
int32_t ReadCharTimed(XferPort *port, int32_t timeoutMs);
// 0, or a negative code; retries a full (-9) or handshake-blocked (-36)
// port until the deadline.  timeoutMs -1 waits without limit.
int32_t WriteCharTimed(XferPort *port, uint8_t byte, int32_t timeoutMs);
// 1 when nothing waits, 0 when bytes wait, or RxCount's negative answer.
int32_t RxEmpty(XferPort *port);
// The bytes the host has handed over and nobody has read yet, for readers
// that scan a run at a time instead of a byte at a time.  Empty when there
// are none, when the port is not one PortOpen made, or when the idle hook
// has something to do (a host's own idle hook, or queued messages for the
// default one): then the caller reads byte by byte and the hook sees every
// read.  TakeRun marks the first `count` bytes of the run read.
std::span<const uint8_t> PeekRun(XferPort *port);
void TakeRun(XferPort *port, uint32_t count);
// 0 after `milliseconds`, or the first negative answer of the idle hook.
int32_t IdleWait(XferPort *port, int32_t milliseconds);
// 0 when it removed a message that means the application or window is
// closing; 1 otherwise.
int32_t PumpMessages(uint32_t milliseconds);
void PumpDelay(uint32_t milliseconds);

// --- a host's mistakes that are cheap to see ---

// False (with a trace) when the send names lie in memory the library
// cannot write to; the entries refuse such a list with -7.
bool SendNamesWritable(char *names);
// Trace a receive folder that exists but lacks its final '/', or that ends
// in '/' and does not exist; PortOpen keeps it as given.
void CheckReceiveFolder(const char *folder);
// A transfer starts on this thread: its notes may be written once again.
void BeginTransferNotes();
// A read found nothing and the caller is about to wait: trace, once per
// transfer, when the thread's waits watch no descriptor.
void NoteEmptyRead();

// --- hooks ---

// The process's hook record, created with defaults when there is none;
// nullptr when the table is full or memory runs out.
ThreadHooks *ThreadHooksFind();
// Find or create the record and add one port reference to it, as one step
// (so a concurrent last close cannot free it in between); nullptr as above.
ThreadHooks *ThreadHooksAcquire();
// Drop one port reference; the record is released at 0.  nullptr is ignored.
void ThreadHooksRelease(ThreadHooks *hooks);

// Read a hook field that a setter on another thread may be writing.
template <typename Fn>
inline Fn LoadHook(Fn &field) {
    return std::atomic_ref<Fn>(field).load(std::memory_order_relaxed);
}

int32_t DefaultIdle(XferPort *port);
XferFile DefaultFileOpen(XferRecord *record, const char *name, const char *mode);

// Call the port's idle hook (DefaultIdle when none is set).  Inline
// because every byte read goes through it: with the default hook and an
// empty queue it costs one atomic load.
inline int32_t CallIdle(XferPort *port) {
    const XferIdleFn idle =
        port != nullptr && port->Hooks != nullptr ? LoadHook(port->Hooks->IdleFunction) : nullptr;
    if (idle == nullptr || idle == &DefaultIdle) {
        return plat::InputPending() ? DefaultIdle(port) : 0;
    }
    return idle(port);
}

} // namespace zvxfer
