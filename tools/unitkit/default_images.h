#pragma once
// The DSP program images a fresh unit ships with: one per board kind, each
// carrying the program version that its kind's controller accepts, in the
// install folder under the names the controllers load ("t1.cof", "rf.cof",
// "ip.cof", "ipg.cof", "pots.cof").
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/coffkit/dsp_version.h"

namespace unitkit {

struct DefaultImage {
    const char* fileName;
    coffkit::DspProgramVersion version;
};

// t1.cof 102.2, rf.cof 53.3, ip.cof 99.6, ipg.cof 99.6, pots.cof 58.4.
std::span<const DefaultImage> defaultImages();

// The COFF file of one default image.
std::vector<std::uint8_t> buildDefaultImage(const DefaultImage& image);

// Writes every default image into the folder (a host path), creating it if
// needed and replacing files of the same names. Throws std::runtime_error
// naming the file that could not be written.
void writeDefaultImages(const std::string& installFolderHostPath);

}  // namespace unitkit
