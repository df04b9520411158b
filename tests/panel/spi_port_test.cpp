// The SPI port: port objects, transfer requests, failures, and the simulated
// LS7366R counter read through it.
#include <gtest/gtest.h>

#include <atomic>
#include <map>

#include "panel/spi_port.h"
#include "panel_test_support.h"
#include "platform/devices.h"
#include "sim/spi_counter.h"
#include "tests/support/test_support.h"

namespace {

// The counter chip on a port, back at its power-up state. Port objects live
// as long as the process, and so do the devices they opened: each port keeps
// its chip for the process.
std::shared_ptr<sim::Ls7366rCounter> chipOn(int port) {
    static std::map<int, std::shared_ptr<sim::Ls7366rCounter>> chips;
    auto& chip = chips[port];
    if (!chip) chip = sim::installSpiCounter(port);
    chip->reset();
    return chip;
}

// An SPI driver that hands every exchange to its chip until told to refuse.
class RefusingSpi final : public host::StreamDriver, public host::DeviceInstance {
  public:
    std::shared_ptr<host::DeviceInstance> open(DWORD, DWORD, DWORD&) override {
        return self.lock();
    }
    bool ioControl(DWORD code, void* in, DWORD inSize, void*, DWORD, DWORD*,
                   DWORD& error) override {
        if (!refuse) return chip.ioControl(code, in, inSize, error);
        error = ERROR_GEN_FAILURE;
        return false;
    }
    std::weak_ptr<RefusingSpi> self;
    sim::Ls7366rCounter chip;
    std::atomic<bool> refuse{false};
};

// The refusing driver of "SPI3:", kept for the process like the chips.
std::shared_ptr<RefusingSpi> refusingOnPort3() {
    static const auto spi = [] {
        auto made = std::make_shared<RefusingSpi>();
        made->self = made;
        host::registerStreamDriver(L"SPI3:", made);
        return made;
    }();
    spi->refuse = false;
    spi->chip.reset();
    return spi;
}

class SpiPortTest : public panel_test::ManualClockTest {
  protected:
    testing_support::DebugCapture debug_;
};

// The text a refused port throws (its narrow form the same), or "" when the
// port is made.
std::wstring refusalOf(int port) {
    try {
        SpiPort::getPort(port, 1);
    } catch (const SpiPortError& e) {
        const std::string what = e.what();
        EXPECT_EQ(std::wstring(what.begin(), what.end()), e.text());
        return e.text();
    }
    return L"";
}

TEST_F(SpiPortTest, PortOutsideOneToFourOrWithoutADriverIsRefused) {
    for (int port : {5, 0, -1})
        EXPECT_EQ(refusalOf(port), L"Invalid Port Number!! Must be 1 - 4") << port;
    host::registerStreamDriver(L"SPI4:", nullptr);
    EXPECT_EQ(refusalOf(4), L"SPI Port not found!");
    EXPECT_TRUE(debug_.contains(L"Pre create Error = "));
}

TEST_F(SpiPortTest, PortIsMadeOnceWithTheFirstChipSelect) {
    chipOn(1);
    SpiPort* first = SpiPort::getPort(1, 1);
    EXPECT_EQ(SpiPort::getPort(1, 2), first);
    EXPECT_EQ(first->busConfig().chipSelect, 1);
    EXPECT_EQ(first->busConfig().clockHz, 100000u);
    EXPECT_EQ(first->portNumber(), 1);
}

TEST_F(SpiPortTest, BitCountCodeIsTheTransferLengthMinusOne) {
    const std::pair<int, int> cases[] = {{0, 0},   {1, 0},   {2, 7},   {8, 7},  {9, 15},
                                         {16, 15}, {17, 31}, {24, 31}, {32, 31}};
    for (auto [bits, code] : cases) EXPECT_EQ(SpiPort::bitCountCode(bits), code) << bits;
}

TEST_F(SpiPortTest, ReadAnswersTheSixteenBitsAfterTheCommandByte) {
    auto chip = chipOn(2);
    SpiPort* port = SpiPort::getPort(2, 1);
    ASSERT_TRUE(port->writeSPI(0x9002, 16));  // a two-byte counter
    chip->setCount(0x1234);
    // The chip answers ones around the counter's two bytes.
    EXPECT_EQ(port->readSPI(0x60, 24), 0x1234u);
    EXPECT_EQ(chip->lastBusConfig().bitCountCode, 31);
    EXPECT_EQ(port->lastReceived(), 0x1234u);
}

TEST_F(SpiPortTest, WriteSendsTheValueWithItsTransferLength) {
    auto chip = chipOn(2);
    SpiPort* port = SpiPort::getPort(2, 1);
    EXPECT_TRUE(port->writeSPI(0x8803, 16));
    EXPECT_EQ(chip->mdr0(), 0x03);
    EXPECT_EQ(chip->lastBusConfig().bitCountCode, 15);
    EXPECT_TRUE(port->writeSPI(1, 1));
    EXPECT_EQ(chip->lastBusConfig().bitCountCode, 0);
    EXPECT_TRUE(debug_.contains(L"PreError = "));
}

TEST_F(SpiPortTest, RefusedRequestIsReported) {
    auto spi = refusingOnPort3();
    SpiPort* port = SpiPort::getPort(3, 1);
    ASSERT_TRUE(port->writeSPI(0x9002, 16));
    spi->chip.setCount(0xABCD);
    ASSERT_EQ(port->readSPI(0x60, 24), 0xABCDu);
    spi->refuse = true;
    EXPECT_FALSE(port->writeSPI(0x9002, 16));
    EXPECT_TRUE(debug_.contains(L"CSPI_TestDlg::writeSPI DeviceIOControl fails!\n"));
    EXPECT_TRUE(debug_.contains(L"Error = A device attached to the system is not functioning."));
    // A refused read goes on with what the last exchange left.
    EXPECT_EQ(port->readSPI(0x60, 24), 0xABu);
    EXPECT_TRUE(debug_.contains(L"CSPI_TestDlg::readSPI DeviceIOControl fails!\n"));
}

TEST_F(SpiPortTest, ExchangeThatNeverCompletesTimesOut) {
    auto chip = chipOn(2);
    SpiPort* port = SpiPort::getPort(2, 1);
    chip->withholdCompletion(true);
    panel_test::ClockPusher pusher(*clock_, 100);
    EXPECT_FALSE(port->writeSPI(0x8803, 16));
    EXPECT_TRUE(debug_.contains(L"CSPI_TestDlg::writeSPI WaitForSingleObject timeout!\n"));
    EXPECT_EQ(port->readSPI(0x60, 24), 0xFFFFFFFFu);
    EXPECT_TRUE(debug_.contains(L"CSPI_TestDlg::readSPI WaitForSingleObject error!\n"));
}

TEST_F(SpiPortTest, SimulatedCounterClearsLoadsAndStops) {
    auto chip = chipOn(1);
    SpiPort* port = SpiPort::getPort(1, 1);
    ASSERT_TRUE(port->writeSPI(0x9002, 16));
    chip->turn(40);
    ASSERT_TRUE(port->writeSPI(0x20, 8));  // clear CNTR
    EXPECT_EQ(chip->count(), 0u);
    ASSERT_TRUE(port->writeSPI(0x98123400, 32));  // DTR <- 0x1234
    ASSERT_TRUE(port->writeSPI(0xE0, 8));         // load CNTR from DTR
    EXPECT_EQ(port->readSPI(0x60, 24), 0x1234u);
    ASSERT_TRUE(port->writeSPI(0x9006, 16));  // counting disabled
    chip->turn(3);
    EXPECT_EQ(chip->count(), 0x1234u);
}

}  // namespace
