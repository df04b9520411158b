// Writes the request framer's seed corpus: request streams encoded by the
// protocol module, each behind the fuzz target's receive-size prefix (one
// count byte, then two big-endian bytes per receive size).
//   make_framer_corpus <folder>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "server/remote_protocol.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using namespace remproto;

Bytes pattern(std::size_t size, std::uint8_t seed) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(seed + i * 7);
    return bytes;
}

Bytes withReceives(const std::vector<std::uint16_t>& receives, const std::vector<Bytes>& requests) {
    Bytes out{static_cast<std::uint8_t>(receives.size())};
    for (std::uint16_t size : receives) {
        out.push_back(static_cast<std::uint8_t>(size >> 8));
        out.push_back(static_cast<std::uint8_t>(size));
    }
    for (const Bytes& request : requests) out.insert(out.end(), request.begin(), request.end());
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_framer_corpus <folder>\n");
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    std::filesystem::create_directories(folder);
    const Bytes echo = encodeAtomicGet(0x7E, pattern(64, 1), 0x7E, 64);
    const std::vector<std::pair<std::string, Bytes>> seeds = {
        {"version", withReceives({}, {encodeControl(RemCtl_Version)})},
        {"every_kind",
         withReceives(
             {}, {encodePrimSend(1, 0x20, pattern(12, 2)), encodePrimGet(64), encodeGetStatus(),
                  echo, encodeAtomicSend(0x21, pattern(5, 3)), encodeControl(RemCtl_EnumBoards)})},
        {"split_echo", withReceives({3, 5, 9, 100}, {echo, echo, echo})},
        {"one_byte_receives", withReceives({1, 1, 1, 1, 1, 1}, {encodeGetStatus(), echo})},
        {"largest_prim_send", withReceives({4000, 4000}, {encodePrimSend(1, 1, pattern(9995, 4))})},
        {"largest_atomic_get",
         withReceives({}, {encodeAtomicGet(0x7E, pattern(9984, 5), 0x7E, 8184)})},
        {"cof_download", withReceives({}, {encodeControl(RemCtl_CofStart, pattern(8, 6)),
                                           encodeControl(RemCtl_CofData, pattern(8192, 7)),
                                           encodeControl(RemCtl_CofEnd)})},
        {"pipelined_prim_sends",
         withReceives({}, std::vector<Bytes>(20, encodePrimSend(1, 0x22, pattern(40, 8))))},
    };
    for (const auto& [name, bytes] : seeds) {
        std::ofstream out(folder / name, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            std::fprintf(stderr, "make_framer_corpus: cannot write %s\n", (folder / name).c_str());
            return 1;
        }
    }
    return 0;
}
