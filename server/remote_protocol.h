#pragma once
// The remote command protocol on the wire: request forms, the reply record and
// the framing of a receive buffer into requests. Pure byte work: no sockets,
// no boards, no allocation on the server's path.
//
// Requests. The opcode is byte 0.
//   Short form (Rem_PrimSend, Rem_PrimGet, Rem_GetStatus): 5 bytes
//     0 opcode | 1 device | 2 dspOpcode | 3 sizeHi | 4 sizeLo  (size big-endian)
//     Rem_PrimSend is followed by `size` payload bytes; bytes 1..4+size are one
//     DSP packet. Rem_PrimGet and Rem_GetStatus are always 5 bytes long.
//   Long form (Rem_AtomicGet, Rem_AtomicSend, Rem_Control): 16 bytes
//     0 opcode | 1 command | 2-3 reserved | 4-7 size (LE) | 8 replyOpcode |
//     9-11 reserved | 12-15 replyLength (LE), then `size` payload bytes.
//     For Rem_Control the command is the sub-command (RemControl).
// Replies: 4-byte status (LE), 4-byte length (LE), `length` data bytes; at
// most 8192 bytes in all. Rem_PrimSend has no reply.
//
// Framing, as the session drives it:
//
//   ReceiveBuffer buffer;                    // the session's receive buffer
//   for (;;) {
//       auto space = buffer.freeSpace();     // empty once the buffer is full
//       int n = recv(sock, space.data(), space.size());
//       if (n <= 0) ...                      // closed or failed
//       buffer.commit(n);
//       if (!framingStarts(buffer.size())) continue;   // 4 bytes or fewer
//       for (;;) {
//           FrameResult f = frameRequest(buffer.held());
//           if (f.status != FrameStatus::Request) break;  // NeedMore, UnknownOpcode, TooLong
//           serve(f.request);                // the request's spans point into buffer
//           buffer.consume(f.total);
//           if (buffer.empty()) break;
//       }
//   }
//
// Only the first framing after a receive needs more than 4 bytes; the bytes
// left behind a served request are framed as they are (so 3 bytes beginning
// with opcode 1 are a fragment, and 1 byte above 5 is an unknown opcode at once).
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "dsplink/wire.h"

enum RemOpcode : std::uint8_t {
    Rem_PrimSend = 0,
    Rem_PrimGet = 1,
    Rem_GetStatus = 2,
    Rem_AtomicGet = 3,
    Rem_AtomicSend = 4,
    Rem_Control = 5,
};

// Sub-commands of Rem_Control (byte 1 of its request).
enum RemControl : std::uint8_t {
    RemCtl_EnumBoards = 0,
    RemCtl_CofStart = 1,
    RemCtl_CofData = 2,
    RemCtl_CofEnd = 3,
    RemCtl_DspBoot = 4,
    RemCtl_Reboot = 5,
    RemCtl_Version = 6,
    RemCtl_CmdLineControl = 7,
};

namespace remproto {

inline constexpr std::size_t kShortHeaderSize = 5;
inline constexpr std::size_t kLongHeaderSize = 16;
// Bytes a long-form request needs before its size field can be read.
inline constexpr std::size_t kLongSizeKnownAt = 8;
// The session's receive buffer: no request longer than this can be served.
inline constexpr std::size_t kReceiveBufferSize = 10000;
// Framing after a receive starts only above this many bytes.
inline constexpr std::size_t kFramingThreshold = 4;

inline constexpr std::size_t kReplyHeaderSize = 8;
// Reply data: a whole DSP frame fits.
inline constexpr std::size_t kReplyDataMax = wire::kMaxFrame;
inline constexpr std::size_t kReplyMax = kReplyHeaderSize + kReplyDataMax;  // 8192

// A DSP packet is a DSP frame (dsplink/wire.h): header and payload.
inline constexpr std::size_t kDspPacketHeaderSize = wire::kFrameHeader;
inline constexpr std::size_t kDspPacketMax = wire::kMaxFrame;
inline constexpr std::size_t kDspPayloadMax = wire::kMaxPayload;

// Rem_GetStatus data: byte 0 undefined, then the 64-byte status block.
inline constexpr std::size_t kStatusReplyLength = wire::kStatusBlockSize + 1;

inline constexpr std::uint32_t kServerVersion = 191213;  // the build date, YYMMDD
// Reply status of the Rem_Control sub-commands that succeed on the controller
// itself (dspRunning).
inline constexpr std::uint32_t kControlOkStatus = 4;

inline bool isRequestOpcode(std::uint8_t opcode) {
    return opcode <= Rem_Control;
}
inline bool isLongForm(std::uint8_t opcode) {
    return opcode >= Rem_AtomicGet && opcode <= Rem_Control;
}

// Little-endian and big-endian fields.
using wire::readU16be;
using wire::readU32le;
using wire::writeU32le;

// A complete request, decoded. The spans point into the framed bytes and are
// valid until those change (for a ReceiveBuffer: until the next consume or
// commit).
struct RemRequest {
    RemOpcode opcode = Rem_PrimSend;
    std::size_t total = 0;  // bytes the request occupies

    // Short form.
    std::uint8_t device = 0;      // byte 1
    std::uint8_t dspOpcode = 0;   // byte 2
    std::uint16_t shortSize = 0;  // bytes 3-4, big-endian

    // Long form.
    std::uint8_t command = 0;       // byte 1: DSP command, or the RemControl sub-command
    std::uint32_t size = 0;         // bytes 4-7: payload length
    std::uint8_t replyOpcode = 0;   // byte 8
    std::uint32_t replyLength = 0;  // bytes 12-15

    // Rem_PrimSend: the payload after the 5-byte header; long form: the payload
    // after the 16-byte header; empty otherwise.
    std::span<const std::uint8_t> payload;
    // Rem_PrimSend: bytes 1..4+size, the DSP packet to hand to the link.
    std::span<const std::uint8_t> packet;

    // Bytes a Rem_PrimGet asks the link for (a whole packet: size + 4).
    std::size_t primGetLength() const { return std::size_t{shortSize} + kDspPacketHeaderSize; }
};

enum class FrameStatus {
    NeedMore,       // the request at the head is incomplete: receive more, consume nothing
    Request,        // a complete request of `total` bytes is at the head
    UnknownOpcode,  // the head byte is not a request: the connection is stuck on it
    TooLong,        // the head request declares more than the buffer can ever hold
};

struct FrameResult {
    FrameStatus status = FrameStatus::NeedMore;
    // The head byte (0 when nothing is held).
    std::uint8_t opcode = 0;
    // Request: the request's length. NeedMore: the request's length when its
    // size field has arrived, else the bytes needed to read it (5 for the
    // short form, 8 for the long form). TooLong: the declared length.
    // UnknownOpcode: 0.
    std::uint64_t total = 0;
    // Decoded request; valid when status is Request.
    RemRequest request;
};

// Whether framing starts after a receive that leaves `held` bytes buffered.
inline bool framingStarts(std::size_t held) {
    return held > kFramingThreshold;
}

// Frames the request at the head of `held`. Never reads outside `held`.
// `capacity` is the buffer size; a request longer than it is TooLong.
FrameResult frameRequest(std::span<const std::uint8_t> held,
                         std::size_t capacity = kReceiveBufferSize);

// The session's fixed receive buffer: bytes received and not yet consumed,
// always starting with the first byte of the oldest unserved request.
class ReceiveBuffer {
  public:
    static constexpr std::size_t kCapacity = kReceiveBufferSize;

    // Where the next receive may write: the rest of the buffer (empty when full).
    std::span<std::uint8_t> freeSpace() { return std::span(bytes_).subspan(held_); }
    // Records `n` bytes just received into freeSpace(); n is capped at its size.
    void commit(std::size_t n);
    // Drops the first `n` held bytes (capped at size()) and moves the rest to the front.
    void consume(std::size_t n);
    void clear() { held_ = 0; }

    std::span<const std::uint8_t> held() const { return std::span(bytes_).first(held_); }
    std::size_t size() const { return held_; }
    bool empty() const { return held_ == 0; }
    bool full() const { return held_ == kCapacity; }

    FrameResult frame() const { return frameRequest(held(), kCapacity); }
    // The length a Rem_PrimSend at the head declares (5 + size), read from
    // bytes 3-4 even before they are held, when they are what earlier
    // requests left there: the figure the session's fragment trace names.
    std::size_t storedPrimSendLength() const { return kShortHeaderSize + readU16be(bytes_, 3); }

  private:
    std::array<std::uint8_t, kCapacity> bytes_{};
    std::size_t held_ = 0;
};

}  // namespace remproto

// The reply record: status, length and up to 8184 data bytes, laid out as it
// goes on the wire (on a little-endian host the record's first 8 + length
// bytes are the reply; see remproto::replyBytes).
struct RemReply {
    std::uint32_t status = 0;
    std::uint32_t length = 0;
    std::array<std::uint8_t, remproto::kReplyDataMax> data{};
};
static_assert(sizeof(RemReply) == remproto::kReplyMax, "the reply record is sent as one block");

namespace remproto {

// The bytes to send for `reply`: header and the first `length` data bytes
// (length capped at 8184), viewed in place.
std::span<const std::uint8_t> replyBytes(const RemReply& reply);

struct ReplyHeader {
    std::uint32_t status = 0;
    std::uint32_t length = 0;
};
ReplyHeader decodeReplyHeader(std::span<const std::uint8_t, kReplyHeaderSize> bytes);

// Encoded requests (for clients and tests). Sizes that do not fit their field
// are cut to it: a short-form payload to 65535 bytes.
std::vector<std::uint8_t> encodePrimSend(std::uint8_t device, std::uint8_t dspOpcode,
                                         std::span<const std::uint8_t> payload);
std::vector<std::uint8_t> encodePrimGet(std::uint16_t size, std::uint8_t device = 0,
                                        std::uint8_t dspOpcode = 0);
std::vector<std::uint8_t> encodeGetStatus();
std::vector<std::uint8_t> encodeAtomicGet(std::uint8_t command,
                                          std::span<const std::uint8_t> payload,
                                          std::uint8_t replyOpcode, std::uint32_t replyLength);
std::vector<std::uint8_t> encodeAtomicSend(std::uint8_t command,
                                           std::span<const std::uint8_t> payload);
std::vector<std::uint8_t> encodeControl(std::uint8_t subCommand,
                                        std::span<const std::uint8_t> payload = {});
// A complete reply as bytes (data cut to 8184 bytes).
std::vector<std::uint8_t> encodeReply(std::uint32_t status, std::span<const std::uint8_t> data);

// The status block carried by a Rem_GetStatus reply (data bytes 1..64).
struct StatusBlock {
    std::uint8_t device = 0;    // block byte 0: 1 for the DSP
    std::uint8_t state = 0;     // block byte 2: the DSP's dspStatus
    std::uint8_t sequence = 0;  // block byte 63: the DSP's sequence number
    std::array<std::uint8_t, wire::kStatusDetailSize> detail{};  // block bytes 4..63
};
// Decodes the data of a Rem_GetStatus reply; false if it is shorter than 65 bytes.
bool decodeStatusReply(std::span<const std::uint8_t> data, StatusBlock& out);

}  // namespace remproto
