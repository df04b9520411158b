// Random request streams, cut into random receives, must frame into exactly
// the requests they were made of; random bytes must never break the framer.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "fuzz/framing_driver.h"
#include "server/remote_protocol.h"

using namespace remproto;
using Bytes = std::vector<std::uint8_t>;

namespace {

struct Made {
    std::uint8_t opcode;
    std::size_t total;
    Bytes payload;
    Bytes packet;  // Rem_PrimSend: the request without its opcode
};

// A request of a random kind; sizes mostly small, sometimes near the limits.
Bytes randomRequest(std::mt19937& rng, Made& made) {
    auto pick = [&](std::size_t lo, std::size_t hi) {
        return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
    };
    std::size_t size = pick(0, 9) < 8 ? pick(0, 64) : pick(0, 9984);
    Bytes payload(size);
    for (auto& b : payload) b = static_cast<std::uint8_t>(rng());
    const auto kind = static_cast<std::uint8_t>(pick(0, 5));
    Bytes request;
    switch (kind) {
        case Rem_PrimSend:
            payload.resize(std::min<std::size_t>(size, 9995));
            request = encodePrimSend(1, static_cast<std::uint8_t>(rng()), payload);
            break;
        case Rem_PrimGet:
            payload.clear();
            request = encodePrimGet(static_cast<std::uint16_t>(rng()));
            break;
        case Rem_GetStatus:
            payload.clear();
            request = encodeGetStatus();
            break;
        case Rem_AtomicGet:
            request = encodeAtomicGet(static_cast<std::uint8_t>(rng()), payload, 2,
                                      static_cast<std::uint32_t>(rng()));
            break;
        case Rem_AtomicSend:
            request = encodeAtomicSend(static_cast<std::uint8_t>(rng()), payload);
            break;
        default:
            request = encodeControl(static_cast<std::uint8_t>(pick(0, 12)), payload);
    }
    made = {kind, request.size(), payload,
            kind == Rem_PrimSend ? Bytes(request.begin() + 1, request.end()) : Bytes{}};
    return request;
}

std::vector<std::size_t> randomSplits(std::mt19937& rng, std::size_t count) {
    std::vector<std::size_t> sizes(count);
    for (auto& s : sizes) {
        switch (rng() % 4) {
            case 0:
                s = 1 + rng() % 4;
                break;  // the awkward few-byte receives
            case 1:
                s = 1 + rng() % 32;
                break;
            case 2:
                s = 1 + rng() % 2000;
                break;
            default:
                s = 1 + rng() % 12000;
                break;
        }
    }
    return sizes;
}

// The serving core runs on the manual clock, quietly.
class FramerReplay : public ::testing::Test {
    framing_test::QuietHost quiet;
};

}  // namespace

TEST_F(FramerReplay, RandomRequestStreamsSplitAtRandomFrameIntoTheSameRequests) {
    for (unsigned seed = 1; seed <= 300; ++seed) {
        std::mt19937 rng(seed);
        Bytes stream;
        std::vector<Made> made;
        const std::size_t count = 1 + rng() % 20;
        for (std::size_t i = 0; i < count; ++i) {
            Made m;
            Bytes r = randomRequest(rng, m);
            stream.insert(stream.end(), r.begin(), r.end());
            made.push_back(std::move(m));
        }
        const auto splits = randomSplits(rng, 1 + rng() % 50);
        auto outcome = framing_test::drive(stream, splits);
        ASSERT_TRUE(outcome.violation.empty()) << "seed " << seed << ": " << outcome.violation;
        ASSERT_EQ(outcome.served.size(), made.size()) << "seed " << seed;
        for (std::size_t i = 0; i < made.size(); ++i) {
            EXPECT_EQ(outcome.served[i].opcode, made[i].opcode) << "seed " << seed << " #" << i;
            EXPECT_EQ(outcome.served[i].total, made[i].total) << "seed " << seed << " #" << i;
            EXPECT_EQ(outcome.served[i].payload, made[i].payload) << "seed " << seed << " #" << i;
            EXPECT_EQ(outcome.served[i].packet, made[i].packet) << "seed " << seed << " #" << i;
        }
    }
}

TEST_F(FramerReplay, OneByteAtATimeServesEachRequestOnceItIsWhole) {
    std::mt19937 rng(42);
    Bytes stream;
    std::vector<std::size_t> totals;
    for (int i = 0; i < 30; ++i) {
        Made m;
        Bytes r = randomRequest(rng, m);
        if (r.size() > 200) continue;
        stream.insert(stream.end(), r.begin(), r.end());
        totals.push_back(r.size());
    }
    const std::vector<std::size_t> oneByte{1};
    auto outcome = framing_test::drive(stream, oneByte);
    ASSERT_TRUE(outcome.violation.empty()) << outcome.violation;
    ASSERT_EQ(outcome.served.size(), totals.size());
    for (std::size_t i = 0; i < totals.size(); ++i) EXPECT_EQ(outcome.served[i].total, totals[i]);
}

TEST_F(FramerReplay, RandomBytesNeverBreakThePromises) {
    for (unsigned seed = 1; seed <= 2000; ++seed) {
        std::mt19937 rng(seed);
        Bytes stream(rng() % 3000);
        for (auto& b : stream) {
            // Mostly valid opcodes, so that streams get past their first byte.
            b = static_cast<std::uint8_t>(rng() % 3 == 0 ? rng() % 6 : rng());
        }
        const auto splits = randomSplits(rng, 1 + rng() % 20);
        auto outcome = framing_test::drive(stream, splits);
        ASSERT_TRUE(outcome.violation.empty()) << "seed " << seed << ": " << outcome.violation;
    }
}

TEST_F(FramerReplay, ARequestBehindAnUnknownOpcodeIsNeverServed) {
    for (std::uint8_t opcode : {6, 7, 0x80, 0xff}) {
        Bytes stream = encodeGetStatus();
        stream.push_back(opcode);
        Bytes version = encodeControl(RemCtl_Version);
        stream.insert(stream.end(), version.begin(), version.end());
        for (std::size_t split : {1u, 3u, 5u, 6u, 100u}) {
            const std::vector<std::size_t> sizes{split};
            auto outcome = framing_test::drive(stream, sizes);
            ASSERT_EQ(outcome.served.size(), 1u) << int(opcode) << " " << split;
            EXPECT_EQ(outcome.served[0].opcode, Rem_GetStatus);
            EXPECT_EQ(outcome.last, FrameStatus::UnknownOpcode);
        }
    }
}

// The fuzzing seeds and every reproducer kept next to them.
TEST_F(FramerReplay, FuzzCorpusInTheTreeKeepsThePromises) {
    int inputs = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(TOVEL_FUZZ_CORPUS) + "/framer")) {
        std::ifstream in(entry.path(), std::ios::binary);
        const Bytes input{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        const auto outcome = framing_test::driveFuzzInput(input);
        EXPECT_TRUE(outcome.violation.empty()) << entry.path() << ": " << outcome.violation;
        ++inputs;
    }
    EXPECT_GE(inputs, 8);
}
