#include "tools/cofinfo/refusal_reason.h"

#include <cstdio>

#include "platform/text.h"

namespace cofinfo {
namespace {

namespace fs = std::filesystem;

const char* kindOf(fs::file_type type) {
    switch (type) {
        case fs::file_type::directory:
            return "a directory";
        case fs::file_type::fifo:
            return "a FIFO";
        case fs::file_type::socket:
            return "a socket";
        case fs::file_type::character:
            return "a character device";
        case fs::file_type::block:
            return "a block device";
        default:
            return "not a plain file";
    }
}

std::string hex8(std::uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", v);
    return text;
}

std::string nameOf(const coff::SectionHeader& s) {
    return std::string(s.name, std::char_traits<char>::length(s.name));
}

// The section the reader stopped at for 147 and 148: the first data
// section after those it recorded.
const coff::SectionHeader* failedDataSection(const ImageHeaders& image, int recorded) {
    int seen = 0;
    for (const auto& s : image.sections) {
        if (!coff::sectionHasData(s.size, s.flags)) continue;
        if (seen++ == recorded) return &s;
    }
    return nullptr;
}

std::string generic(int result) {
    switch (result) {
        case kCoffOpenFailed:
            return "the file cannot be opened";
        case kCoffEmpty:
            return "the file is empty";
        case kCoffStreamFailed:
            return "the file cannot be opened for reading";
        case kCoffHeaderUnreadable:
            return "the file header cannot be read";
        case kCoffNotC6000:
            return "not a TMS320C6000 COFF file";
        case kCoffSeekFailed:
            return "a section's raw-data pointer cannot be sought";
        case kCoffAllocFailed:
            return "no memory for a section";
        case kCoffSectionUnreadable:
            return "a section's data cannot be read";
        case kCoffTooManySections:
            return "more sections with data than the reader holds";
        case kCoffHeadersTruncated:
            return "the section headers end before the declared count";
        default:
            return "refused by the reader";
    }
}

}  // namespace

std::optional<std::string> refuseBeforeReading(const fs::path& file) {
    std::error_code ec;
    const fs::file_status status = fs::status(file, ec);
    if (ec || status.type() == fs::file_type::not_found) return std::nullopt;
    if (status.type() != fs::file_type::regular)
        return file.string() + " is " + kindOf(status.type()) + ", not a regular file";
    const std::uint64_t size = fs::file_size(file, ec);
    if (!ec && size > kLargestReadableFile)
        return file.string() + " is too large for the reader: " + std::to_string(size) +
               " bytes, at most " + std::to_string(kLargestReadableFile);
    return std::nullopt;
}

std::string readerRefusalReason(const std::optional<ImageHeaders>& image,
                                const ReaderVerdict& verdict) {
    const int r = verdict.result;
    if (image && image->c6000) {
        const coff::SectionHeader* s = nullptr;
        std::string what;
        if (r == kCoffSeekFailed) {
            for (const auto& candidate : image->sections)
                if (candidate.rawDataPos > kLargestReadableFile) {
                    s = &candidate;
                    break;
                }
            what = "cannot be sought";
        } else if (r == kCoffAllocFailed) {
            s = failedDataSection(*image, verdict.sectionCount);
            if (s) what = "needs " + std::to_string(s->size) + " bytes that cannot be allocated";
        } else if (r == kCoffSectionUnreadable) {
            s = failedDataSection(*image, verdict.sectionCount);
            if (s)
                what = std::to_string(s->size) + " bytes there run past the end of the " +
                       std::to_string(image->fileSize) + "-byte file";
        }
        if (s)
            return "section " + nameOf(*s) + " at raw-data pointer " + hex8(s->rawDataPos) + ": " +
                   what;
    }
    // The reader's own line says it best where it wrote one.
    if (!verdict.messages.empty()) return host::narrow(verdict.messages.back());
    return generic(r);
}

}  // namespace cofinfo
