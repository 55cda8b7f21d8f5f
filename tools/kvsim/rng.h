#pragma once

#include <cstdint>

namespace kvsim {

// Small, fast, reproducible generator (xoshiro256**, seeded through splitmix64). Every
// random choice of the emulator comes from one of these so that a seed repeats a run.
class Rng
{
public:
    explicit Rng(uint64_t seed = 0) { reseed(seed); }

    void reseed(uint64_t seed)
    {
        for (uint64_t& word : m_state)
            word = splitMix(seed);
    }

    uint64_t next()
    {
        const uint64_t result = rotl(m_state[1] * 5, 7) * 9;
        const uint64_t t = m_state[1] << 17;
        m_state[2] ^= m_state[0];
        m_state[3] ^= m_state[1];
        m_state[1] ^= m_state[2];
        m_state[0] ^= m_state[3];
        m_state[2] ^= t;
        m_state[3] = rotl(m_state[3], 45);
        return result;
    }

    // Uniform in [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
    // Uniform in [0, n); n > 0.
    uint32_t below(uint32_t n) { return static_cast<uint32_t>((next() >> 32) % n); }
    bool chance(double p) { return p > 0.0 && uniform() < p; }

    // Mixes a seed with a stream number so that devices and purposes get independent streams.
    static uint64_t derive(uint64_t seed, uint64_t stream)
    {
        uint64_t x = seed ^ (stream * 0xD6E8FEB86659FD93ull);
        return splitMix(x);
    }

private:
    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    static uint64_t splitMix(uint64_t& x)
    {
        uint64_t z = (x += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    uint64_t m_state[4];
};

} // namespace kvsim
