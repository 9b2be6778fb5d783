#include "plan/edited_text.h"
#include "plan/installing.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const std::vector<std::string> bothScopes = {"user", "system"};
const std::vector<std::string> descriptorCommands = {"inspect", "prepare-move", "commit-move",
                                                     "rollback-move", "uninstall-product"};
const Outcome clean = succeeded("{\"status\":\"clean\"}\n");
const Outcome noInbox = notLocated("maintenance descriptor directory is missing or unsafe");
const Outcome noDescriptor = notLocated("maintenance descriptor is missing or unsafe");
const Outcome redirected = refused("fixed maintenance directory is missing or redirected");
const Outcome unsafeMode = refused("maintenance directory ownership or mode is unsafe");
const Outcome unsafeOwner = refused("maintenance directory ownership is unsafe");

Plugin alpha() { return plugin("alpha", "1.0"); }

/// Requires this outcome of every descriptor command, and no change on disk.
void expectOfAll(const std::string& scope, const Outcome& expected)
{
    const Tree before = takeExactTree();
    for (const std::string& command : descriptorCommands)
        EXPECT_EQ(run({command, scope, "probe-1"}), expected) << command << " " << scope;
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

// Where the descriptor is.

TEST(DescriptorLocation, WithoutAnInboxIsRefusedAndNothingIsCreated)
{
    for (const std::string& scope : bothScopes) {
        expectOfAll(scope, noInbox);
        makeDirectories(supportOf(scope), {ownerOf(scope), 0755});
        expectOfAll(scope, noInbox);
        makeDirectories(maintenanceOf(scope), {ownerOf(scope), 0755});
        expectOfAll(scope, noInbox);
        makeDirectories(inboxOf(scope), {ownerOf(scope), 0755});
        expectOfAll(scope, noDescriptor);
    }
}

TEST(DescriptorLocation, BehindALinkIsRefused)
{
    for (const std::string& scope : bothScopes) {
        publish(Work(scope).brings(alpha()), "probe-1");
        // From the inbox up to the directory below the scope root.
        std::filesystem::path place = inboxOf(scope);
        for (; place.parent_path() != rootOf(scope); place = place.parent_path()) {
            const std::filesystem::path aside = place.parent_path() / "aside";
            std::filesystem::rename(place, aside);
            makeLink(place, "aside");
            EXPECT_EQ(run({"inspect", scope, "probe-1"}), noInbox) << place;
            removeAll(place);
            std::filesystem::rename(aside, place);
        }
        EXPECT_EQ(run({"inspect", scope, "probe-1"}), clean);
    }
}

TEST(DescriptorLocation, InAHomeBehindALinkIsRefused)
{
    publish(Work("user").brings(alpha()), "probe-1");
    std::filesystem::rename("/Users/player", "/Users/moved");
    makeLink("/Users/player", "moved");
    expectOfAll("user", noInbox);
    removeAll("/Users/player");
    expectOfAll("user", noInbox);
}

TEST(DescriptorLocation, BelowAnythingButADirectoryIsRefused)
{
    for (const std::string& scope : bothScopes)
        for (const std::filesystem::path& place : {inboxOf(scope), maintenanceOf(scope), supportOf(scope)}) {
            const std::vector<std::function<void()>> plants = {
                [&] {
                    writeFile(place, "text", {ownerOf(scope), 0600});
                },
                [&] { makeLink(place, "nowhere"); },
                [&] { makeLink(place, place.filename()); },
                [&] { makePipe(place, ownerOf(scope)); },
                [&] { makeSocket(place, ownerOf(scope)); },
            };
            makeDirectories(place.parent_path(), {ownerOf(scope), 0755});
            for (const auto& plant : plants) {
                removeAll(place);
                plant();
                const Tree before = takeExactTree();
                EXPECT_EQ(run({"inspect", scope, "probe-1"}), noInbox) << place << " " << describe(place);
                EXPECT_EQ(difference(before, takeExactTree()), "");
            }
            removeAll(place);
        }
}

TEST(DescriptorLocation, OfAnythingButASingleLinkedFileIsRefused)
{
    for (const std::string& scope : bothScopes) {
        publish(Work(scope).brings(alpha()), "aside");
        const std::filesystem::path path = descriptorOf(scope, "probe-1");
        const std::vector<std::function<void()>> plants = {
            [] {},
            [&] { makeLink(path, "aside.tpmt"); },
            [&] { makeLink(path, "nowhere"); },
            [&] { makeHardLink(path, descriptorOf(scope, "aside")); },
            [&] {
                makeDirectories(path, {ownerOf(scope), 0755});
            },
            [&] { makePipe(path, ownerOf(scope)); },
            [&] { makeSocket(path, ownerOf(scope)); },
        };
        for (const auto& plant : plants) {
            plant();
            SCOPED_TRACE(describe(path));
            expectOfAll(scope, noDescriptor);
            removeAll(path);
        }
        EXPECT_EQ(run({"inspect", scope, "aside"}), clean);
    }
}

TEST(DescriptorLocation, IsThatOfItsOwnScopeAndName)
{
    publish(Work("user").brings(alpha()), "probe-1");
    makeLayout("system");
    EXPECT_EQ(run({"inspect", "system", "probe-1"}), noDescriptor);
    for (const char* name : {"probe-2", "probe", "probe-11", "probe-1-tpmt"})
        EXPECT_EQ(run({"inspect", "user", name}), noDescriptor) << name;
    std::filesystem::rename(descriptorOf("user", "probe-1"), inboxOf("user") / "probe-1");
    EXPECT_EQ(run({"inspect", "user", "probe-1"}), noDescriptor);
}

TEST(DescriptorLocation, IsCheckedBeforeTheDescriptorItself)
{
    publishText("user", "nonsense", "probe-1");
    setMode(descriptorOf("user", "probe-1"), 0666);
    makeHardLink(inboxOf("user") / "twin", descriptorOf("user", "probe-1"));
    expectOfAll("user", noDescriptor);
    removeAll(inboxOf("user") / "twin");
    expectOfAll("user", refused("maintenance descriptor permissions are unsafe"));
    setMode(descriptorOf("user", "probe-1"), 0600);
    expectOfAll("user", refused("maintenance descriptor contains an invalid field"));
}

TEST(DescriptorLocation, OfTheUserScopeNeedsAnAccount)
{
    publish(Work("user").brings(alpha()), "probe-1");
    publish(Work("system").brings(alpha()), "probe-1");
    const Outcome noAccount = refused("cannot resolve the invoking console account");
    setNobodyAtConsole();
    expectOfAll("user", noAccount);
    setConsole(0);
    expectOfAll("user", noAccount);
    setConsole(4294967295U);
    expectOfAll("user", noAccount);
    removeLoginManager();
    expectOfAll("user", noAccount);
    EXPECT_EQ(run({"inspect", "system", "probe-1"}), clean);
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, asPlayer()), clean);
}

TEST(DescriptorLocation, OfTheUserScopeNeedsAHomeOfTheAccount)
{
    publish(Work("user").brings(alpha()), "probe-1");
    setConsole(4242);
    expectOfAll("user", refused("cannot resolve the invoking account home"));
}

TEST(DescriptorLocation, IsInTheHomeOfTheAccountAtTheConsole)
{
    publish(Work("user").brings(alpha()), "probe-1");
    setConsole(502);
    EXPECT_EQ(run({"inspect", "user", "probe-1"}), noInbox);
    setConsole(501);
    EXPECT_EQ(run({"inspect", "user", "probe-1"}), clean);
}

// The layout.

TEST(DescriptorLayout, IsCompletedInTheTargetScopeOnlyWithoutASource)
{
    for (const std::string& scope : bothScopes) {
        publish(Work(scope).brings(alpha()), "probe-1");
        std::vector<std::string> removed;
        for (const char* name : {"Completed", "NativeReceipts", "Products", "Transactions"}) {
            removed.push_back(maintenanceOf(scope) / name);
            removeAll(removed.back());
        }
        const Tree before = takeTree();
        EXPECT_EQ(run({"inspect", scope, "probe-1"}), clean);
        EXPECT_EQ(changedPaths(before, takeTree()), removed);
        for (const std::string& place : removed)
            EXPECT_EQ(describe(place), directoryOf(scope));
        removeAll(supportOf(scope));
    }
}

TEST(DescriptorLayout, IsCreatedInTheSourceScopeToo)
{
    for (const std::string& scope : bothScopes) {
        const std::string source = oppositeOf(scope);
        publishText(scope, Work(scope).from(source).brings(alpha()).text(), "probe-1");
        const Tree before = takeTree();
        EXPECT_EQ(run({"inspect", scope, "probe-1"}), clean);
        const std::string root = maintenanceOf(source);
        EXPECT_EQ(
            changedPaths(before, takeTree()),
            (std::vector<std::string>{supportOf(source), root, root + "/Completed", root + "/Inbox",
                                      root + "/NativeReceipts", root + "/Products", root + "/Transactions"}));
        EXPECT_EQ(describe(root + "/Products"), directoryOf(source));
        removeAll(supportOf("user"));
        removeAll(supportOf("system"));
    }
}

TEST(DescriptorLayout, OfAnUnsafeTargetScopeIsRefused)
{
    for (const std::string& scope : bothScopes)
        for (const char* name : {"", "Inbox", "Transactions", "Products", "NativeReceipts", "Completed"}) {
            publish(Work(scope).brings(alpha()), "probe-1");
            const std::filesystem::path place = maintenanceOf(scope) / name;
            setMode(place, 0777);
            EXPECT_EQ(run({"inspect", scope, "probe-1"}), unsafeMode) << place;
            setMode(place, 0755);
            setOwner(place, 502);
            EXPECT_EQ(run({"inspect", scope, "probe-1"}), unsafeOwner) << place;
            removeAll(supportOf(scope));
        }
}

TEST(DescriptorLayout, AboveTheDescriptorThatIsRootsIsRefusedByItsOwnerWhateverItsMode)
{
    for (const char* name :
         {"Library", "Library/Application Support", "Library/Application Support/Tamarind Pelican",
          "Library/Application Support/Tamarind Pelican/Maintenance",
          "Library/Application Support/Tamarind Pelican/Maintenance/Inbox"})
        for (const mode_t mode : {0700u, 0711u, 0755u}) {
            publish(Work("user").brings(alpha()), "probe-1");
            setOwner(rootOf("user") / name, rootUid);
            setMode(rootOf("user") / name, mode);
            EXPECT_EQ(run({"inspect", "user", "probe-1"}), unsafeOwner) << name << " " << mode;
            setOwner(rootOf("user") / name, playerUid);
        }
}

TEST(DescriptorLayout, AboveTheDescriptorThatItsAccountCannotListIsRefused)
{
    publish(Work("user").brings(alpha()), "probe-1");
    setMode(maintenanceOf("user") / "Inbox", 0311);
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, asPlayer()),
              refused("fixed maintenance directory is missing or redirected"));
}

TEST(DescriptorLayout, OfAnUnsafeOtherScopeIsRefusedOnlyForASource)
{
    for (const std::string& scope : bothScopes) {
        const std::string other = oppositeOf(scope);
        publish(Work(scope).from(other).brings(alpha()), "probe-1");
        publish(Work(scope).brings(alpha()), "probe-2");
        setMode(maintenanceOf(other) / "Completed", 0777);
        expectOfAll(scope, unsafeMode);
        EXPECT_EQ(run({"inspect", scope, "probe-2"}), clean);
        removeAll(supportOf("user"));
        removeAll(supportOf("system"));
    }
}

TEST(DescriptorLayout, OfTheTargetIsCheckedBeforeThatOfTheSource)
{
    for (const std::string& scope : bothScopes) {
        publish(Work(scope).from(oppositeOf(scope)).brings(alpha()), "probe-1");
        setOwner(maintenanceOf(scope) / "Completed", 502);
        setMode(maintenanceOf(oppositeOf(scope)), 0777);
        expectOfAll(scope, unsafeOwner);
        removeAll(supportOf("user"));
        removeAll(supportOf("system"));
    }
}

TEST(DescriptorLayout, IsCheckedAfterTheDescriptor)
{
    publishText("user", "nonsense", "probe-1");
    setMode(inboxOf("user"), 0777);
    removeAll(maintenanceOf("user") / "Completed");
    expectOfAll("user", refused("maintenance descriptor contains an invalid field"));
}

// The commands.

TEST(Dispatch, CarriesOutTheNamedCommandAndOnlyInspectHasAResult)
{
    for (const std::string& scope : bothScopes) {
        install(scope, commonPackage());
        publish(Work(scope).brings(alpha()), "first");
        const Tree before = takeExactTree();
        EXPECT_EQ(run({"inspect", scope, "first"}), clean);
        EXPECT_EQ(difference(before, takeExactTree()), "");

        EXPECT_EQ(run({"prepare-move", scope, "first"}), succeeded());
        EXPECT_EQ(describe(leaseOf(scope)), metadataFileOf(scope));
        EXPECT_EQ(run({"rollback-move", scope, "first"}), succeeded());
        EXPECT_EQ(describe(leaseOf(scope)), "nothing");

        publish(Work(scope).brings(alpha()), "second");
        EXPECT_EQ(run({"prepare-move", scope, "second"}), succeeded());
        install(scope, alpha());
        EXPECT_EQ(run({"commit-move", scope, "second"}), succeeded());
        EXPECT_EQ(describe(recordOf(scope, "alpha")), metadataFileOf(scope));
        EXPECT_EQ(run({"inspect", scope, "second"}), succeeded("{\"status\":\"repair\"}\n"));

        publish(Work(scope).brings(alpha(), "1.0"), "third");
        EXPECT_EQ(run({"uninstall-product", scope, "third"}), succeeded());
        EXPECT_FALSE(isRegistered(scope, alpha().vst3.id));
        EXPECT_EQ(describe(rootOf(scope) / vst3Path("alpha")), "nothing");
    }
}

TEST(Dispatch, EndsWithTheMessageOfTheCommandThatRefuses)
{
    publish(Work("user").brings(alpha()), "probe-1");
    placeFiles("user", alpha());
    EXPECT_EQ(run({"inspect", "user", "probe-1"}),
              refused("manual installation collision requires adopt or replace"));
    EXPECT_EQ(run({"prepare-move", "user", "probe-1"}),
              refused("manual installation collision requires adopt or replace"));
    EXPECT_EQ(run({"commit-move", "user", "probe-1"}), redirected);
    EXPECT_EQ(run({"rollback-move", "user", "probe-1"}), redirected);
    EXPECT_EQ(run({"uninstall-product", "user", "probe-1"}),
              refused("uninstall descriptor does not match the installed product"));
}

TEST(Dispatch, EndsWithStatus70WhenTheStandardLibraryFails)
{
    const Plugin huge = plugin("alpha", "18446744073709551616");
    install("user", huge);
    publish(Work("user").brings(huge, "1.0"), "probe-1");
    for (const char* command : {"inspect", "prepare-move"}) {
        const Outcome outcome = run({command, "user", "probe-1"});
        EXPECT_EQ(outcome.status, 70) << outcome;
        EXPECT_EQ(outcome.out, "");
        EXPECT_GT(outcome.err.size(), 1U);
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome;
        EXPECT_EQ(outcome.err.back(), '\n');
    }
}

TEST(Dispatch, EndsWithStatus70WhenAPathCannotBeExamined)
{
    publish(Work("user").brings(alpha()), "probe-1");
    const std::string path = std::string("/Users/player/") + vst3Path("alpha");
    const Outcome outcome = runFailing(SYS_newfstatat, path, EIO, {"inspect", "user", "probe-1"});
    EXPECT_EQ(outcome.status, 70) << outcome;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome;
}

TEST(Dispatch, WorksForTheAccountItselfInItsOwnScope)
{
    publish(Work("user").brings(alpha()), "probe-1");
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, asPlayer()), clean);
    EXPECT_EQ(run({"prepare-move", "user", "probe-1"}, asPlayer()), succeeded());
    EXPECT_EQ(describe(leaseOf("user")), "file 501 0600");
    EXPECT_EQ(run({"rollback-move", "user", "probe-1"}, asPlayer()), succeeded());
}

} // namespace
} // namespace maintenance::rehearsed
