#include "transaction/owned_removal.h"

#include "support/child.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const std::string name = "plugin";
const std::string content = "code";
const std::string path = vst3Path("alpha");
const std::filesystem::path elsewhere = "/Users/Shared/elsewhere";

const Ending linkOrForeign = invalid("owned mutation target is a link or foreign file");
const Ending redirectedDirectory = invalid("fixed maintenance directory is missing or redirected");

std::filesystem::path placeIn(const std::string& scope) { return rootOf(scope) / path; }

/// Puts a file with `content` into its place and another one elsewhere; returns the path.
std::filesystem::path placeFile(const std::string& scope = "user")
{
    writeFile(elsewhere, "of no concern");
    writeFile(placeIn(scope), content, {ownerOf(scope), 0644});
    return placeIn(scope);
}

void removing(const std::string& scope = "user", const std::string& hash = systemSha256(content),
              Links links = Links::Refuse)
{
    removeOwned({scope, path}, hash, links);
}

Ending removingEnds(const std::string& scope = "user", const std::string& hash = systemSha256(content),
                    Links links = Links::Refuse)
{
    return endingOf([&] { removing(scope, hash, links); });
}

/// Removes while the system calls `stopped` are decided by `decide`.
Ending removingWhile(const std::vector<long>& stopped, const Decide& decide, Links links = Links::Refuse)
{
    const std::string hash = systemSha256(content);
    return stopping(stopped, decide, [&] { removing("user", hash, links); });
}

/// Removes while something happens to the disk before the `nth` system call `number` on the file's name.
Ending removingAfter(long number, int nth, const std::function<void()>& change)
{
    int calls = 0;
    return removingWhile({number}, [&](const SystemCall& made) {
        if (made.is(number, name) && ++calls == nth)
            change();
        return 0;
    });
}

/// The same, with the call failing.
Ending removingWhileFailing(long number, int nth, int error, Links links = Links::Refuse)
{
    int calls = 0;
    return removingWhile(
        {number}, [&](const SystemCall& made) { return made.is(number, name) && ++calls == nth ? error : 0; },
        links);
}

/// Lets another file take the place.
void exchange()
{
    writeFile(placeIn("user").native() + ".new", "the user's own", {playerUid, 0644});
    std::filesystem::rename(placeIn("user").native() + ".new", placeIn("user"));
}

class OwnedRemoval : public ::testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(, OwnedRemoval, ::testing::Values("user", "system"),
                         [](const auto& scope) { return scope.param; });

TEST_P(OwnedRemoval, RemovesTheFileAndNothingElse)
{
    const std::filesystem::path file = placeFile(GetParam());
    writeFile(file.parent_path() / "neighbour", content, {ownerOf(GetParam()), 0644});
    Tree before = takeExactTree();
    before.erase(file.native());
    EXPECT_EQ(removingEnds(GetParam()), returned());
    before[file.parent_path().native()] = takeExactTree().at(file.parent_path().native());
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST_P(OwnedRemoval, RemovesTheFileInItsScopeOnly)
{
    placeFile("user");
    placeFile("system");
    EXPECT_EQ(removingEnds(GetParam()), returned());
    EXPECT_FALSE(isThere(placeIn(GetParam())));
    EXPECT_TRUE(isThere(placeIn(oppositeOf(GetParam()))));
}

TEST_P(OwnedRemoval, OfAMissingFileIsDone)
{
    makeDirectories(placeIn(GetParam()).parent_path(), {ownerOf(GetParam()), 0755});
    EXPECT_EQ(removingEnds(GetParam()), returned());
}

TEST_P(OwnedRemoval, OfAFileInAMissingDirectoryIsDoneAndCreatesNone)
{
    const Tree before = takeTree();
    EXPECT_EQ(removingEnds(GetParam()), returned());
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST_P(OwnedRemoval, OfAFileBelowAFileIsDone)
{
    writeFile(placeIn(GetParam()).parent_path(), "no directory", {ownerOf(GetParam()), 0644});
    EXPECT_EQ(removingEnds(GetParam()), returned());
    EXPECT_EQ(readFile(placeIn(GetParam()).parent_path()), "no directory");
}

TEST_P(OwnedRemoval, RefusesAFileWithOtherContent)
{
    const std::filesystem::path file = placeFile(GetParam());
    for (const std::string other :
         {"", "Code", "code\n", "longer than a block of the hash would be: no, it is not"}) {
        writeFile(file, other, {ownerOf(GetParam()), 0644});
        EXPECT_EQ(removingEnds(GetParam()), invalid("receipt-owned file hash changed")) << other;
        EXPECT_EQ(readFile(file), other);
    }
}

TEST_P(OwnedRemoval, ComparesNothingWithoutAnExpectedHash)
{
    const std::filesystem::path file = placeFile(GetParam());
    writeFile(file, "anything", {ownerOf(GetParam()), 0644});
    EXPECT_EQ(removingEnds(GetParam(), ""), returned());
    EXPECT_FALSE(isThere(file));
}

TEST_P(OwnedRemoval, HashesAFileOfManyChunks)
{
    const std::string large(16384 * 3 + 1, 'x');
    const std::filesystem::path file = placeFile(GetParam());
    writeFile(file, large, {ownerOf(GetParam()), 0644});
    EXPECT_EQ(removingEnds(GetParam(), systemSha256(large.substr(1))),
              invalid("receipt-owned file hash changed"));
    EXPECT_EQ(removingEnds(GetParam(), systemSha256(large)), returned());
    EXPECT_FALSE(isThere(file));
}

TEST_P(OwnedRemoval, ExaminesNeitherOwnerNorModeOfFileAndDirectories)
{
    const std::filesystem::path file = placeFile(GetParam());
    setOwner(file, 502);
    setMode(file, 0666);
    setOwner(file.parent_path(), 502);
    setMode(file.parent_path(), 0777);
    EXPECT_EQ(removingEnds(GetParam()), returned());
    EXPECT_FALSE(isThere(file));
}

TEST_P(OwnedRemoval, RefusesALinkUnlessLinksAreToBeRemoved)
{
    const std::filesystem::path file = placeFile(GetParam());
    writeFile(elsewhere, content);
    removeAll(file);
    makeLink(file, elsewhere);
    EXPECT_EQ(removingEnds(GetParam()), linkOrForeign);
    EXPECT_EQ(removingEnds(GetParam(), ""), linkOrForeign);
    EXPECT_TRUE(isThere(file));

    EXPECT_EQ(removingEnds(GetParam(), systemSha256("whatever"), Links::Remove), returned());
    EXPECT_FALSE(isThere(file));
    EXPECT_EQ(readFile(elsewhere), content);
}

TEST_P(OwnedRemoval, SeesADanglingLink)
{
    const std::filesystem::path file = placeFile(GetParam());
    removeAll(file);
    makeLink(file, "/nowhere");
    EXPECT_EQ(removingEnds(GetParam()), linkOrForeign);
    EXPECT_TRUE(isThere(file));
    EXPECT_EQ(removingEnds(GetParam(), "", Links::Remove), returned());
    EXPECT_FALSE(isThere(file));
}

TEST_P(OwnedRemoval, RefusesWhateverIsNoSingleLinkedFile)
{
    const std::filesystem::path file = placeFile(GetParam());
    const std::vector<std::function<void()>> others = {[&] { makeHardLink(file, "/Users/Shared/twin"); },
                                                       [&] { makePipe(file); }, [&] { makeSocket(file); },
                                                       [&] { makeDirectories(file); }};
    writeFile("/Users/Shared/twin", content);
    for (const auto& make : others) {
        removeAll(file);
        make();
        const Tree before = takeExactTree();
        for (const Links links : {Links::Refuse, Links::Remove}) {
            EXPECT_EQ(removingEnds(GetParam(), systemSha256(content), links), linkOrForeign)
                << describe(file);
            EXPECT_EQ(removingEnds(GetParam(), "", links), linkOrForeign) << describe(file);
        }
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST_P(OwnedRemoval, RefusesALinkInADirectorysPlace)
{
    const std::filesystem::path file = placeFile(GetParam());
    for (std::filesystem::path directory = file.parent_path(); directory.filename() != "Library";
         directory = directory.parent_path()) {
        const std::filesystem::path real = directory.native() + ".real";
        std::filesystem::rename(directory, real);
        makeLink(directory, real);
        for (const Links links : {Links::Refuse, Links::Remove})
            EXPECT_EQ(removingEnds(GetParam(), systemSha256(content), links), redirectedDirectory)
                << directory;
        EXPECT_EQ(readFile(file), content);
        removeAll(directory);
        std::filesystem::rename(real, directory);
    }
}

TEST_P(OwnedRemoval, TakesOnlyAbsenceForAbsence)
{
    const std::filesystem::path file = placeFile(GetParam());
    const std::filesystem::path directory = file.parent_path();
    removeAll(directory);
    makeLink(directory, directory);
    EXPECT_EQ(removingEnds(GetParam()).kind, "system error");
    const std::string longName(300, 'x');
    EXPECT_EQ(endingOf([&] {
                  removeOwned({GetParam(), vst3Path("alpha", longName)}, "", Links::Refuse);
              }).kind,
              "system error");
}

TEST(OwnedRemovalInTheHome, CanBeDoneByTheAccountItself)
{
    const std::filesystem::path file = placeFile("user");
    const std::string hash = systemSha256(content);
    EXPECT_EQ(asAccount(playerUid, [&] { removing("user", hash); }), returned());
    EXPECT_FALSE(isThere(file));
}

TEST_P(OwnedRemoval, LeavesNoDescriptorOpen)
{
    const std::filesystem::path file = placeFile(GetParam());
    const std::size_t before = openDescriptors();
    EXPECT_EQ(removingEnds(GetParam(), systemSha256("other")).kind, "Invalid");
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(removingEnds(GetParam()), returned());
    EXPECT_EQ(openDescriptors(), before);
}

// What happens between two steps.

TEST(OwnedRemovalRace, OfAFileThatVanishesIsDone)
{
    const std::filesystem::path file = placeFile();
    EXPECT_EQ(removingAfter(SYS_newfstatat, 1, [&] { removeAll(file); }), returned());
}

TEST(OwnedRemovalRace, NoticesADirectoryThatIsExchangedForALink)
{
    const std::filesystem::path file = placeFile();
    const std::filesystem::path directory = file.parent_path();
    const auto exchangeDirectory = [&](const SystemCall& made) {
        if (made.is(SYS_openat, "MacOS")) {
            std::filesystem::rename(directory, "/Users/Shared/MacOS");
            makeLink(directory, "/Users/Shared/MacOS");
        }
        return 0;
    };
    EXPECT_EQ(removingWhile({SYS_openat}, exchangeDirectory), redirectedDirectory);
    EXPECT_EQ(readFile("/Users/Shared/MacOS/plugin"), content);
}

TEST(OwnedRemovalRace, StaysInTheDirectoryThatItHasOpened)
{
    const std::filesystem::path file = placeFile();
    EXPECT_EQ(removingAfter(SYS_unlinkat, 1,
                            [&] {
                                std::filesystem::rename(file.parent_path(), "/Users/Shared/MacOS");
                                writeFile(file, content, {playerUid, 0644});
                            }),
              returned());
    EXPECT_EQ(readFile(file), content);
    EXPECT_EQ(namesIn("/Users/Shared/MacOS"), std::vector<std::string>());
}

TEST(OwnedRemovalRace, ReportsAPlaceThatCannotBeExamined)
{
    const std::filesystem::path file = placeFile();
    EXPECT_EQ(removingWhileFailing(SYS_newfstatat, 1, EIO), invalid("owned mutation target changed"));
    EXPECT_EQ(readFile(file), content);
}

TEST(OwnedRemovalRace, ReportsALinkThatCannotBeRemoved)
{
    const std::filesystem::path file = placeFile();
    removeAll(file);
    makeLink(file, elsewhere);
    EXPECT_EQ(removingWhileFailing(SYS_unlinkat, 1, EPERM, Links::Remove),
              invalid("cannot remove redirected transaction output"));
    EXPECT_TRUE(isThere(file));
}

TEST(OwnedRemovalRace, NoticesALinkInTheFilesPlaceWhenOpening)
{
    const std::filesystem::path file = placeFile();
    EXPECT_EQ(removingAfter(SYS_openat, 1,
                            [&] {
                                removeAll(file);
                                makeLink(file, elsewhere);
                            }),
              invalid("owned mutation target was redirected"));
    EXPECT_EQ(describe(file), "link 0 -> " + elsewhere.native());
    EXPECT_EQ(readFile(elsewhere), "of no concern");
}

TEST(OwnedRemovalRace, ReportsAFileThatCannotBeOpened)
{
    const std::filesystem::path file = placeFile();
    EXPECT_EQ(removingWhileFailing(SYS_openat, 1, EMFILE), invalid("owned mutation target was redirected"));
    EXPECT_EQ(readFile(file), content);
}

TEST(OwnedRemovalRace, NoticesAnotherFileWhenOpening)
{
    const std::filesystem::path file = placeFile();
    const Ending changed = invalid("owned mutation target changed during validation");
    EXPECT_EQ(removingAfter(SYS_openat, 1, exchange), changed);
    EXPECT_EQ(readFile(file), "the user's own");

    placeFile();
    EXPECT_EQ(removingAfter(SYS_openat, 1, [&] { makeHardLink("/Users/Shared/twin", file); }), changed);
    EXPECT_EQ(readFile(file), content);
}

TEST(OwnedRemovalRace, IsNotHeldUpByAPipeInTheFilesPlace)
{
    const std::filesystem::path file = placeFile();
    EXPECT_EQ(removingAfter(SYS_openat, 1,
                            [&] {
                                removeAll(file);
                                makePipe(file, playerUid);
                            }),
              invalid("owned mutation target changed during validation"));
    EXPECT_EQ(describe(file), "pipe 501 0600");
}

TEST(OwnedRemovalRace, ReportsAFileThatCannotBeRead)
{
    const std::filesystem::path file = placeFile();
    EXPECT_EQ(removingWhile({SYS_pread64}, [](const SystemCall&) { return EIO; }),
              invalid("cannot hash an owned file descriptor"));
    EXPECT_EQ(readFile(file), content);
}

TEST(OwnedRemovalRace, NoticesAnotherFileBeforeTheRemoval)
{
    const std::filesystem::path file = placeFile();
    const Ending changed = invalid("owned mutation target changed before removal");
    EXPECT_EQ(removingAfter(SYS_newfstatat, 2, exchange), changed);
    EXPECT_EQ(readFile(file), "the user's own");

    placeFile();
    EXPECT_EQ(removingAfter(SYS_newfstatat, 2, [&] { removeAll(file); }), changed);
    placeFile();
    EXPECT_EQ(removingWhileFailing(SYS_newfstatat, 2, EIO), changed);
    EXPECT_EQ(readFile(file), content);
}

TEST(OwnedRemovalRace, ReportsAFileThatCannotBeRemoved)
{
    const std::filesystem::path file = placeFile();
    EXPECT_EQ(removingWhileFailing(SYS_unlinkat, 1, EPERM), invalid("cannot remove receipt-owned file"));
    EXPECT_EQ(readFile(file), content);
}

TEST(OwnedRemovalRace, IsDurableWhenItReturns)
{
    const std::filesystem::path file = placeFile();
    bool removedBefore = false;
    bool synchronized = false;
    const auto watch = [&](const SystemCall& made) {
        if (made.number == SYS_fsync) {
            removedBefore = !isThere(file);
            synchronized =
                std::filesystem::read_symlink("/proc/" + std::to_string(made.process) + "/fd/" +
                                              std::to_string(made.arguments[0])) == file.parent_path();
        }
        return 0;
    };
    EXPECT_EQ(removingWhile({SYS_fsync}, watch), returned());
    EXPECT_TRUE(removedBefore);
    EXPECT_TRUE(synchronized);

    placeFile();
    EXPECT_EQ(removingWhile({SYS_fsync}, [](const SystemCall&) { return EIO; }),
              runtimeError("cannot synchronize fixed metadata directory"));
}

} // namespace
} // namespace maintenance::rehearsed
