#pragma once
// One loadable section of a DSP program image, as the COFF reader keeps it
// for the boot loader.
#include <array>
#include <cstdint>
#include <vector>

struct CoffSection {
    std::vector<std::uint8_t> data;  // raw section data; released after the download
    std::uint32_t size = 0;          // byte count of data (the header's size field)
    std::uint32_t address = 0;       // DSP load address (the header's virtual address)
    char name[8] = {};               // first 7 characters of the name, NUL-terminated
    std::uint32_t flags = 0;         // section flags (STYP_*)
    std::uint32_t filePos = 0;       // file offset of the raw data
};

inline constexpr int kMaxCoffSections = 40;
using CoffSectionTable = std::array<CoffSection, kMaxCoffSections>;

inline constexpr std::uint32_t STYP_DSECT = 0x01;
inline constexpr std::uint32_t STYP_NOLOAD = 0x02;
inline constexpr std::uint32_t STYP_BSS = 0x80;
