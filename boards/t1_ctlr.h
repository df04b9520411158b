#pragma once
// T1 boards: serial numbers 1030000001..1129999999, image "t1.cof", program
// major version 102.
#include "boards/usb_ctlr.h"

class T1Ctlr final : public UsbCtlr {
  public:
    // Adopts the link of an identified board and boots it unless it already
    // runs an acceptable program and bootIfAlive is false. Throws the
    // board's status (dspStatus) when the boot fails.
    T1Ctlr(std::unique_ptr<CommPolicy_USB> adopted, bool bootIfAlive, bool flashAfterBoot);
    ~T1Ctlr() override;

    int kindNumber() override { return 2; }
    bool ownsSerialNumber() override;
    bool hasExpectedHardwareVersion() override;
    bool isCofVersionAccepted() override;
    std::wstring getCofFileName() override { return L"t1.cof"; }
    std::wstring getName() override;
    void readCofVersion() override;
    bool flashCOF() override;
};
