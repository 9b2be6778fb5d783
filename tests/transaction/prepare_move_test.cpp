#include "transaction/preparing.h"
#include "validate/owned_path.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <set>

namespace maintenance::rehearsed {
namespace {

const Outcome replayed = refused("maintenance transaction replay is refused");
const Outcome anotherActive = refused("another durable maintenance transaction is active");
const Outcome locked = refused("another maintenance transaction is active");
const Outcome commonDowngrade =
    refused("installed common package revision is newer; common downgrade is refused");
const Outcome targetDowngrade = refused("target-side downgrade is refused");
const Outcome targetChanged = refused("installed version changed before maintenance");
const Outcome sourceChanged = refused("source installation changed before maintenance");
const Outcome notIdentical = refused("adopt requires byte-identical bundles");
const Outcome collision = refused("manual installation collision requires adopt or replace");

const Plugin alpha = plugin("alpha", "1.0");
const Plugin beta = plugin("beta", "1.0");

/// What can stand in a file's place, whatever it is called.
struct Obstacle {
    const char* name;
    std::function<void(const std::filesystem::path&)> plant;
};

const std::vector<Obstacle> obstacles = {
    {"file", [](const auto& path) { writeFile(path, "text\n"); }},
    {"empty file", [](const auto& path) { writeFile(path, ""); }},
    {"link", [](const auto& path) { makeLink(path, "/etc/passwd"); }},
    {"dangling link", [](const auto& path) { makeLink(path, "nowhere"); }},
    {"link to itself", [](const auto& path) { makeLink(path, path.filename()); }},
    {"directory", [](const auto& path) { makeDirectories(path); }},
    {"pipe", [](const auto& path) { makePipe(path); }},
    {"socket", [](const auto& path) { makeSocket(path); }},
};

/// All of them without a source, and the least conspicuous one for a move, whose scenes take longer.
std::vector<Obstacle> obstaclesFor(const Work& work)
{
    if (work.source() == "none")
        return obstacles;
    return {obstacles.at(3)};
}

/// Prepares a published transaction, which must be refused and leave nothing.
void expectRefusal(const Work& work, const Outcome& refusal, const std::string& what = "")
{
    const Tree before = takeTree();
    EXPECT_EQ(prepareMove(work), refusal) << what;
    EXPECT_EQ(changesSince(before), "") << what;
}

void publishAndExpectRefusal(const Work& work, const Outcome& refusal, const std::string& what = "")
{
    publish(work, moveId);
    expectRefusal(work, refusal, what);
}

/// Requires the transaction to be prepared as one that was never disturbed.
void expectPrepared(const Work& work, const std::string& what = "")
{
    const std::string text = readFile(preparedOf(work));
    EXPECT_EQ(text, work.prepared(moveId, fieldOf(text, "generation"))) << what;
    EXPECT_EQ(describe(preparedOf(work)), metadataFileOf(work.authority())) << what;
    for (const std::string& scope : work.involved()) {
        EXPECT_EQ(readFile(leaseOf(scope)), text) << what;
        EXPECT_EQ(describe(leaseOf(scope)), metadataFileOf(scope)) << what;
    }
}

/// The rule that makes a shell command happen before the nth listing of a scope's packages.
std::string beforeListing(const std::string& scope, int nth, const std::string& action)
{
    return "command=--pkgs= volume=" + rootOf(scope).native() + " nth=" + std::to_string(nth) +
           " do before=\"" + action + "\"\n";
}

std::string changeVersion(const std::string& scope, const Plugin& product, const std::string& version)
{
    std::string action = "sed -i s/^version=.*/version=" + version + "/";
    for (const Package* package : {&product.vst3, &product.au})
        action += " " + receiptOf(scope, package->id).native();
    return action;
}

TEST(PrepareMove, LeavesATransactionAndALeaseInEveryInvolvedScope)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        publish(work, moveId);
        const Tree before = takeTree();
        EXPECT_EQ(prepareMove(work), succeeded()) << kindOf(work);
        expectPrepared(work, kindOf(work));
        EXPECT_EQ(describe(directoryOf(work)), "dir " + std::to_string(ownerOf(work.authority())) + " 0700");
        const std::string generation = fieldOf(readFile(preparedOf(work)), "generation");
        EXPECT_EQ(generation.size(), 64U);
        EXPECT_EQ(generation.find_first_not_of("0123456789abcdef"), std::string::npos);
        std::set<std::string> allowed;
        for (const std::string& scope : work.involved()) {
            allowed.insert(leaseOf(scope));
            allowed.insert(lockOf(scope));
            EXPECT_EQ(describe(lockOf(scope)), metadataFileOf(scope));
            EXPECT_EQ(readFile(lockOf(scope)), "");
        }
        for (const std::string& path : changedPaths(before, takeTree()))
            EXPECT_TRUE(allowed.contains(path) || path.starts_with(directoryOf(work).native()))
                << kindOf(work) << ": " << path;
    }
}

TEST(PrepareMove, KeepsItsBooksInTheSystemScopeWheneverThatIsInvolved)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        bringToPrepared(work);
        const std::string authority = work.source() == "none" ? work.target() : "system";
        EXPECT_EQ(namesIn(maintenanceOf(authority) / "Transactions"), std::vector<std::string>{moveId})
            << kindOf(work);
        EXPECT_EQ(namesIn(maintenanceOf(oppositeOf(authority)) / "Transactions"), std::vector<std::string>{});
    }
}

TEST(PrepareMove, GivesEveryPreparationAGenerationOfItsOwn)
{
    const Work work = Work("user").brings(alpha);
    std::set<std::string> generations;
    for (const std::string id : {"one", "two", "three"}) {
        generations.insert(fieldOf(bringToPrepared(work, id), "generation"));
        EXPECT_EQ(command("rollback-move", work, id), succeeded());
    }
    EXPECT_EQ(generations.size(), 3U);
}

TEST(PrepareMove, MakesItsFilesPrivateWhateverTheUmask)
{
    for (const mode_t mask : {mode_t{0}, mode_t{0077}}) {
        for (const Work& work : everyKind(alpha)) {
            clearScene();
            installSource(work, alpha);
            publish(work, moveId);
            Surroundings surroundings;
            surroundings.umask = mask;
            EXPECT_EQ(prepareMove(work, moveId, surroundings), succeeded()) << kindOf(work);
            expectPrepared(work, kindOf(work));
            EXPECT_EQ(describe(directoryOf(work)),
                      "dir " + std::to_string(ownerOf(work.authority())) + " 0700");
            for (const auto& [path, line] : takeTree({directoryOf(work)}))
                EXPECT_FALSE(line.starts_with("file") && !line.starts_with(metadataFileOf(work.authority())))
                    << path << " " << line;
        }
    }
}

TEST(PrepareMove, ByTheAccountItselfWorksInItsOwnScope)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    EXPECT_EQ(prepareMove(work, moveId, asPlayer()), succeeded());
    expectPrepared(work);
    EXPECT_EQ(describe(directoryOf(work)), "dir 501 0700");
    EXPECT_EQ(describe(lockOf("user")), "file 501 0600");
}

TEST(PrepareMove, ByTheAccountItselfCannotInvolveTheSystemScope)
{
    for (const Work& work : everyKind(alpha)) {
        if (work.authority() == "user")
            continue;
        clearScene();
        installSource(work, alpha);
        publish(work, moveId);
        const Tree before = takeTree();
        EXPECT_EQ(prepareMove(work, moveId, asPlayer()).status, 65) << kindOf(work);
        EXPECT_EQ(changesSince(before), "") << kindOf(work);
    }
}

TEST(PrepareMove, TakesTheLongestIdentifier)
{
    const std::string id(128, 'm');
    const Work work = Work("system").from("user").brings(alpha);
    installSource(work, alpha);
    EXPECT_EQ(fieldOf(bringToPrepared(work, id), "transaction"), id);
    EXPECT_EQ(command("rollback-move", work, id), succeeded());
    EXPECT_EQ(describe(completedOf(work, id)), "file 0 0600");
}

TEST(PrepareMove, AsksForReceiptsEquallyOftenForAnyNumberOfProducts)
{
    std::set<std::size_t> counts;
    for (const std::size_t products : {1U, 4U}) {
        clearScene();
        Work work("system");
        work.from("user");
        install("user", commonPackage());
        for (std::size_t i = 0; i < products; ++i) {
            const Plugin product = plugin("product" + std::to_string(i), "1.0");
            install("user", product);
            work.brings(product, "1.0");
        }
        publish(work, moveId);
        forgetPkgutilCalls();
        EXPECT_EQ(prepareMove(work), succeeded());
        std::size_t listings = 0;
        for (const std::string& call : pkgutilCalls())
            listings += call.find("--pkgs") != std::string::npos ? 1U : 0U;
        counts.insert(listings);
    }
    EXPECT_EQ(counts.size(), 1U);
}

TEST(PrepareMove, RunAgainChangesNothing)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        bringToPrepared(work);
        const Tree before = takeExactTree();
        EXPECT_EQ(prepareMove(work), succeeded()) << kindOf(work);
        EXPECT_EQ(difference(before, takeExactTree()), "") << kindOf(work);
    }
}

TEST(PrepareMove, RunAgainPublishesNothingButTheMissingLeases)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        bringToPrepared(work);
        const std::vector<std::string> scopes = work.involved();
        for (std::size_t missing = 1; missing < (1U << scopes.size()); ++missing) {
            std::set<std::string> expected;
            const Tree before = takeExactTree();
            for (std::size_t i = 0; i < scopes.size(); ++i)
                if ((missing >> i & 1U) != 0) {
                    removeAll(leaseOf(scopes[i]));
                    expected.insert(leaseOf(scopes[i]));
                }
            EXPECT_EQ(prepareMove(work), succeeded()) << kindOf(work);
            expectPrepared(work, kindOf(work));
            const std::vector<std::string> changed = changedPaths(before, takeExactTree());
            EXPECT_EQ(std::set<std::string>(changed.begin(), changed.end()), expected) << kindOf(work);
        }
    }
}

TEST(PrepareMove, WaitsForNoOtherRunInAnInvolvedScope)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        publish(work, moveId);
        for (const std::string& scope : work.involved()) {
            const HeldLock lock(scope);
            expectRefusal(work, locked, kindOf(work) + ": " + scope);
        }
        EXPECT_EQ(prepareMove(work), succeeded()) << kindOf(work);
    }
}

TEST(PrepareMove, IgnoresARunInTheOtherScope)
{
    for (const std::string scope : {"user", "system"}) {
        clearScene();
        makeLayout(oppositeOf(scope));
        const HeldLock lock(oppositeOf(scope));
        const Work work = Work(scope).brings(alpha);
        publish(work, moveId);
        EXPECT_EQ(prepareMove(work), succeeded());
    }
}

TEST(PrepareMove, RefusesAnUnsafeFixedDirectoryInAnyInvolvedScope)
{
    using std::filesystem::path;
    const std::vector<std::pair<std::function<void(const path&)>, std::string>> spoilings = {
        {[](const path& place) { setMode(place, 0775); },
         "maintenance directory ownership or mode is unsafe"},
        {[](const path& place) { setMode(place, 0757); },
         "maintenance directory ownership or mode is unsafe"},
        {[](const path& place) { setOwner(place, 502); }, "maintenance directory ownership is unsafe"},
        {[](const path& place) {
             removeAll(place);
             makeLink(place, "/Users/player");
         },
         "fixed maintenance directory is missing or redirected"},
        {[](const path& place) {
             removeAll(place);
             makePipe(place);
         },
         "fixed maintenance directory is missing or redirected"},
        {[](const path& place) {
             removeAll(place);
             writeFile(place, "text");
         },
         "fixed maintenance directory is missing or redirected"},
    };
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const std::string name : {"Products", "NativeReceipts", "Completed"})
                for (const auto& [spoil, message] : spoilings) {
                    clearScene();
                    publish(work, moveId);
                    spoil(maintenanceOf(scope) / name);
                    expectRefusal(work, refused(message), kindOf(work) + ": " + scope + " " + name);
                }
}

TEST(PrepareMove, RefusesAnUnsafeLockInAnyInvolvedScope)
{
    using std::filesystem::path;
    const std::vector<std::function<void(const path&)>> plants = {
        [](const path& lock) { makeLink(lock, "/etc/passwd"); },
        [](const path& lock) { makeLink(lock, "nowhere"); },
        [](const path& lock) { makePipe(lock); },
        [](const path& lock) { makeDirectories(lock); },
        [](const path& lock) {
            writeFile(lock, "", {502, 0600});
        },
        [](const path& lock) {
            writeFile(lock, "", {playerUid, 0666});
        },
        [](const path& lock) {
            writeFile(lock, "");
            makeHardLink(lock.native() + ".second", lock);
        },
    };
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const auto& plant : plants) {
                clearScene();
                publish(work, moveId);
                plant(lockOf(scope));
                const std::string planted = describe(lockOf(scope));
                expectRefusal(work, refused("maintenance lock is unsafe"), kindOf(work) + ": " + planted);
                EXPECT_EQ(describe(lockOf(scope)), planted);
            }
}

TEST(PrepareMove, RefusesADowngradeOfTheSharedPackage)
{
    for (const std::string revision : {"8", "10", "999999999"})
        for (const Work& work : everyKind(alpha))
            for (const std::string& scope : work.involved()) {
                clearScene();
                installSource(work, alpha);
                install(scope, commonPackage(revision));
                publishAndExpectRefusal(work, commonDowngrade, kindOf(work) + ": " + scope + " " + revision);
            }
}

TEST(PrepareMove, AcceptsASharedPackageThatIsNotNewer)
{
    for (const std::string revision : {"1", "6", "7"})
        for (const std::string scope : {"user", "system"}) {
            clearScene();
            install(scope, commonPackage(revision));
            const Work work = Work(scope).brings(alpha);
            publish(work, moveId);
            EXPECT_EQ(prepareMove(work), succeeded()) << scope << " " << revision;
        }
    clearScene();
    install("user", commonPackage("9"));
    const Work work = Work("user").with(commonPackage("10")).brings(alpha);
    publish(work, moveId);
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(PrepareMove, IgnoresTheSharedPackageOfAScopeThatIsNotInvolved)
{
    for (const std::string scope : {"user", "system"}) {
        clearScene();
        install(oppositeOf(scope), commonPackage("8"));
        const Work work = Work(scope).brings(alpha);
        publish(work, moveId);
        EXPECT_EQ(prepareMove(work), succeeded());
    }
}

TEST(PrepareMove, ComparesTheVersionOfTheSharedFilesNotThePackageRevision)
{
    const Work work = Work("user").brings(alpha);
    install("user", commonPackage("8"));
    publishText("user", withField(work.text(), "packageRevision", "9"), moveId);
    expectRefusal(work, commonDowngrade);
    install("user", commonPackage("7"));
    publishText("user", withField(work.text(), "packageRevision", "6"), moveId);
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(PrepareMove, RefusesWhatInspectionRefuses)
{
    for (const std::string scope : {"user", "system"}) {
        const Work work = Work(scope).brings(plugin("alpha", "1.0"));
        clearScene();
        install(scope, plugin("alpha", "2.0"));
        publishAndExpectRefusal(work, targetDowngrade, scope);
        clearScene();
        install(oppositeOf(scope), alpha);
        publishAndExpectRefusal(work, refused("product exists in the opposite scope"), scope);
        clearScene();
        install(scope, alpha.vst3);
        publishAndExpectRefusal(work, refused("product native receipts are incomplete or inconsistent"),
                                scope);
        clearScene();
        placeFiles(scope, alpha.au);
        publishAndExpectRefusal(work, collision, scope);
    }
}

TEST(PrepareMove, RefusesADowngradeAlsoWhenNoVersionWasRecorded)
{
    install("user", plugin("alpha", "1.0.1"));
    publishAndExpectRefusal(Work("user").brings(alpha, "-"), targetDowngrade);
    publishAndExpectRefusal(Work("user").brings(alpha, "1.0.1"), targetDowngrade);
}

TEST(PrepareMove, TakesOverOrReplacesWhatWasInstalledByHandOnlyWhenTold)
{
    for (const std::string scope : {"user", "system"}) {
        clearScene();
        placeFiles(scope, alpha);
        publishAndExpectRefusal(Work(scope).brings(alpha), collision, scope);
        for (const std::string decision : {"adopt", "replace"}) {
            const Work work = Work(scope).brings(alpha).deciding(decision);
            publish(work, decision);
            EXPECT_EQ(prepareMove(work, decision), succeeded()) << scope << " " << decision;
            EXPECT_EQ(command("rollback-move", work, decision), succeeded());
        }
    }
}

TEST(PrepareMove, AdoptsOnlyFilesThatAreTheDescriptorsOwn)
{
    for (const Work& kind : everyKind(alpha)) {
        Work work = kind;
        work.deciding("adopt");
        for (const std::string& path : alpha.paths()) {
            clearScene();
            installSource(work, alpha);
            placeFiles(work.target(), alpha);
            writeFile(rootOf(work.target()) / path, "changed\n", {ownerOf(work.target()), 0644});
            publishAndExpectRefusal(work, notIdentical, kindOf(work) + ": " + path);
        }
    }
}

TEST(PrepareMove, AdoptsOnlyACompleteInstallation)
{
    const Work work = Work("user").brings(alpha).deciding("adopt");
    for (const std::string& path : alpha.paths()) {
        placeFiles("user", alpha);
        removeAll(rootOf("user") / path);
        publishAndExpectRefusal(work, refused("owned file is missing"), path);
    }
    removeFiles("user", alpha);
    expectRefusal(work, refused("owned file is missing"));
}

TEST(PrepareMove, AdoptsWhateverTheSharedFilesAre)
{
    const Work work = Work("user").brings(alpha).deciding("adopt");
    placeFiles("user", alpha);
    placeFiles("user", commonPackage("3"));
    publish(work, moveId);
    EXPECT_EQ(prepareMove(work), succeeded());
    EXPECT_EQ(command("rollback-move", work), succeeded());
    removeFiles("user", commonPackage());
    publish(work, "move-2");
    EXPECT_EQ(prepareMove(work, "move-2"), succeeded());
}

TEST(PrepareMove, ComparesFilesOfAnInstalledProductTooWhenAdopting)
{
    const Plugin old = plugin("alpha", "0.9");
    install("user", old);
    publishAndExpectRefusal(Work("user").brings(alpha, "0.9").deciding("adopt"), notIdentical);
}

TEST(PrepareMove, ReplacesWithoutComparing)
{
    const Work work = Work("system").brings(alpha).deciding("replace");
    placeFiles("system", plugin("alpha", "0.9"));
    publish(work, moveId);
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(PrepareMove, RequiresTheTargetsVersionToBeTheRecordedOne)
{
    for (const std::string present : {"1.1", "1.0.0", "0.9"})
        for (const std::string scope : {"user", "system"}) {
            clearScene();
            install(scope, plugin("alpha", present));
            const Work work = Work(scope).brings(plugin("alpha", "2.0"), "1.0");
            publishAndExpectRefusal(work, targetChanged, scope + " " + present);
        }
    clearScene();
    install("user", alpha);
    const Work work = Work("user").brings(plugin("alpha", "2.0"), "1.0");
    publish(work, moveId);
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(PrepareMove, AcceptsATargetWithoutTheRecordedProduct)
{
    const Work work = Work("user").brings(plugin("alpha", "2.0"), "1.0");
    publish(work, moveId);
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(PrepareMove, AcceptsAnyVersionWhereNoneWasRecorded)
{
    for (const std::string target : {"user", "system"}) {
        clearScene();
        const Work work = Work(target).from(oppositeOf(target)).brings(plugin("alpha", "2.0"), "-");
        install(target, plugin("alpha", "1.4"));
        install(oppositeOf(target), plugin("alpha", "1.7"));
        publish(work, moveId);
        EXPECT_EQ(prepareMove(work), succeeded());
    }
}

TEST(PrepareMove, RequiresTheProductInTheSourceAtTheRecordedVersion)
{
    for (const std::string target : {"user", "system"}) {
        const std::string source = oppositeOf(target);
        for (const std::string recorded : {"-", "1.0"}) {
            clearScene();
            const Work work = Work(target).from(source).brings(plugin("alpha", "2.0"), recorded);
            publishAndExpectRefusal(work, sourceChanged, target + " nothing " + recorded);
            install(target, alpha);
            expectRefusal(work, sourceChanged, target + " only in the target " + recorded);
        }
        for (const std::string present : {"1.1", "1.0.0", "2.0"}) {
            clearScene();
            install(source, plugin("alpha", present));
            publishAndExpectRefusal(Work(target).from(source).brings(plugin("alpha", "2.0"), "1.0"),
                                    sourceChanged, target + " " + present);
        }
    }
}

TEST(PrepareMove, MovesFromANewerSource)
{
    const Work work = Work("system").from("user").brings(alpha, "3.0");
    install("user", plugin("alpha", "3.0"));
    publish(work, moveId);
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(PrepareMove, ReportsTheFirstProductThatChangedAndItsTargetFirst)
{
    Work work("system");
    work.from("user").brings(plugin("alpha", "2.0"), "1.0").brings(plugin("beta", "2.0"), "1.0");
    install("user", plugin("alpha", "1.1"));
    install("system", plugin("beta", "1.1"));
    install("user", plugin("beta", "1.1"));
    publishAndExpectRefusal(work, sourceChanged);
    install("user", alpha);
    expectRefusal(work, targetChanged);
    install("system", beta);
    expectRefusal(work, sourceChanged);
    install("user", beta);
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(PrepareMove, LooksAtTheInstallationsOnceMoreInsideTheTransaction)
{
    const std::string target = changeVersion("user", alpha, "3.0");
    const Work upgrade = Work("user").brings(plugin("alpha", "2.0"), "-");
    install("user", alpha);
    publish(upgrade, moveId);
    for (const auto& [recorded, refusal] :
         std::map<std::string, Outcome>{{"-", targetDowngrade}, {"1.0", targetChanged}}) {
        install("user", alpha);
        const Work work = Work("user").brings(plugin("alpha", "2.0"), recorded);
        publish(work, moveId);
        instructPkgutil(beforeListing("user", 3, target));
        EXPECT_EQ(prepareMove(work), refusal) << recorded;
        EXPECT_FALSE(isThere(directoryOf(work)));
        EXPECT_FALSE(isThere(leaseOf("user")));
    }
}

TEST(PrepareMove, LooksAtTheSourceOnceMoreInsideTheTransaction)
{
    const Work work = Work("system").from("user").brings(alpha, "1.0");
    installSource(work, alpha);
    publish(work, moveId);
    instructPkgutil(beforeListing("user", 3, changeVersion("user", alpha, "0.9")));
    EXPECT_EQ(prepareMove(work), sourceChanged);
    EXPECT_FALSE(isThere(directoryOf(work)));
    for (const std::string scope : {"user", "system"})
        EXPECT_FALSE(isThere(leaseOf(scope)));
}

TEST(PrepareMove, TakesNoSnapshotThatContradictsWhatItHasLookedUp)
{
    const Work work = Work("system").from("user").brings(alpha, "1.0");
    installSource(work, alpha);
    publish(work, moveId);
    writeFile("/tmp/version", "version: 1.0.1\nlocation: /\n");
    writeFile("/tmp/older", "version: 6\nlocation: /\n");
    writeFile("/tmp/au", auPath("alpha", "Contents/MacOS/plugin") + "\n");
    writeFile("/tmp/common", std::string(maintenanceExecutable) + "\n");
    const std::vector<std::pair<std::string, std::string>> lies = {{"--pkg-info id=*.au", "/tmp/version"},
                                                                   {"--pkg-info id=*.common", "/tmp/older"},
                                                                   {"--files id=*.au", "/tmp/au"},
                                                                   {"--files id=*.common", "/tmp/common"}};
    for (const auto& [question, answer] : lies) {
        int refusals = 0;
        for (int nth = 1; nth <= 5; ++nth) {
            instructPkgutil("command=" + question + " volume=/Users/* nth=" + std::to_string(nth) +
                            " do replace=" + answer + "\n");
            const Outcome outcome = prepareMove(work);
            EXPECT_EQ(outcome.status == 0, isThere(leaseOf("user"))) << question << nth << ": " << outcome;
            refusals += outcome == refused("pkgutil receipt evidence is incomplete");
            instructPkgutil("");
            EXPECT_EQ(prepareMove(work), succeeded()) << question << nth;
            EXPECT_EQ(run({"rollback-move", "system", moveId}), succeeded()) << question << nth;
            removeAll(completedOf(work));
        }
        // The first answer of the run, and that from which the snapshot is taken.
        EXPECT_EQ(refusals, 2) << question;
    }
}

TEST(PrepareMove, RefusesAReplayWhateverStandsInTheRecordsPlace)
{
    for (const Work& work : everyKind(alpha))
        for (const Obstacle& obstacle : obstaclesFor(work)) {
            clearScene();
            installSource(work, alpha);
            publish(work, moveId);
            obstacle.plant(completedOf(work));
            expectRefusal(work, replayed, kindOf(work) + ": " + obstacle.name);
        }
}

TEST(PrepareMove, RefusesAReplayAfterTheTransactionEnded)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string end : {"commit-move", "rollback-move"}) {
            clearScene();
            installSource(work, alpha);
            bringToPrepared(work);
            if (end == "commit-move") {
                install(work.target(), alpha);
                install(work.target(), commonPackage());
            }
            ASSERT_EQ(command(end, work), succeeded()) << kindOf(work) << " " << end;
            expectRefusal(work, replayed, kindOf(work) + " " + end);
        }
}

TEST(PrepareMove, IgnoresARecordInTheScopeThatDoesNotKeepTheBooks)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        publish(work, moveId);
        const std::string other = oppositeOf(work.authority());
        makeLayout(other);
        writeFile(completedOf(other, moveId), "text\n", {ownerOf(other), 0600});
        writeFile(completedOf(work.authority(), "move-2"), "text\n", {ownerOf(work.authority()), 0600});
        EXPECT_EQ(prepareMove(work), succeeded()) << kindOf(work);
    }
}

TEST(PrepareMove, RefusesAScopeInWhichAnotherTransactionIsActive)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const Obstacle& obstacle : obstaclesFor(work)) {
                clearScene();
                installSource(work, alpha);
                publish(work, moveId);
                obstacle.plant(leaseOf(scope));
                expectRefusal(work, anotherActive, kindOf(work) + ": " + scope + " " + obstacle.name);
            }
}

TEST(PrepareMove, IgnoresATransactionInTheOtherScope)
{
    for (const std::string scope : {"user", "system"}) {
        clearScene();
        bringToPrepared(Work(oppositeOf(scope)).brings(beta), "other");
        const Work work = Work(scope).brings(alpha);
        publish(work, moveId);
        EXPECT_EQ(prepareMove(work), succeeded()) << scope;
        expectPrepared(work);
    }
}

TEST(PrepareMove, IsKeptOutByEveryTransactionThatSharesAScope)
{
    install("user", beta);
    const std::string first = bringToPrepared(Work("user").brings(alpha), "first");
    for (const Work& work : {Work("user").brings(beta), Work("system").from("user").brings(beta),
                             Work("user").from("system").brings(alpha)})
        publishAndExpectRefusal(work, anotherActive, kindOf(work));
    EXPECT_EQ(readFile(leaseOf("user")), first);
}

TEST(PrepareMove, ReportsTheFirstOfSeveralReasonsInItsOrder)
{
    const Work work = Work("user").brings(plugin("alpha", "2.0"), "1.0");
    install("user", commonPackage("8"));
    install("user", plugin("alpha", "3.0"));
    publish(work, moveId);
    writeFile(completedOf(work), "text\n", {playerUid, 0600});
    plantPrepared(work, "text\n");
    plantLeases(work, "text\n");
    {
        const HeldLock lock("user");
        expectRefusal(work, locked);
    }
    expectRefusal(work, commonDowngrade);
    install("user", commonPackage());
    expectRefusal(work, targetDowngrade);
    install("user", plugin("alpha", "1.5"));
    expectRefusal(work, replayed);
    removeAll(completedOf(work));
    expectRefusal(work, refused("prepared transaction state is invalid"));
    removeAll(directoryOf(work));
    expectRefusal(work, anotherActive);
    removeAll(leaseOf("user"));
    expectRefusal(work, targetChanged);
    install("user", plugin("alpha", "1.0"));
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(PrepareMove, EndsWhereItCannotTellWhetherSomethingIsThere)
{
    const Work work = Work("system").from("user").brings(alpha);
    installSource(work, alpha);
    publish(work, moveId);
    for (const std::filesystem::path& place :
         {completedOf(work), directoryOf(work), leaseOf("user"), leaseOf("system")}) {
        const Tree before = takeTree();
        const Decide decide = [&](const SystemCall& call) {
            return call.is(SYS_newfstatat, place.native()) ? EIO : 0;
        };
        const Outcome outcome = runStopping({SYS_newfstatat}, decide, {"prepare-move", "system", moveId});
        EXPECT_EQ(outcome.status, 70) << place << " " << outcome;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome;
        EXPECT_EQ(changesSince(before), "");
    }
}

/// Makes the nth call of a number that the program makes for a transaction fail, and tells how it ended.
/// Calls that are made before the transaction's directory is there do not count.
Outcome prepareFailing(const Work& work, long number, int nth, int error)
{
    int count = 0;
    const Decide decide = [&](const SystemCall& call) {
        const bool counts = isTools(call) && isThere(directoryOf(work)) && ++count == nth;
        return counts ? error : 0;
    };
    return runStopping({number}, decide, {"prepare-move", work.target(), moveId});
}

/// Lets every call of a number fail in its turn; each time nothing may be left. Returns what was said.
std::set<std::string> messagesOfEveryFailure(const Work& work, long number, int error = EIO)
{
    std::set<std::string> messages;
    const Tree before = takeTree();
    for (int nth = 1; nth < 200; ++nth) {
        const Outcome outcome = prepareFailing(work, number, nth, error);
        if (outcome == succeeded())
            return messages;
        messages.insert(std::to_string(outcome.status) + " " + outcome.err);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(changesSince(before), "") << kindOf(work) << " call " << nth << ": " << outcome;
    }
    ADD_FAILURE() << "never succeeded";
    return messages;
}

using Messages = std::set<std::string>;

/// A transaction of two scopes with something to copy in each place that a snapshot is taken of.
Work fullScene()
{
    install("user", commonPackage());
    install("user", alpha.vst3);
    install("user", alpha.au);
    writeFile(recordOf("user", "alpha"), "product=alpha\nversion=1.0\n", {playerUid, 0600});
    writeFile(indexOf("user"), "{}\n", {playerUid, 0600});
    placeFiles("system", alpha.vst3);
    Work work = Work("system").from("user").brings(alpha, "1.0").deciding("replace");
    publish(work, moveId);
    return work;
}

TEST(PrepareMoveFailure, InAnyRenameLeavesNothing)
{
    EXPECT_EQ(messagesOfEveryFailure(fullScene(), SYS_renameat),
              Messages{"70 cannot publish fixed metadata\n"});
}

TEST(PrepareMoveFailure, InAnyChangeOfModeLeavesNothing)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    EXPECT_EQ(messagesOfEveryFailure(work, SYS_fchmod), Messages{"70 cannot write fixed metadata\n"});
}

TEST(PrepareMoveFailure, InMakingAnyDirectoryLeavesNothing)
{
    EXPECT_EQ(messagesOfEveryFailure(fullScene(), SYS_mkdirat, ENOSPC),
              Messages{"65 cannot create fixed maintenance directory\n"});
}

TEST(PrepareMoveFailure, InMakingTheTransactionsDirectoryLeavesNothing)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        publish(work, moveId);
        const Tree before = takeTree();
        const Decide decide = [](const SystemCall& call) {
            return call.is(SYS_mkdirat, moveId) ? ENOSPC : 0;
        };
        EXPECT_EQ(runStopping({SYS_mkdirat}, decide, {"prepare-move", work.target(), moveId}),
                  refused("cannot create maintenance transaction securely"))
            << kindOf(work);
        EXPECT_EQ(changesSince(before), "") << kindOf(work);
    }
}

TEST(PrepareMoveFailure, InAnySynchronisationLeavesNothing)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    EXPECT_EQ(messagesOfEveryFailure(work, SYS_fsync),
              (Messages{"65 cannot create maintenance transaction securely\n",
                        "70 cannot synchronize fixed metadata\n",
                        "70 cannot synchronize fixed metadata directory\n"}));
}

TEST(PrepareMoveFailure, InDrawingTheGenerationLeavesNothing)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    const Tree before = takeTree();
    const Decide decide = [](const SystemCall& call) { return isTools(call) ? EIO : 0; };
    EXPECT_EQ(runStopping({SYS_getrandom}, decide, {"prepare-move", "user", moveId}),
              failed("cannot create a durable transaction generation"));
    EXPECT_EQ(changesSince(before), "");
}

TEST(PrepareMoveFailure, InCreatingAnyFileLeavesNothing)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    const Tree before = takeTree();
    for (int nth = 1;; ++nth) {
        int count = 0;
        const Decide decide = [&](const SystemCall& call) {
            const bool creates = (call.arguments.at(2) & O_CREAT) != 0 && isTools(call);
            return creates && isThere(directoryOf(work)) && ++count == nth ? EDQUOT : 0;
        };
        const Outcome outcome = runStopping({SYS_openat}, decide, {"prepare-move", "user", moveId});
        if (outcome == succeeded()) {
            // Six notes of absent files, a manifest, the prepared state, a lease.
            EXPECT_EQ(nth, 9 + 1);
            return;
        }
        EXPECT_EQ(outcome, failed("cannot create fixed metadata atomically")) << nth;
        EXPECT_EQ(changesSince(before), "") << nth;
        ASSERT_LT(nth, 50);
    }
}

TEST(PrepareMoveFailure, InReadingAnyFileLeavesNothing)
{
    const Work work = Work("user").brings(alpha).deciding("replace");
    placeFiles("user", alpha);
    placeFiles("user", commonPackage());
    publish(work, moveId);
    const Tree before = takeTree();
    std::vector<std::string> files = alpha.paths();
    for (const auto& [path, content] : commonPackage().files)
        files.push_back(path);
    for (const std::string& file : files) {
        const Decide decide = [&](const SystemCall& call) {
            return fileOf(call) == rootOf("user") / file ? EIO : 0;
        };
        EXPECT_EQ(runStopping({SYS_read}, decide, {"prepare-move", "user", moveId}),
                  refused("cannot read transaction source"))
            << file;
        EXPECT_EQ(changesSince(before), "") << file;
    }
}

TEST(PrepareMoveFailure, OnAFullDiskLeavesNothing)
{
    const Work work = Work("user").brings(alpha);
    mountSmallDisk(maintenanceOf("user"), 1 << 20, {playerUid, 0755});
    publish(work, moveId);
    fillDisk(maintenanceOf("user"));
    const std::filesystem::path filler = maintenanceOf("user") / "filler";
    int refusals = 0;
    for (std::uintmax_t pages = 0;; ++pages) {
        const Tree before = takeTree();
        const Outcome outcome = prepareMove(work);
        if (outcome == succeeded())
            break;
        EXPECT_EQ(outcome, failed("cannot write fixed metadata")) << pages;
        EXPECT_EQ(changesSince(before), "") << pages;
        ASSERT_LT(++refusals, 50);
        std::filesystem::resize_file(filler, std::filesystem::file_size(filler) - 4096);
    }
    // Six notes of absent files, the prepared state and the lease hold something.
    EXPECT_EQ(refusals, 8);
    expectPrepared(work);
}

TEST(PrepareMoveFailure, OfPkgutilAtAnyCallLeavesNothing)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    const Tree before = takeTree();
    int call = 1;
    for (;; ++call) {
        instructPkgutil("call=" + std::to_string(call) + " do exit=3 cut=0\n");
        const Outcome outcome = prepareMove(work);
        if (outcome == succeeded())
            break;
        EXPECT_EQ(outcome, refused("pkgutil cannot enumerate authoritative package receipts")) << call;
        EXPECT_EQ(changesSince(before), "") << call;
        ASSERT_LT(call, 100);
    }
    // Four inventories of the home and one of the system, all empty.
    EXPECT_EQ(call, 4 * 3 + 2 + 1);
}

TEST(PrepareMoveFailure, OfPkgutilInASnapshotLeavesNothing)
{
    const Work work = fullScene();
    const Tree before = takeTree();
    for (const std::string command : {"--pkg-info", "--files"})
        for (const std::string& id : {commonPackage().id, alpha.vst3.id, alpha.au.id})
            for (int nth = 1; nth <= 4; ++nth) {
                instructPkgutil("command=" + command + " id=" + id + " nth=" + std::to_string(nth) +
                                " do exit=1\n");
                EXPECT_EQ(prepareMove(work), refused("pkgutil receipt evidence is incomplete"))
                    << command << " " << id << " " << nth;
                EXPECT_EQ(changesSince(before), "");
            }
}

TEST(PrepareMoveFailure, OfASecondLeaseTakesTheFirstOneBack)
{
    for (const std::string target : {"user", "system"}) {
        clearScene();
        const Work work = Work(target).from(oppositeOf(target)).brings(alpha);
        installSource(work, alpha);
        publish(work, moveId);
        const Tree before = takeTree();
        bool firstWasThere = false;
        int leases = 0;
        const Decide decide = [&](const SystemCall& call) {
            if (call.text(3) != "ActiveTransaction" || ++leases == 1)
                return 0;
            firstWasThere = isThere(leaseOf(work.source())) && !isThere(leaseOf(work.target()));
            return EIO;
        };
        EXPECT_EQ(runStopping({SYS_renameat}, decide, {"prepare-move", target, moveId}),
                  failed("cannot publish fixed metadata"));
        EXPECT_TRUE(firstWasThere) << target;
        EXPECT_EQ(changesSince(before), "") << target;
    }
}

TEST(PrepareMoveFailure, OfALeaseThatHadBecomeVisibleTakesItBack)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        publish(work, moveId);
        const Tree before = takeTree();
        const std::string last = leaseOf(work.target()).native();
        bool wasThere = false;
        const Decide decide = [&](const SystemCall& call) {
            if (wasThere || !isThere(last) || fileOf(call) != maintenanceOf(work.target()))
                return 0;
            wasThere = true;
            return EIO;
        };
        EXPECT_EQ(runStopping({SYS_fsync}, decide, {"prepare-move", work.target(), moveId}),
                  failed("cannot synchronize fixed metadata directory"));
        EXPECT_TRUE(wasThere) << kindOf(work);
        EXPECT_EQ(changesSince(before), "") << kindOf(work);
    }
}

TEST(PrepareMoveFailure, KeepsTheDirectoryAsLongAsALeaseCannotBeTakenBack)
{
    const Work work = Work("system").from("user").brings(alpha);
    installSource(work, alpha);
    publish(work, moveId);
    int leases = 0;
    const Decide decide = [&](const SystemCall& call) {
        if (call.number == SYS_renameat)
            return call.text(3) == "ActiveTransaction" && ++leases == 2 ? EIO : 0;
        return call.text(1) == "ActiveTransaction" ? EIO : 0;
    };
    EXPECT_EQ(runStopping({SYS_renameat, SYS_unlinkat}, decide, {"prepare-move", "system", moveId}),
              failed("cannot publish fixed metadata"));
    EXPECT_EQ(readFile(leaseOf("user")), readFile(preparedOf(work)));
    EXPECT_FALSE(isThere(leaseOf("system")));
    EXPECT_EQ(prepareMove(work), succeeded());
    expectPrepared(work);
    EXPECT_EQ(command("rollback-move", work), succeeded());
}

TEST(PrepareMoveFailure, ThatCannotRemoveTheDirectoryLeavesNoPreparedStateInIt)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    const Decide decide = [&](const SystemCall& call) {
        if (call.number == SYS_renameat)
            return call.text(3) == "ActiveTransaction" ? EIO : 0;
        return call.text(1) == "manifest" ? EIO : 0;
    };
    EXPECT_EQ(runStopping({SYS_renameat, SYS_unlinkat}, decide, {"prepare-move", "user", moveId}),
              failed("cannot publish fixed metadata"));
    EXPECT_TRUE(isThere(directoryOf(work)));
    EXPECT_FALSE(isThere(preparedOf(work)));
    EXPECT_FALSE(isThere(leaseOf("user")));
    EXPECT_EQ(command("commit-move", work), refused("prepared transaction state is missing or unsafe"));
    EXPECT_EQ(prepareMove(work), succeeded());
    expectPrepared(work);
}

TEST(PrepareMoveFailure, LeavesWhatWasPlantedInTheLeasesPlace)
{
    using std::filesystem::path;
    const std::vector<std::function<void(const path&)>> plants = {
        [](const path& lease) { makeLink(lease, "/etc/passwd"); },
        [](const path& lease) { makePipe(lease); },
        [](const path& lease) { makeDirectories(lease); },
        [](const path& lease) {
            writeFile(lease, "text", {502, 0600});
        },
        [](const path& lease) {
            writeFile(lease, "text", {502, 0600});
            makeHardLink(lease.native() + ".second", lease);
        },
    };
    for (const Work& work : everyKind(alpha))
        for (const auto& plant : plants) {
            clearScene();
            installSource(work, alpha);
            publish(work, moveId);
            const path lease = leaseOf(work.target());
            Tree expected;
            const Decide decide = [&](const SystemCall& call) {
                if (call.text(3) == "prepared") {
                    plant(lease);
                    expected = takeTree();
                }
                return 0;
            };
            EXPECT_EQ(runStopping({SYS_renameat}, decide, {"prepare-move", work.target(), moveId}),
                      refused("fixed metadata destination is unsafe"))
                << kindOf(work) << " " << describe(lease);
            std::erase_if(expected, [&](const auto& entry) {
                return entry.first.starts_with(directoryOf(work).native());
            });
            EXPECT_EQ(changedPaths(expected, takeTree()), std::vector<std::string>{})
                << kindOf(work) << " " << describe(lease);
        }
}

} // namespace
} // namespace maintenance::rehearsed
