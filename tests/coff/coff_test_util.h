#pragma once
// Shared by the COFF tests: the image path the link uses, reading an image
// through a temporary unit root, the shared real files, and a probe on the
// process's allocations.
#include <cstdint>
#include <string>
#include <vector>

#include "dsplink/coff_reader.h"
#include "tests/support/test_support.h"

namespace cofftest {

inline const std::wstring kImagePath = L"\\Program Files\\Orvane Instruments\\480\\rf.cof";

struct ReadOutcome {
    int result = -1;
    int count = 0;
    CoffSectionTable sections;
};

// Writes `image` to kImagePath under `root` and reads it back.
ReadOutcome writeAndRead(const testing_support::TempUnitRoot& root,
                         const std::vector<std::uint8_t>& image);

std::vector<std::uint8_t> readHostFile(const std::string& hostPath);

// TOVEL_SHARED_DIR "/coff/" and whether its files are there.
std::string sharedCoffDir();
bool haveSharedCoffFiles();

// Every operator new of the test process passes this probe.
namespace allocations {
void reset();                     // forget the largest size seen
std::size_t largest();            // largest single request since reset
void failFrom(std::size_t size);  // requests of this size or more throw; 0 turns it off
}  // namespace allocations

}  // namespace cofftest
