// The DSP link against one simulated board with no transfer latency:
//  - confirmed round trips (atomicGet, 64-byte reply) next to bare status
//    reads, so the handshake's cost shows as the ratio of the two rates;
//  - boot download of a 1 MiB image next to sending the same chunk frames
//    with the bare primitive, so the loader's own cost shows likewise.
#include <benchmark/benchmark.h>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "boards/error_log.h"
#include "dsplink/comm_policy_usb.h"
#include "dsplink/wire.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/sync.h"
#include "sim/dsp_bus.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kImageBytes = 1u << 20;
constexpr std::size_t kImageSections = 4;
constexpr BYTE kEcho = sim::kOpcodeEcho;

// A unit root of its own, so the link's log lines stay out of the way.
class BenchUnitRoot {
  public:
    BenchUnitRoot() {
        std::random_device rd;
        path_ = fs::temp_directory_path() / ("tovel-bench-link-" + std::to_string(rd()));
        fs::create_directories(path_);
        host::setUnitRoot(path_.string());
    }
    ~BenchUnitRoot() {
        closeLogFileForShutdown();
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    void writeFile(const std::wstring& originalPath, const std::string& bytes) const {
        fs::path p = host::mapPath(originalPath);
        fs::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

  private:
    fs::path path_;
};

// Owner with the board controller's status query and liveness test.
class BenchOwner : public LinkOwner {
  public:
    void logMsg(std::wstring) override {}
    bool isRemoving() const override { return false; }
    std::wstring getCofFileName() override { return L"bench.cof"; }
    dspStatus getStatus(BYTE* detail) override {
        BYTE block[65] = {};
        DWORD size = sizeof block;
        std::lock_guard<CommPolicy> guard(*link);
        const dspStatus r = link->primitiveGetStatus(block, &size);
        if (r != dspOk) return r;
        if (detail) std::copy(block + 4, block + 64, detail);
        return block[2] > 14 ? dspDead : static_cast<dspStatus>(block[2]);
    }
    bool isAlive() override {
        const dspStatus s = getStatus(nullptr);
        return s >= dspRunning && s <= dspBadCommand;
    }
    CommPolicy_USB* link = nullptr;
};

// One T1 board on a fresh bus and a link on it.
struct BoardAndLink {
    BoardAndLink() {
        bus = sim::installDspBus(false);
        board = bus->attach(sim::BoardKind::T1);
        const HANDLE h = host::CreateFileW(
            sim::kDspDeviceName, host::GENERIC_READ | host::GENERIC_WRITE, 0, host::OPEN_EXISTING);
        link = std::make_unique<CommPolicy_USB>(&owner, h);
        owner.link = link.get();
    }
    ~BoardAndLink() {
        link.reset();
        sim::uninstallDspBus();
    }
    BenchOwner owner;
    std::shared_ptr<sim::SimDspBus> bus;
    std::shared_ptr<sim::SimDspBoard> board;
    std::unique_ptr<CommPolicy_USB> link;
};

void put16(std::string& out, std::uint16_t v) {
    std::array<std::uint8_t, 2> bytes{};
    wire::writeU16le(bytes, 0, v);
    out.append(bytes.begin(), bytes.end());
}
void put32(std::string& out, std::uint32_t v) {
    std::array<std::uint8_t, 4> bytes{};
    wire::writeU32le(bytes, 0, v);
    out.append(bytes.begin(), bytes.end());
}

// A little-endian C6000 COFF image with kImageBytes of section data.
std::string benchImage() {
    const std::uint32_t perSection = kImageBytes / kImageSections;
    std::string file;
    put16(file, 0x00C2);
    put16(file, kImageSections);
    for (int i = 0; i < 3; ++i) put32(file, 0);
    put16(file, 0);
    put16(file, 0x0100);
    put16(file, 0x0099);
    std::uint32_t dataPos = 22 + 48 * kImageSections;
    for (std::size_t s = 0; s < kImageSections; ++s) {
        file += ".sect";
        file += static_cast<char>('0' + s);
        file += std::string(2, '\0');
        const std::uint32_t address = 0x10000000u * static_cast<std::uint32_t>(s + 1);
        put32(file, address);
        put32(file, address);
        put32(file, perSection);
        put32(file, dataPos);
        for (int i = 0; i < 4; ++i) put32(file, 0);
        put32(file, 0x20);
        put16(file, 0);
        put16(file, 0);
        dataPos += perSection;
    }
    for (std::size_t i = 0; i < kImageBytes; ++i) file += static_cast<char>(i * 31 + 7);
    return file;
}

void BM_AtomicGetEcho64(benchmark::State& state) {
    BenchUnitRoot root;
    BoardAndLink rig;
    std::vector<BYTE> request(64, 0x5A), reply(64);
    for (auto _ : state) {
        int replyLength = 64;
        const dspStatus r =
            rig.link->atomicGet(kEcho, request.data(), 64, kEcho, reply.data(), &replyLength);
        if (r != dspOk) {
            state.SkipWithError("atomicGet failed");
            break;
        }
        benchmark::DoNotOptimize(reply.data());
    }
    state.counters["round_trips_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    // The fast path never waits: every status read finds the block changed.
    state.counters["paced_reads"] = rig.board->pacedStatusReads();
}
BENCHMARK(BM_AtomicGetEcho64);

void BM_PrimitiveGetStatus(benchmark::State& state) {
    BenchUnitRoot root;
    BoardAndLink rig;
    // The software's cost of a read: an unchanged block would otherwise wait
    // the board's pace (a USB round trip) on every read.
    rig.board->setStatusReadPace(std::chrono::microseconds(0));
    BYTE block[64];
    for (auto _ : state) {
        DWORD size = 64;
        if (rig.link->primitiveGetStatus(block, &size) != dspOk) {
            state.SkipWithError("status read failed");
            break;
        }
        benchmark::DoNotOptimize(block);
    }
    state.counters["reads_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PrimitiveGetStatus);

void BM_BootDownload1MiB(benchmark::State& state) {
    BenchUnitRoot root;
    root.writeFile(installFolder + L"\\bench.cof", benchImage());
    // Virtual time: the loader's settle pause and start-up watch cost nothing,
    // so the figure is the download itself (image read included).
    host::ScopedClock clock(std::make_shared<host::ManualClock>());
    BoardAndLink rig;
    // Nor the start-up watch's status reads, which find nothing changed and
    // would each take the board's pace in real time (about 4 ms in all).
    rig.board->setStatusReadPace(std::chrono::microseconds(0));
    host::LockGuard held(*rig.link);  // as the board controller holds it for a boot
    for (auto _ : state) {
        if (rig.link->boot() != dspOk) {
            state.SkipWithError("boot failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kImageBytes);
}
BENCHMARK(BM_BootDownload1MiB)->Unit(benchmark::kMillisecond)->Repetitions(5);

void BM_RawChunkSend1MiB(benchmark::State& state) {
    BenchUnitRoot root;
    BoardAndLink rig;
    // The chunk frames a boot of the same image sends, built beforehand.
    std::vector<std::vector<BYTE>> frames;
    const std::uint32_t perSection = kImageBytes / kImageSections;
    for (std::size_t s = 0; s < kImageSections; ++s) {
        std::uint32_t address = 0x10000000u * static_cast<std::uint32_t>(s + 1);
        for (std::uint32_t done = 0; done < perSection; done += dsplink::kBootChunkData) {
            const std::uint32_t n = std::min(dsplink::kBootChunkData, perSection - done);
            std::vector<BYTE> frame(8 + n, 0x33);
            wire::putFrameHeader(frame, wire::kDeviceBootChunk, 0,
                                 static_cast<std::uint16_t>(n + 4));
            wire::writeU32le(frame, 4, address);
            frames.push_back(std::move(frame));
            address += n;
        }
    }
    // All the frames a boot sends: the start frame resets the simulated
    // board's memory, so leaving it out would favour the bare side.
    std::vector<BYTE> start = {wire::kDeviceBootStart, 0, 0, 0};
    std::vector<BYTE> end = {wire::kDeviceBootEnd, 0, 0, 0};
    frames.insert(frames.begin(), start);
    frames.push_back(end);
    for (auto _ : state) {
        for (const auto& frame : frames) {
            if (rig.link->primitiveSendData(frame.data(), static_cast<int>(frame.size())) !=
                dspOk) {
                state.SkipWithError("send failed");
                return;
            }
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kImageBytes);
}
BENCHMARK(BM_RawChunkSend1MiB)->Unit(benchmark::kMillisecond)->Repetitions(5);

// Prints the boot download's rate as a share of the bare chunk frames' rate,
// each the best of its repetitions: the machine's other work only ever slows
// a run down, so the best runs are the fairest pair to compare.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            const auto rate = run.counters.find("bytes_per_second");
            if (rate == run.counters.end() || run.run_type != Run::RT_Iteration) continue;
            const std::string name = run.benchmark_name();
            if (name.starts_with("BM_BootDownload1MiB")) boot = std::max(boot, rate->second.value);
            if (name.starts_with("BM_RawChunkSend1MiB")) bare = std::max(bare, rate->second.value);
        }
    }
    double boot = 0;
    double bare = 0;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    if (reporter.boot > 0 && reporter.bare > 0)
        std::printf("boot download / bare chunk frames = %.2f, best of 5 each (goal >= 0.9)\n",
                    reporter.boot / reporter.bare);
    benchmark::Shutdown();
    return 0;
}
