#include "fs/leftovers.h"

#include "fs/directory_entries.h"
#include "fs/fixed_directory.h"
#include "fs/plants.h"
#include "fs/publish.h"
#include "fs/trouble.h"
#include "support/scene.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

using Path = std::filesystem::path;
using Names = std::vector<std::string>;

const Names scopes = {"user", "system"};
const std::string recordPath = std::string(maintenanceDirectory) + "/record";
constexpr const char* leftover = ".record.new.77777777";

void writeBeside(const std::string& scope, const std::string& name)
{
    writeFile(maintenanceOf(scope) / name, "half", {ownerOf(scope), 0600});
}

void sweep(const std::string& scope, const std::string& name = "record")
{
    const OwnedFd directory = openFixedDirectory(scope, maintenanceDirectory, false, true);
    removeLeftovers(scope, directory.get(), name);
}

TEST(TemporaryName, IsHiddenAndNamesFileAndProcess)
{
    const std::string process = std::to_string(::getpid());
    EXPECT_EQ(temporaryName("record"), ".record.new." + process);
    EXPECT_EQ(temporaryName("installed-products.json"), ".installed-products.json.new." + process);
    EXPECT_EQ(temporaryName("a.new.1"), ".a.new.1.new." + process);
    EXPECT_EQ(asAccount(rootUid, [] { return temporaryName("x"); }).text.substr(0, 7), ".x.new.");
    EXPECT_NE(asAccount(rootUid, [] { return temporaryName("x"); }), returned(temporaryName("x")));
}

TEST(TemporaryName, IsNeverLongerThanAFileSystemAccepts)
{
    const std::string suffix = ".new." + std::to_string(::getpid());
    for (const std::size_t length : {1u, 200u, 240u, 254u, 255u, 1000u}) {
        const std::string name(length, 'n');
        const std::string temporary = temporaryName(name);
        EXPECT_EQ(temporary.size(), std::min<std::size_t>(255, length + 1 + suffix.size()));
        EXPECT_TRUE(temporary.starts_with(".n")) << length;
        EXPECT_TRUE(temporary.ends_with(suffix)) << length;
        EXPECT_TRUE(isTemporaryNameOf(temporary, name)) << length;
    }
}

TEST(TemporaryName, IsToldApartFromEveryOtherName)
{
    const std::vector<std::pair<std::string, bool>> examples = {
        {".record.new.1", true},
        {".record.new.4194304", true},
        {".record.new.99999999999999999999", true},
        {"record.new.1", false},
        {".record.new.", false},
        {".record.new", false},
        {".record.new.0", false},
        {".record.new.012", false},
        {".record.new.1x", false},
        {".record.new.-1", false},
        {".record.new. 1", false},
        {".record.new.1.2", false},
        {".record.new.1\n", false},
        {".record.old.1", false},
        {"..record.new.1", false},
        {".records.new.1", false},
        {".recor.new.1", false},
        {".Record.new.1", false},
        {".record.new.5.new.1", false},
        {".x.record.new.1", false},
        {".new.1", false},
        {"record", false},
        {"", false},
        {".", false},
    };
    for (const auto& [entry, expected] : examples)
        EXPECT_EQ(isTemporaryNameOf(entry, "record"), expected) << entry;
    EXPECT_TRUE(isTemporaryNameOf(".a.new.1.new.5", "a.new.1"));
    EXPECT_FALSE(isTemporaryNameOf(".a.new.1.new.5", "a"));
    // A name that was cut is only known by its full length.
    const std::string cut = "." + std::string(248, 'n') + ".new.1";
    EXPECT_EQ(cut.size(), 255u);
    EXPECT_TRUE(isTemporaryNameOf(cut, std::string(255, 'n')));
    EXPECT_TRUE(isTemporaryNameOf(cut, std::string(248, 'n')));
    EXPECT_FALSE(isTemporaryNameOf(cut, std::string(247, 'n')));
    EXPECT_FALSE(isTemporaryNameOf(cut.substr(0, 240) + ".new.1", std::string(255, 'n')));
}

TEST(Leftovers, OfKilledRunsAreRemovedAndNothingElse)
{
    for (const std::string& scope : scopes) {
        const Names kept = {".other.new.1", ".record.new.0", ".record.new.1x", ".record.old.1",
                            "other",        "record",        "record.new.1",   temporaryName("record")};
        for (const std::string& name : kept)
            writeBeside(scope, name);
        for (const char* name : {".record.new.1", ".record.new.2", ".record.new.77777777"})
            writeBeside(scope, name);
        sweep(scope);
        Names expected = kept;
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(namesIn(maintenanceOf(scope)), expected);
    }
}

TEST(Leftovers, OfAnyModeAreRemoved)
{
    for (const std::string& scope : scopes)
        for (const mode_t mode : {0u, 0400u, 0666u}) {
            writeBeside(scope, leftover);
            setMode(maintenanceOf(scope) / leftover, mode);
            sweep(scope);
            EXPECT_EQ(namesIn(maintenanceOf(scope)), Names{});
        }
}

TEST(Leftovers, ThatNoRunCanHaveMadeAreLeftAlone)
{
    for (const std::string& scope : scopes) {
        makeDirectories(maintenanceOf(scope), {ownerOf(scope), 0755});
        withEachPlant(maintenanceOf(scope) / leftover, ownerOf(scope), [&](const std::string& what) {
            const Tree before = takeExactTree();
            sweep(scope);
            EXPECT_EQ(difference(before, takeExactTree()), "") << what;
        });
        for (const uid_t owner : {0u, 501u, 502u}) {
            writeBeside(scope, leftover);
            setOwner(maintenanceOf(scope) / leftover, owner);
            sweep(scope);
            EXPECT_EQ(isThere(maintenanceOf(scope) / leftover), owner != ownerOf(scope)) << scope << owner;
            removeAll(maintenanceOf(scope) / leftover);
        }
    }
}

TEST(Leftovers, ThatCannotBeRemovedDoNotMatter)
{
    writeBeside("user", leftover);
    const auto call = [] { sweep("user"); };
    EXPECT_EQ(failingAt(SYS_unlinkat, 1, EIO, call), returned());
    EXPECT_EQ(failingAt(SYS_getdents64, 1, EIO, call), returned());
    const auto status = [](const SystemCall& made) { return made.is(SYS_newfstatat, leftover) ? EIO : 0; };
    EXPECT_EQ(during({SYS_newfstatat}, status, call), returned());
    EXPECT_TRUE(isThere(maintenanceOf("user") / leftover));
    EXPECT_EQ(during(
                  {SYS_unlinkat}, [](const SystemCall&) { return EPERM; },
                  [] {
                      atomicWriteFixed({"user", recordPath}, "new");
                  }),
              returned());
    EXPECT_EQ(namesIn(maintenanceOf("user")), (Names{leftover, "record"}));
}

TEST(Leftovers, AreRemovedWithTheAccountsPowerInItsDirectories)
{
    for (const std::string& scope : scopes) {
        writeBeside(scope, leftover);
        int removed = 0;
        const auto examine = [&](const SystemCall& call) {
            ++removed;
            EXPECT_EQ(callersPower(call), ownerOf(scope));
            EXPECT_EQ(call.arguments[2], 0u);
            return 0;
        };
        EXPECT_EQ(during({SYS_unlinkat}, examine, [&] { sweep(scope); }), returned());
        EXPECT_EQ(removed, 1);
    }
}

TEST(Leftovers, ExchangedForALinkOrADirectoryHarmNothing)
{
    writeFile("/Users/player/precious/file", "precious", {playerUid, 0600});
    const Path place = maintenanceOf("user") / leftover;
    for (const bool link : {false, true}) {
        removeAll(place);
        writeBeside("user", leftover);
        const auto exchange = once([](const SystemCall&) { return true; },
                                   [&] {
                                       removeAll(place);
                                       if (link)
                                           makeLink(place, "/Users/player/precious/file");
                                       else
                                           std::filesystem::rename("/Users/player/precious", place);
                                   });
        EXPECT_EQ(during({SYS_unlinkat}, exchange, [] { sweep("user"); }), returned());
        if (!link) {
            EXPECT_EQ(readFile(place / "file"), "precious");
            std::filesystem::rename(place, "/Users/player/precious");
        }
    }
    EXPECT_EQ(readFile("/Users/player/precious/file"), "precious");
}

TEST(Leftovers, OfARunThatWasReallyKilledAreRemovedByTheNextPublication)
{
    for (const std::string& scope : scopes) {
        writeFile(maintenanceOf(scope) / "record", "old", {ownerOf(scope), 0600});
        const Ending ending = during(
            {SYS_renameat}, [](const SystemCall&) { return killChild; },
            [&] {
                atomicWriteFixed({scope, recordPath}, "lost");
            });
        EXPECT_EQ(ending, (Ending{"signal", "9"}));
        const Names left = namesIn(maintenanceOf(scope));
        ASSERT_EQ(left.size(), 2u);
        EXPECT_EQ(describe(maintenanceOf(scope) / left.at(0)), metadataFileOf(scope)) << left.at(0);
        EXPECT_EQ(readFile(maintenanceOf(scope) / "record"), "old");
        atomicWriteFixed({scope, recordPath}, "new");
        EXPECT_EQ(namesIn(maintenanceOf(scope)), Names{"record"});
    }
}

TEST(Leftovers, OfTheRealProgramAreRemovedByItsNextRun)
{
    const Plugin alpha = plugin("alpha", "1.0");
    for (const std::string& scope : scopes) {
        const Path tool = placeTool(scope, planText({alpha}));
        makeDirectories(maintenanceOf(scope), {ownerOf(scope), 0755});
        writeBeside(scope, ".PendingInstall.new.77777777");
        Surroundings surroundings;
        surroundings.tool = tool;
        EXPECT_EQ(run({"begin-install", scope}, surroundings).status, 0) << scope;
        EXPECT_EQ(namesIn(maintenanceOf(scope)),
                  (Names{"Completed", "Inbox", "NativeReceipts", "PendingInstall", "Products", "Transactions",
                         "maintenance.lock"}));
    }
}

} // namespace
} // namespace maintenance::rehearsed
