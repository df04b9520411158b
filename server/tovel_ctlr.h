#pragma once
// The server controller: the one object that listens for remote clients on
// 'theEar', binds each client to a free board in a `Tovel` session, keeps
// the list of sessions, services the hardware watchdog while all is well,
// answers the Telnet and HTTP ports, and carries out a requested restart of
// the unit (drain the sessions, start the reset helper, exit code 22).
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/win_types.h"
#include "server/session_owner.h"

class StreamSocket;
class Tovel;
class TovelCtlr;
class UsbCtlr;

// A responder of an alternate port: given the controller and the connected
// socket, answers the bytes to send back.
using AlternateResponder = std::string (*)(TovelCtlr& ctlr, host::SOCKET client);

class TovelCtlr : public SessionOwner {
  public:
    static constexpr DWORD kDefaultPort = 3445;
    static constexpr std::uint16_t kTelnetPort = 23;
    static constexpr std::uint16_t kHttpPort = 80;
    static constexpr int kListenBacklog = 1;
    static constexpr int kAlternateBacklog = 5;
    static constexpr DWORD kIdlePassMs = 100;  // while no client may be accepted
    static constexpr DWORD kAcceptErrorPauseMs = 1000;
    static constexpr DWORD kRestartGraceMs = 5000;  // per pass of a requested restart
    static constexpr DWORD kListenerErrorPauseMs = 3000;
    static constexpr DWORD kPortRepairPauseMs = 5000;
    static constexpr DWORD kWatchdogPeriodMs = 60000;
    static constexpr int kRestartExitCode = 22;
    static constexpr const wchar_t* kResetHelper = L"\\FlashFX Disk2\\Orvane\\TriggerWatchdog.exe";
    static constexpr const wchar_t* kRestartProgram = L"\\Windows\\restart.exe";
    static constexpr const wchar_t* kPortKey = L"\\COMM\\Firewall\\Rules\\InboundTovel";

    // The controller's threads, in the order the constructor starts them.
    enum class Thread { Watchdog, Server, Telnet, Http };
    // Which threads to start; the program starts all four.
    struct ThreadSet {
        bool watchdog = true;
        bool server = true;
        bool telnet = true;
        bool http = true;
        static constexpr ThreadSet all() { return {}; }
        static constexpr ThreadSet none() { return {false, false, false, false}; }
    };

    // The controller, constructed (threads started) by the first call. No
    // lock: the first call comes from the main thread before any other
    // thread that calls it exists.
    static TovelCtlr* instance();
    // The controller if one exists, without constructing one.
    static TovelCtlr* current();
    // Tests: constructs the controller with only some of its threads (or
    // answers the one that exists).
    static TovelCtlr* createInstance(ThreadSet threads);
    // What deleting the controller does: clears m_running, tells every
    // session to stop, clears the singleton and drops the session list.
    // Threads that still run keep the object alive until they end (nothing
    // joins them), so none of them ever touches freed memory.
    static void deleteInstance();

    ~TovelCtlr() override;
    TovelCtlr(const TovelCtlr&) = delete;
    TovelCtlr& operator=(const TovelCtlr&) = delete;

    // SessionOwner: a session asks for a restart of the unit; only sets the
    // flag that the server thread acts on.
    void requestRestart() override { m_restartRequested = true; }
    host::CriticalSection& tovelLock() override RETURN_CAPABILITY(m_tovelLock) {
        return m_tovelLock;
    }

    bool running() const { return m_running.load(); }
    bool restartRequested() const { return m_restartRequested.load(); }
    // Ends the server loop and the watchdog services at their next check
    // (the power-fail shutdown).
    void stopRunning() { m_running = false; }

    // ---- Listener and accept loop (server thread).
    DWORD serverThreadCallback();
    // Whether another client may be accepted now; ends the loop once a
    // requested restart has no sessions left.
    bool shouldListen();
    // A board controller that no session uses (after a fresh enumeration), or
    // null. The caller holds the session list from the choice until the new
    // session is in it, so no other accept can choose the same board.
    UsbCtlr* findFreeCtlr() REQUIRES(m_tovelLock);
    // Creates, binds and opens 'theEar'; ends the process on failure.
    void createListenerSocket();

    // ---- Session supervision.
    void purgeDoneTovels();
    void terminateAllTovels();
    bool anyTovelActive();
    DWORD WatchdogThread();

    // ---- Port configuration.
    DWORD getListenPort();

    // ---- Alternate responders.
    DWORD TCPAlternateThread(std::uint16_t port, AlternateResponder responder);

    // ---- Network status report, for the event log.
    std::wstring logNetworkStatus();

    // The handle of one of the controller's threads (NULL if not started);
    // signalled when the thread ends.
    HANDLE threadHandle(Thread which) const;

  private:
    TovelCtlr();
    void startThreads(const std::shared_ptr<TovelCtlr>& self, ThreadSet threads);
    void acceptOneClient();
    void closeTheEar();
    void drainPass();
    [[noreturn]] void exitViaResetHelper();

    std::atomic<bool> m_running{true};
    std::atomic<bool> m_restartRequested{false};
    std::unique_ptr<StreamSocket> m_theEar;  // the server thread's alone
    host::CriticalSection m_tovelLock;
    std::vector<std::shared_ptr<Tovel>> m_tovels GUARDED_BY(m_tovelLock);
    std::array<std::atomic<HANDLE>, 4> m_threads{};
};

// The responders of the Telnet and HTTP ports.
std::string telnetAnswer(TovelCtlr& ctlr, host::SOCKET client);
std::string httpAnswer(TovelCtlr& ctlr, host::SOCKET client);
