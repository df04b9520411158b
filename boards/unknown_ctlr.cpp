#include "boards/unknown_ctlr.h"

#include "boards/analog_ctlr.h"
#include "boards/error_log.h"
#include "boards/ethernet_ctlr.h"
#include "boards/rf_ctlr.h"
#include "boards/t1_ctlr.h"
#include "platform/text.h"

namespace {

// Serial number ranges of the kinds, bounds excluded.
constexpr std::uint32_t kT1Low = 1030000000;
constexpr std::uint32_t kRfLow = 1130000000;
constexpr std::uint32_t kEthernetLow = 1230000000;
constexpr std::uint32_t kEthernetHigh = 1270000000;
constexpr std::uint32_t kAnalogLow = 1330000000;
constexpr std::uint32_t kAnalogHigh = 1430000000;

bool strictlyBetween(std::uint32_t value, std::uint32_t low, std::uint32_t high) {
    return value > low && value < high;
}

}  // namespace

UnknownCtlr::UnknownCtlr(HANDLE device, bool assumeT1) : UsbCtlr(device), assumeT1(assumeT1) {
    LogError(host::wformat(
        L"UnknownCtlr::UnknownCtlr Created a UnknownCtlr! Assigned HidHandle #%x (this=%x)",
        static_cast<unsigned>(device), logAddress(this)));
}

UnknownCtlr::~UnknownCtlr() {
    logMsg(host::wformat(L"~UnknownCtlr Destructing: this=%x", logAddress(this)));
}

bool UnknownCtlr::ownsSerialNumber() {
    if (assumeT1) return true;
    const std::uint32_t serial = getSerialNumber();
    return serial >= 1030000001u && serial <= 1429999999u;
}

std::wstring UnknownCtlr::getName() {
    return nameText(L"aUnknownCtlr(Serial#%s this=%x)");
}

UsbCtlr* UnknownCtlr::createKindCtlr(bool bootIfAlive, bool flashAfterBoot) {
    const std::uint32_t serial = getSerialNumber();
    if (strictlyBetween(serial, kT1Low, kRfLow))
        return adoptAs(*T1Ctlrs, serial, true, bootIfAlive, flashAfterBoot);
    if (strictlyBetween(serial, kRfLow, kEthernetLow))
        return adoptAs(*RFCtlrs, serial, true, bootIfAlive, flashAfterBoot);
    if (strictlyBetween(serial, kEthernetLow, kEthernetHigh))
        return adoptAs(*EthernetCtlrs, serial, true, bootIfAlive, flashAfterBoot);
    if (strictlyBetween(serial, kAnalogLow, kAnalogHigh))
        return adoptAs(*AnalogCtlrs, serial, true, bootIfAlive, flashAfterBoot);
    if (assumeT1) return adoptAs(*T1Ctlrs, serial, false, bootIfAlive, flashAfterBoot);
    return nullptr;
}

template <class Kind>
Kind* UnknownCtlr::adoptAs(std::vector<std::unique_ptr<Kind>>& array, std::uint32_t serial,
                           bool checkDuplicate, bool bootIfAlive, bool flashAfterBoot) {
    if (checkDuplicate) {
        for (const auto& registered : array)
            if (registered->getSerialNumber() == serial) return nullptr;
    }
    // The kind takes the link now; if its boot fails it throws, and the link
    // (with the board's handle) goes with the half-built controller.
    auto ctlr = std::make_unique<Kind>(std::move(link), bootIfAlive, flashAfterBoot);
    Kind* registered = ctlr.get();
    appendCtlr(array, std::move(ctlr));
    return registered;
}
