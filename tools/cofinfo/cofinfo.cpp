// cofinfo: shows a TI C6000 COFF image the way the DSP link sees it: the file
// header, every section header, what the boot loader would send, and whether
// the link's reader accepts the file, and why not. Exit status: 0 loadable,
// 1 not loadable (the reader's result 141-150 is printed, never the exit
// status: above 125 a shell reads "killed by a signal"), 2 bad arguments.
#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "platform/text.h"
#include "tools/coffkit/boot_plan.h"
#include "tools/coffkit/dsp_version.h"
#include "tools/cofinfo/image_headers.h"
#include "tools/cofinfo/reader_verdict.h"
#include "tools/cofinfo/refusal_reason.h"

namespace {

std::string hex(std::uint32_t value, int digits = 8) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

// Bytes that would garble the table are shown as '?'.
std::string printable(std::string_view text) {
    std::string out;
    for (char c : text) out += std::isgraph(static_cast<unsigned char>(c)) ? c : '?';
    return out;
}

// The name as the DSP link records it: the first 7 characters.
std::string recordedName(const coff::SectionHeader& s) {
    std::string name(s.name, std::char_traits<char>::length(s.name));
    if (name.size() > 7) name.resize(7);
    return name;
}

void printFileHeader(const cofinfo::ImageHeaders& image) {
    const coff::FileHeader& h = image.header;
    std::printf("File header\n");
    if (!image.headerRead) {
        std::printf("  (file shorter than the 22-byte header)\n");
        return;
    }
    std::printf("  version ID         %s\n", hex(h.versionId, 4).c_str());
    std::printf("  section headers    %u\n", h.sectionCount);
    if (image.c6000)
        std::printf("  header byte order  %s\n", h.bigEndian ? "big-endian" : "little-endian");
    std::printf("  optional header    %u bytes\n", h.optionalHeaderSize);
    const char* target = (h.flags & coff::F_BIG)      ? " (big-endian target)"
                         : (h.flags & coff::F_LITTLE) ? " (little-endian target)"
                                                      : "";
    std::printf("  flags              %s%s\n", hex(h.flags, 4).c_str(), target);
    std::printf("  target ID          %s%s\n", hex(h.targetId, 4).c_str(),
                image.c6000 ? " (TMS320C6000)" : " (not a TMS320C6000 file)");
    std::printf("  symbols            %u at %s\n", h.symbolCount, hex(h.symbolTablePos).c_str());
    if (image.optional)
        std::printf("  entry point        %s\n", hex(image.optional->entry).c_str());
}

void printSections(const cofinfo::ImageHeaders& image) {
    std::printf("\nSections\n");
    std::printf("  %3s  %-9s %-10s  %10s  %-10s  %-10s  %-4s  %s\n", "Idx", "Name", "VMA", "Size",
                "File pos", "Flags", "Load", "Full name");
    for (std::size_t i = 0; i < image.sections.size(); ++i) {
        const coff::SectionHeader& s = image.sections[i];
        const std::string name = recordedName(s);
        const bool kept = coff::sectionHasData(s.size, s.flags);
        const bool sent =
            kept && coffkit::bootLoaderSends(name.c_str(), s.rawDataPos, s.size, s.flags);
        std::string full;
        if (s.nameInStringTable)
            full = image.longNames[i];
        else if (std::char_traits<char>::length(s.name) > 7)
            full = s.name;
        char row[512];
        std::snprintf(row, sizeof row, "  %3zu  %-9s %s  %10u  %s  %s  %-4s  %s", i + 1,
                      name.empty() ? "\"\"" : printable(name).c_str(),
                      hex(s.virtualAddress).c_str(), s.size, hex(s.rawDataPos).c_str(),
                      hex(s.flags).c_str(),
                      sent   ? "sent"
                      : kept ? "kept"
                             : "-",
                      printable(full).c_str());
        std::string line = row;
        line.erase(line.find_last_not_of(' ') + 1);
        std::printf("%s\n", line.c_str());
    }
    if (image.sections.size() < image.header.sectionCount)
        std::printf("  (%zu of %u declared section headers are in the file)\n",
                    image.sections.size(), image.header.sectionCount);
    std::printf(
        "  Name: as the DSP link records it (7 characters; \"\" when in the string table)\n"
        "  Load: sent = read and sent by the boot loader, kept = read but not sent,\n"
        "        - = no data to read\n");
}

void printBootPlan(const cofinfo::ReaderVerdict& verdict) {
    const std::span<const CoffSection> records(verdict.sections.data(),
                                               static_cast<std::size_t>(verdict.sectionCount));
    const coffkit::BootPlan plan = coffkit::planBoot(records);
    std::printf("\nBoot loader\n");
    std::printf(
        "  reads %d sections; sends %d sections, %llu bytes in %llu chunks of at most %u "
        "bytes\n",
        verdict.sectionCount, plan.sections, static_cast<unsigned long long>(plan.bytes),
        static_cast<unsigned long long>(plan.chunks), coffkit::kBootChunkBytes);
    if (const auto version = coffkit::versionFromSections(records))
        std::printf("  DSP program version %u.%u\n", version->major, version->minor);
}

constexpr int kExitLoadable = 0;
constexpr int kExitNotLoadable = 1;
constexpr int kExitUsage = 2;

// What cofinfo found, for either output.
struct Findings {
    std::string file;
    std::optional<cofinfo::ImageHeaders> image;
    std::optional<cofinfo::ReaderVerdict> verdict;  // none when refused before reading
    std::string reason;                             // empty when loadable
    bool loadable() const { return reason.empty(); }
};

void printJson(const Findings& f) {
    nlohmann::ordered_json out{{"file", f.file}};
    if (f.image) out["size"] = f.image->fileSize;
    out["loadable"] = f.loadable();
    if (f.verdict) out["readerResult"] = f.verdict->result;
    if (!f.loadable()) out["reason"] = f.reason;
    if (f.verdict) {
        out["readerMessages"] = nlohmann::ordered_json::array();
        for (const std::wstring& line : f.verdict->messages)
            out["readerMessages"].push_back(host::narrow(line));
    }
    if (f.image && f.image->c6000) {
        out["sections"] = nlohmann::ordered_json::array();
        for (const coff::SectionHeader& s : f.image->sections)
            out["sections"].push_back({{"name", recordedName(s)},
                                       {"vma", s.virtualAddress},
                                       {"size", s.size},
                                       {"filePos", s.rawDataPos},
                                       {"flags", s.flags}});
    }
    if (f.loadable() && f.verdict) {
        const std::span<const CoffSection> records(
            f.verdict->sections.data(), static_cast<std::size_t>(f.verdict->sectionCount));
        const coffkit::BootPlan plan = coffkit::planBoot(records);
        out["boot"] = {{"sections", plan.sections}, {"bytes", plan.bytes}, {"chunks", plan.chunks}};
    }
    // Bytes that are not UTF-8 (a file name) become U+FFFD, so the line stays JSON.
    std::printf("%s\n",
                out.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
}

void printText(const Findings& f) {
    if (f.image) {
        std::printf("%s: %llu bytes\n\n", f.file.c_str(),
                    static_cast<unsigned long long>(f.image->fileSize));
        printFileHeader(*f.image);
        if (f.image->c6000) printSections(*f.image);
    } else if (f.verdict) {
        std::printf("%s: cannot be opened\n", f.file.c_str());
    }
    if (f.loadable()) {
        printBootPlan(*f.verdict);
        std::printf("\nVerdict: loadable\n");
        return;
    }
    if (f.verdict) {
        std::printf("\nReader\n");
        for (const std::wstring& line : f.verdict->messages)
            std::printf("  %s\n", host::narrow(line).c_str());
        std::printf("\nVerdict: not loadable (reader result %d)\n", f.verdict->result);
    } else {
        std::printf("\nVerdict: not loadable (not read)\n");
    }
    std::printf("Reason: %s\n", f.reason.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Shows a TI C6000 COFF DSP program image the way the DSP link reads it.\n"
        "Exit status: 0 loadable, 1 not loadable (the reader's result and the reason are "
        "printed), 2 bad arguments."};
    std::string file;
    bool json = false;
    app.add_option("FILE", file, "COFF image file")->required();
    app.add_flag("--json", json, "print everything as one JSON object");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kExitUsage;
    }

    Findings f;
    f.file = file;
    if (auto refusal = cofinfo::refuseBeforeReading(file)) {
        f.reason = *refusal;
        // Only a regular file's headers are safe to read (a FIFO would block).
        std::error_code ec;
        if (std::filesystem::is_regular_file(file, ec)) f.image = cofinfo::readImageHeaders(file);
    } else {
        f.image = cofinfo::readImageHeaders(file);
        f.verdict = cofinfo::runReader(file);
        if (f.verdict->result != 0) f.reason = cofinfo::readerRefusalReason(f.image, *f.verdict);
    }
    if (json)
        printJson(f);
    else
        printText(f);
    std::fflush(stdout);
    return f.loadable() ? kExitLoadable : kExitNotLoadable;
}
