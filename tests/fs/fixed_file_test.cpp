#include "fs/fixed_file.h"

#include "fs/plants.h"
#include "fs/trouble.h"
#include "support/scene.h"
#include "validate/invalid.h"

#include <array>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;
using Path = stdfs::path;

const std::string attemptPath = std::string(maintenanceDirectory) + "/PendingInstall";
const std::vector<std::string> scopes = {"user", "system"};

const Ending missingOrUnsafe = invalid("subject is missing or unsafe");
const Ending unsafeOwnership = invalid("subject ownership or mode is unsafe");
const Ending notOpenedSafely = invalid("subject cannot be opened safely");
const Ending exchanged = invalid("subject changed during validation");
const Ending changed = invalid("subject changed while being read");
const Ending unreadable = invalid("subject cannot be read");
const Ending redirected = invalid("fixed maintenance directory is missing or redirected");
const Ending unsafeMode = invalid("maintenance directory ownership or mode is unsafe");
const Ending unsafeOwner = invalid("maintenance directory ownership is unsafe");
const Ending unsafeRoot = invalid("scope root is missing or unsafe");

/// One of the two ways of reading a metadata file, with its own words for what is wrong.
struct Reader {
    std::function<std::string(const std::string& scope, const std::string& relative)> read;
    Ending unsafe;
    Ending unopened;
};

const Reader strict = {[](const std::string& scope, const std::string& relative) {
                           return readFixedRegular({scope, relative}, "subject");
                       },
                       missingOrUnsafe, notOpenedSafely};
const Reader lighter = {[](const std::string& scope, const std::string& relative) {
                            return readText(FixedPlace{scope, relative}, "subject");
                        },
                        unsafeOwnership, unreadable};
const std::array<Reader, 2> readers = {strict, lighter};

/// Waits until a change of a file gets another time than all earlier ones: a few milliseconds.
void awaitNextTimestamp()
{
    const auto now = [] {
        timespec time = {};
        ::clock_gettime(CLOCK_REALTIME_COARSE, &time);
        return std::pair(time.tv_sec, time.tv_nsec);
    };
    for (const auto start = now(); now() == start;) {
    }
}

void setTimes(const Path& path, const timespec& modified)
{
    const std::array<timespec, 2> times = {timespec{0, UTIME_OMIT}, modified};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW), 0);
}

Path attemptOf(const std::string& scope) { return pendingOf(scope); }

void writeAttempt(const std::string& scope, const std::string& content = "content", mode_t mode = 0600)
{
    writeFile(attemptOf(scope), content, {ownerOf(scope), mode});
}

Ending reading(const Reader& reader, const std::string& scope, const std::string& relative = attemptPath)
{
    return endingOf([&] { return reader.read(scope, relative); });
}

// What is read.

TEST(FixedFile, IsReadWhole)
{
    std::string every;
    for (int i = 0; i < 1024; ++i)
        every += static_cast<char>(i % 256);
    for (const std::string& scope : scopes)
        for (const std::size_t size : {0u, 1u, 4095u, 4096u, 4097u, 8192u, 100000u}) {
            std::string content;
            while (content.size() < size)
                content += every;
            content.resize(size);
            writeAttempt(scope, content);
            for (const Reader& reader : readers)
                EXPECT_TRUE(reader.read(scope, attemptPath) == content) << size;
        }
}

TEST(FixedFile, IsLeftAsItIs)
{
    writeAttempt("user", "content", 0444);
    const Tree before = takeExactTree();
    for (const Reader& reader : readers)
        EXPECT_EQ(reading(reader, "user"), returned("content"));
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(FixedFile, OfTheLargestSizeIsReadAndOneByteMoreIsRefused)
{
    for (const std::string& scope : scopes) {
        writeAttempt(scope, std::string(1048576, 'x'));
        for (const Reader& reader : readers)
            EXPECT_EQ(reader.read(scope, attemptPath).size(), 1048576u);
        writeAttempt(scope, std::string(1048577, 'x'));
        for (const Reader& reader : readers)
            EXPECT_EQ(reading(reader, scope), reader.unsafe);
    }
}

TEST(FixedFile, MayHaveAnyModeThatLetsNobodyElseWrite)
{
    for (const std::string& scope : scopes)
        for (const mode_t mode : {0600u, 0400u, 0644u, 0444u, 0755u, 04755u, 01600u, 0u}) {
            writeAttempt(scope, "content", mode);
            for (const Reader& reader : readers)
                EXPECT_EQ(reading(reader, scope), returned("content")) << mode;
        }
}

TEST(FixedFile, WritableForGroupOrOthersIsRefused)
{
    for (const std::string& scope : scopes)
        for (const mode_t mode : {0620u, 0602u, 0660u, 0664u, 0666u, 0777u, 0020u, 0002u}) {
            writeAttempt(scope, "content", mode);
            for (const Reader& reader : readers)
                EXPECT_EQ(reading(reader, scope), reader.unsafe) << mode;
        }
}

TEST(FixedFile, OfAnotherOwnerIsRefused)
{
    for (const std::string& scope : scopes)
        for (const uid_t owner : {0u, 501u, 502u}) {
            writeAttempt(scope);
            setOwner(attemptOf(scope), owner);
            for (const Reader& reader : readers)
                EXPECT_EQ(reading(reader, scope),
                          owner == ownerOf(scope) ? returned("content") : reader.unsafe)
                    << scope << " " << owner;
        }
}

TEST(FixedFile, InWhosePlaceSomethingElseStandsIsRefused)
{
    for (const std::string& scope : scopes) {
        makeDirectories(maintenanceOf(scope), {ownerOf(scope), 0755});
        withEachPlant(attemptOf(scope), ownerOf(scope), [&](const std::string& what) {
            const Tree before = takeExactTree();
            for (const Reader& reader : readers)
                EXPECT_EQ(reading(reader, scope), missingOrUnsafe) << what;
            EXPECT_EQ(difference(before, takeExactTree()), "") << what;
        });
        for (const Reader& reader : readers)
            EXPECT_EQ(reading(reader, scope), missingOrUnsafe);
    }
}

TEST(FixedFile, ReadByTheAccountItselfNeedsItsRights)
{
    writeAttempt("user");
    writeAttempt("system");
    const auto reads = [](const Reader& reader, const std::string& scope) {
        return asAccount(playerUid, [&] { return reader.read(scope, attemptPath); });
    };
    for (const Reader& reader : readers) {
        EXPECT_EQ(reads(reader, "user"), returned("content"));
        EXPECT_EQ(reads(reader, "system"), reader.unopened);
    }
    setMode(attemptOf("user"), 0200);
    setMode(attemptOf("system"), 0644);
    for (const Reader& reader : readers) {
        EXPECT_EQ(reads(reader, "user"), reader.unopened);
        EXPECT_EQ(reads(reader, "system"), returned("content"));
    }
}

TEST(FixedFile, IsNamedByItsSubjectInEveryMessage)
{
    writeAttempt("user", "content", 0664);
    EXPECT_EQ(endingOf([] {
                  readFixedRegular({"user", attemptPath}, "pending installation attempt");
              }),
              invalid("pending installation attempt is missing or unsafe"));
    EXPECT_EQ(endingOf([] {
                  readText(FixedPlace{"user", attemptPath}, "durable transaction lease");
              }),
              invalid("durable transaction lease ownership or mode is unsafe"));
}

// The directories above.

TEST(FixedFile, ReadStrictlyNeedsASafeDirectoryChain)
{
    for (const std::string& scope : scopes) {
        writeAttempt(scope);
        for (const Path& directory : {rootOf(scope), supportOf(scope), maintenanceOf(scope)}) {
            struct stat usual = {};
            ASSERT_EQ(::stat(directory.c_str(), &usual), 0);
            setMode(directory, 0775);
            EXPECT_EQ(reading(strict, scope), unsafeMode) << directory;
            EXPECT_EQ(reading(lighter, scope), returned("content")) << directory;
            setMode(directory, usual.st_mode & 07777);
            setOwner(directory, 502);
            EXPECT_EQ(reading(strict, scope), unsafeOwner) << directory;
            EXPECT_EQ(reading(lighter, scope), returned("content")) << directory;
            setOwner(directory, usual.st_uid);
        }
    }
}

TEST(FixedFile, BelowALinkedOrMissingDirectoryIsRefused)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(reading(strict, scope), redirected);
        EXPECT_EQ(reading(lighter, scope), missingOrUnsafe);
        writeAttempt(scope);
        for (const Path& directory : {supportOf(scope), maintenanceOf(scope)}) {
            const Path moved = directory.native() + ".moved";
            stdfs::rename(directory, moved);
            makeLink(directory, moved);
            EXPECT_EQ(reading(strict, scope), redirected) << directory;
            EXPECT_EQ(reading(lighter, scope), missingOrUnsafe) << directory;
            removeAll(directory);
            writeFile(directory, "no directory", {ownerOf(scope), 0600});
            EXPECT_EQ(reading(strict, scope), redirected) << directory;
            EXPECT_EQ(reading(lighter, scope), missingOrUnsafe) << directory;
            removeAll(directory);
            stdfs::rename(moved, directory);
        }
        EXPECT_EQ(reading(strict, scope), returned("content"));
    }
}

TEST(FixedFile, InADirectoryThatTheAccountCouldNotReadIsRefused)
{
    writeAttempt("user");
    for (const uid_t owner : {0u, 502u})
        for (const mode_t mode : {0700u, 0750u, 0754u, 0751u, 0755u}) {
            setOwner(maintenanceOf("user"), owner);
            setMode(maintenanceOf("user"), mode);
            EXPECT_EQ(reading(lighter, "user"), mode == 0755 ? returned("content") : missingOrUnsafe) << mode;
            EXPECT_EQ(reading(strict, "user"), unsafeOwner) << mode;
        }
    setOwner(maintenanceOf("user"), playerUid);
    setMode(maintenanceOf("user"), 0700);
    EXPECT_EQ(reading(strict, "user"), returned("content"));
}

TEST(FixedFile, OfAnOddPathIsRefused)
{
    writeAttempt("user");
    const std::string maintenance(maintenanceDirectory);
    for (const std::string& path :
         {maintenance + "/x/../PendingInstall", maintenance + "/./PendingInstall", "/" + attemptPath,
          maintenance + "//PendingInstall", std::string("../player/") + attemptPath})
        for (const Reader& reader : readers)
            EXPECT_EQ(reading(reader, "user", path).kind, "Invalid") << path;
    for (const std::string& path : {maintenance + "/..", maintenance + "/.", maintenance + "/", std::string(),
                                    maintenance + "/" + std::string(256, 'n')})
        for (const Reader& reader : readers)
            EXPECT_EQ(reading(reader, "user", path), missingOrUnsafe) << path;
}

TEST(FixedFile, BelowALinkedHomeIsRefused)
{
    writeAttempt("user");
    stdfs::rename("/Users/player", "/Users/moved");
    makeLink("/Users/player", "moved");
    EXPECT_EQ(reading(strict, "user"), unsafeRoot);
    EXPECT_EQ(reading(lighter, "user"), missingOrUnsafe);
}

TEST(FixedFile, IsFoundByItsAbsolutePathBelowTheRootOfItsScope)
{
    const auto readAt = [](const Path& path, const std::string& scope) {
        return endingOf([&] { return readText(path, scope, "subject"); });
    };
    for (const std::string& scope : scopes) {
        writeAttempt(scope);
        EXPECT_EQ(readAt(attemptOf(scope), scope), returned("content"));
    }
    EXPECT_EQ(readAt(attemptOf("system"), "user"), missingOrUnsafe);
    // Everything lies below "/", but what lies in the home is not root's.
    EXPECT_EQ(readAt(attemptOf("user"), "system"), unsafeOwnership);
    EXPECT_EQ(readAt("/Users/other/x", "user"), missingOrUnsafe);
}

// What is exchanged between looking and opening.

/// Reads the attempt while `change` happens between its examination and its opening.
Ending readingWhileExchanged(const Reader& reader, const std::string& scope,
                             const std::function<void()>& change)
{
    writeAttempt(scope);
    return during({SYS_openat},
                  once([](const SystemCall& call) { return call.is(SYS_openat, "PendingInstall"); }, change),
                  [&] { return reader.read(scope, attemptPath); });
}

TEST(FixedFile, ReplacedBeforeItIsOpenedIsRefused)
{
    for (const std::string& scope : scopes)
        for (const Reader& reader : readers) {
            const auto replace = [&] {
                writeFile(besideOf(attemptOf(scope)), "content", {ownerOf(scope), 0600});
                stdfs::rename(besideOf(attemptOf(scope)), attemptOf(scope));
            };
            EXPECT_EQ(readingWhileExchanged(reader, scope, replace), exchanged);
        }
}

TEST(FixedFile, ChangedInAnyWayBeforeItIsOpenedIsRefused)
{
    for (const std::string& scope : scopes) {
        const Path place = attemptOf(scope);
        const std::vector<std::pair<std::string, std::function<void()>>> changes = {
            {"linked", [&] { makeHardLink(besideOf(place), place); }},
            {"longer", [&] { std::ofstream(place, std::ios::app) << "more"; }},
            {"shorter", [&] { stdfs::resize_file(place, 1); }},
            {"opened to others", [&] { setMode(place, 0666); }},
            {"closed", [&] { setMode(place, 0400); }},
            {"given away", [&] { setOwner(place, 502); }},
        };
        for (const auto& [what, change] : changes)
            for (const Reader& reader : readers) {
                removeAll(besideOf(place));
                removeAll(place);
                EXPECT_EQ(readingWhileExchanged(reader, scope, change), exchanged) << what;
            }
    }
}

TEST(FixedFile, InWhosePlaceSomethingElseIsPutBeforeItIsOpenedIsRefused)
{
    for (const std::string& scope : scopes)
        for (const Reader& reader : readers)
            for (const Plant& plant : foreignPlants()) {
                const Path place = attemptOf(scope);
                const Ending ending = readingWhileExchanged(reader, scope, [&] {
                    removeAll(place);
                    writeFile(besideOf(place), "content", {ownerOf(scope), 0600});
                    plant.put(place, ownerOf(scope));
                });
                const bool opens = plant.what == "hard link" || plant.what == "pipe" ||
                                   plant.what == "directory" || plant.what == "device";
                EXPECT_EQ(ending, opens ? exchanged : reader.unopened) << plant.what;
                ::umount2(place.c_str(), MNT_DETACH);
                removeAll(place);
                removeAll(besideOf(place));
            }
}

TEST(FixedFile, ThatVanishesBeforeItIsOpenedIsRefused)
{
    for (const Reader& reader : readers)
        EXPECT_EQ(readingWhileExchanged(reader, "user", [] { removeAll(attemptOf("user")); }),
                  reader.unopened);
}

TEST(FixedFile, IsTakenFromTheDirectoryThatWasOpened)
{
    for (const Reader& reader : readers) {
        writeFile("/Users/player/trap/Maintenance/PendingInstall", "trap", {playerUid, 0600});
        EXPECT_EQ(readingWhileExchanged(reader, "user",
                                        [] {
                                            stdfs::rename(supportOf("user"), "/Users/player/away");
                                            makeLink(supportOf("user"), "/Users/player/trap");
                                        }),
                  returned("content"));
        removeAll(supportOf("user"));
        removeAll("/Users/player/away");
    }
}

// What is changed while it is read.

/// Reads the attempt while `change` happens at the nth time that something is read from it.
Ending readingWhileChanged(const Reader& reader, const std::string& scope, int nth,
                           const std::function<void()>& change)
{
    const std::string path = attemptOf(scope).native();
    int reads = 0;
    return during(
        {SYS_read},
        once([&, nth](const SystemCall& call) { return openPath(call) == path && ++reads == nth; }, change),
        [&] { return reader.read(scope, attemptPath); });
}

TEST(FixedFile, ChangedInAnyWayWhileItIsReadIsRefused)
{
    for (const std::string& scope : scopes) {
        const Path place = attemptOf(scope);
        const std::string content(10000, 'c');
        const std::vector<std::pair<std::string, std::function<void()>>> changes = {
            {"longer", [&] { std::ofstream(place, std::ios::app) << "more"; }},
            {"shorter", [&] { stdfs::resize_file(place, 5000); }},
            {"emptied", [&] { stdfs::resize_file(place, 0); }},
            {"rewritten", [&] { writeAttempt(scope, std::string(10000, 'd')); }},
            {"touched",
             [&] {
                 setTimes(place, {1000000000, 1});
             }},
            {"touched a second later",
             [&] {
                 setTimes(place, {1000000001, 0});
             }},
            {"opened to others", [&] { setMode(place, 0666); }},
            {"given away", [&] { setOwner(place, 502); }},
            {"linked", [&] { makeHardLink(besideOf(place), place); }},
            {"removed", [&] { removeAll(place); }},
        };
        for (const auto& [what, change] : changes)
            for (const Reader& reader : readers)
                for (const int nth : {1, 4}) {
                    removeAll(besideOf(place));
                    removeAll(place);
                    writeAttempt(scope, content);
                    setTimes(place, {1000000000, 0});
                    awaitNextTimestamp();
                    EXPECT_EQ(readingWhileChanged(reader, scope, nth, change), changed) << what << nth;
                }
    }
}

TEST(FixedFile, ReplacedByNameWhileItIsReadIsRefused)
{
    writeAttempt("user", "old content");
    awaitNextTimestamp();
    for (const Reader& reader : readers)
        EXPECT_EQ(readingWhileChanged(reader, "user", 2,
                                      [] {
                                          writeFile(besideOf(attemptOf("user")), "new", {playerUid, 0600});
                                          stdfs::rename(besideOf(attemptOf("user")), attemptOf("user"));
                                      }),
                  changed);
}

TEST(FixedFile, ThatNeverStopsGrowingIsNotFollowed)
{
    writeAttempt("user", "small");
    const std::string path = attemptOf("user").native();
    int reads = 0;
    const auto grow = [&](const SystemCall& call) {
        if (openPath(call) == path && ++reads < 1000)
            std::ofstream(path, std::ios::app) << std::string(4096, 'g');
        return 0;
    };
    for (const Reader& reader : readers) {
        reads = 0;
        writeAttempt("user", "small");
        EXPECT_EQ(during({SYS_read}, grow, [&] { return reader.read("user", attemptPath); }), changed);
        EXPECT_LE(reads, 2);
    }
}

// What the system refuses.

TEST(FixedFile, ThatCannotBeOpenedIsRefused)
{
    writeAttempt("user");
    for (const int error : {EIO, EMFILE, ENFILE, EACCES, EINTR})
        for (const Reader& reader : readers) {
            const auto fail = [&](const SystemCall& call) {
                return call.is(SYS_openat, "PendingInstall") ? error : 0;
            };
            EXPECT_EQ(during({SYS_openat}, fail, [&] { return reader.read("user", attemptPath); }),
                      reader.unopened);
        }
}

TEST(FixedFile, ThatCannotBeExaminedIsRefused)
{
    writeAttempt("user");
    for (const Reader& reader : readers) {
        const auto call = [&] { return reader.read("user", attemptPath); };
        const auto byName = [](const SystemCall& made) {
            return made.is(SYS_newfstatat, "PendingInstall") ? EIO : 0;
        };
        EXPECT_EQ(during({SYS_newfstatat}, byName, call), missingOrUnsafe);
        const std::string path = attemptOf("user").native();
        for (const int nth : {1, 2}) {
            int examined = 0;
            const auto byDescriptor = [&](const SystemCall& made) {
                return isFstat(made) && openPath(made) == path && ++examined == nth ? EIO : 0;
            };
            EXPECT_EQ(during({SYS_newfstatat, SYS_fstat}, byDescriptor, call),
                      nth == 1 ? exchanged : changed);
        }
    }
}

TEST(FixedFile, ThatCannotBeReadIsRefused)
{
    writeAttempt("user", std::string(10000, 'x'));
    const std::string path = attemptOf("user").native();
    for (const int error : {EIO, EINTR})
        for (const int nth : {1, 3})
            for (const Reader& reader : readers) {
                int reads = 0;
                const auto fail = [&](const SystemCall& call) {
                    return openPath(call) == path && ++reads == nth ? error : 0;
                };
                EXPECT_EQ(during({SYS_read}, fail, [&] { return reader.read("user", attemptPath); }),
                          unreadable);
            }
}

TEST(FixedFile, IsOpenedSoThatNeitherLinkNorPipeNorOtherProgramGetsHoldOfIt)
{
    writeAttempt("user");
    for (const Reader& reader : readers) {
        int opened = 0;
        const auto examine = [&](const SystemCall& call) {
            if (!call.is(SYS_openat, "PendingInstall"))
                return 0;
            ++opened;
            const std::uint64_t wanted = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
            EXPECT_EQ(call.arguments[2] & (wanted | O_CREAT | O_ACCMODE), wanted | O_RDONLY);
            return 0;
        };
        EXPECT_EQ(during({SYS_openat}, examine, [&] { return reader.read("user", attemptPath); }),
                  returned("content"));
        EXPECT_EQ(opened, 1);
    }
}

TEST(FixedFile, LeavesNoDescriptorOpenWhateverSystemCallFails)
{
    writeAttempt("user");
    const Tree before = takeExactTree();
    for (const Reader& reader : readers)
        eachMeeting(
            EIO, {SYS_openat, SYS_newfstatat, SYS_fstat, SYS_read},
            [&] { return reader.read("user", attemptPath); },
            [](const Ending& ending, const SystemCall& met) {
                // The account database is read through the same system calls, and has other sources.
                EXPECT_TRUE(isRefusalOrAccountFailure(ending) || ending == returned("content"))
                    << ending << " at " << met.number;
            });
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

// Examination alone.

TEST(RegularFile, IsReturnedWithItsDirectoryNameAndStatus)
{
    writeAttempt("user", "content", 0666);
    setOwner(attemptOf("user"), 502);
    const ExaminedFile file = regular({"user", attemptPath}, "subject");
    EXPECT_EQ(stdfs::read_symlink("/proc/self/fd/" + std::to_string(file.directory.get())),
              maintenanceOf("user"));
    EXPECT_EQ(file.name, "PendingInstall");
    struct stat status = {};
    ASSERT_EQ(::lstat(attemptOf("user").c_str(), &status), 0);
    EXPECT_TRUE(sameFile(file.status, status));
    EXPECT_EQ(file.status.st_size, 7);
}

TEST(RegularFile, IsNeitherALinkNorLinkedTwiceNorAnythingElse)
{
    for (const std::string& scope : scopes) {
        makeDirectories(maintenanceOf(scope), {ownerOf(scope), 0755});
        withEachPlant(attemptOf(scope), ownerOf(scope), [&](const std::string& what) {
            EXPECT_EQ(endingOf([&] { regular({scope, attemptPath}, "subject"); }), missingOrUnsafe) << what;
            EXPECT_EQ(endingOf([&] {
                          validateFixedMetadata({scope, attemptPath}, "subject");
                      }),
                      missingOrUnsafe)
                << what;
        });
    }
}

TEST(MetadataFile, IsExaminedForOwnerModeAndSize)
{
    const auto examining = [](const std::string& scope) {
        return endingOf([&] { validateFixedMetadata({scope, attemptPath}, "subject"); });
    };
    for (const std::string& scope : scopes) {
        writeAttempt(scope, std::string(1048576, 'x'));
        EXPECT_EQ(examining(scope), returned());
        writeAttempt(scope, std::string(1048577, 'x'));
        EXPECT_EQ(examining(scope), unsafeOwnership);
        writeAttempt(scope, "content", 0620);
        EXPECT_EQ(examining(scope), unsafeOwnership);
        writeAttempt(scope, "content", 0602);
        EXPECT_EQ(examining(scope), unsafeOwnership);
        writeAttempt(scope);
        setOwner(attemptOf(scope), 502);
        EXPECT_EQ(examining(scope), unsafeOwnership);
    }
}

TEST(ExaminedFile, ThatIsOpenedWithOtherWordsSaysThem)
{
    writeAttempt("user");
    const ExaminedFile file = regular({"user", attemptPath}, "subject");
    const auto opening = [&] { return endingOf([&] { openExamined(file, "no way in", "not the same"); }); };
    EXPECT_EQ(opening(), returned());
    setMode(attemptOf("user"), 0400);
    EXPECT_EQ(opening(), invalid("not the same"));
    removeAll(attemptOf("user"));
    EXPECT_EQ(opening(), invalid("no way in"));
    writeAttempt("user");
    EXPECT_EQ(opening(), invalid("not the same"));
}

TEST(OpenFile, IsReadFromWhereItStandsAndToldApartFromAChangedOne)
{
    writeAttempt("user", "content");
    const OpenFile file = openExamined(regular({"user", attemptPath}, "subject"), "subject");
    EXPECT_TRUE(isUnchanged(file));
    EXPECT_EQ(readContent(file, "subject"), "content");
    EXPECT_EQ(readContent(file, "subject"), "");
    awaitNextTimestamp();
    setMode(attemptOf("user"), 0400);
    EXPECT_FALSE(isUnchanged(file));
    EXPECT_EQ(endingOf([&] { readContent(file, "subject"); }), changed);
}

TEST(SameFile, IsOneInodeOfOneDevice)
{
    writeFile("/tmp/a", "");
    writeFile("/tmp/b", "");
    makeHardLink("/tmp/c", "/tmp/a");
    const auto statusOf = [](const char* path) {
        struct stat status = {};
        EXPECT_EQ(::stat(path, &status), 0);
        return status;
    };
    EXPECT_TRUE(sameFile(statusOf("/tmp/a"), statusOf("/tmp/c")));
    EXPECT_FALSE(sameFile(statusOf("/tmp/a"), statusOf("/tmp/b")));
    struct stat elsewhere = statusOf("/tmp/a");
    ++elsewhere.st_dev;
    EXPECT_FALSE(sameFile(statusOf("/tmp/a"), elsewhere));
}

} // namespace
} // namespace maintenance::rehearsed
