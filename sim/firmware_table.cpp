#include "sim/firmware_table.h"

#include <algorithm>

#include "sim/dsp_wire.h"

namespace sim {
namespace {

constexpr std::size_t kRfVersionSize = 36;
constexpr std::size_t kT1VersionSize = 16;
constexpr std::size_t kIpVersionSize = 764;
constexpr std::size_t kAnalogVersionSize = 660;

// RF: major and minor as the low halves of the 32-bit words at 20 and 24.
std::vector<BYTE> rfVersionReply(const ProgramContext& program, std::span<const BYTE>) {
    std::vector<BYTE> reply(kRfVersionSize, 0);
    wire::writeU32le(reply, 20, program.version.major);
    wire::writeU32le(reply, 24, program.version.minor);
    return reply;
}

// T1: one byte each at 14 and 15. The controller sign-extends them, so a
// version of 255 (0xFF) reads back as 0xFFFF.
std::vector<BYTE> t1VersionReply(const ProgramContext& program, std::span<const BYTE>) {
    std::vector<BYTE> reply(kT1VersionSize, 0);
    reply[14] = static_cast<BYTE>(program.version.major);
    reply[15] = static_cast<BYTE>(program.version.minor);
    return reply;
}

// IP: 16-bit words at 0 and 2; the newer board (IP163) marks itself at 756.
std::vector<BYTE> ipVersionReply(const ProgramContext& program, std::span<const BYTE>) {
    std::vector<BYTE> reply(kIpVersionSize, 0);
    wire::writeU16le(reply, 0, program.version.major);
    wire::writeU16le(reply, 2, program.version.minor);
    if (program.kind == BoardKind::IP163)
        wire::writeU32le(reply, kNewIpBoardMarkerOffset, kNewIpBoardMarker);
    return reply;
}

// Analog: one byte each at 0 and 1.
std::vector<BYTE> analogVersionReply(const ProgramContext& program, std::span<const BYTE>) {
    std::vector<BYTE> reply(kAnalogVersionSize, 0);
    reply[0] = static_cast<BYTE>(program.version.major);
    reply[1] = static_cast<BYTE>(program.version.minor);
    return reply;
}

// Flash: the program is written to the board's flash; the reply repeats the
// first 8 payload bytes (zero-padded).
std::vector<BYTE> flashReply(const ProgramContext&, std::span<const BYTE> payload) {
    std::vector<BYTE> reply(kFlashReplySize, 0);
    std::copy_n(payload.begin(), std::min(payload.size(), reply.size()), reply.begin());
    return reply;
}

std::vector<BYTE> echoReply(const ProgramContext&, std::span<const BYTE> payload) {
    return {payload.begin(), payload.end()};
}

constexpr FirmwareCommand kEcho{kOpcodeEcho, "echo", CommandOutcome::Reply, kOpcodeEcho, echoReply};
constexpr FirmwareCommand kReject{kOpcodeReject, "reject", CommandOutcome::Reject, 0, nullptr};

constexpr FirmwareCommand kT1Commands[] = {
    {12, "version query", CommandOutcome::Reply, 12, t1VersionReply},
    {50, "flash program", CommandOutcome::Reply, 50, flashReply},
    kEcho,
    kReject,
};

constexpr FirmwareCommand kRfCommands[] = {
    {1, "version query", CommandOutcome::Reply, 1, rfVersionReply},
    {15, "flash program", CommandOutcome::Reply, 15, flashReply},
    kEcho,
    kReject,
};

constexpr FirmwareCommand kIpCommands[] = {
    {0, "flash program", CommandOutcome::Reply, 0, flashReply},
    {1, "version query", CommandOutcome::Reply, 1, ipVersionReply},
    kEcho,
    kReject,
};

constexpr FirmwareCommand kAnalogCommands[] = {
    {1, "version query", CommandOutcome::Reply, 1, analogVersionReply},
    kEcho,
    kReject,
};

}  // namespace

std::span<const FirmwareCommand> firmwareCommands(BoardKind kind) {
    switch (kind) {
        case BoardKind::T1:
            return kT1Commands;
        case BoardKind::RF:
            return kRfCommands;
        case BoardKind::IP150:
        case BoardKind::IP163:
            return kIpCommands;
        case BoardKind::Analog:
            return kAnalogCommands;
    }
    return {};
}

const FirmwareCommand* findFirmwareCommand(BoardKind kind, BYTE opcode) {
    for (const auto& command : firmwareCommands(kind))
        if (command.opcode == opcode) return &command;
    return nullptr;
}

BYTE versionQueryOpcode(BoardKind kind) {
    return kind == BoardKind::T1 ? 12 : 1;
}

}  // namespace sim
