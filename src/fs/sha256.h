#pragma once

#include "fs/sha256_compression.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace maintenance {

/// The running state of one SHA-256 computation (FIPS 180-4); a plain value.
struct Sha256 {
    /// The intermediate hash value.
    Sha256State state = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                         0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    /// Bytes fed but not yet compressed.
    std::array<unsigned char, 64> buffer = {};
    /// Count of all bytes fed.
    std::uint64_t length = 0;
    /// Count of bytes in `buffer`, 0 to 63 between calls.
    std::uint64_t fill = 0;
    /// The compression function in use.
    Sha256Compression compress = fastestCompression();

    /// Applies the compression function to the 64 bytes at `block`.
    void block(const unsigned char* block);
    /// Feeds `size` bytes at `data`, both borrowed.
    void feed(const void* data, std::size_t size);
    /// Returns the digest as 64 lower-case hexadecimal digits; the structure is used up.
    std::string finish();
};

/// Returns `bytes` as lower-case hexadecimal digits, two per byte, high nibble first.
std::string lowerHex(const unsigned char* bytes, std::size_t size);

/// Returns the digest text of `text`.
std::string sha256OfText(std::string_view text);

/// Returns the digest text of an open file from its first byte, whatever its offset; streams it.
///
/// descriptor  an open regular file; borrowed, its offset stays
/// size        the size in bytes that was examined: never more is read
/// failure     the message to raise
/// throws      Invalid `failure` when a read fails or the file does not have exactly `size` bytes
std::string sha256(int descriptor, off_t size, const char* failure = "cannot hash an owned file");

} // namespace maintenance
