#include "fs/scope.h"

#include "support/child.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;

const Ending noConsole = invalid("cannot resolve the invoking console account");
const Ending noHome = invalid("cannot resolve the invoking account home");
const std::string nowhere = "in neither scope";

/// The invoking account as a process of `account` sees it: uid and home.
Ending invokingAccount(uid_t account)
{
    return asAccount(account, [] { return std::to_string(invokingAccountUid()) + " " + invokingHome(); });
}

std::string located(const std::string& path)
{
    const auto place = fixedLocation(path);
    return place ? place->scope + ":" + place->relative : nowhere;
}

void addAccount(const std::string& record)
{
    writeFile("/etc/passwd", readFile("/etc/passwd") + record + "\n");
}

TEST(InvokingAccount, OfARootRunIsTheOneAtTheConsole)
{
    EXPECT_EQ(invokingAccount(0), returned("501 /Users/player"));
    setConsole(502);
    EXPECT_EQ(invokingAccount(0), returned("502 /Users/other"));
}

TEST(InvokingAccount, OfAnOrdinaryRunIsItsOwnWhoeverIsAtTheConsole)
{
    setConsole(502);
    EXPECT_EQ(invokingAccount(501), returned("501 /Users/player"));
    setNobodyAtConsole();
    EXPECT_EQ(invokingAccount(501), returned("501 /Users/player"));
    removeLoginManager();
    EXPECT_EQ(invokingAccount(501), returned("501 /Users/player"));
    EXPECT_EQ(invokingAccount(502), returned("502 /Users/other"));
}

TEST(InvokingAccount, OfARootRunIsRefusedWithoutAnAccountAtTheConsole)
{
    setNobodyAtConsole();
    EXPECT_EQ(invokingAccount(0), noConsole);
    setConsole(0);
    EXPECT_EQ(invokingAccount(0), noConsole);
    setConsole(4294967295u);
    EXPECT_EQ(invokingAccount(0), noConsole);
    removeLoginManager();
    EXPECT_EQ(invokingAccount(0), noConsole);
}

TEST(InvokingAccount, IsFoundWhereTheRecordsCannotBeReadJustOnce)
{
    for (const int error : {EIO, ENOMEM, EACCES}) {
        int opened = 0;
        const auto failOnce = [&](const SystemCall& call) {
            return call.is(SYS_openat, "/etc/passwd") && ++opened == 1 ? error : 0;
        };
        EXPECT_EQ(stopping({SYS_openat}, failOnce, [] { return invokingHome(); }), returned("/Users/player"))
            << error;
        EXPECT_EQ(opened, 2) << error;
    }
}

TEST(InvokingAccount, OfWhoseRecordsNothingIsSaidIsNotTakenForNobody)
{
    for (const int error : {EIO, EMFILE, ENFILE, ENOMEM}) {
        const auto fail = [&](const SystemCall& call) {
            return call.is(SYS_newfstatat, "/etc/nsswitch.conf") ? error : 0;
        };
        EXPECT_EQ(stopping({SYS_newfstatat}, fail, [] { return invokingHome(); }),
                  runtimeError("cannot resolve the invoking account home"))
            << error;
    }
}

TEST(InvokingAccount, ThatChangesDuringARunIsRefusedUntilItIsTheFirstOneAgain)
{
    EXPECT_EQ(invokingAccountUid(), playerUid);
    setConsole(502);
    EXPECT_EQ(endingOf([] { invokingAccountUid(); }), noConsole);
    EXPECT_EQ(endingOf([] { invokingHome(); }), noConsole);
    setNobodyAtConsole();
    EXPECT_EQ(endingOf([] { invokingAccountUid(); }), noConsole);
    setConsole(playerUid);
    EXPECT_EQ(invokingAccountUid(), playerUid);
}

TEST(InvokingHome, IsTheAccountDatabasesTextUnchanged)
{
    addAccount("odd:x:777:20:::/bin/sh");
    addAccount("slashed:x:778:20::/Users//odd/./:/bin/sh");
    setConsole(778);
    EXPECT_EQ(invokingAccount(0), returned("778 /Users//odd/./"));
}

TEST(InvokingHome, IsRefusedWithoutARecordOrAHomeInIt)
{
    setConsole(776);
    EXPECT_EQ(invokingAccount(0), noHome);
    addAccount("homeless:x:777:20:::/bin/sh");
    setConsole(777);
    EXPECT_EQ(invokingAccount(0), noHome);
    EXPECT_EQ(invokingAccount(777), noHome);
    addAccount("far:x:779:20::/" + std::string(100000, 'x') + ":/bin/sh");
    setConsole(779);
    EXPECT_EQ(invokingAccount(0), noHome);
}

TEST(InvokingHome, IsNotTakenFromTheEnvironment)
{
    ASSERT_EQ(::setenv("HOME", "/Users/other", 1), 0);
    ASSERT_EQ(::setenv("USER", "other", 1), 0);
    EXPECT_EQ(invokingHome(), "/Users/player");
}

TEST(ScopeRootAndOwner, FollowTheWordAndEveryOtherWordIsTheSystem)
{
    EXPECT_EQ(scopeRoot("user"), "/Users/player");
    EXPECT_EQ(scopeOwner("user"), playerUid);
    for (const char* word : {"system", "none", "User", ""}) {
        EXPECT_EQ(scopeRoot(word), "/") << word;
        EXPECT_EQ(scopeOwner(word), rootUid) << word;
    }
    EXPECT_EQ(oppositeScope("user"), "system");
    EXPECT_EQ(oppositeScope("system"), "user");
}

TEST(MaintenanceRoot, LiesBelowTheScopeRoot)
{
    const std::string below = "Library/Application Support/Tamarind Pelican/Maintenance";
    EXPECT_EQ(maintenanceRoot("user"), "/Users/player/" + below);
    EXPECT_EQ(maintenanceRoot("system"), "/" + below);
    EXPECT_EQ(activePath("user"), "/Users/player/" + below + "/ActiveTransaction");
    EXPECT_EQ(activePath("system"), "/" + below + "/ActiveTransaction");
}

TEST(FixedLocation, TellsScopeAndRelativePath)
{
    const std::vector<std::pair<std::string, std::string>> examples = {
        {"/Library/Audio/Plug-Ins/Components/X.component",
         "system:Library/Audio/Plug-Ins/Components/X.component"},
        {"/Library/x", "system:Library/x"},
        {"/Library/", "system:Library/"},
        {"/Library", nowhere},
        {"/library/x", nowhere},
        {"/LibraryX/x", nowhere},
        {"/System/Library/x", nowhere},
        {"/x/../Library/./a//b", "system:Library/a/b"},
        {"/Library/../etc/passwd", nowhere},
        {"/Library/../../Library/x", "system:Library/x"},
        {"/Users/player", nowhere},
        {"/Users/player/", nowhere},
        {"/Users/player/.", nowhere},
        {"/Users/player/x/..", nowhere},
        {"/Users/player/Library/x", "user:Library/x"},
        {"/Users/player/x", "user:x"},
        {"/Users/other/../player/Library/x", "user:Library/x"},
        {"/Users/player/../player/x", "user:x"},
        {"/Users/player/../other/x", nowhere},
        {"/Users/player2/x", nowhere},
        {"/Users/other/Library/x", nowhere},
        {"/Users/player/..x/y", nowhere},
        {"/Users/player/..", nowhere},
        {"/Users/player/.x", "user:.x"},
        {"/etc/passwd", nowhere},
        {"/", nowhere},
        {"", nowhere},
        {"Library/x", nowhere},
    };
    for (const auto& [path, place] : examples)
        EXPECT_EQ(located(path), place) << path;
}

TEST(FixedLocation, NeedsTheConsoleAccountOnlyOutsideTheSystemsLibrary)
{
    setNobodyAtConsole();
    EXPECT_EQ(asAccount(0, [] { return located("/Library/x"); }), returned("system:Library/x"));
    EXPECT_EQ(asAccount(0, [] { return located("/etc/x"); }), noConsole);
}

TEST(FixedPlace, IsComposedAndResolved)
{
    EXPECT_EQ(absolutePath({"user", "Library/x"}), "/Users/player/Library/x");
    EXPECT_EQ(absolutePath({"system", "Library/x"}), "/Library/x");
    const FixedPlace inner = below({"user", "Library/x"}, "y");
    EXPECT_EQ(inner.scope + ":" + inner.relative, "user:Library/x/y");
    EXPECT_EQ(placeInScope("system", "/Library/x/y").relative, "Library/x/y");
    EXPECT_EQ(placeInScope("user", "/Users/player/a").relative, "a");
    EXPECT_EQ(placeInScope("user", "/Users/other/a").relative, "../other/a");
}

} // namespace
} // namespace maintenance::rehearsed
