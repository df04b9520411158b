// libFuzzer target for the request framer: any byte stream, cut into any
// receives, must frame without crashing, hanging or reading outside the
// held bytes (the framing driver checks the framer's promises as it goes).
//
// Input: the first byte picks how many receive sizes follow (two bytes each,
// big-endian); the rest is the stream.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/server_protocol/framing_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::size_t splitCount = data[0] % 32;
    std::size_t at = 1;
    std::vector<std::size_t> splits;
    for (; splitCount > 0 && at + 1 < size; --splitCount, at += 2)
        splits.push_back(1 + ((std::size_t{data[at]} << 8 | data[at + 1]) % 12000));
    std::span<const std::uint8_t> stream(data + at, size - at);
    auto outcome = framing_test::drive(stream, splits);
    if (!outcome.violation.empty()) __builtin_trap();
    return 0;
}
