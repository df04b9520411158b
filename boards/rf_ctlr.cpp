#include "boards/rf_ctlr.h"

#include "boards/error_log.h"
#include "dsplink/wire.h"
#include "platform/text.h"

namespace {

constexpr BYTE kVersionOpcode = 1;
constexpr std::size_t kVersionReplySize = 36;
constexpr BYTE kFlashOpcode = 15;
constexpr std::uint16_t kAcceptedMajor = 53;

}  // namespace

RFCtlr::RFCtlr(std::unique_ptr<CommPolicy_USB> adopted, bool bootIfAlive, bool flashAfterBoot)
    : UsbCtlr(std::move(adopted)) {
    LogError(host::wformat(L"RFCtlr::RFCtlr Created a RFCtlr!(this=%x)", logAddress(this)));
    bootUnlessAlive(bootIfAlive, flashAfterBoot, true);
}

RFCtlr::~RFCtlr() {
    logMsg(host::wformat(L" Destructing: this=%x", logAddress(this)));
}

bool RFCtlr::ownsSerialNumber() {
    const std::uint32_t serial = getSerialNumber();
    return serial >= 1130000001u && serial <= 1229999999u;
}

bool RFCtlr::hasExpectedHardwareVersion() {
    return getHardwareVersion() == 2002;
}

bool RFCtlr::isCofVersionAccepted() {
    return versionOpen() || cofMajor == kAcceptedMajor;
}

std::wstring RFCtlr::getName() {
    return nameText(L"aRFCtlr(Serial#%s)");
}

void RFCtlr::readCofVersion() {
    std::vector<BYTE> reply(kVersionReplySize, 0);
    if (!queryCofVersion(kVersionOpcode, reply)) return;
    // The low halves of the 32-bit words at 20 (major) and 24 (minor).
    cofMinor = wire::readU16le(reply, 24);
    cofMajor = wire::readU16le(reply, 20);
}

bool RFCtlr::flashCOF() {
    return sendFlashCommand(kFlashOpcode, L"RFCtlr::flashCOF version '%s' success=%d");
}
