#pragma once
// How a simulated board learns the version of the program it booted.
//
// The board sees only address-tagged bytes during a boot, never section
// names. By convention an image carries its version in a section named ".ver"
// loaded at kVersionAddress: two little-endian 16-bit words, major then minor.
// When those four bytes were not all written by the boot, the board runs its
// kind's default version.
//
// The address lies far from where C6000 images place code, data and the
// debug sections that loaders send to address 0 (real images put up to 1 MB
// there), so only an image that means to set the version does so.
#include <cstdint>
#include <string>

namespace sim {

inline constexpr std::uint32_t kVersionAddress = 0x7FFFF000;
inline constexpr std::uint32_t kVersionSize = 4;

struct ProgramVersion {
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    friend bool operator==(const ProgramVersion&, const ProgramVersion&) = default;
};

// "major.minor"
std::string toString(ProgramVersion version);

}  // namespace sim
