#pragma once
// A board that has just been opened and not yet identified. It lives for one
// step of an enumeration: it reads the board's serial number and hands its
// link on to a controller of the matching kind (createKindCtlr).
#include "boards/usb_ctlr.h"

class UnknownCtlr final : public UsbCtlr {
  public:
    // Wraps a freshly opened driver handle; the link created here owns it.
    UnknownCtlr(HANDLE device, bool assumeT1);
    ~UnknownCtlr() override;

    int kindNumber() override { return 0; }
    bool ownsSerialNumber() override;
    bool hasExpectedHardwareVersion() override { return isKnownHardwareVersion(); }
    bool isCofVersionAccepted() override { return true; }
    std::wstring getCofFileName() override { return L"???"; }
    std::wstring getName() override;
    void readCofVersion() override {}
    bool flashCOF() override { return false; }

    // Makes, boots and registers the controller of the board's kind, which
    // takes over the link. Null when the board is registered already or its
    // serial number lies in no known range (and assumeT1 is not set). Throws
    // what the kind's constructor throws when the boot fails. Needs
    // registryLock. The new controller joins its kind's array as soon as its
    // constructor has finished, so the registry only ever owns complete
    // controllers.
    UsbCtlr* createKindCtlr(bool bootIfAlive, bool flashAfterBoot) REQUIRES(*registryLock);

    // Serial numbers outside every range make T1 boards.
    const bool assumeT1;

  private:
    template <class Kind>
    Kind* adoptAs(std::vector<std::unique_ptr<Kind>>& array, std::uint32_t serial,
                  bool checkDuplicate, bool bootIfAlive, bool flashAfterBoot)
        REQUIRES(*registryLock);
};
