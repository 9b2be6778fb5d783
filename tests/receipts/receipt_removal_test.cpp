#include "receipts/receipt_removal.h"

#include "fs/trouble.h"
#include "support/ending.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const Ending notForgotten = invalid("pkgutil could not forget the authoritative package receipt");
const Ending stillRegistered = invalid("pkgutil receipt remained registered after forget");
const std::string vst3Id = "com.tamarindpelican.pkg.alpha.vst3";
const std::string auId = "com.tamarindpelican.pkg.alpha.au";

Ending forgetting(const std::string& scope, const std::string& packageId)
{
    return endingOf([&] { removeReceipt(scope, packageId); });
}

TEST(ReceiptRemoval, ForgetsThePackageOnTheScopesVolumeAndLooksAgain)
{
    for (const std::string scope : {"user", "system"}) {
        const Plugin alpha = plugin("alpha", "1.0");
        install(scope, alpha);
        instructPkgutil("do match=prefix\n");
        forgetPkgutilCalls();
        EXPECT_EQ(forgetting(scope, vst3Id), returned());
        const std::string volume = scope == "user" ? "--volume /Users/player " : "--volume / ";
        const std::vector<std::string> calls = {volume + "--forget " + vst3Id,
                                                volume + "--pkgs=^com\\.tamarindpelican\\.pkg\\.",
                                                volume + "--pkg-info " + auId, volume + "--files " + auId};
        EXPECT_EQ(pkgutilCalls(), calls);
        EXPECT_FALSE(isRegistered(scope, vst3Id));
        EXPECT_TRUE(isRegistered(scope, auId));
    }
}

TEST(ReceiptRemoval, TouchesNoInstalledFile)
{
    install("user", plugin("alpha", "1.0"));
    const Tree before = takeExactTree();
    EXPECT_EQ(forgetting("user", vst3Id), returned());
    EXPECT_EQ(changedPaths(before, takeExactTree()),
              std::vector<std::string>{receiptOf("user", vst3Id).native()});
}

TEST(ReceiptRemoval, SettlesEarlierRemovalsBeforeTheReceiptIsGone)
{
    for (const std::string scope : {"user", "system"}) {
        install(scope, plugin("alpha", "1.0"));
        std::vector<std::string> synchronized;
        const auto examine = [&](const SystemCall& call) {
            EXPECT_TRUE(isRegistered(scope, vst3Id));
            synchronized.push_back(openPath(call));
            return 0;
        };
        EXPECT_EQ(during({SYS_fsync}, examine, [&] { removeReceipt(scope, vst3Id); }), returned());
        EXPECT_EQ(synchronized,
                  std::vector<std::string>{scope == "user" ? "/Users/player/Library" : "/Library"});
        EXPECT_FALSE(isRegistered(scope, vst3Id));
    }
}

TEST(ReceiptRemoval, KeepsTheReceiptWhenEarlierRemovalsCannotBeSettled)
{
    install("user", plugin("alpha", "1.0"));
    EXPECT_EQ(failingAt(SYS_fsync, 1, EIO, [] { removeReceipt("user", vst3Id); }),
              runtimeError("cannot synchronize fixed metadata directory"));
    EXPECT_TRUE(isRegistered("user", vst3Id));
}

TEST(ReceiptRemoval, OfTheLastPackageLeavesAnEmptyListing)
{
    for (const std::string scope : {"user", "system"}) {
        install(scope, plugin("alpha", "1.0").vst3);
        EXPECT_EQ(forgetting(scope, vst3Id), returned()) << scope;
        install(scope, plugin("alpha", "1.0").vst3);
        instructPkgutil("do empty-home=0\n");
        EXPECT_EQ(forgetting(scope, vst3Id), returned()) << scope;
    }
}

TEST(ReceiptRemoval, WorksWhenTheFilesAreGone)
{
    install("user", plugin("alpha", "1.0"));
    removeFiles("user", plugin("alpha", "1.0"));
    EXPECT_EQ(forgetting("user", vst3Id), returned());
    removeAll("/Users/player/Library/Audio");
    EXPECT_EQ(forgetting("user", auId), returned());
}

TEST(ReceiptRemoval, IgnoresWhatForgettingPrints)
{
    install("user", plugin("alpha", "1.0"));
    instructPkgutil("command=--forget do stderr=\"slow database\" long-line=1048576\n");
    EXPECT_EQ(forgetting("user", vst3Id), returned());
}

TEST(ReceiptRemoval, OfAPackageThatIsNotRegisteredFailsAndLooksNoFurther)
{
    install("user", plugin("alpha", "1.0").au);
    EXPECT_EQ(forgetting("user", vst3Id), notForgotten);
    EXPECT_EQ(forgetting("system", auId), notForgotten);
    const std::vector<std::string> calls = {"--volume /Users/player --forget " + vst3Id,
                                            "--volume / --forget " + auId};
    EXPECT_EQ(pkgutilCalls(), calls);
}

TEST(ReceiptRemoval, FailsWithEveryStatusButSuccess)
{
    for (const std::string failure : {"exit=1", "exit=2 cut=0", "exit=255", "kill=KILL", "kill-after=KILL"}) {
        install("user", plugin("alpha", "1.0"));
        instructPkgutil("command=--forget do " + failure + "\n");
        forgetPkgutilCalls();
        EXPECT_EQ(forgetting("user", vst3Id), notForgotten) << failure;
        EXPECT_EQ(pkgutilCalls().size(), 1U) << failure;
    }
}

TEST(ReceiptRemoval, ThatChangesNothingIsNoticed)
{
    install("user", plugin("alpha", "1.0"));
    instructPkgutil("command=--forget do forget=no\n");
    EXPECT_EQ(forgetting("user", vst3Id), stillRegistered);
}

TEST(ReceiptRemoval, FailsWhenThePackagesCannotBeListedAfterwards)
{
    install("user", plugin("alpha", "1.0"));
    instructPkgutil("command=--pkgs= do exit=2\n");
    EXPECT_EQ(forgetting("user", vst3Id), invalid("pkgutil cannot enumerate authoritative package receipts"));
    EXPECT_FALSE(isRegistered("user", vst3Id));
}

TEST(ReceiptRemoval, FailsWhenAnotherReceiptIsWrongAlthoughThePackageIsForgotten)
{
    install("user", plugin("alpha", "1.0"));
    registerPackage("user", plugin("beta", "1.0").vst3, "Applications");
    EXPECT_EQ(forgetting("user", vst3Id),
              invalid("pkgutil receipt metadata is outside the fixed install root"));
    EXPECT_FALSE(isRegistered("user", vst3Id));
}

} // namespace
} // namespace maintenance::rehearsed
