#include "fs/sha256_compression.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>

// For these functions alone, so that the program starts on every processor of the architecture.
#define MAINTENANCE_SHA_EXTENSIONS __attribute__((target("sha,sse4.1,ssse3")))

namespace maintenance {

namespace {

/// Four consecutive words of the message schedule, or half of the state.
using Words = __m128i;

MAINTENANCE_SHA_EXTENSIONS inline Words load(const void* bytes)
{
    return _mm_loadu_si128(static_cast<const Words*>(bytes));
}

MAINTENANCE_SHA_EXTENSIONS inline Words loadBigEndian(const unsigned char* bytes)
{
    return _mm_shuffle_epi8(load(bytes), _mm_set_epi64x(0x0c0d0e0f08090a0b, 0x0405060700010203));
}

/// The state in the order in which the instructions want it.
struct Halves {
    Words abef;
    Words cdgh;
};

MAINTENANCE_SHA_EXTENSIONS inline Halves split(const Sha256State& state)
{
    const Words badc = _mm_shuffle_epi32(load(&state[0]), 0xb1);
    const Words hgfe = _mm_shuffle_epi32(load(&state[4]), 0x1b);
    return {_mm_alignr_epi8(badc, hgfe, 8), _mm_blend_epi16(hgfe, badc, 0xf0)};
}

MAINTENANCE_SHA_EXTENSIONS inline void join(const Halves& halves, Sha256State& state)
{
    const Words feba = _mm_shuffle_epi32(halves.abef, 0x1b);
    const Words dchg = _mm_shuffle_epi32(halves.cdgh, 0xb1);
    _mm_storeu_si128(static_cast<Words*>(static_cast<void*>(&state[0])), _mm_blend_epi16(feba, dchg, 0xf0));
    _mm_storeu_si128(static_cast<Words*>(static_cast<void*>(&state[4])), _mm_alignr_epi8(dchg, feba, 8));
}

/// Rounds t to t + 3 with schedule words t to t + 3.
MAINTENANCE_SHA_EXTENSIONS inline void mix(Halves& halves, Words words, std::size_t t)
{
    const Words input = _mm_add_epi32(words, load(&sha256RoundConstants[t]));
    halves.cdgh = _mm_sha256rnds2_epu32(halves.cdgh, halves.abef, input);
    halves.abef = _mm_sha256rnds2_epu32(halves.abef, halves.cdgh, _mm_shuffle_epi32(input, 0x0e));
}

/// Turns words t to t + 3 into words t + 16 to t + 19; the others are words t + 4 to t + 15.
MAINTENANCE_SHA_EXTENSIONS inline void extend(Words& words, Words next, Words afterNext, Words last)
{
    const Words partial =
        _mm_add_epi32(_mm_sha256msg1_epu32(words, next), _mm_alignr_epi8(last, afterNext, 4));
    words = _mm_sha256msg2_epu32(partial, last);
}

MAINTENANCE_SHA_EXTENSIONS void compress(Sha256State& state, const unsigned char* blocks, std::size_t count)
{
    Halves halves = split(state);
    for (; count > 0; --count, blocks += 64) {
        const Halves before = halves;
        Words w0 = loadBigEndian(blocks);
        Words w1 = loadBigEndian(blocks + 16);
        Words w2 = loadBigEndian(blocks + 32);
        Words w3 = loadBigEndian(blocks + 48);
        for (std::size_t t = 0; t < 48; t += 16) {
            mix(halves, w0, t);
            extend(w0, w1, w2, w3);
            mix(halves, w1, t + 4);
            extend(w1, w2, w3, w0);
            mix(halves, w2, t + 8);
            extend(w2, w3, w0, w1);
            mix(halves, w3, t + 12);
            extend(w3, w0, w1, w2);
        }
        mix(halves, w0, 48);
        mix(halves, w1, 52);
        mix(halves, w2, 56);
        mix(halves, w3, 60);
        halves.abef = _mm_add_epi32(halves.abef, before.abef);
        halves.cdgh = _mm_add_epi32(halves.cdgh, before.cdgh);
    }
    join(halves, state);
}

bool hasExtensions()
{
    constexpr unsigned int shaBit = 1U << 29;
    unsigned int eax = 0;
    unsigned int ebx = 0;
    unsigned int ecx = 0;
    unsigned int edx = 0;
    constexpr unsigned int sseBits = bit_SSSE3 | bit_SSE4_1;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0 || (ecx & sseBits) != sseBits)
        return false;
    return __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0 && (ebx & shaBit) != 0;
}

} // namespace

Sha256Compression x86Compression() { return hasExtensions() ? &compress : nullptr; }

} // namespace maintenance

#else

namespace maintenance {

Sha256Compression x86Compression() { return nullptr; }

} // namespace maintenance

#endif
