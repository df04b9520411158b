// What an idle or waiting unit costs: the `tovel` program with four simulated
// boards and no client, then one client looping Rem_AtomicGet on a hung
// board (each request waits out the 5000 ms handshake time-out). Prints the
// unit's processor time as a share of one core beside its goal.
//
//   TOVEL_BENCH_IDLE_S   seconds of the idle measurement (default 60)
//   TOVEL_BENCH_HUNG_N   requests on the hung board (default 3, 5 s each)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/child_process.h"
#include "platform/cpu_times.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

int envOr(const char* name, int fallback) {
    const char* value = std::getenv(name);
    return value && std::atoi(value) > 0 ? std::atoi(value) : fallback;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

struct Rig {
    fs::path tools;
    fs::path root;
    int port;

    std::optional<int> run(const std::string& tool, std::vector<std::string> args,
                           const fs::path& output, std::chrono::milliseconds limit) const {
        host::ChildProcess child((tools / tool).string(), args, output.string());
        return child.waitForExit(limit);
    }
    std::vector<std::string> ctl(std::vector<std::string> command) const {
        std::vector<std::string> args{"--port", std::to_string(port)};
        args.insert(args.end(), command.begin(), command.end());
        return args;
    }
};

// The unit's share of one core while `during` runs.
template <class F>
std::optional<double> shareOfOneCore(int pid, F during, double& seconds) {
    const auto before = host::processCpuSeconds(pid);
    const auto start = std::chrono::steady_clock::now();
    during();
    const auto after = host::processCpuSeconds(pid);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!before || !after) return std::nullopt;
    return (*after - *before) / seconds;
}

}  // namespace

int main(int, char** argv) {
    const int idleSeconds = envOr("TOVEL_BENCH_IDLE_S", 60);
    const int hungRequests = envOr("TOVEL_BENCH_HUNG_N", 3);
    Rig rig;
    rig.tools = fs::absolute(argv[0]).parent_path();
    rig.root = fs::temp_directory_path() /
               ("tovel-bench-idle-" + std::to_string(host::currentProcessId()));
    rig.port = 20000 + host::currentProcessId() % 15000 * 3;
    fs::remove_all(rig.root);
    fs::create_directories(rig.root);

    const std::string p = std::to_string(rig.port);
    host::ChildProcess unit(
        (rig.tools / "tovel").string(),
        {"--root", rig.root.string(), "--headless", "--boards", "t1,rf,ip,pots", "--port-map",
         "3445=" + p, "--port-map", "23=" + std::to_string(rig.port + 1), "--port-map",
         "80=" + std::to_string(rig.port + 2)},
        (rig.root / "tovel.out").string());
    if (!unit.started()) {
        std::printf("tovel could not be started from %s\n", rig.tools.c_str());
        return 1;
    }
    // Up once it answers; the client lets its board go again when it ends.
    bool up = false;
    for (int i = 0; i < 100 && !up; ++i) {
        up = rig.run("tovelctl", rig.ctl({"version"}), rig.root / "version.out", 5s) == 0;
        if (!up) std::this_thread::sleep_for(100ms);
    }
    if (!up) {
        std::printf("tovel did not answer on port %d\n", rig.port);
        return 1;
    }
    std::this_thread::sleep_for(1s);  // the start-up's own work settles

    double seconds = 0;
    const auto idle = shareOfOneCore(
        unit.pid(), [&] { std::this_thread::sleep_for(std::chrono::seconds(idleSeconds)); },
        seconds);
    if (idle)
        std::printf(
            "idle unit, 4 boards, no client: %.3f%% of one core over %.0f s (goal <= 0.5%%)\n",
            *idle * 100, seconds);

    rig.run("tovelsim", {"--root", rig.root.string(), "fault", "1", "hang"}, rig.root / "sim.out",
            5s);
    const fs::path answers = rig.root / "hung.out";
    const auto hung = shareOfOneCore(
        unit.pid(),
        [&] {
            rig.run("tovelctl",
                    rig.ctl({"--repeat", std::to_string(hungRequests), "atomic-get", "0x7e", "0x7e",
                             "4", "cafe0001"}),
                    answers, std::chrono::seconds(10 * hungRequests + 10));
        },
        seconds);
    const std::size_t timedOut = count(readFile(answers), "status: 13");
    if (hung)
        std::printf(
            "hung board, one client looping Rem_AtomicGet: %.3f%% of one core over %.0f s, "
            "%zu of %d answered 13 (goal <= 5%%)\n",
            *hung * 100, seconds, timedOut, hungRequests);

    unit.terminate();
    unit.waitForExit(10s);
    fs::remove_all(rig.root);
    return idle && hung ? 0 : 1;
}
