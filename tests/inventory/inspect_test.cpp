#include "inventory/inspect.h"

#include "support/child.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const Outcome clean = succeeded("{\"status\":\"clean\"}\n");
const Outcome upgrade = succeeded("{\"status\":\"upgrade\"}\n");
const Outcome repair = succeeded("{\"status\":\"repair\"}\n");
const Outcome moveRequired = succeeded("{\"status\":\"move-required\"}\n");
const Outcome downgrade = refused("target-side downgrade is refused");
const Outcome duplicate = refused("product exists in the opposite scope");
const Outcome collision = refused("manual installation collision requires adopt or replace");

/// Publishes the work, inspects it and expects nothing on disk to change.
Outcome inspecting(const Work& work, const Surroundings& surroundings = {})
{
    publish(work, "look");
    const Tree before = takeExactTree();
    const Outcome outcome = run({"inspect", work.target(), "look"}, surroundings);
    EXPECT_EQ(difference(before, takeExactTree()), "");
    return outcome;
}

/// Installs the product in one scope only.
void installOnlyIn(const std::string& scope, const Plugin& product)
{
    for (const std::string other : {"user", "system"}) {
        removeFiles(other, product);
        unregister(other, product.vst3.id);
        unregister(other, product.au.id);
    }
    if (!scope.empty())
        install(scope, product);
}

/// Alpha at a version, whatever was recorded as installed.
Work bringing(const std::string& scope, const std::string& version)
{
    return Work(scope).brings(plugin("alpha", version), "-");
}

class InspectInScope : public ::testing::TestWithParam<const char*> {
protected:
    const std::string scope = GetParam();
    const std::string opposite = oppositeOf(scope);
};

INSTANTIATE_TEST_SUITE_P(Both, InspectInScope, ::testing::Values("user", "system"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST_P(InspectInScope, SaysCleanWhenNothingIsInstalled)
{
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), clean);
}

TEST_P(InspectInScope, SaysCleanWithoutProductsAndAsksForNoReceipt)
{
    install(scope, commonPackage("99"));
    EXPECT_EQ(inspecting(Work(scope)), clean);
    EXPECT_TRUE(pkgutilCalls().empty());
}

TEST_P(InspectInScope, SaysCleanBesideOtherProducts)
{
    install(scope, commonPackage());
    install(scope, plugin("beta", "9.0"));
    install(opposite, plugin("gamma", "9.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), clean);
}

TEST_P(InspectInScope, SaysRepairForTheSameVersion)
{
    install(scope, plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), repair);
}

TEST_P(InspectInScope, SaysRepairForAnEqualVersionThatIsWrittenOtherwise)
{
    install(scope, plugin("alpha", "1.0.0.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1")), repair);
}

TEST_P(InspectInScope, SaysRepairWhateverTheContentOfTheInstalledFiles)
{
    install(scope, plugin("alpha", "1.0"));
    writeFile(rootOf(scope) / vst3Path("alpha"), "changed", {ownerOf(scope), 0644});
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), repair);
}

TEST_P(InspectInScope, SaysUpgradeForAnOlderVersion)
{
    for (const std::string older : {"0.9", "1.9", "1.10", "1.10.0.9"}) {
        install(scope, plugin("alpha", older));
        EXPECT_EQ(inspecting(bringing(scope, "1.10.1")), upgrade) << older;
    }
}

TEST_P(InspectInScope, RefusesADowngrade)
{
    for (const std::string newer : {"1.10", "2", "1.9.0.1"}) {
        install(scope, plugin("alpha", newer));
        EXPECT_EQ(inspecting(bringing(scope, "1.9")), downgrade) << newer;
    }
}

TEST_P(InspectInScope, SaysMoveRequiredForAProductOfTheSourceScope)
{
    for (const std::string version : {"0.5", "1.0", "7.0"}) {
        installOnlyIn(opposite, plugin("alpha", version));
        EXPECT_EQ(inspecting(bringing(scope, "1.0").from(opposite)), moveRequired) << version;
    }
}

TEST_P(InspectInScope, RefusesAProductOfTheOppositeScopeThatIsNotMovedFromThere)
{
    install(opposite, plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), duplicate);
    install(scope, plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), duplicate);
}

TEST_P(InspectInScope, SaysCleanForASourceScopeThatDoesNotHaveTheProduct)
{
    EXPECT_EQ(inspecting(bringing(scope, "1.0").from(opposite)), clean);
}

TEST_P(InspectInScope, SaysRepairOrUpgradeRatherThanMoveRequired)
{
    install(scope, plugin("alpha", "1.0"));
    install(opposite, plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0").from(opposite)), repair);
    EXPECT_EQ(inspecting(bringing(scope, "1.1").from(opposite)), upgrade);
}

TEST_P(InspectInScope, SaysUpgradeForSeveralProductsAsSoonAsOneNeedsIt)
{
    install(scope, plugin("alpha", "1.0"));
    install(scope, plugin("beta", "1.0"));
    install(opposite, plugin("delta", "1.0"));
    Work work = Work(scope).from(opposite).brings(plugin("alpha", "1.0"), "-");
    EXPECT_EQ(inspecting(work), repair);
    EXPECT_EQ(inspecting(work.brings(plugin("delta", "1.0"), "-")), repair);
    EXPECT_EQ(inspecting(work.brings(plugin("beta", "2.0"), "-")), upgrade);
    EXPECT_EQ(inspecting(work.brings(plugin("zeta", "1.0"), "-")), upgrade);
}

TEST_P(InspectInScope, SaysMoveRequiredForSeveralProductsAsSoonAsOneIsInTheSourceScope)
{
    install(opposite, plugin("beta", "1.0"));
    Work work = bringing(scope, "1.0").from(opposite);
    EXPECT_EQ(inspecting(work), clean);
    EXPECT_EQ(inspecting(work.brings(plugin("beta", "1.0"), "-")), moveRequired);
}

TEST_P(InspectInScope, EndsAtTheFirstProductThatFails)
{
    install(scope, plugin("alpha", "2.0"));
    install(opposite, plugin("beta", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0").brings(plugin("beta", "1.0"), "-")), downgrade);
    EXPECT_EQ(inspecting(Work(scope).brings(plugin("beta", "1.0"), "-").brings(plugin("alpha", "1.0"), "-")),
              duplicate);
    install(scope, plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0").brings(plugin("beta", "1.0"), "-")), duplicate);
}

TEST_P(InspectInScope, JudgesADowngradeBeforeADuplicate)
{
    install(scope, plugin("alpha", "2.0"));
    install(opposite, plugin("alpha", "2.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), downgrade);
}

TEST_P(InspectInScope, RefusesFilesThatNoPackageInstalled)
{
    for (const std::string& path : plugin("alpha", "1.0").paths()) {
        writeFile(rootOf(scope) / path, "by hand", {ownerOf(scope), 0644});
        EXPECT_EQ(inspecting(bringing(scope, "1.0")), collision) << path;
        removeAll(rootOf(scope) / path);
    }
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), clean);
}

TEST_P(InspectInScope, RefusesWhateverStandsInTheWayWithoutAPackage)
{
    const std::filesystem::path place = rootOf(scope) / vst3Path("alpha");
    makeDirectories(place.parent_path(), {ownerOf(scope), 0755});
    writeFile(rootOf(scope) / "Library/elsewhere", "x", {ownerOf(scope), 0644});
    const std::vector<std::function<void()>> plants = {
        [&] { makeLink(place, "/nowhere"); }, [&] { makeLink(place, rootOf(scope) / "Library/elsewhere"); },
        [&] { makeDirectories(place); },      [&] { makePipe(place); },
        [&] { makeSocket(place); },
    };
    for (const auto& plant : plants) {
        plant();
        EXPECT_EQ(inspecting(bringing(scope, "1.0")), collision) << describe(place);
        removeAll(place);
    }
}

TEST_P(InspectInScope, RefusesFilesBehindALinkedDirectory)
{
    placeFiles(scope, plugin("alpha", "1.0"));
    const std::filesystem::path audio = rootOf(scope) / "Library/Audio";
    std::filesystem::rename(audio, rootOf(scope) / "Library/Sounds");
    makeLink(audio, rootOf(scope) / "Library/Sounds");
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), collision);
}

TEST_P(InspectInScope, TakesAFileWhereADirectoryWouldBeForNothing)
{
    writeFile(rootOf(scope) / "Library/Audio", "no directory", {ownerOf(scope), 0644});
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), clean);
}

TEST_P(InspectInScope, AcceptsFilesWithoutAPackageToAdoptOrReplaceThem)
{
    placeFiles(scope, plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0").deciding("adopt")), clean);
    EXPECT_EQ(inspecting(bringing(scope, "1.0").deciding("replace")), clean);
    removeAll(rootOf(scope) / vst3Path("alpha"));
    makeLink(rootOf(scope) / vst3Path("alpha"), "/nowhere");
    EXPECT_EQ(inspecting(bringing(scope, "1.0").deciding("replace")), clean);
}

TEST_P(InspectInScope, LooksOnlyForTheFilesOfTheProductItself)
{
    placeFiles(scope, commonPackage());
    install(scope, plugin("beta", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0").brings(plugin("beta", "1.0"), "-")), repair);
    placeFiles(scope, plugin("gamma", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), clean);
}

TEST_P(InspectInScope, DoesNotMindNewFilesOfAnInstalledProduct)
{
    install(scope, plugin("alpha", "1.0"));
    Plugin next = plugin("alpha", "2.0");
    next.withVst3File("Contents/new", "new");
    writeFile(rootOf(scope) / vst3Path("alpha", "Contents/new"), "by hand", {ownerOf(scope), 0644});
    EXPECT_EQ(inspecting(Work(scope).brings(next, "-")), upgrade);
}

TEST_P(InspectInScope, LooksForFilesAlsoOfAProductThatMoves)
{
    install(opposite, plugin("alpha", "1.0"));
    placeFiles(scope, plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0").from(opposite)), collision);
    EXPECT_EQ(inspecting(bringing(scope, "1.0").from(opposite).deciding("replace")), moveRequired);
}

TEST_P(InspectInScope, ReadsEachScopesReceiptsOnceHoweverManyProductsThereAre)
{
    Work work(scope);
    for (const std::string id : {"a", "b", "c", "d"}) {
        install(scope, plugin(id, "1.0"));
        work.brings(plugin(id, "1.0"), "1.0");
    }
    instructPkgutil("do match=prefix no-match=0\n");
    EXPECT_EQ(inspecting(work), repair);
    EXPECT_EQ(pkgutilCalls().size(), 1U + 2 * 8 + 1);
}

TEST_P(InspectInScope, AsksTheTargetScopeFirst)
{
    instructPkgutil("do no-match=0\n");
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), clean);
    const std::string pattern = " --pkgs=^com\\.tamarindpelican\\.pkg\\.";
    const std::vector<std::string> calls = {"--volume " + rootOf(scope).native() + pattern,
                                            "--volume " + rootOf(opposite).native() + pattern};
    EXPECT_EQ(pkgutilCalls(), calls);
}

TEST_P(InspectInScope, PassesTheErrorsOfTheReceiptsOn)
{
    const Outcome inconsistent = refused("product native receipts are incomplete or inconsistent");
    install(scope, plugin("alpha", "1.0").au);
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), inconsistent);
    unregister(scope, plugin("alpha", "1.0").au.id);
    removeFiles(scope, plugin("alpha", "1.0"));
    install(opposite, plugin("beta", "1.0").au);
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), inconsistent);
    removeFiles(opposite, plugin("beta", "1.0"));
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), refused("pkgutil receipt-owned file is missing"));
    instructPkgutil("do kill=KILL\n");
    EXPECT_EQ(inspecting(bringing(scope, "1.0")),
              refused("pkgutil cannot enumerate authoritative package receipts"));
}

TEST_P(InspectInScope, WorksBesideAnActiveTransactionAndAHeldLock)
{
    install(scope, plugin("alpha", "1.0"));
    publish(bringing(scope, "1.0"), "other");
    EXPECT_EQ(run({"prepare-move", scope, "other"}), succeeded());
    const HeldLock lock(scope);
    EXPECT_EQ(inspecting(bringing(scope, "1.0")), repair);
}

TEST_P(InspectInScope, CreatesTheMissingLayoutAndNothingElse)
{
    publish(bringing(scope, "1.0"), "look");
    for (const char* name : {"Transactions", "Products", "NativeReceipts", "Completed"})
        removeAll(maintenanceOf(scope) / name);
    const Tree before = takeTree();
    EXPECT_EQ(run({"inspect", scope, "look"}), clean);
    std::vector<std::string> expected;
    for (const char* name : {"Completed", "NativeReceipts", "Products", "Transactions"}) {
        expected.push_back(maintenanceOf(scope) / name);
        EXPECT_EQ(describe(expected.back()), directoryOf(scope));
    }
    EXPECT_EQ(changedPaths(before, takeTree()), expected);
}

TEST_P(InspectInScope, SaysNothingWhenStandardOutputIsFull)
{
    install(scope, plugin("alpha", "1.0"));
    for (const Output output : {Output::FullDevice, Output::BrokenPipe}) {
        Surroundings surroundings;
        surroundings.output = output;
        EXPECT_EQ(inspecting(bringing(scope, "1.0"), surroundings), failed("cannot write standard output"));
    }
}

TEST(Inspect, ByTheAccountItselfAnswersForItsOwnScope)
{
    const Plugin alpha = plugin("alpha", "1.0");
    makeLayout("system");
    EXPECT_EQ(inspecting(bringing("user", "1.0"), asPlayer()), clean);
    installOnlyIn("system", alpha);
    EXPECT_EQ(inspecting(bringing("user", "1.0"), asPlayer()), duplicate);
    EXPECT_EQ(inspecting(bringing("user", "1.0").from("system"), asPlayer()), moveRequired);
    installOnlyIn("user", alpha);
    EXPECT_EQ(inspecting(bringing("user", "1.0"), asPlayer()), repair);
    EXPECT_EQ(inspecting(bringing("user", "2.0"), asPlayer()), upgrade);
}

TEST(Inspect, OfTheSystemScopeSkipsAHomeThatCannotBeResolved)
{
    install("user", plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing("system", "1.0")), duplicate);
    setNobodyAtConsole();
    EXPECT_EQ(inspecting(bringing("system", "1.0")), clean);
    placeFiles("system", plugin("alpha", "1.0"));
    EXPECT_EQ(inspecting(bringing("system", "1.0")), collision);
}

TEST(Inspect, OfTheUserScopeNeedsTheAccount)
{
    publish(bringing("user", "1.0"), "look");
    setNobodyAtConsole();
    EXPECT_EQ(run({"inspect", "user", "look"}), refused("cannot resolve the invoking console account"));
}

TEST(Inspect, OfAPathThatCannotBeExaminedEndsWithAnInternalError)
{
    makeLayout("system");
    publish(bringing("user", "1.0"), "look");
    makeDirectories("/Users/player/Library/Audio", {rootUid, 0700});
    const Outcome outcome = run({"inspect", "user", "look"}, asPlayer());
    EXPECT_EQ(outcome.status, 70);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1);
    EXPECT_EQ(run({"inspect", "user", "look"}), clean);
}

TEST(Inspect, OfAPathThatIsTooLongEndsWithAnInternalError)
{
    Plugin alpha = plugin("alpha", "1.0");
    alpha.withVst3File(std::string(300, 'n'), "x");
    makeDirectories(rootOf("user") / vst3Path("alpha", "Contents"), {playerUid, 0755});
    for (const std::string decision : {"none", "adopt", "replace"})
        EXPECT_EQ(inspecting(Work("user").deciding(decision).brings(alpha, "-")).status, 70) << decision;
}

TEST(Inspect, SeesAProductOnlyInTheScopeThatItWasInstalledIn)
{
    // The same path on disk is not enough: the receipts of the volume decide.
    placeFiles("user", plugin("alpha", "1.0"));
    registerPackage("system", plugin("beta", "1.0"));
    placeFiles("system", plugin("beta", "1.0"));
    EXPECT_EQ(inspecting(Work("user").brings(plugin("beta", "1.0"), "-")), duplicate);
    EXPECT_EQ(inspecting(bringing("user", "1.0")), collision);
}

TEST(Inspect, OfAFullCatalogueAnswersAtOnce)
{
    Work work("user");
    for (int i = 0; i < 40; ++i) {
        install("user", plugin("p" + std::to_string(i), "1.0"));
        work.brings(plugin("p" + std::to_string(i), "1.0"), "1.0");
    }
    instructPkgutil("do match=prefix no-match=0\n");
    EXPECT_EQ(inspecting(work), repair);
    EXPECT_EQ(pkgutilCalls().size(), 1U + 2 * 80 + 1);
}

} // namespace
} // namespace maintenance::rehearsed
