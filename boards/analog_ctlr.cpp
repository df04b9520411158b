#include "boards/analog_ctlr.h"

#include "boards/error_log.h"
#include "platform/text.h"

namespace {

constexpr BYTE kVersionOpcode = 1;
constexpr std::size_t kVersionReplySize = 660;
constexpr std::uint16_t kAcceptedMajor = 58;

}  // namespace

AnalogCtlr::AnalogCtlr(std::unique_ptr<CommPolicy_USB> adopted, bool bootIfAlive,
                       bool flashAfterBoot)
    : UsbCtlr(std::move(adopted)) {
    LogError(
        host::wformat(L"AnalogCtlr::AnalogCtlr Created a AnalogCtlr!(this=%x)", logAddress(this)));
    bootUnlessAlive(bootIfAlive, flashAfterBoot, false);
}

AnalogCtlr::~AnalogCtlr() {
    logMsg(host::wformat(L"~AnalogCtlr Destructing: this=%x", logAddress(this)));
}

bool AnalogCtlr::ownsSerialNumber() {
    const std::uint32_t serial = getSerialNumber();
    return serial >= 1330000001u && serial <= 1429999999u;
}

bool AnalogCtlr::hasExpectedHardwareVersion() {
    return getHardwareVersion() == 1006;
}

bool AnalogCtlr::isCofVersionAccepted() {
    return versionOpen() || cofMajor == kAcceptedMajor;
}

std::wstring AnalogCtlr::getName() {
    return nameText(L"aAnalogCtlr(Serial#%s this=%x)");
}

void AnalogCtlr::readCofVersion() {
    std::vector<BYTE> reply(kVersionReplySize, 0);
    if (!queryCofVersion(kVersionOpcode, reply)) return;
    cofMinor = reply[1];
    cofMajor = reply[0];
}
