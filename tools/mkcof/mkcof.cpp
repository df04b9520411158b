// mkcof: writes a TI C6000 COFF2 DSP program image from a short description.
//
//   mkcof -o rf.cof --version 2.5 --code-bytes 4096
//   mkcof -o t.cof --big-endian --section .text:0x80000000=@code.bin
//         --section .cinit:0x80010000:data=pattern:0xAA:300 --section .bss:0x1000=bss:512
#include <CLI/CLI.hpp>

#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "tools/coffkit/coff_writer.h"
#include "tools/coffkit/dsp_version.h"
#include "tools/coffkit/section_arg.h"

namespace {

constexpr const char* kSectionHelp =
    "A section: NAME:ADDR[:FLAGS]=CONTENT (repeatable; file order as given).\n"
    "  ADDR     0x hex or decimal DSP address\n"
    "  FLAGS    number or names joined by '+': text data bss copy noload dsect\n"
    "           (default: bss for bss: content, text otherwise)\n"
    "  CONTENT  @FILE | pattern:BYTE:LEN | hex:DIGITS | bss:LEN\n"
    "  A NAME containing ':' needs explicit FLAGS; names over 8 characters go to\n"
    "  the string table (the DSP link then records them without a name).";

bool writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out.flush());
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Writes a TI C6000 COFF2 DSP program image."};
    std::string output;
    bool bigEndian = false;
    bool noOptionalHeader = false;
    std::string versionText;
    std::uint32_t codeBytes = 0;
    std::uint32_t entry = 0;
    std::vector<std::string> sectionArgs;
    app.add_option("-o,--output", output, "Image file to write")->required();
    app.add_flag("--big-endian", bigEndian,
                 "Write the headers big-endian (target ID reads 0x9900)");
    app.add_flag("--no-opt-header", noOptionalHeader, "Leave out the 28-byte optional header");
    app.add_option("--version", versionText,
                   "DSP program version MAJOR.MINOR, stored in a \".ver\" section at 0x7FFFF000 "
                   "as two little-endian 16-bit words");
    app.add_option("--code-bytes", codeBytes,
                   "Add a \".text\" section of this many pattern bytes at 0x80000000 "
                   "(before the --section ones)");
    app.add_option("--entry", entry, "Entry point written to the optional header");
    app.add_option("-s,--section", sectionArgs, kSectionHelp);
    CLI11_PARSE(app, argc, argv);

    coffkit::CoffImageSpec spec;
    spec.bigEndian = bigEndian;
    spec.optionalHeader = !noOptionalHeader;
    spec.entry = entry;
    try {
        if (codeBytes > 0)
            spec.sections.push_back(coffkit::dataSection(".text", coffkit::kCodeSectionAddress,
                                                         coff::STYP_TEXT,
                                                         coffkit::codeImage(codeBytes)));
        for (const std::string& arg : sectionArgs)
            spec.sections.push_back(coffkit::parseSectionArg(arg));
        if (!versionText.empty())
            spec.sections.push_back(coffkit::dataSection(
                coffkit::kVersionSectionName, coffkit::kVersionSectionAddress, coff::STYP_DATA,
                coffkit::encodeVersion(coffkit::parseVersionArg(versionText))));
        if (spec.sections.empty()) {
            std::cerr << "mkcof: nothing to write: give --section, --code-bytes or --version\n";
            return 2;
        }
        if (!writeFile(output, coffkit::buildCoffImage(spec))) {
            std::cerr << "mkcof: cannot write '" << output << "'\n";
            return 1;
        }
    } catch (const std::exception& e) {
        std::cerr << "mkcof: " << e.what() << "\n";
        return 2;
    }
    return 0;
}
