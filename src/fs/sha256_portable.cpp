#include "fs/sha256_compression.h"

#include <bit>
#include <utility>

// The compiler's own judgement leaves calls in the rounds, which then take half as long again.
#define MAINTENANCE_INLINE [[gnu::always_inline]] inline

namespace maintenance {

namespace {

using Word = std::uint32_t;

constexpr std::size_t lap = 16;

/// One block on its way through the rounds, which are laid out by template in laps of 16.
struct Compression {
    /// Word t of the message schedule lies at t modulo 16.
    std::array<Word, lap> schedule;
    /// The working variables. Instead of moving them all, each round moves the names: in round t,
    /// a lies at -t, b at 1 - t and so on, modulo 8.
    std::array<Word, 8> words;
    /// a ^ b of the round before, which is b ^ c now.
    Word differing;
};

MAINTENANCE_INLINE Word bigEndian(const unsigned char* bytes)
{
    return Word{bytes[0]} << 24 | Word{bytes[1]} << 16 | Word{bytes[2]} << 8 | Word{bytes[3]};
}

// Rotations of rotations: a processor that rotates in place needs fewer copies for them.
MAINTENANCE_INLINE Word bigSigma0(Word x) { return std::rotr(std::rotr(std::rotr(x, 9) ^ x, 11) ^ x, 2); }

MAINTENANCE_INLINE Word bigSigma1(Word x) { return std::rotr(std::rotr(std::rotr(x, 14) ^ x, 5) ^ x, 6); }

MAINTENANCE_INLINE Word smallSigma0(Word x) { return std::rotr(x, 7) ^ std::rotr(x, 18) ^ (x >> 3); }

MAINTENANCE_INLINE Word smallSigma1(Word x) { return std::rotr(x, 17) ^ std::rotr(x, 19) ^ (x >> 10); }

template <std::size_t Round> MAINTENANCE_INLINE void mix(Compression& c, Word input)
{
    constexpr std::size_t first = 8 - Round % 8;
    const Word a = c.words[first % 8];
    const Word b = c.words[(first + 1) % 8];
    Word& d = c.words[(first + 3) % 8];
    const Word e = c.words[(first + 4) % 8];
    const Word f = c.words[(first + 5) % 8];
    const Word g = c.words[(first + 6) % 8];
    Word& h = c.words[(first + 7) % 8];

    h += input + (g ^ (e & (f ^ g))) + bigSigma1(e);
    d += h;
    const Word differs = a ^ b;
    h += bigSigma0(a) + (b ^ (differs & c.differing));
    c.differing = differs;
}

/// Replaces schedule word t - 16 by word t.
template <std::size_t T> MAINTENANCE_INLINE Word extend(Compression& c)
{
    auto& w = c.schedule;
    return w[T] += smallSigma1(w[(T + 14) % lap]) + w[(T + 9) % lap] + smallSigma0(w[(T + 1) % lap]);
}

template <std::size_t... T>
MAINTENANCE_INLINE void firstLap(Compression& c, const unsigned char* block, std::index_sequence<T...>)
{
    (mix<T>(c, sha256RoundConstants[T] + (c.schedule[T] = bigEndian(block + 4 * T))), ...);
}

template <std::size_t... T>
MAINTENANCE_INLINE void nextLap(Compression& c, const Word* constants, std::index_sequence<T...>)
{
    (mix<T>(c, constants[T] + extend<T>(c)), ...);
}

void compressOne(Sha256State& state, const unsigned char* block)
{
    Compression c;
    c.words = state;
    c.differing = state[1] ^ state[2];
    firstLap(c, block, std::make_index_sequence<lap>());
    for (std::size_t t = lap; t < sha256RoundConstants.size(); t += lap)
        nextLap(c, &sha256RoundConstants[t], std::make_index_sequence<lap>());
    for (std::size_t i = 0; i < state.size(); ++i)
        state[i] += c.words[i];
}

} // namespace

void compressPortably(Sha256State& state, const unsigned char* blocks, std::size_t count)
{
    for (; count > 0; --count, blocks += 64)
        compressOne(state, blocks);
}

} // namespace maintenance
