#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

TEST(UsageError, OfNoArgumentsIsSilent) { EXPECT_EQ(run({}), usageError()); }

TEST(Inspect, SaysRepairForAnInstalledProductOfTheSameVersion)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", commonPackage());
    install("user", alpha);
    const std::string id = publish(Work("user").brings(alpha, "1.0"), "repair-1");
    const Tree before = takeExactTree();
    EXPECT_EQ(run({"inspect", "user", id}), succeeded("{\"status\":\"repair\"}\n"));
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

} // namespace
} // namespace maintenance::rehearsed
