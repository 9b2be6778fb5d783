#include "fs/sha256.h"

#include "validate/invalid.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <unistd.h>

namespace maintenance {

namespace {

constexpr std::array<std::uint32_t, 64> roundConstants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr std::size_t blockSize = 64;
constexpr std::size_t lengthOffset = 56;
constexpr std::size_t hashingChunk = 16384;

std::uint32_t bigEndian(const unsigned char* bytes)
{
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
           std::uint32_t{bytes[3]};
}

std::uint32_t choose(std::uint32_t x, std::uint32_t y, std::uint32_t z) { return (x & y) ^ (~x & z); }

std::uint32_t majority(std::uint32_t x, std::uint32_t y, std::uint32_t z)
{
    return (x & y) ^ (x & z) ^ (y & z);
}

} // namespace

void Sha256::block(const unsigned char* block)
{
    std::array<std::uint32_t, 64> schedule;
    for (std::size_t t = 0; t < 16; ++t)
        schedule[t] = bigEndian(block + 4 * t);
    for (std::size_t t = 16; t < 64; ++t) {
        const std::uint32_t w15 = schedule[t - 15];
        const std::uint32_t w2 = schedule[t - 2];
        const std::uint32_t s0 = std::rotr(w15, 7) ^ std::rotr(w15, 18) ^ (w15 >> 3);
        const std::uint32_t s1 = std::rotr(w2, 17) ^ std::rotr(w2, 19) ^ (w2 >> 10);
        schedule[t] = schedule[t - 16] + s0 + schedule[t - 7] + s1;
    }

    auto [a, b, c, d, e, f, g, h] = state;
    for (std::size_t t = 0; t < 64; ++t) {
        const std::uint32_t e1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
        const std::uint32_t t1 = h + e1 + choose(e, f, g) + roundConstants[t] + schedule[t];
        const std::uint32_t a0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
        const std::uint32_t t2 = a0 + majority(a, b, c);
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    const std::array<std::uint32_t, 8> mixed = {a, b, c, d, e, f, g, h};
    for (std::size_t i = 0; i < state.size(); ++i)
        state[i] += mixed[i];
}

void Sha256::feed(const void* data, std::size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    length += size;
    while (size > 0) {
        // Whole blocks are compressed where they lie; only the ends pass through the buffer.
        if (fill == 0 && size >= blockSize) {
            block(bytes);
            bytes += blockSize;
            size -= blockSize;
            continue;
        }
        const std::size_t taken = std::min(size, blockSize - static_cast<std::size_t>(fill));
        std::memcpy(buffer.data() + fill, bytes, taken);
        fill += taken;
        bytes += taken;
        size -= taken;
        if (fill == blockSize) {
            block(buffer.data());
            fill = 0;
        }
    }
}

std::string Sha256::finish()
{
    const std::uint64_t lengthInBits = length * 8;
    buffer[fill++] = 0x80;
    if (fill > lengthOffset) {
        std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(fill), buffer.end(), std::uint8_t{0});
        block(buffer.data());
        fill = 0;
    }
    std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(fill), buffer.begin() + lengthOffset,
              std::uint8_t{0});
    for (std::size_t i = 0; i < 8; ++i)
        buffer[lengthOffset + i] = static_cast<unsigned char>(lengthInBits >> (56 - 8 * i));
    block(buffer.data());

    std::array<unsigned char, 32> digest;
    for (std::size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<unsigned char>(state[i / 4] >> (24 - 8 * (i % 4)));
    return lowerHex(digest.data(), digest.size());
}

std::string lowerHex(const unsigned char* bytes, std::size_t size)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i) {
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0f]);
    }
    return text;
}

std::string sha256OfText(std::string_view text)
{
    Sha256 hash;
    hash.feed(text.data(), text.size());
    return hash.finish();
}

std::string sha256(int descriptor, off_t size, const char* failure)
{
    Sha256 hash;
    std::array<unsigned char, hashingChunk> chunk{};
    // One byte past the examined size is asked for, so that a file that grew is noticed and never followed.
    for (off_t offset = 0;;) {
        const auto wanted = std::min<off_t>(hashingChunk, size + 1 - offset);
        const ssize_t count = ::pread(descriptor, chunk.data(), static_cast<std::size_t>(wanted), offset);
        if (count < 0 || offset + count > size)
            throw Invalid(failure);
        if (count == 0) {
            if (offset != size)
                throw Invalid(failure);
            return hash.finish();
        }
        hash.feed(chunk.data(), static_cast<std::size_t>(count));
        offset += count;
    }
}

} // namespace maintenance
