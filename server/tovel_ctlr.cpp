#include "server/tovel_ctlr.h"

#include <algorithm>

#include "app/message_channels.h"
#include "boards/usb_ctlr.h"
#include "device/watchdog.h"
#include "platform/allocator.h"
#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/handles.h"
#include "platform/netif.h"
#include "platform/process.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "server/network_report.h"
#include "server/stream_socket.h"
#include "server/tovel.h"

namespace {

// The singleton: `instancePointer` is what every thread reads; `owner`
// holds the main thread's reference and is touched only by the main thread.
std::atomic<TovelCtlr*> instancePointer{nullptr};
std::shared_ptr<TovelCtlr>& owner() {
    static std::shared_ptr<TovelCtlr> o;
    return o;
}

// Sessions of a deleted controller; never freed.
std::vector<std::shared_ptr<Tovel>>& sessionsKeptUntilExit() {
    static auto* kept = new std::vector<std::shared_ptr<Tovel>>();
    return *kept;
}

constexpr DWORD kDeleteLockWaitMs = 2000;
constexpr DWORD kLockPollMs = 10;

// Tries the lock for up to `waitMs`; whether it is now held.
bool tryLockFor(host::CriticalSection& lock, DWORD waitMs) TRY_ACQUIRE(true, lock) {
    for (DWORD waited = 0; waited < waitMs; waited += kLockPollMs) {
        if (lock.try_lock()) return true;
        host::Sleep(kLockPollMs);
    }
    return lock.try_lock();
}

}  // namespace

TovelCtlr* TovelCtlr::instance() {
    return createInstance(ThreadSet::all());
}

TovelCtlr* TovelCtlr::current() {
    return instancePointer.load();
}

TovelCtlr* TovelCtlr::createInstance(ThreadSet threads) {
    if (TovelCtlr* existing = instancePointer.load()) return existing;
    std::shared_ptr<TovelCtlr> ctlr(new TovelCtlr());
    owner() = ctlr;
    instancePointer = ctlr.get();
    ctlr->startThreads(ctlr, threads);
    return ctlr.get();
}

void TovelCtlr::deleteInstance() {
    std::shared_ptr<TovelCtlr> ctlr = std::move(owner());
    if (!ctlr) return;
    ctlr->m_running = false;
    // The registry's orderly end, which comes first, keeps the registry lock
    // for good; a server thread that waits for the registry inside
    // findFreeCtlr then holds m_tovelLock for good as well. Rather than hang
    // the end of the process, the deletion then leaves the sessions to end
    // with the process.
    if (!tryLockFor(ctlr->m_tovelLock, kDeleteLockWaitMs)) {
        instancePointer = nullptr;
        return;
    }
    ctlr->terminateAllTovels();
    instancePointer = nullptr;
    // The list goes, the sessions stay: a session may still reach its board
    // controller, which the registry's orderly end has deleted already, so
    // sessions are kept until the process ends instead of being deleted here.
    auto& kept = sessionsKeptUntilExit();
    kept.insert(kept.end(), ctlr->m_tovels.begin(), ctlr->m_tovels.end());
    ctlr->m_tovels.clear();
    ctlr->m_tovelLock.unlock();
    // The object itself goes when the last of its threads lets go of it.
}

TovelCtlr::TovelCtlr() {
    // Every board accepts whatever program version it runs; set before any
    // thread can enumerate.
    acceptAnyCofVersion = true;
}

TovelCtlr::~TovelCtlr() {
    for (auto& thread : m_threads) {
        HANDLE h = thread.exchange(NULL_HANDLE);
        if (h != NULL_HANDLE) host::CloseHandle(h);
    }
}

void TovelCtlr::startThreads(const std::shared_ptr<TovelCtlr>& self, ThreadSet threads) {
    struct Start {
        bool wanted;
        Thread which;
        int priority;
        const char* name;
        std::function<DWORD()> body;
        const wchar_t* failure;
    };
    // Each body holds a reference to the controller for as long as it runs.
    const Start starts[] = {
        {threads.watchdog, Thread::Watchdog, host::THREAD_PRIORITY_HIGHEST, "tovel-watchdog",
         [self] { return self->WatchdogThread(); }, L"Unable to spawn watchdog thread! Exiting..."},
        {threads.server, Thread::Server, host::THREAD_PRIORITY_BELOW_NORMAL, "tovel-server",
         [self] { return self->serverThreadCallback(); },
         L"Unable to spawn server thread! Exiting..."},
        {threads.telnet, Thread::Telnet, host::THREAD_PRIORITY_BELOW_NORMAL, "tovel-telnet",
         [self] { return self->TCPAlternateThread(kTelnetPort, telnetAnswer); },
         L"Unable to spawn Telnet alternate thread! Exiting..."},
        {threads.http, Thread::Http, host::THREAD_PRIORITY_BELOW_NORMAL, "tovel-http",
         [self] { return self->TCPAlternateThread(kHttpPort, httpAnswer); },
         L"Unable to spawn HTTP alternate thread! Exiting..."},
    };
    for (const Start& start : starts) {
        if (!start.wanted) continue;
        HANDLE h = host::CreateThread(start.body, start.priority, start.name);
        if (h == NULL_HANDLE) {
            statusMessage(start.failure);
            host::ExitProcess(-1);
        }
        m_threads[static_cast<std::size_t>(start.which)] = h;
    }
}

HANDLE TovelCtlr::threadHandle(Thread which) const {
    return m_threads[static_cast<std::size_t>(which)].load();
}

// ---- Session supervision.

void TovelCtlr::purgeDoneTovels() {
    bool purged = false;
    {
        host::LockGuard lock(m_tovelLock);
        bool removed = true;
        while (removed) {
            removed = false;
            for (auto it = m_tovels.begin(); it != m_tovels.end(); ++it) {
                if ((*it)->isDoneOrHung()) {
                    debugMessage(host::wformat(L"Tovel 0x%x is done; remove, delete\n",
                                               logAddress(it->get())));
                    m_tovels.erase(it);
                    removed = purged = true;
                    break;  // start the walk again from the first session
                }
            }
        }
    }
    // Over weeks of clients coming and going, resident memory stays at what
    // is in use rather than at the highest it ever was.
    if (purged) host::returnFreeHeapPages();
}

void TovelCtlr::terminateAllTovels() {
    host::LockGuard lock(m_tovelLock);
    for (const auto& tovel : m_tovels) tovel->stop();
}

bool TovelCtlr::anyTovelActive() {
    host::LockGuard lock(m_tovelLock);
    return std::any_of(m_tovels.begin(), m_tovels.end(),
                       [](const std::shared_ptr<Tovel>& t) { return !t->isDoneOrHung(); });
}

DWORD TovelCtlr::WatchdogThread() {
    WatchDog::Singleton();  // the first call arms the hardware watchdog
    host::NKDbgPrintfW(L"%u WatchDog::Singleton() invoked.\n", host::GetTickCount());
    // The flags are tested before each sleep: a change during a sleep is
    // followed by one more service.
    while (m_running && !m_restartRequested) {
        host::Sleep(kWatchdogPeriodMs);
        WatchDog::Singleton()->service();
    }
    statusMessage(L"TovelCtlr::WatchdogThread thread exiting!\n");
    return 0;
}

std::wstring TovelCtlr::logNetworkStatus() {
    return networkStatusReport(host::GetIfTable);
}
