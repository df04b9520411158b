// The SPI port: port objects, transfer requests, failures, and the simulated
// LS7366R counter read through it.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <mutex>

#include "panel/spi_port.h"
#include "panel_test_support.h"
#include "platform/devices.h"
#include "platform/sync.h"
#include "platform/text.h"
#include "sim/spi_counter.h"
#include "tests/support/test_support.h"

namespace {

// An SPI driver that answers every exchange with a fixed received word and
// remembers what it was asked.
class ScriptedSpi final : public host::StreamDriver, public host::DeviceInstance {
  public:
    std::shared_ptr<host::DeviceInstance> open(DWORD, DWORD, DWORD&) override {
        return self.lock();
    }
    bool ioControl(DWORD code, void* in, DWORD inSize, void*, DWORD, DWORD*,
                   DWORD& error) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (fail) {
            error = ERROR_GEN_FAILURE;
            return false;
        }
        host::SpiExchange* request = nullptr;
        std::memcpy(&request, in, sizeof request);
        lastCode = code;
        lastInSize = inSize;
        lastConfig = *request->config;
        lastTx = *request->tx;
        *request->rx = answer;
        if (complete) host::SetEvent(request->event);
        return true;
    }

    // Port objects live as long as the process, and so do the devices they
    // opened: each port keeps one scripted driver, set back for every test.
    static std::shared_ptr<ScriptedSpi> on(int port) {
        static std::map<int, std::shared_ptr<ScriptedSpi>> drivers;
        auto& driver = drivers[port];
        if (!driver) {
            driver = std::make_shared<ScriptedSpi>();
            driver->self = driver;
            host::registerStreamDriver(host::wformat(L"SPI%d:", port), driver);
        }
        std::lock_guard<std::mutex> lock(driver->mutex);
        driver->answer = 0;
        driver->fail = false;
        driver->complete = true;
        return driver;
    }

    std::weak_ptr<ScriptedSpi> self;
    std::mutex mutex;
    DWORD answer = 0;
    bool fail = false;
    bool complete = true;
    DWORD lastCode = 0;
    DWORD lastInSize = 0;
    DWORD lastTx = 0;
    host::SpiBusConfig lastConfig{};
};

// The counter chip on port 1, the same way.
std::shared_ptr<sim::Ls7366rCounter> counterOnPort1() {
    static const auto chip = sim::installSpiCounter(1);
    chip->reset();
    return chip;
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
    counterOnPort1();
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
    auto spi = ScriptedSpi::on(2);
    spi->answer = 0xAB123456;
    SpiPort* port = SpiPort::getPort(2, 1);
    EXPECT_EQ(port->readSPI(0x60, 24), 0x1234u);
    EXPECT_EQ(spi->lastCode, host::IOCTL_SPI_EXCHANGE);
    EXPECT_EQ(spi->lastInSize, 20u);
    EXPECT_EQ(spi->lastTx, 0x60000000u);
    EXPECT_EQ(spi->lastConfig.bitCountCode, 31);
    EXPECT_EQ(port->lastReceived(), 0x1234u);
}

TEST_F(SpiPortTest, WriteSendsTheValueWithItsTransferLength) {
    auto spi = ScriptedSpi::on(2);
    SpiPort* port = SpiPort::getPort(2, 1);
    EXPECT_TRUE(port->writeSPI(0x8803, 16));
    EXPECT_EQ(spi->lastTx, 0x8803u);
    EXPECT_EQ(spi->lastConfig.bitCountCode, 15);
    EXPECT_TRUE(port->writeSPI(1, 1));
    EXPECT_EQ(spi->lastConfig.bitCountCode, 0);
    EXPECT_TRUE(debug_.contains(L"PreError = "));
}

TEST_F(SpiPortTest, RefusedRequestIsReported) {
    auto spi = ScriptedSpi::on(3);
    SpiPort* port = SpiPort::getPort(3, 1);
    spi->answer = 0x00ABCD00;
    ASSERT_EQ(port->readSPI(0x60, 24), 0xABCDu);
    spi->fail = true;
    EXPECT_FALSE(port->writeSPI(0x9002, 16));
    EXPECT_TRUE(debug_.contains(L"CSPI_TestDlg::writeSPI DeviceIOControl fails!\n"));
    EXPECT_TRUE(debug_.contains(L"Error = A device attached to the system is not functioning."));
    // A refused read goes on with what the last exchange left.
    EXPECT_EQ(port->readSPI(0x60, 24), 0xABu);
    EXPECT_TRUE(debug_.contains(L"CSPI_TestDlg::readSPI DeviceIOControl fails!\n"));
}

TEST_F(SpiPortTest, ExchangeThatNeverCompletesTimesOut) {
    auto spi = ScriptedSpi::on(3);
    SpiPort* port = SpiPort::getPort(3, 1);
    spi->complete = false;
    panel_test::ClockPusher pusher(*clock_, 100);
    EXPECT_FALSE(port->writeSPI(0x8803, 16));
    EXPECT_TRUE(debug_.contains(L"CSPI_TestDlg::writeSPI WaitForSingleObject timeout!\n"));
    EXPECT_EQ(port->readSPI(0x60, 24), 0xFFFFFFFFu);
    EXPECT_TRUE(debug_.contains(L"CSPI_TestDlg::readSPI WaitForSingleObject error!\n"));
}

TEST_F(SpiPortTest, SimulatedCounterFollowsTheEncoder) {
    auto chip = counterOnPort1();
    SpiPort* port = SpiPort::getPort(1, 1);
    ASSERT_TRUE(port->writeSPI(0x8803, 16));
    ASSERT_TRUE(port->writeSPI(0x9002, 16));
    EXPECT_EQ(chip->mdr0(), 0x03);
    EXPECT_EQ(chip->mdr1(), 0x02);
    EXPECT_EQ(chip->counterBytes(), 2);
    EXPECT_EQ(port->readSPI(0x60, 24), 0u);
    chip->turn(5);
    EXPECT_EQ(port->readSPI(0x60, 24), 5u);
    chip->turn(-7);
    EXPECT_EQ(port->readSPI(0x60, 24), 0xFFFEu);
    EXPECT_EQ(chip->lastBusConfig().chipSelect, 1);
    EXPECT_EQ(chip->lastBusConfig().bitCountCode, 31);
}

TEST_F(SpiPortTest, SimulatedCounterClearsLoadsAndStops) {
    auto chip = counterOnPort1();
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
