// Booting a simulated DSP with image frames: reset, sparse memory, program
// start after the boot delay, and the version the image carries.
#include <vector>

#include "sim/firmware_table.h"
#include "sim_fixture.h"

namespace simtest {
namespace {

using sim::BoardKind;

std::vector<BYTE> chunk(std::uint32_t address, const std::vector<BYTE>& data) {
    std::vector<BYTE> payload(4);
    wire::writeU32le(payload, 0, address);
    payload.insert(payload.end(), data.begin(), data.end());
    return sim::makeFrame(wire::kDeviceBootChunk, 0, payload);
}

std::vector<BYTE> versionSection(std::uint16_t major, std::uint16_t minor) {
    std::vector<BYTE> words(4);
    wire::writeU16le(words, 0, major);
    wire::writeU16le(words, 2, minor);
    return words;
}

const std::vector<BYTE> kImageStart = {wire::kDeviceBootStart, 0, 0, 0};
const std::vector<BYTE> kImageEnd = {wire::kDeviceBootEnd, 0, 0, 0};

class DspBootTest : public OneBoardTest {
  protected:
    DspBootTest() { kind_ = BoardKind::RF; }
    // Sends a whole boot and lets the boot delay pass.
    void boot(const std::vector<std::vector<BYTE>>& chunks) {
        ASSERT_TRUE(client_->send(kImageStart));
        for (const auto& c : chunks) ASSERT_TRUE(client_->send(c));
        ASSERT_TRUE(client_->send(kImageEnd));
        clock_->advance(50);
    }
};

TEST_F(DspBootTest, ChunksLandAtTheirAddressesAllOverTheAddressSpace) {
    ASSERT_TRUE(client_->send(kImageStart));
    ASSERT_TRUE(client_->send(chunk(0x00000000, bytes({1, 2, 3}))));
    ASSERT_TRUE(client_->send(chunk(0x11800000, bytes({4, 5}))));
    ASSERT_TRUE(client_->send(chunk(0x80000FFE, bytes({6, 7, 8, 9}))));  // across a page edge
    EXPECT_EQ(board_->readMemory(0, 4), bytes({1, 2, 3, 0}));
    EXPECT_EQ(board_->readMemory(0x11800000, 2), bytes({4, 5}));
    EXPECT_EQ(board_->readMemory(0x80000FFE, 4), bytes({6, 7, 8, 9}));
    EXPECT_TRUE(board_->memoryWritten(0x80000FFE, 4));
    EXPECT_FALSE(board_->memoryWritten(0x80000FFD, 2));
    EXPECT_EQ(board_->memoryPages(), 4u);
}

TEST_F(DspBootTest, ImageStartResetsTheDspAndClearsItsMemory) {
    client_->send(chunk(0x1000, bytes({1})));
    client_->command(0x20);
    ASSERT_TRUE(client_->send(kImageStart));
    EXPECT_EQ(client_->state(), 2);
    EXPECT_FALSE(board_->memoryWritten(0x1000, 1));
    EXPECT_EQ(board_->memoryPages(), 0u);
    EXPECT_FALSE(board_->programRunning());
}

TEST_F(DspBootTest, ProgramStartsAfterTheBootDelayWithSequenceOne) {
    board_->setBootDelay(1500);
    client_->command(0x20);
    client_->send(kImageStart);
    client_->send(chunk(0x0, bytes({1, 2, 3, 4})));
    client_->send(kImageEnd);
    EXPECT_EQ(client_->state(), 2);
    clock_->advance(1499);
    EXPECT_EQ(client_->state(), 2);
    clock_->advance(1);
    EXPECT_EQ(client_->state(), 4);
    EXPECT_EQ(client_->sequence(), 1);
    EXPECT_EQ(board_->bootCount(), 1u);

    client_->command(0x20);  // the link's first command after a boot awaits 3
    EXPECT_EQ(client_->sequence(), 3);
}

TEST_F(DspBootTest, CommandsAreDroppedUntilTheProgramRuns) {
    client_->send(kImageStart);
    client_->command(sim::kOpcodeEcho, bytes({1}));
    EXPECT_EQ(client_->state(), 2);
    EXPECT_EQ(client_->reply(5), bytes({0, 0, 0, 0, 0}));
    client_->send(kImageEnd);
    client_->command(0x20);  // still within the boot delay
    EXPECT_EQ(board_->commandsIgnored(), 2u);
    clock_->advance(50);
    EXPECT_EQ(client_->sequence(), 1);
}

TEST_F(DspBootTest, BoardHeldInResetAnswersNothingUntilBooted) {
    auto spec = sim::defaultBoardSpec(BoardKind::T1);
    spec.startsRunning = false;
    spec.bootDelayMs = 0;
    auto t1 = bus_->attach(spec);
    DspClient client;
    EXPECT_EQ(client.state(), 2);
    EXPECT_EQ(client.sequence(), 0);
    client.command(12);
    EXPECT_EQ(client.sequence(), 0);
    EXPECT_EQ(t1->commandsIgnored(), 1u);

    client.send(kImageStart);
    client.send(kImageEnd);
    EXPECT_EQ(client.state(), 4);  // no boot delay
    client.command(12);
    EXPECT_EQ(client.state(), 5);
}

TEST_F(DspBootTest, VersionComesFromTheImagesVersionWordsOrIsTheKindsDefault) {
    const std::uint32_t at = sim::kVersionAddress;
    const auto split = versionSection(0x0102, 0x0304);
    const struct {
        const char* what;
        std::vector<std::vector<BYTE>> chunks;
        sim::ProgramVersion version;
    } boots[] = {
        {"split over two chunks",
         {chunk(at, {split[0], split[1]}), chunk(at + 2, {split[2], split[3]})},
         {0x0102, 0x0304}},
        {"no version words", {chunk(0x0, bytes({1, 2, 3, 4}))}, {53, 2}},
        {"half a version section", {chunk(at, bytes({60, 0}))}, {53, 2}},
        {"a version", {chunk(at, versionSection(60, 1))}, {60, 1}},
        {"the earlier image's version does not survive", {}, {53, 2}},
        {"at the version address",
         {chunk(0x0, bytes({0xAA, 0xBB})), chunk(at, versionSection(54, 7))},
         {54, 7}},
    };
    for (const auto& b : boots) {
        SCOPED_TRACE(b.what);
        boot(b.chunks);
        EXPECT_EQ(board_->programVersion(), b.version);
    }
    client_->command(sim::versionQueryOpcode(BoardKind::RF));
    auto frame = client_->reply(40);
    EXPECT_EQ(wire::readU32le(frame, 4 + 20), 54u);
    EXPECT_EQ(wire::readU32le(frame, 4 + 24), 7u);
}

TEST_F(DspBootTest, ChunkWithoutAFullAddressIsRejected) {
    client_->send(kImageStart);
    ASSERT_TRUE(client_->send(bytes({5, 0, 0, 3, 1, 2, 3})));
    EXPECT_EQ(client_->state(), 10);
    EXPECT_EQ(board_->memoryPages(), 0u);
}

TEST_F(DspBootTest, LargestChunkOfTheLoaderIsStoredWhole) {
    std::vector<BYTE> data(820);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<BYTE>(i * 7);
    client_->send(kImageStart);
    ASSERT_TRUE(client_->send(chunk(0x11800000, data)));
    EXPECT_EQ(board_->readMemory(0x11800000, 820), data);
}

}  // namespace
}  // namespace simtest
