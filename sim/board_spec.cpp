#include "sim/board_spec.h"

#include "sim/dsp_wire.h"

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

std::array<BYTE, BoardDetail::kSize> BoardDetail::encode() const {
    std::array<BYTE, kSize> out{};
    putLe32(out, 0, serial);
    putLe32(out, 4, info1);
    putLe32(out, 8, hwVersion);
    putLe32(out, 12, info3);
    putLe64(out, 16, info45);
    putLe32(out, 24, boardType);
    putLe32(out, 28, info7);
    return out;
}

BoardDetail BoardDetail::decode(const std::array<BYTE, kSize>& bytes) {
    BoardDetail d;
    d.serial = getLe32(bytes, 0);
    d.info1 = getLe32(bytes, 4);
    d.hwVersion = getLe32(bytes, 8);
    d.info3 = getLe32(bytes, 12);
    d.info45 = getLe64(bytes, 16);
    d.boardType = getLe32(bytes, 24);
    d.info7 = getLe32(bytes, 28);
    return d;
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
