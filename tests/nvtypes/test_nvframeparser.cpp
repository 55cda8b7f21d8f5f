#include "nvframeparser.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

// Data bytes below 0xF0, so that no stray preamble hides inside a test frame's data
// unless a case puts one there on purpose.
NvByteArray pattern(size_t n, uint8_t seed)
{
    NvByteArray data(n);
    for (size_t i = 0; i < n; ++i)
        data[i] = uint8_t((seed + i * 7) % 0xF0);
    return data;
}

NvByteArray frameOf(size_t n, uint8_t seed = 1, uint8_t mid = 0x36)
{
    return NvMessage(0xFF, mid, pattern(n, seed)).frameBytes();
}

// The extended length form for a short payload (legal, though we never write it).
NvByteArray extendedFrameOf(size_t n, uint8_t seed = 3)
{
    NvByteArray f = {0xFA, 0xFF, 0x36, 0xFF, uint8_t(n >> 8), uint8_t(n)};
    const NvByteArray data = pattern(n, seed);
    f.insert(f.end(), data.begin(), data.end());
    f.push_back(NvMessage::computeChecksum(f.data(), f.size()));
    return f;
}

NvByteArray garbage(size_t n, uint8_t seed = 5)
{
    return pattern(n, seed);
}

struct Outcome
{
    std::vector<NvByteArray> frames;
    NvFrameParser::Counters counters;
    size_t pending = 0;
    size_t skippedReported = 0;
};

// Feeds `stream` in chunks from `sizes` (cycled); an empty list feeds it whole.
Outcome parse(const NvByteArray& stream, const std::vector<size_t>& sizes)
{
    Outcome out;
    NvFrameParser parser;
    size_t pos = 0;
    size_t k = 0;
    while (pos < stream.size()) {
        const size_t n = sizes.empty() ? stream.size()
                                       : std::min(sizes[k++ % sizes.size()], stream.size() - pos);
        parser.feed(
            stream.data() + pos, n,
            [&](const NvFrameView& v) { out.frames.emplace_back(v.frame, v.frame + v.size); },
            [&](const uint8_t*, size_t count) { out.skippedReported += count; });
        pos += n;
    }
    out.counters = parser.counters();
    out.pending = parser.pendingBytes();
    return out;
}

std::vector<size_t> randomChunks(unsigned seed, size_t maxChunk)
{
    std::mt19937 rng(seed);
    std::vector<size_t> sizes(97);
    for (size_t& s : sizes)
        s = 1 + rng() % maxChunk;
    return sizes;
}

NvByteArray concat(std::initializer_list<NvByteArray> parts)
{
    NvByteArray out;
    for (const NvByteArray& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// One row of the table below.
struct Case
{
    const char* legend;
    NvByteArray stream;
    std::vector<NvByteArray> frames; // expected, in order
    uint64_t checksumErrors;
    uint64_t oversize;
    uint64_t skipped;
    size_t pending;
};

NvByteArray damaged(NvByteArray f)
{
    f.back() ^= 0x5A;
    return f;
}

std::vector<Case> cases()
{
    const NvByteArray f0 = frameOf(0, 1, 0x30);
    const NvByteArray f3 = frameOf(3, 2);
    const NvByteArray f254 = frameOf(254, 3);
    const NvByteArray f255 = frameOf(255, 4); // first size of the extended form
    const NvByteArray f2048 = frameOf(2048, 5);
    const NvByteArray x10 = extendedFrameOf(10);
    const NvByteArray allFa = NvMessage(0xFF, 0x36, NvByteArray(20, 0xFA)).frameBytes();
    const NvByteArray oversize = {0xFA, 0xFF, 0x36, 0xFF, 0x08, 0x01}; // 2049 declared
    // FA 05 then a real frame: bus 05, mid FA, length FF, extended length FF36 -> oversize.
    const NvByteArray falseOversize = {0xFA, 0x05};
    // FA 01 02 then frames: declared length 0xFA (250) reaches into the frames behind it.
    const NvByteArray falseLong = {0xFA, 0x01, 0x02};
    NvByteArray many;
    std::vector<NvByteArray> manyFrames;
    for (int i = 0; i < 40; ++i) {
        manyFrames.push_back(frameOf(3 + i % 5, uint8_t(i)));
        many.insert(many.end(), manyFrames.back().begin(), manyFrames.back().end());
    }
    std::vector<NvByteArray> falseLongExpected = manyFrames;

    const NvByteArray truncated(f254.begin(), f254.begin() + 100);

    return {
        // Legend: F<n> frame with n data bytes, X<n> short payload in the extended form,
        // G<n> n bytes of garbage without 0xFA, C<n> frame with a damaged checksum,
        // O header declaring 2049 bytes, P a false preamble, T a truncated frame.
        {"F3", f3, {f3}, 0, 0, 0, 0},
        {"F0 F3", concat({f0, f3}), {f0, f3}, 0, 0, 0, 0},
        {"G5 F3 G2 F0 G7",
         concat({garbage(5), f3, garbage(2), f0, garbage(7)}),
         {f3, f0},
         0,
         0,
         14,
         0},
        {"F254 F255", concat({f254, f255}), {f254, f255}, 0, 0, 0, 0},
        {"F2048", f2048, {f2048}, 0, 0, 0, 0},
        {"X10 F3", concat({x10, f3}), {x10, f3}, 0, 0, 0, 0},
        {"F20 of 0xFA data", concat({allFa, f3}), {allFa, f3}, 0, 0, 0, 0},
        {"C3 F3", concat({damaged(f3), f3}), {f3}, 1, 0, f3.size(), 0},
        {"C254 X10", concat({damaged(f254), x10}), {x10}, 1, 0, f254.size(), 0},
        {"O F3", concat({oversize, f3}), {f3}, 0, 1, oversize.size(), 0},
        {"P(oversize) F3", concat({falseOversize, f3}), {f3}, 0, 1, 2, 0},
        {"P(long) 40xF", concat({falseLong, many}), falseLongExpected, 1, 0, 3, 0},
        {"F3 T", concat({f3, truncated}), {f3}, 0, 0, 0, truncated.size()},
        {"G3 FA-only tail", concat({garbage(3), NvByteArray{0xFA}}), {}, 0, 0, 3, 1},
        {"C0 C0 F0", concat({damaged(f0), damaged(f0), f0}), {f0}, 2, 0, 2 * f0.size(), 0},
    };
}

} // namespace

TEST(NvFrameParser, TableUnderEveryChunking)
{
    for (const Case& c : cases()) {
        std::vector<std::vector<size_t>> chunkings = {{}, {1}, {2}, {3}, {7}, {64}};
        for (unsigned seed = 1; seed <= 5; ++seed)
            chunkings.push_back(randomChunks(seed, 40));
        for (const auto& sizes : chunkings) {
            SCOPED_TRACE(std::string(c.legend) + " chunks " +
                         (sizes.empty() ? "whole" : std::to_string(sizes[0]) + "..."));
            const Outcome out = parse(c.stream, sizes);
            EXPECT_EQ(out.frames.size(), c.frames.size());
            EXPECT_TRUE(out.frames == c.frames);
            EXPECT_EQ(out.counters.frames, c.frames.size());
            EXPECT_EQ(out.counters.checksumErrors, c.checksumErrors);
            EXPECT_EQ(out.counters.oversizeFrames, c.oversize);
            EXPECT_EQ(out.counters.skippedBytes, c.skipped);
            EXPECT_EQ(out.skippedReported, c.skipped);
            EXPECT_EQ(out.pending, c.pending);
        }
    }
}

TEST(NvFrameParser, RandomStreamsSurviveRandomChunking)
{
    std::mt19937 rng(1234);
    for (int round = 0; round < 20; ++round) {
        NvByteArray stream;
        std::vector<NvByteArray> expected;
        size_t garbageBytes = 0;
        for (int i = 0; i < 60; ++i) {
            const int what = int(rng() % 10);
            if (what < 2) {
                const size_t n = 1 + rng() % 30;
                const NvByteArray g = garbage(n, uint8_t(rng()));
                stream.insert(stream.end(), g.begin(), g.end());
                garbageBytes += n;
                continue;
            }
            const size_t n = what == 9 ? 255 + rng() % 1794 : rng() % 120;
            NvByteArray data(n);
            for (uint8_t& b : data)
                b = uint8_t(rng()); // may contain 0xFA: fine inside a valid frame
            expected.push_back(NvMessage(uint8_t(rng()), uint8_t(rng()), data).frameBytes());
            stream.insert(stream.end(), expected.back().begin(), expected.back().end());
        }
        for (const auto& sizes : {std::vector<size_t>{}, std::vector<size_t>{1},
                                  randomChunks(unsigned(round), 300), randomChunks(99, 5)}) {
            const Outcome out = parse(stream, sizes);
            ASSERT_EQ(out.frames.size(), expected.size()) << "round " << round;
            for (size_t i = 0; i < expected.size(); ++i)
                ASSERT_TRUE(out.frames[i] == expected[i]) << "round " << round << " frame " << i;
            EXPECT_EQ(out.counters.skippedBytes, garbageBytes);
            EXPECT_EQ(out.counters.checksumErrors, 0u);
            EXPECT_EQ(out.pending, 0u);
        }
    }
}

TEST(NvFrameParser, WholeFramesInTheChunkAreNotCopied)
{
    const NvByteArray stream = concat({frameOf(10), frameOf(20)});
    NvFrameParser parser;
    std::vector<const uint8_t*> starts;
    parser.feed(stream.data(), stream.size(), [&](const NvFrameView& v) {
        starts.push_back(v.frame);
        EXPECT_EQ(v.messageId(), 0x36);
        EXPECT_EQ(v.busId(), 0xFF);
    });
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[0], stream.data());
    EXPECT_EQ(starts[1], stream.data() + 15);
}

TEST(NvFrameParser, ViewExposesDataOfBothLengthForms)
{
    const NvByteArray x = extendedFrameOf(10, 9);
    const NvByteArray big = frameOf(300, 4);
    NvFrameParser parser;
    std::vector<NvByteArray> data;
    parser.feed(x.data(), x.size(), [&](const NvFrameView& v) {
        data.emplace_back(v.data(), v.data() + v.dataSize());
        EXPECT_EQ(v.toMessage().frameBytes(), x);
    });
    parser.feed(big.data(), big.size(), [&](const NvFrameView& v) {
        data.emplace_back(v.data(), v.data() + v.dataSize());
    });
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(data[0], pattern(10, 9));
    EXPECT_EQ(data[1], pattern(300, 4));
}

TEST(NvFrameParser, FlushCountsThePartialFrameAsSkipped)
{
    const NvByteArray f = frameOf(50);
    NvFrameParser parser;
    int frames = 0;
    parser.feed(f.data(), 20, [&](const NvFrameView&) { ++frames; });
    EXPECT_EQ(parser.pendingBytes(), 20u);
    parser.flush();
    EXPECT_EQ(parser.pendingBytes(), 0u);
    EXPECT_EQ(parser.counters().skippedBytes, 20u);
    // The rest alone is garbage now; a following frame still comes through.
    const NvByteArray rest = concat({NvByteArray(f.begin() + 20, f.end()), frameOf(1)});
    parser.feed(rest.data(), rest.size(), [&](const NvFrameView&) { ++frames; });
    EXPECT_EQ(frames, 1);
    parser.reset();
    EXPECT_EQ(parser.counters().frames, 0u);
    EXPECT_EQ(parser.counters().skippedBytes, 0u);
}
