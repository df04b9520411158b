// The link end to end against a simulated board: confirmed exchanges, the
// board's faults as the link sees them, and booting real images.
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "boards/error_log.h"
#include "platform/files.h"
#include "platform/text.h"
#include "sim/dsp_bus.h"
#include "tests/dsplink/link_fixture.h"
#include "tests/support/test_support.h"

using namespace linktest;
using namespace dsplink;

namespace {

constexpr BYTE kEcho = sim::kOpcodeEcho;

// The link fixture with the simulated bus in the scripted driver's place.
class SimLinkTest : public LinkTest {
  protected:
    SimLinkTest() : bus(sim::installDspBus(false)), board(bus->attach(sim::BoardKind::T1)) {
        link = openLink();
    }
    ~SimLinkTest() override {
        link.reset();
        sim::uninstallDspBus();
    }

    dspStatus echo(const std::vector<BYTE>& payload, std::vector<BYTE>& reply) {
        reply.assign(payload.size(), 0);
        int length = static_cast<int>(payload.size());
        return link->atomicGet(kEcho, payload.data(), length, kEcho, reply.data(), &length);
    }

    bool installSample(const char* name, std::string& image) {
        std::ifstream in(std::string(TOVEL_SHARED_DIR "/coff/") + name, std::ios::binary);
        if (!in) return false;
        image.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        root.writeFile(installFolder + L"\\" + owner.cofFileName, image);
        return true;
    }

    std::shared_ptr<sim::SimDspBus> bus;
    std::shared_ptr<sim::SimDspBoard> board;
    std::unique_ptr<CommPolicy_USB> link;
};

TEST_F(SimLinkTest, EchoRoundTripsAfterAdoptingTheBoardsCount) {
    std::vector<BYTE> reply;
    const std::vector<BYTE> first = {1, 2, 3, 4, 5};
    EXPECT_EQ(echo(first, reply), dspOk);
    EXPECT_EQ(reply, first);
    EXPECT_EQ(owner.lines(), std::vector<std::wstring>{
                                 L"CommPolicy_USB::initSeqNum() initNoBoot forces dspSN to 1\n"});
    std::vector<BYTE> big(8180);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<BYTE>(i);
    EXPECT_EQ(echo(big, reply), dspOk);
    EXPECT_EQ(reply, big);
    EXPECT_EQ(link->sequenceNumber(), board->sequence());
    EXPECT_EQ(board->commandCount(kEcho), 2u);
    EXPECT_EQ(link->atomicSend(0x01, nullptr, 0), dspOk);
    EXPECT_EQ(owner.lines().size(), 1u);
}

TEST_F(SimLinkTest, InvalidReportedStatesEndTheExchange) {
    std::vector<BYTE> reply;
    EXPECT_EQ(echo({1}, reply), dspOk);
    for (BYTE state : {BYTE{dspIdled}, BYTE{dspResultOverrun}}) {
        board->reportState(state);
        EXPECT_EQ(link->atomicSend(0x01, nullptr, 0), static_cast<dspStatus>(state));
        EXPECT_EQ(owner.lines().back(),
                  host::wformat(L"CommPolicy_USB::waitForStatusOrTimeout() --  found invalid "
                                L"dspStatus=%d!",
                                static_cast<int>(state)));
        EXPECT_TRUE(link->sequenceInitNeeded());
    }
    board->clearReportedState();
    EXPECT_EQ(echo({2}, reply), dspOk);
}

TEST_F(SimLinkTest, ConcurrentEchoesGetTheirOwnReplies) {
    std::atomic<int> wrong{0};
    auto hammer = [&](BYTE tag) {
        std::vector<BYTE> reply;
        for (int i = 0; i < 200; ++i) {
            const std::vector<BYTE> payload = {tag, static_cast<BYTE>(i), tag, 0x55};
            if (echo(payload, reply) != dspOk || reply != payload) ++wrong;
        }
    };
    std::thread a(hammer, BYTE{0xA0});
    std::thread b(hammer, BYTE{0xB0});
    a.join();
    b.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(board->commandCount(kEcho), 400u);
}

TEST_F(SimLinkTest, BootLoadsEverySectionAndLeavesTheLinkInStep) {
    std::string image;
    if (!installSample("c674x_omapl138_dsplink_loop_release.out", image))
        GTEST_SKIP() << "sample images not available";
    board->setBootDelay(50);
    EXPECT_EQ(link->boot(), dspOk);
    EXPECT_EQ(board->bootCount(), 1u);
    EXPECT_TRUE(board->programRunning());

    // Sections may share addresses (attribute records at 0), so a section's
    // bytes are expected where no later loaded section overwrote them.
    std::vector<const CoffSection*> loadedSections;
    for (int i = 0; i < link->coffSectionCount(); ++i) {
        const CoffSection& s = link->coffSections()[i];
        if (std::strcmp(s.name, ".info") == 0 || s.filePos == 0 || s.size == 0 || (s.flags & 3))
            continue;
        loadedSections.push_back(&s);
    }
    for (std::size_t i = 0; i < loadedSections.size(); ++i) {
        const CoffSection& s = *loadedSections[i];
        std::vector<BYTE> expected(image.begin() + s.filePos, image.begin() + s.filePos + s.size);
        for (std::size_t j = i + 1; j < loadedSections.size(); ++j) {
            const CoffSection& later = *loadedSections[j];
            const std::uint64_t lo = std::max<std::uint64_t>(s.address, later.address);
            const std::uint64_t hi = std::min(std::uint64_t{s.address} + s.size,
                                              std::uint64_t{later.address} + later.size);
            for (std::uint64_t at = lo; at < hi; ++at)
                expected[at - s.address] =
                    static_cast<BYTE>(image[later.filePos + (at - later.address)]);
        }
        ASSERT_TRUE(board->memoryWritten(s.address, s.size)) << s.name;
        ASSERT_EQ(board->readMemory(s.address, s.size), expected) << s.name;
    }
    const std::size_t loaded = loadedSections.size();
    EXPECT_GT(loaded, 0u);

    std::vector<BYTE> reply;
    EXPECT_EQ(echo({4, 2}, reply), dspOk);
    EXPECT_EQ(owner.count(L"initNoBoot"), 0);  // awaited 3 straight away
    EXPECT_EQ(link->sequenceNumber(), 3);
}

TEST_F(SimLinkTest, SlowStartIsWatchedUntilTheDspRuns) {
    std::string image;
    if (!installSample("c67x_c6713dsk_chassaing_fir.out", image))
        GTEST_SKIP() << "sample images not available";
    board->setBootDelay(1700);
    EXPECT_EQ(link->boot(), dspOk);
    // Three first reads at 200 ms, then one every 50 ms until 1700 ms, one
    // for liveness.
    EXPECT_EQ(owner.statusQueries.load(), 3 + 30 + 1);
}

TEST_F(SimLinkTest, DspThatStaysIdleFailsTheBoot) {
    std::string image;
    if (!installSample("c67x_c6713dsk_chassaing_fir.out", image))
        GTEST_SKIP() << "sample images not available";
    board->reportState(dspIdled);
    const DWORD start = host::GetTickCount();
    EXPECT_EQ(link->boot(), dspBootNotRunning);
    EXPECT_EQ(host::GetTickCount() - start, 2200u);
    EXPECT_EQ(owner.lines().back(), L"DSP doesn't appear to be running!");
    EXPECT_EQ(link->sequenceNumber(), 1);
    EXPECT_FALSE(link->sequenceInitNeeded());
}

}  // namespace
