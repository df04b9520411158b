#pragma once
// The transport interface between a board controller and its DSP: three
// driver primitives, the two confirmed exchanges, the boot, and the lock that
// serialises whole exchanges on one board.
#include <atomic>
#include <string>
#include <thread>

#include "boards/dsp_status.h"
#include "dsplink/link_owner.h"
#include "platform/sync.h"
#include "platform/win_types.h"

// The link is itself the lock that serialises its exchanges: fields and
// steps of a whole exchange are GUARDED_BY / REQUIRES(this).
class CAPABILITY("link lock") CommPolicy {
  public:
    explicit CommPolicy(LinkOwner* owner) : owner(owner) {}
    // Waits for an exchange still in progress before the lock goes away.
    virtual ~CommPolicy();
    CommPolicy(const CommPolicy&) = delete;
    CommPolicy& operator=(const CommPolicy&) = delete;

    // Loads and starts the DSP program; the caller holds the link lock.
    virtual dspStatus boot() REQUIRES(this) = 0;

    // The link's unnamed default operations (these six and the three below).
    // The board controller's and the registry's steps call some of them, and
    // such a call must keep getting these base answers; since no answer
    // changes what the caller does, this tree leaves those calls out, but the
    // operations stay so the link keeps the interface its users are written
    // against. The USB link overrides only setLinkMode(), which records a
    // value nothing reads.
    virtual bool linkReady() { return true; }
    virtual void resetLink() {}
    virtual int pendingReplies() { return 0; }
    virtual std::wstring linkDescription() { return {}; }
    virtual int linkErrorCount() { return 0; }
    virtual void setLinkMode(DWORD mode) { (void)mode; }

    virtual dspStatus primitiveGetStatus(BYTE* buffer, DWORD* size) = 0;
    virtual dspStatus primitiveGetData(BYTE* buffer, int* size) = 0;
    virtual dspStatus primitiveSendData(const BYTE* message, int size) = 0;
    virtual dspStatus atomicSend(BYTE opcode, const BYTE* data, int length) = 0;
    virtual dspStatus atomicGet(BYTE opcode, const BYTE* data, int length, BYTE replyOpcode,
                                BYTE* reply, int* replyLength) = 0;
    virtual bool isOpen() = 0;

    virtual void suspendLink() {}
    virtual void resumeLink() {}
    virtual bool linkHealthy() { return true; }

    // The link lock (recursive). Hold it with host::LockGuard.
    void lock() ACQUIRE();
    void unlock() RELEASE();

    void setOwner(LinkOwner* newOwner) { owner = newOwner; }
    LinkOwner* getOwner() const { return owner; }

  protected:
    LinkOwner* owner;
    host::CriticalSection mutex;

  private:
    // Who holds `mutex` and how often, so that a release by a thread that
    // does not hold it is reported instead of corrupting the lock.
    std::atomic<std::thread::id> holder_{};
    int depth_ = 0;
};
