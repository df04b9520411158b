#include "server/remote_protocol.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace remproto {

namespace {

FrameResult needMore(std::uint8_t opcode, std::uint64_t total) {
    FrameResult r;
    r.status = FrameStatus::NeedMore;
    r.opcode = opcode;
    r.total = total;
    return r;
}

// The request's length once its size is known: complete, still arriving, or
// beyond what the buffer can hold.
FrameResult sized(std::uint8_t opcode, std::uint64_t total, std::size_t held,
                  std::size_t capacity) {
    if (total > capacity) {
        FrameResult r;
        r.status = FrameStatus::TooLong;
        r.opcode = opcode;
        r.total = total;
        return r;
    }
    if (held < total) return needMore(opcode, total);
    FrameResult r;
    r.status = FrameStatus::Request;
    r.opcode = opcode;
    r.total = total;
    return r;
}

}  // namespace

FrameResult frameRequest(std::span<const std::uint8_t> held, std::size_t capacity) {
    if (held.empty()) return needMore(0, kShortHeaderSize);
    const std::uint8_t opcode = held[0];
    if (!isRequestOpcode(opcode)) {
        FrameResult r;
        r.status = FrameStatus::UnknownOpcode;
        r.opcode = opcode;
        return r;
    }

    FrameResult r;
    if (!isLongForm(opcode)) {
        // The size bytes of Rem_PrimGet and Rem_GetStatus do not lengthen them.
        if (held.size() < kShortHeaderSize) return needMore(opcode, kShortHeaderSize);
        const std::uint16_t shortSize = readU16be(held, 3);
        const std::uint64_t total =
            kShortHeaderSize + (opcode == Rem_PrimSend ? std::uint64_t{shortSize} : 0);
        r = sized(opcode, total, held.size(), capacity);
        if (r.status != FrameStatus::Request) return r;
        RemRequest& q = r.request;
        q.opcode = static_cast<RemOpcode>(opcode);
        q.total = static_cast<std::size_t>(total);
        q.device = held[1];
        q.dspOpcode = held[2];
        q.shortSize = shortSize;
        if (opcode == Rem_PrimSend) {
            q.size = shortSize;
            q.payload = held.subspan(kShortHeaderSize, shortSize);
            q.packet = held.subspan(1, kDspPacketHeaderSize + shortSize);
        }
        return r;
    }

    if (held.size() < kLongSizeKnownAt) return needMore(opcode, kLongSizeKnownAt);
    const std::uint32_t size = readU32le(held, 4);
    // Computed wide: a size near 2^32 must not wrap into a short request.
    const std::uint64_t total = kLongHeaderSize + std::uint64_t{size};
    r = sized(opcode, total, held.size(), capacity);
    if (r.status != FrameStatus::Request) return r;
    RemRequest& q = r.request;
    q.opcode = static_cast<RemOpcode>(opcode);
    q.total = static_cast<std::size_t>(total);
    q.command = held[1];
    q.size = size;
    q.replyOpcode = held[8];
    q.replyLength = readU32le(held, 12);
    q.payload = held.subspan(kLongHeaderSize, size);
    return r;
}

void ReceiveBuffer::commit(std::size_t n) {
    held_ += std::min(n, kCapacity - held_);
}

void ReceiveBuffer::consume(std::size_t n) {
    n = std::min(n, held_);
    std::memmove(bytes_.data(), bytes_.data() + n, held_ - n);
    held_ -= n;
}

std::span<const std::uint8_t> replyBytes(const RemReply& reply) {
    static_assert(std::endian::native == std::endian::little,
                  "the reply record is sent as it lies in memory");
    static_assert(offsetof(RemReply, length) == 4 && offsetof(RemReply, data) == kReplyHeaderSize);
    const std::size_t length = std::min<std::size_t>(reply.length, kReplyDataMax);
    return {reinterpret_cast<const std::uint8_t*>(&reply), kReplyHeaderSize + length};
}

ReplyHeader decodeReplyHeader(std::span<const std::uint8_t, kReplyHeaderSize> bytes) {
    return {readU32le(bytes, 0), readU32le(bytes, 4)};
}

namespace {

std::vector<std::uint8_t> shortForm(std::uint8_t opcode, std::uint8_t device,
                                    std::uint8_t dspOpcode, std::uint16_t size,
                                    std::span<const std::uint8_t> payload) {
    std::vector<std::uint8_t> out{opcode, device, dspOpcode, static_cast<std::uint8_t>(size >> 8),
                                  static_cast<std::uint8_t>(size)};
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

std::vector<std::uint8_t> longForm(std::uint8_t opcode, std::uint8_t command,
                                   std::span<const std::uint8_t> payload, std::uint8_t replyOpcode,
                                   std::uint32_t replyLength) {
    std::vector<std::uint8_t> out(kLongHeaderSize);
    out[0] = opcode;
    out[1] = command;
    writeU32le(out, 4, static_cast<std::uint32_t>(payload.size()));
    out[8] = replyOpcode;
    writeU32le(out, 12, replyLength);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

}  // namespace

std::vector<std::uint8_t> encodePrimSend(std::uint8_t device, std::uint8_t dspOpcode,
                                         std::span<const std::uint8_t> payload) {
    payload = payload.first(std::min<std::size_t>(payload.size(), 0xffff));
    return shortForm(Rem_PrimSend, device, dspOpcode, static_cast<std::uint16_t>(payload.size()),
                     payload);
}

std::vector<std::uint8_t> encodePrimGet(std::uint16_t size, std::uint8_t device,
                                        std::uint8_t dspOpcode) {
    return shortForm(Rem_PrimGet, device, dspOpcode, size, {});
}

std::vector<std::uint8_t> encodeGetStatus() {
    return shortForm(Rem_GetStatus, 0, 0, 0, {});
}

std::vector<std::uint8_t> encodeAtomicGet(std::uint8_t command,
                                          std::span<const std::uint8_t> payload,
                                          std::uint8_t replyOpcode, std::uint32_t replyLength) {
    return longForm(Rem_AtomicGet, command, payload, replyOpcode, replyLength);
}

std::vector<std::uint8_t> encodeAtomicSend(std::uint8_t command,
                                           std::span<const std::uint8_t> payload) {
    return longForm(Rem_AtomicSend, command, payload, 0, 0);
}

std::vector<std::uint8_t> encodeControl(std::uint8_t subCommand,
                                        std::span<const std::uint8_t> payload) {
    return longForm(Rem_Control, subCommand, payload, 0, 0);
}

std::vector<std::uint8_t> encodeReply(std::uint32_t status, std::span<const std::uint8_t> data) {
    data = data.first(std::min(data.size(), kReplyDataMax));
    std::vector<std::uint8_t> out(kReplyHeaderSize);
    writeU32le(out, 0, status);
    writeU32le(out, 4, static_cast<std::uint32_t>(data.size()));
    out.insert(out.end(), data.begin(), data.end());
    return out;
}

bool decodeStatusReply(std::span<const std::uint8_t> data, StatusBlock& out) {
    if (data.size() < kStatusReplyLength) return false;
    auto block = data.subspan(1, wire::kStatusBlockSize);
    out.device = block[wire::kStatusDeviceOffset];
    out.state = block[wire::kStatusOffset];
    out.sequence = block[wire::kSequenceOffset];
    std::copy_n(block.begin() + wire::kStatusDetailOffset, out.detail.size(), out.detail.begin());
    return true;
}

}  // namespace remproto
