// Reaching boards through "DSP1:": one board per open handle, slot order,
// unplugging, device-change announcements.
#include <vector>

#include "platform/devices.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "sim_fixture.h"

namespace simtest {
namespace {

using sim::BoardKind;

class DspBusTest : public SimBusTest {};

TEST_F(DspBusTest, EachOpenReachesOneFreeBoardInSlotOrderThenFails) {
    auto t1 = bus_->attach(BoardKind::T1, 3);
    auto rf = bus_->attach(BoardKind::RF, 1);
    ASSERT_TRUE(t1 && rf);

    DspClient first, second;
    ASSERT_TRUE(first.valid() && second.valid());
    EXPECT_TRUE(rf->held());
    EXPECT_TRUE(t1->held());

    // Each handle talks to its own board: ask each for its identity.
    auto serialOf = [](DspClient& c) {
        c.send(bytes({wire::kDeviceBoardDetail, wire::kBoardDetailRead, 0, 0}));
        auto frame = c.reply(36);
        return wire::readU32le(frame, 4);
    };
    EXPECT_EQ(serialOf(first), rf->serial());
    EXPECT_EQ(serialOf(second), t1->serial());

    HANDLE none = host::CreateFileW(L"DSP1:", host::GENERIC_READ | host::GENERIC_WRITE, 0,
                                    host::OPEN_EXISTING);
    EXPECT_EQ(none, INVALID_HANDLE_VALUE);
}

TEST_F(DspBusTest, ClosingAHandleFreesItsBoardForTheNextOpen) {
    EXPECT_FALSE(DspClient().valid()) << "no board, no handle";
    auto rf = bus_->attach(BoardKind::RF);
    {
        DspClient client;
        ASSERT_TRUE(client.valid());
        DspClient again;
        EXPECT_FALSE(again.valid());
    }
    EXPECT_FALSE(rf->held());
    DspClient later;
    EXPECT_TRUE(later.valid());
}

TEST_F(DspBusTest, DetachedBoardAnswers1167OnEveryCallUntilClosed) {
    bus_->attach(BoardKind::T1);
    DspClient client;
    ASSERT_TRUE(client.valid());
    ASSERT_TRUE(bus_->detach(1));

    sim::StatusBlock block{};
    EXPECT_FALSE(client.status(block));
    EXPECT_EQ(client.lastError, ERROR_DEVICE_NOT_CONNECTED);
    EXPECT_FALSE(client.send(bytes({1, 0x7E, 0, 0})));
    EXPECT_EQ(client.lastError, ERROR_DEVICE_NOT_CONNECTED);
    std::vector<BYTE> frame;
    EXPECT_FALSE(client.getData(frame, 8));
    EXPECT_EQ(client.lastError, ERROR_DEVICE_NOT_CONNECTED);

    // A board plugged into the freed slot is a new board for a new handle.
    auto fresh = bus_->attach(BoardKind::RF, 1);
    ASSERT_TRUE(fresh);
    EXPECT_FALSE(client.status(block));
    DspClient second;
    EXPECT_TRUE(second.valid());
}

TEST_F(DspBusTest, SlotsAreBoundedAndNamed) {
    for (int i = 0; i < 9; ++i) ASSERT_TRUE(bus_->attach(BoardKind::T1)) << i;
    EXPECT_FALSE(bus_->attach(BoardKind::RF));
    EXPECT_FALSE(bus_->attach(BoardKind::RF, 10));
    EXPECT_TRUE(bus_->detach(4));
    EXPECT_FALSE(bus_->detach(4));
    EXPECT_FALSE(bus_->attach(BoardKind::RF, 5));  // taken
    auto rf = bus_->attach(BoardKind::RF);
    ASSERT_TRUE(rf);
    EXPECT_EQ(bus_->slotOf(*rf), 4);
    EXPECT_EQ(bus_->board(4), rf);
    EXPECT_EQ(bus_->boardBySerial(rf->serial()), rf);
}

TEST_F(DspBusTest, ListingShowsEachBoardWithItsState) {
    auto spec = sim::defaultBoardSpec(BoardKind::IP163);
    spec.startsRunning = false;
    bus_->attach(spec, 2);
    bus_->attach(BoardKind::Analog, 5);
    DspClient client;  // holds slot 2

    auto list = bus_->boards();
    ASSERT_EQ(list.size(), 2u);
    const auto shown = [](const sim::BoardInfo& b) {
        return std::make_tuple(b.slot, b.kind, b.serial, b.state, b.programRunning, b.held);
    };
    EXPECT_EQ(shown(list[0]), std::make_tuple(2, BoardKind::IP163, 1245000000u, 2, false, true));
    EXPECT_EQ(shown(list[1]), std::make_tuple(5, BoardKind::Analog, 1350000000u, 4, true, false));
    EXPECT_EQ(list[1].sequence, 1);
    EXPECT_EQ(list[1].version, (sim::ProgramVersion{58, 3}));
}

TEST_F(DspBusTest, AttachAndDetachAnnounceDeviceChangesWhenSwitchedOn) {
    std::vector<DWORD> events;
    std::vector<bool> opened;
    host::setDeviceChangeListener([&](DWORD e) {
        events.push_back(e);
        DspClient client;  // an enumeration runs inside the broadcast
        opened.push_back(client.valid());
    });
    bus_->attach(BoardKind::T1);
    EXPECT_TRUE(events.empty());

    bus_->setAnnounceChanges(true);
    bus_->attach(BoardKind::RF);
    bus_->detach(1);
    bus_->detachAll(/*raiseEvents=*/false);
    host::setDeviceChangeListener(nullptr);
    EXPECT_EQ(events, (std::vector<DWORD>{DBT_DEVICEARRIVAL, DBT_DEVICEREMOVECOMPLETE}));
    EXPECT_EQ(opened, (std::vector<bool>{true, true}));
}

TEST_F(DspBusTest, UninstallUnplugsBoardsAndRemovesTheDriver) {
    auto t1 = bus_->attach(BoardKind::T1);
    DspClient client;
    ASSERT_TRUE(client.valid());
    EXPECT_EQ(sim::installedDspBus(), bus_);

    sim::uninstallDspBus();
    EXPECT_EQ(sim::installedDspBus(), nullptr);
    EXPECT_FALSE(t1->attached());
    sim::StatusBlock block{};
    EXPECT_FALSE(client.status(block));
    EXPECT_EQ(client.lastError, ERROR_DEVICE_NOT_CONNECTED);
    DspClient after;
    EXPECT_FALSE(after.valid());
}

TEST_F(DspBusTest, UnknownControlCodeAndMisplacedBuffersAreRefused) {
    bus_->attach(BoardKind::T1);
    DspClient client;
    BYTE buffer[64] = {};
    EXPECT_FALSE(
        host::DeviceIoControl(client.handle(), 0x00220428, buffer, 64, nullptr, 0, nullptr));
    EXPECT_EQ(host::GetLastError(), ERROR_NOT_SUPPORTED);
    // Status into the output position: the reads fill the input buffer only.
    EXPECT_FALSE(host::DeviceIoControl(client.handle(), wire::IOCTL_DSP_GET_STATUS, nullptr, 0,
                                       buffer, 64, nullptr));
    EXPECT_EQ(host::GetLastError(), ERROR_INVALID_PARAMETER);
    // A frame in the input position of a send.
    EXPECT_FALSE(host::DeviceIoControl(client.handle(), wire::IOCTL_DSP_SEND_DATA, buffer, 4,
                                       nullptr, 0, nullptr));
    EXPECT_EQ(host::GetLastError(), ERROR_INVALID_PARAMETER);
}

}  // namespace
}  // namespace simtest
