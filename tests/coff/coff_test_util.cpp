#include "tests/coff/coff_test_util.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>

namespace cofftest {

ReadOutcome writeAndRead(const testing_support::TempUnitRoot& root,
                         const std::vector<std::uint8_t>& image) {
    root.writeFile(kImagePath, std::string(image.begin(), image.end()));
    ReadOutcome outcome;
    outcome.result = readCoffImage(kImagePath, outcome.sections, outcome.count);
    return outcome;
}

std::vector<std::uint8_t> readHostFile(const std::string& hostPath) {
    std::ifstream in(hostPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string sharedCoffDir() {
    return TOVEL_SHARED_DIR "/coff/";
}

bool haveSharedCoffFiles() {
    return std::filesystem::exists(sharedCoffDir() + "expected.json");
}

namespace allocations {
namespace {
std::atomic<std::size_t> largestSeen{0};
std::atomic<std::size_t> failThreshold{0};
}  // namespace

void reset() {
    largestSeen = 0;
}
std::size_t largest() {
    return largestSeen;
}
void failFrom(std::size_t size) {
    failThreshold = size;
}

void* allocate(std::size_t size) {
    const std::size_t threshold = failThreshold;
    if (threshold != 0 && size >= threshold) throw std::bad_alloc();
    std::size_t seen = largestSeen;
    while (size > seen && !largestSeen.compare_exchange_weak(seen, size)) {
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
}  // namespace allocations

}  // namespace cofftest

void* operator new(std::size_t size) {
    return cofftest::allocations::allocate(size);
}
void* operator new[](std::size_t size) {
    return cofftest::allocations::allocate(size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
