#pragma once
// UsbCtlr: the controller of one DSP board, and (in its static part) the
// registry of all board controllers of the unit.
//
// A controller owns its board's DSP link, knows the board's identity (the
// 32-byte board detail) and the version of the DSP program it runs, and
// serves the sessions: confirmed exchanges (atomicSend / atomicGet), the
// status query, the boot and the liveness test. The link's raw primitives
// are reached through the public `link`.
//
// The registry finds boards by opening "DSP1:", makes a controller of the
// right kind for each new serial number (booting it), retires boards that
// stop answering and deletes retired controllers later. Lock order:
// registryLock, then a link's lock, then the event log's lock.
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "boards/board_detail.h"
#include "boards/dsp_status.h"
#include "dsplink/comm_policy_usb.h"
#include "dsplink/link_owner.h"
#include "platform/no_destructor.h"
#include "platform/sync.h"
#include "platform/win_types.h"

class T1Ctlr;
class RFCtlr;
class EthernetCtlr;
class AnalogCtlr;

// Process-wide: when set, every board kind accepts whatever DSP program its
// board runs. The server controller sets it when it is constructed.
extern std::atomic<bool> acceptAnyCofVersion;

// An object's address as log lines show it ("this=%x"): the low 32 bits,
// enough to tell the objects of one run apart.
inline unsigned logAddress(const void* object) {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(object));
}

class UsbCtlr : public LinkOwner {
  public:
    // cofMajor / cofMinor while the running program's version is not known.
    static constexpr std::uint16_t kUnknownVersion = 127;

    // Wraps a freshly opened driver handle: the new link owns it from now on.
    explicit UsbCtlr(HANDLE device);
    // Adopts the link of an identified board and becomes its owner.
    explicit UsbCtlr(std::unique_ptr<CommPolicy_USB> adopted);
    ~UsbCtlr() override;
    UsbCtlr(const UsbCtlr&) = delete;
    UsbCtlr& operator=(const UsbCtlr&) = delete;

    // ---- What differs between board kinds.
    virtual int kindNumber() = 0;
    virtual bool ownsSerialNumber() = 0;
    virtual bool hasExpectedHardwareVersion() = 0;
    // Whether the running program's version suits this kind (always true
    // while the version is unknown or acceptAnyCofVersion is set).
    virtual bool isCofVersionAccepted() = 0;
    // The kind's DSP image, without folder ("rf.cof").
    std::wstring getCofFileName() override = 0;
    virtual bool isNewIpBoard() { return false; }
    virtual bool isIp163Board() { return false; }
    // Opens every log line about this board.
    virtual std::wstring getName() = 0;
    // Reads cofMajor / cofMinor from the running DSP while they are unknown.
    virtual void readCofVersion() = 0;
    // Sends the kind's flash command; whether the board took it.
    virtual bool flashCOF() = 0;

    // ---- Board detail. The detail is read from the board on first use.
    dspStatus getBoardDetail();
    // Replaces serial, info1, info3, info45 (words 4 and 5) and info7 with
    // the given words, keeps hwVersion and boardType, and sends the detail.
    dspStatus writeBoardDetail(const std::array<std::uint32_t, 8>& words);
    std::uint32_t getSerialNumber();
    std::uint32_t getHardwareVersion();
    std::uint32_t getBoardType();
    std::uint32_t getInfo3();
    std::uint64_t getInfo45();
    std::uint32_t getInfo7();
    std::wstring getSerialNumberText();
    std::wstring getInfo1Text();
    std::wstring getHardwareVersionText();
    std::wstring getBoardTypeText();
    bool isKnownHardwareVersion();
    // "major.minor", or "??" while the version is unknown.
    std::wstring getCofVersionText();

    // ---- DSP operations. Failures come back as dspStatus values.
    // Both answer dspNoUsbComm at once while the board is being removed.
    dspStatus atomicSend(std::uint32_t opcode, const BYTE* data, int length);
    dspStatus atomicGet(std::uint32_t opcode, const BYTE* data, int length, BYTE replyOpcode,
                        BYTE* reply, int* replyLength);
    // The DSP's state; `detail` receives the 60 bytes after the state, or is null.
    dspStatus getStatus(BYTE* detail) override;
    bool isAlive() override;
    // Loads the kind's image from the install folder and starts the DSP.
    dspStatus boot();
    // One line about this board: name, message, calling thread and tick.
    void logMsg(std::wstring msg) override;
    bool isRemoving() const override { return removing.load(); }

    // ---- State.
    // Null only in a controller that handed its link on to its kind.
    std::unique_ptr<CommPolicy_USB> link;
    std::atomic<bool> flashed{false};   // result of the last flashCOF
    std::atomic<bool> removing{false};  // set once the registry retires the board
    // Client sessions bound to this controller (PinSession / UnpinSession);
    // a retired controller is deleted as soon as none holds it.
    std::atomic<int> sessionPins{0};
    std::atomic<std::uint16_t> cofMajor{kUnknownVersion};
    std::atomic<std::uint16_t> cofMinor{kUnknownVersion};

    // ---- The registry (all static).
    // Scans "DSP1:" for boards, retires dead ones, registers and boots new
    // ones. Every caller in the system passes (false, true, false).
    static void EnumDevices(bool assumeT1, bool bootIfAlive, bool flashAfterBoot);
    // Registered controllers (read without the lock).
    static int GetCtlrCount();
    // In index order: analog, T1, RF, then Ethernet boards; null out of range.
    static UsbCtlr* GetCtlr(int index);
    // Per-kind access under registryLock.
    static T1Ctlr* GetT1CtlrForTest(int index);
    static EthernetCtlr* GetEthernetCtlrForTest(int index);
    static RFCtlr* GetRFCtlrForTest(int index);
    static AnalogCtlr* GetAnalogCtlrForTest(int index);
    // Retired controllers not yet deleted.
    static int GetDeadCtlrCount();
    // A client session binds itself to a controller for its lifetime. The
    // caller of PinSession holds registryLock from the choice of the
    // controller on, so it is not retired and deleted in between. Unpinning
    // the last holder of a retired controller deletes it (null: nothing).
    static void PinSession(UsbCtlr* ctlr);
    static void UnpinSession(UsbCtlr* ctlr);
    // Retire one given controller of that kind (nothing if it is not there).
    static void KillT1(UsbCtlr* ctlr);
    static void KillRF(UsbCtlr* ctlr);
    static void KillEnet(UsbCtlr* ctlr);

    // Device arrival (0x8000) or removal (0x8004): remembers `afterEnum`
    // when given and starts a device-change thread. Other events are
    // ignored. Always TRUE.
    static BOOL OnDeviceChange(DWORD event, DWORD data, std::function<void()> afterEnum);
    // A thread at priority level 1 that runs DeviceChangeThreadCallback. If
    // none can be started the process ends with exit code -46.
    static HANDLE StartDeviceChangeThread();
    static void DeviceChangeThreadCallback();
    // Routes the host's device broadcasts and the links' removal reports
    // into OnDeviceChange. Done at process start; calling it again restores
    // the routes.
    static void ConnectDeviceChangeSources();
    // Blocks until no device-change thread runs (for orderly ends and tests).
    static void WaitForDeviceChangeThreads();
    // The orderly end: deletes every controller, closes the log file and
    // leaves the registry locked for good (so the lock analysis skips it).
    static void Shutdown() NO_THREAD_SAFETY_ANALYSIS;
    // Deletes every controller and forgets earlier scans, without locking
    // the registry for good: lets several test cases share one process.
    static void ResetRegistryForTest();

    static NoDestructor<host::CriticalSection> registryLock;

  protected:
    // ---- Shared by the board kinds.
    // The constructor's start-up of a real kind: boots the board unless it
    // already runs an acceptable program and bootIfAlive is false; flashes
    // after a boot when asked and `mayFlash`. Throws the status read after a
    // failed boot.
    void bootUnlessAlive(bool bootIfAlive, bool flashAfterBoot, bool mayFlash);
    // True while the version is unknown or any version is accepted.
    bool versionOpen() const;
    // Asks the DSP for its version reply while the version is unknown (and
    // the board is not being removed); whether `reply` was filled.
    bool queryCofVersion(BYTE opcode, std::vector<BYTE>& reply);
    // The flash command, its result in `flashed` and its log line.
    bool sendFlashCommand(BYTE opcode, const wchar_t* resultFormat);
    // getName's text: "%s" the serial number, "%x" this object.
    std::wstring nameText(const wchar_t* format);
    // The detail after making sure it has been read.
    BoardDetail currentDetail();

    // ---- Registry state. The registry owns every controller in these
    // arrays; each is in exactly one.
    static NoDestructor<std::vector<std::unique_ptr<T1Ctlr>>> T1Ctlrs GUARDED_BY(*registryLock);
    static NoDestructor<std::vector<std::unique_ptr<EthernetCtlr>>> EthernetCtlrs
        GUARDED_BY(*registryLock);
    static NoDestructor<std::vector<std::unique_ptr<RFCtlr>>> RFCtlrs GUARDED_BY(*registryLock);
    static NoDestructor<std::vector<std::unique_ptr<AnalogCtlr>>> AnalogCtlrs
        GUARDED_BY(*registryLock);
    static NoDestructor<std::vector<std::unique_ptr<UsbCtlr>>> DeadCtlrs GUARDED_BY(*registryLock);
    static bool enumActive GUARDED_BY(*registryLock);
    static DWORD lastEnumTick GUARDED_BY(*registryLock);
    // Set by OnDeviceChange, which a link calls with its own lock held, so
    // it has a lock of its own instead of registryLock.
    static NoDestructor<std::function<void()>> afterEnumCallback;
    static NoDestructor<std::mutex> afterEnumMutex;

    template <class Kind>
    static void appendCtlr(std::vector<std::unique_ptr<Kind>>& array, std::unique_ptr<Kind> ctlr)
        REQUIRES(*registryLock) {
        array.push_back(std::move(ctlr));
        updateCtlrCount();
    }
    // Re-counts the four kind arrays.
    static void updateCtlrCount() REQUIRES(*registryLock);

  private:
    friend struct Registry;

    BoardDetail boardDetail;     // guarded by the link's lock
    bool readingSerial = false;  // guarded by the link's lock

    static std::atomic<int> ctlrCount;
    static std::atomic<int> deviceChangeThreads;
    static NoDestructor<std::mutex> deviceChangeMutex;
    static NoDestructor<std::condition_variable> deviceChangeEnded;
};
