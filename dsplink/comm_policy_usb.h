#pragma once
// The DSP link over the USB/DSP stream driver "DSP1:": driver primitives with
// retries and recovery, the status/sequence handshake that confirms every
// command, and the boot loader that downloads a DSP program image.
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "dsplink/coff_section.h"
#include "dsplink/comm_policy.h"
#include "dsplink/wire.h"

namespace dsplink {

// The link's buffers: a frame header and a frame.
inline constexpr int kFrameBufferSize = wire::kMaxFrame + wire::kFrameHeader;  // 8188
inline constexpr int kCtrlCopyBufferSize = 8189;  // positions 1..64 used
inline constexpr int kCtrlCopyBytes = 64;

// Boot image chunks carry at most this many data bytes.
inline constexpr std::uint32_t kBootChunkData = 820;

}  // namespace dsplink

class CommPolicy_USB : public CommPolicy {
  public:
    // Takes ownership of `handle` (which may be NULL or INVALID_HANDLE_VALUE;
    // every primitive then answers dspNoUsbComm).
    CommPolicy_USB(LinkOwner* owner, HANDLE handle);
    ~CommPolicy_USB() override;

    dspStatus boot() REQUIRES(this) override;
    void setLinkMode(DWORD mode) override { linkMode = mode; }

    dspStatus primitiveGetStatus(BYTE* buffer, DWORD* size) override;
    dspStatus primitiveGetData(BYTE* buffer, int* size) override;
    dspStatus primitiveSendData(const BYTE* message, int size) override;
    dspStatus atomicSend(BYTE opcode, const BYTE* data, int length) override;
    dspStatus atomicGet(BYTE opcode, const BYTE* data, int length, BYTE replyOpcode, BYTE* reply,
                        int* replyLength) override;
    bool isOpen() override;

    // Recovery after a primitive failed for good: closes the handle and,
    // unless the owner is retiring the board, reports the board as removed.
    // Always answers dspUsbCommFailed.
    dspStatus ioFailure();
    // Closes the driver handle, so the board can be opened again by another
    // link; every primitive answers dspNoUsbComm from then on.
    void releaseDevice();

    // Handshake steps; the caller holds the link lock.
    dspStatus privateSendData(BYTE opcode, const BYTE* data, int length) REQUIRES(this);
    dspStatus waitForStatusOrTimeout(BYTE expected) REQUIRES(this);
    dspStatus privateGetData(BYTE replyOpcode, BYTE* reply, int* replyLength) REQUIRES(this);
    void initSeqNum() REQUIRES(this);
    void dumpCtrlIn();
    void dumpCtrlOut();

    // Boot loader steps (the boot holds the link lock; the frames themselves
    // use no guarded buffer).
    dspStatus readCoffFile(const std::wstring& path) REQUIRES(this);
    dspStatus downloadCof() REQUIRES(this);
    struct ChunkResult {
        dspStatus status = dspOk;
        std::uint32_t nextAddress = 0;  // meaningful only when status is dspOk
    };
    ChunkResult writeSection(int index, std::uint32_t address) REQUIRES(this);
    ChunkResult writeBSTchunk(std::uint32_t address, std::uint32_t numOctets, const BYTE* data);
    dspStatus sendCofStart();
    dspStatus sendCofData(const BYTE* chunk, int length);
    dspStatus sendCofEnd();

    // Observers for diagnostics and tests.
    BYTE sequenceNumber() const REQUIRES(this) { return dspSN; }
    bool sequenceInitNeeded() const REQUIRES(this) { return needSeqInit; }
    HANDLE deviceHandle() const { return handle.load(); }
    DWORD lastErrorCode() const { return lastError; }
    const CoffSectionTable& coffSections() const REQUIRES(this) { return sections; }
    int coffSectionCount() const REQUIRES(this) { return sectionCount; }

  private:
    enum class Primitive { GetStatus, SendData, GetData };
    dspStatus retryIoControl(Primitive which, BYTE* buffer, DWORD size);
    dspStatus sendBootFrame(BYTE device, const BYTE* payload, int length);
    void logToOwner(const std::wstring& msg);
    void dumpCopy(const wchar_t* title, const std::vector<BYTE>& copy);

    // The state of whole exchanges and boots, which hold the link lock.
    BYTE dspSN GUARDED_BY(this) = 1;
    bool needSeqInit GUARDED_BY(this) = true;
    std::vector<BYTE> txBuf GUARDED_BY(this);
    std::vector<BYTE> rxBuf GUARDED_BY(this);
    CoffSectionTable sections GUARDED_BY(this){};
    int sectionCount GUARDED_BY(this) = 0;
    // Sessions call the primitives without the link lock (their raw
    // requests), so what the primitives themselves touch is not guarded by
    // it: the handle is read and given up atomically, and the raw copies and
    // the last error are diagnostics only, which a raw request beside an
    // exchange may overwrite.
    std::atomic<HANDLE> handle;
    std::vector<BYTE> ctrlIn;
    std::vector<BYTE> ctrlOut;
    DWORD lastError = 0;
    DWORD linkMode = 2;  // kept for the transport-mode hook; nothing reads it
};
