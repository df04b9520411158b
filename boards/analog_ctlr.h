#pragma once
// Analog line boards: serial numbers 1330000001..1429999999, image
// "pots.cof", program major version 58. Their program cannot be flashed.
#include "boards/usb_ctlr.h"

class AnalogCtlr final : public UsbCtlr {
  public:
    // Adopts the link of an identified board and boots it unless it already
    // runs an acceptable program and bootIfAlive is false (never flashed).
    // Throws the board's status (dspStatus) when the boot fails.
    AnalogCtlr(std::unique_ptr<CommPolicy_USB> adopted, bool bootIfAlive, bool flashAfterBoot);
    ~AnalogCtlr() override;

    int kindNumber() override { return 4; }
    bool ownsSerialNumber() override;
    bool hasExpectedHardwareVersion() override;
    bool isCofVersionAccepted() override;
    std::wstring getCofFileName() override { return L"pots.cof"; }
    std::wstring getName() override;
    void readCofVersion() override;
    bool flashCOF() override { return false; }
};
