#include "support/run.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

TEST(Umask, ThatTakesTheOwnersOwnRightsIsNotFollowed)
{
    for (const std::string scope : {"user", "system"}) {
        Surroundings surroundings;
        surroundings.umask = 0777;
        surroundings.tool = placeTool(scope, planText({plugin("alpha", "1.0")}));
        EXPECT_EQ(run({"begin-install", scope}, surroundings).status, 0);
        const std::string owner = std::to_string(ownerOf(scope));
        EXPECT_EQ(describe(maintenanceOf(scope)), "dir " + owner + " 0700");
        EXPECT_EQ(describe(inboxOf(scope)), "dir " + owner + " 0700");
        EXPECT_EQ(describe(lockOf(scope)), metadataFileOf(scope));
        EXPECT_EQ(run({"begin-install", scope}, surroundings).status, 0);
    }
}

} // namespace
} // namespace maintenance::rehearsed
