#include "fs/fixed_file.h"

#include "fs/plants.h"
#include "fs/trouble.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;
using Path = stdfs::path;

const std::vector<std::string> scopes = {"user", "system"};
const Ending unsafeRoot = invalid("scope root is missing or unsafe");
const Ending ownedMissing = invalid("owned file is missing");
const Ending ownedLink = invalid("owned path contains a symbolic link");
const Ending ownedForeign = invalid("owned path has a foreign file type");
const Ending ownedUnreadable = invalid("cannot read an owned file");
const Ending ownedExchanged = invalid("owned file changed during validation");
const Ending notHashed = invalid("cannot hash an owned file");

const std::string ownedPath = "Library/Audio/Plug-Ins/Components/TP a.component/Contents/Info";

Path ownedFileOf(const std::string& scope) { return rootOf(scope) / ownedPath; }

Path ownedDirectoryOf(const std::string& scope) { return ownedFileOf(scope).parent_path(); }

void writeOwned(const std::string& scope, const std::string& content = "owned")
{
    writeFile(ownedFileOf(scope), content, {ownerOf(scope), 0644});
}

Ending hashing(const std::string& scope, const std::string& path = ownedPath)
{
    const Ending safety = endingOf([&] { safeFile({scope, path}); });
    const Ending ending = endingOf([&] { return hashOwnedFile({scope, path}); });
    if (ending.kind != "returned" && ending != notHashed) {
        EXPECT_EQ(safety, ending);
    }
    return ending;
}

TEST(OwnedFile, IsHashed)
{
    for (const std::string& scope : scopes)
        for (const std::string& content : {std::string(), std::string("abc"), std::string(100000, 'x')}) {
            writeOwned(scope, content);
            EXPECT_EQ(hashing(scope), returned(systemSha256(content)));
        }
}

TEST(OwnedFile, MayHaveAnyOwnerAndMode)
{
    for (const std::string& scope : scopes) {
        writeOwned(scope);
        setOwner(ownedFileOf(scope), 502);
        setMode(ownedFileOf(scope), 0666);
        setMode(ownedDirectoryOf(scope), 0777);
        setMode(rootOf(scope), 0777);
        EXPECT_EQ(hashing(scope), returned(systemSha256("owned")));
    }
}

TEST(OwnedFile, ThatIsMissingIsRefused)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(hashing(scope), ownedMissing);
        makeDirectories(ownedDirectoryOf(scope));
        EXPECT_EQ(hashing(scope), ownedMissing);
    }
}

TEST(OwnedFile, InWhosePlaceSomethingElseStandsIsRefused)
{
    for (const std::string& scope : scopes) {
        makeDirectories(ownedDirectoryOf(scope), {ownerOf(scope), 0755});
        withEachPlant(ownedFileOf(scope), ownerOf(scope), [&](const std::string& what) {
            const bool link = what.find("link") != std::string::npos && what != "hard link";
            EXPECT_EQ(hashing(scope), link ? ownedLink : ownedForeign) << what;
        });
    }
}

TEST(OwnedFile, BelowSomethingThatIsNoDirectoryIsRefused)
{
    for (const std::string& scope : scopes) {
        makeDirectories(ownedDirectoryOf(scope).parent_path(), {ownerOf(scope), 0755});
        withEachPlant(ownedDirectoryOf(scope), ownerOf(scope), [&](const std::string& what) {
            const bool link = what.find("link") != std::string::npos && what != "hard link";
            const Ending expected = what == "directory" ? ownedMissing : link ? ownedLink : ownedForeign;
            EXPECT_EQ(hashing(scope), expected) << what;
        });
    }
}

TEST(OwnedFile, BelowALinkToItsOwnDirectoryIsRefused)
{
    writeOwned("user");
    for (const char* directory : {"Library", "Library/Audio", "Library/Audio/Plug-Ins/Components"}) {
        const Path place = Path(playerHome) / directory;
        stdfs::rename(place, "/Users/player/moved");
        makeLink(place, "/Users/player/moved");
        EXPECT_EQ(hashing("user"), ownedLink) << directory;
        removeAll(place);
        stdfs::rename("/Users/player/moved", place);
    }
    stdfs::rename(playerHome, "/Users/moved");
    makeLink(playerHome, "moved");
    EXPECT_EQ(hashing("user"), unsafeRoot);
}

TEST(OwnedFile, InADirectoryThatTheAccountCouldNotReadIsRefused)
{
    writeOwned("user");
    for (const uid_t owner : {0u, 502u})
        for (const mode_t mode : {0700u, 0750u, 0754u, 0751u, 0755u}) {
            setOwner(ownedDirectoryOf("user"), owner);
            setMode(ownedDirectoryOf("user"), mode);
            EXPECT_EQ(hashing("user"), mode == 0755 ? returned(systemSha256("owned")) : ownedUnreadable)
                << mode;
        }
    setOwner(ownedDirectoryOf("user"), playerUid);
    setMode(ownedDirectoryOf("user"), 0700);
    EXPECT_EQ(hashing("user"), returned(systemSha256("owned")));
}

TEST(OwnedFile, OfAnOddPathIsRefused)
{
    writeOwned("user");
    const std::vector<std::string> paths = {"",
                                            ".",
                                            "..",
                                            "/",
                                            "Library/",
                                            "Library/../" + ownedPath,
                                            "Library/./Audio",
                                            "/" + ownedPath,
                                            "Library//Audio",
                                            "Library/" + std::string(300, 'n'),
                                            "../other/x"};
    for (const std::string& path : paths)
        EXPECT_EQ(hashing("user", path).kind, "Invalid") << path;
}

TEST(OwnedFile, WhoseDirectoryCannotBeEnteredIsRefused)
{
    writeOwned("user");
    const auto fail = [](const SystemCall& call) { return call.is(SYS_openat, "Contents") ? EMFILE : 0; };
    EXPECT_EQ(during({SYS_openat}, fail, [] { hashOwnedFile({"user", ownedPath}); }), ownedUnreadable);
    setMode(ownedDirectoryOf("user"), 0);
    EXPECT_EQ(asAccount(playerUid, [] { hashOwnedFile({"user", ownedPath}); }), ownedUnreadable);
}

TEST(OwnedFile, ThatCannotBeOpenedIsRefused)
{
    writeOwned("user");
    const auto fail = [](const SystemCall& call) { return call.is(SYS_openat, "Info") ? EIO : 0; };
    EXPECT_EQ(during({SYS_openat}, fail, [] { hashOwnedFile({"user", ownedPath}); }), ownedUnreadable);
    setMode(ownedFileOf("user"), 0);
    EXPECT_EQ(asAccount(playerUid, [] { hashOwnedFile({"user", ownedPath}); }), ownedUnreadable);
}

TEST(OwnedFile, ExchangedBeforeItIsOpenedIsRefused)
{
    for (const Plant& plant : foreignPlants()) {
        removeAll(ownedFileOf("user"));
        writeOwned("user");
        const auto exchange = [&] {
            removeAll(ownedFileOf("user"));
            writeFile(besideOf(ownedFileOf("user")), "owned", {playerUid, 0644});
            plant.put(ownedFileOf("user"), playerUid);
        };
        const bool opens = plant.what == "hard link" || plant.what == "pipe" || plant.what == "directory" ||
                           plant.what == "device";
        EXPECT_EQ(during({SYS_openat},
                         once([](const SystemCall& call) { return call.is(SYS_openat, "Info"); }, exchange),
                         [] {
                             hashOwnedFile({"user", ownedPath});
                         }),
                  opens ? ownedExchanged : ownedUnreadable)
            << plant.what;
        ::umount2(ownedFileOf("user").c_str(), MNT_DETACH);
    }
}

TEST(OwnedFile, WhoseDirectoryIsExchangedForALinkIsRefused)
{
    writeOwned("user");
    writeFile("/Users/player/trap/Info", "trap", {playerUid, 0644});
    const auto exchange = once([](const SystemCall& call) { return call.is(SYS_openat, "Contents"); },
                               [] {
                                   stdfs::rename(ownedDirectoryOf("user"), "/Users/player/away");
                                   makeLink(ownedDirectoryOf("user"), "/Users/player/trap");
                               });
    EXPECT_EQ(during({SYS_openat}, exchange, [] { hashOwnedFile({"user", ownedPath}); }), ownedLink);
}

TEST(OwnedFile, ThatGrowsOrShrinksWhileItIsHashedIsRefused)
{
    const std::string path = ownedFileOf("user").native();
    for (const long size : {0l, 1000l, 50000l, 100001l, 300000l}) {
        writeOwned("user", std::string(100000, 'x'));
        const auto resize = once([&](const SystemCall& call) { return openPath(call) == path; },
                                 [&] { stdfs::resize_file(path, static_cast<std::uintmax_t>(size)); });
        EXPECT_EQ(during({SYS_read, SYS_pread64}, resize,
                         [] {
                             hashOwnedFile({"user", ownedPath});
                         }),
                  notHashed)
            << size;
    }
}

TEST(OwnedFile, ThatCannotBeReadToItsEndIsRefused)
{
    writeOwned("user", std::string(100000, 'x'));
    const std::string path = ownedFileOf("user").native();
    for (const int nth : {1, 3})
        for (const int error : {EIO, EINTR}) {
            int reads = 0;
            const auto fail = [&](const SystemCall& call) {
                return openPath(call) == path && ++reads == nth ? error : 0;
            };
            EXPECT_EQ(during({SYS_read, SYS_pread64}, fail,
                             [] {
                                 hashOwnedFile({"user", ownedPath});
                             }),
                      notHashed);
        }
}

TEST(OwnedFile, LeavesNoDescriptorOpenWhateverSystemCallFails)
{
    writeOwned("user");
    eachMeeting(
        EIO, {SYS_openat, SYS_newfstatat, SYS_fstat, SYS_read, SYS_pread64},
        [] {
            return hashOwnedFile({"user", ownedPath});
        },
        [](const Ending& ending, const SystemCall& met) {
            EXPECT_TRUE(isRefusalOrAccountFailure(ending) || ending == returned(systemSha256("owned")))
                << ending << " at " << met.number;
        });
}

} // namespace
} // namespace maintenance::rehearsed
