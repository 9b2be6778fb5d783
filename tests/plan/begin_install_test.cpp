#include "plan/edited_text.h"
#include "plan/installing.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const std::vector<std::string> bothScopes = {"user", "system"};
const Outcome boundElsewhere = refused("pending installation attempt is bound to another plan");
const Outcome rebound = refused("pending installation descriptor was rebound");
const Outcome stateChanged = refused("pending installation descriptor state changed");
const Outcome unsafeDescriptor = refused("materialized maintenance descriptor is unsafe");
const Outcome missingDescriptor = refused("materialized maintenance descriptor is missing or unsafe");
const Outcome active = refused("another maintenance transaction is active");
const Outcome migration = refused("scope migration requires an explicit trusted decision");
const Outcome downgrade = refused("target-side downgrade is refused");
const Outcome commonDowngrade =
    refused("installed common package revision is newer; common downgrade is refused");
const Outcome notWritten = failed("cannot write fixed metadata");

Plugin alpha(const std::string& version = "1.0") { return plugin("alpha", version); }
Plugin beta(const std::string& version = "2.0.1") { return plugin("beta", version); }

std::string alphaPlan(const std::string& version = "1.0") { return planText({alpha(version)}); }

/// Begins an installation, which must be refused in this way without a change on disk.
void expectUnchanged(const Installer& installer, const Outcome& expected)
{
    const Tree before = takeExactTree(placesBesideTheTool());
    EXPECT_EQ(installer.begin(), expected);
    EXPECT_EQ(difference(before, takeExactTree(placesBesideTheTool())), "");
}

/// The same for a run that changes one path only.
void expectUnchangedBut(const Installer& installer, const Outcome& expected, const std::string& path)
{
    const Tree before = takeExactTree(placesBesideTheTool());
    EXPECT_EQ(installer.begin(), expected);
    EXPECT_EQ(changedPaths(before, takeExactTree(placesBesideTheTool())), std::vector<std::string>{path});
}

/// What beginning an installation adds to a scope that has never seen one.
std::vector<std::string> layoutOf(const std::string& scope)
{
    const std::filesystem::path root = maintenanceOf(scope);
    return {root,
            root / "Completed",
            root / "Inbox",
            root / "NativeReceipts",
            root / "Products",
            root / "Transactions",
            root / "maintenance.lock"};
}

/// The text of the attempt that a plan of product alpha leaves.
std::string attemptText(const std::string& scope, const std::string& id, const std::string& plan,
                        const std::string& descriptor)
{
    return "schema=tamarind.pelican.macos-maintenance-attempt.v1\n"
           "sku=studio-bundle\n"
           "packageRevision=7\n"
           "planSha256=" +
           systemSha256(plan) + "\ndescriptorSha256=" + systemSha256(descriptor) + "\ntransaction=" + id +
           "\ntargetScope=" + scope + "\n";
}

TEST(BeginInstall, PrintsAFreshIdentifier)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        const Outcome outcome = installer.begin();
        EXPECT_EQ(outcome, succeeded(outcome.out));
        ASSERT_EQ(outcome.out.size(), 8 + 64 + 1U);
        EXPECT_EQ(outcome.out.substr(0, 8), "install-");
        EXPECT_EQ(outcome.out.find_first_not_of("0123456789abcdef", 8), 8 + 64U);
        EXPECT_EQ(outcome.out.back(), '\n');
    }
    EXPECT_NE(fieldOf(readFile(pendingOf("user")), "transaction"),
              fieldOf(readFile(pendingOf("system")), "transaction"));
}

TEST(BeginInstall, MaterialisesTheDescriptorOfThePlan)
{
    const std::string one(64, '1');
    const std::string two(64, '2');
    const std::string support = "Library/Application Support/Tamarind Pelican/";
    const std::string vst3 = "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP alpha.vst3/Contents/";
    const std::string au = "Library/Audio/Plug-Ins/Components/TP alpha.component/Contents/";
    const std::string plan = "schema=tamarind.pelican.macos-maintenance-plan.v1\n"
                             "sku=alpha-only\n"
                             "packageRevision=41\n"
                             "product=alpha\t1.2.3\n"
                             "component=0\talpha\tcom.tamarindpelican.pkg.alpha.vst3\t1.2.3\n"
                             "target=0\t" +
                             vst3 + "Info.plist\t" + one + "\ntarget=0\t" + vst3 + "MacOS/plugin\t" + two +
                             "\ncomponent=1\talpha\tcom.tamarindpelican.pkg.alpha.au\t1.2.3\ntarget=1\t" +
                             au + "Info.plist\t" + two +
                             "\ncomponent=2\tcommon\tcom.tamarindpelican.pkg.common\t41\ntarget=2\t" +
                             support + "TamarindPelicanMaintenance\t" + one + "\ntarget=2\t" + support +
                             "TamarindPelicanUpdater\t" + two + "\n";
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, plan);
        const std::string id = identifierIn(installer.begin());
        const std::string descriptor =
            "schema=tamarind.pelican.macos-maintenance.v2\n"
            "sku=alpha-only\n"
            "packageRevision=41\n"
            "sourceScope=none\n"
            "targetScope=" +
            scope +
            "\ndecision=none\n"
            "product=alpha\t-\t1.2.3\n"
            "target=alpha\tcom.tamarindpelican.pkg.alpha.vst3\t1.2.3\t" +
            vst3 + "Info.plist\t" + one + "\ntarget=alpha\tcom.tamarindpelican.pkg.alpha.vst3\t1.2.3\t" +
            vst3 + "MacOS/plugin\t" + two + "\ntarget=alpha\tcom.tamarindpelican.pkg.alpha.au\t1.2.3\t" + au +
            "Info.plist\t" + two + "\ntarget=common\tcom.tamarindpelican.pkg.common\t41\t" + support +
            "TamarindPelicanMaintenance\t" + one + "\ntarget=common\tcom.tamarindpelican.pkg.common\t41\t" +
            support + "TamarindPelicanUpdater\t" + two + "\n";
        EXPECT_EQ(readFile(descriptorOf(scope, id)), descriptor);
        EXPECT_EQ(readFile(pendingOf(scope)), "schema=tamarind.pelican.macos-maintenance-attempt.v1\n"
                                              "sku=alpha-only\n"
                                              "packageRevision=41\n"
                                              "planSha256=" +
                                                  systemSha256(plan) +
                                                  "\ndescriptorSha256=" + systemSha256(descriptor) +
                                                  "\ntransaction=" + id + "\ntargetScope=" + scope + "\n");
    }
}

TEST(BeginInstall, KeepsTheOrderOfProductsAndTargets)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, planText({alpha(), beta(), plugin("gamma", "0.1")}));
        const std::string id = identifierIn(installer.begin());
        EXPECT_EQ(readFile(descriptorOf(scope, id)),
                  Work(scope).brings(alpha()).brings(beta()).brings(plugin("gamma", "0.1")).text());
    }
}

TEST(BeginInstall, PublishesADescriptorThatTheOtherCommandsLoad)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, planText({alpha(), beta()}));
        const std::string id = identifierIn(installer.begin());
        EXPECT_EQ(run({"inspect", scope, id}), succeeded("{\"status\":\"clean\"}\n"));
        EXPECT_EQ(run({"prepare-move", scope, id}), succeeded());
        const std::string prepared = readFile(leaseOf(scope));
        EXPECT_EQ(prepared,
                  Work(scope).brings(alpha()).brings(beta()).prepared(id, fieldOf(prepared, "generation")));
        EXPECT_EQ(run({"rollback-move", scope, id}), succeeded());
    }
}

TEST(BeginInstall, CreatesTheLayoutTheLockTheAttemptAndTheDescriptorForTheScopesOwner)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        const Tree before = takeExactTree(placesBesideTheTool());
        const std::string id = identifierIn(installer.begin());
        std::vector<std::string> expected = layoutOf(scope);
        expected.push_back(descriptorOf(scope, id));
        expected.push_back(pendingOf(scope));
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(changedPaths(before, takeExactTree(placesBesideTheTool())), expected);
        for (const std::string& path : expected)
            EXPECT_EQ(describe(path),
                      std::filesystem::is_directory(path) ? directoryOf(scope) : metadataFileOf(scope))
                << path;
        EXPECT_EQ(readFile(lockOf(scope)), "");
    }
}

TEST(BeginInstall, WritesMetadataOfMode0600WhateverTheUmask)
{
    for (const std::string& scope : bothScopes)
        for (const mode_t mask : {0u, 077u, 0277u}) {
            Installer installer(scope, alphaPlan());
            installer.surroundings.umask = mask;
            makeLayout(scope);
            const std::string id = identifierIn(installer.begin());
            for (const std::filesystem::path& path :
                 {descriptorOf(scope, id), pendingOf(scope), lockOf(scope)})
                EXPECT_EQ(describe(path), metadataFileOf(scope)) << path << " " << mask;
            removeAll(maintenanceOf(scope));
        }
}

TEST(BeginInstall, CreatesDirectoriesOfMode0755UnderAnOpenUmask)
{
    for (const std::string& scope : bothScopes) {
        Installer installer(scope, alphaPlan());
        installer.surroundings.umask = 0;
        identifierIn(installer.begin());
        EXPECT_EQ(describe(maintenanceOf(scope)), directoryOf(scope));
        EXPECT_EQ(describe(inboxOf(scope)), directoryOf(scope));
    }
}

TEST(BeginInstall, UnderAUmaskThatTakesEverythingLeavesAScopeThatLaterRunsAccept)
{
    for (const std::string& scope : bothScopes) {
        Installer installer(scope, alphaPlan());
        installer.surroundings.umask = 0777;
        const std::string id = identifierIn(installer.begin());
        EXPECT_EQ(describe(descriptorOf(scope, id)), metadataFileOf(scope));
        EXPECT_EQ(describe(inboxOf(scope)), "dir " + std::to_string(ownerOf(scope)) + " 0700");
        installer.surroundings.umask = 022;
        expectUnchanged(installer, succeeded(id + "\n"));
    }
}

TEST(BeginInstall, WorksForTheAccountItselfInItsOwnScope)
{
    const Installer installer("user", alphaPlan(), playerUid);
    const std::string id = identifierIn(installer.begin());
    EXPECT_EQ(describe(descriptorOf("user", id)), "file 501 0600");
    EXPECT_EQ(describe(pendingOf("user")), "file 501 0600");
    EXPECT_EQ(describe(lockOf("user")), "file 501 0600");
    EXPECT_EQ(installer.begin(), succeeded(id + "\n"));
}

TEST(BeginInstall, IsContinuedByRootForTheAccountAndTheOtherWayRound)
{
    const Installer byRoot("user", alphaPlan());
    const std::string id = identifierIn(byRoot.begin());
    const Installer byPlayer("user", alphaPlan(), playerUid);
    expectUnchanged(byPlayer, succeeded(id + "\n"));
    removeAll(descriptorOf("user", id));
    EXPECT_EQ(byPlayer.begin(), succeeded(id + "\n"));
    const Installer byRootAgain("user", alphaPlan());
    expectUnchanged(byRootAgain, succeeded(id + "\n"));
}

TEST(BeginInstall, OfTheSystemScopeIsNotForAnAccount)
{
    const Installer installer("system", alphaPlan(), playerUid);
    expectUnchanged(installer, refused("cannot create fixed maintenance directory"));
    const Installer byRoot("system", alphaPlan());
    identifierIn(byRoot.begin());
    const Installer again("system", alphaPlan(), playerUid);
    expectUnchanged(again, refused("cannot open the maintenance lock"));
}

TEST(BeginInstall, WorksInAHomeThatTheEnvironmentDoesNotName)
{
    const Installer installer("user", alphaPlan());
    const Tree other = takeTree({"/Users/other"});
    EXPECT_TRUE(isThere(descriptorOf("user", identifierIn(installer.begin()))));
    EXPECT_EQ(difference(other, takeTree({"/Users/other"})), "");
}

// The plan and the executable.

TEST(BeginInstall, FindsThePlanBesideTheExecutableWhateverTheScope)
{
    Installer installer("system", alphaPlan());
    const std::string id = identifierIn(run({"begin-install", "user"}, installer.surroundings));
    EXPECT_EQ(readFile(descriptorOf("user", id)), Work("user").brings(alpha()).text());
    EXPECT_FALSE(isThere(maintenanceOf("system")));
}

TEST(BeginInstall, FindsThePlanBesideTheRealExecutableBehindALink)
{
    const Installer installer("user", alphaPlan());
    writeFile("/opt/links/transaction-plan.tpmp", planText({beta()}));
    makeLink("/opt/links/tool", installer.surroundings.tool);
    Surroundings surroundings;
    surroundings.tool = "/opt/links/tool";
    surroundings.name = "/opt/links/tool";
    const std::string id = identifierIn(run({"begin-install", "user"}, surroundings));
    EXPECT_EQ(readFile(descriptorOf("user", id)), Work("user").brings(alpha()).text());
}

TEST(BeginInstall, DoesNotBelieveTheNameThatItWasCalledBy)
{
    Installer installer("user", alphaPlan());
    writeFile("/opt/elsewhere/transaction-plan.tpmp", planText({beta()}));
    for (const std::string name : {"/opt/elsewhere/TamarindPelicanMaintenance", "", "x"}) {
        installer.surroundings.name = name;
        const std::string id = identifierIn(installer.begin());
        EXPECT_EQ(readFile(descriptorOf("user", id)), Work("user").brings(alpha()).text()) << name;
    }
}

TEST(BeginInstall, WithoutAPlanIsRefusedBeforeAnythingIsCreated)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        removeAll(planOf(scope));
        expectUnchanged(installer, refused("embedded transaction plan is missing or unsafe"));
    }
}

TEST(BeginInstall, ThatCannotFindItsExecutableIsRefused)
{
    const Installer installer("user", alphaPlan());
    const Tree before = takeTree(placesBesideTheTool());
    const Outcome outcome = runStopping(
        {SYS_readlink, SYS_readlinkat},
        [](const SystemCall& call) {
            return call.text(call.number == SYS_readlink ? 0 : 1) == "/proc/self/exe" ? ENOENT : 0;
        },
        {"begin-install", "user"}, installer.surroundings);
    EXPECT_EQ(outcome, refused("cannot resolve the maintenance executable"));
    EXPECT_EQ(difference(before, takeTree(placesBesideTheTool())), "");
}

TEST(BeginInstall, WhoseExecutableWasRemovedMeanwhileFails)
{
    const Installer installer("user", alphaPlan());
    const Outcome outcome = runStopping(
        {SYS_readlink, SYS_readlinkat},
        [&](const SystemCall& call) {
            if (call.text(call.number == SYS_readlink ? 0 : 1) == "/proc/self/exe")
                removeAll(installer.surroundings.tool);
            return 0;
        },
        {"begin-install", "user"}, installer.surroundings);
    EXPECT_EQ(outcome.status, 70) << outcome;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(describe(maintenanceOf("user")), "nothing");
}

TEST(BeginInstall, LooksAtThePlanBeforeAnythingElse)
{
    Installer installer("user", "nonsense\n");
    makeLayout("user");
    writeFile(pendingOf("user"), "nonsense", {playerUid, 0600});
    setMode(inboxOf("user"), 0777);
    setNobodyAtConsole();
    const HeldLock held("user");
    expectUnchanged(installer, refused("embedded transaction plan contains an invalid field"));
}

TEST(BeginInstall, NeedsAnAccountForTheUserScopeOnly)
{
    const Installer user("user", alphaPlan());
    const Installer system("system", alphaPlan());
    setNobodyAtConsole();
    expectUnchanged(user, refused("cannot resolve the invoking console account"));
    const std::string id = identifierIn(system.begin());
    EXPECT_EQ(readFile(descriptorOf("system", id)), Work("system").brings(alpha()).text());
    expectUnchanged(system, succeeded(id + "\n"));
}

TEST(BeginInstall, RefusesAnUnsafeLayout)
{
    for (const std::string& scope : bothScopes)
        for (const char* name : {"", "Inbox", "Transactions", "Products", "NativeReceipts", "Completed"}) {
            const Installer installer(scope, alphaPlan());
            makeLayout(scope);
            setMode(maintenanceOf(scope) / name, 0775);
            expectUnchanged(installer, refused("maintenance directory ownership or mode is unsafe"));
            removeAll(maintenanceOf(scope));
        }
}

// Continuing an attempt.

TEST(BeginInstall, AgainPrintsTheSameIdentifierAndWritesNothing)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, planText({alpha(), beta()}));
        const std::string id = identifierIn(installer.begin());
        expectUnchanged(installer, succeeded(id + "\n"));
        expectUnchanged(installer, succeeded(id + "\n"));
    }
}

TEST(BeginInstall, PublishesADescriptorThatIsMissingAgain)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        const std::string id = identifierIn(installer.begin());
        const Tree before = takeTree(placesBesideTheTool());
        removeAll(descriptorOf(scope, id));
        EXPECT_EQ(installer.begin(), succeeded(id + "\n"));
        EXPECT_EQ(difference(before, takeTree(placesBesideTheTool())), "");
        EXPECT_EQ(describe(descriptorOf(scope, id)), metadataFileOf(scope));
    }
}

TEST(BeginInstall, OfAnotherPlanIsRefusedWhileAnAttemptIsPending)
{
    const Installer installer("user", alphaPlan());
    identifierIn(installer.begin());
    Plugin other = alpha();
    other.withVst3File("Contents/Resources/more.txt", "more");
    for (const std::string& plan :
         {planText({alpha("1.1")}), planText({other}), planText({alpha(), beta()}),
          planText({alpha()}, commonPackage("8")), planText({alpha()}, commonPackage(), "other-sku")}) {
        installer.replacePlan(plan);
        expectUnchanged(installer, boundElsewhere);
    }
}

TEST(BeginInstall, RefusesAnAttemptWithAnyBindingOtherThanThePlans)
{
    const Installer installer("user", alphaPlan());
    const std::string id = identifierIn(installer.begin());
    const std::string attempt = readFile(pendingOf("user"));
    for (const std::string& text :
         {withLine(attempt, "sku=", "sku=studio\n"),
          withLine(attempt, "packageRevision=", "packageRevision=8\n"),
          withLine(attempt, "packageRevision=", "packageRevision=7.0\n"),
          withLine(attempt, "planSha256=", "planSha256=" + generationOf('a') + "\n"),
          withLine(attempt, "targetScope=", "targetScope=system\n")}) {
        writeFile(pendingOf("user"), text, {playerUid, 0600});
        expectUnchanged(installer, boundElsewhere);
    }
}

TEST(BeginInstall, OfOneScopeDoesNotSeeTheAttemptOfTheOther)
{
    const Installer user("user", alphaPlan());
    const Installer system("system", planText({beta()}));
    const std::string first = identifierIn(user.begin());
    const std::string second = identifierIn(system.begin());
    EXPECT_NE(first, second);
    expectUnchanged(user, succeeded(first + "\n"));
    expectUnchanged(system, succeeded(second + "\n"));
}

TEST(BeginInstall, RefusesADescriptorThatWasChanged)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        const std::string id = identifierIn(installer.begin());
        const std::string descriptor = readFile(descriptorOf(scope, id));
        for (const std::string& text :
             {std::string(), std::string("nonsense"), descriptor + "\n",
              changed(descriptor, "\t-\t", "\t1.0\t"), descriptor.substr(0, descriptor.size() - 1)}) {
            writeFile(descriptorOf(scope, id), text, {ownerOf(scope), 0600});
            expectUnchanged(installer, rebound);
        }
    }
}

TEST(BeginInstall, RefusesADescriptorThatIsNoSafeFile)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        const std::string id = identifierIn(installer.begin());
        const std::filesystem::path path = descriptorOf(scope, id);
        const std::string text = readFile(path);
        const std::filesystem::path aside = inboxOf(scope) / "aside";
        writeFile(aside, text, {ownerOf(scope), 0600});
        const std::vector<std::function<void()>> plants = {
            [&] { makeLink(path, "aside"); },
            [&] { makeLink(path, "nowhere"); },
            [&] { makeHardLink(path, aside); },
            [&] {
                makeDirectories(path, {ownerOf(scope), 0755});
            },
            [&] { makePipe(path, ownerOf(scope)); },
            [&] {
                writeFile(path, text, {ownerOf(scope), 0620});
            },
            [&] {
                writeFile(path, text, {502, 0600});
            },
            [&] {
                writeFile(path, text + std::string(1048577, '#'), {ownerOf(scope), 0600});
            },
        };
        for (const auto& plant : plants) {
            removeAll(path);
            plant();
            SCOPED_TRACE(describe(path));
            expectUnchanged(installer, missingDescriptor);
        }
    }
}

TEST(BeginInstall, RefusesADescriptorThatCannotBeExamined)
{
    const Installer installer("user", alphaPlan());
    const std::string id = identifierIn(installer.begin());
    const Tree before = takeExactTree(placesBesideTheTool());
    EXPECT_EQ(runFailing(SYS_newfstatat, descriptorOf("user", id), EIO, {"begin-install", "user"},
                         installer.surroundings),
              unsafeDescriptor);
    EXPECT_EQ(difference(before, takeExactTree(placesBesideTheTool())), "");
}

TEST(BeginInstall, RefusesADescriptorThatCannotBeOpened)
{
    const Installer installer("user", alphaPlan());
    const std::string id = identifierIn(installer.begin());
    EXPECT_EQ(runFailing(SYS_openat, id + ".tpmt", EIO, {"begin-install", "user"}, installer.surroundings),
              refused("materialized maintenance descriptor cannot be opened safely"));
}

TEST(BeginInstall, RefusesAnAttemptThatCannotBeExamined)
{
    for (const std::string& scope : bothScopes)
        for (const int error : {EIO, EACCES, ELOOP}) {
            const Installer installer(scope, alphaPlan());
            makeLayout(scope);
            EXPECT_EQ(runFailing(SYS_newfstatat, pendingOf(scope), error, {"begin-install", scope},
                                 installer.surroundings),
                      refused("pending installation attempt is unsafe"));
            EXPECT_EQ(namesIn(inboxOf(scope)), std::vector<std::string>{});
            EXPECT_FALSE(isThere(pendingOf(scope)));
        }
}

TEST(BeginInstall, RefusesWhenWhatIsInstalledChangedSinceTheAttempt)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan("2.0"));
        const std::string id = identifierIn(installer.begin());
        install(scope, alpha("1.0"));
        expectUnchanged(installer, stateChanged);
        removeAll(descriptorOf(scope, id));
        expectUnchanged(installer, stateChanged);
        writeFile(descriptorOf(scope, id), "nonsense", {ownerOf(scope), 0600});
        expectUnchanged(installer, stateChanged);
        unregister(scope, alpha().vst3.id);
        unregister(scope, alpha().au.id);
        expectUnchanged(installer, rebound);
    }
}

TEST(BeginInstall, RefusesAnAttemptOfAnotherDescriptor)
{
    const Installer installer("user", alphaPlan());
    identifierIn(installer.begin());
    const std::string attempt = readFile(pendingOf("user"));
    writeFile(pendingOf("user"),
              withLine(attempt, "descriptorSha256=", "descriptorSha256=" + generationOf('b') + "\n"),
              {playerUid, 0600});
    expectUnchanged(installer, stateChanged);
}

TEST(BeginInstall, ContinuesAnAttemptOfAnyIdentifier)
{
    const Installer installer("user", alphaPlan());
    makeLayout("user");
    const std::string descriptor = Work("user").brings(alpha()).text();
    writeFile(pendingOf("user"), attemptText("user", "mine", alphaPlan(), descriptor), {playerUid, 0600});
    EXPECT_EQ(installer.begin(), succeeded("mine\n"));
    EXPECT_EQ(readFile(descriptorOf("user", "mine")), descriptor);
}

TEST(BeginInstall, RefusesAgainAProductThatAppearedInTheOtherScope)
{
    const Installer installer("user", alphaPlan());
    identifierIn(installer.begin());
    install("system", alpha());
    expectUnchanged(installer, migration);
}

// Other transactions.

TEST(BeginInstall, RefusesWhileATransactionIsActive)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        identifierIn(installer.begin());
        removeAll(pendingOf(scope));
        const std::vector<std::function<void()>> plants = {
            [&] {
                writeFile(leaseOf(scope), "", {ownerOf(scope), 0600});
            },
            [&] { makeLink(leaseOf(scope), "nowhere"); },
            [&] { makeLink(leaseOf(scope), "Inbox"); },
            [&] { makeLink(leaseOf(scope), "ActiveTransaction"); },
            [&] { makeDirectories(leaseOf(scope)); },
            [&] { makePipe(leaseOf(scope)); },
        };
        for (const auto& plant : plants) {
            plant();
            expectUnchanged(installer, active);
            removeAll(leaseOf(scope));
        }
        identifierIn(installer.begin());
    }
}

TEST(BeginInstall, CannotSayThatNoTransactionIsActiveWhereTheLeaseCannotBeExamined)
{
    const Installer installer("user", alphaPlan());
    makeLayout("user");
    const Outcome outcome =
        runFailing(SYS_newfstatat, leaseOf("user"), EIO, {"begin-install", "user"}, installer.surroundings);
    EXPECT_EQ(outcome.status, 70) << outcome;
    EXPECT_EQ(outcome.out, "");
    EXPECT_FALSE(isThere(pendingOf("user")));
    EXPECT_EQ(namesIn(inboxOf("user")), std::vector<std::string>{});
}

TEST(BeginInstall, ContinuesAnAttemptWhoseTransactionIsActive)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        const std::string id = identifierIn(installer.begin());
        EXPECT_EQ(run({"prepare-move", scope, id}), succeeded());
        expectUnchanged(installer, succeeded(id + "\n"));
    }
}

TEST(BeginInstall, IsNotHinderedByATransactionOfTheOtherScope)
{
    for (const std::string& scope : bothScopes) {
        makeLayout(oppositeOf(scope));
        writeFile(leaseOf(oppositeOf(scope)), "", {ownerOf(oppositeOf(scope)), 0600});
        const HeldLock held(oppositeOf(scope));
        const Installer installer(scope, alphaPlan());
        identifierIn(installer.begin());
        removeAll(leaseOf(oppositeOf(scope)));
        removeAll(leaseOf(scope));
    }
}

TEST(BeginInstall, RefusesWhileAnotherRunHoldsTheLock)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        makeLayout(scope);
        {
            const HeldLock held(scope);
            expectUnchanged(installer, active);
        }
        const std::string id = identifierIn(installer.begin());
        const HeldLock held(scope);
        expectUnchanged(installer, active);
        writeFile(pendingOf(scope), "nonsense", {ownerOf(scope), 0600});
        expectUnchanged(installer, active);
    }
}

TEST(BeginInstall, HoldsItsLockWhileItReadsTheReceipts)
{
    const Installer installer("user", alphaPlan());
    const Installer second("user", alphaPlan());
    const std::string tool = installer.surroundings.tool;
    instructPkgutil("call=1 do before=\"'" + tool + "' begin-install user > /tmp/second 2>&1; true\"\n");
    identifierIn(installer.begin());
    EXPECT_EQ(readFile("/tmp/second"), active.err);
}

TEST(BeginInstall, LooksAtAnAttemptBeforeTheActiveTransaction)
{
    const Installer installer("user", alphaPlan());
    makeLayout("user");
    writeFile(leaseOf("user"), "", {playerUid, 0600});
    writeFile(lockOf("user"), "", {playerUid, 0600});
    writeFile(pendingOf("user"), "nonsense", {playerUid, 0600});
    expectUnchanged(installer, refused("pending installation attempt is invalid"));
}

TEST(BeginInstall, LooksAtTheActiveTransactionBeforeWhatIsInstalled)
{
    const Installer installer("user", alphaPlan());
    install("system", alpha());
    makeLayout("user");
    writeFile(leaseOf("user"), "", {playerUid, 0600});
    writeFile(lockOf("user"), "", {playerUid, 0600});
    forgetPkgutilCalls();
    expectUnchanged(installer, active);
    EXPECT_EQ(pkgutilCalls(), std::vector<std::string>{});
}

// What is installed.

TEST(BeginInstall, RecordsTheInstalledVersions)
{
    for (const std::string& scope : bothScopes) {
        install(scope, alpha("1.9"));
        install(scope, plugin("gamma", "1.0.0"));
        const Plugin gamma = plugin("gamma", "1.0");
        const Installer installer(scope, planText({alpha("1.10"), beta(), gamma}));
        const std::string id = identifierIn(installer.begin());
        EXPECT_EQ(readFile(descriptorOf(scope, id)),
                  Work(scope).brings(alpha("1.10"), "1.9").brings(beta()).brings(gamma, "1.0.0").text());
        expectUnchanged(installer, succeeded(id + "\n"));
        removeAll(receiptOf(scope, "x").parent_path());
        makeDirectories("/var/db/receipts");
    }
}

TEST(BeginInstall, RecordsNothingThatPkgutilContradictsInTheSameRun)
{
    writeFile("/tmp/version", "version: 0.9\nlocation: /\n");
    for (const std::string& scope : bothScopes) {
        install(scope, alpha());
        install(scope, commonPackage());
        const Installer installer(scope, alphaPlan("1.1"));
        for (const std::string lie : {"command=--pkgs nth=1", "command=--pkgs nth=2", "command=--pkgs= nth=1",
                                      "command=--pkgs= nth=2"})
            for (const std::string answer : {"cut=0 exit=0", "replace=/tmp/others exit=0"}) {
                writeFile("/tmp/others", "com.example.other\n");
                instructPkgutil(lie + " volume=" + rootOf(scope).native() + " do " + answer + "\n");
                EXPECT_EQ(installer.begin().status, 65) << scope << " " << lie << " " << answer;
                EXPECT_FALSE(isThere(pendingOf(scope)));
            }
        for (const std::string nth : {"1", "2"}) {
            instructPkgutil("command=--pkg-info id=*.alpha.vst3 volume=" + rootOf(scope).native() +
                            " nth=" + nth + " do replace=/tmp/version\n");
            EXPECT_EQ(installer.begin().status, 65) << scope << nth;
        }
    }
}

TEST(BeginInstall, RefusesADowngrade)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, planText({alpha("1.9"), beta("2.0")}));
        for (const Plugin& newer : {alpha("1.10"), alpha("1.9.0.1"), alpha("2"), beta("2.0.1")}) {
            install(scope, newer);
            const Tree before = takeTree(placesBesideTheTool());
            EXPECT_EQ(installer.begin(), downgrade) << newer.id << " " << newer.version;
            EXPECT_EQ(changedPaths(before, takeTree(placesBesideTheTool())), layoutOf(scope));
            expectUnchanged(installer, downgrade);
            unregister(scope, newer.vst3.id);
            unregister(scope, newer.au.id);
            removeAll(maintenanceOf(scope));
        }
    }
}

TEST(BeginInstall, RefusesADowngradeOfTheSharedPackage)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        makeLayout(scope);
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
        Package shared = commonPackage();
        shared.files.erase(shared.files.begin());
        for (const char* version : {"8", "10", "7.0.0.1", "999999999"}) {
            shared.version = version;
            install(scope, shared);
            expectUnchanged(installer, commonDowngrade);
        }
        for (const char* version : {"7", "7.0", "6.9", "1"}) {
            shared.version = version;
            install(scope, shared);
            EXPECT_EQ(installer.begin().status, 0) << version;
        }
    }
}

TEST(BeginInstall, IsNotHinderedByANewerSharedPackageInTheOtherScope)
{
    Package shared = commonPackage("9");
    shared.files.erase(shared.files.begin());
    for (const std::string& scope : bothScopes) {
        install(oppositeOf(scope), shared);
        const Installer installer(scope, alphaPlan());
        identifierIn(installer.begin());
        unregister(oppositeOf(scope), shared.id);
    }
}

TEST(BeginInstall, RefusesAProductThatIsInTheOtherScope)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, planText({alpha(), beta()}));
        for (const Plugin& elsewhere : {alpha("1.0"), alpha("9"), beta("0.1")}) {
            install(oppositeOf(scope), elsewhere);
            const Tree before = takeTree(placesBesideTheTool());
            EXPECT_EQ(installer.begin(), migration);
            EXPECT_EQ(changedPaths(before, takeTree(placesBesideTheTool())), layoutOf(scope));
            unregister(oppositeOf(scope), elsewhere.vst3.id);
            unregister(oppositeOf(scope), elsewhere.au.id);
            removeAll(maintenanceOf(scope));
        }
    }
}

TEST(BeginInstall, IsNotHinderedByOtherProductsInEitherScope)
{
    install("user", plugin("gamma", "9"));
    install("system", plugin("delta", "9"));
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        identifierIn(installer.begin());
    }
}

TEST(BeginInstall, ChecksTheSharedPackageThenTheProductsInTheirOrder)
{
    const Installer installer("user", planText({alpha("1.0"), beta("2.0")}));
    makeLayout("user");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    install("user", alpha("1.1"));
    install("system", beta("2.0"));
    expectUnchanged(installer, downgrade);
    install("system", alpha("1.0"));
    expectUnchanged(installer, migration);
    Package shared = commonPackage("8");
    shared.files.erase(shared.files.begin());
    install("user", shared);
    expectUnchanged(installer, commonDowngrade);
}

TEST(BeginInstall, ChecksProductsOfTheOtherScopeBeforeThoseOfItsOwn)
{
    const Installer installer("user", planText({alpha("1.0"), beta("2.0")}));
    makeLayout("user");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    install("system", alpha("1.0"));
    install("user", beta("2.1"));
    expectUnchanged(installer, migration);
}

TEST(BeginInstall, RefusesInconsistentReceiptsOfEitherScope)
{
    for (const std::string& scope : bothScopes)
        for (const std::string& where : bothScopes) {
            const Installer installer(scope, alphaPlan());
            makeLayout(scope);
            writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
            install(where, beta().vst3);
            expectUnchanged(installer, refused("product native receipts are incomplete or inconsistent"));
            unregister(where, beta().vst3.id);
        }
}

TEST(BeginInstall, OfTheSystemScopeDoesNotNeedAUsableHome)
{
    install("user", alpha());
    std::filesystem::rename("/Users/player", "/Users/moved");
    const Installer installer("system", alphaPlan());
    const std::string id = identifierIn(installer.begin());
    makeLink("/Users/player", "moved");
    EXPECT_EQ(installer.begin(), succeeded(id + "\n"));
    removeAll("/Users/player");
    std::filesystem::rename("/Users/moved", "/Users/player");
    EXPECT_EQ(installer.begin(), migration);
}

TEST(BeginInstall, FailsOnAVersionBeyond64Bits)
{
    install("user", alpha("18446744073709551616"));
    const Installer installer("user", alphaPlan());
    makeLayout("user");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    const Tree before = takeExactTree(placesBesideTheTool());
    const Outcome outcome = installer.begin();
    EXPECT_EQ(outcome.status, 70) << outcome;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome;
    EXPECT_EQ(difference(before, takeExactTree(placesBesideTheTool())), "");
}

/// How often the package database is asked to begin an installation of products named by `ids`.
std::size_t callsToBegin(const std::vector<std::string>& ids)
{
    std::vector<Plugin> products;
    for (const std::string& id : ids)
        products.push_back(plugin(id, "1.0"));
    const Installer installer("user", planText(products));
    forgetPkgutilCalls();
    identifierIn(installer.begin());
    removeAll(maintenanceOf("user"));
    return pkgutilCalls().size();
}

TEST(BeginInstall, ReadsTheReceiptsOfAScopeOnceForAllProducts)
{
    install("user", plugin("a", "1.0"));
    install("system", plugin("z", "1.0"));
    EXPECT_EQ(callsToBegin({"a"}), callsToBegin({"a", "b", "c", "d", "e", "f"}));
}

// A descriptor that no command would load.

TEST(BeginInstall, RefusesAPlanWhoseDescriptorWouldHaveTooLongALine)
{
    const std::string path = vst3Path("alpha", "Contents/Resources/");
    const std::string recordedFields = "alpha\tcom.tamarindpelican.pkg.alpha.vst3\t1.0\t";
    const std::size_t longest =
        8192 - std::string("target=").size() - recordedFields.size() - path.size() - 65;
    Plugin fitting = alpha();
    fitting.withVst3File("Contents/Resources/" + std::string(longest, 'x'), "");
    Plugin tooLong = alpha();
    tooLong.withVst3File("Contents/Resources/" + std::string(longest + 1, 'x'), "");
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, planText({tooLong}));
        makeLayout(scope);
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
        expectUnchanged(installer, unsafeDescriptor);
        installer.replacePlan(planText({fitting}));
        EXPECT_EQ(readFile(descriptorOf(scope, identifierIn(installer.begin()))),
                  Work(scope).brings(fitting).text());
    }
}

/// Product alpha with enough files for a descriptor of exactly `size` bytes in the user scope.
Plugin alphaOfDescriptorSize(std::size_t size)
{
    const std::string fields = "target=alpha\tcom.tamarindpelican.pkg.alpha.vst3\t1.0\t";
    const std::size_t rest = fields.size() + vst3Path("alpha", "").size() + 1 + 64 + 1;
    // As long as a file system can still hold them.
    const std::string deep = "/" + std::string(200, 'd');
    Plugin product = alpha();
    std::size_t left = size - Work("user").brings(product).text().size();
    for (int i = 1000; left > 0; ++i) {
        const std::size_t length = left > 2 * 2000 ? 2000 : left > 2000 ? left / 2 : left;
        std::string path = std::to_string(i) + deep + deep + deep + deep + deep + deep + deep + deep + deep;
        path.resize(length - rest, 'e');
        product.withVst3File(path, "");
        left -= length;
    }
    return product;
}

TEST(BeginInstall, RefusesAPlanWhoseDescriptorWouldBeTooLarge)
{
    const Plugin tooLarge = alphaOfDescriptorSize(1048577);
    ASSERT_LT(planText({tooLarge}).size(), 1048576U);
    const Installer installer("user", planText({tooLarge}));
    makeLayout("user");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    expectUnchanged(installer, unsafeDescriptor);
    installer.replacePlan(planText({alphaOfDescriptorSize(1048576)}));
    const std::string id = identifierIn(installer.begin());
    EXPECT_EQ(readFile(descriptorOf("user", id)).size(), 1048576U);
    EXPECT_EQ(run({"inspect", "user", id}), succeeded("{\"status\":\"clean\"}\n"));
}

TEST(BeginInstall, RefusesAPlanWhoseDescriptorWouldBreakARuleOfDescriptors)
{
    Plugin misread = alpha();
    misread.withAuFile("Contents/VST3/x", "");
    const Plugin shared = plugin("common", "7");
    for (const std::string& plan : {planText({misread}), planText({shared})}) {
        const Installer installer("user", plan);
        makeLayout("user");
        writeFile(lockOf("user"), "", {playerUid, 0600});
        expectUnchanged(installer, unsafeDescriptor);
    }
}

// A completed installation.

/// An installation that was begun and completed, with nothing cleaned up.
struct Completed {
    explicit Completed(const std::string& scope)
        : installer(scope, alphaPlan()),
          id(identifierIn(installer.begin())),
          record(Work(scope).brings(alpha()).prepared(id, generationOf('c')))
    {
        for (const std::filesystem::path& path : {completedOf(scope, id), leaseOf(scope)})
            writeFile(path, record, {ownerOf(scope), 0600});
        makeDirectories(transactionOf(scope, id) / "source-files", {ownerOf(scope), 0755});
        writeFile(transactionOf(scope, id) / "prepared", record, {ownerOf(scope), 0600});
    }

    Installer installer;
    std::string id;
    std::string record;
};

TEST(BeginInstall, OfACompletedInstallationCleansUpAndPrintsItsIdentifier)
{
    for (const std::string& scope : bothScopes) {
        const Completed completed(scope);
        const Tree before = takeTree(placesBesideTheTool());
        EXPECT_EQ(completed.installer.begin(), succeeded(completed.id + "\n"));
        const std::filesystem::path transaction = transactionOf(scope, completed.id);
        EXPECT_EQ(changedPaths(before, takeTree(placesBesideTheTool())),
                  (std::vector<std::string>{leaseOf(scope), pendingOf(scope), transaction,
                                            transaction / "prepared", transaction / "source-files"}));
        EXPECT_EQ(readFile(completedOf(scope, completed.id)), completed.record);
        EXPECT_NE(identifierIn(completed.installer.begin()), completed.id);
    }
}

TEST(BeginInstall, OfACompletedInstallationDoesNotLookAtWhatIsInstalledNow)
{
    const Completed completed("user");
    install("user", alpha());
    forgetPkgutilCalls();
    EXPECT_EQ(completed.installer.begin(), succeeded(completed.id + "\n"));
    EXPECT_EQ(pkgutilCalls(), std::vector<std::string>{});
}

TEST(BeginInstall, RefusesAReboundDescriptorOfACompletedInstallation)
{
    for (const std::string& scope : bothScopes) {
        const Completed completed(scope);
        const std::filesystem::path path = descriptorOf(scope, completed.id);
        writeFile(path, changed(readFile(path), "\t-\t", "\t1.0\t"), {ownerOf(scope), 0600});
        expectUnchanged(completed.installer, rebound);
        removeAll(path);
        expectUnchanged(completed.installer, missingDescriptor);
    }
}

TEST(BeginInstall, RefusesACompletionRecordThatIsNotTheInstallations)
{
    const Completed completed("user");
    const std::filesystem::path path = completedOf("user", completed.id);
    const auto expect = [&](const std::string& text, const std::string& message) {
        writeFile(path, text, {playerUid, 0600});
        expectUnchanged(completed.installer, refused(message));
    };
    expect("nonsense", "prepared transaction state is invalid");
    expect(withLine(completed.record, "transaction=", "transaction=other\n"),
           "prepared transaction descriptor binding changed");
    expect(withLine(completed.record, "generation=", "generation=" + generationOf('d') + "\n"),
           "completed transaction has a foreign active lease");
    removeAll(path);
    makeLink(path, "nowhere");
    expectUnchanged(completed.installer, refused("prepared transaction state is missing or unsafe"));
}

TEST(BeginInstall, RefusesWhenTheCompletionRecordVanishesDuringTheRecovery)
{
    const Completed completed("user");
    const std::filesystem::path path = completedOf("user", completed.id);
    EXPECT_EQ(runWhile(
                  SYS_newfstatat, path, 2, [&] { removeAll(path); }, {"begin-install", "user"},
                  completed.installer.surroundings),
              refused("completed installation recovery state changed"));
    EXPECT_TRUE(isThere(pendingOf("user")));
    EXPECT_TRUE(isThere(leaseOf("user")));
}

// Failures and interruptions.

TEST(BeginInstall, OnAFullDiskFailsWithoutATraceAndSucceedsLater)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        mountSmallDisk(maintenanceOf(scope), 65536, {ownerOf(scope), 0755});
        makeLayout(scope);
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
        fillDisk(maintenanceOf(scope));
        expectUnchanged(installer, notWritten);
        removeAll(maintenanceOf(scope) / "filler");
        const std::string id = identifierIn(installer.begin());
        removeAll(descriptorOf(scope, id));
        fillDisk(maintenanceOf(scope));
        expectUnchanged(installer, notWritten);
        removeAll(maintenanceOf(scope) / "filler");
        expectUnchangedBut(installer, succeeded(id + "\n"), descriptorOf(scope, id));
    }
}

TEST(BeginInstall, BeyondAFileSizeLimitFailsAndContinuesLater)
{
    for (const std::string& scope : bothScopes) {
        Installer installer(scope, alphaPlan());
        // The stand-in's log would meet the limit too.
        removeAll("/var/log/pkgutil-stand-in.log");
        makeLayout(scope);
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
        installer.surroundings.largestFile = 100;
        expectUnchanged(installer, notWritten);
        installer.surroundings.largestFile = 700;
        EXPECT_EQ(installer.begin(), notWritten);
        EXPECT_EQ(namesIn(inboxOf(scope)), std::vector<std::string>{});
        const std::string id = fieldOf(readFile(pendingOf(scope)), "transaction");
        installer.surroundings.largestFile.reset();
        expectUnchangedBut(installer, succeeded(id + "\n"), descriptorOf(scope, id));
    }
}

/// Begins an installation afresh that is killed before its `nth` system call `number`; tells whether it was.
bool beginAndKill(const Installer& installer, long number, int nth)
{
    removeAll(maintenanceOf(installer.scope()));
    bool killed = false;
    runStopping(
        {number},
        [&, seen = 0](const SystemCall& call) mutable {
            const bool creates = number != SYS_openat || (call.arguments[2] & O_CREAT) != 0;
            if (killed || !creates || ++seen != nth)
                return 0;
            killed = true;
            return killAt(call);
        },
        {"begin-install", installer.scope()}, installer.surroundings);
    return killed;
}

class KilledBeginInstall : public testing::TestWithParam<std::string> {};

TEST_P(KilledBeginInstall, IsContinuedByTheNextRunWhereverItWas)
{
    const std::string& scope = GetParam();
    const Installer installer(scope, alphaPlan());
    // The stand-in's own files are none of the program's.
    removeAll("/var/log/pkgutil-stand-in.log");
    int kills = 0;
    for (const long number : {SYS_mkdirat, SYS_openat, SYS_fchown, SYS_fchmod, SYS_setresuid, SYS_write,
                              SYS_fsync, SYS_renameat, SYS_renameat2, SYS_unlinkat})
        for (int nth = 1; beginAndKill(installer, number, nth); ++nth) {
            ASSERT_LT(++kills, 500);
            const bool recorded = isThere(pendingOf(scope));
            const std::string pending = recorded ? readFile(pendingOf(scope)) : "";
            const std::string id = identifierIn(installer.begin());
            if (recorded) {
                EXPECT_EQ(id, fieldOf(pending, "transaction"));
            }
            EXPECT_EQ(readFile(descriptorOf(scope, id)), Work(scope).brings(alpha()).text());
            EXPECT_EQ(namesIn(inboxOf(scope)), std::vector<std::string>{id + ".tpmt"})
                << number << " " << nth;
            for (const std::string& path : layoutOf(scope))
                EXPECT_EQ(describe(path),
                          std::filesystem::is_directory(path) ? directoryOf(scope) : metadataFileOf(scope))
                    << path << " " << number << " " << nth;
            expectUnchanged(installer, succeeded(id + "\n"));
        }
    // At least: six directories, three files, two of them published.
    EXPECT_GE(kills, 6 + 3 + 2 * 4);
}

INSTANTIATE_TEST_SUITE_P(InEitherScope, KilledBeginInstall, testing::ValuesIn(bothScopes),
                         [](const auto& scope) { return scope.param; });

TEST(BeginInstall, KilledBetweenTheAttemptAndTheDescriptorPublishesTheDescriptorNextTime)
{
    const Installer installer("user", alphaPlan());
    const Outcome outcome = runStopping(
        {SYS_renameat, SYS_renameat2},
        [](const SystemCall& call) {
            if (call.text(3).ends_with(".tpmt"))
                return killAt(call);
            return 0;
        },
        {"begin-install", "user"}, installer.surroundings);
    EXPECT_EQ(outcome, endedBy(SIGKILL));
    const std::string attempt = readFile(pendingOf("user"));
    const std::string id = fieldOf(attempt, "transaction");
    EXPECT_FALSE(isThere(descriptorOf("user", id)));
    EXPECT_EQ(installer.begin(), succeeded(id + "\n"));
    EXPECT_EQ(readFile(pendingOf("user")), attempt);
    EXPECT_EQ(systemSha256(readFile(descriptorOf("user", id))), fieldOf(attempt, "descriptorSha256"));
    EXPECT_EQ(namesIn(inboxOf("user")), std::vector<std::string>{id + ".tpmt"});
}

/// A system call that fails for the file `name`, and what the run says then.
struct FailingStep {
    long number;
    std::size_t nameArgument;
    std::string message;
};

TEST(BeginInstall, ThatCannotPublishItsAttemptFailsWithoutATrace)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        makeLayout(scope);
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
        const Tree before = takeExactTree(placesBesideTheTool());
        for (const FailingStep& step : {FailingStep{SYS_openat, 1, "cannot create fixed metadata atomically"},
                                        FailingStep{SYS_renameat, 3, "cannot publish fixed metadata"}}) {
            const Outcome outcome = runStopping(
                {step.number},
                [&](const SystemCall& call) {
                    const std::string name = call.text(step.nameArgument);
                    return name == "PendingInstall" || name.starts_with(".PendingInstall.") ? EIO : 0;
                },
                {"begin-install", scope}, installer.surroundings);
            EXPECT_EQ(outcome, failed(step.message));
            EXPECT_EQ(difference(before, takeExactTree(placesBesideTheTool())), "");
        }
    }
}

TEST(BeginInstall, ThatCannotSynchronizeFailsAndIsContinuedByTheNextRun)
{
    // The attempt's file and directory, then the descriptor's.
    const std::vector<std::string> messages = {
        "cannot synchronize fixed metadata", "cannot synchronize fixed metadata directory",
        "cannot synchronize fixed metadata", "cannot synchronize fixed metadata directory"};
    for (std::size_t nth = 0; nth < messages.size(); ++nth) {
        const Installer installer("user", alphaPlan());
        makeLayout("user");
        writeFile(lockOf("user"), "", {playerUid, 0600});
        const Outcome outcome = runStopping(
            {SYS_fsync}, [&, seen = 0U](const SystemCall&) mutable { return seen++ == nth ? EIO : 0; },
            {"begin-install", "user"}, installer.surroundings);
        EXPECT_EQ(outcome, failed(messages[nth])) << nth;
        EXPECT_EQ(isThere(pendingOf("user")), nth > 0);
        const std::size_t published = namesIn(inboxOf("user")).size();
        EXPECT_EQ(published, nth == 3 ? 1U : 0U);
        const std::string pending = nth > 0 ? readFile(pendingOf("user")) : "";
        const std::string id = identifierIn(installer.begin());
        if (nth > 0) {
            EXPECT_EQ(id, fieldOf(pending, "transaction"));
        }
        EXPECT_EQ(namesIn(inboxOf("user")), std::vector<std::string>{id + ".tpmt"});
        removeAll(maintenanceOf("user"));
    }
}

TEST(BeginInstall, RefusesAnUnsafeLock)
{
    for (const std::string& scope : bothScopes) {
        const Installer installer(scope, alphaPlan());
        makeLayout(scope);
        writeFile(lockOf(scope), "", {ownerOf(scope), 0666});
        expectUnchanged(installer, refused("maintenance lock is unsafe"));
        removeAll(lockOf(scope));
        makeLink(lockOf(scope), "Inbox");
        expectUnchanged(installer, refused("maintenance lock is unsafe"));
    }
}

TEST(BeginInstall, RefusesADatabaseThatDoesNotAnswer)
{
    const Installer installer("user", alphaPlan());
    makeLayout("user");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    instructPkgutil("do exit=2\n");
    expectUnchanged(installer, refused("pkgutil cannot enumerate authoritative package receipts"));
}

TEST(BeginInstall, RefusesAnotherAccountAtTheConsoleInTheMiddleOfIt)
{
    const Installer installer("user", alphaPlan());
    makeLayout("user");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    const std::string seat = "/run/systemd/seats/seat0";
    setConsole(502);
    std::filesystem::copy_file(seat, "/tmp/other");
    setNobodyAtConsole();
    std::filesystem::copy_file(seat, "/tmp/nobody");
    for (const std::string answer : {"/tmp/other", "/tmp/nobody"}) {
        setConsole(501);
        instructPkgutil("call=1 do before=\"cat " + answer + " > " + seat + "\"\n");
        expectUnchanged(installer, refused("cannot resolve the invoking console account"));
    }
}

TEST(BeginInstall, WithoutRandomNumbersFails)
{
    const Installer installer("user", alphaPlan());
    makeLayout("user");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    const Tree before = takeExactTree(placesBesideTheTool());
    // The standard library asks for a few bytes of its own.
    const Outcome outcome = runStopping(
        {SYS_getrandom}, [](const SystemCall& call) { return call.arguments[1] == 32 ? EIO : 0; },
        {"begin-install", "user"}, installer.surroundings);
    EXPECT_EQ(outcome, failed("cannot create a durable transaction generation"));
    EXPECT_EQ(difference(before, takeExactTree(placesBesideTheTool())), "");
}

} // namespace
} // namespace maintenance::rehearsed
