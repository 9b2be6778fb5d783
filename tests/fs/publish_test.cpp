#include "fs/publish.h"

#include "fs/fixed_directory.h"
#include "fs/leftovers.h"
#include "fs/plants.h"
#include "fs/trouble.h"
#include "support/scene.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;
using Path = stdfs::path;

const std::string recordPath = std::string(maintenanceDirectory) + "/record";
const std::vector<std::string> scopes = {"user", "system"};

const Ending unsafeDestination = invalid("fixed metadata destination is unsafe");
const Ending notCreated = runtimeError("cannot create fixed metadata atomically");
const Ending notWritten = runtimeError("cannot write fixed metadata");
const Ending notSynchronized = runtimeError("cannot synchronize fixed metadata");
const Ending notPublished = runtimeError("cannot publish fixed metadata");
const Ending directoryNotSynchronized = runtimeError("cannot synchronize fixed metadata directory");
const Ending unsafeMode = invalid("maintenance directory ownership or mode is unsafe");
const Ending unsafeOwner = invalid("maintenance directory ownership is unsafe");
const Ending redirected = invalid("fixed maintenance directory is missing or redirected");
const Ending notAssigned = invalid("cannot assign fixed maintenance ownership");

Path recordOfScope(const std::string& scope) { return maintenanceOf(scope) / "record"; }

/// The maintenance directory alone, with a record that the scope's owner wrote earlier.
void makeRecord(const std::string& scope, const std::string& content = "old")
{
    writeFile(recordOfScope(scope), content, {ownerOf(scope), 0600});
}

void publishRecord(const std::string& scope, const std::string& content = "new")
{
    atomicWriteFixed({scope, recordPath}, content);
}

Ending publishing(const std::string& scope, const std::string& relative, const std::string& content = "new")
{
    return endingOf([&] { atomicWriteFixed({scope, relative}, content); });
}

std::string temporaryOf(const std::string& name, pid_t process)
{
    return "." + name + ".new." + std::to_string(process);
}

// What is published.

TEST(Publication, CreatesAFileOfTheScopesOwnerThatOnlyTheOwnerMayRead)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(publishing(scope, recordPath, "some text\n"), returned());
        EXPECT_EQ(readFile(recordOfScope(scope)), "some text\n");
        EXPECT_EQ(describe(recordOfScope(scope)), metadataFileOf(scope));
        EXPECT_EQ(describe(maintenanceOf(scope)), directoryOf(scope));
        EXPECT_EQ(describe(supportOf(scope)), directoryOf(scope));
        EXPECT_EQ(namesIn(maintenanceOf(scope)), std::vector<std::string>{"record"});
    }
}

TEST(Publication, ByTheAccountItselfIsItsOwn)
{
    EXPECT_EQ(asAccount(playerUid, [] { publishRecord("user"); }), returned());
    EXPECT_EQ(asAccount(playerUid, [] { publishRecord("user", "newer"); }), returned());
    EXPECT_EQ(readFile(recordOfScope("user")), "newer");
    EXPECT_EQ(describe(recordOfScope("user")), "file 501 0600");
    EXPECT_EQ(describe(maintenanceOf("user")), "dir 501 0755");
}

TEST(Publication, HasTheSameModeWhateverTheUmask)
{
    for (const std::string& scope : scopes) {
        makeLayout(scope);
        for (const mode_t mask : {0u, 022u, 077u, 0777u}) {
            removeAll(recordOfScope(scope));
            const mode_t usual = ::umask(mask);
            const Ending ending = publishing(scope, recordPath);
            ::umask(usual);
            EXPECT_EQ(ending, returned());
            EXPECT_EQ(describe(recordOfScope(scope)), metadataFileOf(scope)) << mask;
        }
    }
}

TEST(Publication, ByTheAccountItselfHasTheSameModeWhateverTheUmask)
{
    makeLayout("user");
    for (const mode_t mask : {0u, 077u, 0777u}) {
        removeAll(recordOfScope("user"));
        EXPECT_EQ(asAccount(playerUid,
                            [&] {
                                ::umask(mask);
                                publishRecord("user");
                            }),
                  returned());
        EXPECT_EQ(describe(recordOfScope("user")), "file 501 0600") << mask;
    }
}

TEST(Publication, ReplacesAFileOfTheScopesOwnerWhateverItsMode)
{
    for (const std::string& scope : scopes)
        for (const mode_t mode : {0600u, 0u, 0444u, 0666u, 0777u, 06755u}) {
            makeRecord(scope);
            setMode(recordOfScope(scope), mode);
            EXPECT_EQ(publishing(scope, recordPath), returned());
            EXPECT_EQ(readFile(recordOfScope(scope)), "new");
            EXPECT_EQ(describe(recordOfScope(scope)), metadataFileOf(scope)) << mode;
        }
}

TEST(Publication, LeavesAnOpenReaderOfTheOldFileItsContent)
{
    makeRecord("user", "old");
    std::ifstream reader(recordOfScope("user"));
    publishRecord("user", "something longer");
    std::string content;
    std::getline(reader, content);
    EXPECT_EQ(content, "old");
}

TEST(Publication, WritesEveryByteOfAnyContent)
{
    std::string every;
    for (int i = 0; i < 256; ++i)
        every += static_cast<char>(i);
    std::string large;
    while (large.size() < 3000000)
        large += every + "x";
    for (const std::string& content : {std::string(), std::string(1, '\0'), every, large})
        for (const std::string& scope : scopes) {
            EXPECT_EQ(publishing(scope, recordPath, content), returned());
            EXPECT_TRUE(readFile(recordOfScope(scope)) == content) << content.size();
            EXPECT_EQ(describe(recordOfScope(scope)), metadataFileOf(scope));
        }
}

TEST(Publication, TakesWhateverTheWriterWrites)
{
    const auto write = [](int descriptor) {
        writeAll(descriptor, "one ");
        writeAll(descriptor, "two");
    };
    publishAtomically({"user", recordPath}, Durability::Copy, write);
    EXPECT_EQ(readFile(recordOfScope("user")), "one two");
}

TEST(Publication, WhoseWriterFailsPassesTheFailureOnAndKeepsTheOldContent)
{
    makeRecord("user");
    const Tree before = takeExactTree();
    const std::vector<Ending> endings = {
        invalid("refused"), runtimeError("failed"), {"other", "std::exception"}};
    const auto failLikeThat = [](const Ending& ending) {
        if (ending.kind == "Invalid")
            throw Invalid(ending.text);
        if (ending.kind == "runtime error")
            throw std::runtime_error(ending.text);
        throw std::exception();
    };
    const std::size_t descriptors = openDescriptors();
    for (const Durability durability : {Durability::Record, Durability::Copy})
        for (const Ending& ending : endings)
            EXPECT_EQ(endingOf([&] {
                          publishAtomically({"user", recordPath}, durability, [&](int descriptor) {
                              writeAll(descriptor, "half of the ");
                              failLikeThat(ending);
                          });
                      }),
                      ending);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(difference(before, takeExactTree()).find("record"), std::string::npos);
    EXPECT_EQ(namesIn(maintenanceOf("user")), std::vector<std::string>{"record"});
}

// Where it is published.

TEST(Publication, IsRefusedWhereSomethingElseThanAPlainFileStands)
{
    for (const std::string& scope : scopes) {
        makeDirectories(maintenanceOf(scope), {ownerOf(scope), 0755});
        withEachPlant(recordOfScope(scope), ownerOf(scope), [&](const std::string& what) {
            const Tree before = takeExactTree();
            EXPECT_EQ(publishing(scope, recordPath), unsafeDestination) << what;
            EXPECT_EQ(difference(before, takeExactTree()), "") << what;
        });
    }
}

TEST(Publication, IsRefusedWhereAFileOfAnotherOwnerStands)
{
    for (const std::string& scope : scopes)
        for (const uid_t owner : {0u, 501u, 502u}) {
            if (owner == ownerOf(scope))
                continue;
            makeRecord(scope);
            setOwner(recordOfScope(scope), owner);
            const Tree before = takeExactTree();
            EXPECT_EQ(publishing(scope, recordPath), unsafeDestination) << scope << " " << owner;
            EXPECT_EQ(difference(before, takeExactTree()), "");
            removeAll(recordOfScope(scope));
        }
}

TEST(Publication, BelowTheMakersDirectoryNeedsSafeDirectories)
{
    for (const std::string& scope : scopes) {
        makeRecord(scope);
        for (const Path& directory : {rootOf(scope), supportOf(scope), maintenanceOf(scope)}) {
            struct stat usual = {};
            ASSERT_EQ(::stat(directory.c_str(), &usual), 0);
            setMode(directory, 0775);
            EXPECT_EQ(publishing(scope, recordPath), unsafeMode) << directory;
            setMode(directory, usual.st_mode & 07777);
            setOwner(directory, 502);
            EXPECT_EQ(publishing(scope, recordPath), unsafeOwner) << directory;
            setOwner(directory, usual.st_uid);
        }
        EXPECT_EQ(readFile(recordOfScope(scope)), "old");
    }
}

TEST(Publication, ElsewhereTakesTheDirectoriesAsTheyAre)
{
    const std::string support = "Library/Application Support/";
    const std::vector<std::pair<std::string, bool>> examples = {
        {support + "Tamarind Pelican/record", true},
        {support + "Tamarind Pelican/a/record", true},
        {support + "Tamarind PelicanX/record", false},
        {support + "Tamarind Pelica/record", false},
        {support + "tamarind pelican/record", false},
        {"Library/Audio/record", false},
        {support + "record", false},
        {support + "Tamarind Pelican", false},
    };
    for (const std::string& scope : scopes)
        for (const auto& [relative, checked] : examples) {
            const Path place = rootOf(scope) / relative;
            makeDirectories(place.parent_path(), {ownerOf(scope), 0755});
            setMode(place.parent_path(), 0777);
            EXPECT_EQ(publishing(scope, relative), checked ? unsafeMode : returned()) << place;
            EXPECT_EQ(describe(place), checked ? "nothing" : metadataFileOf(scope));
            setMode(place.parent_path(), 0755);
            removeAll(rootOf(scope) / support / "Tamarind Pelican");
        }
}

TEST(Publication, CreatesMissingDirectoriesAlsoWhereNoneIsChecked)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(publishing(scope, "Library/Audio/a/b/file"), returned());
        EXPECT_EQ(describe(rootOf(scope) / "Library/Audio"), directoryOf(scope));
        EXPECT_EQ(describe(rootOf(scope) / "Library/Audio/a/b"), directoryOf(scope));
        EXPECT_EQ(describe(rootOf(scope) / "Library/Audio/a/b/file"), metadataFileOf(scope));
    }
}

TEST(Publication, ThroughALinkIsRefused)
{
    makeDirectories("/Users/player/elsewhere/Maintenance", {playerUid, 0755});
    makeLink(supportOf("user"), "/Users/player/elsewhere");
    const Tree before = takeExactTree();
    EXPECT_EQ(publishing("user", recordPath), redirected);
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(Publication, InADirectoryOfRootInTheHomeIsGivenToTheAccount)
{
    makeDirectories("/Users/player/Library/roots");
    EXPECT_EQ(publishing("user", "Library/roots/file"), returned());
    EXPECT_EQ(describe("/Users/player/Library/roots/file"), "file 501 0600");
    EXPECT_EQ(publishing("user", "Library/roots/file", "newer"), returned());
    EXPECT_EQ(readFile("/Users/player/Library/roots/file"), "newer");
}

TEST(Publication, OfAVeryLongNameSucceeds)
{
    for (const std::size_t length : {240u, 250u, 255u}) {
        const std::string name(length, 'n');
        EXPECT_EQ(publishing("user", std::string(maintenanceDirectory) + "/" + name), returned()) << length;
        EXPECT_EQ(namesIn(maintenanceOf("user")), std::vector<std::string>{name});
        removeAll(maintenanceOf("user") / name);
    }
}

TEST(Publication, OfATooLongNameIsRefused)
{
    EXPECT_EQ(publishing("user", std::string(maintenanceDirectory) + "/" + std::string(256, 'n')),
              unsafeDestination);
    EXPECT_EQ(namesIn(maintenanceOf("user")), std::vector<std::string>{});
}

TEST(Publication, ByAnAccountThatMayNotWriteThereFails)
{
    makeRecord("system");
    const Tree before = takeExactTree();
    EXPECT_EQ(asAccount(playerUid, [] { publishRecord("system"); }), notCreated);
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(Publication, OnAReadOnlyDiskFails)
{
    for (const std::string& scope : scopes) {
        makeRecord(scope);
        mountSmallDisk(maintenanceOf(scope), 65536, {ownerOf(scope), 0755});
        makeRecord(scope);
        ASSERT_EQ(::mount(nullptr, maintenanceOf(scope).c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr),
                  0);
        const Tree before = takeExactTree();
        EXPECT_EQ(publishing(scope, recordPath), notCreated);
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

// How it is published.

TEST(Publication, MakesTheContentDurableBeforeTheNameAndTheNameBeforeItReturns)
{
    for (const std::string& scope : scopes) {
        makeRecord(scope);
        const std::string temporary = (maintenanceOf(scope) / temporaryOf("record", 0)).native();
        const std::string prefix = temporary.substr(0, temporary.size() - 1);
        std::vector<std::string> steps;
        const Ending ending = during(
            {SYS_openat, SYS_write, SYS_fsync, SYS_renameat},
            [&](const SystemCall& call) {
                if (call.number == SYS_openat && (call.arguments[2] & O_CREAT) != 0)
                    steps.push_back("create");
                if (call.number == SYS_write || call.number == SYS_fsync) {
                    const std::string path = openPath(call);
                    const std::string what = path.starts_with(prefix)       ? "file"
                                             : path == maintenanceOf(scope) ? "directory"
                                                                            : path;
                    steps.push_back((call.number == SYS_write ? "write " : "synchronize ") + what);
                }
                if (call.number == SYS_renameat)
                    steps.push_back("rename");
                return 0;
            },
            [&] { publishRecord(scope); });
        EXPECT_EQ(ending, returned());
        EXPECT_EQ(steps, (std::vector<std::string>{"create", "write file", "synchronize file", "rename",
                                                   "synchronize directory"}));
    }
}

TEST(Publication, CreatesItsTemporaryFileExclusivelyUnderTheNameOfItsProcess)
{
    for (const std::string& scope : scopes) {
        makeRecord(scope);
        int created = 0;
        const auto examine = [&](const SystemCall& call) {
            if ((call.arguments[2] & O_CREAT) == 0)
                return 0;
            ++created;
            EXPECT_EQ(openPath(call), maintenanceOf(scope));
            EXPECT_EQ(call.text(1), temporaryOf("record", call.process));
            EXPECT_EQ(call.arguments[2] & (O_EXCL | O_CLOEXEC | O_ACCMODE),
                      static_cast<std::uint64_t>(O_EXCL | O_CLOEXEC | O_WRONLY));
            EXPECT_EQ(call.arguments[3], 0600u);
            // A link planted for root finds no root.
            EXPECT_EQ(callersPower(call), ownerOf(scope));
            return 0;
        };
        EXPECT_EQ(during({SYS_openat}, examine, [&] { publishRecord(scope); }), returned());
        EXPECT_EQ(created, 1);
    }
}

TEST(Publication, NeverShowsAnythingButTheOldOrTheNewContent)
{
    makeRecord("user");
    bool renamed = false;
    const auto examine = [&](const SystemCall& call) {
        EXPECT_EQ(readFile(recordOfScope("user")), renamed ? "new" : "old");
        renamed = renamed || call.number == SYS_renameat;
        return 0;
    };
    EXPECT_EQ(during({SYS_openat, SYS_write, SYS_fchmod, SYS_fsync, SYS_renameat, SYS_close}, examine,
                     [] { publishRecord("user"); }),
              returned());
    EXPECT_TRUE(renamed);
}

TEST(Publication, RefusesATemporaryNameOfItsOwnThatIsTakenAndLeavesIt)
{
    for (const std::string& scope : scopes) {
        makeRecord(scope);
        const Path temporary = maintenanceOf(scope) / temporaryOf("record", ::getpid());
        const auto examine = [&](const std::string& what) {
            const Tree before = takeExactTree();
            for (const Durability durability : {Durability::Record, Durability::Copy})
                EXPECT_EQ(endingOf([&] {
                              atomicWriteFixed({scope, recordPath}, "new", durability);
                          }),
                          notCreated)
                    << what;
            EXPECT_EQ(difference(before, takeExactTree()), "") << what;
        };
        withEachPlant(temporary, ownerOf(scope), examine);
        writeFile(temporary, "leftover", {ownerOf(scope), 0600});
        examine("file");
    }
}

TEST(Publication, OfARecordRemovesWhatKilledRunsHaveLeftOfIt)
{
    for (const std::string& scope : scopes) {
        makeRecord(scope);
        const Path leftover = maintenanceOf(scope) / temporaryOf("record", 77777777);
        const Path anothers = maintenanceOf(scope) / temporaryOf("other", 77777777);
        writeFile(leftover, "half", {ownerOf(scope), 0600});
        writeFile(anothers, "half", {ownerOf(scope), 0600});
        atomicWriteFixed({scope, recordPath}, "copy", Durability::Copy);
        EXPECT_TRUE(isThere(leftover));
        publishRecord(scope);
        EXPECT_FALSE(isThere(leftover));
        EXPECT_TRUE(isThere(anothers));
    }
}

// What goes wrong.

/// Publishes over an old record while the nth system call of a number fails; whatever happens, the record is
/// whole and nothing else is left.
Ending publishingWithFailure(const std::string& scope, long number, int nth, int error,
                             const std::string& expectedContent = "old")
{
    makeRecord(scope);
    const Ending ending = failingAt(number, nth, error, [&] { publishRecord(scope); });
    EXPECT_EQ(readFile(recordOfScope(scope)), expectedContent);
    EXPECT_EQ(describe(recordOfScope(scope)), metadataFileOf(scope));
    EXPECT_EQ(namesIn(maintenanceOf(scope)), std::vector<std::string>{"record"});
    return ending;
}

TEST(Publication, WhoseWritingFailsKeepsTheOldContentAndLeavesNothing)
{
    for (const std::string& scope : scopes)
        for (const int error : {EIO, ENOSPC, EDQUOT, EFBIG, EINTR}) {
            EXPECT_EQ(publishingWithFailure(scope, SYS_write, 1, error), notWritten) << error;
            EXPECT_EQ(publishingWithFailure(scope, SYS_fchmod, 1, error), notWritten) << error;
            EXPECT_EQ(publishingWithFailure(scope, SYS_fsync, 1, error), notSynchronized) << error;
            EXPECT_EQ(publishingWithFailure(scope, SYS_renameat, 1, error), notPublished) << error;
        }
}

TEST(Publication, WhoseNameIsNotDurableIsReportedAndVisible)
{
    for (const std::string& scope : scopes)
        for (const int error : {EIO, ENOSPC, EINTR})
            EXPECT_EQ(publishingWithFailure(scope, SYS_fsync, 2, error, "new"), directoryNotSynchronized);
}

TEST(Publication, WhoseTemporaryFileCannotBeCreatedFails)
{
    for (const std::string& scope : scopes)
        for (const int error : {EIO, ENOSPC, EMFILE, ENFILE, EACCES, EINTR, EROFS}) {
            makeRecord(scope);
            const Ending ending = during(
                {SYS_openat},
                [&](const SystemCall& call) { return (call.arguments[2] & O_CREAT) != 0 ? error : 0; },
                [&] { publishRecord(scope); });
            EXPECT_EQ(ending, notCreated) << error;
            EXPECT_EQ(readFile(recordOfScope(scope)), "old");
        }
}

TEST(Publication, WhoseDestinationCannotBeExaminedIsRefused)
{
    for (const std::string& scope : scopes)
        for (const int error : {EIO, EACCES, ENOTDIR, EINTR}) {
            makeRecord(scope);
            const Ending ending = during(
                {SYS_newfstatat},
                [&](const SystemCall& call) { return call.is(SYS_newfstatat, "record") ? error : 0; },
                [&] { publishRecord(scope); });
            EXPECT_EQ(ending, unsafeDestination) << error;
            EXPECT_EQ(namesIn(maintenanceOf(scope)), std::vector<std::string>{"record"});
        }
}

TEST(Publication, ThatCannotBeGivenAwayIsTakenBack)
{
    makeDirectories("/Users/player/Library/roots");
    for (const int error : {EPERM, EIO, EINTR}) {
        EXPECT_EQ(failingAt(SYS_fchown, 1, error,
                            [] {
                                atomicWriteFixed({"user", "Library/roots/x"}, "new");
                            }),
                  notAssigned);
        EXPECT_EQ(namesIn("/Users/player/Library/roots"), std::vector<std::string>{});
    }
}

TEST(Publication, WithoutTheAccountsPowerFails)
{
    makeRecord("user");
    const Tree before = takeExactTree();
    const Ending ending = failingAt(SYS_setresuid, 1, EAGAIN, [] { publishRecord("user"); });
    EXPECT_EQ(ending.kind, "system error");
    EXPECT_TRUE(ending.text.starts_with("cannot act as the scope's owner")) << ending;
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(Publication, OnAFullDiskKeepsTheOldContentAndLeavesNothing)
{
    for (const std::string& scope : scopes) {
        mountSmallDisk(maintenanceOf(scope), 65536, {ownerOf(scope), 0755});
        makeRecord(scope);
        // More than what is free, then with nothing free at all.
        EXPECT_EQ(publishing(scope, recordPath, std::string(100000, 'x')), notWritten);
        EXPECT_EQ(namesIn(maintenanceOf(scope)), std::vector<std::string>{"record"});
        fillDisk(maintenanceOf(scope));
        EXPECT_EQ(publishing(scope, recordPath, "new"), notWritten);
        EXPECT_EQ(namesIn(maintenanceOf(scope)), (std::vector<std::string>{"filler", "record"}));
        EXPECT_EQ(readFile(recordOfScope(scope)), "old");
    }
}

TEST(Publication, BeyondTheLargestFileKeepsTheOldContentAndLeavesNothing)
{
    makeRecord("user");
    EXPECT_EQ(asAccount(rootUid,
                        [] {
                            std::signal(SIGXFSZ, SIG_IGN);
                            const rlimit limit{10000, 10000};
                            ::setrlimit(RLIMIT_FSIZE, &limit);
                            publishRecord("user", std::string(10001, 'x'));
                        }),
              notWritten);
    EXPECT_EQ(readFile(recordOfScope("user")), "old");
    EXPECT_EQ(namesIn(maintenanceOf("user")), std::vector<std::string>{"record"});
}

/// What stands in both scopes is old or new as a whole, rightly owned, and nothing lies beside it.
void expectWholeRecord(const std::string& scope, const std::string& expected, const std::string& when)
{
    EXPECT_EQ(readFile(recordOfScope(scope)), expected) << when;
    EXPECT_EQ(describe(recordOfScope(scope)), metadataFileOf(scope)) << when;
    EXPECT_EQ(namesIn(maintenanceOf(scope)), std::vector<std::string>{"record"}) << when;
}

TEST(Publication, LeavesOldOrNewContentWhateverSystemCallFails)
{
    const std::vector<long> stopped = {SYS_openat,     SYS_fchmod, SYS_write,      SYS_fsync, SYS_renameat,
                                       SYS_newfstatat, SYS_fstat,  SYS_getdents64, SYS_fcntl};
    for (const std::string& scope : scopes) {
        makeRecord(scope);
        const auto call = [&] { publishRecord(scope); };
        eachMeeting(EIO, stopped, call, [&](const Ending& ending, const SystemCall& met) {
            const std::string when = ending.text + " at " + std::to_string(met.number);
            const bool visible = ending == returned() || ending == directoryNotSynchronized;
            EXPECT_NE(ending.kind, "other") << when;
            expectWholeRecord(scope, visible ? "new" : "old", when);
            makeRecord(scope);
        });
    }
}

/// Nothing in the user's maintenance tree belongs to anybody but the account.
std::string foreignOwners(const Path& place)
{
    std::string found;
    for (const auto& [path, line] : takeTree({place.native()}))
        if (line.find(" 501 ") == std::string::npos)
            found += path + ": " + line + "\n";
    return found;
}

TEST(Publication, KilledAtAnySystemCallLeavesNothingThatTheNextOneRefuses)
{
    for (const std::string& scope : scopes) {
        const auto call = [&] { publishRecord(scope); };
        eachMeeting(killChild, changingCalls(), call, [&](const Ending& ending, const SystemCall& met) {
            const std::string when = scope + " at " + std::to_string(met.number);
            EXPECT_EQ(ending, (Ending{"signal", "9"})) << when;
            if (isThere(recordOfScope(scope))) {
                EXPECT_EQ(readFile(recordOfScope(scope)), "new") << when;
            }
            if (scope == "user") {
                EXPECT_EQ(foreignOwners(supportOf(scope)), "") << when;
            }
            EXPECT_EQ(publishing(scope, recordPath, "next"), returned()) << when;
            expectWholeRecord(scope, "next", when);
            removeAll(supportOf(scope));
        });
    }
}

TEST(Publication, KilledInADirectoryOfRootInTheHomeIsFinishedByTheNextOne)
{
    const std::vector<long> stopped = {SYS_openat, SYS_fchown, SYS_fchmod, SYS_fsync, SYS_renameat};
    const auto call = [] { atomicWriteFixed({"user", "Library/roots/file"}, "new"); };
    makeDirectories("/Users/player/Library/roots");
    eachMeeting(killChild, stopped, call, [&](const Ending&, const SystemCall& met) {
        EXPECT_EQ(publishing("user", "Library/roots/file"), returned()) << met.number;
        EXPECT_EQ(describe("/Users/player/Library/roots/file"), "file 501 0600") << met.number;
        removeAll("/Users/player/Library/roots");
        makeDirectories("/Users/player/Library/roots");
    });
}

// What is exchanged meanwhile.

TEST(Publication, GoesIntoTheDirectoryThatWasCheckedAlsoWhenItIsMovedAway)
{
    makeRecord("user");
    makeDirectories("/Users/player/trap/Maintenance", {playerUid, 0755});
    const auto exchange = once([](const SystemCall& call) { return call.number == SYS_write; },
                               [] {
                                   stdfs::rename(supportOf("user"), "/Users/player/away");
                                   makeLink(supportOf("user"), "/Users/player/trap");
                               });
    EXPECT_EQ(during({SYS_write}, exchange, [] { publishRecord("user"); }), returned());
    EXPECT_EQ(namesIn("/Users/player/trap/Maintenance"), std::vector<std::string>{});
    EXPECT_EQ(readFile("/Users/player/away/Maintenance/record"), "new");
}

TEST(Publication, ReplacesALinkThatIsPlantedAtTheLastMomentAndNotWhatItLeadsTo)
{
    writeFile("/Users/player/precious", "precious");
    makeDirectories(maintenanceOf("user"), {playerUid, 0755});
    for (const bool hard : {false, true}) {
        const auto plant = once([](const SystemCall& call) { return call.number == SYS_renameat; },
                                [&] {
                                    removeAll(recordOfScope("user"));
                                    if (hard)
                                        makeHardLink(recordOfScope("user"), "/Users/player/precious");
                                    else
                                        makeLink(recordOfScope("user"), "/Users/player/precious");
                                });
        EXPECT_EQ(during({SYS_renameat}, plant, [] { publishRecord("user"); }), returned());
        EXPECT_EQ(readFile("/Users/player/precious"), "precious");
        EXPECT_EQ(readFile(recordOfScope("user")), "new");
        EXPECT_EQ(describe(recordOfScope("user")), "file 501 0600");
    }
}

TEST(Publication, OntoADirectoryThatIsPlantedAtTheLastMomentFails)
{
    makeDirectories(maintenanceOf("user"), {playerUid, 0755});
    const auto plant = once([](const SystemCall& call) { return call.number == SYS_renameat; },
                            [] {
                                makeDirectories(recordOfScope("user"), {playerUid, 0755});
                            });
    EXPECT_EQ(during({SYS_renameat}, plant, [] { publishRecord("user"); }), notPublished);
    EXPECT_EQ(namesIn(maintenanceOf("user")), std::vector<std::string>{"record"});
}

TEST(Publication, NeitherWritesNorGivesAwayWhatIsPutInThePlaceOfItsTemporaryFile)
{
    writeFile("/Users/player/precious", "precious");
    makeDirectories(maintenanceOf("user"), {playerUid, 0755});
    const Tree before = takeExactTree({"/Users/player/precious"});
    for (const long moment : {SYS_fchmod, SYS_write, SYS_fsync}) {
        const auto plant = [&](const SystemCall& call) {
            if (call.count != 1)
                return 0;
            const Path temporary = maintenanceOf("user") / temporaryOf("record", call.process);
            removeAll(temporary);
            makeLink(temporary, "/Users/player/precious");
            return 0;
        };
        during({moment}, plant, [] { publishRecord("user"); });
        EXPECT_EQ(difference(before, takeExactTree({"/Users/player/precious"})), "");
        removeAll(recordOfScope("user"));
    }
}

TEST(Publication, OverARecordThatVanishesMeanwhileSucceeds)
{
    makeRecord("user");
    const auto vanish = once([](const SystemCall& call) { return call.number == SYS_renameat; },
                             [] { removeAll(recordOfScope("user")); });
    EXPECT_EQ(during({SYS_renameat}, vanish, [] { publishRecord("user"); }), returned());
    EXPECT_EQ(readFile(recordOfScope("user")), "new");
}

TEST(Publication, WhoseTemporaryFileVanishesFails)
{
    makeRecord("user");
    const auto vanish = [](const SystemCall& call) {
        removeAll(maintenanceOf("user") / temporaryOf("record", call.process));
        return 0;
    };
    EXPECT_EQ(during({SYS_renameat}, vanish, [] { publishRecord("user"); }), notPublished);
    expectWholeRecord("user", "old", "");
}

// Metadata at an absolute path.

TEST(MetadataText, InAScopeIsPublishedAtomically)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(endingOf([&] { text(recordOfScope(scope), "content"); }), returned());
        EXPECT_EQ(readFile(recordOfScope(scope)), "content");
        EXPECT_EQ(describe(recordOfScope(scope)), metadataFileOf(scope));
        setMode(maintenanceOf(scope), 0777);
        EXPECT_EQ(endingOf([&] { text(recordOfScope(scope), "new"); }), unsafeMode);
    }
}

TEST(MetadataText, IsClassifiedByItsNormalPath)
{
    text("/Users/other/../player/Library/./x", "content");
    EXPECT_EQ(describe("/Users/player/Library/x"), "file 501 0600");
    text("/etc/../Library//x", "content");
    EXPECT_EQ(describe("/Library/x"), "file 0 0600");
    text("/Library/../etc/x", "content");
    EXPECT_EQ(describe("/etc/x"), "file 0 0600");
}

TEST(MetadataText, ElsewhereIsWrittenBesideAndRenamed)
{
    for (const mode_t mask : {0u, 022u, 077u}) {
        removeAll("/srv/metadata");
        const mode_t usual = ::umask(mask);
        const Ending ending = endingOf([] { text("/srv/metadata/deep/file", "content"); });
        ::umask(usual);
        EXPECT_EQ(ending, returned());
        EXPECT_EQ(readFile("/srv/metadata/deep/file"), "content");
        EXPECT_EQ(describe("/srv/metadata/deep/file"), "file 0 0600");
        EXPECT_EQ(namesIn("/srv/metadata/deep"), std::vector<std::string>{"file"});
    }
    writeFile("/srv/metadata/deep/file.new", "a long leftover of an earlier run");
    text("/srv/metadata/deep/file", "new");
    EXPECT_EQ(readFile("/srv/metadata/deep/file"), "new");
    EXPECT_EQ(namesIn("/srv/metadata/deep"), std::vector<std::string>{"file"});
}

TEST(MetadataText, ElsewhereOpensATransactionsDirectoryForReading)
{
    const Path transaction = "/srv/Maintenance/Transactions/t";
    const Path directory = "/srv/Maintenance/Other/t";
    for (const Path& made : {transaction, directory}) {
        makeDirectories(made);
        setMode(made, 0700);
        text(made / "file", "content");
    }
    EXPECT_EQ(describe(transaction), "dir 0 0755");
    EXPECT_EQ(describe(directory), "dir 0 0700");
}

TEST(MetadataText, ElsewhereSaysWhatWentWrongAndLeavesTheOldContent)
{
    const Path file = "/srv/Maintenance/Transactions/t/file";
    writeFile(file, "old");
    const Tree before = takeExactTree({"/srv"});
    const auto writing = [&] { text(file, "new"); };
    EXPECT_EQ(failingAt(SYS_chmod, 1, EPERM, writing), runtimeError("cannot secure transaction directory"));
    EXPECT_EQ(failingAt(SYS_chmod, 2, EIO, writing), runtimeError("cannot secure maintenance metadata"));
    const auto creation = [](const SystemCall& call) {
        return (call.arguments[2] & O_CREAT) != 0 ? ENOSPC : 0;
    };
    EXPECT_EQ(during({SYS_openat}, creation, writing), runtimeError("cannot write maintenance metadata"));
    // Of the content alone: a sanitizer writes pointers to a pipe of its own to learn whether they are good.
    const auto write = [](const SystemCall& call) {
        return call.number == SYS_writev || call.arguments[2] == 3 ? ENOSPC : 0;
    };
    EXPECT_EQ(during({SYS_write, SYS_writev}, write, writing),
              runtimeError("cannot write maintenance metadata"));
    EXPECT_EQ(failingAt(SYS_rename, 1, EIO, writing).kind, "system error");
    EXPECT_EQ(difference(before, takeExactTree({"/srv"})), "");
}

TEST(MetadataText, ElsewhereOverADirectoryFailsWithTheLibrarysOwnError)
{
    makeDirectories("/srv/file/x");
    EXPECT_EQ(endingOf([] { text("/srv/file", "new"); }).kind, "system error");
    EXPECT_EQ(namesIn("/srv"), std::vector<std::string>{"file"});
}

TEST(MetadataText, WhereNoDirectoryCanBeMadeFails)
{
    writeFile("/srv/plain", "no directory");
    EXPECT_EQ(endingOf([] { text("/srv/plain/file", "new"); }),
              runtimeError("cannot write maintenance metadata"));
    EXPECT_EQ(endingOf([] { text("/srv/plain/Maintenance/Transactions/t/file", "new"); }),
              runtimeError("cannot secure transaction directory"));
    EXPECT_EQ(readFile("/srv/plain"), "no directory");
}

TEST(MetadataText, NeedsTheConsoleAccountOutsideTheSystemsLibrary)
{
    setNobodyAtConsole();
    EXPECT_EQ(endingOf([] { text("/Library/x", "content"); }), returned());
    EXPECT_EQ(endingOf([] { text("/etc/x", "content"); }),
              invalid("cannot resolve the invoking console account"));
}

TEST(WritingAll, TellsWhetherEverythingWasWritten)
{
    const OwnedFd file(::open("/tmp/file", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_TRUE(writeAll(file.get(), ""));
    EXPECT_TRUE(writeAll(file.get(), "one "));
    EXPECT_TRUE(writeAll(file.get(), "two"));
    EXPECT_EQ(readFile("/tmp/file"), "one two");
    EXPECT_TRUE(writeAll(-1, ""));
    EXPECT_FALSE(writeAll(-1, "x"));
    const OwnedFd reader(::open("/tmp/file", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(writeAll(reader.get(), "x"));
    const OwnedFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(writeAll(full.get(), "x"));
}

/// A process that writes to a pipe; a signal cuts its blocked write short without making it fail.
pid_t startWriter(const std::array<int, 2>& ends, const std::string& content)
{
    const pid_t writer = ::fork();
    if (writer != 0)
        return writer;
    ::close(ends[0]);
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, nullptr);
    ::_exit(writeAll(ends[1], content) ? 0 : 1);
}

TEST(WritingAll, GoesOnAfterAShortWrite)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const std::string content(1000000, 'c');
    const pid_t writer = startWriter(ends, content);
    ASSERT_GE(writer, 0);
    ::close(ends[1]);
    const int capacity = ::fcntl(ends[0], F_GETPIPE_SZ);
    for (int waiting = 0; waiting < capacity; ::sched_yield())
        ASSERT_EQ(::ioctl(ends[0], FIONREAD, &waiting), 0);
    ASSERT_EQ(::kill(writer, SIGUSR1), 0);
    std::string received;
    std::array<char, 65536> chunk;
    for (ssize_t count; (count = ::read(ends[0], chunk.data(), chunk.size())) > 0;)
        received.append(chunk.data(), static_cast<std::size_t>(count));
    ::close(ends[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(received.size(), content.size());
}

} // namespace
} // namespace maintenance::rehearsed
