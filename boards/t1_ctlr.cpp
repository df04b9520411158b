#include "boards/t1_ctlr.h"

#include "boards/error_log.h"
#include "platform/text.h"

namespace {

constexpr BYTE kVersionOpcode = 12;
constexpr std::size_t kVersionReplySize = 16;
constexpr BYTE kFlashOpcode = 50;
constexpr std::uint16_t kAcceptedMajor = 102;

// The version bytes are signed: 0xFF reads as 0xFFFF.
std::uint16_t signExtended(BYTE value) {
    return static_cast<std::uint16_t>(static_cast<std::int16_t>(static_cast<std::int8_t>(value)));
}

}  // namespace

T1Ctlr::T1Ctlr(std::unique_ptr<CommPolicy_USB> adopted, bool bootIfAlive, bool flashAfterBoot)
    : UsbCtlr(std::move(adopted)) {
    LogError(host::wformat(L"T1Ctlr::T1Ctlr Created a T1Ctlr! (this=%x)", logAddress(this)));
    bootUnlessAlive(bootIfAlive, flashAfterBoot, true);
}

T1Ctlr::~T1Ctlr() {
    logMsg(host::wformat(L"~T1Ctlr Destructing: this=%x", logAddress(this)));
}

bool T1Ctlr::ownsSerialNumber() {
    const std::uint32_t serial = getSerialNumber();
    return serial >= 1030000001u && serial <= 1129999999u;
}

bool T1Ctlr::hasExpectedHardwareVersion() {
    return getHardwareVersion() == 1006;
}

bool T1Ctlr::isCofVersionAccepted() {
    return versionOpen() || cofMajor == kAcceptedMajor;
}

std::wstring T1Ctlr::getName() {
    return nameText(L"aT1Ctlr(Serial#%s this=%x)");
}

void T1Ctlr::readCofVersion() {
    std::vector<BYTE> reply(kVersionReplySize, 0);
    if (!queryCofVersion(kVersionOpcode, reply)) return;
    // Minor first: a reader that sees the major known also sees its minor.
    cofMinor = signExtended(reply[15]);
    cofMajor = signExtended(reply[14]);
}

bool T1Ctlr::flashCOF() {
    return sendFlashCommand(kFlashOpcode, L"T1Ctlr::flashCOF version '%s' success=%d");
}
