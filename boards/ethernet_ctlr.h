#pragma once
// Ethernet (IP) boards: serial numbers 1230000001..1329999999, program
// version 99.6. Two generations: IP(150) boards run "ip.cof"; IP(163)
// boards (serial 1240000001 and up, hardware 2000) run "ipg.cof". A board
// whose version reply carries the new-board mark needs program major 60 or
// later.
#include "boards/usb_ctlr.h"

class EthernetCtlr final : public UsbCtlr {
  public:
    // Adopts the link of an identified board and boots it unless it already
    // runs an acceptable program and bootIfAlive is false. Throws the
    // board's status (dspStatus) when the boot fails.
    EthernetCtlr(std::unique_ptr<CommPolicy_USB> adopted, bool bootIfAlive, bool flashAfterBoot);
    ~EthernetCtlr() override;

    int kindNumber() override { return 2; }
    bool ownsSerialNumber() override;
    bool hasExpectedHardwareVersion() override;
    bool isCofVersionAccepted() override;
    std::wstring getCofFileName() override;
    bool isNewIpBoard() override { return newIpBoard.load(); }
    bool isIp163Board() override;
    std::wstring getName() override;
    void readCofVersion() override;
    bool flashCOF() override;

    // Set once a version reply showed the newer IP board; never cleared.
    std::atomic<bool> newIpBoard{false};
};
