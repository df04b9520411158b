#pragma once
// RF boards: serial numbers 1130000001..1229999999, image "rf.cof", program
// major version 53.
#include "boards/usb_ctlr.h"

class RFCtlr final : public UsbCtlr {
  public:
    // Adopts the link of an identified board and boots it unless it already
    // runs an acceptable program and bootIfAlive is false. Throws the
    // board's status (dspStatus) when the boot fails.
    RFCtlr(std::unique_ptr<CommPolicy_USB> adopted, bool bootIfAlive, bool flashAfterBoot);
    ~RFCtlr() override;

    int kindNumber() override { return 1; }
    bool ownsSerialNumber() override;
    bool hasExpectedHardwareVersion() override;
    bool isCofVersionAccepted() override;
    std::wstring getCofFileName() override { return L"rf.cof"; }
    std::wstring getName() override;
    void readCofVersion() override;
    bool flashCOF() override;
};
