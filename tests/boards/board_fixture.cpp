#include "tests/boards/board_fixture.h"

#include "boards/error_log.h"
#include "dsplink/coff_reader.h"
#include "platform/files.h"
#include "platform/text.h"
#include "sim/program_version.h"
#include "tools/coffkit/coff_writer.h"
#include "tools/coffkit/dsp_version.h"
#include "tools/unitkit/default_images.h"

namespace boardtest {

BoardTest::BoardTest() {
    // The default images' versions, placed where the simulated DSP reads
    // them; the test of the shipped images themselves replaces these.
    for (const unitkit::DefaultImage& image : unitkit::defaultImages())
        installImage(host::widen(image.fileName), image.version.major, image.version.minor);
    acceptAnyCofVersion = false;
}

BoardTest::~BoardTest() {
    UsbCtlr::WaitForDeviceChangeThreads();
    UsbCtlr::ResetRegistryForTest();
    sim::uninstallDspBus();
}

std::shared_ptr<sim::SimDspBoard> BoardTest::attach(sim::BoardKind kind, std::uint32_t serial,
                                                    int slot) {
    sim::BoardSpec spec = sim::defaultBoardSpec(kind);
    if (serial != 0) spec.detail.serial = serial;
    return attach(spec, slot);
}

std::shared_ptr<sim::SimDspBoard> BoardTest::attach(const sim::BoardSpec& spec, int slot) {
    auto board = bus->attach(spec, slot);
    EXPECT_TRUE(board) << "no free slot";
    return board;
}

HANDLE BoardTest::openDriver() {
    return host::CreateFileW(L"DSP1:", host::GENERIC_READ | host::GENERIC_WRITE, 0,
                             host::OPEN_EXISTING);
}

void BoardTest::installImage(const std::wstring& fileName, std::uint16_t major,
                             std::uint16_t minor) {
    // Placed where the simulated DSP looks for its program's version.
    coffkit::CoffSectionSpec code;
    code.name = ".text";
    code.address = 0x80000000;
    code.flags = coff::STYP_TEXT;
    code.data.assign(900, 0x5A);
    coffkit::CoffSectionSpec version;
    version.name = ".ver";
    version.address = sim::kVersionAddress;
    version.flags = coff::STYP_DATA;
    version.data = coffkit::encodeVersion({major, minor});
    coffkit::CoffImageSpec spec;
    spec.sections = {code, version};
    const auto bytes = coffkit::buildCoffImage(spec);
    root.writeFile(installFolder + L"\\" + fileName, std::string(bytes.begin(), bytes.end()));
}

}  // namespace boardtest
