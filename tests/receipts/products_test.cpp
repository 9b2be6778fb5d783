#include "receipts/products.h"

#include "support/child.h"
#include "support/scene.h"

#include <gtest/gtest.h>
#include <limits>

namespace maintenance::rehearsed {
namespace {

const std::string prefix = "com.tamarindpelican.pkg.";
const Outcome clean = succeeded("{\"status\":\"clean\"}\n");
const Outcome repair = succeeded("{\"status\":\"repair\"}\n");
const Outcome inconsistent = refused("product native receipts are incomplete or inconsistent");
const Outcome commonDowngrade =
    refused("installed common package revision is newer; common downgrade is refused");

Outcome inspectAlpha(const std::string& scope = "user")
{
    publish(Work(scope).brings(plugin("alpha", "1.0"), "1.0"), "inspect-alpha");
    return run({"inspect", scope, "inspect-alpha"});
}

/// Prepares a repair of alpha in `target` that brings the shared package at `incoming`.
Outcome prepareAlpha(const std::string& incoming, const std::string& target = "user",
                     const std::string& source = "none")
{
    publish(Work(target).from(source).with(commonPackage(incoming)).brings(plugin("alpha", "1.0"), "-"),
            "prepare-alpha");
    return run({"prepare-move", target, "prepare-alpha"});
}

/// Alpha's two packages, each at a version of its own.
void installAlpha(const std::string& vst3Version, const std::string& auVersion)
{
    Plugin alpha = plugin("alpha", "1.0");
    alpha.vst3.version = vst3Version;
    alpha.au.version = auVersion;
    install("user", alpha);
}

/// Which of two versions is newer, as ">", "<" or "=".
std::string order(const std::string& one, const std::string& other)
{
    if (version(one) == version(other))
        return "=";
    return version(one) > version(other) ? ">" : "<";
}

TEST(ProductFromPackage, IsWhatStandsBetweenPrefixAndLastDot)
{
    EXPECT_EQ(productFromPackage(prefix + "alpha.vst3"), "alpha");
    EXPECT_EQ(productFromPackage(prefix + "alpha.au"), "alpha");
    EXPECT_EQ(productFromPackage(prefix + "a.b.au"), "a.b");
    EXPECT_EQ(productFromPackage(prefix + "alpha."), "alpha");
    EXPECT_EQ(productFromPackage(prefix + "common.vst3"), "common");
    EXPECT_EQ(productFromPackage(prefix + "commons.vst3"), "commons");
}

TEST(ProductFromPackage, IsEmptyForTheSharedPackageAndForOddNames)
{
    for (const char* rest : {"common", "tools", "", ".vst3", "."})
        EXPECT_EQ(productFromPackage(prefix + rest), "") << rest;
}

TEST(ProductFromPackage, RefusesAPackageOfAnotherMaker)
{
    for (const std::string id :
         {"", "com", "com.tamarindpelican.pkg", "com.example.alpha.vst3", "com.tamarindpelican.pkgs.alpha.au",
          "org.com.tamarindpelican.pkg.alpha.au", "Com.tamarindpelican.pkg.alpha.au"})
        EXPECT_EQ(endingOf([&] { return productFromPackage(id); }),
                  invalid("native receipt package identity is invalid"))
            << id;
}

TEST(InstalledProducts, AreThePairsOfPackagesOfOneVersion)
{
    for (const std::string scope : {"user", "system"}) {
        install(scope, commonPackage());
        install(scope, plugin("beta", "2.0"));
        install(scope, plugin("alpha", "1.0"));
        install(scope, plugin("common", "3.0"));
        const InstalledProducts expected = {{"alpha", "1.0"}, {"beta", "2.0"}, {"common", "3.0"}};
        EXPECT_EQ(receiptProducts(scope), expected) << scope;
    }
}

TEST(InstalledProducts, AreNoneWithTheSharedPackageAlone)
{
    install("user", commonPackage());
    EXPECT_TRUE(receiptProducts("user").empty());
    EXPECT_EQ(inspectAlpha(), clean);
}

TEST(InstalledProducts, WithOnePackageAreIncomplete)
{
    const Plugin alpha = plugin("alpha", "1.0");
    for (const Package* package : {&alpha.vst3, &alpha.au}) {
        install("user", *package);
        EXPECT_EQ(inspectAlpha(), inconsistent);
        unregister("user", package->id);
    }
}

TEST(InstalledProducts, OfTwoVersionTextsAreInconsistentAlsoWhenTheyAreEqualVersions)
{
    const std::vector<std::pair<std::string, std::string>> pairs = {
        {"1.0", "1.0.0"}, {"1.0.0", "1.0"}, {"1", "1.0"}, {"1.0", "1.1"}};
    for (const auto& [vst3, au] : pairs) {
        installAlpha(vst3, au);
        EXPECT_EQ(inspectAlpha(), inconsistent) << vst3 << " " << au;
    }
}

TEST(InstalledProducts, ThatAreIncompleteStopTheWorkOnEveryOtherProduct)
{
    install("user", plugin("alpha", "1.0"));
    install("user", plugin("beta", "1.0").au);
    EXPECT_EQ(inspectAlpha(), inconsistent);
    install("user", plugin("beta", "1.0").vst3);
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(InstalledProducts, ThatAreIncompleteInTheOppositeScopeStopTheWorkToo)
{
    install("user", plugin("alpha", "1.0"));
    install("system", plugin("beta", "1.0").au);
    EXPECT_EQ(inspectAlpha(), inconsistent);
}

TEST(InstalledProducts, MayHaveHyphensAndDigitsAndAnyLengthThatAnIdentifierMayHave)
{
    const std::string longest(128, 'p');
    for (const std::string& id : {std::string("a"), std::string("4-track"), std::string("x--y"), longest})
        install("user", plugin(id, "1.0"));
    const InstalledProducts products = receiptProducts("user");
    EXPECT_EQ(products.size(), 4U);
    EXPECT_EQ(products.at(longest), "1.0");
}

TEST(InstalledProducts, OfAScopeAreReadOnceForSeveralQuestions)
{
    install("user", plugin("alpha", "1.0"));
    ProductLookup lookup;
    EXPECT_EQ(installed(lookup, "user", "alpha"), "1.0");
    const std::size_t calls = pkgutilCalls().size();
    EXPECT_EQ(installed(lookup, "user", "beta"), std::nullopt);
    EXPECT_EQ(installed(lookup, "user", "alpha"), "1.0");
    EXPECT_EQ(pkgutilCalls().size(), calls);
    EXPECT_EQ(installed(lookup, "system", "alpha"), std::nullopt);
    EXPECT_GT(pkgutilCalls().size(), calls);
}

TEST(VersionOrder, ComparesComponentByComponentAsNumbers)
{
    EXPECT_EQ(order("1.2", "1.2.0.0"), "=");
    EXPECT_EQ(order("1", "1.0.0.0"), "=");
    EXPECT_EQ(order("0", "0.0"), "=");
    EXPECT_EQ(order("1.10", "1.9"), ">");
    EXPECT_EQ(order("2", "1.99.99.99"), ">");
    EXPECT_EQ(order("1.0.0.1", "1"), ">");
    EXPECT_EQ(order("1.2.3.4", "1.2.3.5"), "<");
    EXPECT_EQ(order("1.2.4", "1.2.3.9"), ">");
    EXPECT_EQ(order("9", "10"), "<");
}

TEST(VersionOrder, HasFourComponentsOfSixtyFourBits)
{
    const std::string most = std::to_string(std::numeric_limits<std::uint64_t>::max());
    const Version expected = {1, 0, std::numeric_limits<std::uint64_t>::max(), 7};
    EXPECT_EQ(version("1.0." + most + ".7"), expected);
    EXPECT_EQ(order(most, "18446744073709551614"), ">");
    EXPECT_THROW(version("18446744073709551616"), std::out_of_range);
    EXPECT_THROW(version("1." + std::string(1000, '9')), std::out_of_range);
}

TEST(VersionOrder, BeyondSixtyFourBitsEndsARunWithAnInternalError)
{
    installAlpha("18446744073709551616", "18446744073709551616");
    const Tree before = takeExactTree();
    const Outcome outcome = inspectAlpha();
    EXPECT_EQ(outcome.status, 70);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1);
}

TEST(VersionOrder, OfAMillionDigitsEndsARunWithAnInternalError)
{
    const std::string digits(1000000, '1');
    installAlpha(digits, digits);
    EXPECT_EQ(inspectAlpha().status, 70);
}

TEST(CommonDowngrade, IsRefusedInTheTargetScope)
{
    install("user", plugin("alpha", "1.0"));
    for (const std::string newer : {"8", "7.0.0.1", "7.1", "10", "70"}) {
        install("user", commonPackage(newer));
        prepareAlpha("7");
        const Tree before = takeExactTree();
        EXPECT_EQ(run({"prepare-move", "user", "prepare-alpha"}), commonDowngrade) << newer;
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(CommonDowngrade, IsRefusedInTheSourceScopeToo)
{
    install("system", commonPackage("8"));
    install("system", plugin("alpha", "1.0"));
    EXPECT_EQ(prepareAlpha("7", "user", "system"), commonDowngrade);
    EXPECT_FALSE(isThere(leaseOf("user")));
    EXPECT_FALSE(isThere(leaseOf("system")));
}

TEST(CommonDowngrade, IsNoneWhenTheInstalledPackageIsEqualOlderOrMissing)
{
    install("user", plugin("alpha", "1.0"));
    for (const std::string fine : {"7", "7.0.0.0", "6.99", "6", "0"}) {
        install("user", commonPackage(fine));
        EXPECT_EQ(prepareAlpha("7"), succeeded()) << fine;
        EXPECT_EQ(run({"rollback-move", "user", "prepare-alpha"}), succeeded());
        removeAll(completedOf("user", "prepare-alpha"));
    }
    unregister("user", commonPackage().id);
    EXPECT_EQ(prepareAlpha("7"), succeeded());
}

TEST(CommonDowngrade, ComparesVersionsByTheirNumbers)
{
    install("user", commonPackage("2.0.0.0"));
    EXPECT_EQ(endingOf([] { rejectCommonDowngrade("user", "2.0"); }), returned());
    install("user", commonPackage("1.10"));
    EXPECT_EQ(endingOf([] { rejectCommonDowngrade("user", "1.9"); }),
              invalid("installed common package revision is newer; common downgrade is refused"));
    EXPECT_EQ(endingOf([] { rejectCommonDowngrade("user", "1.11"); }), returned());
}

TEST(CommonDowngrade, IsJudgedFromAVerifiedInventory)
{
    install("user", plugin("alpha", "1.0"));
    install("user", commonPackage("6"));
    removeFiles("user", commonPackage("6"));
    EXPECT_EQ(prepareAlpha("7"), refused("pkgutil receipt-owned file is missing"));
}

TEST(DuplicateCheck, OfTheUserScopeIsLeftOutWhenNobodyIsAtTheConsole)
{
    install("user", plugin("alpha", "1.0"));
    EXPECT_EQ(inspectAlpha("system"), refused("product exists in the opposite scope"));
    setNobodyAtConsole();
    EXPECT_EQ(inspectAlpha("system"), clean);
    removeLoginManager();
    EXPECT_EQ(inspectAlpha("system"), clean);
    setConsole(0);
    EXPECT_EQ(inspectAlpha("system"), clean);
}

TEST(DuplicateCheck, OfTheUserScopeIsLeftOutWhenTheHomeIsNoDirectory)
{
    publish(Work("system").brings(plugin("alpha", "1.0"), "1.0"), "inspect-alpha");
    std::filesystem::rename("/Users/player", "/Users/moved");
    EXPECT_FALSE(scopeAvailableForDuplicateCheck("user"));
    EXPECT_EQ(inspectAlpha("system"), clean);
    makeLink("/Users/player", "/Users/moved");
    EXPECT_FALSE(scopeAvailableForDuplicateCheck("user"));
    EXPECT_EQ(inspectAlpha("system"), clean);
    removeAll("/Users/player");
    writeFile("/Users/player", "", {playerUid, 0644});
    EXPECT_FALSE(scopeAvailableForDuplicateCheck("user"));
    EXPECT_EQ(inspectAlpha("system"), clean);
    for (const std::string& call : pkgutilCalls())
        EXPECT_EQ(call.find("/Users"), std::string::npos) << call;
}

TEST(DuplicateCheck, OfTheSystemScopeIsAlwaysPossible)
{
    EXPECT_TRUE(scopeAvailableForDuplicateCheck("system"));
    EXPECT_TRUE(scopeAvailableForDuplicateCheck("user"));
    setNobodyAtConsole();
    EXPECT_TRUE(scopeAvailableForDuplicateCheck("system"));
    EXPECT_FALSE(scopeAvailableForDuplicateCheck("user"));
}

} // namespace
} // namespace maintenance::rehearsed
