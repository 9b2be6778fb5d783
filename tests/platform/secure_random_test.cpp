#include "platform/secure_random.h"

#include "fs/generation.h"
#include "support/child.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <vector>

namespace maintenance::rehearsed {
namespace {

using Bytes = std::vector<unsigned char>;

TEST(SecureRandom, FillsWhatItIsGivenAndNothingBeyond)
{
    for (const std::size_t size : {0u, 1u, 31u, 32u, 256u, 257u, 100000u}) {
        Bytes buffer(size + 16, 0xaa);
        ASSERT_TRUE(fillWithSecureRandom(buffer.data() + 8, size));
        const auto guard = [&](std::size_t start) {
            return std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(start),
                               buffer.begin() + static_cast<std::ptrdiff_t>(start + 8),
                               [](unsigned char byte) { return byte == 0xaa; });
        };
        EXPECT_TRUE(guard(0)) << size;
        EXPECT_TRUE(guard(size + 8)) << size;
        // No run of 32 bytes is left as it was.
        for (std::size_t at = 8; at + 32 <= size + 8; at += 32)
            EXPECT_FALSE(std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(at),
                                     buffer.begin() + static_cast<std::ptrdiff_t>(at + 32),
                                     [](unsigned char byte) { return byte == 0xaa; }))
                << at;
    }
}

TEST(SecureRandom, NeverRepeatsItself)
{
    std::array<unsigned char, 32> one{};
    std::array<unsigned char, 32> other{};
    ASSERT_TRUE(fillWithSecureRandom(one.data(), one.size()));
    ASSERT_TRUE(fillWithSecureRandom(other.data(), other.size()));
    EXPECT_NE(one, other);
}

TEST(SecureRandom, DiffersBetweenAProcessAndItsChildren)
{
    const std::string own = generation();
    const Ending first = asAccount(rootUid, [] { return generation(); });
    const Ending second = asAccount(rootUid, [] { return generation(); });
    EXPECT_NE(first, second);
    EXPECT_NE(first, returned(own));
    EXPECT_EQ(first.text.size(), 64u);
}

TEST(SecureRandom, ThatFailsSaysSo)
{
    for (const int error : {ENOSYS, EAGAIN, EINTR, EIO}) {
        EXPECT_EQ(failing(SYS_getrandom, 1, error,
                          [] {
                              Bytes buffer(32);
                              return fillWithSecureRandom(buffer.data(), buffer.size()) ? "filled" : "failed";
                          }),
                  returned("failed"));
        EXPECT_EQ(failing(SYS_getrandom, 1, error, [] { return generation(); }),
                  runtimeError("cannot create a durable transaction generation"));
    }
}

TEST(SecureRandom, OfAGenerationIsAskedForAllItsBytesAndWaitsUntilItIsSeeded)
{
    std::vector<std::string> asked;
    const auto examine = [&](const SystemCall& call) {
        asked.push_back(std::to_string(call.arguments[1]) + " " + std::to_string(call.arguments[2]));
        return 0;
    };
    EXPECT_EQ(stopping({SYS_getrandom}, examine, [] { return std::to_string(generation().size()); }),
              returned("64"));
    EXPECT_EQ(asked, std::vector<std::string>{"32 0"});
}

} // namespace
} // namespace maintenance::rehearsed
