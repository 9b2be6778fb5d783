#include "fs/held_locks.h"

#include "fs/copy.h"
#include "fs/fixed_file.h"
#include "fs/locks.h"
#include "fs/publish.h"
#include "fs/removal.h"
#include "fs/trouble.h"
#include "support/scene.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;

const std::string maintenance(maintenanceDirectory);

bool isHeld(const std::string& scope)
{
    struct stat status = {};
    EXPECT_EQ(::lstat(lockOf(scope).c_str(), &status), 0);
    return isHeldLock(status);
}

/// What another process says that wants the lock of the user scope now.
Ending lockingElsewhere()
{
    return asAccount(rootUid, [] { const Locks locks({"user"}); });
}

TEST(HeldLocks, AreKnownFromTheirTakingToTheirRelease)
{
    {
        const Locks locks({"user", "system"});
        EXPECT_TRUE(isHeld("user"));
        EXPECT_TRUE(isHeld("system"));
    }
    EXPECT_FALSE(isHeld("user"));
    EXPECT_FALSE(isHeld("system"));
    const Locks again({"user"});
    EXPECT_TRUE(isHeld("user"));
    EXPECT_FALSE(isHeld("system"));
}

TEST(HeldLocks, AreKnownByTheirFileAndNotByTheirName)
{
    const Locks locks({"user"});
    makeHardLink("/Users/player/second", lockOf("user"));
    struct stat status = {};
    ASSERT_EQ(::lstat("/Users/player/second", &status), 0);
    EXPECT_TRUE(isHeldLock(status));
    ++status.st_dev;
    EXPECT_FALSE(isHeldLock(status));
    removeAll(lockOf("user"));
    writeFile(lockOf("user"), "", {playerUid, 0600});
    EXPECT_FALSE(isHeld("user"));
}

TEST(HeldLocks, OfARefusedRequestAreForgotten)
{
    makeLayout("user");
    const HeldLock holder("user");
    EXPECT_EQ(endingOf([] { const Locks locks({"user", "system"}); }).kind, "Invalid");
    EXPECT_FALSE(isHeld("user"));
    EXPECT_FALSE(isHeld("system"));
}

/// Carries out `call` with the user scope's lock held, while `change` happens when `name` is opened; tells
/// whether another process could take the lock afterwards.
template <typename Call>
std::string afterwards(const std::string& name, const std::function<void()>& change, const Call& call)
{
    std::string later;
    bool changed = false;
    const auto exchange = [&](const SystemCall& made) {
        if (!changed && made.is(SYS_openat, name)) {
            changed = true;
            change();
        }
        return 0;
    };
    const Ending ending = stopping({SYS_openat}, exchange, [&] {
        const Locks locks({"user"});
        const Ending inner = endingOf(call);
        // The lock's old name may be gone; whoever opens the locked file must still be kept off.
        for (const char* path : {"/Users/player/lock", ""}) {
            const std::string file = *path == '\0' ? lockOf("user").native() : path;
            if (!isThere(file))
                continue;
            const Ending probe = asAccount(rootUid, [&] {
                const OwnedFd opened(::open(file.c_str(), O_RDWR | O_CLOEXEC));
                struct flock request = {};
                request.l_type = F_WRLCK;
                request.l_whence = SEEK_SET;
                return ::fcntl(opened.get(), F_SETLK, &request) == 0 ? "free" : "held";
            });
            return inner.kind + " \"" + inner.text + "\", then " + probe.text;
        }
        return std::string("no lock file");
    });
    EXPECT_TRUE(changed);
    return ending.text;
}

TEST(HeldLocks, SurviveAReaderWhoseFileIsExchangedForTheLock)
{
    const std::vector<std::function<void(const stdfs::path&)>> exchanges = {
        [](const stdfs::path& place) {
            removeAll(place);
            makeHardLink(place, lockOf("user"));
        },
        [](const stdfs::path& place) {
            makeHardLink("/Users/player/lock", lockOf("user"));
            stdfs::rename(lockOf("user"), place);
        },
    };
    const FixedPlace place = {"user", maintenance + "/record"};
    const stdfs::path path = maintenanceOf("user") / "record";
    const std::vector<std::pair<std::string, std::function<void()>>> readers = {
        {"subject changed during validation", [&] { readFixedRegular(place, "subject"); }},
        {"subject changed during validation", [&] { readText(place, "subject"); }},
        {"owned file changed during validation", [&] { hashOwnedFile(place); }},
        {"transaction source is missing or unsafe",
         [&] {
             copyFixed(place, {"user", maintenance + "/copy"}, std::nullopt);
         }},
        {"transaction source is missing or unsafe",
         [&] { copyRegular(path, maintenanceOf("user") / "copy", std::nullopt); }},
        {"transaction source is missing or unsafe", [&] { copyRegular(path, "/tmp/copy", std::nullopt); }},
    };
    for (const auto& exchange : exchanges)
        for (const auto& [message, read] : readers) {
            removeAll(maintenanceOf("user"));
            removeAll("/Users/player/lock");
            writeFile(path, "content", {playerUid, 0600});
            EXPECT_EQ(afterwards(
                          "record", [&] { exchange(path); }, read),
                      "Invalid \"" + message + "\", then held");
        }
}

TEST(HeldLocks, SurviveACopyFromOutsideTheScopesThatIsExchangedForTheLock)
{
    // The home of another account lies in neither scope.
    const stdfs::path source = "/Users/other/source";
    writeFile(source, "content", {502, 0600});
    const auto exchange = [&] {
        removeAll(source);
        makeHardLink(source, lockOf("user"));
    };
    EXPECT_EQ(afterwards(source.native(), exchange,
                         [&] { copyRegular(source, maintenanceOf("user") / "copy", std::nullopt); }),
              "Invalid \"transaction source is missing or unsafe\", then held");
}

TEST(HeldLocks, SurviveAReaderOfALinkToThem)
{
    const Locks locks({"user"});
    makeHardLink("/Users/player/Library/linked", lockOf("user"));
    makeLink("/Users/player/Library/pointing", lockOf("user"));
    for (const std::string name : {"Library/linked", "Library/pointing"}) {
        const FixedPlace place = {"user", name};
        EXPECT_EQ(endingOf([&] { readFixedRegular(place, "x"); }), invalid("x is missing or unsafe"));
        EXPECT_EQ(endingOf([&] { readText(place, "x"); }), invalid("x is missing or unsafe"));
        EXPECT_EQ(endingOf([&] { hashOwnedFile(place); }).kind, "Invalid");
        EXPECT_EQ(endingOf([&] {
                      copyFixed(place, {"user", "Library/copy"}, std::nullopt);
                  }),
                  invalid("transaction source is missing or unsafe"));
        EXPECT_EQ(endingOf([&] { atomicWriteFixed(place, "text"); }),
                  invalid("fixed metadata destination is unsafe"));
        EXPECT_EQ(endingOf([&] { removeFixed(place); }).kind, "Invalid");
    }
    removeAll("/Users/player/Library/linked");
    EXPECT_EQ(lockingElsewhere(), invalid("another maintenance transaction is active"));
}

TEST(HeldLocks, SurviveReadingAndWritingBesideThem)
{
    const Locks locks({"user"});
    const FixedPlace place = {"user", maintenance + "/record"};
    atomicWriteFixed(place, "text");
    EXPECT_EQ(readFixedRegular(place, "x"), "text");
    copyFixed(place, {"user", maintenance + "/copy"}, std::nullopt);
    hashOwnedFile(place);
    removeFixed(place);
    EXPECT_EQ(lockingElsewhere(), invalid("another maintenance transaction is active"));
}

} // namespace
} // namespace maintenance::rehearsed
