#pragma once
// A COFF image's headers as they stand in the file, for display: every
// declared section header (also those the DSP link does not keep), decoded
// with the link's own decoders.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dsplink/coff_reader.h"

namespace cofinfo {

struct OptionalHeader {
    std::uint16_t magic = 0;
    std::uint16_t versionStamp = 0;
    std::uint32_t textSize = 0;
    std::uint32_t dataSize = 0;
    std::uint32_t bssSize = 0;
    std::uint32_t entry = 0;
    std::uint32_t textStart = 0;
    std::uint32_t dataStart = 0;
};

struct ImageHeaders {
    std::uint64_t fileSize = 0;
    bool headerRead = false;  // the 22-byte file header is there
    bool c6000 = false;       // and its target ID is a C6000 one
    coff::FileHeader header;
    std::optional<OptionalHeader> optional;     // when declared as 28 bytes and present
    std::vector<coff::SectionHeader> sections;  // the complete headers in the file
    std::vector<std::string> longNames;         // per section: string-table name, or ""
};

// Reads the headers of a host file; nullopt if the file cannot be opened.
// Never reads more than the file holds.
std::optional<ImageHeaders> readImageHeaders(const std::string& hostPath);

}  // namespace cofinfo
