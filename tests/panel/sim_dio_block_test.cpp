// The simulated "DIO1:" block as the program's requests see it.
#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "panel_test_support.h"
#include "platform/devices.h"
#include "platform/dio_spi.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/sync.h"
#include "sim/dio_block.h"

namespace {

class SimDioBlockTest : public panel_test::ManualClockTest {
  protected:
    SimDioBlockTest() {
        device_ = host::CreateFileW(L"DIO1:", host::GENERIC_READ | host::GENERIC_WRITE, 0,
                                    host::OPEN_EXISTING);
    }
    ~SimDioBlockTest() override {
        host::CloseHandle(device_);
        sim::uninstallDioBlock();
    }

    bool request(DWORD code, std::initializer_list<DWORD> words) {
        std::vector<DWORD> in(words);
        return host::DeviceIoControl(device_, code, in.data(), static_cast<DWORD>(in.size() * 4),
                                     nullptr, 0, nullptr) != FALSE_;
    }
    DWORD readLevels() {
        DWORD levels = 0;
        DWORD read = 0;
        EXPECT_TRUE(host::ReadFile(device_, &levels, 4, &read));
        EXPECT_EQ(read, 4u);
        return levels;
    }

    std::shared_ptr<sim::DioBlock> block_ = sim::installDioBlock();
    HANDLE device_ = INVALID_HANDLE_VALUE;
};

TEST_F(SimDioBlockTest, ReadsShowInputsAndTheOutputsWritten) {
    ASSERT_NE(device_, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(request(host::IOCTL_DIO_SET_DIRECTION, {0x0000FF00}));
    block_->setInputs(0x00000F0F);
    const DWORD outputs = 0x0000A000;
    DWORD written = 0;
    ASSERT_TRUE(host::WriteFile(device_, &outputs, 4, &written));
    EXPECT_EQ(readLevels(), 0x0000A00Fu);
    EXPECT_TRUE(block_->output(15));
    EXPECT_FALSE(block_->output(14));
    EXPECT_EQ(block_->direction(), 0x0000FF00u);
}

TEST_F(SimDioBlockTest, MalformedRequestsAreRefused) {
    DWORD word = 1;
    EXPECT_FALSE(host::DeviceIoControl(device_, host::IOCTL_DIO_SET_DIRECTION, &word, 2, nullptr, 0,
                                       nullptr));
    EXPECT_EQ(host::GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(host::DeviceIoControl(device_, host::IOCTL_DIO_ARM_INTERRUPTS, &word, 4, nullptr,
                                       0, nullptr));
    EXPECT_FALSE(host::DeviceIoControl(device_, 0x999, &word, 4, nullptr, 0, nullptr));
    EXPECT_EQ(host::GetLastError(), ERROR_NOT_SUPPORTED);
    BYTE small[2];
    DWORD read = 0;
    EXPECT_FALSE(host::ReadFile(device_, small, 2, &read));
    EXPECT_EQ(block_->directionRequests(), 0);
}

TEST_F(SimDioBlockTest, ArmedLineSeventeenRaisesItsNamedEvent) {
    ASSERT_TRUE(request(host::IOCTL_DIO_MASK_INTERRUPTS, {0xFFFDFFFF}));
    ASSERT_TRUE(request(host::IOCTL_DIO_ARM_INTERRUPTS, {0x00020000, 2}));
    const HANDLE event = host::CreateEventW(false, false, L"DIOInt17");
    EXPECT_EQ(host::WaitForSingleObject(event, 0), WAIT_TIMEOUT);

    block_->setInput(17, true);
    EXPECT_EQ(host::WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    block_->setInput(17, true);   // no edge
    block_->setInput(17, false);  // falling edge: not armed
    EXPECT_EQ(host::WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    block_->setInput(16, true);  // masked and not armed
    block_->setInput(17, true);
    EXPECT_EQ(host::WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    ASSERT_TRUE(request(host::IOCTL_DIO_MASK_INTERRUPTS, {0xFFFFFFFF}));
    block_->setInput(17, false);
    block_->setInput(17, true);
    EXPECT_EQ(host::WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    host::CloseHandle(event);
}

// The notice lets a reader sleep while nothing it could read has changed.
TEST_F(SimDioBlockTest, ChangeNoticeFollowsWhatAReadAnswersButNotItsOwnRequests) {
    HANDLE changed = host::CreateEventW(false, false, nullptr);
    ASSERT_TRUE(host::DeviceIoControl(device_, host::IOCTL_DIO_NOTIFY_CHANGES, &changed,
                                      sizeof changed, nullptr, 0, nullptr));
    const DWORD line3 = 1u << 3;
    const std::pair<std::function<void()>, bool> steps[] = {
        {[&] { block_->setInput(3, true); }, true},
        {[&] { block_->setInput(3, true); }, false},
        {[&] { request(host::IOCTL_DIO_SET_DIRECTION, {line3}); }, false},  // its own request
        {[&] { host::WriteFile(device_, &line3, 4, nullptr); }, false},     // its own write
        {[&] { block_->failReads(true); }, true},
    };
    for (const auto& [step, noticed] : steps) {
        step();
        EXPECT_EQ(host::WaitForSingleObject(changed, 0) == WAIT_OBJECT_0, noticed);
    }
    host::CloseHandle(changed);
}

}  // namespace
