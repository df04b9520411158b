#pragma once
// Common set-up of the link tests: a temporary unit root, virtual time, the
// scripted driver as "DSP1:", an owner that records its log lines, and a
// receiver for the link's removal reports.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dsplink/comm_policy_usb.h"
#include "dsplink/device_change_hook.h"
#include "platform/clock.h"
#include "tests/dsplink/scripted_dsp.h"
#include "tests/support/test_support.h"

namespace linktest {

// The board controller's part, as far as the link sees it: the status query
// reads a 65-byte block under the link lock, liveness is a state of 4..9.
class TestOwner : public LinkOwner {
  public:
    void logMsg(std::wstring msg) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(msg));
    }
    bool isRemoving() const override { return removing.load(); }
    std::wstring getCofFileName() override { return cofFileName; }
    dspStatus getStatus(BYTE* detail) override;
    bool isAlive() override {
        const dspStatus s = getStatus(nullptr);
        return s >= dspRunning && s <= dspBadCommand;
    }

    std::vector<std::wstring> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    int count(const std::wstring& fragment) const;

    std::atomic<bool> removing{false};
    std::wstring cofFileName = L"test.cof";
    CommPolicy_USB* link = nullptr;
    std::atomic<int> statusQueries{0};

  private:
    mutable std::mutex mutex_;
    std::vector<std::wstring> lines_;
};

// The link's dump of a frame: its first 64 bytes (zeros past its end) in hex.
std::wstring dumpOf(const wchar_t* title, const std::vector<BYTE>& frame);

class LinkTest : public ::testing::Test {
  protected:
    LinkTest();
    ~LinkTest() override;

    // A link on a freshly opened "DSP1:" handle.
    std::unique_ptr<CommPolicy_USB> openLink();
    std::vector<std::wstring> usbLog() const { return testing_support::logLines(); }
    int usbLogCount(const std::wstring& fragment) const {
        return testing_support::logCount(fragment);
    }

    testing_support::TempUnitRoot root;
    std::shared_ptr<host::ManualClock> clock = std::make_shared<host::ManualClock>(1000);
    host::ScopedClock scopedClock{clock};
    std::shared_ptr<ScriptedDsp> dsp = ScriptedDsp::install();
    TestOwner owner;

    struct Removal {
        DWORD event;
        DWORD tick;
    };
    std::mutex removalMutex;
    std::vector<Removal> removals;
};

}  // namespace linktest
