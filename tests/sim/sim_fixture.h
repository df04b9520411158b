#pragma once
// A bus with virtual time, and a thin driver client that speaks to a board
// through CreateFileW/DeviceIoControl like the link does.
#include <gtest/gtest.h>

#include <memory>
#include <span>
#include <vector>

#include "platform/clock.h"
#include "sim/dsp_bus.h"

namespace simtest {

// One open handle of "DSP1:".
class DspClient {
  public:
    DspClient();  // opens "DSP1:"
    ~DspClient();
    DspClient(const DspClient&) = delete;
    DspClient& operator=(const DspClient&) = delete;

    bool valid() const { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE handle() const { return handle_; }

    // Each answers whether DeviceIoControl succeeded; `lastError` holds the
    // error of the last failed call.
    bool status(sim::StatusBlock& block, DWORD size = 64);
    bool send(std::span<const BYTE> frame);
    bool getData(std::vector<BYTE>& frame, DWORD size);

    // Conveniences that expect success.
    sim::StatusBlock status();
    BYTE state() { return status()[wire::kStatusOffset]; }
    BYTE sequence() { return status()[wire::kSequenceOffset]; }
    void command(BYTE opcode, std::span<const BYTE> payload = {});
    // The reply frame, header included, read with a buffer of `size` bytes.
    std::vector<BYTE> reply(DWORD size);

    DWORD lastError = 0;

  private:
    HANDLE handle_;
};

class SimBusTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    std::shared_ptr<host::ManualClock> clock_ = std::make_shared<host::ManualClock>(1000);
    std::unique_ptr<host::ScopedClock> scopedClock_;
    std::shared_ptr<sim::SimDspBus> bus_;
};

// One board (T1 unless a derived fixture's constructor says otherwise) on
// the bus, and a client with its own driver handle.
class OneBoardTest : public SimBusTest {
  protected:
    void SetUp() override {
        SimBusTest::SetUp();
        board_ = bus_->attach(kind_);
        client_ = std::make_unique<DspClient>();
    }
    void TearDown() override {
        client_.reset();
        SimBusTest::TearDown();
    }
    sim::BoardKind kind_ = sim::BoardKind::T1;
    std::shared_ptr<sim::SimDspBoard> board_;
    std::unique_ptr<DspClient> client_;
};

std::vector<BYTE> bytes(std::initializer_list<int> values);

}  // namespace simtest
