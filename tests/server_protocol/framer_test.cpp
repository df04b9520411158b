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

    // Nothing held needs a short header.
    EXPECT_EQ(frameRequest({}).status, FrameStatus::NeedMore);
    EXPECT_EQ(frameRequest({}).total, 5u);
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
