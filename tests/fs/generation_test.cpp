#include "fs/generation.h"

#include "support/child.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace maintenance::rehearsed {
namespace {

TEST(Generation, Has64LowerCaseHexadecimalDigits)
{
    for (int i = 0; i < 100; ++i) {
        const std::string made = generation();
        EXPECT_EQ(made.size(), 64u);
        EXPECT_EQ(made.find_first_not_of("0123456789abcdef"), std::string::npos) << made;
    }
}

TEST(Generation, IsAnotherOneEachTimeAndUsesEveryByteValue)
{
    std::set<std::string> made;
    std::set<std::string> bytes;
    for (int i = 0; i < 1000; ++i) {
        const std::string text = generation();
        made.insert(text);
        for (std::size_t at = 0; at < text.size(); at += 2)
            bytes.insert(text.substr(at, 2));
    }
    EXPECT_EQ(made.size(), 1000u);
    EXPECT_EQ(bytes.size(), 256u);
}

TEST(Generation, IsRefusedWhenTheSecureSourceFails)
{
    EXPECT_EQ(failing(SYS_getrandom, 1, ENOSYS, [] { return generation(); }),
              runtimeError("cannot create a durable transaction generation"));
}

} // namespace
} // namespace maintenance::rehearsed
