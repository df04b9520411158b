// libFuzzer target: the DSP link's COFF image reader on arbitrary file
// contents. Each input is parsed from memory by the same code that parses the
// board's image file once a boot has opened it; only the event log, which the
// reader writes to on every failure, needs a scratch unit root.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>

#include "dsplink/coff_reader.h"
#include "platform/debug_out.h"
#include "platform/files.h"

namespace {

const std::wstring kImagePath = L"\\Program Files\\Orvane Instruments\\480\\rf.cof";

class ScratchRoot {
  public:
    ScratchRoot() {
        std::random_device random;
        root_ = std::filesystem::temp_directory_path() /
                ("coff-fuzz-" + std::to_string(random()) + std::to_string(random()));
        std::filesystem::create_directories(root_);
        host::setUnitRoot(root_.string());
    }
    ~ScratchRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }

  private:
    host::DebugSilence silence_;  // the event log's echo is noise here
    std::filesystem::path root_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ScratchRoot scratch;
    CoffSectionTable sections;
    int count = 0;
    const int result = readCoffImageBytes({data, size}, kImagePath, sections, count);

    // The reader's own promises; a broken one is a finding.
    if (result != 0 && (result < kCoffOpenFailed || result > kCoffHeadersTruncated))
        __builtin_trap();
    if (count < 0 || count > kMaxCoffSections) __builtin_trap();
    for (int i = 0; i < kMaxCoffSections; ++i) {
        const CoffSection& r = sections[static_cast<std::size_t>(i)];
        if (i >= count ? !r.data.empty()
                       : r.data.size() != r.size || std::uint64_t{r.filePos} + r.size > size)
            __builtin_trap();
    }
    return 0;
}
