#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "server/remote_protocol.h"

using namespace remproto;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes bytesOf(std::span<const std::uint8_t> s) {
    return Bytes(s.begin(), s.end());
}

Bytes controlRequest(std::uint8_t sub) {
    Bytes b(16, 0);
    b[0] = 5;
    b[1] = sub;
    return b;
}

}  // namespace

TEST(WireFormat, VersionQueryAndItsReply) {
    const Bytes request{0x05, 0x06, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(encodeControl(RemCtl_Version), request);
    FrameResult f = frameRequest(request);
    ASSERT_EQ(f.status, FrameStatus::Request);
    EXPECT_EQ(f.request.opcode, Rem_Control);
    EXPECT_EQ(f.request.command, RemCtl_Version);
    EXPECT_EQ(f.total, 16u);

    auto reply = std::make_unique<RemReply>();
    reply->status = kControlOkStatus;
    reply->length = 4;
    writeU32le(reply->data, 0, kServerVersion);
    const Bytes expected{0x04, 0, 0, 0, 0x04, 0, 0, 0, 0xED, 0xEA, 0x02, 0x00};
    EXPECT_EQ(bytesOf(replyBytes(*reply)), expected);
    EXPECT_EQ(encodeReply(4, Bytes{0xED, 0xEA, 0x02, 0x00}), expected);
    auto header = decodeReplyHeader(std::span(expected).first<8>());
    EXPECT_EQ(header.status, 4u);
    EXPECT_EQ(header.length, 4u);
}

TEST(WireFormat, ReadingAPacketWithASixteenBytePayload) {
    const Bytes request{0x01, 0x01, 0x05, 0x00, 0x10};
    EXPECT_EQ(encodePrimGet(16, 1, 5), request);
    FrameResult f = frameRequest(request);
    ASSERT_EQ(f.status, FrameStatus::Request);
    EXPECT_EQ(f.request.opcode, Rem_PrimGet);
    EXPECT_EQ(f.request.primGetLength(), 20u);

    auto reply = std::make_unique<RemReply>();
    reply->status = 0;
    reply->length = 20;
    for (int i = 0; i < 20; ++i) reply->data[i] = static_cast<std::uint8_t>(0xA0 + i);
    Bytes wire = bytesOf(replyBytes(*reply));
    ASSERT_EQ(wire.size(), 28u);
    EXPECT_EQ(Bytes(wire.begin(), wire.begin() + 8), (Bytes{0, 0, 0, 0, 0x14, 0, 0, 0}));
    EXPECT_EQ(wire[8], 0xA0);
    EXPECT_EQ(wire[27], 0xA0 + 19);
}

TEST(WireFormat, AtomicSendOfThreeBytes) {
    const Bytes request{0x04, 0x21, 0, 0, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0A, 0x0B, 0x0C};
    EXPECT_EQ(encodeAtomicSend(0x21, Bytes{0x0A, 0x0B, 0x0C}), request);
    FrameResult f = frameRequest(request);
    ASSERT_EQ(f.status, FrameStatus::Request);
    EXPECT_EQ(f.total, 19u);
    EXPECT_EQ(f.request.command, 0x21);
    auto reply = std::make_unique<RemReply>();
    EXPECT_EQ(bytesOf(replyBytes(*reply)), Bytes(8, 0));
}

TEST(WireFormat, AtomicGetCarriesItsReplyOpcodeAndLength) {
    Bytes request = encodeAtomicGet(0x30, Bytes{1, 2}, 0x31, 300);
    const Bytes header{0x03, 0x30, 0, 0, 0x02, 0, 0, 0, 0x31, 0, 0, 0, 0x2C, 0x01, 0, 0};
    EXPECT_EQ(Bytes(request.begin(), request.begin() + 16), header);
    request[2] = request[3] = request[9] = request[10] = request[11] =
        0x5a;  // reserved: not examined
    FrameResult f = frameRequest(request);
    ASSERT_EQ(f.status, FrameStatus::Request);
    EXPECT_EQ(f.request.replyOpcode, 0x31);
    EXPECT_EQ(f.request.replyLength, 300u);
    EXPECT_EQ(f.request.size, 2u);
    EXPECT_EQ(bytesOf(f.request.payload), (Bytes{1, 2}));
}

TEST(WireFormat, CofDownloadSequence) {
    EXPECT_EQ(encodeControl(RemCtl_CofStart), controlRequest(1));
    Bytes data = controlRequest(2);
    data[4] = 3;
    data.insert(data.end(), {0xAA, 0xBB, 0xCC});
    EXPECT_EQ(encodeControl(RemCtl_CofData, Bytes{0xAA, 0xBB, 0xCC}), data);
    EXPECT_EQ(encodeControl(RemCtl_CofEnd), controlRequest(3));
    EXPECT_EQ(encodeControl(RemCtl_DspBoot), controlRequest(4));
    EXPECT_EQ(encodeReply(0, {}), Bytes(8, 0));
    EXPECT_EQ(encodeReply(15, {}), (Bytes{0x0F, 0, 0, 0, 0, 0, 0, 0}));

    FrameResult f = frameRequest(data);
    ASSERT_EQ(f.status, FrameStatus::Request);
    EXPECT_EQ(f.request.command, RemCtl_CofData);
    EXPECT_EQ(bytesOf(f.request.payload), (Bytes{0xAA, 0xBB, 0xCC}));
}

TEST(WireFormat, StatusReplyIsSeventyThreeBytesWithTheBlockFromDataByteOne) {
    auto reply = std::make_unique<RemReply>();
    reply->length = kStatusReplyLength;
    reply->data[0] = 0x77;  // whatever the data area held
    reply->data[1] = 1;     // device
    reply->data[3] = 4;     // state: running
    reply->data[5] = 0xd0;  // first detail byte
    reply->data[64] = 37;   // sequence number
    auto wire = replyBytes(*reply);
    EXPECT_EQ(wire.size(), 73u);
    StatusBlock block;
    ASSERT_TRUE(decodeStatusReply(std::span(reply->data).first(65), block));
    EXPECT_EQ(block.device, 1);
    EXPECT_EQ(block.state, 4);
    EXPECT_EQ(block.sequence, 37);
    EXPECT_EQ(block.detail[0], 0xd0);
    EXPECT_EQ(block.detail[59], 37);  // the sequence is the detail's last byte
    EXPECT_FALSE(decodeStatusReply(std::span(reply->data).first(64), block));
}

TEST(WireFormat, ReplyLengthNeverReachesBeyondTheRecord) {
    auto reply = std::make_unique<RemReply>();
    reply->length = kReplyDataMax;
    EXPECT_EQ(replyBytes(*reply).size(), kReplyMax);
    reply->length = 8185;
    EXPECT_EQ(replyBytes(*reply).size(), kReplyMax);
    reply->length = 0xffffffffu;
    EXPECT_EQ(replyBytes(*reply).size(), kReplyMax);
    EXPECT_EQ(encodeReply(0, Bytes(9000)).size(), kReplyMax);
}

TEST(WireFormat, ShortFormSizeIsBigEndianAndLongFormSizeLittleEndian) {
    Bytes prim = encodePrimSend(1, 2, Bytes(0x0102));
    EXPECT_EQ(prim[3], 0x01);
    EXPECT_EQ(prim[4], 0x02);
    Bytes atomic = encodeAtomicSend(1, Bytes(0x0102));
    EXPECT_EQ(atomic[4], 0x02);
    EXPECT_EQ(atomic[5], 0x01);
    EXPECT_EQ(readU32le(Bytes{0x78, 0x56, 0x34, 0x12}, 0), 0x12345678u);
    EXPECT_EQ(readU16be(Bytes{0x12, 0x34}, 0), 0x1234);
    // A short-form payload is cut to what its 16-bit size can say.
    EXPECT_EQ(encodePrimSend(1, 2, Bytes(70000)).size(), 5u + 0xffff);
}
