#pragma once
// Drives the framer over a byte stream the way a session does: the stream
// arrives in receives of given sizes into a ReceiveBuffer, framing starts
// after a receive only above 4 bytes, and every complete request is consumed.
// Checks the framer's promises on the way; used by the replay tests and the
// fuzz target.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "server/remote_protocol.h"

namespace framing_test {

struct Served {
    std::uint8_t opcode = 0;
    std::size_t total = 0;
    std::uint8_t command = 0;
    std::vector<std::uint8_t> payload;
    std::vector<std::uint8_t> packet;
};

struct Outcome {
    std::vector<Served> served;
    remproto::FrameStatus last = remproto::FrameStatus::NeedMore;  // why framing stopped
    std::size_t received = 0;
    std::string violation;  // empty when every promise held
};

inline Outcome drive(std::span<const std::uint8_t> stream,
                     std::span<const std::size_t> receiveSizes) {
    using remproto::FrameStatus;
    auto buffer = std::make_unique<remproto::ReceiveBuffer>();
    Outcome out;
    std::size_t consumed = 0;
    std::size_t next = 0;
    auto fail = [&](const std::string& what) {
        if (out.violation.empty()) out.violation = what;
    };
    while (out.received < stream.size()) {
        std::size_t want =
            receiveSizes.empty() ? stream.size() : receiveSizes[next++ % receiveSizes.size()];
        if (want == 0) want = 1;
        auto space = buffer->freeSpace();
        if (space.empty()) break;  // a session's receive would ask for 0 bytes here
        const std::size_t n = std::min({want, space.size(), stream.size() - out.received});
        std::copy_n(stream.begin() + static_cast<std::ptrdiff_t>(out.received), n, space.begin());
        buffer->commit(n);
        out.received += n;
        if (!remproto::framingStarts(buffer->size())) continue;
        for (;;) {
            const auto held = buffer->held();
            const remproto::FrameResult f = buffer->frame();
            out.last = f.status;
            if (f.status != FrameStatus::Request) {
                if (f.status == FrameStatus::NeedMore && f.total <= held.size())
                    fail("NeedMore although the needed bytes are held");
                if (f.status == FrameStatus::TooLong && f.total <= remproto::kReceiveBufferSize)
                    fail("TooLong for a request that fits");
                break;
            }
            const auto& q = f.request;
            if (q.total != f.total || q.total > held.size() || q.total < 5)
                fail("request length outside the held bytes");
            auto inside = [&](std::span<const std::uint8_t> s) {
                return s.empty() ||
                       (s.data() >= held.data() && s.data() + s.size() <= held.data() + q.total);
            };
            if (!inside(q.payload) || !inside(q.packet)) fail("span outside the request");
            if (stream.subspan(consumed, q.total).size() != q.total ||
                !std::equal(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(q.total),
                            stream.begin() + static_cast<std::ptrdiff_t>(consumed)))
                fail("request bytes differ from the stream");
            out.served.push_back({q.opcode, q.total, q.command,
                                  std::vector<std::uint8_t>(q.payload.begin(), q.payload.end()),
                                  std::vector<std::uint8_t>(q.packet.begin(), q.packet.end())});
            buffer->consume(q.total);
            consumed += q.total;
            if (buffer->empty()) break;
        }
        if (out.last == FrameStatus::UnknownOpcode || out.last == FrameStatus::TooLong) break;
    }
    if (consumed + buffer->size() != out.received) fail("bytes lost or invented");
    return out;
}

// One input of the framer's fuzz target (fuzz/framer_fuzz.cpp): the first
// byte picks how many receive sizes follow (two bytes each, big-endian); the
// rest is the stream.
inline Outcome driveFuzzInput(std::span<const std::uint8_t> data) {
    if (data.empty()) return {};
    std::size_t splitCount = data[0] % 32;
    std::size_t at = 1;
    std::vector<std::size_t> splits;
    for (; splitCount > 0 && at + 1 < data.size(); --splitCount, at += 2)
        splits.push_back(1 + ((std::size_t{data[at]} << 8 | data[at + 1]) % 12000));
    return drive(data.subspan(at), splits);
}

}  // namespace framing_test
