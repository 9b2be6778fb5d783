#include "fs/sha256_compression.h"

#include "platform/arm_features.h"

// Clang before version 16 declares these intrinsics only where the whole file is compiled for the extensions.
#if defined(__aarch64__) && (defined(__ARM_FEATURE_SHA2) || !defined(__clang__) || __clang_major__ >= 16)

#include <arm_neon.h>

// For these functions alone, so that the program starts on every processor of the architecture.
#if defined(__ARM_FEATURE_SHA2)
#define MAINTENANCE_CRYPTOGRAPHIC_EXTENSIONS
#elif defined(__clang__)
#define MAINTENANCE_CRYPTOGRAPHIC_EXTENSIONS __attribute__((target("sha2")))
#else
#define MAINTENANCE_CRYPTOGRAPHIC_EXTENSIONS __attribute__((target("+crypto")))
#endif

namespace maintenance {

namespace {

/// Four consecutive words of the message schedule, or half of the state.
using Words = uint32x4_t;

struct Halves {
    Words abcd;
    Words efgh;
};

MAINTENANCE_CRYPTOGRAPHIC_EXTENSIONS inline Words loadBigEndian(const unsigned char* bytes)
{
    return vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(bytes)));
}

/// Rounds t to t + 3 with schedule words t to t + 3.
MAINTENANCE_CRYPTOGRAPHIC_EXTENSIONS inline void mix(Halves& halves, Words words, std::size_t t)
{
    const Words input = vaddq_u32(words, vld1q_u32(&sha256RoundConstants[t]));
    const Words abcd = halves.abcd;
    halves.abcd = vsha256hq_u32(abcd, halves.efgh, input);
    halves.efgh = vsha256h2q_u32(halves.efgh, abcd, input);
}

/// Turns words t to t + 3 into words t + 16 to t + 19; the others are words t + 4 to t + 15.
MAINTENANCE_CRYPTOGRAPHIC_EXTENSIONS inline void extend(Words& words, Words next, Words afterNext, Words last)
{
    words = vsha256su1q_u32(vsha256su0q_u32(words, next), afterNext, last);
}

MAINTENANCE_CRYPTOGRAPHIC_EXTENSIONS void compress(Sha256State& state, const unsigned char* blocks,
                                                   std::size_t count)
{
    Halves halves = {vld1q_u32(&state[0]), vld1q_u32(&state[4])};
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
        halves.abcd = vaddq_u32(halves.abcd, before.abcd);
        halves.efgh = vaddq_u32(halves.efgh, before.efgh);
    }
    vst1q_u32(&state[0], halves.abcd);
    vst1q_u32(&state[4], halves.efgh);
}

} // namespace

Sha256Compression armCompression() { return armHasSha256() ? &compress : nullptr; }

} // namespace maintenance

#else

namespace maintenance {

Sha256Compression armCompression() { return nullptr; }

} // namespace maintenance

#endif
