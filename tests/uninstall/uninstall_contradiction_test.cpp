#include "support/run.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

/// Two products of the system scope, of which alpha is to go.
std::string twoProductsOfWhichOneGoes()
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("system", commonPackage());
    install("system", alpha);
    install("system", plugin("beta", "1.0"));
    return publish(Work("system").brings(alpha, "1.0"), "remove-alpha");
}

TEST(Uninstall, ThatWasOnceToldOfNoPackageAtAllCanBeRunAgain)
{
    // An uninstallation asks for fewer listings than that.
    for (int silent = 1; silent <= 7; ++silent) {
        removeAll("/Library/Audio");
        removeAll(supportOf("system"));
        const std::string id = twoProductsOfWhichOneGoes();
        instructPkgutil("command=--pkgs= nth=" + std::to_string(silent) + " do exit=0 cut=0\n");
        const Outcome first = run({"uninstall-product", "system", id});
        EXPECT_TRUE(first.status == 0 || first.status == 65) << silent << ": " << first;
        EXPECT_TRUE(isThere(rootOf("system") / vst3Path("beta"))) << silent;
        EXPECT_TRUE(isRegistered("system", commonPackage().id)) << silent;

        instructPkgutil("");
        EXPECT_EQ(run({"uninstall-product", "system", id}), succeeded()) << silent << ": " << first;
        EXPECT_FALSE(isThere(rootOf("system") / vst3Path("alpha"))) << silent;
        EXPECT_FALSE(isRegistered("system", plugin("alpha", "1.0").vst3.id)) << silent;
        EXPECT_TRUE(isThere(rootOf("system") / vst3Path("beta"))) << silent;
        EXPECT_TRUE(isRegistered("system", commonPackage().id)) << silent;
    }
}

TEST(Uninstall, ThatWasOnceToldHalfOfTheSharedPackageCanBeRunAgain)
{
    for (int cut = 1; cut <= 9; ++cut) {
        removeAll("/Library/Audio");
        removeAll(supportOf("system"));
        const std::string id = twoProductsOfWhichOneGoes();
        instructPkgutil("command=--files id=" + commonPackage().id + " nth=" + std::to_string(cut) +
                        " do cut=160\n");
        const Outcome first = run({"uninstall-product", "system", id});
        EXPECT_TRUE(first.status == 0 || first.status == 65) << cut << ": " << first;

        instructPkgutil("");
        EXPECT_EQ(run({"uninstall-product", "system", id}), succeeded()) << cut << ": " << first;
        EXPECT_FALSE(isRegistered("system", plugin("alpha", "1.0").vst3.id)) << cut;
        EXPECT_TRUE(isRegistered("system", commonPackage().id)) << cut;
    }
}

} // namespace
} // namespace maintenance::rehearsed
