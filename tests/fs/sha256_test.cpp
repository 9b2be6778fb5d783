#include "fs/sha256.h"

#include "fs/owned_fd.h"
#include "support/ending.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sys/stat.h>
#include <vector>

namespace maintenance::rehearsed {
namespace {

const std::string ofNothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
const std::string ofAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string ofAMillionA = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
const std::string notHashed = "cannot hash an owned file";

std::string zeros(std::size_t count) { return std::string(count, '\0'); }

std::string randomBytes(std::size_t count, std::mt19937& random)
{
    std::string bytes;
    for (std::size_t i = 0; i < count; ++i)
        bytes += static_cast<char>(random() & 0xff);
    return bytes;
}

std::string inPieces(const std::string& content, std::size_t piece)
{
    Sha256 hash;
    for (std::size_t at = 0; at < content.size(); at += piece)
        hash.feed(content.data() + at, std::min(piece, content.size() - at));
    return hash.finish();
}

TEST(Sha256Of, PublishedExamplesIsAsPublished)
{
    const std::string twoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const std::string longer = "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno"
                               "ijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu";
    const std::vector<std::pair<std::string, std::string>> examples = {
        {"", ofNothing},
        {"abc", ofAbc},
        {twoBlocks, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {longer, "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
        {std::string(1000000, 'a'), ofAMillionA},
        {"\xbd", "68325720aabd7c82f30f554b313d0570c95accbb7dc4b5aae11204c08ffe732b"},
        {"\xc9\x8c\x8e\x55", "7abc22c0ae5af26ce93dbb94433a0e0b2e119d014f8e7f65bd56c61ccccd9504"},
        {zeros(55), "02779466cdec163811d078815c633f21901413081449002f24aa3e80f0b88ef7"},
        {zeros(56), "d4817aa5497628e7c77e6b606107042bbba3130888c5f47a375e6179be789fbb"},
        {zeros(57), "65a16cb7861335d5ace3c60718b5052e44660726da4cd13bb745381b235a1785"},
        {zeros(64), "f5a5fd42d16a20302798ef6ed309979b43003d2320d9f0e8ea9831a92759fb4b"},
        {zeros(1000), "541b3e9daa09b20bf85fa273e5cbd3e80185aa4ec298e765db87742b70138a53"},
        {std::string(1000, 'A'), "c2e686823489ced2017f6059b8b239318b6364f6dcd835d0a519105a1eadd6e4"},
        {zeros(1000000), "d29751f2649b32ff572b5e0a9f541ea660a50f94ff0beedfb0b692b924cc8025"},
    };
    for (const auto& [content, digest] : examples)
        EXPECT_EQ(sha256OfText(content), digest) << content.size() << " bytes";
}

TEST(Sha256Of, EveryLengthUpTo200EqualsTheSystemsOwn)
{
    std::mt19937 random(20231117);
    std::vector<std::string> digests;
    for (std::size_t length = 0; length <= 200; ++length) {
        const std::string content = randomBytes(length, random);
        std::array<char, 32> name{};
        std::snprintf(name.data(), name.size(), "/tmp/hashed/%03zu", length);
        writeFile(name.data(), content);
        digests.push_back(sha256OfText(content));
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> command(::popen("/usr/bin/sha256sum /tmp/hashed/*", "r"),
                                                        &::pclose);
    std::array<char, 256> line{};
    for (std::size_t length = 0; length <= 200; ++length) {
        ASSERT_NE(std::fgets(line.data(), line.size(), command.get()), nullptr);
        EXPECT_EQ(std::string(line.data(), 64), digests[length]) << length << " bytes";
    }
}

TEST(Sha256Of, BlockEdgesDoesNotDependOnThePiecesFed)
{
    std::mt19937 random(7);
    for (const std::size_t length : std::initializer_list<std::size_t>{0, 1, 54, 55, 56, 57, 63, 64, 65, 119,
                                                                       120, 127, 128, 129, 1000, 16385}) {
        const std::string content = randomBytes(length, random);
        const std::string whole = sha256OfText(content);
        for (const std::size_t piece : std::initializer_list<std::size_t>{1, 3, 7, 31, 63, 64, 65, 127, 200})
            ASSERT_EQ(inPieces(content, piece), whole) << length << " bytes in pieces of " << piece;
    }
}

TEST(Sha256Of, PiecesOfRandomSizeEqualsTheWhole)
{
    std::mt19937 random(11);
    const std::string content = randomBytes(100000, random);
    for (int round = 0; round < 20; ++round) {
        Sha256 hash;
        for (std::size_t at = 0; at < content.size();) {
            const std::size_t piece = std::min<std::size_t>(random() % 300, content.size() - at);
            hash.feed(content.data() + at, piece);
            at += piece;
            ASSERT_EQ(hash.length, at);
            ASSERT_EQ(hash.fill, at % 64);
        }
        ASSERT_EQ(hash.finish(), sha256OfText(content));
    }
}

struct Implementation {
    const char* name;
    Sha256Compression compress;
};

/// Every implementation that this processor can run.
std::vector<Implementation> implementations()
{
    std::vector<Implementation> found = {{"portable", compressPortably}};
    if (x86Compression() != nullptr)
        found.push_back({"x86", x86Compression()});
    if (armCompression() != nullptr)
        found.push_back({"arm", armCompression()});
    return found;
}

TEST(Sha256Compression, OfEveryImplementationGivesTheSame)
{
    std::mt19937 random(13);
    for (const std::size_t length :
         std::initializer_list<std::size_t>{3, 55, 56, 64, 128, 191, 640, 100003}) {
        const std::string content = randomBytes(length, random);
        const std::string expected = systemSha256(content);
        for (const auto& [name, compress] : implementations()) {
            for (const std::size_t offset : std::initializer_list<std::size_t>{0, 1}) {
                const std::string shifted = std::string(offset, 'x') + content;
                Sha256 hash;
                hash.compress = compress;
                hash.feed(shifted.data() + offset, length);
                EXPECT_EQ(hash.finish(), expected) << name << ", " << length << " bytes at " << offset;
            }
        }
    }
}

TEST(Sha256Compression, UsedIsOneThatTheProcessorCanRun)
{
    bool known = false;
    for (const auto& [name, compress] : implementations())
        known = known || compress == fastestCompression();
    EXPECT_TRUE(known);
    EXPECT_EQ(fastestCompression(), implementations().back().compress);
}

/// The digest that a last block of padding alone gives after `length` bytes, written out byte by byte.
std::string paddedAfter(std::uint64_t length)
{
    std::array<unsigned char, 64> last{};
    last[0] = 0x80;
    const std::uint64_t bits = length << 3;
    for (std::size_t i = 0; i < 8; ++i)
        last[63 - i] = static_cast<unsigned char>(bits >> (8 * i));
    Sha256 hash;
    hash.block(last.data());
    std::string digest;
    for (const std::uint32_t word : hash.state) {
        std::array<char, 9> hex{};
        std::snprintf(hex.data(), hex.size(), "%08x", word);
        digest += hex.data();
    }
    return digest;
}

TEST(Sha256Of, VeryLongContentCountsItsLengthIn64Bits)
{
    for (const std::uint64_t length : {std::uint64_t{0}, std::uint64_t{0x1fffffc0}, std::uint64_t{0x20000000},
                                       std::uint64_t{0x100000000}, std::uint64_t{0x1234567890abcdc0}}) {
        Sha256 hash;
        hash.length = length;
        EXPECT_EQ(hash.finish(), paddedAfter(length)) << length;
    }
}

/// The digest of an open file, with the size that was examined.
Ending digestOf(const OwnedFd& file, std::size_t size)
{
    return endingOf([&] { return sha256(file.get(), static_cast<off_t>(size)); });
}

TEST(Sha256OfFile, ReadsFromTheFirstByteAndLeavesTheOffset)
{
    writeFile("/tmp/f", "abc");
    const OwnedFd file(::open("/tmp/f", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::lseek(file.get(), 2, SEEK_SET), 2);
    EXPECT_EQ(digestOf(file, 3), returned(ofAbc));
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 2);
}

TEST(Sha256OfFile, IsThatOfItsContentAtEveryChunkEdge)
{
    std::mt19937 random(3);
    for (const std::size_t length :
         std::initializer_list<std::size_t>{0, 1, 16383, 16384, 16385, 32768, 3000000}) {
        const std::string content = randomBytes(length, random);
        writeFile("/tmp/f", content);
        const OwnedFd file(::open("/tmp/f", O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(digestOf(file, length), returned(systemSha256(content))) << length << " bytes";
    }
}

TEST(Sha256OfFile, OfAnotherSizeThanExaminedIsRefused)
{
    for (const std::size_t length : std::initializer_list<std::size_t>{0, 1, 16383, 16384, 16385}) {
        writeFile("/tmp/f", std::string(length, 'x'));
        const OwnedFd file(::open("/tmp/f", O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(digestOf(file, length + 1), invalid(notHashed));
        EXPECT_EQ(digestOf(file, length + 20000), invalid(notHashed));
        if (length > 0) {
            EXPECT_EQ(digestOf(file, length - 1), invalid(notHashed));
        }
    }
}

TEST(Sha256OfFile, ThatCannotBeReadIsRefusedAndNeverGetsADigest)
{
    writeFile("/tmp/f", "abc");
    const OwnedFd directory(::open("/tmp", O_RDONLY | O_CLOEXEC));
    const OwnedFd writeOnly(::open("/tmp/f", O_WRONLY | O_CLOEXEC));
    const OwnedFd memory(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
    makePipe("/tmp/p");
    const OwnedFd pipe(::open("/tmp/p", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    for (const OwnedFd* file : {&directory, &writeOnly, &memory, &pipe}) {
        ASSERT_TRUE(*file);
        EXPECT_EQ(digestOf(*file, 0), invalid(notHashed));
        EXPECT_EQ(digestOf(*file, 3), invalid(notHashed));
    }
    EXPECT_EQ(digestOf(OwnedFd(), 0), invalid(notHashed));
    EXPECT_EQ(endingOf([&] { return sha256(directory.get(), 0, "another message"); }),
              invalid("another message"));
}

TEST(LowerHexadecimal, HasTwoDigitsForEachByteHighHalfFirst)
{
    const std::array<unsigned char, 5> bytes = {0x00, 0x0f, 0xf0, 0x9a, 0xff};
    EXPECT_EQ(lowerHex(bytes.data(), bytes.size()), "000ff09aff");
    EXPECT_EQ(lowerHex(bytes.data(), 0), "");
}

} // namespace
} // namespace maintenance::rehearsed
