#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "server/remote_protocol.h"

using namespace remproto;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes filled(std::size_t n, std::uint8_t first = 0) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(first + i);
    return b;
}

// A long-form header with an arbitrary size field and no payload.
Bytes longHeader(std::uint8_t opcode, std::uint32_t size) {
    Bytes b(kLongHeaderSize);
    b[0] = opcode;
    writeU32le(b, 4, size);
    return b;
}

}  // namespace

TEST(Framer, FramingStartsOnlyAboveFourBytes) {
    EXPECT_FALSE(framingStarts(0));
    EXPECT_FALSE(framingStarts(4));
    EXPECT_TRUE(framingStarts(5));
}

TEST(Framer, TwoRequestsInOneBufferFrameOneAfterTheOther) {
    ReceiveBuffer buffer;
    Bytes both = encodePrimGet(16) + encodeControl(RemCtl_Version);
    std::copy(both.begin(), both.end(), buffer.freeSpace().begin());
    buffer.commit(both.size());

    FrameResult first = buffer.frame();
    ASSERT_EQ(first.status, FrameStatus::Request);
    EXPECT_EQ(first.request.opcode, Rem_PrimGet);
    EXPECT_EQ(first.total, 5u);
    EXPECT_EQ(first.request.primGetLength(), 20u);
    buffer.consume(first.total);

    FrameResult second = buffer.frame();
    ASSERT_EQ(second.status, FrameStatus::Request);
    EXPECT_EQ(second.request.opcode, Rem_Control);
    EXPECT_EQ(second.request.command, RemCtl_Version);
    EXPECT_EQ(second.total, 16u);
    buffer.consume(second.total);
    EXPECT_TRUE(buffer.empty());
}

TEST(Framer, AtomicSendWithItsPayloadInASecondPieceIsCompleteOnlyAfterIt) {
    Bytes request = encodeAtomicSend(0x21, Bytes{0x0a, 0x0b, 0x0c});
    FrameResult header = frameRequest(std::span(request).first(16));
    EXPECT_EQ(header.status, FrameStatus::NeedMore);
    EXPECT_EQ(header.opcode, Rem_AtomicSend);
    EXPECT_EQ(header.total, 19u);
    FrameResult whole = frameRequest(request);
    ASSERT_EQ(whole.status, FrameStatus::Request);
    EXPECT_EQ(whole.request.command, 0x21);
    EXPECT_EQ(whole.request.size, 3u);
    EXPECT_EQ(Bytes(whole.request.payload.begin(), whole.request.payload.end()),
              (Bytes{0x0a, 0x0b, 0x0c}));
}

TEST(Framer, PrimSendArrivingInThreePiecesNeedsItsWholeLength) {
    Bytes request = encodePrimSend(1, 0x40, filled(25));
    ASSERT_EQ(request.size(), 30u);
    ReceiveBuffer buffer;
    for (std::size_t piece = 0; piece < 3; ++piece) {
        auto space = buffer.freeSpace();
        std::copy_n(request.begin() + static_cast<std::ptrdiff_t>(piece * 10), 10, space.begin());
        buffer.commit(10);
        FrameResult f = buffer.frame();
        if (piece < 2) {
            EXPECT_EQ(f.status, FrameStatus::NeedMore);
            EXPECT_EQ(f.total, 30u);  // "needed 30 have 10", "needed 30 have 20"
            EXPECT_EQ(buffer.size(), (piece + 1) * 10);
        } else {
            ASSERT_EQ(f.status, FrameStatus::Request);
            EXPECT_EQ(f.request.packet.size(), 29u);
            EXPECT_EQ(f.request.packet.data(), buffer.held().data() + 1);
            EXPECT_EQ(f.request.packet[0], 1);     // device
            EXPECT_EQ(f.request.packet[1], 0x40);  // opcode
            EXPECT_EQ(f.request.packet[3], 25);    // size low byte
            EXPECT_EQ(f.request.payload.size(), 25u);
        }
    }
}

TEST(Framer, BytesLeftBehindAServedRequestAreFramedAsTheyAre) {
    // Three bytes of a Rem_PrimGet behind a served request: a fragment.
    Bytes held = encodeGetStatus() + Bytes{Rem_PrimGet, 0, 0};
    ReceiveBuffer buffer;
    std::copy(held.begin(), held.end(), buffer.freeSpace().begin());
    buffer.commit(held.size());
    ASSERT_EQ(buffer.frame().status, FrameStatus::Request);
    buffer.consume(5);
    FrameResult rest = buffer.frame();
    EXPECT_EQ(rest.status, FrameStatus::NeedMore);
    EXPECT_EQ(rest.opcode, Rem_PrimGet);
    EXPECT_EQ(rest.total, 5u);

    // One byte of an unknown opcode is recognised at once.
    Bytes bad{7};
    EXPECT_EQ(frameRequest(bad).status, FrameStatus::UnknownOpcode);
    // A Rem_PrimSend whose size bytes are not there yet needs at least its header.
    EXPECT_EQ(frameRequest(Bytes{Rem_PrimSend, 1, 2}).total, 5u);
    // A long form needs 8 bytes before its length is known.
    FrameResult partial = frameRequest(Bytes{Rem_Control, 6, 0, 0, 0, 0, 0});
    EXPECT_EQ(partial.status, FrameStatus::NeedMore);
    EXPECT_EQ(partial.total, 8u);
    EXPECT_EQ(frameRequest(longHeader(Rem_AtomicGet, 100)).total, 116u);
}

TEST(Framer, UnknownOpcodeConsumesNothingWhateverFollows) {
    for (std::uint8_t opcode : {6, 7, 0x80, 0xff}) {
        Bytes held = Bytes{opcode} + encodeControl(RemCtl_Version);
        FrameResult f = frameRequest(held);
        EXPECT_EQ(f.status, FrameStatus::UnknownOpcode) << int(opcode);
        EXPECT_EQ(f.opcode, opcode);
        EXPECT_EQ(f.total, 0u);
    }
}

TEST(Framer, ShortStatusAndGetRequestsAreFiveBytesWhateverTheirSize) {
    Bytes status{Rem_GetStatus, 9, 9, 0xff, 0xff};
    FrameResult f = frameRequest(status + filled(20));
    ASSERT_EQ(f.status, FrameStatus::Request);
    EXPECT_EQ(f.total, 5u);
    EXPECT_TRUE(f.request.payload.empty());
    EXPECT_TRUE(f.request.packet.empty());

    FrameResult get = frameRequest(Bytes{Rem_PrimGet, 1, 5, 0xff, 0xff});
    ASSERT_EQ(get.status, FrameStatus::Request);
    EXPECT_EQ(get.request.primGetLength(), 65539u);
}

TEST(Framer, PacketSizesAroundTheLinkLimitAreFramedAndLeftToTheLink) {
    FrameResult limit = frameRequest(encodePrimGet(8180));
    ASSERT_EQ(limit.status, FrameStatus::Request);
    EXPECT_EQ(limit.request.primGetLength(), kDspPacketMax);
    FrameResult over = frameRequest(encodePrimGet(8181));
    ASSERT_EQ(over.status, FrameStatus::Request);
    EXPECT_EQ(over.request.primGetLength(), kDspPacketMax + 1);

    FrameResult send = frameRequest(encodePrimSend(1, 2, filled(8181)));
    ASSERT_EQ(send.status, FrameStatus::Request);
    EXPECT_EQ(send.total, 8186u);
    EXPECT_EQ(send.request.packet.size(), 8185u);
}

TEST(Framer, RequestsLongerThanTheBufferAreRefusedAsSoonAsTheirSizeIsKnown) {
    EXPECT_EQ(frameRequest(longHeader(Rem_AtomicSend, 9984)).status, FrameStatus::NeedMore);
    FrameResult over = frameRequest(longHeader(Rem_AtomicSend, 9985));
    EXPECT_EQ(over.status, FrameStatus::TooLong);
    EXPECT_EQ(over.total, 10001u);

    Bytes primSend{Rem_PrimSend, 1, 2, 0x27, 0x0b};  // 9995 bytes of payload: 10000 in all
    EXPECT_EQ(frameRequest(primSend).status, FrameStatus::NeedMore);
    primSend[4] = 0x0c;
    EXPECT_EQ(frameRequest(primSend).status, FrameStatus::TooLong);

    // A size near 2^32 does not wrap around into a short request.
    FrameResult huge = frameRequest(longHeader(Rem_Control, 0xfffffff0u) + filled(64));
    EXPECT_EQ(huge.status, FrameStatus::TooLong);
    EXPECT_EQ(huge.total, 16ull + 0xfffffff0ull);

    // A smaller buffer refuses earlier.
    EXPECT_EQ(frameRequest(longHeader(Rem_AtomicGet, 100), 64).status, FrameStatus::TooLong);
}

TEST(Framer, LongestRequestThatFitsFillsTheBufferExactly) {
    auto buffer = std::make_unique<ReceiveBuffer>();
    Bytes request = encodeAtomicSend(1, filled(9984));
    ASSERT_EQ(request.size(), ReceiveBuffer::kCapacity);
    std::copy(request.begin(), request.end(), buffer->freeSpace().begin());
    buffer->commit(request.size());
    EXPECT_TRUE(buffer->full());
    EXPECT_TRUE(buffer->freeSpace().empty());
    FrameResult f = buffer->frame();
    ASSERT_EQ(f.status, FrameStatus::Request);
    EXPECT_EQ(f.request.payload.size(), 9984u);
    EXPECT_EQ(f.request.payload.back(), static_cast<std::uint8_t>(9983));
}

TEST(Framer, EmptyBufferNeedsMore) {
    FrameResult f = frameRequest({});
    EXPECT_EQ(f.status, FrameStatus::NeedMore);
    EXPECT_EQ(f.total, 5u);
}

TEST(ReceiveBufferTest, CommitAndConsumeKeepTheUnservedBytesInFront) {
    auto buffer = std::make_unique<ReceiveBuffer>();
    EXPECT_EQ(buffer->freeSpace().size(), 10000u);
    Bytes data = filled(300);
    std::copy(data.begin(), data.end(), buffer->freeSpace().begin());
    buffer->commit(300);
    EXPECT_EQ(buffer->freeSpace().size(), 9700u);
    buffer->consume(100);  // the rest overlaps its old place
    ASSERT_EQ(buffer->size(), 200u);
    EXPECT_EQ(buffer->held()[0], 100);
    EXPECT_EQ(buffer->held()[199], static_cast<std::uint8_t>(299));
    buffer->consume(1000);  // more than held: empties
    EXPECT_TRUE(buffer->empty());
    buffer->commit(20000);  // more than free: fills
    EXPECT_TRUE(buffer->full());
    buffer->clear();
    EXPECT_TRUE(buffer->empty());
}
