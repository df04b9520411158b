// The boot loader: boot frames, chunking and skip rules, the start-up watch,
// and how each failure ends the boot.
#include <string>

#include "boards/error_log.h"
#include "tests/dsplink/link_fixture.h"
#include "tools/coffkit/coff_writer.h"

using namespace linktest;
using namespace dsplink;

namespace {

using coffkit::dataSection;

// A little-endian C6000 COFF2 image holding `sections`.
std::string coffImage(std::vector<coffkit::CoffSectionSpec> sections) {
    coffkit::CoffImageSpec spec;
    spec.sections = std::move(sections);
    const auto file = coffkit::buildCoffImage(spec);
    return std::string(file.begin(), file.end());
}

std::vector<BYTE> bytes(std::size_t n, BYTE seed) {
    std::vector<BYTE> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<BYTE>(seed + i * 13);
    return v;
}

struct Chunk {
    std::uint32_t address;
    std::vector<BYTE> data;
};

class BootLoaderTest : public LinkTest {
  protected:
    BootLoaderTest() : link(openLink()) {}

    void installImage(const std::string& image) {
        root.writeFile(installFolder + L"\\test.cof", image);
    }

    // The chunk frames sent, checked for their header, in order.
    std::vector<Chunk> chunks() const {
        std::vector<Chunk> out;
        for (const auto& f : dsp->sentFrames()) {
            if (f.at(0) != wire::kDeviceBootChunk) continue;
            EXPECT_EQ(f.at(1), 0);
            EXPECT_EQ(f.size(), wire::readU16be(f, 2) + 4u);
            out.push_back({wire::readU32le(f, 4), std::vector<BYTE>(f.begin() + 8, f.end())});
        }
        return out;
    }

    std::vector<BYTE> deviceSequence() const {
        std::vector<BYTE> devices;
        for (const auto& f : dsp->sentFrames()) devices.push_back(f.at(0));
        return devices;
    }

    std::unique_ptr<CommPolicy_USB> link;
};

TEST_F(BootLoaderTest, SectionsGoOutIn820ByteChunksBetweenStartAndEnd) {
    const std::vector<coffkit::CoffSectionSpec> sections = {
        dataSection(".text", 0x1000, 0x20, bytes(820, 1)),
        dataSection(".cinit", 0x2000, 0x40, bytes(1640, 2)),
        dataSection(".const", 0x3000, 0x40, bytes(819, 3)),
        dataSection(".far", 0x80000000, 0x40, bytes(2000, 4)),
    };
    installImage(coffImage(sections));

    EXPECT_EQ(link->boot(), dspOk);

    const auto frames = dsp->sentFrames();
    ASSERT_GE(frames.size(), 2u);
    EXPECT_EQ(frames.front(), (std::vector<BYTE>{4, 0, 0, 0}));
    EXPECT_EQ(frames.back(), (std::vector<BYTE>{6, 0, 0, 0}));
    const auto sent = chunks();
    const std::vector<std::pair<std::uint32_t, std::size_t>> expected = {
        {0x1000, 820},     {0x2000, 820},     {0x2334, 820},     {0x3000, 819},
        {0x80000000, 820}, {0x80000334, 820}, {0x80000668, 360},
    };
    ASSERT_EQ(sent.size(), expected.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].address, expected[i].first) << i;
        EXPECT_EQ(sent[i].data.size(), expected[i].second) << i;
    }
    EXPECT_EQ(sent[2].data,
              std::vector<BYTE>(sections[1].data.begin() + 820, sections[1].data.end()));
    EXPECT_EQ(sent[6].data,
              std::vector<BYTE>(sections[3].data.begin() + 1640, sections[3].data.end()));
    EXPECT_EQ(frames.size(), 2 + expected.size());

    // The image is released, the link is in step with the new program, and
    // its first command awaits number 3 without re-reading the count.
    for (const auto& record : link->coffSections()) EXPECT_TRUE(record.data.empty());
    EXPECT_EQ(link->sequenceNumber(), 1);
    EXPECT_FALSE(link->sequenceInitNeeded());
    const std::size_t before = dsp->calls().size();
    dsp->pushStatus(dspCommandDone, 3);
    EXPECT_EQ(link->atomicSend(9, nullptr, 0), dspOk);
    const auto calls = dsp->calls();
    ASSERT_EQ(calls.size(), before + 2);
    EXPECT_EQ(calls[before].code, wire::IOCTL_DSP_SEND_DATA);
    EXPECT_EQ(usbLog().front(), L"Entering CommPolicy_USB::boot()");
}

TEST_F(BootLoaderTest, SectionsThatAreNotLoadedAreSkipped) {
    auto noFilePos = dataSection(".zero", 0x200, 0x40, bytes(6, 2));
    noFilePos.rawDataPosField = 0;
    installImage(coffImage({
        dataSection(".info", 0x100, 0x40, bytes(10, 1)),
        noFilePos,
        dataSection(".noload", 0x300, 0x42, bytes(7, 3)),
        dataSection(".dsect", 0x400, 0x41, bytes(8, 4)),
        dataSection(".bss", 0x500, 0x80, bytes(9, 5)),
        dataSection(".empty", 0x600, 0x40, {}),
        dataSection(".text", 0x700, 0x20, bytes(5, 6)),
    }));
    EXPECT_EQ(link->boot(), dspOk);
    const auto sent = chunks();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].address, 0x700u);
    EXPECT_EQ(sent[0].data, bytes(5, 6));
}

TEST_F(BootLoaderTest, MissingImageSendsNothing) {
    EXPECT_EQ(static_cast<int>(link->boot()), 141);
    EXPECT_TRUE(dsp->calls().empty());
    const auto lines = usbLog();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], L"Entering CommPolicy_USB::boot()");
    EXPECT_NE(lines[1].find(L"SW Error #550937: Unable to open COF file"), std::wstring::npos);
    EXPECT_EQ(lines[2], L"Error reading Coff file");
    EXPECT_FALSE(link->sequenceInitNeeded());
}

TEST_F(BootLoaderTest, FailedChunkStopsTheDownloadWithItsError) {
    installImage(coffImage({
        dataSection(".text", 0x1000, 0x20, bytes(2000, 1)),
        dataSection(".data", 0x9000, 0x40, bytes(100, 2)),
    }));
    owner.removing = true;
    dsp->failSendsOfDevice(wire::kDeviceBootChunk, 1, ERROR_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(link->boot(), dspUsbCommFailed);
    EXPECT_EQ(deviceSequence(), (std::vector<BYTE>{4, 5}));
    EXPECT_EQ(dsp->countCalls(wire::IOCTL_DSP_SEND_DATA), 3);  // the failed chunk is the last try
    EXPECT_EQ(owner.count(L"Error sending cof data!\n"), 1);
    EXPECT_EQ(owner.count(L"Problem sending cof end msg!"), 0);
    EXPECT_EQ(owner.statusQueries.load(), 0);
    for (const auto& record : link->coffSections()) EXPECT_TRUE(record.data.empty());
}

TEST_F(BootLoaderTest, UnsentStartOrEndFrameEndsTheBoot) {
    installImage(coffImage({dataSection(".text", 0x10, 0x20, bytes(10, 1))}));
    owner.removing = true;
    dsp->failSendsOfDevice(wire::kDeviceBootStart, 0, ERROR_INVALID_HANDLE);
    EXPECT_EQ(link->boot(), dspUsbCommFailed);
    EXPECT_TRUE(dsp->sentFrames().empty());
    EXPECT_EQ(owner.lines(), std::vector<std::wstring>{L"Problem sending cof start msg!"});

    TestOwner endOwner;
    endOwner.removing = true;
    CommPolicy_USB second(&endOwner, dsp->open());
    endOwner.link = &second;
    dsp->failSendsOfDevice(wire::kDeviceBootEnd, 0, ERROR_INVALID_HANDLE);
    EXPECT_EQ(second.boot(), dspUsbCommFailed);
    EXPECT_EQ(endOwner.lines(), std::vector<std::wstring>{L"Problem sending cof end msg!"});
    EXPECT_EQ(endOwner.statusQueries.load(), 0);
}

TEST_F(BootLoaderTest, OversizedChunkIsRefused) {
    std::vector<BYTE> data(821, 1);
    const auto result = link->writeBSTchunk(0x100, 821, data.data());
    EXPECT_NE(result.status, dspOk);
    EXPECT_EQ(owner.lines(),
              std::vector<std::wstring>{
                  L"CommPolicy_USB: writeBSTchunk Failed num_octets (821) too big!!!"});
    EXPECT_TRUE(dsp->calls().empty());
    const auto ok = link->writeBSTchunk(0x100, 820, data.data());
    EXPECT_EQ(ok.status, dspOk);
    EXPECT_EQ(ok.nextAddress, 0x100u + 820u);
}

}  // namespace
