#include "transaction/snapshot.h"

#include "fs/sha256.h"
#include "transaction/preparing.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace maintenance::rehearsed {
namespace {

const char* const unsafeSource = "transaction source is missing or unsafe";
const char* const linkOnPath = "owned path contains a symbolic link";
const char* const foreignType = "owned path has a foreign file type";
const char* const linkInMetadata = "maintenance metadata contains a symbolic link";
const char* const foreignInMetadata = "maintenance metadata contains a foreign file type";

const Plugin alpha = plugin("alpha", "1.0");
const Plugin older = plugin("alpha", "0.9");
const Plugin beta = plugin("beta", "1.0");

/// File contents by path relative to a transaction's directory.
using Contents = std::map<std::string, std::string>;

Contents contentsOf(const std::filesystem::path& directory)
{
    Contents contents;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory))
        if (entry.is_regular_file())
            contents[entry.path().lexically_relative(directory)] = readFile(entry.path());
    return contents;
}

/// The contents without the prepared state, whose generation no test knows.
Contents snapshotsOf(const Work& work, const std::string& id = moveId)
{
    Contents contents = contentsOf(directoryOf(work, id));
    contents.erase("prepared");
    return contents;
}

Contents within(const Contents& contents, const std::string& prefix)
{
    Contents found;
    for (const auto& [path, content] : contents)
        if (path.starts_with(prefix + "/"))
            found[path.substr(prefix.size() + 1)] = content;
    return found;
}

void addBelow(Contents& contents, const std::string& prefix, const Contents& added)
{
    for (const auto& [path, content] : added)
        contents[prefix + "/" + path] = content;
}

/// What a snapshot of these packages holds; they stand in the order of their identifiers.
Contents receiptSnapshot(const std::vector<Package>& packages)
{
    Contents contents;
    std::string manifest;
    int serial = 0;
    for (const Package& package : packages) {
        std::string identity = "pkgutil=" + package.id + "\nversion=" + package.version + "\n";
        for (const auto& [path, content] : package.files) {
            const std::string number = std::to_string(serial++);
            contents["files/" + number] = content;
            manifest += path + "\t" + systemSha256(content) + "\t" + number + "\n";
            identity += "file=" + path + "\n";
        }
        const std::string number = std::to_string(serial++);
        contents["receipts/" + number] = identity;
        manifest += "receipt\t" + package.id + "\t" + package.version + "\t" + number + "\n";
    }
    contents["manifest"] = manifest;
    return contents;
}

/// The files of a work that brings one product and the shared package, in the descriptor's order.
std::vector<std::string> targetPaths(const Plugin& product)
{
    std::vector<std::string> paths;
    for (const Package* package : {&product.vst3, &product.au})
        for (const auto& [path, content] : package->files)
            paths.push_back(path);
    for (const auto& [path, content] : commonPackage().files)
        paths.push_back(path);
    return paths;
}

/// Publishes a work, which must be refused so and leave nothing of its transaction.
void expectRefusal(const Work& work, const std::string& message, const std::string& what)
{
    publish(work, moveId);
    const Tree before = takeTree();
    EXPECT_EQ(prepareMove(work), refused(message)) << kindOf(work) << " " << what;
    EXPECT_EQ(changesSince(before), "") << kindOf(work) << " " << what;
}

void record(const std::string& scope, const std::string& product, const std::string& version)
{
    writeFile(recordOf(scope, product), "product=" + product + "\nversion=" + version + "\n",
              {ownerOf(scope), 0600});
}

TEST(Snapshot, HoldsEverythingThatARollbackNeeds)
{
    for (const Work& kind : everyKind(alpha)) {
        clearScene();
        const Work work = kind;
        const std::string& target = work.target();
        for (const Package& package : {older.vst3, older.au, commonPackage("6"), beta.vst3, beta.au})
            install(target, package);
        record(target, "alpha", "0.9");
        record(target, "beta", "1.0");
        writeFile(indexOf(target), "index of " + target + "\n", {ownerOf(target), 0600});
        Contents expected;
        if (work.source() != "none") {
            for (const Package& package : {alpha.vst3, alpha.au, commonPackage("7")})
                install(work.source(), package);
            record(work.source(), "alpha", "1.0");
            addBelow(expected, "authority-source",
                     receiptSnapshot({alpha.au, alpha.vst3, commonPackage("7")}));
            expected["metadata-source/Products/alpha.record"] = "product=alpha\nversion=1.0\n";
        }
        addBelow(expected, "authority-target", receiptSnapshot({older.au, older.vst3, commonPackage("6")}));
        expected["metadata-target/Products/alpha.record"] = "product=alpha\nversion=0.9\n";
        expected["metadata-target/Products/beta.record"] = "product=beta\nversion=1.0\n";
        expected["metadata-target/installed-products.json"] = "index of " + target + "\n";
        std::size_t index = 0;
        for (const std::string& path : targetPaths(alpha))
            expected["target/" + std::to_string(index++)] = readFile(rootOf(target) / path);
        bringToPrepared(work);
        EXPECT_EQ(snapshotsOf(work), expected) << kindOf(work);
    }
}

TEST(Snapshot, OfNothingSaysSo)
{
    for (const std::string scope : {"user", "system"}) {
        clearScene();
        const Work work = Work(scope).brings(alpha);
        bringToPrepared(work);
        Contents expected = {{"authority-target/manifest", ""}};
        for (std::size_t i = 0; i < targetPaths(alpha).size(); ++i)
            expected["target-absent/" + std::to_string(i)] = "absent\n";
        EXPECT_EQ(snapshotsOf(work), expected) << scope;
        EXPECT_EQ(namesIn(directoryOf(work)),
                  (std::vector<std::string>{"authority-target", "prepared", "target-absent"}));
        EXPECT_EQ(namesIn(directoryOf(work) / "authority-target"),
                  (std::vector<std::string>{"files", "manifest"}));
        EXPECT_TRUE(namesIn(directoryOf(work) / "authority-target/files").empty());
    }
}

TEST(Snapshot, BelongsToTheAuthorityAndIsPrivate)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        install(work.target(), commonPackage());
        for (const std::string& scope : work.involved()) {
            record(scope, "alpha", "1.0");
            writeFile(indexOf(scope), "{}\n", {ownerOf(scope), 0600});
        }
        bringToPrepared(work);
        const std::string& authority = work.authority();
        for (const auto& [path, line] : takeTree({directoryOf(work)})) {
            const bool isFile = std::filesystem::is_regular_file(path);
            const std::string expected = isFile ? metadataFileOf(authority)
                                         : path == directoryOf(work)
                                             ? "dir " + std::to_string(ownerOf(authority)) + " 0700"
                                             : directoryOf(authority);
            EXPECT_EQ(describe(path), expected) << kindOf(work) << " " << path;
        }
    }
}

TEST(Snapshot, NumbersTargetFilesAsTheDescriptorListsThem)
{
    const Work work = Work("user").brings(alpha).deciding("replace");
    const std::vector<std::string> paths = targetPaths(alpha);
    for (std::size_t present = 0; present < paths.size(); ++present) {
        clearScene();
        const std::string content = "found " + std::to_string(present) + "\n";
        writeFile(rootOf("user") / paths.at(present), content, {playerUid, 0644});
        bringToPrepared(work);
        Contents expected = {{"authority-target/manifest", ""}};
        for (std::size_t i = 0; i < paths.size(); ++i)
            if (i == present)
                expected["target/" + std::to_string(i)] = content;
            else
                expected["target-absent/" + std::to_string(i)] = "absent\n";
        EXPECT_EQ(snapshotsOf(work), expected) << paths.at(present);
    }
}

TEST(Snapshot, KeepsTheDescriptorsOrderNotTheOrderOfPaths)
{
    Work work = Work("user").brings(alpha).deciding("replace");
    std::string text = work.text();
    const std::size_t first = text.find("target=");
    const std::size_t second = text.find("target=", first + 1);
    text = text.substr(0, first) + text.substr(second) + text.substr(first, second - first);
    placeFiles("user", alpha);
    publishText("user", text, moveId);
    ASSERT_EQ(prepareMove(work), succeeded());
    std::vector<std::string> paths = targetPaths(alpha);
    std::rotate(paths.begin(), paths.begin() + 1, paths.end());
    for (std::size_t i = 0; i < paths.size(); ++i)
        if (isThere(rootOf("user") / paths[i])) {
            EXPECT_EQ(readFile(directoryOf(work) / "target" / std::to_string(i)),
                      readFile(rootOf("user") / paths[i]));
        }
}

TEST(Snapshot, CopiesAnyContentByteForByte)
{
    std::string every;
    for (unsigned i = 0; i < 256U * 1000U; ++i)
        every += static_cast<char>(i * i >> 3);
    const std::vector<std::string> contents = {"",    std::string(1, '\0'),    "no line feed",
                                               every, std::string(65536, 'a'), std::string(65537, 'b')};
    Plugin rich = alpha;
    for (std::size_t i = 0; i < contents.size(); ++i)
        rich.withVst3File("Contents/Resources/file" + std::to_string(i), contents[i]);
    install("user", rich);
    const Work work = Work("user").brings(rich, "1.0");
    bringToPrepared(work);
    const Contents held = snapshotsOf(work);
    EXPECT_EQ(within(held, "authority-target"), receiptSnapshot({rich.au, rich.vst3}));
    std::size_t index = 0;
    for (const auto& [path, content] : rich.vst3.files)
        EXPECT_EQ(held.at("target/" + std::to_string(index++)), content) << path;
}

TEST(Snapshot, CarriesNeitherModeNorTime)
{
    install("user", alpha);
    for (const std::string& path : alpha.paths())
        setMode(rootOf("user") / path, 0755);
    const Work work = Work("user").brings(alpha, "1.0");
    bringToPrepared(work);
    for (const auto& [path, content] : snapshotsOf(work))
        EXPECT_EQ(describe(directoryOf(work) / path), "file 501 0600") << path;
}

TEST(Snapshot, LeavesOtherProductsOut)
{
    install("user", beta);
    install("user", commonPackage());
    const Work work = Work("user").brings(alpha);
    bringToPrepared(work);
    EXPECT_EQ(within(snapshotsOf(work), "authority-target"), receiptSnapshot({commonPackage()}));
}

TEST(Snapshot, ListsFilesAsTheReceiptDoes)
{
    const std::vector<std::string> paths = {vst3Path("alpha", "Contents/Resources/art.txt"), "Library",
                                            vst3Path("alpha", "Contents/MacOS/plugin"), "Library/Audio"};
    install("user", alpha);
    writeReceipt("user", alpha.vst3.id, "1.0", paths);
    const Work work = Work("user").brings(alpha, "1.0");
    bringToPrepared(work);
    const std::string art = alpha.vst3.files.at(paths[0]);
    const std::string code = alpha.vst3.files.at(paths[2]);
    const Contents held = within(snapshotsOf(work), "authority-target");
    EXPECT_EQ(held.at("files/3"), art);
    EXPECT_EQ(held.at("files/4"), code);
    EXPECT_EQ(held.at("receipts/5"),
              "pkgutil=" + alpha.vst3.id + "\nversion=1.0\nfile=" + paths[0] + "\nfile=" + paths[2] + "\n");
    const std::string& manifest = held.at("manifest");
    EXPECT_TRUE(manifest.ends_with("receipt\t" + alpha.au.id + "\t1.0\t2\n" + paths[0] + "\t" +
                                   systemSha256(art) + "\t3\n" + paths[2] + "\t" + systemSha256(code) +
                                   "\t4\nreceipt\t" + alpha.vst3.id + "\t1.0\t5\n"))
        << manifest;
}

TEST(Snapshot, CountsOnThroughManyFiles)
{
    Plugin large = alpha;
    for (int i = 0; i < 120; ++i)
        large.withAuFile("Contents/Resources/n" + std::to_string(i), "content " + std::to_string(i) + "\n");
    install("system", large);
    const Work work = Work("system").brings(large, "1.0");
    bringToPrepared(work);
    const Contents held = within(snapshotsOf(work), "authority-target");
    // 122 files and their receipt, two files and theirs.
    EXPECT_EQ(held.size(), 123U + 3U + 1U);
    EXPECT_TRUE(held.contains("receipts/122"));
    EXPECT_TRUE(held.contains("files/124"));
    EXPECT_TRUE(held.at("manifest").ends_with("receipt\t" + large.vst3.id + "\t1.0\t125\n"));
}

TEST(Snapshot, KeepsTheWholeTreeOfRecordsAndTheIndex)
{
    for (const std::string scope : {"user", "system"}) {
        clearScene();
        const Ownership owned{ownerOf(scope), 0600};
        const Work work = Work(scope).brings(alpha);
        publish(work, moveId);
        record(scope, "beta", "1.0");
        writeFile(maintenanceOf(scope) / "Products/more/deep/note", "text", owned);
        writeFile(maintenanceOf(scope) / "Products/.hidden", "", owned);
        makeDirectories(maintenanceOf(scope) / "Products/empty", {ownerOf(scope), 0755});
        writeFile(indexOf(scope), "any text", {ownerOf(scope), 0644});
        ASSERT_EQ(prepareMove(work), succeeded());
        const Contents expected = {{"Products/beta.record", "product=beta\nversion=1.0\n"},
                                   {"Products/more/deep/note", "text"},
                                   {"Products/.hidden", ""},
                                   {"installed-products.json", "any text"}};
        EXPECT_EQ(within(snapshotsOf(work), "metadata-target"), expected);
        EXPECT_EQ(describe(directoryOf(work) / "metadata-target/Products/empty"), directoryOf(scope));
        EXPECT_EQ(describe(directoryOf(work) / "metadata-target/installed-products.json"),
                  metadataFileOf(scope));
    }
}

using Plant = std::function<void(const std::filesystem::path&)>;

/// What may not stand in a target file's place, and what is said of it.
const std::vector<std::pair<Plant, std::string>> foreignTargets = {
    {[](const std::filesystem::path& place) { makeLink(place, "/etc/passwd"); }, linkOnPath},
    {[](const std::filesystem::path& place) { makeLink(place, "nowhere"); }, linkOnPath},
    {[](const std::filesystem::path& place) { makeDirectories(place); }, foreignType},
    {[](const std::filesystem::path& place) { makePipe(place); }, foreignType},
    {[](const std::filesystem::path& place) { makeSocket(place); }, foreignType},
    {[](const std::filesystem::path& place) {
         writeFile(place, "text");
         makeHardLink(place.native() + ".second", place);
     },
     foreignType},
};

/// Prepares a work that would replace the plant.
void expectTargetRefusal(const Work& kind, const Plant& plant, const std::string& message)
{
    Work work = kind;
    work.deciding("replace");
    clearScene();
    installSource(work, alpha);
    const std::filesystem::path place = rootOf(work.target()) / vst3Path("alpha");
    makeDirectories(place.parent_path(), {ownerOf(work.target()), 0755});
    plant(place);
    expectRefusal(work, message, describe(place));
}

TEST(Snapshot, RefusesAForeignTargetFile)
{
    for (const std::string scope : {"user", "system"})
        for (const auto& [plant, message] : foreignTargets)
            expectTargetRefusal(Work(scope).brings(alpha), plant, message);
}

TEST(Snapshot, RefusesAForeignTargetFileOfAMove)
{
    for (const std::string target : {"user", "system"})
        for (std::size_t i = 0; i < 2; ++i)
            expectTargetRefusal(Work(target).from(oppositeOf(target)).brings(alpha),
                                foreignTargets.at(i).first, foreignTargets.at(i).second);
}

TEST(Snapshot, RefusesALinkAboveATargetFile)
{
    const Work work = Work("user").brings(alpha).deciding("replace");
    for (const std::string above : {"Library/Audio", "Library/Audio/Plug-Ins/VST3",
                                    "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP alpha.vst3/Contents"}) {
        clearScene();
        placeFiles("user", alpha);
        removeAll("/Users/player/moved");
        std::filesystem::rename(rootOf("user") / above, "/Users/player/moved");
        makeLink(rootOf("user") / above, "/Users/player/moved");
        expectRefusal(work, linkOnPath, above);
        removeAll(rootOf("user") / above);
    }
}

TEST(Snapshot, TakesAFileInADirectorysPlaceForAbsence)
{
    const Work work = Work("user").brings(alpha);
    writeFile(rootOf("user") / "Library/Audio/Plug-Ins", "text", {playerUid, 0644});
    bringToPrepared(work);
    EXPECT_EQ(readFile(directoryOf(work) / "target-absent/0"), "absent\n");
    EXPECT_FALSE(isThere(directoryOf(work) / "target/0"));
}

TEST(Snapshot, CopiesNothingThatTheAccountCouldNotReadItself)
{
    const Work work = Work("user").brings(alpha).deciding("replace");
    placeFiles("user", alpha);
    const std::filesystem::path file = rootOf("user") / vst3Path("alpha");
    writeFile(file, "secret", {rootUid, 0600});
    expectRefusal(work, unsafeSource, "root's own file");
    setMode(file, 0640);
    expectRefusal(work, unsafeSource, "readable for the group");
    setMode(file, 0644);
    EXPECT_EQ(prepareMove(work), succeeded());
}

TEST(Snapshot, CopiesWhatOnlyRootMayReadInTheSystemScope)
{
    const Work work = Work("system").brings(alpha).deciding("replace");
    placeFiles("system", alpha);
    writeFile(rootOf("system") / vst3Path("alpha"), "secret", {rootUid, 0600});
    bringToPrepared(work);
    EXPECT_EQ(readFile(directoryOf(work) / "target/0"), "secret");
    EXPECT_EQ(describe(directoryOf(work) / "target/0"), "file 0 0600");
}

/// What may not stand among the records, and what is said of it.
const std::vector<std::pair<Plant, std::string>> foreignRecords = {
    {[](const std::filesystem::path& place) { makeLink(place, "/etc/passwd"); }, linkInMetadata},
    {[](const std::filesystem::path& place) { makeLink(place, "nowhere"); }, linkInMetadata},
    {[](const std::filesystem::path& place) { makeLink(place, "."); }, linkInMetadata},
    {[](const std::filesystem::path& place) { makePipe(place); }, foreignInMetadata},
    {[](const std::filesystem::path& place) { makeSocket(place); }, foreignInMetadata},
    {[](const std::filesystem::path& place) {
         writeFile(place, "text");
         makeHardLink("/Library/second-name", place);
     },
     foreignInMetadata},
};

/// Prepares a work while a foreign record stands in one of its scopes.
void expectRecordRefusal(const Work& work, const std::string& scope, const std::string& name,
                         const std::pair<Plant, std::string>& record)
{
    clearScene();
    removeAll("/Library/second-name");
    installSource(work, alpha);
    makeLayout(scope);
    const std::filesystem::path place = maintenanceOf(scope) / "Products" / name;
    makeDirectories(place.parent_path(), {ownerOf(scope), 0755});
    record.first(place);
    expectRefusal(work, record.second, scope + " " + name + " " + describe(place));
}

TEST(Snapshot, RefusesForeignRecordsInAnyDepth)
{
    for (const std::string scope : {"user", "system"})
        for (const auto& record : foreignRecords)
            for (const std::string name : {"alpha.record", "more/deep/alpha.record"})
                expectRecordRefusal(Work(scope).brings(alpha), scope, name, record);
}

TEST(Snapshot, RefusesForeignRecordsInEitherScopeOfAMove)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            expectRecordRefusal(work, scope, "alpha.record", foreignRecords.front());
}

/// What may not stand in the index's place.
const std::vector<Plant> foreignIndexes = {
    [](const std::filesystem::path& place) { makeLink(place, "/etc/passwd"); },
    [](const std::filesystem::path& place) { makeLink(place, "nowhere"); },
    [](const std::filesystem::path& place) { makePipe(place); },
    [](const std::filesystem::path& place) { makeSocket(place); },
    [](const std::filesystem::path& place) { makeDirectories(place); },
    [](const std::filesystem::path& place) {
        writeFile(place, "text");
        makeHardLink(place.native() + ".second", place);
    },
};

/// Prepares a work while a foreign index stands in one of its scopes.
void expectIndexRefusal(const Work& work, const std::string& scope, const Plant& plant)
{
    clearScene();
    installSource(work, alpha);
    makeDirectories(supportOf(scope), {ownerOf(scope), 0755});
    plant(indexOf(scope));
    expectRefusal(work, unsafeSource, scope + " " + describe(indexOf(scope)));
}

TEST(Snapshot, RefusesAForeignIndex)
{
    for (const std::string scope : {"user", "system"})
        for (const Plant& plant : foreignIndexes)
            expectIndexRefusal(Work(scope).brings(alpha), scope, plant);
}

TEST(Snapshot, RefusesAForeignIndexInEitherScopeOfAMove)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            expectIndexRefusal(work, scope, foreignIndexes.front());
}

TEST(Snapshot, TellsTheAccountNothingOfRootsMetadata)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    writeFile(indexOf("user"), "secret", {rootUid, 0600});
    expectRefusal(work, unsafeSource, "index");
    removeAll(indexOf("user"));
    writeFile(recordOf("user", "alpha"), "secret", {rootUid, 0600});
    expectRefusal(work, unsafeSource, "record");
}

TEST(Snapshot, OfDeepRecordsIsEitherRefusedOrCanBeRolledBack)
{
    const Work work = Work("user").brings(alpha);
    std::set<bool> accepted;
    for (const int depth : {1, 60, 61, 62, 63, 300}) {
        clearScene();
        publish(work, moveId);
        std::filesystem::path place = maintenanceOf("user") / "Products";
        for (int level = 0; level < depth; ++level)
            place /= "d";
        makeDirectories(place, {playerUid, 0755});
        const Tree before = takeTree();
        const Outcome outcome = prepareMove(work);
        accepted.insert(outcome == succeeded());
        if (outcome == succeeded()) {
            EXPECT_EQ(command("rollback-move", work), succeeded()) << depth;
            EXPECT_TRUE(isThere(place)) << depth;
        } else {
            EXPECT_EQ(outcome, refused(foreignInMetadata)) << depth;
            EXPECT_TRUE(changesSince(before).empty()) << depth;
        }
    }
    EXPECT_EQ(accepted, (std::set<bool>{false, true}));
}

TEST(Snapshot, RefusesReceiptsThatDoNotFitTheDisk)
{
    for (const Work& work : {Work("user").brings(alpha, "1.0"), Work("system").brings(alpha, "1.0")}) {
        const std::string& scope = work.target();
        clearScene();
        install(scope, alpha);
        writeReceipt(scope, commonPackage().id, "7",
                     {supportOf(scope).lexically_relative(rootOf(scope)) / "TamarindPelicanUpdater"});
        expectRefusal(work, "pkgutil receipt-owned file is missing", "missing file");
        placeFiles(scope, commonPackage());
        makeHardLink(supportOf(scope) / "second", supportOf(scope) / "TamarindPelicanUpdater");
        expectRefusal(work, "pkgutil receipt inventory contains a link or foreign file", "two names");
    }
}

/// Changes a file after the snapshot's inventory has hashed it: packages are read in the order in which they
/// are listed, the shared one last.
TEST(Snapshot, RefusesAFileThatChangedSinceItWasHashed)
{
    for (const std::string scope : {"user", "system"}) {
        clearScene();
        const Work work = Work(scope).brings(alpha, "1.0");
        install(scope, alpha);
        install(scope, commonPackage());
        publish(work, moveId);
        const std::string action = "echo changed > '" + (rootOf(scope) / auPath("alpha")).native() + "'";
        instructPkgutil("command=--pkg-info id=" + commonPackage().id + " nth=4 do before=\"" + action +
                        "\"\n");
        EXPECT_EQ(prepareMove(work), refused("transaction source hash is wrong")) << scope;
        EXPECT_FALSE(isThere(directoryOf(work)));
        EXPECT_FALSE(isThere(leaseOf(scope)));
    }
}

TEST(Snapshot, RefusesAFileThatIsExchangedWhileItIsCopied)
{
    const Work work = Work("user").brings(alpha).deciding("replace");
    placeFiles("user", alpha);
    publish(work, moveId);
    const std::filesystem::path file = rootOf("user") / vst3Path("alpha");
    const Decide grow = [&](const SystemCall& call) {
        if (fileOf(call) == file)
            writeFile(file, "something longer than what was there before\n", {playerUid, 0644});
        return 0;
    };
    EXPECT_EQ(runStopping({SYS_read}, grow, {"prepare-move", "user", moveId}), refused(unsafeSource));
    EXPECT_FALSE(isThere(directoryOf(work)));
    int opened = 0;
    const Decide exchange = [&](const SystemCall& call) {
        if (call.is(SYS_openat, "plugin") && ++opened == 1) {
            std::filesystem::rename(file, "/Users/player/moved");
            writeFile(file, readFile("/Users/player/moved"), {playerUid, 0644});
        }
        return 0;
    };
    EXPECT_EQ(runStopping({SYS_openat}, exchange, {"prepare-move", "user", moveId}), refused(unsafeSource));
    EXPECT_EQ(opened, 1);
    EXPECT_FALSE(isThere(directoryOf(work)));
}

TEST(Snapshot, OfARecordTreeThatCannotBeListedIsRefused)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    const Tree before = takeTree();
    const Decide decide = [](const SystemCall& call) {
        return fileOf(call) == maintenanceOf("user") / "Products" ? EIO : 0;
    };
    EXPECT_EQ(runStopping({SYS_getdents64}, decide, {"prepare-move", "user", moveId}),
              refused(foreignInMetadata));
    EXPECT_EQ(changesSince(before), "");
}

TEST(Snapshot, OfMetadataTakesALinkInThePlaceOfAllRecordsForOne)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    const Descriptor descriptor = parse("user", moveId);
    const std::filesystem::path records = maintenanceOf("user") / "Products";
    removeAll(records);
    snapshotMetadata("user", metadataSnapshot(descriptor, "target"));
    EXPECT_FALSE(isThere(directoryOf(work)));
    makeLink(records, "Inbox");
    EXPECT_EQ(endingOf([&] { snapshotMetadata("user", metadataSnapshot(descriptor, "target")); }),
              invalid(linkInMetadata));
}

TEST(Snapshot, OfASourceIsTakenOnlyWhereThereIsOne)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        installSource(work, alpha);
        for (const std::string scope : {"user", "system"}) {
            makeLayout(scope);
            record(scope, "gamma", "1.0");
        }
        bringToPrepared(work);
        const bool moves = work.source() != "none";
        for (const std::string name : {"authority-source", "metadata-source"})
            EXPECT_EQ(isThere(directoryOf(work) / name), moves) << kindOf(work) << " " << name;
        for (const std::string name : {"authority-target", "metadata-target"})
            EXPECT_TRUE(isThere(directoryOf(work) / name)) << kindOf(work) << " " << name;
    }
}

TEST(Snapshot, IsTakenOfEveryPackageThatTheDescriptorNames)
{
    Work work("user");
    work.brings(alpha, "1.0").brings(beta, "1.0");
    install("user", alpha);
    install("user", beta);
    install("user", commonPackage());
    bringToPrepared(work);
    EXPECT_EQ(within(snapshotsOf(work), "authority-target"),
              receiptSnapshot({alpha.au, alpha.vst3, beta.au, beta.vst3, commonPackage()}));
}

TEST(Snapshot, IsTakenOfAPathInEveryReceiptThatListsIt)
{
    install("user", alpha);
    const std::string shared = vst3Path("alpha", "Contents/Resources/art.txt");
    writeReceipt("user", alpha.au.id, "1.0", {auPath("alpha"), shared});
    const Work work = Work("user").brings(alpha, "1.0");
    bringToPrepared(work);
    Package au = alpha.au;
    au.files = {{auPath("alpha"), alpha.au.files.at(auPath("alpha"))}, {shared, alpha.vst3.files.at(shared)}};
    EXPECT_EQ(within(snapshotsOf(work), "authority-target"), receiptSnapshot({au, alpha.vst3}));
}

TEST(Snapshot, OfAMoveKeepsEachScopesOwnFiles)
{
    for (const std::string target : {"user", "system"}) {
        clearScene();
        const std::string source = oppositeOf(target);
        const Work work = Work(target).from(source).brings(plugin("alpha", "2.0"), "-");
        install(source, alpha);
        install(target, older);
        bringToPrepared(work);
        const Contents held = snapshotsOf(work);
        EXPECT_EQ(within(held, "authority-source"), receiptSnapshot({alpha.au, alpha.vst3}));
        EXPECT_EQ(within(held, "authority-target"), receiptSnapshot({older.au, older.vst3}));
        EXPECT_EQ(held.at("target/0"), older.vst3.files.begin()->second);
    }
}

} // namespace
} // namespace maintenance::rehearsed
