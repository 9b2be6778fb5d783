#include "fs/locks.h"

#include "fs/held_locks.h"
#include "fs/plants.h"
#include "fs/trouble.h"
#include "support/scene.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;
using Path = stdfs::path;
using Scopes = std::vector<std::string>;

const std::string lockName = "maintenance.lock";
const Scopes scopes = {"user", "system"};

const Ending unsafeLock = invalid("maintenance lock is unsafe");
const Ending notOpened = invalid("cannot open the maintenance lock");
const Ending active = invalid("another maintenance transaction is active");
const Ending unsafeMode = invalid("maintenance directory ownership or mode is unsafe");
const Ending unsafeOwner = invalid("maintenance directory ownership is unsafe");
const Ending redirected = invalid("fixed maintenance directory is missing or redirected");

void makeMaintenance(const std::string& scope)
{
    makeDirectories(maintenanceOf(scope), {ownerOf(scope), 0755});
}

void writeLock(const std::string& scope, mode_t mode = 0600)
{
    writeFile(lockOf(scope), "", {ownerOf(scope), mode});
}

Ending locking(const Scopes& wanted)
{
    return endingOf([&] { const Locks locks(wanted); });
}

/// What another process says that wants the locks now.
Ending lockingElsewhere(const Scopes& wanted)
{
    return asAccount(rootUid, [&] { const Locks locks(wanted); });
}

// The lock file.

TEST(MaintenanceLock, FileIsCreatedForTheScopesOwnerAndStays)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(locking({scope}), returned());
        EXPECT_EQ(describe(lockOf(scope)), metadataFileOf(scope));
        EXPECT_EQ(readFile(lockOf(scope)), "");
        EXPECT_EQ(describe(maintenanceOf(scope)), directoryOf(scope));
        EXPECT_EQ(namesIn(maintenanceOf(scope)), Scopes{lockName});
    }
}

TEST(MaintenanceLock, FileHasTheSameModeWhateverTheUmask)
{
    for (const std::string& scope : scopes) {
        makeMaintenance(scope);
        for (const mode_t mask : {0u, 022u, 077u, 0777u}) {
            removeAll(lockOf(scope));
            const mode_t usual = ::umask(mask);
            const Ending ending = locking({scope});
            ::umask(usual);
            EXPECT_EQ(ending, returned());
            EXPECT_EQ(describe(lockOf(scope)), metadataFileOf(scope)) << mask;
        }
    }
}

TEST(MaintenanceLock, FileCreatedByTheAccountItselfIsItsOwn)
{
    const auto lock = [] { const Locks locks({"user"}); };
    EXPECT_EQ(asAccount(playerUid, lock), returned());
    EXPECT_EQ(describe(lockOf("user")), "file 501 0600");
    EXPECT_EQ(asAccount(playerUid, lock), returned());
    EXPECT_EQ(locking({"user"}), returned());
}

TEST(MaintenanceLock, FileThatIsThereIsLeftAsItIs)
{
    for (const std::string& scope : scopes)
        for (const mode_t mode : {0600u, 0644u, 0755u, 0400u, 0u}) {
            writeFile(lockOf(scope), "some content", {ownerOf(scope), mode});
            const Tree before = takeExactTree();
            EXPECT_EQ(locking({scope}), returned()) << mode;
            EXPECT_EQ(difference(before, takeExactTree()), "");
        }
}

TEST(MaintenanceLock, InWhosePlaceSomethingElseStandsIsRefused)
{
    for (const std::string& scope : scopes) {
        makeMaintenance(scope);
        withEachPlant(lockOf(scope), ownerOf(scope), [&](const std::string& what) {
            const Tree before = takeExactTree();
            EXPECT_EQ(locking({scope}), unsafeLock) << what;
            EXPECT_EQ(difference(before, takeExactTree()), "") << what;
        });
    }
}

TEST(MaintenanceLock, WritableForGroupOrOthersIsRefused)
{
    for (const std::string& scope : scopes)
        for (const mode_t mode : {0666u, 0620u, 0602u, 0664u, 0777u}) {
            writeLock(scope, mode);
            EXPECT_EQ(locking({scope}), unsafeLock) << mode;
            EXPECT_EQ(describe(lockOf(scope)).substr(0, 5), "file ");
        }
}

TEST(MaintenanceLock, OfAnotherOwnerIsRefusedAndNotGivenAway)
{
    for (const std::string& scope : scopes)
        for (const uid_t owner : {0u, 501u, 502u}) {
            writeLock(scope);
            setOwner(lockOf(scope), owner);
            EXPECT_EQ(locking({scope}), owner == ownerOf(scope) ? returned() : unsafeLock);
            EXPECT_EQ(describe(lockOf(scope)), "file " + std::to_string(owner) + " 0600");
        }
}

TEST(MaintenanceLock, ThatTheAccountMayNotOpenIsRefused)
{
    writeLock("user", 0400);
    EXPECT_EQ(asAccount(playerUid, [] { const Locks locks({"user"}); }), notOpened);
    writeLock("system");
    EXPECT_EQ(asAccount(playerUid, [] { const Locks locks({"system"}); }), notOpened);
    removeAll(lockOf("system"));
    EXPECT_EQ(asAccount(playerUid, [] { const Locks locks({"system"}); }), notOpened);
    EXPECT_FALSE(isThere(lockOf("system")));
}

TEST(MaintenanceLock, NeedsASafeDirectoryChain)
{
    for (const std::string& scope : scopes) {
        makeMaintenance(scope);
        setMode(maintenanceOf(scope), 0777);
        EXPECT_EQ(locking({scope}), unsafeMode);
        setMode(maintenanceOf(scope), 0755);
        setOwner(supportOf(scope), 502);
        EXPECT_EQ(locking({scope}), unsafeOwner);
        removeAll(supportOf(scope));
        makeDirectories("/Users/player/elsewhere/Maintenance", {ownerOf(scope), 0755});
        makeLink(supportOf(scope), "/Users/player/elsewhere");
        EXPECT_EQ(locking({scope}), redirected);
        EXPECT_EQ(namesIn("/Users/player/elsewhere/Maintenance"), Scopes{});
        removeAll("/Users/player/elsewhere");
    }
}

// Holding it.

TEST(MaintenanceLock, KeepsOtherProcessesOffUntilItIsReleased)
{
    for (const std::string& scope : scopes) {
        {
            const Locks locks({scope});
            EXPECT_EQ(lockingElsewhere({scope}), active);
            EXPECT_EQ(lockingElsewhere({oppositeOf(scope)}), returned());
            EXPECT_EQ(lockingElsewhere({"user", "system"}), active);
        }
        EXPECT_EQ(lockingElsewhere({scope}), returned());
    }
}

TEST(MaintenanceLock, HeldByAnotherProcessIsRefusedAtOnce)
{
    makeLayout("user");
    makeLayout("system");
    for (const std::string& scope : scopes) {
        const HeldLock holder(scope);
        const Tree before = takeExactTree();
        EXPECT_EQ(locking({scope}), active);
        EXPECT_EQ(asAccount(ownerOf(scope), [&] { const Locks locks({scope}); }), active);
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(MaintenanceLock, IsFreeAsSoonAsItsHolderIsKilled)
{
    makeLayout("user");
    {
        const HeldLock holder("user");
        EXPECT_EQ(locking({"user"}), active);
    }
    EXPECT_EQ(locking({"user"}), returned());
}

TEST(MaintenanceLock, ThatTheRealProgramFindsHeldEndsItsRun)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string id = publish(Work("user").brings(alpha), "install-1");
    const HeldLock holder("user");
    const Tree before = takeExactTree();
    for (const char* command : {"prepare-move", "commit-move", "rollback-move", "uninstall-product"}) {
        EXPECT_EQ(run({command, "user", id}), refused("another maintenance transaction is active"))
            << command;
        EXPECT_EQ(run({command, "user", id}, asPlayer()),
                  refused("another maintenance transaction is active"));
    }
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(MaintenanceLock, HeldInPartOrForReadingByAnotherProcessIsRefused)
{
    writeLock("user");
    for (const short type : {short{F_RDLCK}, short{F_WRLCK}})
        for (const off_t start : {0l, 5l, 1000000000l}) {
            const OwnedFd file(::open(lockOf("user").c_str(), O_RDWR | O_CLOEXEC));
            struct flock part = {};
            part.l_type = type;
            part.l_whence = SEEK_SET;
            part.l_start = start;
            part.l_len = 1;
            ASSERT_EQ(::fcntl(file.get(), F_SETLK, &part), 0);
            EXPECT_EQ(lockingElsewhere({"user"}), active) << start;
        }
    EXPECT_EQ(lockingElsewhere({"user"}), returned());
}

TEST(MaintenanceLock, IsAnExclusiveRecordLockOnTheWholeFile)
{
    const Locks locks({"user"});
    const Ending found = asAccount(rootUid, [] {
        const OwnedFd file(::open(lockOf("user").c_str(), O_RDWR | O_CLOEXEC));
        struct flock wanted = {};
        wanted.l_type = F_RDLCK;
        wanted.l_whence = SEEK_SET;
        wanted.l_start = 12345;
        ::fcntl(file.get(), F_GETLK, &wanted);
        const std::string type = wanted.l_type == F_WRLCK ? "exclusive" : "other";
        return type + " " + std::to_string(wanted.l_start) + " " + std::to_string(wanted.l_len) +
               (wanted.l_pid == ::getppid() ? " parent" : " somebody");
    });
    EXPECT_EQ(found, returned("exclusive 0 0 parent"));
}

TEST(MaintenanceLock, IsNotInheritedByAnotherProgram)
{
    const Locks locks({"user"});
    int found = 0;
    for (const std::string& descriptor : namesIn("/proc/self/fd")) {
        std::error_code gone;
        if (stdfs::read_symlink("/proc/self/fd/" + descriptor, gone) != lockOf("user"))
            continue;
        ++found;
        EXPECT_EQ(::fcntl(std::stoi(descriptor), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_EQ(found, 1);
}

TEST(MaintenanceLock, LeavesNoDescriptorOpen)
{
    const std::size_t before = openDescriptors();
    {
        const Locks locks({"user", "system"});
        EXPECT_EQ(openDescriptors(), before + 2);
    }
    EXPECT_EQ(openDescriptors(), before);
    setMode(lockOf("user"), 0666);
    EXPECT_EQ(locking({"user", "system"}), unsafeLock);
    EXPECT_EQ(openDescriptors(), before);
}

// Several scopes.

TEST(MaintenanceLocks, OfNoScopeTouchNothing)
{
    const Tree before = takeExactTree();
    EXPECT_EQ(locking({}), returned());
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(MaintenanceLocks, AreTakenOnceEachSystemFirstAndReleasedTheOtherWayRound)
{
    writeLock("user");
    writeLock("system");
    for (const Scopes& wanted :
         {Scopes{"user", "system", "user"}, Scopes{"system", "user"}, Scopes{"user", "system"}}) {
        std::vector<std::string> steps;
        const auto record = [&](const SystemCall& call) {
            const std::string path = openPath(call);
            for (const std::string& scope : scopes)
                if (path == lockOf(scope).native() &&
                    (call.number == SYS_close || call.arguments[1] == F_SETLK))
                    steps.push_back((call.number == SYS_close ? "release " : "take ") + scope);
            return 0;
        };
        EXPECT_EQ(during({SYS_fcntl, SYS_close}, record, [&] { const Locks locks(wanted); }), returned());
        EXPECT_EQ(steps, (Scopes{"take system", "take user", "release user", "release system"}));
    }
}

TEST(MaintenanceLocks, TakenBeforeAFailureAreReleased)
{
    makeLayout("user");
    makeLayout("system");
    {
        const HeldLock holder("user");
        EXPECT_EQ(locking({"user", "system"}), active);
        EXPECT_EQ(lockingElsewhere({"system"}), returned());
        EXPECT_EQ(describe(lockOf("system")), metadataFileOf("system"));
    }
    setMode(lockOf("user"), 0666);
    EXPECT_EQ(locking({"user", "system"}), unsafeLock);
    EXPECT_EQ(lockingElsewhere({"system"}), returned());
}

TEST(MaintenanceLocks, RefusedForTheFirstScopeLeaveTheOtherAlone)
{
    makeLayout("system");
    const HeldLock holder("system");
    const Tree before = takeTree();
    EXPECT_EQ(locking({"user", "system"}), active);
    EXPECT_EQ(difference(before, takeTree()), "");
}

// What is exchanged meanwhile.

bool opensLock(const SystemCall& call) { return call.is(SYS_openat, lockName); }

/// Takes the user scope's lock while `change` happens just before the lock file is opened or created.
Ending lockingWhile(const std::function<void()>& change)
{
    return during({SYS_openat}, once(opensLock, change), [] { const Locks locks({"user"}); });
}

TEST(MaintenanceLock, FileThatAnotherRunCreatesFirstIsUsed)
{
    makeMaintenance("user");
    EXPECT_EQ(lockingWhile([] { writeFile(lockOf("user"), "", {playerUid, 0644}); }), returned());
    EXPECT_EQ(describe(lockOf("user")), "file 501 0644");
}

TEST(MaintenanceLock, FileThatAnotherRunCreatesFirstAndHoldsIsRefused)
{
    makeMaintenance("user");
    std::optional<HeldLock> holder;
    EXPECT_EQ(lockingWhile([&] { holder.emplace("user"); }), active);
}

TEST(MaintenanceLock, InWhosePlaceSomethingElseIsPutBeforeItsCreationIsRefused)
{
    makeMaintenance("user");
    for (const Plant& plant : foreignPlants()) {
        Tree before;
        EXPECT_EQ(lockingWhile([&] {
                      writeFile(besideOf(lockOf("user")), "beside", {playerUid, 0600});
                      plant.put(lockOf("user"), playerUid);
                      before = takeExactTree();
                  }),
                  unsafeLock)
            << plant.what;
        EXPECT_EQ(difference(before, takeExactTree()), "") << plant.what;
        ::umount2(lockOf("user").c_str(), MNT_DETACH);
        removeAll(lockOf("user"));
        removeAll(besideOf(lockOf("user")));
    }
}

TEST(MaintenanceLock, OfRootPutInThePlaceOfANewOneIsNotGivenAway)
{
    makeMaintenance("user");
    EXPECT_EQ(lockingWhile([] { writeFile(lockOf("user"), "", {rootUid, 0600}); }), unsafeLock);
    EXPECT_EQ(describe(lockOf("user")), "file 0 0600");
}

TEST(MaintenanceLock, InWhosePlaceSomethingElseIsPutBeforeItIsOpenedIsRefused)
{
    for (const Plant& plant : foreignPlants()) {
        writeLock("user");
        const Ending ending = lockingWhile([&] {
            removeAll(lockOf("user"));
            writeFile(besideOf(lockOf("user")), "beside", {playerUid, 0600});
            plant.put(lockOf("user"), playerUid);
        });
        const bool opens = plant.what == "hard link" || plant.what == "pipe" || plant.what == "device";
        EXPECT_EQ(ending, opens ? unsafeLock : notOpened) << plant.what;
        ::umount2(lockOf("user").c_str(), MNT_DETACH);
        removeAll(lockOf("user"));
        removeAll(besideOf(lockOf("user")));
    }
}

TEST(MaintenanceLock, ThatVanishesBeforeItIsOpenedIsNotMadeAnew)
{
    writeLock("user");
    EXPECT_EQ(lockingWhile([] { removeAll(lockOf("user")); }), notOpened);
    EXPECT_FALSE(isThere(lockOf("user")));
}

TEST(MaintenanceLock, MadeUnsafeBeforeItIsOpenedIsRefused)
{
    const std::vector<std::function<void()>> changes = {
        [] { setMode(lockOf("user"), 0666); },
        [] { setOwner(lockOf("user"), 502); },
        [] { makeHardLink(besideOf(lockOf("user")), lockOf("user")); },
    };
    for (const auto& change : changes) {
        removeAll(besideOf(lockOf("user")));
        writeLock("user");
        EXPECT_EQ(lockingWhile(change), unsafeLock);
    }
}

TEST(MaintenanceLock, WhoseNameLeadsElsewhereOnceItIsLockedIsRefused)
{
    const std::vector<std::function<void()>> changes = {
        [] { removeAll(lockOf("user")); },
        [] {
            writeFile(besideOf(lockOf("user")), "", {playerUid, 0600});
            stdfs::rename(besideOf(lockOf("user")), lockOf("user"));
        },
        [] {
            stdfs::rename(lockOf("user"), besideOf(lockOf("user")));
            makeLink(lockOf("user"), besideOf(lockOf("user")));
        },
        [] { makeHardLink(besideOf(lockOf("user")), lockOf("user")); },
    };
    for (const auto& change : changes) {
        removeAll(besideOf(lockOf("user")));
        removeAll(lockOf("user"));
        writeLock("user");
        const auto setsLock = [](const SystemCall& call) { return call.arguments[1] == F_SETLK; };
        EXPECT_EQ(during({SYS_fcntl}, once(setsLock, change), [] { const Locks locks({"user"}); }),
                  unsafeLock);
    }
}

TEST(MaintenanceLock, CreatedIsRefusedWhenItsNameLeadsElsewhere)
{
    makeMaintenance("user");
    const auto setsLock = [](const SystemCall& call) { return call.arguments[1] == F_SETLK; };
    const auto replace = [] {
        removeAll(lockOf("user"));
        writeLock("user");
    };
    EXPECT_EQ(during({SYS_fcntl}, once(setsLock, replace), [] { const Locks locks({"user"}); }), unsafeLock);
}

TEST(MaintenanceLock, BelowADirectoryThatIsMovedAwayIsTheOneThatWasChecked)
{
    makeMaintenance("user");
    makeDirectories("/Users/player/trap/Maintenance", {playerUid, 0755});
    EXPECT_EQ(lockingWhile([] {
                  stdfs::rename(supportOf("user"), "/Users/player/away");
                  makeLink(supportOf("user"), "/Users/player/trap");
              }),
              returned());
    EXPECT_EQ(namesIn("/Users/player/trap/Maintenance"), Scopes{});
    EXPECT_EQ(describe("/Users/player/away/Maintenance/maintenance.lock"), "file 501 0600");
}

// What the system refuses.

TEST(MaintenanceLock, ThatCannotBeExaminedIsRefused)
{
    for (const std::string& scope : scopes)
        for (const int error : {EIO, EACCES, ENOTDIR, EINTR}) {
            makeMaintenance(scope);
            const auto fail = [&](const SystemCall& call) {
                return call.is(SYS_newfstatat, lockName) ? error : 0;
            };
            EXPECT_EQ(during({SYS_newfstatat}, fail, [&] { const Locks locks({scope}); }), unsafeLock);
            EXPECT_FALSE(isThere(lockOf(scope)));
        }
}

TEST(MaintenanceLock, ThatCannotBeExaminedOnceItIsOpenIsRefused)
{
    writeLock("user");
    const auto fail = [](const SystemCall& call) {
        return isFstat(call) && openPath(call) == lockOf("user") ? EIO : 0;
    };
    EXPECT_EQ(during({SYS_newfstatat, SYS_fstat}, fail, [] { const Locks locks({"user"}); }), unsafeLock);
}

TEST(MaintenanceLock, ThatCannotBeOpenedOrCreatedIsRefused)
{
    for (const std::string& scope : scopes)
        for (const bool exists : {false, true})
            for (const int error : {EIO, EMFILE, ENFILE, ENOSPC, EACCES, EROFS, EINTR}) {
                makeMaintenance(scope);
                if (exists)
                    writeLock(scope);
                const auto fail = [&](const SystemCall& call) { return opensLock(call) ? error : 0; };
                EXPECT_EQ(during({SYS_openat}, fail, [&] { const Locks locks({scope}); }), notOpened);
                EXPECT_EQ(isThere(lockOf(scope)), exists);
                removeAll(lockOf(scope));
            }
}

TEST(MaintenanceLock, WhoseModeCannotBeSetIsRefusedAndUsedByTheNextRun)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(failingAt(SYS_fchmod, 1, EIO, [&] { const Locks locks({scope}); }), notOpened);
        EXPECT_EQ(locking({scope}), returned());
    }
}

TEST(MaintenanceLock, ThatTheSystemDoesNotGrantIsTakenForHeld)
{
    for (const std::string& scope : scopes)
        for (const int error : {EAGAIN, EACCES, ENOLCK, EINTR, EDEADLK}) {
            const auto fail = [&](const SystemCall& call) {
                return call.arguments[1] == F_SETLK ? error : 0;
            };
            EXPECT_EQ(during({SYS_fcntl}, fail, [&] { const Locks locks({scope}); }), active) << error;
        }
}

TEST(MaintenanceLock, NeverWaits)
{
    writeLock("user");
    int requests = 0;
    const auto examine = [&](const SystemCall& call) {
        requests += call.arguments[1] == F_SETLK ? 1 : 0;
        EXPECT_NE(call.arguments[1], static_cast<std::uint64_t>(F_SETLKW));
        return 0;
    };
    EXPECT_EQ(during({SYS_fcntl}, examine, [] { const Locks locks({"user"}); }), returned());
    EXPECT_EQ(requests, 1);
}

TEST(MaintenanceLock, IsCreatedExclusivelyAndOpenedWithoutCreating)
{
    makeMaintenance("user");
    std::vector<std::uint64_t> flags;
    const auto examine = [&](const SystemCall& call) {
        if (opensLock(call)) {
            flags.push_back(call.arguments[2] & (O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
            if ((call.arguments[2] & O_CREAT) != 0) {
                EXPECT_EQ(callersPower(call), playerUid);
                EXPECT_EQ(call.arguments[3], 0600u);
            }
        }
        return 0;
    };
    const auto lock = [] { const Locks locks({"user"}); };
    EXPECT_EQ(during({SYS_openat}, examine, lock), returned());
    EXPECT_EQ(during({SYS_openat}, examine, lock), returned());
    const std::uint64_t safe = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    EXPECT_EQ(flags, (std::vector<std::uint64_t>{safe | O_CREAT | O_EXCL, safe}));
}

TEST(MaintenanceLocks, LeaveNothingHeldOrOpenWhateverSystemCallFails)
{
    const std::vector<long> stopped = {SYS_openat, SYS_mkdirat,    SYS_fsync, SYS_fchmod,
                                       SYS_fcntl,  SYS_newfstatat, SYS_fstat};
    eachMeeting(
        EIO, stopped, [] { const Locks locks({"user"}); },
        [](const Ending& ending, const SystemCall& met) {
            EXPECT_NE(ending.kind, "other") << ending << " at " << met.number;
            EXPECT_EQ(locking({"user"}), returned()) << ending << " at " << met.number;
            removeAll(supportOf("user"));
        });
}

TEST(MaintenanceLocks, KilledAtAnySystemCallLeaveNothingThatTheNextRunRefuses)
{
    eachMeeting(
        killChild, changingCalls(),
        [] {
            const Locks locks({"user", "system"});
        },
        [](const Ending& ending, const SystemCall& met) {
            EXPECT_EQ(ending, (Ending{"signal", "9"}));
            for (const auto& [path, line] : takeTree({supportOf("user").native()}))
                EXPECT_NE(line.find(" 501 "), std::string::npos) << path << " " << line;
            EXPECT_EQ(locking({"user", "system"}), returned()) << met.number;
            for (const std::string& scope : scopes) {
                EXPECT_EQ(describe(lockOf(scope)), metadataFileOf(scope)) << met.number;
                removeAll(supportOf(scope));
            }
        });
}

TEST(MaintenanceLock, MadeUnderAStrictUmaskByAKilledRunIsUsedByTheNextOne)
{
    for (const std::string& scope : scopes) {
        makeMaintenance(scope);
        const Ending ending = during(
            {SYS_fchmod}, [](const SystemCall&) { return killChild; },
            [&] {
                ::umask(0777);
                const Locks locks({scope});
            });
        EXPECT_EQ(ending, (Ending{"signal", "9"}));
        EXPECT_TRUE(isThere(lockOf(scope)));
        EXPECT_EQ(locking({scope}), returned());
    }
}

} // namespace
} // namespace maintenance::rehearsed
