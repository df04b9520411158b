// The boot loader: reads the board kind's DSP program image, sends its
// loadable sections in address-tagged chunks between a start and an end
// frame, then watches the DSP leave reset and asks the owner whether it runs.
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "boards/error_log.h"
#include "dsplink/coff_reader.h"
#include "dsplink/comm_policy_usb.h"
#include "platform/clock.h"
#include "platform/text.h"

using namespace dsplink;

namespace {

constexpr DWORD kSettleAfterLoadMs = 200;
constexpr int kFirstStatusReads = 3;
constexpr DWORD kStartWatchMs = 2000;
constexpr DWORD kStartPollMs = 50;

bool isLoadable(const CoffSection& section) {
    return std::strcmp(section.name, ".info") != 0 && section.filePos != 0 && section.size != 0 &&
           (section.flags & (STYP_DSECT | STYP_NOLOAD)) == 0;
}

// Boot frames do not use txBuf: a boot may run beside a session's exchange.
// The frame buffer is the thread's own, zeroed once. A frame sends only its
// header and payload, which each frame writes afresh, so the wire bytes are
// those of a freshly zeroed buffer without allocating and clearing 8188 bytes
// for every 828-byte chunk.
std::array<BYTE, kFrameBufferSize>& bootFrame() {
    thread_local std::array<BYTE, kFrameBufferSize> frame{};
    return frame;
}

}  // namespace

dspStatus CommPolicy_USB::boot() {
    // A freshly started DSP counts from 1; nothing needs re-reading.
    dspSN = 1;
    needSeqInit = false;
    LogError(L"Entering CommPolicy_USB::boot()");

    const std::wstring path = installFolder + L"\\" + (owner ? owner->getCofFileName() : L"");
    sectionCount = 0;
    dspStatus r = readCoffFile(path);
    if (r == dspOk)
        r = downloadCof();
    else
        LogError(L"Error reading Coff file");

    // The image is needed only for the download.
    const int used = std::clamp(sectionCount, 0, kMaxCoffSections);
    for (int i = 0; i < used; ++i) std::vector<std::uint8_t>().swap(sections[i].data);
    return r;
}

dspStatus CommPolicy_USB::readCoffFile(const std::wstring& path) {
    return static_cast<dspStatus>(readCoffImage(path, sections, sectionCount));
}

dspStatus CommPolicy_USB::downloadCof() {
    dspStatus r = sendCofStart();
    if (r != dspOk) {
        logToOwner(L"Problem sending cof start msg!");
        return r;
    }

    // A chunk that did not arrive leaves a hole in the DSP's program, so the
    // download stops there and the boot answers the chunk's error; the end
    // frame is not sent, and the DSP is not started on a partial image.
    const int used = std::clamp(sectionCount, 0, kMaxCoffSections);
    for (int i = 0; i < used; ++i) {
        if (!isLoadable(sections[i])) continue;
        const ChunkResult written = writeSection(i, sections[i].address);
        if (written.status != dspOk) return written.status;
    }

    r = sendCofEnd();
    if (r != dspOk) {
        logToOwner(L"Problem sending cof end msg!");
        return r;
    }

    host::Sleep(kSettleAfterLoadMs);
    dspStatus s = dspOk;
    for (int i = 0; i < kFirstStatusReads; ++i)
        s = owner ? owner->getStatus(nullptr) : dspNoUsbComm;
    const DWORD t0 = host::GetTickCount();
    while ((s == dspInReset || s == dspIdled) && host::GetTickCount() - t0 < kStartWatchMs) {
        host::Sleep(kStartPollMs);
        s = owner->getStatus(nullptr);
    }
    if (!owner || !owner->isAlive()) {
        logToOwner(L"DSP doesn't appear to be running!");
        return dspBootNotRunning;
    }
    return dspOk;
}

CommPolicy_USB::ChunkResult CommPolicy_USB::writeSection(int index, std::uint32_t address) {
    const CoffSection& section = sections[index];
    // A record never holds fewer bytes than it declares; should one, only the
    // bytes it holds are sent.
    const std::uint32_t size =
        std::min<std::uint32_t>(section.size, static_cast<std::uint32_t>(section.data.size()));
    const BYTE* data = section.data.data();

    ChunkResult result{dspOk, address};
    if (size < kBootChunkData) return writeBSTchunk(address, size, data);
    for (std::uint32_t i = 0; i < size / kBootChunkData; ++i) {
        result = writeBSTchunk(result.nextAddress, kBootChunkData, data);
        if (result.status != dspOk) return result;
        data += kBootChunkData;
    }
    if (size % kBootChunkData != 0)
        result = writeBSTchunk(result.nextAddress, size % kBootChunkData, data);
    return result;
}

CommPolicy_USB::ChunkResult CommPolicy_USB::writeBSTchunk(std::uint32_t address,
                                                          std::uint32_t numOctets,
                                                          const BYTE* data) {
    if (numOctets > kBootChunkData) {
        logToOwner(host::wformat(L"%s: writeBSTchunk Failed num_octets (%d) too big!!!",
                                 L"CommPolicy_USB", static_cast<int>(numOctets)));
        return {dspUsbCommFailed, 0};
    }
    // The chunk is laid out in place, in the payload of the thread's boot
    // frame, so that sending it copies nothing.
    BYTE* chunk = bootFrame().data() + wire::kFrameHeader;
    wire::writeU32le({chunk, 4}, 0, address);
    if (numOctets > 0) std::memcpy(chunk + 4, data, numOctets);

    const dspStatus r = sendCofData(chunk, static_cast<int>(numOctets + 4));
    if (r != dspOk) {
        logToOwner(L"Error sending cof data!\n");
        return {r, 0};
    }
    return {dspOk, address + numOctets};
}

dspStatus CommPolicy_USB::sendCofStart() {
    return sendBootFrame(wire::kDeviceBootStart, nullptr, 0);
}

dspStatus CommPolicy_USB::sendCofData(const BYTE* chunk, int length) {
    return sendBootFrame(wire::kDeviceBootChunk, chunk, length);
}

dspStatus CommPolicy_USB::sendCofEnd() {
    return sendBootFrame(wire::kDeviceBootEnd, nullptr, 0);
}

dspStatus CommPolicy_USB::sendBootFrame(BYTE device, const BYTE* payload, int length) {
    std::array<BYTE, kFrameBufferSize>& frame = bootFrame();
    const bool fits = length >= 0 && length <= wire::kMaxPayload;
    const int copied = payload && fits && length > 0 ? length : 0;
    // A chunk that writeBSTchunk laid out in place is already there.
    if (copied > 0 && payload != &frame[wire::kFrameHeader])
        std::memcpy(&frame[wire::kFrameHeader], payload, copied);
    wire::putFrameHeader(frame, device, 0, static_cast<std::uint16_t>(length));
    return primitiveSendData(frame.data(), fits ? length + wire::kFrameHeader : -1);
}
