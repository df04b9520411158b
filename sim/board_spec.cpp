#include "sim/board_spec.h"

namespace sim {
namespace {

struct KindRow {
    BoardKind kind;
    std::string_view name;
    std::uint32_t serial;
    std::uint32_t hwVersion;
    std::uint32_t boardType;
    ProgramVersion version;
};

// Serials sit well inside each kind's range; the minor versions differ per
// kind so that a swapped major/minor shows in tests.
constexpr KindRow kKinds[] = {
    {BoardKind::T1, "t1", 1050000000, 1006, kBoardTypePcm, {102, 1}},
    {BoardKind::RF, "rf", 1150000000, 2002, kBoardTypeRf, {53, 2}},
    {BoardKind::IP150, "ip", 1235000000, 1006, kBoardTypeIp, {99, 6}},
    {BoardKind::IP163, "ipg", 1245000000, 2000, kBoardTypeIp, {99, 6}},
    {BoardKind::Analog, "pots", 1350000000, 1006, kBoardTypeAnalog, {58, 3}},
};

const KindRow& row(BoardKind kind) {
    for (const auto& r : kKinds)
        if (r.kind == kind) return r;
    return kKinds[0];
}

}  // namespace

std::string_view kindName(BoardKind kind) {
    return row(kind).name;
}

std::optional<BoardKind> parseBoardKind(std::string_view name) {
    for (const auto& r : kKinds)
        if (r.name == name) return r.kind;
    return std::nullopt;
}

BoardSpec defaultBoardSpec(BoardKind kind) {
    const KindRow& r = row(kind);
    BoardSpec spec;
    spec.kind = kind;
    spec.detail.serial = r.serial;
    spec.detail.hwVersion = r.hwVersion;
    spec.detail.boardType = r.boardType;
    spec.defaultVersion = r.version;
    return spec;
}

}  // namespace sim
