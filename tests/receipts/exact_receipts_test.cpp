#include "receipts/exact_receipts.h"

#include "receipts/package_contents.h"
#include "support/ending.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const Ending inconsistent = invalid("maintenance descriptor package inventory is inconsistent");
const Ending wrongVersion = invalid("exact native package receipt is missing or has the wrong version");
const Ending notExact = invalid("native package receipt inventory is not exact");

/// Alpha and the shared package as a descriptor names them.
Descriptor described(const std::string& scope = "user", const Plugin& alpha = plugin("alpha", "1.0"))
{
    return parseDescriptorText(Work(scope).brings(alpha, "1.0").text(), scope, "exact");
}

void installEverything(const std::string& scope = "user")
{
    install(scope, commonPackage());
    install(scope, plugin("alpha", "1.0"));
}

Ending requiring(const Descriptor& descriptor, bool includeCommon = true)
{
    return endingOf([&] { requireExactReceipts(descriptor, includeCommon); });
}

/// Uninstalls alpha by a descriptor that is valid in itself.
Outcome uninstallAlpha(const std::string& scope = "user")
{
    publish(Work(scope).brings(plugin("alpha", "1.0"), "1.0"), "remove-alpha");
    writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
    return run({"uninstall-product", scope, "remove-alpha"});
}

/// Expects both the check and an uninstallation to refuse, and the disk to stay as it is.
void expectRefused(const Ending& refusal)
{
    EXPECT_EQ(requiring(described()), refusal);
    publish(Work("user").brings(plugin("alpha", "1.0"), "1.0"), "remove-alpha");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    const Tree before = takeTree();
    EXPECT_EQ(uninstallAlpha(), refused(refusal.text));
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(ExactReceipts, AreThoseThatTheDescriptorLists)
{
    for (const std::string scope : {"user", "system"}) {
        installEverything(scope);
        EXPECT_EQ(requiring(described(scope)), returned()) << scope;
        EXPECT_EQ(requiring(described(scope), false), returned()) << scope;
    }
}

TEST(ExactReceipts, AreLookedUpInTheTargetScope)
{
    installEverything("system");
    EXPECT_EQ(requiring(described("user")), wrongVersion);
}

TEST(ExactReceipts, DoNotDependOnTheOrderOfTheListing)
{
    installEverything();
    const Package vst3 = plugin("alpha", "1.0").vst3;
    std::vector<std::string> paths;
    for (const auto& [path, content] : vst3.files)
        paths.insert(paths.begin(), path);
    writeReceipt("user", vst3.id, "1.0", paths);
    EXPECT_EQ(requiring(described()), returned());
}

TEST(ExactReceipts, LeaveOtherPackagesUnexamined)
{
    installEverything();
    install("user", plugin("beta", "3.0"));
    EXPECT_EQ(requiring(described()), returned());
}

TEST(ExactReceipts, DoNotNeedTheSharedPackageWhenItIsLeftOut)
{
    install("user", plugin("alpha", "1.0"));
    EXPECT_EQ(requiring(described(), false), returned());
    EXPECT_EQ(requiring(described(), true), wrongVersion);
    install("user", commonPackage("8"));
    EXPECT_EQ(requiring(described(), false), returned());
    EXPECT_EQ(requiring(described(), true), wrongVersion);
    Package changed = commonPackage();
    changed.files.begin()->second += "changed";
    install("user", changed);
    EXPECT_EQ(requiring(described(), false), returned());
    EXPECT_EQ(requiring(described(), true), notExact);
}

TEST(ExactReceipts, OfADescriptorOfTheSharedPackageAlonePassWithoutIt)
{
    const Descriptor alone = parseDescriptorText(Work("user").text(), "user", "exact");
    EXPECT_EQ(requiring(alone, false), returned());
    EXPECT_EQ(requiring(alone, true), wrongVersion);
}

TEST(ExactReceipts, OfADescriptorWithoutFilesPass)
{
    Descriptor empty = described();
    empty.files.clear();
    EXPECT_EQ(requiring(empty), returned());
}

TEST(ExactReceipts, AreNotThereWithoutTheReceipt)
{
    installEverything();
    unregister("user", plugin("alpha", "1.0").au.id);
    EXPECT_EQ(requiring(described()), wrongVersion);
    unregister("user", plugin("alpha", "1.0").vst3.id);
    EXPECT_EQ(requiring(described()), wrongVersion);
}

TEST(ExactReceipts, HaveTheVersionByteForByte)
{
    Plugin alpha = plugin("alpha", "1.0");
    for (const std::string other : {"1.0.0", "1", "1.1", "2.0"}) {
        alpha.vst3.version = alpha.au.version = other;
        install("user", commonPackage());
        install("user", alpha);
        EXPECT_EQ(requiring(described()), wrongVersion) << other;
    }
}

TEST(ExactReceipts, HaveTheContentThatTheDescriptorLists)
{
    installEverything();
    writeFile(rootOf("user") / vst3Path("alpha"), "changed", {playerUid, 0644});
    expectRefused(notExact);
}

TEST(ExactReceipts, HaveNoFileMore)
{
    installEverything();
    install("user", plugin("alpha", "1.0").withAuFile("Contents/extra", "extra").au);
    expectRefused(notExact);
}

TEST(ExactReceipts, HaveNoFileLess)
{
    installEverything();
    Package vst3 = plugin("alpha", "1.0").vst3;
    vst3.files.erase(vst3.files.begin());
    registerPackage("user", vst3);
    expectRefused(notExact);
}

TEST(ExactReceipts, HaveTheFilesInTheirOwnPackage)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installEverything();
    writeReceipt("user", alpha.vst3.id, "1.0", {auPath("alpha")});
    writeReceipt("user", alpha.au.id, "1.0", {vst3Path("alpha")});
    expectRefused(notExact);
}

TEST(ExactReceipts, AreComparedInAscendingOrderOfPackages)
{
    installEverything();
    const Plugin alpha = plugin("alpha", "1.0");
    writeFile(rootOf("user") / auPath("alpha"), "changed", {playerUid, 0644});
    unregister("user", alpha.vst3.id);
    EXPECT_EQ(requiring(described()), notExact);
    placeFiles("user", alpha);
    EXPECT_EQ(requiring(described()), wrongVersion);
}

TEST(ExactReceipts, MayListAPathTwice)
{
    installEverything();
    const Package vst3 = plugin("alpha", "1.0").vst3;
    std::vector<std::string> paths;
    for (const auto& [path, content] : vst3.files)
        paths.insert(paths.end(), {path, path});
    writeReceipt("user", vst3.id, "1.0", paths);
    EXPECT_EQ(requiring(described()), returned());
}

TEST(ExactReceipts, AreNotReadFromAnInconsistentDescriptor)
{
    installEverything();
    Descriptor twoVersions = described();
    twoVersions.files.at(1).version = "1.0.0";
    EXPECT_EQ(requiring(twoVersions), inconsistent);
    Descriptor twicePath = described();
    twicePath.files.push_back(twicePath.files.front());
    EXPECT_EQ(requiring(twicePath), inconsistent);
    EXPECT_EQ(requiring(twicePath, false), inconsistent);
}

TEST(ExactReceipts, PassTheErrorsOfTheInventoryOn)
{
    installEverything();
    removeAll(rootOf("user") / vst3Path("alpha"));
    EXPECT_EQ(requiring(described()), invalid("pkgutil receipt-owned file is missing"));
    instructPkgutil("do exit=2\n");
    EXPECT_EQ(requiring(described()), invalid("pkgutil cannot enumerate authoritative package receipts"));
}

TEST(ExactReceipts, AreReadOnce)
{
    installEverything();
    instructPkgutil("do match=prefix\n");
    EXPECT_EQ(requiring(described()), returned());
    EXPECT_EQ(pkgutilCalls().size(), 7U);
}

TEST(PackageContents, GroupTheFilesOfADescriptorByPackage)
{
    const PackageContents contents = packageContents(described());
    ASSERT_EQ(contents.size(), 3U);
    const Plugin alpha = plugin("alpha", "1.0");
    const Package common = commonPackage();
    for (const Package* package : {&alpha.au, &alpha.vst3, &common}) {
        const PackageContent& content = contents.at(package->id);
        EXPECT_EQ(content.version, package->version);
        ASSERT_EQ(content.files.size(), package->files.size());
        for (const auto& [path, bytes] : package->files)
            EXPECT_EQ(content.files.at(path), systemSha256(bytes)) << path;
    }
}

TEST(PackageContents, NameTheAffectedPackagesAndThoseOfTheProducts)
{
    const std::string prefix = "com.tamarindpelican.pkg.";
    const std::set<std::string> products = {prefix + "alpha.au", prefix + "alpha.vst3"};
    EXPECT_EQ(productPackages(described()), products);
    std::set<std::string> affected = products;
    affected.insert(prefix + "common");
    EXPECT_EQ(affectedPackages(described()), affected);
}

} // namespace
} // namespace maintenance::rehearsed
