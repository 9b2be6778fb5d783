#include "fs/sha256.h"

#include "validate/invalid.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace maintenance {

namespace {

constexpr std::size_t blockSize = 64;
constexpr std::size_t lengthOffset = 56;
constexpr std::size_t hashingChunk = 65536;

} // namespace

Sha256Compression fastestCompression()
{
    static const Sha256Compression fastest = [] {
        if (const Sha256Compression x86 = x86Compression())
            return x86;
        if (const Sha256Compression arm = armCompression())
            return arm;
        return &compressPortably;
    }();
    return fastest;
}

void Sha256::block(const unsigned char* block) { compress(state, block, 1); }

void Sha256::feed(const void* data, std::size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    length += size;
    while (size > 0) {
        // Whole blocks are compressed where they lie; only the ends pass through the buffer.
        if (fill == 0 && size >= blockSize) {
            const std::size_t whole = size / blockSize;
            compress(state, bytes, whole);
            bytes += whole * blockSize;
            size -= whole * blockSize;
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
    alignas(blockSize) std::array<unsigned char, hashingChunk> chunk;
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
