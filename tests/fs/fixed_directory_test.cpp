#include "fs/fixed_directory.h"

#include "support/child.h"
#include "support/scene.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

const std::string maintenancePath{maintenanceDirectory};
const Ending redirected = invalid("fixed maintenance directory is missing or redirected");
const Ending unsafeRoot = invalid("scope root is missing or unsafe");
const Ending unsafeMode = invalid("maintenance directory ownership or mode is unsafe");
const Ending unsafeOwner = invalid("maintenance directory ownership is unsafe");
const Ending notCreated = invalid("cannot create fixed maintenance directory");
const Ending notAssigned = invalid("cannot assign fixed maintenance ownership");

constexpr bool create = true;
constexpr bool check = true;

/// The path that an open directory has.
std::string pathOf(const OwnedFd& directory)
{
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(directory.get())).native();
}

Ending opening(const std::string& scope, const std::string& path, bool creating, bool checking)
{
    return endingOf([&] { return pathOf(openFixedDirectory(scope, path, creating, checking)); });
}

/// The layout down to the maintenance directory, in both scopes.
void makeMaintenance()
{
    makeDirectories(maintenanceOf("user"), {playerUid, 0755});
    makeDirectories(maintenanceOf("system"), {rootUid, 0755});
}

TEST(FixedDirectory, IsCreatedInEveryMissingComponentForTheScopesOwner)
{
    for (const std::string scope : {"user", "system"}) {
        EXPECT_EQ(opening(scope, maintenancePath + "/Inbox", create, check), returned(inboxOf(scope)));
        EXPECT_EQ(describe(supportOf(scope)), directoryOf(scope));
        EXPECT_EQ(describe(maintenanceOf(scope)), directoryOf(scope));
        EXPECT_EQ(describe(inboxOf(scope)), directoryOf(scope));
    }
    EXPECT_EQ(describe("/Users/player/Library"), "dir 501 0700");
    EXPECT_EQ(describe("/Library/Application Support"), "dir 0 0755");
}

TEST(FixedDirectory, CreatedByTheAccountItselfIsItsOwn)
{
    EXPECT_EQ(asAccount(playerUid, [] { openFixedDirectory("user", maintenancePath, create, check); }),
              returned());
    EXPECT_EQ(describe(supportOf("user")), "dir 501 0755");
    EXPECT_EQ(describe(maintenanceOf("user")), "dir 501 0755");
}

TEST(FixedDirectory, IsCreatedWithTheModeThatTheUmaskLeaves)
{
    ::umask(0);
    openFixedDirectory("user", "Library/a", create, check);
    openFixedDirectory("system", "Library/a", create, check);
    ::umask(077);
    openFixedDirectory("user", "Library/b", create, check);
    openFixedDirectory("system", "Library/b", create, check);
    ::umask(022);
    EXPECT_EQ(describe("/Users/player/Library/a"), "dir 501 0755");
    EXPECT_EQ(describe("/Library/a"), "dir 0 0755");
    EXPECT_EQ(describe("/Users/player/Library/b"), "dir 501 0700");
    EXPECT_EQ(describe("/Library/b"), "dir 0 0700");
}

TEST(FixedDirectory, KeepsItsGroupWhenItIsGivenAway)
{
    openFixedDirectory("user", "Library/a", create, check);
    struct stat status {};
    ASSERT_EQ(::stat("/Users/player/Library/a", &status), 0);
    EXPECT_EQ(status.st_gid, ::getegid());
}

TEST(FixedDirectory, ThatIsThereIsOpenedAndLeftAsItIs)
{
    makeMaintenance();
    setMode(maintenanceOf("user"), 0700);
    const Tree before = takeExactTree();
    for (const bool creating : {false, true})
        for (const bool checking : {false, true})
            for (const std::string scope : {"user", "system"})
                EXPECT_EQ(opening(scope, maintenancePath, creating, checking),
                          returned(maintenanceOf(scope)));
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(FixedDirectory, WithAnEmptyPathIsTheScopeRoot)
{
    EXPECT_EQ(opening("user", "", false, check), returned("/Users/player"));
    EXPECT_EQ(opening("system", "", false, check), returned("/"));
    EXPECT_EQ(opening("none", "", create, check), returned("/"));
}

TEST(FixedDirectory, IsClosedWhenAnotherProgramIsRun)
{
    makeMaintenance();
    for (const std::string& path : {std::string(), maintenancePath, std::string("Library/new")}) {
        const OwnedFd directory = openFixedDirectory("user", path, create, check);
        EXPECT_EQ(::fcntl(directory.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << path;
    }
}

TEST(FixedDirectory, ThatIsMissingIsRefusedWithoutCreation)
{
    const Tree before = takeTree();
    EXPECT_EQ(opening("user", maintenancePath, false, check), redirected);
    EXPECT_EQ(opening("system", maintenancePath, false, false), redirected);
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(FixedDirectory, InWhosePlaceSomethingElseStandsIsRefusedAlsoWithCreation)
{
    makeDirectories(supportOf("user"), {playerUid, 0755});
    makeDirectories("/Users/player/elsewhere", {playerUid, 0755});
    const std::filesystem::path place = maintenanceOf("user");
    const std::vector<std::function<void()>> plants = {
        [&] { makeLink(place, "/Users/player/elsewhere"); },
        [&] { makeLink(place, "nowhere"); },
        [&] { makeLink(place, "Maintenance"); },
        [&] {
            writeFile(place, "text", {playerUid, 0644});
        },
        [&] { makePipe(place, playerUid); },
        [&] { makeSocket(place, playerUid); },
    };
    for (const auto& plant : plants) {
        plant();
        const Tree before = takeTree();
        for (const bool creating : {false, true})
            for (const bool checking : {false, true}) {
                EXPECT_EQ(opening("user", maintenancePath, creating, checking), redirected)
                    << describe(place);
                EXPECT_EQ(opening("user", maintenancePath + "/Inbox", creating, checking), redirected);
            }
        EXPECT_EQ(difference(before, takeTree()), "");
        removeAll(place);
    }
}

TEST(FixedDirectory, ReachedThroughALinkedParentIsRefused)
{
    makeMaintenance();
    std::filesystem::rename("/Users/player/Library", "/Users/player/moved");
    makeLink("/Users/player/Library", "moved");
    for (const bool creating : {false, true})
        EXPECT_EQ(opening("user", maintenancePath, creating, check), redirected);
}

TEST(FixedDirectory, OfAnOddNameIsRefusedAndNothingIsCreated)
{
    makeMaintenance();
    const std::string nul(1, '\0');
    const Tree before = takeTree();
    for (const std::string& path :
         {std::string("/"), std::string("/Library"), std::string("Library/"), std::string("Library//x"),
          std::string("."), std::string(".."), std::string("./Library"), std::string("Library/./x"),
          std::string("Library/../x"), std::string("Library/.."), nul, "Library/x" + nul + "y",
          "Library/" + std::string(300, 'n'), "Library/" + std::string(100000, 'n')})
        for (const std::string scope : {"user", "system"})
            EXPECT_EQ(opening(scope, path, create, false), redirected) << path.substr(0, 20);
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(FixedDirectory, WritableForGroupOrOthersIsRefusedWhenChecked)
{
    makeMaintenance();
    for (const std::string scope : {"user", "system"})
        for (const mode_t mode : {0775u, 0757u, 0777u, 01777u, 0720u, 0702u}) {
            for (const std::filesystem::path& place : {supportOf(scope), maintenanceOf(scope)}) {
                setMode(place, mode);
                EXPECT_EQ(opening(scope, maintenancePath, create, check), unsafeMode) << describe(place);
                EXPECT_EQ(opening(scope, maintenancePath, false, false), returned(maintenanceOf(scope)));
                setMode(place, 0755);
            }
        }
}

TEST(FixedDirectory, OfAnotherOwnerIsRefusedWhenChecked)
{
    makeMaintenance();
    for (const std::string scope : {"user", "system"})
        for (const uid_t owner : {0u, 501u, 502u}) {
            setOwner(maintenanceOf(scope), owner);
            const Ending expected = owner == ownerOf(scope) ? returned(maintenanceOf(scope)) : unsafeOwner;
            EXPECT_EQ(opening(scope, maintenancePath, create, check), expected) << scope << " " << owner;
            EXPECT_EQ(opening(scope, maintenancePath, create, false), returned(maintenanceOf(scope)));
        }
}

TEST(FixedDirectory, OfAnotherOwnerAndWritableForOthersIsRefusedForItsMode)
{
    makeMaintenance();
    setOwner(maintenanceOf("user"), rootUid);
    setMode(maintenanceOf("user"), 0777);
    EXPECT_EQ(opening("user", maintenancePath, false, check), unsafeMode);
}

TEST(FixedDirectory, NeedsASafeScopeRootWhenChecked)
{
    makeMaintenance();
    const std::vector<std::pair<std::string, std::string>> roots = {{"user", "/Users/player"},
                                                                    {"system", "/"}};
    for (const auto& [scope, root] : roots) {
        setMode(root, 0775);
        EXPECT_EQ(opening(scope, maintenancePath, create, check), unsafeMode) << scope;
        EXPECT_EQ(opening(scope, "", false, check), unsafeMode) << scope;
        EXPECT_EQ(opening(scope, maintenancePath, false, false), returned(maintenanceOf(scope)));
        setMode(root, 0755);
        setOwner(root, 502);
        EXPECT_EQ(opening(scope, maintenancePath, create, check), unsafeOwner) << scope;
        EXPECT_EQ(opening(scope, maintenancePath, false, false), returned(maintenanceOf(scope)));
        setOwner(root, ownerOf(scope));
    }
}

TEST(FixedDirectory, IsRefusedBelowAHomeThatIsNoDirectory)
{
    std::filesystem::rename("/Users/player", "/Users/moved");
    EXPECT_EQ(opening("user", maintenancePath, create, check), unsafeRoot);
    makeLink("/Users/player", "moved");
    EXPECT_EQ(opening("user", maintenancePath, create, check), unsafeRoot);
    EXPECT_EQ(opening("user", "", false, false), unsafeRoot);
    removeAll("/Users/player");
    writeFile("/Users/player", "text", {playerUid, 0644});
    EXPECT_EQ(opening("user", "Library", false, false), unsafeRoot);
    removeAll("/Users/player");
    makePipe("/Users/player", playerUid);
    EXPECT_EQ(opening("user", "Library", false, false), unsafeRoot);
}

TEST(FixedDirectory, CannotBeCreatedWhereTheAccountMayNotWrite)
{
    const Tree before = takeTree();
    EXPECT_EQ(asAccount(playerUid, [] { openFixedDirectory("system", maintenancePath, create, check); }),
              notCreated);
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(FixedDirectory, WhoseCreationTheDeviceRefusesIsReportedAndTheOnesAboveStay)
{
    for (const std::string scope : {"user", "system"}) {
        EXPECT_EQ(failing(SYS_mkdirat, 2, ENOSPC,
                          [&] { openFixedDirectory(scope, maintenancePath, create, check); }),
                  notCreated);
        EXPECT_EQ(describe(supportOf(scope)), directoryOf(scope));
        EXPECT_EQ(describe(maintenanceOf(scope)), "nothing");
        EXPECT_EQ(opening(scope, maintenancePath, create, check), returned(maintenanceOf(scope)));
    }
}

/// Opens the maintenance directory with creation while `meanwhile` happens just before it is made.
Ending creatingWhile(const std::function<void()>& meanwhile)
{
    return stopping(
        {SYS_mkdirat},
        [&](const SystemCall& call) {
            if (call.is(SYS_mkdirat, "Maintenance"))
                meanwhile();
            return 0;
        },
        [] { openFixedDirectory("user", maintenancePath, create, check); });
}

TEST(FixedDirectory, ThatAnotherRunCreatesFirstIsOpenedAndChecked)
{
    EXPECT_EQ(creatingWhile([] { makeDirectories(maintenanceOf("user"), {playerUid, 0755}); }), returned());
    EXPECT_EQ(describe(maintenanceOf("user")), "dir 501 0755");
}

TEST(FixedDirectory, ThatAnotherRunCreatesFirstWithAnUnsafeModeIsRefused)
{
    EXPECT_EQ(creatingWhile([] { makeDirectories(maintenanceOf("user"), {playerUid, 0777}); }), unsafeMode);
}

TEST(FixedDirectory, ThatBecomesALinkOrAFileBeforeItIsCreatedIsRefused)
{
    makeDirectories("/Users/player/elsewhere", {playerUid, 0755});
    EXPECT_EQ(creatingWhile([] { makeLink(maintenanceOf("user"), "/Users/player/elsewhere"); }), redirected);
    removeAll(maintenanceOf("user"));
    EXPECT_EQ(creatingWhile([] { writeFile(maintenanceOf("user"), "", {playerUid, 0644}); }), redirected);
    EXPECT_EQ(namesIn("/Users/player/elsewhere"), std::vector<std::string>{});
}

/// A directory of root that is moved to the name at the last moment must not become the account's.
TEST(FixedDirectory, OfRootThatIsPutInThePlaceOfANewOneIsNotGivenAway)
{
    EXPECT_EQ(creatingWhile([] { makeDirectories(maintenanceOf("user"), {rootUid, 0755}); }), notAssigned);
    EXPECT_EQ(describe(maintenanceOf("user")), "dir 0 0755");
}

TEST(FixedDirectory, ThatIsExchangedAfterItsCreationIsNotGivenAway)
{
    makeDirectories("/Users/player/roots", {rootUid, 0755});
    const Ending ending = stopping(
        {SYS_mkdirat, SYS_openat},
        [made = false](const SystemCall& call) mutable {
            made = made || call.is(SYS_mkdirat, "Maintenance");
            if (made && call.is(SYS_openat, "Maintenance")) {
                removeAll(maintenanceOf("user"));
                std::filesystem::rename("/Users/player/roots", maintenanceOf("user"));
                made = false;
            }
            return 0;
        },
        [] { openFixedDirectory("user", maintenancePath, create, check); });
    EXPECT_EQ(ending, notAssigned);
    EXPECT_EQ(describe(maintenanceOf("user")), "dir 0 0755");
}

TEST(FixedDirectory, ThatVanishesAfterItsCreationIsRefused)
{
    const Ending ending = stopping(
        {SYS_openat},
        [](const SystemCall& call) {
            if (call.is(SYS_openat, "Maintenance"))
                removeAll(maintenanceOf("user"));
            return 0;
        },
        [] { openFixedDirectory("user", maintenancePath, create, check); });
    EXPECT_EQ(ending, redirected);
}

TEST(FixedDirectory, RenamedDuringTheWalkIsTheOneThatWasOpened)
{
    makeMaintenance();
    makeDirectories("/Users/player/trap/Maintenance/Inbox", {playerUid, 0755});
    makeDirectories(inboxOf("user"), {playerUid, 0755});
    const Ending ending = stopping(
        {SYS_openat},
        [](const SystemCall& call) {
            if (call.is(SYS_openat, "Maintenance")) {
                std::filesystem::rename(supportOf("user"), "/Users/player/away");
                std::filesystem::create_symlink("/Users/player/trap", supportOf("user"));
            }
            return 0;
        },
        [] { return pathOf(openFixedDirectory("user", maintenancePath + "/Inbox", false, check)); });
    EXPECT_EQ(ending, returned("/Users/player/away/Maintenance/Inbox"));
}

TEST(FixedDirectory, LeavesNoDescriptorOpenWhateverHappens)
{
    makeMaintenance();
    const std::size_t before = openDescriptors();
    opening("user", maintenancePath, false, check);
    opening("user", maintenancePath + "/a/b", false, check);
    opening("user", "Library/../x", create, check);
    setMode(maintenanceOf("user"), 0777);
    opening("user", maintenancePath, false, check);
    opening("user", maintenancePath + "/new", create, check);
    setMode("/Users/player", 0777);
    opening("user", maintenancePath, false, check);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(DirectoryCheck, LooksAtTypeModeAndOwnerOfTheOpenObject)
{
    writeFile("/tmp/file", "", {rootUid, 0644});
    makeDirectories("/tmp/dir");
    const auto checking = [](const std::string& path, const std::string& scope) {
        const OwnedFd opened(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        return endingOf([&] { checkDirectory(opened.get(), scopeOwner(scope)); });
    };
    EXPECT_EQ(checking("/tmp/file", "system"), unsafeMode);
    EXPECT_EQ(checking("/tmp/dir", "system"), returned());
    EXPECT_EQ(checking("/tmp/dir", "user"), unsafeOwner);
    EXPECT_EQ(endingOf([] { checkDirectory(-1, scopeOwner("system")); }), unsafeMode);
    setOwner("/tmp/dir", playerUid);
    EXPECT_EQ(checking("/tmp/dir", "user"), returned());
    EXPECT_EQ(checking("/tmp/dir", "system"), unsafeOwner);
}

TEST(CreatedOwner, IsTheScopesOwner)
{
    makeDirectories("/Users/player/new", {playerUid, 0755});
    const OwnedFd home(::open("/Users/player", O_RDONLY | O_CLOEXEC));
    const OwnedFd made(::open("/Users/player/new", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(endingOf([&] { assignCreatedOwner(home.get(), made.get(), scopeOwner("user")); }), returned());
    EXPECT_EQ(describe("/Users/player/new"), "dir 501 0755");
}

TEST(CreatedOwner, IsGivenByRootWhereTheDirectoryAboveIsRoots)
{
    makeDirectories("/opt/above/new");
    const OwnedFd above(::open("/opt/above", O_RDONLY | O_CLOEXEC));
    const OwnedFd made(::open("/opt/above/new", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(endingOf([&] { assignCreatedOwner(above.get(), made.get(), scopeOwner("user")); }), returned());
    EXPECT_EQ(describe("/opt/above/new"), "dir 501 0755");
}

TEST(CreatedOwner, IsNotGivenWhereOthersCouldHaveExchangedIt)
{
    makeDirectories("/opt/above/new");
    setMode("/opt/above", 0777);
    const OwnedFd above(::open("/opt/above", O_RDONLY | O_CLOEXEC));
    const OwnedFd made(::open("/opt/above/new", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(endingOf([&] { assignCreatedOwner(above.get(), made.get(), scopeOwner("user")); }),
              invalid("cannot assign fixed maintenance ownership"));
    EXPECT_EQ(describe("/opt/above/new"), "dir 0 0755");
}

TEST(CreatedOwner, ThatCannotBeAssignedIsReported)
{
    makeDirectories("/tmp/new", {playerUid, 0755});
    EXPECT_EQ(asAccount(playerUid,
                        [] {
                            const OwnedFd above(::open("/tmp", O_RDONLY | O_CLOEXEC));
                            const OwnedFd made(::open("/tmp/new", O_RDONLY | O_CLOEXEC));
                            assignCreatedOwner(above.get(), made.get(), scopeOwner("system"));
                        }),
              notAssigned);
    EXPECT_EQ(describe("/tmp/new"), "dir 501 0755");
}

TEST(RelativePath, HasAParentAndAName)
{
    EXPECT_EQ(parentOf("a/b/c"), "a/b");
    EXPECT_EQ(nameOf("a/b/c"), "c");
    EXPECT_EQ(parentOf("a"), "");
    EXPECT_EQ(nameOf("a"), "a");
    EXPECT_EQ(nameOf("a/"), "");
}

} // namespace
} // namespace maintenance::rehearsed
