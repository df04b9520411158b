#pragma once
// Common set-up of the board controller and registry tests: a temporary unit
// root with the default DSP images installed, virtual time, and the
// simulated boards behind "DSP1:".
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "boards/usb_ctlr.h"
#include "platform/clock.h"
#include "sim/dsp_bus.h"
#include "tests/support/test_support.h"

namespace boardtest {

// A board kind of its own for testing what UsbCtlr does by itself: every
// kind decision is a setting.
class ProbeCtlr final : public UsbCtlr {
  public:
    explicit ProbeCtlr(HANDLE device) : UsbCtlr(device) {}

    int kindNumber() override { return 9; }
    bool ownsSerialNumber() override { return true; }
    bool hasExpectedHardwareVersion() override { return true; }
    bool isCofVersionAccepted() override { return acceptVersion; }
    std::wstring getCofFileName() override { return L"t1.cof"; }
    bool isIp163Board() override { return ip163; }
    std::wstring getName() override { return L"aProbe"; }
    void readCofVersion() override {
        ++versionReads;
        if (knownMajor) cofMajor = *knownMajor;
    }
    bool flashCOF() override { return false; }

    bool acceptVersion = true;
    bool ip163 = false;
    std::optional<std::uint16_t> knownMajor;
    int versionReads = 0;
};

class BoardTest : public ::testing::Test {
  protected:
    BoardTest();
    ~BoardTest() override;

    // Plugs in a board of the kind's default spec, optionally with another
    // serial number; `slot` 0 takes the lowest free one.
    std::shared_ptr<sim::SimDspBoard> attach(sim::BoardKind kind, std::uint32_t serial = 0,
                                             int slot = 0);
    std::shared_ptr<sim::SimDspBoard> attach(const sim::BoardSpec& spec, int slot = 0);

    // Opens "DSP1:" as the registry does (reaches the lowest unheld board).
    static HANDLE openDriver();

    // Every test starts with an image per kind whose program reports the
    // default image's version (t1 102.2, rf 53.3, ip/ipg 99.6, pots 58.4).
    // Replaces an image of the install folder by one whose program reports
    // the given version.
    void installImage(const std::wstring& fileName, std::uint16_t major, std::uint16_t minor);

    // What the enumeration logged, in order.
    static std::vector<std::wstring> log() { return testing_support::logLines(); }
    static bool logged(const std::wstring& fragment) {
        return testing_support::logContains(fragment);
    }
    static int loggedCount(const std::wstring& fragment) {
        return testing_support::logCount(fragment);
    }

    testing_support::TempUnitRoot root;
    std::shared_ptr<host::ManualClock> clock = std::make_shared<host::ManualClock>(1000);
    host::ScopedClock scopedClock{clock};
    std::shared_ptr<sim::SimDspBus> bus = sim::installDspBus(false);
};

}  // namespace boardtest
