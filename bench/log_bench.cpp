// LogError lines per second with the per-line flush, on a temporary unit root.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>

#include "boards/error_log.h"
#include "platform/files.h"
#include "platform/text.h"

int main() {
    namespace fs = std::filesystem;
    std::random_device rd;
    fs::path root = fs::temp_directory_path() / ("tovel-bench-" + std::to_string(rd()));
    fs::create_directories(root / "FlashFx Disk2" / "Orvane" / "Users" / "Admin");
    host::setUnitRoot(root.string());
    constexpr int kLines = 200000;
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kLines; ++i)
        LogError(host::wformat(L"UsbCtlr[T1 #1050000000] benchmark line %d(thread=%x @ %u)\r\n", i,
                               0x1234u, 42u));
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    closeLogFileForShutdown();
    std::printf(
        "LogError: %d lines in %.3f s = %.0f lines/s (flushed per line, rotation included)\n",
        kLines, seconds, kLines / seconds);
    fs::remove_all(root);
    return 0;
}
