#pragma once
// Damaged DSP program images of the kinds a careless or hostile client can
// upload: cut short, wrong target, absurd header fields, data outside the
// file, too many sections, noise. Each is a good versioned image spoiled in
// one way, so a test can tell what a reader or a boot makes of each damage.
#include <cstdint>
#include <string>
#include <vector>

namespace coffkit {

struct DamagedImage {
    std::string name;  // what is wrong, for test output ("truncated at 30 bytes")
    std::vector<std::uint8_t> bytes;
};

// The good image they are made from: version 102.2 (a T1 program) with
// 2000 code bytes.
std::vector<std::uint8_t> undamagedImage();

// Thirteen damaged images, none of which the link's COFF reader accepts.
std::vector<DamagedImage> damagedImages();

}  // namespace coffkit
