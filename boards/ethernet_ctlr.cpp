#include "boards/ethernet_ctlr.h"

#include "boards/error_log.h"
#include "dsplink/wire.h"
#include "platform/text.h"

namespace {

constexpr BYTE kVersionOpcode = 1;
constexpr std::size_t kVersionReplySize = 764;
constexpr std::size_t kNewBoardMarkOffset = 756;
constexpr std::uint32_t kNewBoardMark = 0x01180001;
constexpr BYTE kFlashOpcode = 0;
constexpr std::uint16_t kAcceptedMajor = 99;
constexpr std::uint16_t kAcceptedMinor = 6;

}  // namespace

EthernetCtlr::EthernetCtlr(std::unique_ptr<CommPolicy_USB> adopted, bool bootIfAlive,
                           bool flashAfterBoot)
    : UsbCtlr(std::move(adopted)) {
    LogError(host::wformat(L"EthernetCtlr::EthernetCtlr Created a EthernetCtlr!(this=%x)",
                           logAddress(this)));
    bootUnlessAlive(bootIfAlive, flashAfterBoot, true);
}

EthernetCtlr::~EthernetCtlr() {
    logMsg(host::wformat(L"~EthernetCtlr Destructing: this=%x", logAddress(this)));
}

bool EthernetCtlr::ownsSerialNumber() {
    const std::uint32_t serial = getSerialNumber();
    return serial >= 1230000001u && serial <= 1329999999u;
}

bool EthernetCtlr::hasExpectedHardwareVersion() {
    return getHardwareVersion() == (isIp163Board() ? 2000u : 1006u);
}

bool EthernetCtlr::isCofVersionAccepted() {
    return versionOpen() || (cofMajor == kAcceptedMajor && cofMinor == kAcceptedMinor);
}

std::wstring EthernetCtlr::getCofFileName() {
    return isIp163Board() ? L"ipg.cof" : L"ip.cof";
}

bool EthernetCtlr::isIp163Board() {
    const std::uint32_t serial = getSerialNumber();
    return serial >= 1240000001u && serial <= 1329999999u;
}

std::wstring EthernetCtlr::getName() {
    return nameText(L"aEthernetCtlr(Serial#%s this=%x)");
}

void EthernetCtlr::readCofVersion() {
    std::vector<BYTE> reply(kVersionReplySize, 0);
    if (!queryCofVersion(kVersionOpcode, reply)) return;
    if (wire::readU32le(reply, kNewBoardMarkOffset) == kNewBoardMark) newIpBoard = true;
    cofMinor = wire::readU16le(reply, 2);
    cofMajor = wire::readU16le(reply, 0);
}

bool EthernetCtlr::flashCOF() {
    return sendFlashCommand(kFlashOpcode, L"EthernetCtlr::flashCOF version '%s' success=%d");
}
