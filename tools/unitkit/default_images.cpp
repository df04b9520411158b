#include "tools/unitkit/default_images.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace unitkit {
namespace {

// Versions the controllers accept: T1 major 102, RF 53, Ethernet exactly
// 99.6, analog 58. Where the kind leaves the minor free it differs from the
// program a board comes up with, so the log tells a booted board apart.
constexpr DefaultImage kDefaultImages[] = {
    {"t1.cof", {102, 2}}, {"rf.cof", {53, 3}},   {"ip.cof", {99, 6}},
    {"ipg.cof", {99, 6}}, {"pots.cof", {58, 4}},
};

// Enough code for a boot to send several chunks.
constexpr std::uint32_t kCodeBytes = 2000;

}  // namespace

std::span<const DefaultImage> defaultImages() {
    return kDefaultImages;
}

std::vector<std::uint8_t> buildDefaultImage(const DefaultImage& image) {
    return coffkit::buildVersionedImage(image.version.major, image.version.minor, kCodeBytes);
}

void writeDefaultImages(const std::string& installFolderHostPath) {
    const std::filesystem::path folder(installFolderHostPath);
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error)
        throw std::runtime_error("cannot create " + folder.string() + ": " + error.message());
    for (const DefaultImage& image : kDefaultImages) {
        const std::filesystem::path path = folder / image.fileName;
        const std::vector<std::uint8_t> bytes = buildDefaultImage(image);
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out) throw std::runtime_error("cannot write " + path.string());
    }
}

}  // namespace unitkit
