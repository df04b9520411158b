// libFuzzer target for the request framer: any byte stream, cut into any
// receives, must frame without crashing, hanging or reading outside the
// held bytes (the framing driver checks the framer's promises as it goes).
//
// Input: see framing_test::driveFuzzInput.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/server_protocol/framing_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto outcome = framing_test::driveFuzzInput(std::span<const std::uint8_t>(data, size));
    if (!outcome.violation.empty()) __builtin_trap();
    return 0;
}
