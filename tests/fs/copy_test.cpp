#include "fs/copy.h"

#include "fs/directory_entries.h"
#include "fs/plants.h"
#include "fs/trouble.h"
#include "platform/kernel_copy.h"
#include "support/scene.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace maintenance {

/// What a file system that shares content between files would do; nothing plays one that does not.
static std::function<bool(int, int)> share;

// Stands in for the platform's own, which is tested by itself: whether a file system can share content is not
// up to the test.
bool shareContent(int from, int to) { return share && share(from, to); }

ssize_t copyContent(int from, int to, std::size_t most)
{
    return ::copy_file_range(from, nullptr, to, nullptr, most, 0);
}

} // namespace maintenance

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;
using Path = stdfs::path;
using Names = std::vector<std::string>;

const std::string sourcePath = "Library/Audio/Plug-Ins/Components/source";
const std::string copyPath = std::string(maintenanceDirectory) + "/copies/copy";
const Names scopes = {"user", "system"};
const std::optional<std::string> anyHash = std::nullopt;

const Ending unsafeSource = invalid("transaction source is missing or unsafe");
const Ending unreadableSource = invalid("cannot read transaction source");
const Ending wrongHash = invalid("transaction source hash is wrong");
const Ending notWritten = runtimeError("cannot write fixed metadata");
const Ending containsLink = invalid("maintenance metadata contains a symbolic link");
const Ending containsForeign = invalid("maintenance metadata contains a foreign file type");
const Ending unsafeMode = invalid("maintenance directory ownership or mode is unsafe");
const Ending missing = invalid("fixed maintenance directory is missing or redirected");
const Ending unsafeDestination = invalid("fixed metadata destination is unsafe");

Path sourceOf(const std::string& scope) { return rootOf(scope) / sourcePath; }
Path copyOf(const std::string& scope) { return rootOf(scope) / copyPath; }
Path copiesOf(const std::string& scope) { return copyOf(scope).parent_path(); }

void writeSource(const std::string& scope, const std::string& content = "content", mode_t mode = 0644)
{
    writeFile(sourceOf(scope), content, {ownerOf(scope), mode});
}

void writeOldCopy(const std::string& scope) { writeFile(copyOf(scope), "old", {ownerOf(scope), 0600}); }

void makeCopy(const std::string& from, const std::string& to,
              const std::optional<std::string>& expectedHash = anyHash)
{
    copyFixed({from, sourcePath}, {to, copyPath}, expectedHash);
}

Ending copying(const std::string& from, const std::string& to,
               const std::optional<std::string>& expectedHash = anyHash)
{
    return endingOf([&] { makeCopy(from, to, expectedHash); });
}

/// The copy is the old one as a whole and nothing lies beside it.
void expectOldCopy(const std::string& scope, const std::string& when)
{
    EXPECT_EQ(readFile(copyOf(scope)), "old") << when;
    EXPECT_EQ(namesIn(copiesOf(scope)), Names{"copy"}) << when;
}

std::string readAllOf(int descriptor)
{
    std::string all(1000000, '\0');
    all.resize(
        static_cast<std::size_t>(std::max<ssize_t>(::pread(descriptor, all.data(), all.size(), 0), 0)));
    return all;
}

// A file.

TEST(Copy, HasTheContentTheScopesOwnerAndAMetadataFilesMode)
{
    for (const std::string& from : scopes)
        for (const std::string& to : scopes)
            for (const mode_t mode : {0644u, 0755u, 0666u, 04755u, 0444u}) {
                writeSource(from, "content", mode);
                const Tree before = takeExactTree({sourceOf(from).native()});
                EXPECT_EQ(copying(from, to, systemSha256("content")), returned());
                EXPECT_EQ(readFile(copyOf(to)), "content");
                EXPECT_EQ(describe(copyOf(to)), metadataFileOf(to));
                EXPECT_EQ(describe(copiesOf(to)), directoryOf(to));
                EXPECT_EQ(namesIn(copiesOf(to)), Names{"copy"});
                EXPECT_EQ(difference(before, takeExactTree({sourceOf(from).native()})), "");
            }
}

TEST(Copy, HasEveryByteOfAFileOfAnySize)
{
    for (const std::size_t size : {0u, 1u, 65535u, 65536u, 65537u, 131072u, 3000001u}) {
        std::string content;
        for (std::size_t i = 0; i < size; ++i)
            content += static_cast<char>(i * 7 % 256);
        writeSource("user", content);
        EXPECT_EQ(copying("user", "system", systemSha256(content)), returned()) << size;
        EXPECT_TRUE(readFile(copyOf("system")) == content) << size;
    }
}

TEST(Copy, HasTheSameModeWhateverTheUmask)
{
    for (const std::string& scope : scopes) {
        writeSource(scope);
        writeOldCopy(scope);
        for (const mode_t mask : {0u, 077u, 0777u}) {
            removeAll(copyOf(scope));
            const mode_t usual = ::umask(mask);
            const Ending ending = copying(scope, scope);
            ::umask(usual);
            EXPECT_EQ(ending, returned());
            EXPECT_EQ(describe(copyOf(scope)), metadataFileOf(scope));
        }
    }
}

TEST(Copy, ByTheAccountItselfIsItsOwn)
{
    writeSource("user", "content", 0600);
    EXPECT_EQ(asAccount(playerUid, [] { makeCopy("user", "user"); }), returned());
    EXPECT_EQ(describe(copyOf("user")), "file 501 0600");
    setMode(sourceOf("user"), 0);
    EXPECT_EQ(asAccount(playerUid, [] { makeCopy("user", "user"); }), unreadableSource);
}

TEST(Copy, ReplacesAnOlderOne)
{
    for (const std::string& scope : scopes) {
        writeSource(scope);
        writeOldCopy(scope);
        EXPECT_EQ(copying(scope, scope), returned());
        EXPECT_EQ(readFile(copyOf(scope)), "content");
    }
}

TEST(Copy, WithAWrongExpectedHashLeavesNothing)
{
    const std::string right = systemSha256("content");
    std::string upper = right;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    for (const std::string& scope : scopes) {
        writeSource(scope);
        for (const std::string& wrong : {std::string(), std::string("0"), std::string(64, '0'), upper,
                                         right + "0", right.substr(0, 63)}) {
            EXPECT_EQ(copying(scope, scope, wrong), wrongHash) << wrong;
            EXPECT_EQ(namesIn(copiesOf(scope)), Names{}) << wrong;
        }
        writeOldCopy(scope);
        const Tree before = takeExactTree({copyOf(scope).native()});
        EXPECT_EQ(copying(scope, scope, std::string(64, '0')), wrongHash);
        EXPECT_EQ(difference(before, takeExactTree({copyOf(scope).native()})), "");
        expectOldCopy(scope, "");
    }
}

TEST(Copy, OfSomethingElseThanAPlainFileIsRefused)
{
    for (const std::string& scope : scopes) {
        EXPECT_EQ(copying(scope, scope), unsafeSource);
        makeDirectories(sourceOf(scope).parent_path(), {ownerOf(scope), 0755});
        EXPECT_EQ(copying(scope, scope), unsafeSource);
        withEachPlant(sourceOf(scope), ownerOf(scope), [&](const std::string& what) {
            EXPECT_EQ(copying(scope, scope), unsafeSource) << what;
            EXPECT_EQ(copying(scope, scope, systemSha256("beside")), unsafeSource) << what;
        });
        EXPECT_FALSE(isThere(copyOf(scope)));
    }
}

TEST(Copy, OfAFileBelowALinkIsRefused)
{
    for (const std::string& scope : scopes) {
        writeSource(scope);
        const Path directory = sourceOf(scope).parent_path();
        stdfs::rename(directory, directory.native() + ".moved");
        makeLink(directory, directory.native() + ".moved");
        EXPECT_EQ(copying(scope, scope), unsafeSource);
    }
}

TEST(Copy, DoesNotTellTheAccountWhatItCouldNotReadItself)
{
    for (const uid_t owner : {0u, 502u})
        for (const mode_t mode : {0600u, 0640u, 0644u, 0604u}) {
            writeSource("user", "secret", mode);
            setOwner(sourceOf("user"), owner);
            const bool withheld = (mode & 0004) == 0;
            EXPECT_EQ(copying("user", "user"), withheld ? unsafeSource : returned()) << owner << " " << mode;
            EXPECT_EQ(copying("user", "system"), withheld ? unsafeSource : returned())
                << owner << " " << mode;
        }
}

TEST(Copy, DoesNotTellTheAccountWhatLiesInADirectoryThatItCouldNotReadItself)
{
    writeSource("user", "secret", 0644);
    for (const uid_t owner : {0u, 502u})
        for (const mode_t mode : {0700u, 0751u, 0754u, 0755u}) {
            setOwner(sourceOf("user").parent_path(), owner);
            setMode(sourceOf("user").parent_path(), mode);
            EXPECT_EQ(copying("user", "user"), mode == 0755 ? returned() : unsafeSource)
                << owner << " " << mode;
        }
}

TEST(Copy, InTheSystemScopeTakesFilesOfAnyOwner)
{
    for (const uid_t owner : {0u, 501u, 502u}) {
        writeSource("system", "content", 0600);
        setOwner(sourceOf("system"), owner);
        EXPECT_EQ(copying("system", "system"), returned());
        EXPECT_EQ(describe(copyOf("system")), "file 0 0600");
    }
}

TEST(Copy, ToAPlaceWhereSomethingElseStandsIsRefused)
{
    for (const std::string& scope : scopes) {
        writeSource(scope);
        makeDirectories(copiesOf(scope), {ownerOf(scope), 0755});
        withEachPlant(copyOf(scope), ownerOf(scope), [&](const std::string& what) {
            const Tree before = takeExactTree();
            EXPECT_EQ(copying(scope, scope), unsafeDestination) << what;
            EXPECT_EQ(difference(before, takeExactTree()), "") << what;
        });
        setMode(copiesOf(scope), 0777);
        EXPECT_EQ(copying(scope, scope), unsafeMode);
    }
}

TEST(Copy, OntoItselfKeepsTheContent)
{
    writeSource("user");
    copyFixed({"user", sourcePath}, {"user", sourcePath}, systemSha256("content"));
    EXPECT_EQ(readFile(sourceOf("user")), "content");
}

// A file that is exchanged or changed meanwhile.

Ending copyingWhile(const std::vector<long>& stopped, const std::function<bool(const SystemCall&)>& when,
                    const std::function<void()>& change)
{
    return during(stopped, once(when, change), [] { makeCopy("user", "user"); });
}

/// Decides as `decide` does on a disk where the kernel copies nothing by itself.
Decide withoutKernel(const Decide& decide)
{
    return [decide](const SystemCall& call) {
        return call.number == SYS_copy_file_range ? EXDEV : decide(call);
    };
}

bool opensSource(const SystemCall& call) { return call.is(SYS_openat, "source"); }

TEST(Copy, OfAFileExchangedBeforeItIsOpenedIsRefused)
{
    writeOldCopy("user");
    std::vector<std::pair<std::string, std::function<void()>>> exchanges = {
        {"another file",
         [] {
             writeFile(besideOf(sourceOf("user")), "content", {playerUid, 0644});
             stdfs::rename(besideOf(sourceOf("user")), sourceOf("user"));
         }},
        {"longer", [] { std::ofstream(sourceOf("user"), std::ios::app) << "more"; }},
        {"mode", [] { setMode(sourceOf("user"), 0600); }},
        {"owner", [] { setOwner(sourceOf("user"), 502); }},
    };
    for (const Plant& plant : foreignPlants())
        exchanges.emplace_back(plant.what, [&] {
            removeAll(sourceOf("user"));
            writeFile(besideOf(sourceOf("user")), "content", {playerUid, 0644});
            plant.put(sourceOf("user"), playerUid);
        });
    for (const auto& [what, exchange] : exchanges) {
        writeSource("user");
        const Ending ending = copyingWhile({SYS_openat}, opensSource, exchange);
        const bool opens =
            (what.find("link") == std::string::npos || what == "hard link") && what != "socket";
        EXPECT_EQ(ending, opens ? unsafeSource : unreadableSource) << what;
        expectOldCopy("user", what);
        ::umount2(sourceOf("user").c_str(), MNT_DETACH);
        removeAll(sourceOf("user"));
        removeAll(besideOf(sourceOf("user")));
    }
}

TEST(Copy, OfAFileChangedWhileItIsCopiedIsRefused)
{
    writeOldCopy("user");
    const Path source = sourceOf("user");
    const std::vector<std::pair<std::string, std::function<void()>>> changes = {
        {"longer", [&] { std::ofstream(source, std::ios::app) << "more"; }},
        {"much longer", [&] { stdfs::resize_file(source, 10000000); }},
        {"shorter", [&] { stdfs::resize_file(source, 70000); }},
        {"emptied", [&] { stdfs::resize_file(source, 0); }},
        {"rewritten", [&] { writeSource("user", std::string(150000, 'n')); }},
    };
    for (const auto& [what, change] : changes)
        for (const int nth : {1, 2, 3}) {
            writeSource("user", std::string(150000, 'o'));
            const std::array<timespec, 2> old = {timespec{1000000000, 0}, timespec{1000000000, 0}};
            ASSERT_EQ(::utimensat(AT_FDCWD, source.c_str(), old.data(), 0), 0);
            int reads = 0;
            const auto when = [&](const SystemCall& call) {
                return openPath(call) == source && ++reads == nth;
            };
            EXPECT_EQ(during({SYS_read, SYS_copy_file_range}, withoutKernel(once(when, change)),
                             [] { makeCopy("user", "user"); }),
                      unsafeSource)
                << what << " " << nth;
            expectOldCopy("user", what);
        }
}

TEST(Copy, OfAFileChangedWhileTheKernelCopiesItIsRefused)
{
    writeOldCopy("user");
    const Path source = sourceOf("user");
    const std::string content(600000, 'o');
    const std::vector<std::pair<std::string, std::function<void()>>> changes = {
        {"longer", [&] { std::ofstream(source, std::ios::app) << "more"; }},
        {"shorter", [&] { stdfs::resize_file(source, 270000); }},
        {"emptied", [&] { stdfs::resize_file(source, 0); }},
        {"rewritten", [&] { writeSource("user", std::string(600000, 'n')); }},
    };
    for (const auto& [what, change] : changes)
        for (const int nth : {1, 2, 3}) {
            writeSource("user", content);
            const std::array<timespec, 2> old = {timespec{1000000000, 0}, timespec{1000000000, 0}};
            ASSERT_EQ(::utimensat(AT_FDCWD, source.c_str(), old.data(), 0), 0);
            const auto when = [nth = nth](const SystemCall& call) { return call.count == nth; };
            EXPECT_EQ(copyingWhile({SYS_copy_file_range}, when, change), unsafeSource) << what << " " << nth;
            expectOldCopy("user", what);
        }
}

TEST(Copy, GoesOnByItselfWhereTheKernelStops)
{
    std::string content(600000, 'o');
    for (std::size_t i = 0; i < content.size(); i += 7)
        content[i] = static_cast<char>(i);
    writeSource("user", content);
    const std::string hash = systemSha256(content);
    for (const int error : {EXDEV, EIO, ENOSYS, EINTR})
        for (const int nth : {1, 2, 3}) {
            EXPECT_EQ(failingAt(SYS_copy_file_range, nth, error, [&] { makeCopy("user", "user", hash); }),
                      returned());
            EXPECT_EQ(readFile(copyOf("user")), content) << error << " " << nth;
        }
}

TEST(Copy, ThatSharesTheContentIsHashedAndMeasuredToo)
{
    const std::string content(600000, 's');
    for (const std::string& scope : scopes) {
        writeSource(scope, content);
        share = [](int from, int to) {
            const std::string all = readAllOf(from);
            return ::pwrite(to, all.data(), all.size(), 0) == static_cast<ssize_t>(all.size());
        };
        EXPECT_EQ(copying(scope, scope), returned());
        EXPECT_EQ(readFile(copyOf(scope)), content);
        EXPECT_EQ(copying(scope, scope, systemSha256(content)), returned());
        writeOldCopy(scope);
        EXPECT_EQ(copying(scope, scope, systemSha256("other")), wrongHash);
        expectOldCopy(scope, "another content");
        share = [](int, int to) { return ::pwrite(to, "short", 5, 0) == 5; };
        EXPECT_EQ(copying(scope, scope), unsafeSource);
        expectOldCopy(scope, "another size");
        share = [&](int, int to) {
            writeSource(scope, std::string(600000, 'n'));
            return ::pwrite(to, content.data(), content.size(), 0) == 600000;
        };
        EXPECT_EQ(copying(scope, scope), unsafeSource);
        expectOldCopy(scope, "changed meanwhile");
        share = nullptr;
    }
}

TEST(Copy, OfAFileThatNeverStopsGrowingIsNotFollowed)
{
    writeOldCopy("user");
    writeSource("user", "small");
    int reads = 0;
    const auto grow = [&](const SystemCall& call) {
        if (openPath(call) == sourceOf("user") && ++reads < 100)
            std::ofstream(sourceOf("user"), std::ios::app) << std::string(65536, 'g');
        return 0;
    };
    EXPECT_EQ(during({SYS_read, SYS_copy_file_range}, withoutKernel(grow), [] { makeCopy("user", "user"); }),
              unsafeSource);
    EXPECT_LE(reads, 2);
    reads = 0;
    writeSource("user", "small");
    EXPECT_EQ(during({SYS_read, SYS_copy_file_range}, grow, [] { makeCopy("user", "user"); }), unsafeSource);
    EXPECT_LE(reads, 3);
    expectOldCopy("user", "");
}

TEST(Copy, HashesWhatItWritesAndNotWhatItCouldReadTwice)
{
    // Every byte is read once: nobody can show one content to the hash and another one to the copy.
    writeSource("user", std::string(150000, 'o'));
    std::uint64_t asked = 0;
    int opened = 0;
    const auto count = [&](const SystemCall& call) {
        opened += opensSource(call) ? 1 : 0;
        if (call.number != SYS_openat && openPath(call) == sourceOf("user"))
            ++asked;
        return 0;
    };
    const std::string hash = systemSha256(std::string(150000, 'o'));
    EXPECT_EQ(during({SYS_openat, SYS_read, SYS_pread64, SYS_copy_file_range}, withoutKernel(count),
                     [&] { makeCopy("user", "user", hash); }),
              returned());
    EXPECT_EQ(opened, 1);
    EXPECT_EQ(asked, 4u);
    // Where the kernel copies, only the copy is read; the last reading proves the end of the source.
    opened = 0;
    asked = 0;
    EXPECT_EQ(during({SYS_openat, SYS_read, SYS_pread64, SYS_copy_file_range}, count,
                     [&] { makeCopy("user", "user", hash); }),
              returned());
    EXPECT_EQ(opened, 1);
    EXPECT_EQ(asked, 2u);
}

// What the system refuses.

TEST(Copy, OfAFileThatCannotBeOpenedOrReadIsRefused)
{
    writeOldCopy("user");
    writeSource("user", std::string(150000, 'o'));
    for (const int error : {EIO, EMFILE, EACCES, EINTR}) {
        const auto open = [&](const SystemCall& call) { return opensSource(call) ? error : 0; };
        EXPECT_EQ(during({SYS_openat}, open, [] { makeCopy("user", "user"); }), unreadableSource);
        for (const int nth : {1, 3, 4}) {
            int reads = 0;
            const auto read = [&](const SystemCall& call) {
                return openPath(call) == sourceOf("user") && ++reads == nth ? error : 0;
            };
            EXPECT_EQ(during({SYS_read, SYS_copy_file_range}, withoutKernel(read),
                             [] { makeCopy("user", "user"); }),
                      unreadableSource);
        }
        expectOldCopy("user", "");
    }
}

TEST(Copy, ThatCannotBeWrittenKeepsTheOldOneAndLeavesNothing)
{
    for (const std::string& scope : scopes) {
        writeSource(scope, std::string(150000, 'o'));
        writeOldCopy(scope);
        const auto call = [&] { makeCopy(scope, scope); };
        for (const int error : {EIO, ENOSPC, EINTR}) {
            for (const int nth : {1, 3}) {
                const auto decide = [=](const SystemCall& made) { return made.count == nth ? error : 0; };
                EXPECT_EQ(during({SYS_write, SYS_copy_file_range}, withoutKernel(decide), call), notWritten);
            }
            EXPECT_EQ(failingAt(SYS_fsync, 1, error, call),
                      runtimeError("cannot synchronize fixed metadata"));
            EXPECT_EQ(failingAt(SYS_renameat, 1, error, call), runtimeError("cannot publish fixed metadata"));
            expectOldCopy(scope, "");
        }
    }
}

TEST(Copy, OntoAFullDiskKeepsTheOldOneAndLeavesNothing)
{
    for (const std::string& scope : scopes) {
        writeSource(scope, std::string(100000, 'o'));
        mountSmallDisk(copiesOf(scope), 65536, {ownerOf(scope), 0755});
        writeOldCopy(scope);
        EXPECT_EQ(copying(scope, scope), notWritten);
        expectOldCopy(scope, "");
    }
}

TEST(Copy, FromOneDiskToAnotherSucceeds)
{
    mountSmallDisk(copiesOf("user"), 65536, {playerUid, 0755});
    writeSource("system");
    EXPECT_EQ(copying("system", "user"), returned());
    EXPECT_EQ(readFile(copyOf("user")), "content");
}

TEST(Copy, LeavesOldOrNewContentWhateverSystemCallFails)
{
    const std::vector<long> stopped = {SYS_openat,   SYS_fchmod, SYS_copy_file_range, SYS_fsync,
                                       SYS_renameat, SYS_read,   SYS_newfstatat,      SYS_fstat};
    writeSource("user");
    writeOldCopy("user");
    eachMeeting(
        EIO, stopped, [] { makeCopy("user", "user"); },
        [](const Ending& ending, const SystemCall& met) {
            const bool visible =
                ending == returned() || ending == runtimeError("cannot synchronize fixed metadata directory");
            EXPECT_EQ(readFile(copyOf("user")), visible ? "content" : "old") << ending << met.number;
            EXPECT_EQ(namesIn(copiesOf("user")), Names{"copy"}) << ending << met.number;
            writeOldCopy("user");
        });
}

TEST(Copy, KilledAtAnySystemCallLeavesNothingThatTheNextOneRefuses)
{
    for (const std::string& scope : scopes) {
        writeSource(scope);
        eachMeeting(
            killChild, {SYS_openat, SYS_copy_file_range, SYS_fsync, SYS_fchmod, SYS_renameat},
            [&] { makeCopy(scope, scope); },
            [&](const Ending& ending, const SystemCall& met) {
                EXPECT_EQ(ending, (Ending{"signal", "9"}));
                EXPECT_EQ(copying(scope, scope), returned()) << met.number;
                EXPECT_EQ(readFile(copyOf(scope)), "content");
                removeAll(copiesOf(scope));
            });
    }
}

// Between absolute paths.

Ending copyingPath(const Path& source, const Path& destination,
                   const std::optional<std::string>& expectedHash = anyHash)
{
    return endingOf([&] { copyRegular(source, destination, expectedHash); });
}

TEST(CopyOfAPath, InAScopeIsPublishedAtomically)
{
    for (const std::string& scope : scopes) {
        writeSource(scope, "content", 0755);
        EXPECT_EQ(copyingPath(sourceOf(scope), copyOf(scope), systemSha256("content")), returned());
        EXPECT_EQ(describe(copyOf(scope)), metadataFileOf(scope));
        writeOldCopy(scope);
        EXPECT_EQ(copyingPath(sourceOf(scope), copyOf(scope), std::string(64, '0')), wrongHash);
        expectOldCopy(scope, "");
    }
}

TEST(CopyOfAPath, OutsideBothScopesIsMadeBesideAndRenamed)
{
    writeSource("user", "content", 0755);
    for (const mode_t mask : {0u, 022u, 077u, 0777u}) {
        makeDirectories("/srv/copies");
        const mode_t usual = ::umask(mask);
        const Ending ending = copyingPath(sourceOf("user"), "/srv/copies/copy", systemSha256("content"));
        ::umask(usual);
        EXPECT_EQ(ending, returned());
        EXPECT_EQ(readFile("/srv/copies/copy"), "content");
        EXPECT_EQ(describe("/srv/copies/copy"), "file 0 0600");
        EXPECT_EQ(namesIn("/srv/copies"), Names{"copy"});
        removeAll("/srv/copies");
    }
    writeFile("/srv/deep/copy.new", "a long leftover of an earlier run", {rootUid, 0644});
    EXPECT_EQ(copyingPath(sourceOf("user"), "/srv/deep/copy"), returned());
    EXPECT_EQ(readFile("/srv/deep/copy"), "content");
    EXPECT_EQ(describe("/srv/deep/copy"), "file 0 0600");
    EXPECT_EQ(copyingPath(sourceOf("user"), "/srv/made/for/it/copy"), returned());
    EXPECT_EQ(readFile("/srv/made/for/it/copy"), "content");
}

TEST(CopyOfAPath, OutsideBothScopesWithAWrongHashLeavesNothing)
{
    writeSource("user");
    writeFile("/srv/copy", "old");
    const Tree before = takeExactTree({"/srv"});
    EXPECT_EQ(copyingPath(sourceOf("user"), "/srv/copy", std::string(64, '0')), wrongHash);
    EXPECT_EQ(difference(before, takeExactTree({"/srv"})).find("copy"), std::string::npos);
    EXPECT_EQ(namesIn("/srv"), Names{"copy"});
    EXPECT_EQ(readFile("/srv/copy"), "old");
}

TEST(CopyOfAPath, OutsideBothScopesIsNotWrittenThroughALink)
{
    writeSource("user");
    for (const bool hard : {false, true}) {
        removeAll("/srv/copies");
        writeFile("/srv/copies/precious", "precious");
        if (hard)
            makeHardLink("/srv/copies/copy.new", "/srv/copies/precious");
        else
            makeLink("/srv/copies/copy.new", "precious");
        EXPECT_EQ(copyingPath(sourceOf("user"), "/srv/copies/copy"), returned());
        EXPECT_EQ(describe("/srv/copies/precious"), "file 0 0644");
        EXPECT_EQ(readFile("/srv/copies/precious"), "precious");
        EXPECT_EQ(describe("/srv/copies/copy"), "file 0 0600");
        EXPECT_EQ(namesIn("/srv/copies"), (Names{"copy", "precious"}));
    }
}

TEST(CopyOfAPath, OutsideBothScopesOpensATransactionsDirectoryForReading)
{
    writeSource("user");
    const Path transaction = "/srv/Maintenance/Transactions/t";
    const Path directory = "/srv/Other/t";
    for (const Path& made : {transaction, directory}) {
        makeDirectories(made);
        setMode(made, 0700);
        EXPECT_EQ(copyingPath(sourceOf("user"), made / "copy"), returned());
    }
    EXPECT_EQ(describe(transaction), "dir 0 0755");
    EXPECT_EQ(describe(directory), "dir 0 0700");
    EXPECT_EQ(
        failingAt(SYS_chmod, 1, EPERM, [&] { copyRegular(sourceOf("user"), transaction / "copy", anyHash); }),
        runtimeError("cannot secure transaction directory"));
}

TEST(CopyOfAPath, OutsideBothScopesSaysWhatWentWrongAndLeavesTheOldContent)
{
    writeSource("user");
    writeFile("/srv/copies/copy", "old");
    const Tree before = takeExactTree({"/srv/copies/copy"});
    const auto call = [] { copyRegular(sourceOf("user"), "/srv/copies/copy", anyHash); };
    const auto creation = [](const SystemCall& made) {
        return (made.arguments[2] & O_CREAT) != 0 ? ENOSPC : 0;
    };
    const Ending notSecured = runtimeError("cannot secure transaction copy");
    EXPECT_EQ(during({SYS_openat}, creation, call), notSecured);
    EXPECT_EQ(failingAt(SYS_fchmod, 1, EIO, call), notSecured);
    const auto full = [](const SystemCall& made) { return made.number == SYS_write ? ENOSPC : 0; };
    EXPECT_EQ(during({SYS_write, SYS_copy_file_range}, withoutKernel(full), call), notWritten);
    EXPECT_EQ(failingAt(SYS_rename, 1, EIO, call).kind, "system error");
    EXPECT_EQ(difference(before, takeExactTree({"/srv/copies/copy"})), "");
    EXPECT_EQ(namesIn("/srv/copies"), Names{"copy"});
    makeDirectories("/srv/copies/dir/x");
    EXPECT_EQ(copyingPath(sourceOf("user"), "/srv/copies/dir").kind, "system error");
    EXPECT_EQ(namesIn("/srv/copies"), (Names{"copy", "dir"}));
}

TEST(CopyOfAPath, FromOutsideBothScopesNeedsAPlainFile)
{
    writeFile("/srv/sources/source", "content", {502, 0600});
    EXPECT_EQ(copyingPath("/srv/sources/source", copyOf("system"), systemSha256("content")), returned());
    EXPECT_EQ(describe(copyOf("system")), "file 0 0600");
    removeAll("/srv/sources/source");
    EXPECT_EQ(copyingPath("/srv/sources/source", copyOf("system")), unsafeSource);
    withEachPlant("/srv/sources/source", rootUid, [](const std::string& what) {
        EXPECT_EQ(copyingPath("/srv/sources/source", copyOf("system")), unsafeSource) << what;
    });
    EXPECT_EQ(readFile(copyOf("system")), "content");
}

TEST(CopyOfAPath, FromOutsideBothScopesExchangedBeforeItIsOpenedIsRefused)
{
    writeFile("/srv/source", "content");
    const auto opens = [](const SystemCall& call) { return call.is(SYS_openat, "/srv/source"); };
    const auto call = [] { copyRegular("/srv/source", copyOf("system"), anyHash); };
    EXPECT_EQ(during({SYS_openat},
                     once(opens,
                          [] {
                              writeFile("/srv/other", "content");
                              stdfs::rename("/srv/other", "/srv/source");
                          }),
                     call),
              unsafeSource);
    EXPECT_EQ(during({SYS_openat},
                     once(opens,
                          [] {
                              removeAll("/srv/source");
                              makePipe("/srv/source");
                          }),
                     call),
              unsafeSource);
    removeAll("/srv/source");
    writeFile("/srv/source", "content");
    EXPECT_EQ(during({SYS_openat},
                     once(opens,
                          [] {
                              removeAll("/srv/source");
                              makeLink("/srv/source", "/etc/passwd");
                          }),
                     call),
              unreadableSource);
    EXPECT_FALSE(isThere(copyOf("system")));
}

// A tree.

const std::string treePath = "Library/Audio/tree";
const std::string treeCopyPath = std::string(maintenanceDirectory) + "/tree";

Path treeOf(const std::string& scope) { return rootOf(scope) / treePath; }
Path treeCopyOf(const std::string& scope) { return rootOf(scope) / treeCopyPath; }

Ending copyingTree(const std::string& from, const std::string& to)
{
    return endingOf([&] { copyTree({from, treePath}, {to, treeCopyPath}); });
}

void writeInTree(const std::string& scope, const std::string& name, const std::string& content = "content")
{
    writeFile(treeOf(scope) / name, content, {ownerOf(scope), 0644});
}

TEST(CopyOfATree, HasEveryFileAndDirectory)
{
    for (const std::string& from : scopes)
        for (const std::string& to : scopes) {
            removeAll(treeOf(from));
            removeAll(supportOf(to));
            for (const char* name : {"a", ".hidden", "dir/b", "dir/deep/c"})
                writeInTree(from, name, name);
            makeDirectories(treeOf(from) / "empty", {ownerOf(from), 0700});
            const Tree before = takeExactTree({treeOf(from).native()});
            EXPECT_EQ(copyingTree(from, to), returned());
            for (const char* name : {"a", ".hidden", "dir/b", "dir/deep/c"}) {
                EXPECT_EQ(readFile(treeCopyOf(to) / name), name);
                EXPECT_EQ(describe(treeCopyOf(to) / name), metadataFileOf(to));
            }
            for (const char* name : {"", "dir", "dir/deep", "empty"})
                EXPECT_EQ(describe(treeCopyOf(to) / name), directoryOf(to)) << name;
            EXPECT_EQ(namesIn(treeCopyOf(to)), (Names{".hidden", "a", "dir", "empty"}));
            EXPECT_EQ(difference(before, takeExactTree({treeOf(from).native()})), "");
        }
}

TEST(CopyOfATree, ThatIsMissingIsNone)
{
    for (const std::string& scope : scopes) {
        const Tree before = takeTree();
        EXPECT_EQ(copyingTree(scope, scope), returned());
        EXPECT_EQ(difference(before, takeTree()), "");
        // Absent, too, is what would lie below a file.
        writeFile(treeOf(scope).parent_path(), "a file", {ownerOf(scope), 0644});
        EXPECT_EQ(copyingTree(scope, scope), returned());
        EXPECT_FALSE(isThere(treeCopyOf(scope)));
        removeAll(treeOf(scope).parent_path());
    }
}

TEST(CopyOfATree, WhoseExistenceIsUnknownFails)
{
    writeInTree("user", "file");
    for (const int error : {EIO, EACCES, ELOOP}) {
        const auto fail = [&](const SystemCall& call) {
            return call.is(SYS_newfstatat, treeOf("user").native()) ? error : 0;
        };
        EXPECT_EQ(during({SYS_newfstatat}, fail,
                         [] {
                             copyTree({"user", treePath}, {"user", treeCopyPath});
                         })
                      .kind,
                  "system error");
    }
    EXPECT_EQ(endingOf([] {
                  copyTree({"user", "Library/" + std::string(300, 'n')}, {"user", treeCopyPath});
              }).kind,
              "system error");
    EXPECT_FALSE(isThere(treeCopyOf("user")));
}

TEST(CopyOfATree, ThatIsEmptyIsNone)
{
    for (const std::string& scope : scopes) {
        makeDirectories(treeOf(scope), {ownerOf(scope), 0755});
        const Tree before = takeTree();
        EXPECT_EQ(copyingTree(scope, scope), returned());
        EXPECT_EQ(difference(before, takeTree()), "");
    }
}

TEST(CopyOfATree, ThatIsNoDirectoryIsRefused)
{
    for (const std::string& scope : scopes) {
        makeDirectories(treeOf(scope).parent_path(), {ownerOf(scope), 0755});
        withEachPlant(treeOf(scope), ownerOf(scope), [&](const std::string& what) {
            const bool link = what.find("link") != std::string::npos && what != "hard link";
            if (what != "directory") {
                EXPECT_EQ(copyingTree(scope, scope), link ? containsLink : missing) << what;
            }
        });
        EXPECT_FALSE(isThere(treeCopyOf(scope)));
    }
}

TEST(CopyOfATree, WithSomethingElseThanPlainFilesAndDirectoriesIsRefused)
{
    for (const std::string& scope : scopes)
        for (const std::string place : {"entry", "dir/entry"}) {
            const Path entry = treeOf(scope) / place;
            makeDirectories(entry.parent_path(), {ownerOf(scope), 0755});
            withEachPlant(entry, ownerOf(scope), [&](const std::string& what) {
                const bool link = what.find("link") != std::string::npos && what != "hard link";
                if (what != "directory") {
                    EXPECT_EQ(copyingTree(scope, scope), link ? containsLink : containsForeign) << what;
                }
                EXPECT_FALSE(isThere(treeCopyOf(scope) / place)) << what;
                removeAll(treeCopyOf(scope));
            });
            removeAll(treeOf(scope));
        }
}

TEST(CopyOfATree, WithALinkIntoItselfIsRefused)
{
    writeInTree("user", "dir/file");
    makeLink(treeOf("user") / "dir/link", "file");
    EXPECT_EQ(copyingTree("user", "user"), containsLink);
}

TEST(CopyOfATree, WithADirectoryThatTheAccountCouldNotReadIsRefused)
{
    writeFile(treeOf("user") / "dir/file", "secret", {rootUid, 0644});
    setOwner(treeOf("user"), playerUid);
    setMode(treeOf("user") / "dir", 0700);
    EXPECT_EQ(copyingTree("user", "user").kind, "Invalid");
    EXPECT_FALSE(isThere(treeCopyOf("user") / "dir/file"));
    setMode(treeOf("user") / "dir", 0755);
    EXPECT_EQ(copyingTree("user", "user"), returned());
}

TEST(CopyOfATree, KeepsWhatWasCopiedBeforeAFailure)
{
    for (const char* name : {"a", "b", "c", "d", "e"})
        writeInTree("user", name, name);
    const OwnedFd opened(::open(treeOf("user").c_str(), O_RDONLY | O_CLOEXEC));
    const Names order = directoryEntries(opened.get()).value();
    makeHardLink("/Users/player/second", treeOf("user") / order.at(3));
    EXPECT_EQ(copyingTree("user", "user"), containsForeign);
    Names copied(order.begin(), order.begin() + 3);
    std::sort(copied.begin(), copied.end());
    EXPECT_EQ(namesIn(treeCopyOf("user")), copied);
    for (const std::string& name : copied)
        EXPECT_EQ(readFile(treeCopyOf("user") / name), name);
}

TEST(CopyOfATree, NeedsSafeDirectoriesInItsPlace)
{
    writeInTree("user", "dir/file");
    makeDirectories(treeCopyOf("user") / "dir", {playerUid, 0755});
    setMode(treeCopyOf("user") / "dir", 0777);
    EXPECT_EQ(copyingTree("user", "user"), unsafeMode);
    removeAll(treeCopyOf("user") / "dir");
    makeDirectories("/Users/player/elsewhere", {playerUid, 0755});
    makeLink(treeCopyOf("user") / "dir", "/Users/player/elsewhere");
    EXPECT_EQ(copyingTree("user", "user"), missing);
    EXPECT_EQ(namesIn("/Users/player/elsewhere"), Names{});
}

TEST(CopyOfATree, NeedsSafeDirectoriesInAnyPlaceAndForEmptyOnes)
{
    makeDirectories(treeOf("user") / "empty", {playerUid, 0755});
    const std::string elsewhere = "Library/elsewhere";
    makeDirectories(Path(playerHome) / elsewhere / "empty", {playerUid, 0755});
    const auto copying = [&] { return endingOf([&] { copyTree({"user", treePath}, {"user", elsewhere}); }); };
    EXPECT_EQ(copying(), returned());
    for (const char* name : {"", "empty"}) {
        setMode(Path(playerHome) / elsewhere / name, 0777);
        EXPECT_EQ(copying(), unsafeMode) << name;
        setMode(Path(playerHome) / elsewhere / name, 0755);
    }
}

/// A chain of `levels` directories with a file in the last one, the tree itself included.
void makeChain(int levels)
{
    makeDirectories(treeOf("user").parent_path(), {playerUid, 0755});
    OwnedFd current(::open(treeOf("user").parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string name = "tree";
    for (int level = 0; level < levels; ++level) {
        ASSERT_EQ(::mkdirat(current.get(), name.c_str(), 0755), 0);
        current = OwnedFd(::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        name = "d";
    }
    const OwnedFd file(::openat(current.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_TRUE(file);
    ASSERT_EQ(::fchown(file.get(), playerUid, staffGid), 0);
}

TEST(CopyOfATree, ReachesAnyTreeThatTheToolMakes)
{
    makeChain(deepestCopiedTree - 1);
    EXPECT_EQ(copyingTree("user", "user"), returned());
    Path file = treeCopyOf("user");
    for (int level = 1; level < deepestCopiedTree - 1; ++level)
        file /= "d";
    EXPECT_EQ(describe(file / "file"), "file 501 0600");
}

TEST(CopyOfATree, ThatIsTooDeepIsRefusedWhateverItsDepth)
{
    for (const int levels : {deepestCopiedTree, 3000}) {
        makeChain(levels);
        EXPECT_EQ(copyingTree("user", "user"), containsForeign);
        stdfs::rename(treeOf("user"), "/Users/player/moved" + std::to_string(levels));
        removeAll(treeCopyOf("user"));
    }
}

/// Copies the user scope's tree while `change` happens at a system call on the name `name`.
Ending copyingTreeWhile(long number, const std::string& name, const std::function<void()>& change)
{
    const auto when = [&](const SystemCall& call) { return call.is(number, name); };
    return during({number}, once(when, change), [] { copyTree({"user", treePath}, {"user", treeCopyPath}); });
}

TEST(CopyOfATree, WhoseDirectoryBecomesALinkIsRefused)
{
    writeFile("/Users/player/trap/file", "trap", {playerUid, 0644});
    writeInTree("user", "dir/file");
    EXPECT_EQ(copyingTreeWhile(SYS_openat, "dir",
                               [] {
                                   removeAll(treeOf("user") / "dir");
                                   makeLink(treeOf("user") / "dir", "/Users/player/trap");
                               }),
              containsLink);
    EXPECT_FALSE(isThere(treeCopyOf("user") / "dir"));
}

TEST(CopyOfATree, WhoseDirectoryBecomesALinkAfterItWasEnteredIsRefused)
{
    writeFile("/Users/player/trap/file", "trap", {playerUid, 0644});
    writeInTree("user", "dir/file");
    EXPECT_EQ(copyingTreeWhile(SYS_newfstatat, "file",
                               [] {
                                   removeAll(treeOf("user") / "dir");
                                   makeLink(treeOf("user") / "dir", "/Users/player/trap");
                               }),
              containsForeign);
    EXPECT_FALSE(isThere(treeCopyOf("user") / "dir/file"));
    removeAll(treeOf("user"));
    writeInTree("user", "dir/file");
    EXPECT_EQ(copyingTreeWhile(
                  SYS_openat, "file",
                  [] {
                      writeFile(besideOf(treeOf("user") / "dir/file"), "trap", {playerUid, 0644});
                      stdfs::rename(besideOf(treeOf("user") / "dir/file"), treeOf("user") / "dir/file");
                  }),
              unsafeSource);
    EXPECT_FALSE(isThere(treeCopyOf("user") / "dir/file"));
}

TEST(CopyOfATree, ThatVanishesMeanwhileIsRefused)
{
    writeInTree("user", "dir/file");
    EXPECT_EQ(copyingTreeWhile(SYS_newfstatat, "dir", [] { removeAll(treeOf("user")); }), containsForeign);
}

TEST(CopyOfATree, LeavesOnlyWholeFilesWhateverSystemCallFails)
{
    const std::vector<long> stopped = {SYS_openat, SYS_mkdirat,    SYS_write,      SYS_fsync, SYS_renameat,
                                       SYS_read,   SYS_getdents64, SYS_newfstatat, SYS_fstat, SYS_fcntl};
    writeInTree("system", "dir/file");
    eachMeeting(
        EIO, stopped,
        [] {
            copyTree({"system", treePath}, {"system", treeCopyPath});
        },
        [](const Ending& ending, const SystemCall& met) {
            EXPECT_NE(ending.kind, "other") << ending << " at " << met.number;
            const Path file = treeCopyOf("system") / "dir/file";
            if (isThere(file)) {
                EXPECT_EQ(readFile(file), "content") << ending << " at " << met.number;
                EXPECT_EQ(namesIn(file.parent_path()), Names{"file"});
            } else {
                EXPECT_NE(ending, returned()) << met.number;
                EXPECT_EQ(namesIn(file.parent_path()), Names{}) << ending << " at " << met.number;
            }
            EXPECT_EQ(copyingTree("system", "system"), returned()) << ending << " at " << met.number;
            removeAll(supportOf("system"));
        });
}

TEST(CopyOfATree, OfManyFilesLeavesNoDescriptorOpen)
{
    for (int i = 0; i < 100; ++i)
        writeInTree("user", "dir" + std::to_string(i % 10) + "/" + std::to_string(i));
    const std::size_t before = openDescriptors();
    EXPECT_EQ(copyingTree("user", "user"), returned());
    makeLink(treeOf("user") / "dir5/link", "x");
    EXPECT_EQ(copyingTree("user", "user"), containsLink);
    EXPECT_EQ(openDescriptors(), before);
}

} // namespace
} // namespace maintenance::rehearsed
