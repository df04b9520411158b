// Remote requests over loopback TCP, through the real server controller and
// session, against one simulated T1 board with no transfer latency:
//  - Rem_AtomicGet round trips (64-byte echo) next to a bare one-thread TCP
//    server answering the same request and reply sizes without a board, in
//    alternating rounds so that a busy machine hurts both alike; the same
//    echo straight on the board controller shows the board path's share;
//    then two requests per send, where a reply held back behind an
//    unacknowledged one shows;
//  - pipelined Rem_PrimSend streams, each batch closed by a Rem_GetStatus
//    whose reply tells that the batch has reached the board, next to the
//    bare server swallowing the same bytes.
// Prints the figures and the ratios to the baseline; exits 1 only when the
// set-up fails or a reply is wrong.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/remote_bench_load.h"
#include "bench/remote_bench_rig.h"
#include "boards/usb_ctlr.h"
#include "platform/process.h"
#include "server/remote_protocol.h"
#include "server/request_trace.h"
#include "sim/firmware_table.h"
#include "tools/tracekit/trace_file.h"

namespace {

using namespace remotebench;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kEchoBytes = 64;
constexpr double kWarmUpSeconds = 0.3;
constexpr int kRounds = 10;
constexpr double kRoundSeconds = 0.4;
constexpr double kLinkSeconds = 1.0;
constexpr double kPairSeconds = 1.0;
// Short alternating rounds: the trace's cost is small next to a busy machine's noise.
constexpr int kTraceRounds = 40;
constexpr double kTraceRoundSeconds = 0.1;

// A batch carries about this many bytes of frames, whatever their size, so
// that small frames are not held back by the acknowledgements' round trips.
constexpr std::size_t kBatchBytes = 64 * 1024;
constexpr std::size_t kWindowBatches = 4;
constexpr int kStreamRounds = 2;
constexpr double kStreamRoundSeconds = 1.0;

constexpr double kRateTarget = 0.9;
constexpr double kP99Target = 1.5;

// Commands outside the firmware's table: the DSP completes them without a reply.
constexpr std::uint8_t kStreamOpcodeLarge = 0x55;
constexpr std::uint8_t kStreamOpcodeSmall = 0x56;

struct Failure {
    const char* what;
};

void require(bool ok, const char* what) {
    if (!ok) throw Failure{what};
}

// `perTrip`: requests answered per timed round trip.
void printRow(const char* name, const RoundTrips& r, int perTrip = 1) {
    std::printf("  %-34s %10.0f %9.1f %9.1f\n", name, r.perSecond() * perTrip, r.percentileUs(0.5),
                r.percentileUs(0.99));
}

const char* verdict(bool met) {
    return met ? "met" : "MISSED";
}

struct EchoFigures {
    RoundTrips tovel;
    RoundTrips raw;
    RoundTrips link;
    // Two requests in one send, both replies read: what a client that
    // pipelines meets.
    RoundTrips tovelPair;
    RoundTrips rawPair;
};

EchoFigures measureEcho(BenchUnit& unit, TovelServer& server) {
    Bytes payload(kEchoBytes);
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i * 7);
    const Bytes request =
        remproto::encodeAtomicGet(sim::kOpcodeEcho, payload, sim::kOpcodeEcho, kEchoBytes);
    const Bytes reply = remproto::encodeReply(0, payload);

    const host::SOCKET tovelSocket = server.connect();
    require(tovelSocket != host::INVALID_SOCKET, "cannot connect to the server controller");
    RawServer rawServer(request.size(), reply);
    const host::SOCKET rawSocket = rawServer.connect();
    require(rawSocket != host::INVALID_SOCKET, "cannot connect to the baseline server");

    EchoFigures f;
    RoundTrips warmUp;
    require(runRoundTrips(tovelSocket, request, reply, reply.size(), kWarmUpSeconds, warmUp),
            "Rem_AtomicGet echo answered wrongly");
    require(runRoundTrips(rawSocket, request, reply, reply.size(), kWarmUpSeconds, warmUp),
            "the baseline answered wrongly");
    const std::uint64_t debugBefore = unit.debugLines();
    for (int round = 0; round < kRounds; ++round) {
        require(runRoundTrips(tovelSocket, request, reply, reply.size(), kRoundSeconds, f.tovel),
                "Rem_AtomicGet echo answered wrongly");
        require(runRoundTrips(rawSocket, request, reply, reply.size(), kRoundSeconds, f.raw),
                "the baseline answered wrongly");
    }
    const std::uint64_t debugLines = unit.debugLines() - debugBefore;

    Bytes requestPair = request;
    requestPair.insert(requestPair.end(), request.begin(), request.end());
    Bytes replyPair = reply;
    replyPair.insert(replyPair.end(), reply.begin(), reply.end());
    require(runRoundTrips(tovelSocket, requestPair, replyPair, replyPair.size(), kPairSeconds,
                          f.tovelPair),
            "Rem_AtomicGet echo pair answered wrongly");
    require(
        runRoundTrips(rawSocket, requestPair, replyPair, replyPair.size(), kPairSeconds, f.rawPair),
        "the baseline answered a pair wrongly");

    // The same echo on the board controller the session serves, from this
    // thread while the session waits for its client: the board path alone.
    UsbCtlr* ctlr = server.ctlr();
    require(ctlr != nullptr, "no board controller");
    Bytes echoed(kEchoBytes);
    require(runCalls(
                [&] {
                    int length = static_cast<int>(kEchoBytes);
                    return ctlr->atomicGet(sim::kOpcodeEcho, payload.data(),
                                           static_cast<int>(payload.size()), sim::kOpcodeEcho,
                                           echoed.data(), &length) == dspOk &&
                           echoed == payload;
                },
                kLinkSeconds, f.link),
            "the board controller's echo failed");

    host::closesocket(rawSocket);
    host::closesocket(tovelSocket);

    std::printf(
        "Rem_AtomicGet, %zu-byte echo: %zu-byte request, %zu-byte reply; %d alternating "
        "rounds of %.1f s\n",
        kEchoBytes, request.size(), reply.size(), kRounds, kRoundSeconds);
    std::printf("  %-34s %10s %9s %9s\n", "", "requests/s", "p50 us", "p99 us");
    printRow("Tovel (session + board)", f.tovel);
    printRow("raw TCP server (no board)", f.raw);
    printRow("board controller only (no TCP)", f.link);
    printRow("Tovel, 2 requests per send", f.tovelPair, 2);
    printRow("raw TCP server, 2 requests per send", f.rawPair, 2);
    std::printf("  (2 per send: latencies are those of the pair)\n");
    std::printf("  debug output lines during the Tovel rounds: %llu\n",
                static_cast<unsigned long long>(debugLines));
    return f;
}

struct StreamFigures {
    std::size_t payload = 0;
    std::size_t batchFrames = 0;
    StreamResult tovel;
    StreamResult raw;
    double linkFramesPerSecond = 0;  // the link's send alone, no TCP
    std::uint64_t fragmentLines = 0;

    double frames(const StreamResult& r) const {
        return static_cast<double>(r.batches * batchFrames);
    }
    double megabytesPerSecond(const StreamResult& r) const {
        return r.seconds > 0 ? frames(r) * static_cast<double>(payload) / r.seconds / 1e6 : 0;
    }
    double framesPerSecond(const StreamResult& r) const {
        return r.seconds > 0 ? frames(r) / r.seconds : 0;
    }
};

StreamFigures measureStream(BenchUnit& unit, TovelServer& server, std::size_t payloadBytes,
                            std::uint8_t opcode) {
    StreamFigures f;
    f.payload = payloadBytes;
    const Bytes payload(payloadBytes, 0xA5);
    const Bytes frame = remproto::encodePrimSend(1, opcode, payload);
    Bytes batch;
    f.batchFrames = std::max<std::size_t>(1, kBatchBytes / frame.size());
    for (std::size_t i = 0; i < f.batchFrames; ++i)
        batch.insert(batch.end(), frame.begin(), frame.end());
    const Bytes marker = remproto::encodeGetStatus();
    batch.insert(batch.end(), marker.begin(), marker.end());
    // The marker's reply: status and length are fixed, the status block is not.
    const Bytes ack = remproto::encodeReply(0, Bytes(remproto::kStatusReplyLength));
    const auto ackHeader = std::span(ack).first(remproto::kReplyHeaderSize);

    const host::SOCKET tovelSocket = server.connect();
    require(tovelSocket != host::INVALID_SOCKET, "cannot connect to the server controller");
    RawServer rawServer(batch.size(), ack);
    const host::SOCKET rawSocket = rawServer.connect();
    require(rawSocket != host::INVALID_SOCKET, "cannot connect to the baseline server");

    const unsigned takenBefore = server.board().commandCount(opcode);
    const std::uint64_t fragmentsBefore = unit.fragmentLines();
    auto addUp = [](StreamResult& total, const StreamResult& run) {
        total.ok = total.ok && run.ok;
        total.batches += run.batches;
        total.seconds += run.seconds;
    };
    for (int round = 0; round < kStreamRounds; ++round) {
        addUp(f.tovel, runStream(tovelSocket, batch, ackHeader, ack.size(), kWindowBatches,
                                 kStreamRoundSeconds));
        require(f.tovel.ok, "Rem_GetStatus after a Rem_PrimSend batch answered wrongly");
        addUp(f.raw, runStream(rawSocket, batch, ackHeader, ack.size(), kWindowBatches,
                               kStreamRoundSeconds));
        require(f.raw.ok, "the baseline answered wrongly");
    }
    f.fragmentLines = unit.fragmentLines() - fragmentsBefore;
    require(server.board().commandCount(opcode) - takenBefore == f.tovel.batches * f.batchFrames,
            "the board did not take every Rem_PrimSend frame");

    // The same frames handed straight to the link the session uses, from this
    // thread while the session waits for its client: the board path alone.
    UsbCtlr* ctlr = server.ctlr();
    require(ctlr != nullptr, "no board controller");
    const std::span packet = std::span(frame).subspan(1);
    RoundTrips linkOnly;
    require(runCalls(
                [&] {
                    return ctlr->link->primitiveSendData(packet.data(),
                                                         static_cast<int>(packet.size())) == dspOk;
                },
                kLinkSeconds, linkOnly),
            "the link's send failed");
    f.linkFramesPerSecond = linkOnly.perSecond();

    host::closesocket(rawSocket);
    host::closesocket(tovelSocket);
    return f;
}

void printStream(const StreamFigures& f) {
    const double tovel = f.megabytesPerSecond(f.tovel);
    const double raw = f.megabytesPerSecond(f.raw);
    const double notes =
        f.frames(f.tovel) > 0 ? static_cast<double>(f.fragmentLines) / f.frames(f.tovel) : 0.0;
    std::printf("  %7zu %8zu %10.1f %10.0f %10.1f %10.0f %8.2f %10.0f %12.2f\n", f.payload,
                f.batchFrames, tovel, f.framesPerSecond(f.tovel), raw, f.framesPerSecond(f.raw),
                raw > 0 ? tovel / raw : 0.0, f.linkFramesPerSecond, notes);
}

void reportEcho(BenchUnit& unit, TovelServer& server) {
    const EchoFigures echo = measureEcho(unit, server);
    const double rateRatio =
        echo.raw.perSecond() > 0 ? echo.tovel.perSecond() / echo.raw.perSecond() : 0;
    const double p99Ratio = echo.raw.percentileUs(0.99) > 0
                                ? echo.tovel.percentileUs(0.99) / echo.raw.percentileUs(0.99)
                                : 0;
    std::printf("  round-trip rate Tovel/raw = %.2f (target >= %.1f: %s)\n", rateRatio, kRateTarget,
                verdict(rateRatio >= kRateTarget));
    std::printf("  p99 latency     Tovel/raw = %.2f (target <= %.1f: %s)\n", p99Ratio, kP99Target,
                verdict(p99Ratio <= kP99Target));
    std::printf(
        "  2 requests per send: rate Tovel/raw = %.3f\n\n",
        echo.rawPair.perSecond() > 0 ? echo.tovelPair.perSecond() / echo.rawPair.perSecond() : 0.0);
}

// The cost of `tovel --trace`: the same echo with the request trace on and
// off, in alternating rounds on one connection.
void reportTraceCost(TovelServer& server) {
    Bytes payload(kEchoBytes, 0x5A);
    const Bytes request =
        remproto::encodeAtomicGet(sim::kOpcodeEcho, payload, sim::kOpcodeEcho, kEchoBytes);
    const Bytes reply = remproto::encodeReply(0, payload);
    const std::string path =
        (std::filesystem::temp_directory_path() /
         ("tovel-bench-trace-" +
          std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + ".jsonl"))
            .string();
    auto trace = std::make_shared<tracekit::TraceFile>(path, std::uint64_t{64} << 20);
    require(trace->isOpen(), "cannot write the trace file");

    const host::SOCKET socket = server.connect();
    require(socket != host::INVALID_SOCKET, "cannot connect to the server controller");
    RoundTrips traced, plain, warmUp;
    require(runRoundTrips(socket, request, reply, reply.size(), kWarmUpSeconds, warmUp),
            "Rem_AtomicGet echo answered wrongly");
    for (int round = 0; round < kTraceRounds; ++round) {
        setRequestTrace(trace);
        require(runRoundTrips(socket, request, reply, reply.size(), kTraceRoundSeconds, traced),
                "Rem_AtomicGet echo answered wrongly with the trace on");
        setRequestTrace(nullptr);
        require(runRoundTrips(socket, request, reply, reply.size(), kTraceRoundSeconds, plain),
                "Rem_AtomicGet echo answered wrongly");
    }
    host::closesocket(socket);
    trace->flush();
    std::error_code ec;
    const auto bytes = std::filesystem::file_size(path, ec);
    std::filesystem::remove(path, ec);
    std::filesystem::remove(path + ".old", ec);

    std::printf("Request trace (tovel --trace), %zu-byte echo; %d alternating rounds of %.1f s\n",
                kEchoBytes, kTraceRounds, kTraceRoundSeconds);
    std::printf("  %-34s %10s %9s %9s\n", "", "requests/s", "p50 us", "p99 us");
    printRow("Tovel, trace on", traced);
    printRow("Tovel, trace off", plain);
    std::printf(
        "  rate traced/untraced = %.3f, p99 traced/untraced = %.2f; %.0f trace bytes per "
        "request\n\n",
        plain.perSecond() > 0 ? traced.perSecond() / plain.perSecond() : 0.0,
        plain.percentileUs(0.99) > 0 ? traced.percentileUs(0.99) / plain.percentileUs(0.99) : 0.0,
        traced.count() ? static_cast<double>(bytes) / static_cast<double>(traced.count()) : 0.0);
}

void reportStreams(BenchUnit& unit, TovelServer& server) {
    std::printf(
        "Rem_PrimSend pipelined: %zu-KiB batches of frames, each closed by a "
        "Rem_GetStatus; %zu batches in flight; %d alternating rounds of %.1f s\n",
        kBatchBytes / 1024, kWindowBatches, kStreamRounds, kStreamRoundSeconds);
    std::printf("  (the raw server only counts the bytes: no framing, no board)\n");
    std::printf("  %7s %8s %10s %10s %10s %10s %8s %10s %12s\n", "payload", "frames/", "Tovel",
                "Tovel", "raw", "raw", "Tovel/", "link only", "split-frame");
    std::printf("  %7s %8s %10s %10s %10s %10s %8s %10s %12s\n", "bytes", "batch", "MB/s",
                "frames/s", "MB/s", "frames/s", "raw", "frames/s", "notes/frame");
    printStream(measureStream(unit, server, remproto::kDspPayloadMax, kStreamOpcodeLarge));
    printStream(measureStream(unit, server, kEchoBytes, kStreamOpcodeSmall));
}

// `only`: "echo", "trace" or "stream" runs just that part (for profiling one of them).
int run(const std::string& only) {
    if (!only.empty() && only != "echo" && only != "stream" && only != "trace") {
        std::fprintf(stderr, "usage: tovel_bench_remote [echo|stream|trace]\n");
        return 2;
    }
    BenchUnit unit;
    TovelServer server;
    std::printf(
        "Tovel remote benchmark: one simulated T1 board, no transfer latency, "
        "loopback TCP\n\n");
    if (only.empty() || only == "echo") reportEcho(unit, server);
    if (only.empty() || only == "trace") reportTraceCost(server);
    // Last: frames sent past the link's handshake move the DSP's sequence
    // number, so no confirmed request may follow on this board.
    if (only.empty() || only == "stream") reportStreams(unit, server);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int code = 0;
    try {
        code = run(argc > 1 ? argv[1] : "");
    } catch (const Failure& f) {
        std::fprintf(stderr, "tovel_bench_remote: %s\n", f.what);
        code = 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tovel_bench_remote: %s\n", e.what());
        code = 1;
    }
    std::fflush(stdout);
    // Threads of the server side may still be winding down; the process
    // ends with them, as the program itself does.
    host::ExitProcess(code);
}
