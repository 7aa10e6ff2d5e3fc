// Host windows and the calling thread's message queue on real Windows
// windows: message-only windows of one class whose window procedure hands
// each message to the host's ZvWndProc; SendMessageA, PostMessageA and
// PeekMessageA move the messages, and the library's waits sleep in
// MsgWaitForMultipleObjectsEx, so a host wakes them by posting or sending a
// message.  Messages sent from other threads are handled by the system
// inside PeekMessageA, and a sender waiting in SendMessageA handles the
// messages sent to it meanwhile, so two threads that send to each other
// cannot deadlock.
#include "platform/win32/win.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <new>
#include <vector>

#include "platform/message.h"
#include "platform/tick.h"

namespace {

constexpr char kClassName[] = "ZvxferHostWindow";

// What a host window carries: its procedure and user value.  Kept in the
// window's GWLP_USERDATA once creation is over, and taken out before the
// window is destroyed, so the procedure sees the messages of the host and
// of the library, never the system's own creation and destruction.
struct WindowRecord {
    ZvWndProc proc;
    void *user;
};

HWND ToHwnd(ZvHwnd window) {
    return reinterpret_cast<HWND>(window);
}

ZvHwnd FromHwnd(HWND window) {
    return reinterpret_cast<ZvHwnd>(window);
}

WindowRecord *RecordOf(HWND window) {
    return reinterpret_cast<WindowRecord *>(::GetWindowLongPtrA(window, GWLP_USERDATA));
}

LRESULT CALLBACK HostWindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    WindowRecord *record = RecordOf(window);
    if (record == nullptr) return ::DefWindowProcA(window, message, wParam, lParam);
    return record->proc(FromHwnd(window), message, wParam, lParam);
}

// The module that holds this code: the DLL, or the program that linked
// the static library.
HINSTANCE OwnModule() {
    HMODULE module = nullptr;
    ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                             GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<LPCSTR>(&HostWindowProc), &module);
    return module;
}

bool RegisterHostClass() {
    static std::once_flag once;
    static bool registered = false;
    std::call_once(once, [] {
        WNDCLASSA windowClass{};
        windowClass.lpfnWndProc = &HostWindowProc;
        windowClass.hInstance = OwnModule();
        windowClass.lpszClassName = kClassName;
        registered =
            ::RegisterClassA(&windowClass) != 0 || ::GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
    });
    return registered;
}

constexpr DWORD kPostedMask = QS_POSTMESSAGE | QS_ALLPOSTMESSAGE;
constexpr DWORD kWakeMask = kPostedMask | QS_SENDMESSAGE;

// The per-byte check: GetQueueStatus asks the window system, which is too
// dear to do for every byte, so an answer holds until the tick moves on or
// the thread itself changes its queue.
struct PendingCache {
    DWORD tick = 0;
    bool valid = false;
    bool answer = false;
};
thread_local PendingCache tPending;

void ForgetPending() {
    tPending.valid = false;
}

// What the queue holds right now (high word: messages present, whether
// looked at before or not).
DWORD QueueHolds(DWORD mask) {
    return HIWORD(::GetQueueStatus(mask));
}

// Handle the messages other threads sent to this one; true when there were
// any.
bool HandleSends() {
    if ((QueueHolds(QS_SENDMESSAGE) & QS_SENDMESSAGE) == 0) return false;
    MSG msg{};
    ::PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE | PM_QS_SENDMESSAGE);
    ForgetPending();
    return true;
}

struct WaitPrepare {
    ZvPrepareFn fn;
    void *context;
};
constexpr std::size_t kMaxPrepares = 8;

struct Prepares {
    std::vector<WaitPrepare> list;
    bool running = false;
};
thread_local Prepares tPrepares;

// Let the hosts put out what they gathered before the thread sleeps.  A
// callback that waits itself does not run the callbacks again.
void RunPrepares() {
    Prepares &p = tPrepares;
    if (p.list.empty() || p.running) return;
    p.running = true;
    // A callback may add or remove registrations: call the ones there were.
    std::array<WaitPrepare, kMaxPrepares> now{};
    const std::size_t count = std::min(p.list.size(), now.size());
    std::copy_n(p.list.begin(), count, now.begin());
    for (std::size_t i = 0; i < count; ++i) now[i].fn(now[i].context);
    p.running = false;
}

enum class Until { AnyInput, NewInput };

// Sleep until input, or until `timeoutMs` of real time has passed.  Sent
// messages are handled on the way and count as input.  With
// Until::NewInput, posted messages that the thread has already seen do not
// end the wait (the system's notion of new input: arrived since the thread
// last looked at its queue).  With a time passer installed, a limited wait
// only looks at the queue: when nothing is there it hands the whole time
// to the passer instead of sleeping.
bool Wait(DWORD timeoutMs, Until until) {
    const zvxfer::plat::TimePasser passer =
        timeoutMs == INFINITE ? nullptr : zvxfer::plat::CurrentTimePasser();
    const DWORD start = ::GetTickCount();
    for (;;) {
        if (HandleSends()) return true;
        if (until == Until::AnyInput && QueueHolds(kPostedMask) != 0) return true;
        RunPrepares();
        if (passer != nullptr) {
            passer(timeoutMs);
            return false;
        }
        DWORD waitMs = INFINITE;
        if (timeoutMs != INFINITE) {
            const DWORD spent = ::GetTickCount() - start;
            waitMs = spent >= timeoutMs ? 0 : timeoutMs - spent;
        }
        const DWORD flags = until == Until::AnyInput ? MWMO_INPUTAVAILABLE : 0;
        const DWORD woke = ::MsgWaitForMultipleObjectsEx(0, nullptr, waitMs, kWakeMask, flags);
        ForgetPending();
        if (woke == WAIT_TIMEOUT || woke == WAIT_FAILED) return false;
        if (until == Until::NewInput) {
            HandleSends();
            return true;
        }
        // Input arrived: look at it again at the top.
    }
}

bool Peek(ZvMsg &out, bool remove) {
    MSG msg{};
    if (!::PeekMessageA(&msg, nullptr, 0, 0, remove ? PM_REMOVE : PM_NOREMOVE)) {
        tPending = {::GetTickCount(), true, false};
        return false;
    }
    ForgetPending();
    out = ZvMsg{FromHwnd(msg.hwnd), msg.message, msg.wParam, msg.lParam};
    return true;
}

} // namespace

namespace zvxfer::plat {

bool InputPending() {
    const DWORD now = ::GetTickCount();
    PendingCache &cache = tPending;
    if (cache.valid && cache.tick == now) return cache.answer;
    cache = {now, true, QueueHolds(kWakeMask) != 0};
    return cache.answer;
}

bool PeekMessage(ZvMsg &msg, bool remove) {
    return Peek(msg, remove);
}

bool WaitForInput(uint32_t timeoutMs) {
    return Wait(timeoutMs == UINT32_MAX ? INFINITE : timeoutMs, Until::AnyInput);
}

bool WaitForNewInput(uint32_t timeoutMs) {
    return Wait(timeoutMs == UINT32_MAX ? INFINITE : timeoutMs, Until::NewInput);
}

bool WatchesAnyFd() {
    // No descriptors here: every wait ends when a message arrives, which is
    // how a Windows host's reader wakes it.
    return true;
}

} // namespace zvxfer::plat

// The host calls take their linkage from their declarations in zvxfer.h;
// on Windows they stay inside the library (the DLL exports only the
// transfer interface).
extern "C" {

ZvHwnd ZvCreateWindow(ZvWndProc proc, void *user) ZVXFER_NOEXCEPT {
    if (proc == nullptr || !RegisterHostClass()) return nullptr;
    auto *record = new (std::nothrow) WindowRecord{proc, user};
    if (record == nullptr) return nullptr;
    const HWND window = ::CreateWindowExA(0, kClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                          OwnModule(), nullptr);
    if (window == nullptr) {
        delete record;
        return nullptr;
    }
    ::SetWindowLongPtrA(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(record));
    return FromHwnd(window);
}

void ZvDestroyWindow(ZvHwnd window) ZVXFER_NOEXCEPT {
    if (window == nullptr) return;
    const HWND hwnd = ToHwnd(window);
    WindowRecord *record = RecordOf(hwnd);
    if (record == nullptr) return; // not one of ours, or gone
    ::SetWindowLongPtrA(hwnd, GWLP_USERDATA, 0);
    // The window's posted messages go with it; a message sent to it now
    // answers 0.
    MSG msg{};
    while (::PeekMessageA(&msg, hwnd, 0, 0, PM_REMOVE)) {
    }
    ::DestroyWindow(hwnd);
    ForgetPending();
    delete record;
}

void *ZvGetWindowUserData(ZvHwnd window) ZVXFER_NOEXCEPT {
    if (window == nullptr) return nullptr;
    const WindowRecord *record = RecordOf(ToHwnd(window));
    return record != nullptr ? record->user : nullptr;
}

intptr_t ZvSendMessage(ZvHwnd window, uint32_t message, uintptr_t wParam,
                       intptr_t lParam) ZVXFER_NOEXCEPT {
    if (window == nullptr) return 0;
    return ::SendMessageA(ToHwnd(window), message, wParam, lParam);
}

// A NULL window posts a thread message to the calling thread.
int ZvPostMessage(ZvHwnd window, uint32_t message, uintptr_t wParam,
                  intptr_t lParam) ZVXFER_NOEXCEPT {
    const BOOL posted = ::PostMessageA(ToHwnd(window), message, wParam, lParam);
    ForgetPending();
    return posted ? 1 : 0;
}

void ZvPostQuitMessage(int exitCode) ZVXFER_NOEXCEPT {
    ::PostQuitMessage(exitCode);
    ForgetPending();
}

int ZvPeekMessage(ZvMsg *msg, int remove) ZVXFER_NOEXCEPT {
    ZvMsg local{};
    if (!Peek(local, remove != 0)) return 0;
    if (msg != nullptr) *msg = local;
    return 1;
}

int ZvGetMessage(ZvMsg *msg) ZVXFER_NOEXCEPT {
    ZvMsg local{};
    while (!Peek(local, true)) Wait(INFINITE, Until::AnyInput);
    if (msg != nullptr) *msg = local;
    return local.Message == ZV_WM_QUIT ? 0 : 1;
}

intptr_t ZvDispatchMessage(const ZvMsg *msg) ZVXFER_NOEXCEPT {
    if (msg == nullptr || msg->Window == nullptr) return 0;
    const HWND hwnd = ToHwnd(msg->Window);
    // The procedure is called directly for timer numbers, which
    // DispatchMessageA would take as a call of the function in lParam.
    if (msg->Message == WM_TIMER || msg->Message == 0x0118 /* WM_SYSTIMER */) {
        return HostWindowProc(hwnd, msg->Message, msg->WParam, msg->LParam);
    }
    const MSG system{hwnd, msg->Message, msg->WParam, msg->LParam, 0, {0, 0}};
    return ::DispatchMessageA(&system);
}

int ZvWaitMessage(uint32_t timeoutMs) ZVXFER_NOEXCEPT {
    return zvxfer::plat::WaitForInput(timeoutMs) ? 1 : 0;
}

// Windows has no descriptors to watch: a host's reader wakes the thread's
// waits by posting or sending a message to it.  Refused, so that a host
// written for descriptors learns that its line would not wake anything.
int ZvWatchFd(int, int) ZVXFER_NOEXCEPT {
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return -1;
}

void ZvUnwatchFd(int) ZVXFER_NOEXCEPT {}

int ZvAddWaitPrepare(ZvPrepareFn fn, void *context) ZVXFER_NOEXCEPT try {
    auto &list = tPrepares.list;
    const bool known = std::any_of(list.begin(), list.end(),
                                   [&](auto &p) { return p.fn == fn && p.context == context; });
    if (fn == nullptr || known || list.size() >= kMaxPrepares) return -1;
    list.push_back({fn, context});
    return 0;
} catch (...) {
    return -1;
}

void ZvRemoveWaitPrepare(ZvPrepareFn fn, void *context) ZVXFER_NOEXCEPT try {
    std::erase_if(tPrepares.list, [&](auto &p) { return p.fn == fn && p.context == context; });
} catch (...) {
}

} // extern "C"
