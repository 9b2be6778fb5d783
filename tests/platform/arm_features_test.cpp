#include "platform/arm_features.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace maintenance::rehearsed {
namespace {

/// What the kernel says of the first processor; other processors than ARM ones have no such line.
bool kernelNamesSha2()
{
    std::ifstream processors("/proc/cpuinfo");
    for (std::string line; std::getline(processors, line);) {
        std::istringstream words(line);
        std::string word;
        if (!(words >> word) || word != "Features")
            continue;
        while (words >> word)
            if (word == "sha2")
                return true;
    }
    return false;
}

TEST(ArmFeatures, AreThoseThatTheKernelNames) { EXPECT_EQ(armHasSha256(), kernelNamesSha2()); }

} // namespace
} // namespace maintenance::rehearsed
