// The board controller's own operations: board detail, texts, status,
// liveness, boot and the per-board log front-end.
#include "boards/usb_ctlr.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "boards/error_log.h"
#include "boards/last_good_image.h"
#include "dsplink/wire.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "platform/thread.h"

std::atomic<bool> acceptAnyCofVersion{false};

namespace {

constexpr std::uint16_t kDetailLength = BoardDetail::kSize;

// The controller reads one byte more than the link's 64-byte status block.
constexpr DWORD kStatusReadSize = wire::kStatusBlockSize + 1;
constexpr BYTE kHighestReportedState = 14;

// The newer IP boards need at least this program major version.
constexpr std::uint16_t kNewIpBoardMinimumMajor = 60;

// The flash command's payload: the words 0 and 4829000, little-endian.
constexpr BYTE kFlashPayload[8] = {0, 0, 0, 0, 0x48, 0xAF, 0x49, 0x00};
constexpr int kFlashReplySize = 8;

// The link's lock for a scope, when there is a link.
std::unique_lock<CommPolicy> lockLink(const std::unique_ptr<CommPolicy_USB>& link) {
    return link ? std::unique_lock<CommPolicy>(*link) : std::unique_lock<CommPolicy>();
}

}  // namespace

UsbCtlr::UsbCtlr(HANDLE device) : link(std::make_unique<CommPolicy_USB>(this, device)) {}

UsbCtlr::UsbCtlr(std::unique_ptr<CommPolicy_USB> adopted) : link(std::move(adopted)) {
    if (link) link->setOwner(this);
}

UsbCtlr::~UsbCtlr() = default;  // destroys the link, which closes the driver handle

// ---- Board detail.

dspStatus UsbCtlr::getBoardDetail() {
    if (!link) return dspNoUsbComm;
    host::LockGuard guard(*link);
    std::vector<BYTE> message(dsplink::kFrameBufferSize, 0);
    wire::putFrameHeader(message, wire::kDeviceBoardDetail, wire::kBoardDetailRead, 0);
    if (link->primitiveSendData(message.data(), wire::kFrameHeader) != dspOk)
        LogError(L"UsbCtlr::getBoardDetail() fails in primitiveSendData!");

    wire::putFrameHeader(message, wire::kDeviceBoardDetail, wire::kBoardDetailRead, kDetailLength);
    int size = wire::kFrameHeader + kDetailLength;
    const dspStatus result = link->primitiveGetData(message.data(), &size);
    if (result != dspOk) LogError(L"UsbCtlr::getBoardDetail() fails in primitiveGetData!");

    // Taken whatever the outcome: a failed read leaves what the buffer held.
    boardDetail = BoardDetail::decode(std::span<const BYTE, BoardDetail::kSize>(
        message.data() + wire::kFrameHeader, BoardDetail::kSize));
    return result;
}

dspStatus UsbCtlr::writeBoardDetail(const std::array<std::uint32_t, 8>& words) {
    if (!link) return dspNoUsbComm;
    host::LockGuard guard(*link);
    boardDetail.serial = words[0];
    boardDetail.info1 = words[1];
    boardDetail.info3 = words[3];
    boardDetail.info45 = std::uint64_t{words[4]} | (std::uint64_t{words[5]} << 32);
    boardDetail.info7 = words[7];

    std::vector<BYTE> message(wire::kFrameHeader + BoardDetail::kSize, 0);
    wire::putFrameHeader(message, wire::kDeviceBoardDetail, wire::kBoardDetailWrite, kDetailLength);
    const auto bytes = boardDetail.encode();
    std::copy(bytes.begin(), bytes.end(), message.begin() + wire::kFrameHeader);
    return link->primitiveSendData(message.data(), static_cast<int>(message.size()));
}

std::uint32_t UsbCtlr::getSerialNumber() {
    auto guard = lockLink(link);
    // The log line below names the board, which asks for the serial number
    // again; that nested call must not read a second time (a board that
    // reports 0 would otherwise be read without end). One read per call.
    if (boardDetail.serial == 0 && !readingSerial && link && link->isOpen()) {
        readingSerial = true;
        struct Reading {
            bool& flag;
            ~Reading() { flag = false; }
        } reading{readingSerial};
        getBoardDetail();
        logMsg(L" Obtained serial number!");
    }
    return boardDetail.serial;
}

BoardDetail UsbCtlr::currentDetail() {
    getSerialNumber();
    auto guard = lockLink(link);
    return boardDetail;
}

std::uint32_t UsbCtlr::getHardwareVersion() {
    return currentDetail().hwVersion;
}
std::uint32_t UsbCtlr::getBoardType() {
    return currentDetail().boardType;
}
std::uint32_t UsbCtlr::getInfo3() {
    return currentDetail().info3;
}
std::uint64_t UsbCtlr::getInfo45() {
    return currentDetail().info45;
}

std::uint32_t UsbCtlr::getInfo7() {
    const BoardDetail detail = currentDetail();
    // Boards of hardware version 1003 leave this word undefined.
    return detail.hwVersion == 1003 ? 0 : detail.info7;
}

std::wstring UsbCtlr::getSerialNumberText() {
    return host::wformat(L"%u", getSerialNumber());
}

std::wstring UsbCtlr::getInfo1Text() {
    return host::wformat(L"%u", currentDetail().info1);
}

std::wstring UsbCtlr::getHardwareVersionText() {
    return hardwareVersionText(currentDetail().hwVersion);
}

std::wstring UsbCtlr::getBoardTypeText() {
    const std::uint32_t type = currentDetail().boardType;
    logMsg(host::wformat(L"Board Type value %d", static_cast<int>(type)));
    switch (type) {
        case kBoardTypePcm:
            return L"PCM";
        case kBoardTypeRf:
            return L"RF";
        case kBoardTypeAnalog:
            return L"Analog";
        case kBoardTypeIp:
            return isIp163Board() ? L"IP(163)" : L"IP(150)";
        case kBoardTypeIp155:
            return L"IP(155)";
        case kBoardTypeUnknown:
            return L"Unknown";
        default:
            logMsg(host::wformat(L"Unknown Board Type value %d", static_cast<int>(type)));
            return L"Error?";
    }
}

bool UsbCtlr::isKnownHardwareVersion() {
    return ::isKnownHardwareVersion(currentDetail().hwVersion);
}

std::wstring UsbCtlr::getCofVersionText() {
    const std::uint16_t major = cofMajor.load();
    if (major == kUnknownVersion) return L"??";
    return host::wformat(L"%d.%d", static_cast<int>(major), static_cast<int>(cofMinor.load()));
}

// ---- DSP operations.

dspStatus UsbCtlr::atomicSend(std::uint32_t opcode, const BYTE* data, int length) {
    if (removing || !link) return dspNoUsbComm;
    // The frame carries the opcode in one byte.
    return link->atomicSend(static_cast<BYTE>(opcode), data, length);
}

dspStatus UsbCtlr::atomicGet(std::uint32_t opcode, const BYTE* data, int length, BYTE replyOpcode,
                             BYTE* reply, int* replyLength) {
    if (removing || !link) return dspNoUsbComm;
    return link->atomicGet(static_cast<BYTE>(opcode), data, length, replyOpcode, reply,
                           replyLength);
}

dspStatus UsbCtlr::getStatus(BYTE* detail) {
    if (!link) return dspNoUsbComm;
    host::LockGuard guard(*link);
    if (!isCofVersionAccepted()) return dspWrongCofVersion;

    std::array<BYTE, kStatusReadSize> block{};
    DWORD size = kStatusReadSize;
    const dspStatus result = link->primitiveGetStatus(block.data(), &size);
    if (result != dspOk) return result;
    if (block[0] != wire::kDeviceDsp) return dspMsgMixup;
    if (detail)
        std::memcpy(detail, block.data() + wire::kStatusDetailOffset, wire::kStatusDetailSize);

    const BYTE state = block[wire::kStatusOffset];
    return state > kHighestReportedState ? dspDead : static_cast<dspStatus>(state);
}

bool UsbCtlr::isAlive() {
    if (removing) return false;
    readCofVersion();
    if (!isKnownHardwareVersion() || !isCofVersionAccepted()) return false;
    if (cofMajor == kUnknownVersion) return false;
    const dspStatus s = getStatus(nullptr);
    if (s >= dspRunning && s <= dspBadCommand) return true;
    logMsg(host::wformat(L"USBCtlr::isAlive status = %d!\n", static_cast<int>(s)));
    return false;
}

dspStatus UsbCtlr::boot() {
    if (!link) return dspNoUsbComm;
    // Held for the whole boot so that a registry check of this board waits
    // instead of finding the DSP half-loaded and retiring it.
    host::LockGuard guard(*link);
    flashed = false;
    cofMajor = kUnknownVersion;
    const dspStatus s = link->boot();
    if (s == dspOk) logMsg(L"Boot successful (version " + getCofVersionText() + L")");
    if (isNewIpBoard() && cofMajor < kNewIpBoardMinimumMajor) {
        logMsg(L"This coff version is too old for new IP board!");
        return dspWrongCofVersion;
    }
    return s;
}

void UsbCtlr::logMsg(std::wstring msg) {
    LogError(getName() + msg +
             host::wformat(L"(thread=%x @ %u)", static_cast<unsigned>(host::GetCurrentThreadId()),
                           static_cast<unsigned>(host::GetTickCount())) +
             L"\r\n");
}

// ---- Shared by the board kinds.

void UsbCtlr::bootUnlessAlive(bool bootIfAlive, bool flashAfterBoot, bool mayFlash) {
    // Liveness is checked even when the board is booted anyway: it is what
    // reads the version of the program the board came up with.
    if (isAlive() && !bootIfAlive) return;
    logMsg(L"Attempting boot...");
    // Only the enumeration comes here: a board whose image does not boot gets
    // its kind's previous image, so it stays within a client's reach.
    if (bootWithLastGoodImage(*this) == dspOk) {
        if (mayFlash && flashAfterBoot) flashCOF();
        return;
    }
    const dspStatus status = getStatus(nullptr);
    logMsg(L"Boot Failed!! Status = '" + dspStatusText(status) + L"'");
    throw status;
}

bool UsbCtlr::versionOpen() const {
    return cofMajor == kUnknownVersion || acceptAnyCofVersion;
}

bool UsbCtlr::queryCofVersion(BYTE opcode, std::vector<BYTE>& reply) {
    if (cofMajor != kUnknownVersion || removing) return false;
    int length = static_cast<int>(reply.size());
    return atomicGet(opcode, nullptr, 0, opcode, reply.data(), &length) == dspOk;
}

bool UsbCtlr::sendFlashCommand(BYTE opcode, const wchar_t* resultFormat) {
    bool accepted = false;
    if (!removing) {
        BYTE reply[kFlashReplySize] = {};
        int replyLength = kFlashReplySize;
        accepted = atomicGet(opcode, kFlashPayload, sizeof kFlashPayload, opcode, reply,
                             &replyLength) == dspOk;
    }
    flashed = accepted;
    LogError(host::wformat(resultFormat, getCofVersionText().c_str(), accepted ? 1 : 0));
    return accepted;
}

std::wstring UsbCtlr::nameText(const wchar_t* format) {
    return host::wformat(format, getSerialNumberText().c_str(), logAddress(this));
}
