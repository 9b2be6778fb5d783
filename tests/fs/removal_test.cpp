#include "fs/removal.h"

#include "fs/directory_entries.h"
#include "fs/fixed_directory.h"
#include "fs/plants.h"
#include "fs/trouble.h"
#include "support/scene.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;
using Path = stdfs::path;
using Names = std::vector<std::string>;

const std::string targetPath = std::string(maintenanceDirectory) + "/target";
const Names scopes = {"user", "system"};

const Ending targetChanged = invalid("fixed mutation target changed");
const Ending targetRedirected = invalid("fixed mutation target was redirected");
const Ending unsafeFile = invalid("cannot remove unsafe fixed metadata file");
const Ending foreignType = invalid("fixed mutation target has a foreign file type");
const Ending directoryRedirected = invalid("fixed mutation directory was redirected");
const Ending notEnumerated = invalid("cannot enumerate fixed mutation directory");
const Ending directoryStays = invalid("cannot remove fixed metadata directory");
const Ending outside = invalid("mutation path is outside a fixed scope");
const Ending notSynchronized = runtimeError("cannot synchronize fixed metadata directory");
const Ending missing = invalid("fixed maintenance directory is missing or redirected");
const Ending unsafeMode = invalid("maintenance directory ownership or mode is unsafe");
const Ending unsafeOwner = invalid("maintenance directory ownership is unsafe");

Path targetOf(const std::string& scope) { return maintenanceOf(scope) / "target"; }

Ending removing(const std::string& scope, const std::string& relative = targetPath)
{
    return endingOf([&] { removeFixed({scope, relative}); });
}

/// A tree with files and directories, empty ones and hidden ones among them.
void makeTree(const std::string& scope)
{
    const Ownership file = {ownerOf(scope), 0600};
    const Path target = targetOf(scope);
    for (const char* name : {"a", ".hidden", "dir/b", "dir/deep/deeper/c", "dir/deep/d", "other/e"})
        writeFile(target / name, "content", file);
    makeDirectories(target / "dir/empty", {ownerOf(scope), 0755});
}

// What is removed.

TEST(Removal, OfAFileLeavesEverythingElse)
{
    for (const std::string& scope : scopes)
        for (const mode_t mode : {0600u, 0u, 0666u, 0444u}) {
            makeLayout(scope);
            const Tree before = takeTree();
            writeFile(targetOf(scope), "content", {ownerOf(scope), mode});
            EXPECT_EQ(removing(scope), returned());
            EXPECT_EQ(difference(before, takeTree()), "");
        }
}

TEST(Removal, OfATreeTakesAllOfIt)
{
    for (const std::string& scope : scopes) {
        makeLayout(scope);
        const Tree before = takeTree();
        makeTree(scope);
        EXPECT_EQ(removing(scope), returned());
        EXPECT_EQ(difference(before, takeTree()), "");
    }
}

TEST(Removal, ByTheAccountItselfTakesItsOwn)
{
    makeLayout("user");
    const Tree before = takeTree();
    makeTree("user");
    EXPECT_EQ(asAccount(playerUid, [] { removeFixed({"user", targetPath}); }), returned());
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(Removal, TakesFilesOfAnyOwner)
{
    for (const std::string& scope : scopes) {
        makeTree(scope);
        for (const char* name : {"a", "dir/deep/d"})
            setOwner(targetOf(scope) / name, 502);
        EXPECT_EQ(removing(scope), returned());
        EXPECT_FALSE(isThere(targetOf(scope)));
    }
}

TEST(Removal, NeverEntersADirectoryOfAnotherOwner)
{
    for (const std::string& scope : scopes)
        for (const uid_t owner : {0u, 501u, 502u})
            for (const mode_t mode : {0755u, 0700u}) {
                if (owner == ownerOf(scope))
                    continue;
                const Path directory = targetOf(scope) / "foreign";
                makeDirectories(targetOf(scope), {ownerOf(scope), 0755});
                writeFile(directory / "file", "content", {owner, 0600});
                setMode(directory, mode);
                EXPECT_EQ(removing(scope), directoryStays) << owner << " " << mode;
                EXPECT_EQ(readFile(directory / "file"), "content");
                removeAll(supportOf(scope));
            }
}

TEST(Removal, OfWhatIsNotThereDoesNothing)
{
    for (const std::string& scope : scopes) {
        makeLayout(scope);
        const Tree before = takeExactTree();
        EXPECT_EQ(removing(scope), returned());
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(Removal, OfManyEntriesTakesAllOfThem)
{
    for (int i = 0; i < 1000; ++i)
        writeFile(targetOf("user") / std::to_string(i), "", {playerUid, 0600});
    EXPECT_EQ(removing("user"), returned());
    EXPECT_FALSE(isThere(targetOf("user")));
}

TEST(Removal, OfOddNamesTakesThem)
{
    for (const std::string& name : {std::string("line\nfeed"), std::string("\xff\xfe"), std::string(" "),
                                    std::string("..."), std::string("*"), std::string(255, 'n')})
        writeFile(targetOf("user") / name, "", {playerUid, 0600});
    EXPECT_EQ(removing("user"), returned());
    EXPECT_FALSE(isThere(targetOf("user")));
}

TEST(Removal, TakesTheDeepestEntriesFirstAndMakesTheResultDurable)
{
    writeFile(targetOf("user") / "dir/deep/file", "", {playerUid, 0600});
    Names steps;
    const auto record = [&](const SystemCall& call) {
        if (call.number == SYS_unlinkat)
            steps.push_back(call.text(1) + (call.arguments[2] == AT_REMOVEDIR ? "/" : ""));
        else
            steps.push_back("synchronize " + openPath(call));
        return 0;
    };
    EXPECT_EQ(during({SYS_unlinkat, SYS_fsync}, record,
                     [] {
                         removeFixed({"user", targetPath});
                     }),
              returned());
    EXPECT_EQ(steps,
              (Names{"file", "deep/", "dir/", "target/", "synchronize " + maintenanceOf("user").native()}));
}

TEST(Removal, InTheAccountsDirectoriesIsDoneWithTheAccountsPower)
{
    for (const std::string& scope : scopes) {
        makeTree(scope);
        const auto examine = [&](const SystemCall& call) {
            EXPECT_EQ(callersPower(call), ownerOf(scope)) << call.text(1);
            return 0;
        };
        EXPECT_EQ(during({SYS_unlinkat}, examine, [&] { removeFixed({scope, targetPath}); }), returned());
    }
}

// What is refused.

TEST(Removal, OfSomethingElseThanAPlainFileOrADirectoryIsRefused)
{
    for (const std::string& scope : scopes) {
        makeDirectories(maintenanceOf(scope), {ownerOf(scope), 0755});
        withEachPlant(targetOf(scope), ownerOf(scope), [&](const std::string& what) {
            if (what == "directory")
                return;
            const bool link = what.find("link") != std::string::npos && what != "hard link";
            const Ending expected = link ? targetRedirected : what == "hard link" ? unsafeFile : foreignType;
            const Tree before = takeExactTree();
            EXPECT_EQ(removing(scope), expected) << what;
            EXPECT_EQ(difference(before, takeExactTree()), "") << what;
        });
    }
}

TEST(Removal, OfATreeStopsAtSomethingElseThanAPlainFileOrADirectory)
{
    for (const std::string& scope : scopes) {
        const Path inner = targetOf(scope) / "dir/inner";
        makeDirectories(inner.parent_path(), {ownerOf(scope), 0755});
        withEachPlant(inner, ownerOf(scope), [&](const std::string& what) {
            if (what == "directory")
                return;
            // What the plant leads to must not go first.
            const Path kept = rootOf(scope) / "Library/kept";
            if (what == "link to a file" || what == "hard link") {
                stdfs::rename(besideOf(inner), kept);
                removeAll(inner);
            }
            if (what == "link to a file")
                makeLink(inner, kept);
            if (what == "hard link")
                makeHardLink(inner, kept);
            const bool link = what.find("link") != std::string::npos && what != "hard link";
            const Ending expected = link ? targetRedirected : what == "hard link" ? unsafeFile : foreignType;
            const std::string described = describe(inner);
            EXPECT_EQ(removing(scope), expected) << what;
            EXPECT_EQ(describe(inner), described) << what;
            if (isThere(kept)) {
                EXPECT_EQ(readFile(kept), "beside");
            }
            removeAll(kept);
        });
    }
}

TEST(Removal, NeverEntersALinkedDirectory)
{
    writeFile("/Users/player/precious/file", "precious", {playerUid, 0600});
    makeDirectories(targetOf("user"), {playerUid, 0755});
    makeLink(targetOf("user") / "link", "/Users/player/precious");
    EXPECT_EQ(removing("user"), targetRedirected);
    EXPECT_EQ(readFile("/Users/player/precious/file"), "precious");
    makeLink(maintenanceOf("user") / "alone", "/Users/player/precious");
    EXPECT_EQ(removing("user", std::string(maintenanceDirectory) + "/alone"), targetRedirected);
    EXPECT_EQ(removing("user", std::string(maintenanceDirectory) + "/alone/file"), missing);
    EXPECT_EQ(readFile("/Users/player/precious/file"), "precious");
}

TEST(Removal, HasRemovedWhatStoodBeforeTheRefusedEntry)
{
    const Path target = targetOf("user");
    for (const char* name : {"a", "b", "c", "d", "e"})
        writeFile(target / name, "content", {playerUid, 0600});
    const OwnedFd opened(::open(target.c_str(), O_RDONLY | O_CLOEXEC));
    const auto order = directoryEntries(opened.get());
    ASSERT_TRUE(order);
    // A second name for the third file, which stops the removal there.
    makeHardLink("/Users/player/second", target / order->at(2));
    EXPECT_EQ(removing("user"), unsafeFile);
    Names left(order->begin() + 2, order->end());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(namesIn(target), left);
}

TEST(Removal, NeedsASafeDirectoryChain)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(removing(scope), missing);
        makeTree(scope);
        setMode(maintenanceOf(scope), 0775);
        EXPECT_EQ(removing(scope), unsafeMode);
        setMode(maintenanceOf(scope), 0755);
        setOwner(supportOf(scope), 502);
        EXPECT_EQ(removing(scope), unsafeOwner);
        removeAll(supportOf(scope));
        writeFile("/Users/player/elsewhere/Maintenance/target", "content", {ownerOf(scope), 0600});
        makeLink(supportOf(scope), "/Users/player/elsewhere");
        EXPECT_EQ(removing(scope), missing);
        EXPECT_EQ(readFile("/Users/player/elsewhere/Maintenance/target"), "content");
        removeAll("/Users/player/elsewhere");
    }
}

TEST(Removal, OfAnOddPathIsRefused)
{
    makeTree("user");
    const std::string maintenance(maintenanceDirectory);
    const Tree before = takeTree();
    for (const std::string& path : {maintenance + "/..", maintenance + "/target/..", maintenance + "/."})
        EXPECT_EQ(removing("user", path), directoryRedirected) << path;
    for (const std::string& path : {std::string("../player/Library"), maintenance + "/../Maintenance/target",
                                    "/" + targetPath, maintenance + "//target"})
        EXPECT_EQ(removing("user", path), missing) << path;
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(Removal, ByAnAccountThatMayNotIsRefused)
{
    writeFile(targetOf("system"), "content");
    writeFile(maintenanceOf("system") / "dir/file", "content");
    const Tree before = takeTree();
    EXPECT_EQ(asAccount(playerUid, [] { removeFixed({"system", targetPath}); }), unsafeFile);
    EXPECT_EQ(asAccount(playerUid,
                        [] {
                            removeFixed({"system", std::string(maintenanceDirectory) + "/dir"});
                        }),
              unsafeFile);
    EXPECT_EQ(difference(before, takeTree()), "");
}

// How deep it goes.

/// A chain of `levels` directories at the target, the target included.
void makeChain(int levels)
{
    makeDirectories(maintenanceOf("user"), {playerUid, 0755});
    OwnedFd current(::open(maintenanceOf("user").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string name = "target";
    for (int level = 0; level < levels; ++level) {
        ASSERT_EQ(::mkdirat(current.get(), name.c_str(), 0755), 0);
        current = OwnedFd(::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_EQ(::fchown(current.get(), playerUid, staffGid), 0);
        name = "d";
    }
}

TEST(Removal, ReachesAnyTreeThatTheToolMakes)
{
    makeChain(deepestTree - 1);
    EXPECT_EQ(removing("user"), returned());
    EXPECT_FALSE(isThere(targetOf("user")));
}

TEST(Removal, OfATooDeepTreeIsRefusedWhateverItsDepth)
{
    for (const int levels : {deepestTree, 5000}) {
        makeChain(levels);
        EXPECT_EQ(removing("user"), notEnumerated);
        EXPECT_TRUE(isThere(targetOf("user")));
        stdfs::rename(targetOf("user"), "/Users/player/moved" + std::to_string(levels));
    }
}

TEST(Removal, OfAMountedDirectoryIsRefused)
{
    for (const std::string& scope : scopes) {
        makeTree(scope);
        const Path mounted = targetOf(scope) / "mounted";
        mountSmallDisk(mounted, 65536, {ownerOf(scope), 0755});
        EXPECT_EQ(removing(scope), directoryStays);
        EXPECT_TRUE(isThere(mounted));
        ASSERT_EQ(::umount(mounted.c_str()), 0);
        EXPECT_EQ(removing(scope), returned());
    }
}

TEST(Removal, OfAMountedFileIsRefused)
{
    for (const std::string& scope : scopes) {
        writeFile(targetOf(scope), "below", {ownerOf(scope), 0600});
        writeFile("/Users/player/above", "above", {ownerOf(scope), 0600});
        ASSERT_EQ(::mount("/Users/player/above", targetOf(scope).c_str(), nullptr, MS_BIND, nullptr), 0);
        EXPECT_EQ(removing(scope), unsafeFile);
        EXPECT_EQ(readFile("/Users/player/above"), "above");
    }
}

// What is exchanged meanwhile.

/// Removes the user scope's target while `change` happens at the first system call for which `when` is true.
template <typename When> Ending removingWhile(const When& when, const std::function<void()>& change)
{
    return during({SYS_openat, SYS_newfstatat, SYS_getdents64, SYS_unlinkat}, once(when, change), [] {
        removeFixed({"user", targetPath});
    });
}

TEST(Removal, OfAFileThatBecomesALinkTakesTheLinkAndNotWhatItLeadsTo)
{
    writeFile("/Users/player/precious", "precious", {playerUid, 0600});
    writeFile(targetOf("user"), "content", {playerUid, 0600});
    EXPECT_EQ(removingWhile([](const SystemCall& call) { return call.is(SYS_unlinkat, "target"); },
                            [] {
                                removeAll(targetOf("user"));
                                makeLink(targetOf("user"), "/Users/player/precious");
                            }),
              returned());
    EXPECT_EQ(readFile("/Users/player/precious"), "precious");
}

TEST(Removal, OfAFileThatBecomesADirectoryIsRefused)
{
    writeFile(targetOf("user"), "content", {playerUid, 0600});
    EXPECT_EQ(removingWhile([](const SystemCall& call) { return call.is(SYS_unlinkat, "target"); },
                            [] {
                                removeAll(targetOf("user"));
                                makeTree("user");
                            }),
              unsafeFile);
    EXPECT_TRUE(isThere(targetOf("user") / "dir/deep/d"));
}

TEST(Removal, OfADirectoryThatBecomesSomethingElseIsRefused)
{
    writeFile("/Users/player/precious/file", "precious", {playerUid, 0600});
    const std::vector<std::function<void()>> exchanges = {
        [] { makeLink(targetOf("user"), "/Users/player/precious"); },
        [] { makePipe(targetOf("user"), playerUid); },
        [] {
            writeFile(targetOf("user"), "file", {playerUid, 0600});
        },
        [] {},
    };
    for (const auto& exchange : exchanges) {
        makeTree("user");
        EXPECT_EQ(removingWhile([](const SystemCall& call) { return call.is(SYS_openat, "target"); },
                                [&] {
                                    removeAll(targetOf("user"));
                                    exchange();
                                }),
                  directoryRedirected);
        EXPECT_EQ(readFile("/Users/player/precious/file"), "precious");
        removeAll(targetOf("user"));
    }
}

TEST(Removal, GoesOnInTheDirectoryThatItOpenedAlsoWhenItIsMovedAway)
{
    writeFile("/Users/player/trap/file", "precious", {playerUid, 0600});
    writeFile(targetOf("user") / "file", "content", {playerUid, 0600});
    EXPECT_EQ(removingWhile([](const SystemCall& call) { return call.is(SYS_unlinkat, "file"); },
                            [] {
                                stdfs::rename(targetOf("user"), "/Users/player/away");
                                makeLink(targetOf("user"), "/Users/player/trap");
                            }),
              directoryStays);
    EXPECT_EQ(readFile("/Users/player/trap/file"), "precious");
    EXPECT_EQ(namesIn("/Users/player/away"), Names{});
}

TEST(Removal, BelowADirectoryThatIsMovedAwayStaysInIt)
{
    makeTree("user");
    writeFile("/Users/player/trap/Maintenance/target", "precious", {playerUid, 0600});
    EXPECT_EQ(removingWhile([](const SystemCall& call) { return call.is(SYS_newfstatat, "target"); },
                            [] {
                                stdfs::rename(supportOf("user"), "/Users/player/away");
                                makeLink(supportOf("user"), "/Users/player/trap");
                            }),
              returned());
    EXPECT_EQ(readFile("/Users/player/trap/Maintenance/target"), "precious");
    EXPECT_FALSE(isThere("/Users/player/away/Maintenance/target"));
}

TEST(Removal, OfADirectoryThatIsFilledAgainIsRefused)
{
    writeFile(targetOf("user") / "file", "content", {playerUid, 0600});
    EXPECT_EQ(removingWhile(
                  [](const SystemCall& call) {
                      return call.is(SYS_unlinkat, "target") && call.arguments[2] == AT_REMOVEDIR;
                  },
                  [] {
                      writeFile(targetOf("user") / "new", "new", {playerUid, 0600});
                  }),
              directoryStays);
    EXPECT_EQ(namesIn(targetOf("user")), Names{"new"});
}

TEST(Removal, OfEntriesThatVanishMeanwhileGoesOn)
{
    makeTree("user");
    EXPECT_EQ(removingWhile([](const SystemCall& call) { return call.is(SYS_newfstatat, "deep"); },
                            [] { removeAll(targetOf("user") / "dir/deep"); }),
              returned());
    EXPECT_FALSE(isThere(targetOf("user")));
}

TEST(Removal, OfAFileThatVanishesAfterItsExaminationIsRefused)
{
    writeFile(targetOf("user"), "content", {playerUid, 0600});
    EXPECT_EQ(removingWhile([](const SystemCall& call) { return call.is(SYS_unlinkat, "target"); },
                            [] { removeAll(targetOf("user")); }),
              unsafeFile);
}

// What the system refuses.

/// Removes a tree while a system call on the name `name` fails.
Ending removingWithFailure(const std::string& scope, long number, const std::string& name, int error)
{
    makeTree(scope);
    return during(
        {number}, [&](const SystemCall& call) { return call.is(number, name) ? error : 0; },
        [&] {
            removeFixed({scope, targetPath});
        });
}

TEST(Removal, SaysWhatCouldNotBeDone)
{
    for (const std::string& scope : scopes)
        for (const int error : {EIO, EACCES, EPERM, EINTR, EBUSY}) {
            EXPECT_EQ(removingWithFailure(scope, SYS_newfstatat, "target", error), targetChanged);
            EXPECT_EQ(removingWithFailure(scope, SYS_newfstatat, "d", error), targetChanged);
            EXPECT_EQ(removingWithFailure(scope, SYS_newfstatat, "deep", ENOTDIR), targetChanged);
            EXPECT_EQ(removingWithFailure(scope, SYS_openat, "target", error), directoryRedirected);
            EXPECT_EQ(removingWithFailure(scope, SYS_openat, "deep", EMFILE), directoryRedirected);
            EXPECT_EQ(removingWithFailure(scope, SYS_unlinkat, "d", error), unsafeFile);
            EXPECT_TRUE(isThere(targetOf(scope) / "dir/deep/d"));
            EXPECT_EQ(removingWithFailure(scope, SYS_unlinkat, "empty", error), directoryStays);
            EXPECT_EQ(removingWithFailure(scope, SYS_unlinkat, "target", error), directoryStays);
            EXPECT_EQ(namesIn(targetOf(scope)), Names{});
        }
}

TEST(Removal, OfADirectoryThatCannotBeListedIsRefused)
{
    makeTree("user");
    const Tree before = takeTree();
    const auto call = [] { removeFixed({"user", targetPath}); };
    const auto listing = [](const SystemCall& made) { return openPath(made) == targetOf("user") ? EIO : 0; };
    EXPECT_EQ(during({SYS_getdents64}, listing, call), notEnumerated);
    const auto duplicating = [](const SystemCall& made) {
        return openPath(made) == targetOf("user") && made.arguments[1] == F_DUPFD_CLOEXEC ? EMFILE : 0;
    };
    EXPECT_EQ(during({SYS_fcntl}, duplicating, call), notEnumerated);
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(Removal, ThatIsNotDurableIsReported)
{
    for (const std::string& scope : scopes)
        for (const int error : {EIO, EINTR}) {
            makeTree(scope);
            EXPECT_EQ(failingAt(SYS_fsync, 1, error,
                                [&] {
                                    removeFixed({scope, targetPath});
                                }),
                      notSynchronized);
            EXPECT_FALSE(isThere(targetOf(scope)));
        }
}

TEST(Removal, LeavesNoDescriptorOpenAndNothingThatTheNextOneRefuses)
{
    const std::vector<long> stopped = {SYS_openat, SYS_newfstatat, SYS_fstat,   SYS_getdents64,
                                       SYS_fcntl,  SYS_fsync,      SYS_unlinkat};
    writeFile(targetOf("user") / "dir/b", "content", {playerUid, 0600});
    eachMeeting(
        EIO, stopped,
        [] {
            removeFixed({"user", targetPath});
        },
        [](const Ending& ending, const SystemCall& met) {
            EXPECT_NE(ending.kind, "other") << ending << " at " << met.number;
            EXPECT_EQ(removing("user"), returned()) << ending << " at " << met.number;
            EXPECT_EQ(namesIn(maintenanceOf("user")), Names{});
            writeFile(targetOf("user") / "dir/b", "content", {playerUid, 0600});
        });
}

TEST(Removal, KilledAtAnySystemCallIsFinishedByTheNextOne)
{
    for (const std::string& scope : scopes) {
        writeFile(targetOf(scope) / "dir/b", "content", {ownerOf(scope), 0600});
        eachMeeting(
            killChild, {SYS_openat, SYS_unlinkat, SYS_fsync, SYS_setresuid},
            [&] {
                removeFixed({scope, targetPath});
            },
            [&](const Ending& ending, const SystemCall& met) {
                EXPECT_EQ(ending, (Ending{"signal", "9"}));
                EXPECT_EQ(removing(scope), returned()) << met.number;
                EXPECT_EQ(namesIn(maintenanceOf(scope)), Names{});
                writeFile(targetOf(scope) / "dir/b", "content", {ownerOf(scope), 0600});
            });
    }
}

// From an open directory.

TEST(RemovalInADirectory, TakesTheEntryOfThatName)
{
    for (const std::string& scope : scopes) {
        makeTree(scope);
        const OwnedFd directory = openFixedDirectory(scope, maintenanceDirectory, false, true);
        const std::size_t before = openDescriptors();
        EXPECT_EQ(endingOf([&] { removeTreeAt(scope, directory.get(), "target"); }), returned());
        EXPECT_EQ(endingOf([&] { removeTreeAt(scope, directory.get(), "target"); }), returned());
        EXPECT_EQ(namesIn(maintenanceOf(scope)), Names{});
        makeLink(targetOf(scope), "nowhere");
        EXPECT_EQ(endingOf([&] { removeTreeAt(scope, directory.get(), "target"); }), targetRedirected);
        EXPECT_EQ(endingOf([&] { removeTreeAt(scope, directory.get(), ".."); }), directoryRedirected);
        EXPECT_EQ(endingOf([&] { removeTreeAt(scope, -1, "target"); }), targetChanged);
        EXPECT_EQ(openDescriptors(), before);
        removeAll(targetOf(scope));
    }
}

TEST(RemovalInADirectory, LeavesTheDirectoryUsable)
{
    makeTree("user");
    const OwnedFd directory = openFixedDirectory("user", targetPath, false, true);
    removeTreeAt("user", directory.get(), "dir");
    const auto entries = directoryEntries(directory.get());
    ASSERT_TRUE(entries);
    EXPECT_EQ(entries->size(), 3u);
    removeTreeAt("user", directory.get(), "other");
    EXPECT_EQ(directoryEntries(directory.get())->size(), 2u);
}

// An absolute path.

TEST(RemovalOfAPath, TakesWhatLiesInAScope)
{
    for (const std::string& scope : scopes) {
        makeTree(scope);
        EXPECT_EQ(endingOf([&] { removeFixedPath(targetOf(scope)); }), returned());
        EXPECT_FALSE(isThere(targetOf(scope)));
        writeFile(rootOf(scope) / "Library/x", "content", {ownerOf(scope), 0600});
        EXPECT_EQ(endingOf([&] { removeFixedPath(rootOf(scope) / "Library/./a/../x"); }), returned());
        EXPECT_FALSE(isThere(rootOf(scope) / "Library/x"));
    }
}

TEST(RemovalOfAPath, OutsideBothScopesIsRefused)
{
    writeFile("/etc/precious", "precious");
    writeFile("/Users/other/precious", "precious", {502, 0600});
    const Tree before = takeTree({"/etc/precious", "/Users", "/Library"});
    for (const char* path : {"/etc/precious", "/Users/other/precious", "/Library", "/Users/player",
                             "/Users/player/", "/Users", "/", "", "Library/x", "/Library/../etc/precious",
                             "/Users/player/../other/precious", "/Users/player/..x"})
        EXPECT_EQ(endingOf([&] { removeFixedPath(path); }), outside) << path;
    EXPECT_EQ(difference(before, takeTree({"/etc/precious", "/Users", "/Library"})), "");
}

TEST(RemovalOfAPath, NeedsTheConsoleAccountOutsideTheSystemsLibrary)
{
    writeFile("/Library/x", "content");
    setNobodyAtConsole();
    EXPECT_EQ(endingOf([] { removeFixedPath("/Library/x"); }), returned());
    EXPECT_EQ(endingOf([] { removeFixedPath("/etc/precious"); }),
              invalid("cannot resolve the invoking console account"));
}

} // namespace
} // namespace maintenance::rehearsed
