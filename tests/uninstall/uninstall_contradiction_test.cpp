#include "inventory/installed_products.h"
#include "support/run.h"
#include "support/scene.h"
#include "validate/owned_path.h"

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

TEST(Uninstall, OfTheLastProductLeavesNoSharedPackageWhateverItWasOnceTold)
{
    const Plugin alpha = plugin("alpha", "1.0");
    for (const char* lie : {"exit=0 cut=0", "cut=8", "replace=/etc/hostname"})
        for (int nth = 1; nth <= 8; ++nth) {
            removeAll(supportOf("system"));
            install("system", commonPackage());
            install("system", alpha);
            const std::string id = publish(Work("system").brings(alpha, "1.0"), "remove-alpha");
            instructPkgutil("command=--pkgs= nth=" + std::to_string(nth) + " do " + lie + "\n");
            const Outcome first = run({"uninstall-product", "system", id});
            EXPECT_TRUE(first.status == 0 || first.status == 65) << lie << nth << ": " << first;

            instructPkgutil("");
            EXPECT_EQ(run({"uninstall-product", "system", id}), succeeded()) << lie << nth << ": " << first;
            EXPECT_FALSE(isRegistered("system", alpha.vst3.id)) << lie << nth;
            EXPECT_FALSE(isRegistered("system", commonPackage().id)) << lie << nth << ": " << first;
            EXPECT_FALSE(isThere(rootOf("system") / vst3Path("alpha"))) << lie << nth;
        }
}

TEST(Uninstall, ThatIsResumedAndToldOfNoPackageIsNotCompleted)
{
    const std::string id = twoProductsOfWhichOneGoes();
    ASSERT_EQ(run({"prepare-move", "system", id}), succeeded());
    instructPkgutil("command=--pkgs= nth=1 do exit=0 cut=0\n");
    EXPECT_EQ(run({"uninstall-product", "system", id}),
              refused("pkgutil receipt remained registered after forget"));

    instructPkgutil("");
    EXPECT_EQ(run({"uninstall-product", "system", id}), succeeded());
    EXPECT_FALSE(isRegistered("system", plugin("alpha", "1.0").vst3.id));
}

TEST(Uninstall, RecordsNoAnswerThatLeavesOtherProductsOut)
{
    for (int nth = 1; nth <= 9; ++nth) {
        removeAll("/Library/Audio");
        removeAll(supportOf("system"));
        const std::string id = twoProductsOfWhichOneGoes();
        instructPkgutil("command=--pkgs= nth=" + std::to_string(nth) + " do exit=0 cut=0\n");
        const Outcome first = run({"uninstall-product", "system", id});
        EXPECT_TRUE(first.status == 0 || first.status == 65) << nth << ": " << first;
        if (first.status == 0) {
            EXPECT_TRUE(isThere(productRecords("system") / "beta.record")) << nth;
            EXPECT_TRUE(isThere(installedProductsIndex("system"))) << nth;
        }
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

TEST(Uninstall, OfTheLastProductLeavesNoSharedFileWhicheverListingLeavesItOut)
{
    const std::string tool(maintenanceExecutable);
    writeFile("/tmp/shorter", tool + "\n");
    int refusals = 0;
    for (int nth = 1; nth <= 9; ++nth) {
        removeAll("/Library/Audio");
        removeAll(supportOf("system"));
        install("system", commonPackage());
        install("system", plugin("alpha", "1.0"));
        const std::string id = publish(Work("system").brings(plugin("alpha", "1.0"), "1.0"), "remove-alpha");
        instructPkgutil("command=--files id=" + commonPackage().id + " nth=" + std::to_string(nth) +
                        " do replace=/tmp/shorter\n");
        const Outcome first = run({"uninstall-product", "system", id});
        EXPECT_TRUE(first.status == 0 || first.status == 65) << nth << ": " << first;
        refusals += first.status == 65;

        instructPkgutil("");
        EXPECT_EQ(run({"uninstall-product", "system", id}), succeeded()) << nth << ": " << first;
        EXPECT_FALSE(isRegistered("system", commonPackage().id)) << nth;
        for (const auto& [path, content] : commonPackage().files)
            EXPECT_FALSE(isThere(rootOf("system") / path)) << nth << ": " << path;
    }
    EXPECT_GT(refusals, 0);
}

} // namespace
} // namespace maintenance::rehearsed
