#pragma once
// Decoding of a two-line rotary encoder (a Gray-code signal). A line code is
// 0 to 3: bit 0 is line A, bit 1 line B. 0 -> 2 -> 3 -> 1 -> 0 is one step up
// each, 0 -> 1 -> 3 -> 2 -> 0 one step down each; a repeated code or a jump
// across two steps says nothing about the direction.
namespace panel {

enum class QuadStep {
    Up,
    Down,
    CodeOrderError,  // repeated code or skipped step
    OutOfRange,      // a code two lines cannot produce
};

constexpr QuadStep quadratureStep(int previous, int code) {
    if (previous < 0 || previous > 3 || code < 0 || code > 3) return QuadStep::OutOfRange;
    constexpr QuadStep U = QuadStep::Up;
    constexpr QuadStep D = QuadStep::Down;
    constexpr QuadStep E = QuadStep::CodeOrderError;
    constexpr QuadStep table[4][4] = {
        // code: 0  1  2  3
        {E, D, U, E},  // previous 0
        {U, E, E, D},  // previous 1
        {D, E, E, U},  // previous 2
        {E, U, D, E},  // previous 3
    };
    return table[previous][code];
}

}  // namespace panel
