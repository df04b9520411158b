// libFuzzer target for the request serving path: any byte stream, cut into
// any receives, goes through a session's serving core (framing, serving
// through a fake board, building the replies) without crashing, hanging or
// reading outside the held bytes; the framing driver checks the framer's
// promises, that the core serves exactly the framed requests and that every
// reply is well formed.
//
// Input: see framing_test::driveFuzzInput.
#include <cstddef>
#include <cstdint>

#include "fuzz/framing_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const framing_test::QuietHost quiet;
    const auto outcome = framing_test::driveFuzzInput(std::span<const std::uint8_t>(data, size),
                                                      /*keepServed=*/false);
    if (!outcome.violation.empty()) __builtin_trap();
    return 0;
}
