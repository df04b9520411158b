// tovel_soak: a long run of a whole unit under load and churn, watched for
// growth. Starts `tovel` with four simulated boards, drives it with four
// clients that check every reply, pulls, plugs and faults boards through the
// simulated-hardware control channel, and opens hostile connections now and
// then. Samples the unit's resident memory, threads, open files and CPU, and
// at the end prints the growth per hour after the warm-up, the requests and
// wrong replies, and whether every numbered log line is in the log files.
//
//   tovel_soak [MINUTES] [--seconds N] [--warmup S] [--sample S]
//              [--max-growth-kb KB] [--tovel PATH] [--keep]
//
// Exit code 0 when no reply was wrong, no log line was lost, the unit ended
// cleanly (and grew less than --max-growth-kb after the warm-up, if given);
// 1 otherwise; 2 for bad arguments or a unit that did not start.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/soak_churn.h"
#include "bench/soak_log.h"
#include "bench/soak_traffic.h"
#include "platform/child_process.h"
#include "platform/process_sample.h"
#include "tests/support/test_support.h"
#include "tools/tovelclient/tovel_client.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Options {
    double seconds = 600;
    double warmupSeconds = 60;
    double sampleSeconds = 30;
    std::optional<double> maxGrowthKb;
    std::string tovel;
    bool keep = false;
};

std::optional<Options> parse(int argc, char** argv) {
    Options o;
    o.tovel = (std::filesystem::path(argv[0]).parent_path() / "tovel").string();
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        try {
            if (arg == "--seconds" && hasValue)
                o.seconds = std::stod(argv[++i]);
            else if (arg == "--warmup" && hasValue)
                o.warmupSeconds = std::stod(argv[++i]);
            else if (arg == "--sample" && hasValue)
                o.sampleSeconds = std::stod(argv[++i]);
            else if (arg == "--max-growth-kb" && hasValue)
                o.maxGrowthKb = std::stod(argv[++i]);
            else if (arg == "--tovel" && hasValue)
                o.tovel = argv[++i];
            else if (arg == "--keep")
                o.keep = true;
            else if (!arg.empty() && arg[0] != '-')
                o.seconds = std::stod(arg) * 60;
            else
                return std::nullopt;
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }
    if (o.seconds <= 0 || o.sampleSeconds <= 0 || o.warmupSeconds < 0) return std::nullopt;
    return o;
}

struct Sample {
    double seconds = 0;
    host::ProcessSample process;
};

// Least-squares slope of a memory figure over time, in KB per hour.
double growthPerHour(
    const std::vector<Sample>& samples,
    std::uint64_t host::ProcessSample::*figure = &host::ProcessSample::residentKb) {
    if (samples.size() < 2) return 0;
    double st = 0, sr = 0;
    for (const auto& s : samples) {
        st += s.seconds;
        sr += static_cast<double>(s.process.*figure);
    }
    const double n = static_cast<double>(samples.size());
    const double mt = st / n, mr = sr / n;
    double num = 0, den = 0;
    for (const auto& s : samples) {
        num += (s.seconds - mt) * (static_cast<double>(s.process.*figure) - mr);
        den += (s.seconds - mt) * (s.seconds - mt);
    }
    return den > 0 ? num / den * 3600 : 0;
}

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool waitUntilServing(std::uint16_t port, const host::ChildProcess& unit) {
    for (const auto until = Clock::now() + 30s; Clock::now() < until;) {
        try {
            tovelclient::Client probe("127.0.0.1", port, 5000);
            return probe.version().status == remproto::kControlOkStatus;
        } catch (const tovelclient::ClientError&) {
            if (!host::sampleProcess(unit.pid())) return false;
            std::this_thread::sleep_for(100ms);
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    const auto options = parse(argc, argv);
    if (!options) {
        std::fprintf(stderr,
                     "usage: tovel_soak [MINUTES] [--seconds N] [--warmup S] [--sample S] "
                     "[--max-growth-kb KB] [--tovel PATH] [--keep]\n");
        return 2;
    }
    const Options& o = *options;
    const std::string root = (std::filesystem::temp_directory_path() /
                              ("tovel-soak-" + std::to_string(host::currentProcessId())))
                                 .string();
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(root);
    const auto ports = testing_support::freePorts(3);
    const std::vector<std::string> kinds = {"t1", "rf", "ip", "pots"};
    auto unit = std::make_unique<host::ChildProcess>(
        o.tovel,
        std::vector<std::string>{"--root", root, "--boards", "t1,rf,ip,pots", "--headless",
                                 "--port-map", "3445=" + std::to_string(ports[0]), "--port-map",
                                 "23=" + std::to_string(ports[1]), "--port-map",
                                 "80=" + std::to_string(ports[2])},
        root + "/tovel.out");
    if (!unit->started() || !waitUntilServing(ports[0], *unit)) {
        std::fprintf(stderr, "tovel_soak: %s did not start serving:\n%s\n", o.tovel.c_str(),
                     fileText(root + "/tovel.out").c_str());
        return 2;
    }
    std::printf("soak: %s, %.0f s (warm-up %.0f s, a sample every %.0f s), root %s\n",
                o.tovel.c_str(), o.seconds, o.warmupSeconds, o.sampleSeconds, root.c_str());
    std::fflush(stdout);

    soak::StopSignal stop;
    soak::Tally tally;
    soak::ChurnTally churn;
    soak::NumberedLines numbered;
    soak::LogChecker logCheck(root + "/FlashFx Disk2/Orvane/Users/Admin/SystemLogs", numbered);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(soak::runClient, i, ports[0], std::cref(stop), std::ref(tally),
                             std::ref(numbered));
    threads.emplace_back(soak::runChurn, root + "/sim.sock", kinds, std::cref(stop),
                         std::ref(churn));
    threads.emplace_back(soak::runHostile, ports[0], std::cref(stop), std::ref(tally));
    threads.emplace_back([&] {
        while (stop.pause(5s)) logCheck.check();
    });

    const auto start = Clock::now();
    const auto elapsed = [&] {
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    std::vector<Sample> samples;
    bool unitDied = false;
    for (double next = 0; next <= o.seconds; next += o.sampleSeconds) {
        std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(next)));
        const auto sample = host::sampleProcess(unit->pid());
        if (!sample) {
            unitDied = true;
            break;
        }
        const double cpu = samples.empty()
                               ? 0
                               : static_cast<double>(sample->cpuMs - samples.back().process.cpuMs) /
                                     10.0 / (elapsed() - samples.back().seconds);
        samples.push_back({elapsed(), *sample});
        std::printf(
            "%6.0f s  rss %6llu KB (anon %5llu)  threads %3d  files %3d  cpu %5.1f %%  requests "
            "%llu  "
            "wrong %llu  churn %llu  hostile %llu\n",
            samples.back().seconds, static_cast<unsigned long long>(sample->residentKb),
            static_cast<unsigned long long>(sample->anonymousKb), sample->threads,
            sample->openFiles, cpu, static_cast<unsigned long long>(tally.requests.load()),
            static_cast<unsigned long long>(tally.wrongReplies.load()),
            static_cast<unsigned long long>(churn.actions.load()),
            static_cast<unsigned long long>(tally.hostile.load()));
        std::fflush(stdout);
    }
    stop.stop();
    for (auto& t : threads) t.join();
    logCheck.check();

    unit->terminate();
    const auto exitCode = unit->waitForExit(20s);
    const std::string output = fileText(root + "/tovel.out");
    const bool sanitizerReport = output.find("Sanitizer") != std::string::npos;

    std::vector<Sample> afterWarmup;
    std::copy_if(samples.begin(), samples.end(), std::back_inserter(afterWarmup),
                 [&](const Sample& s) { return s.seconds >= o.warmupSeconds; });
    const double perHour = growthPerHour(afterWarmup);
    const double growthKb = afterWarmup.size() < 2
                                ? 0
                                : static_cast<double>(afterWarmup.back().process.residentKb) -
                                      static_cast<double>(afterWarmup.front().process.residentKb);
    const auto log = logCheck.verdict();
    const double cpuShare =
        samples.size() < 2
            ? 0
            : static_cast<double>(samples.back().process.cpuMs - samples.front().process.cpuMs) /
                  10.0 / (samples.back().seconds - samples.front().seconds);

    std::printf("\nsoak results (%.0f s)\n", elapsed());
    if (!samples.empty())
        std::printf("  resident memory: %llu KB at start, %llu KB at the end\n",
                    static_cast<unsigned long long>(samples.front().process.residentKb),
                    static_cast<unsigned long long>(samples.back().process.residentKb));
    std::printf(
        "  growth after warm-up: %.0f KB per hour (%+.0f KB over %zu samples); "
        "heap and stacks alone: %.0f KB per hour\n",
        perHour, growthKb, afterWarmup.size(),
        growthPerHour(afterWarmup, &host::ProcessSample::anonymousKb));
    if (!samples.empty())
        std::printf("  threads %d -> %d, open files %d -> %d, CPU %.1f %% of one core\n",
                    samples.front().process.threads, samples.back().process.threads,
                    samples.front().process.openFiles, samples.back().process.openFiles, cpuShare);
    std::printf(
        "  requests %llu, wrong replies %llu, error replies %llu, dropped %llu, "
        "refused %llu\n",
        static_cast<unsigned long long>(tally.requests.load()),
        static_cast<unsigned long long>(tally.wrongReplies.load()),
        static_cast<unsigned long long>(tally.errorReplies.load()),
        static_cast<unsigned long long>(tally.dropped.load()),
        static_cast<unsigned long long>(tally.refused.load()));
    std::printf("  churn actions %llu (refused %llu), hostile connections %llu\n",
                static_cast<unsigned long long>(churn.actions.load()),
                static_cast<unsigned long long>(churn.refused.load()),
                static_cast<unsigned long long>(tally.hostile.load()));
    std::printf("  numbered log lines written %llu, lost %llu, unchecked %llu (%d checks)\n",
                static_cast<unsigned long long>(log.checked),
                static_cast<unsigned long long>(log.lost),
                static_cast<unsigned long long>(log.unchecked), log.checks);
    std::printf("  unit exit code %d%s\n", exitCode.value_or(-1),
                sanitizerReport ? ", sanitizer report in its output" : "");

    bool ok = !unitDied && exitCode == 0 && !sanitizerReport && tally.wrongReplies == 0 &&
              log.lost == 0 && log.unchecked == 0 && log.checked > 0;
    if (o.maxGrowthKb && growthKb > *o.maxGrowthKb) {
        std::printf("  growth %.0f KB is over the bound of %.0f KB\n", growthKb, *o.maxGrowthKb);
        ok = false;
    }
    if (unitDied) std::printf("  the unit died during the run\n");
    if (sanitizerReport) std::printf("%s\n", output.c_str());
    std::printf("soak %s\n", ok ? "passed" : "FAILED");
    if (!o.keep) std::filesystem::remove_all(root);
    return ok ? 0 : 1;
}
