#pragma once
// Writes TI C6000 COFF2 images: file header, optional header, section headers,
// section data and, for names longer than 8 characters, a string table. No
// symbols, relocations or line numbers.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dsplink/coff_reader.h"

namespace coffkit {

struct CoffSectionSpec {
    std::string name;  // up to 8 characters in the header; longer ones go to the string table
    std::uint32_t address = 0;  // physical and virtual address
    std::uint32_t flags = coff::STYP_TEXT;
    std::vector<std::uint8_t> data;  // raw data, written as given (never byte-swapped)
    // Size declared for a section without data in the file (BSS and the like).
    std::uint32_t uninitializedSize = 0;

    // Raw header values that replace the computed ones, for damaged images.
    std::optional<std::uint32_t> sizeField;
    std::optional<std::uint32_t> rawDataPosField;
};

// A section with data in the file, and one with only a declared size.
CoffSectionSpec dataSection(std::string name, std::uint32_t address, std::uint32_t flags,
                            std::vector<std::uint8_t> data);
CoffSectionSpec bssSection(std::string name, std::uint32_t address, std::uint32_t size);

struct CoffImageSpec {
    bool bigEndian = false;      // header byte order; also sets F_BIG instead of F_LITTLE
    bool optionalHeader = true;  // the 28-byte header TI's linker writes
    std::uint16_t versionId = coff::kVersionIdCoff2;
    std::uint32_t entry = 0;      // entry point in the optional header
    std::uint32_t timeStamp = 0;  // fixed by default so images are reproducible
    std::vector<CoffSectionSpec> sections;

    // Raw header values that replace the computed ones, for damaged images.
    std::optional<std::uint16_t> sectionCountField;
    std::optional<std::uint16_t> targetIdField;  // written in the header's byte order
    std::optional<std::uint16_t> optionalHeaderSizeField;
    std::optional<std::uint16_t> flagsField;
};

// Builds the whole file. Throws std::invalid_argument when the description
// cannot be written (more than 65535 sections, more than 4 GiB).
std::vector<std::uint8_t> buildCoffImage(const CoffImageSpec& spec);

}  // namespace coffkit
