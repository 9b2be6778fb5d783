#include "receipts/receipt_snapshot.h"

#include "support/ending.h"
#include "support/scene.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace maintenance::rehearsed {
namespace {

const std::string relativePlace = "Library/Application Support/Tamarind Pelican/Maintenance/snapshot";
const FixedPlace snapshot{"user", relativePlace};
const Ending missingManifest = invalid("receipt snapshot manifest is missing");
const Ending invalidManifest = invalid("receipt snapshot manifest is invalid");
const Ending missingIdentity = invalid("receipt identity snapshot is missing");
const Ending matches = returned("yes");
const Ending differs = returned("no");
const std::string vst3Id = "com.tamarindpelican.pkg.alpha.vst3";
const std::string auId = "com.tamarindpelican.pkg.alpha.au";
const std::string digest(64, 'a');

std::filesystem::path inSnapshot(const std::string& name) { return rootOf("user") / relativePlace / name; }

void writeManifest(const std::string& text) { writeFile(inSnapshot("manifest"), text, {playerUid, 0600}); }

void writeIdentity(const std::string& serial, const std::string& text)
{
    writeFile(inSnapshot("receipts/" + serial), text, {playerUid, 0600});
}

/// "path digest" for each entry, each with a line feed.
Ending inventory()
{
    return endingOf([] {
        std::string lines;
        for (const auto& [path, hash] : snapshotInventory(snapshot))
            lines += path + " " + hash + "\n";
        return lines;
    });
}

Ending matching(const std::set<std::string>& packages, const std::string& scope = "user")
{
    return endingOf(
        [&] { return std::string(registrationsMatchSnapshot(scope, snapshot, packages) ? "yes" : "no"); });
}

std::string identityOf(const Package& package)
{
    std::string text = "pkgutil=" + package.id + "\nversion=" + package.version + "\n";
    for (const auto& [path, content] : package.files)
        text += "file=" + path + "\n";
    return text;
}

/// A snapshot of alpha 1.0 as it would have been taken, while alpha is installed like that.
void installAlphaWithSnapshot()
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", alpha);
    std::string manifest;
    int serial = 0;
    for (const Package* package : {&alpha.au, &alpha.vst3}) {
        for (const auto& [path, content] : package->files)
            manifest += path + "\t" + systemSha256(content) + "\t" + std::to_string(serial++) + "\n";
        writeIdentity(std::to_string(serial), identityOf(*package));
        manifest += "receipt\t" + package->id + "\t1.0\t" + std::to_string(serial++) + "\n";
    }
    writeManifest(manifest);
}

void unregisterAlpha(const std::string& scope)
{
    unregister(scope, auId);
    unregister(scope, vst3Id);
}

/// Installs alpha, prepares its repair and returns the directory of the receipt snapshot.
std::filesystem::path prepareRepair(const std::string& scope)
{
    install(scope, commonPackage());
    install(scope, plugin("alpha", "1.0"));
    publish(Work(scope).brings(plugin("alpha", "1.0"), "1.0"), "repair-alpha");
    EXPECT_EQ(run({"prepare-move", scope, "repair-alpha"}), succeeded());
    return transactionOf(scope, "repair-alpha") / "authority-target";
}

TEST(SnapshotInventory, GivesEveryFileLinesPathAndDigest)
{
    const std::string other(64, 'b');
    writeManifest("b/path\t" + other + "\t0\nreceipt\tx\t1\t1\na/path\t" + digest + "\t2\n");
    EXPECT_EQ(inventory(), returned("a/path " + digest + "\nb/path " + other + "\n"));
}

TEST(SnapshotInventory, OfAnEmptyManifestIsEmpty)
{
    writeManifest("");
    EXPECT_EQ(inventory(), returned());
}

TEST(SnapshotInventory, TakesALastLineWithoutALineFeed)
{
    writeManifest("path\t" + digest + "\t0");
    EXPECT_EQ(inventory(), returned("path " + digest + "\n"));
}

TEST(SnapshotInventory, SkipsReceiptLinesWhateverTheyHold)
{
    writeManifest("receipt\t\nreceipt\ta\tb\tc\td\te\npath\t" + digest + "\t0\n");
    EXPECT_EQ(inventory(), returned("path " + digest + "\n"));
}

TEST(SnapshotInventory, RefusesAFileLineWithoutExactlyThreeFields)
{
    const std::vector<std::string> lines = {
        "path\t" + digest,   "path\t" + digest + "\t0\t1", "path", "receipt",
        "receipts\ta\tb\tc", " receipt\ta\tb\tc",          ""};
    for (const std::string& line : lines) {
        writeManifest("first\t" + digest + "\t0\n" + line + "\n");
        EXPECT_EQ(inventory(), invalidManifest) << line;
    }
}

TEST(SnapshotInventory, RefusesAFileLineWithoutADigest)
{
    for (const std::string& wrong : {std::string(), digest.substr(1), digest + "a", std::string(64, 'A')}) {
        writeManifest("path\t" + wrong + "\t0\n");
        EXPECT_EQ(inventory(), invalidManifest) << wrong;
    }
}

TEST(SnapshotInventory, OfAMillionBytesInOneLineIsRefused)
{
    writeManifest(std::string(1048576, 'x') + "\n");
    EXPECT_EQ(inventory(), invalidManifest);
    writeManifest(std::string(1048576, '\t') + "\n");
    EXPECT_EQ(inventory(), invalidManifest);
}

TEST(SnapshotInventory, MayBeLargerThanOtherMetadata)
{
    std::string manifest;
    for (int i = 0; manifest.size() <= 2000000; ++i)
        manifest += "path" + std::to_string(i) + "\t" + digest + "\t" + std::to_string(i) + "\n";
    writeManifest(manifest);
    EXPECT_EQ(inventory().kind, "returned");
}

TEST(SnapshotInventory, WithoutASafeManifestIsMissing)
{
    makeDirectories(rootOf("user") / relativePlace, {playerUid, 0755});
    EXPECT_EQ(inventory(), missingManifest);
    EXPECT_EQ(matching({}), missingManifest);
    makeLink(inSnapshot("manifest"), "/etc/passwd");
    EXPECT_EQ(inventory(), missingManifest);
    removeAll(inSnapshot("manifest"));
    makePipe(inSnapshot("manifest"), playerUid);
    EXPECT_EQ(inventory(), missingManifest);
    removeAll(inSnapshot("manifest"));
    makeDirectories(inSnapshot("manifest"), {playerUid, 0755});
    EXPECT_EQ(inventory(), missingManifest);
    removeAll(rootOf("user") / relativePlace);
    EXPECT_EQ(inventory(), missingManifest);
    EXPECT_EQ(matching({}), missingManifest);
}

TEST(SnapshotInventory, BehindALinkedDirectoryIsMissing)
{
    writeManifest("");
    std::filesystem::rename(rootOf("user") / relativePlace, "/Users/player/moved");
    makeLink(rootOf("user") / relativePlace, "/Users/player/moved");
    EXPECT_EQ(inventory(), missingManifest);
}

TEST(Registrations, MatchWhenVersionAndPathsAreTheRecordedOnes)
{
    installAlphaWithSnapshot();
    EXPECT_EQ(matching({vst3Id, auId}), matches);
    EXPECT_EQ(matching({}), matches);
}

TEST(Registrations, MatchWhateverHappenedToTheFiles)
{
    installAlphaWithSnapshot();
    writeFile(rootOf("user") / vst3Path("alpha"), "changed", {playerUid, 0644});
    EXPECT_EQ(matching({vst3Id, auId}), matches);
    removeFiles("user", plugin("alpha", "1.0"));
    EXPECT_EQ(matching({vst3Id, auId}), matches);
}

TEST(Registrations, AreComparedForTheGivenPackagesAlone)
{
    installAlphaWithSnapshot();
    install("user", plugin("beta", "1.0"));
    unregister("user", auId);
    EXPECT_EQ(matching({vst3Id}), matches);
    EXPECT_EQ(matching({auId, vst3Id}), differs);
}

TEST(Registrations, OfAPackageInNeitherPlaceMatch)
{
    installAlphaWithSnapshot();
    EXPECT_EQ(matching({vst3Id, "com.tamarindpelican.pkg.beta.vst3"}), matches);
}

TEST(Registrations, DifferWhenThePackageWasForgottenOrAdded)
{
    installAlphaWithSnapshot();
    unregister("user", vst3Id);
    EXPECT_EQ(matching({vst3Id}), differs);
    install("user", plugin("beta", "1.0"));
    EXPECT_EQ(matching({"com.tamarindpelican.pkg.beta.vst3"}), differs);
}

TEST(Registrations, OfAManifestWithoutReceiptLinesRecordNothing)
{
    installAlphaWithSnapshot();
    writeManifest("path\t" + digest + "\t0\n");
    EXPECT_EQ(matching({vst3Id}), differs);
    EXPECT_EQ(matching({"com.tamarindpelican.pkg.beta.vst3"}), matches);
}

TEST(Registrations, DifferWhenTheVersionTextChanged)
{
    for (const std::string version : {"1.0.0", "1", "1.1"}) {
        installAlphaWithSnapshot();
        Plugin alpha = plugin("alpha", "1.0");
        alpha.vst3.version = version;
        registerPackage("user", alpha.vst3);
        EXPECT_EQ(matching({vst3Id}), differs) << version;
    }
}

TEST(Registrations, DifferWhenAPathWasAddedRemovedOrExchanged)
{
    installAlphaWithSnapshot();
    const Package recorded = plugin("alpha", "1.0").vst3;
    Package more = recorded;
    more.files[vst3Path("alpha", "Contents/more")] = "more";
    install("user", more);
    EXPECT_EQ(matching({vst3Id}), differs);
    Package less = recorded;
    less.files.erase(less.files.begin());
    registerPackage("user", less);
    EXPECT_EQ(matching({vst3Id}), differs);
    less.files[vst3Path("alpha", "Contents/more")] = "more";
    registerPackage("user", less);
    EXPECT_EQ(matching({vst3Id}), differs);
    registerPackage("user", recorded);
    EXPECT_EQ(matching({vst3Id}), matches);
}

TEST(Registrations, HaveASetOfPathsInWhichOrderAndRepetitionDoNotCount)
{
    installAlphaWithSnapshot();
    std::vector<std::string> paths;
    for (const auto& [path, content] : plugin("alpha", "1.0").vst3.files)
        paths.insert(paths.begin(), {path, path});
    writeReceipt("user", vst3Id, "1.0", paths);
    EXPECT_EQ(matching({vst3Id}), matches);
}

TEST(Registrations, AreThoseOfTheNamedScope)
{
    installAlphaWithSnapshot();
    EXPECT_EQ(matching({vst3Id}, "system"), differs);
    install("system", plugin("alpha", "1.0"));
    EXPECT_EQ(matching({vst3Id}, "system"), matches);
}

TEST(Registrations, AreReadFromTheFileLinesOfTheIdentityUpToATab)
{
    install("user", plugin("alpha", "1.0").vst3);
    std::string identity = "anything\n\n";
    for (const auto& [path, content] : plugin("alpha", "1.0").vst3.files)
        identity += "file=" + path + "\tmore\tfields\n";
    writeIdentity("7", identity + "version=9\nFile=x");
    writeManifest("receipt\t" + vst3Id + "\t1.0\t7\n");
    EXPECT_EQ(matching({vst3Id}), matches);
    writeIdentity("7", identity + " file=x\nfile=one-more");
    EXPECT_EQ(matching({vst3Id}), differs);
}

TEST(Registrations, SkipEveryLineThatIsNoReceiptLine)
{
    installAlphaWithSnapshot();
    const std::string manifest = readFile(inSnapshot("manifest"));
    writeManifest("\nshort\nreceipt\na\tb\tc\td\te\n Receipt\tx\n" + manifest);
    EXPECT_EQ(matching({vst3Id, auId}), matches);
}

TEST(Registrations, RefuseAReceiptLineWithoutExactlyFourFields)
{
    installAlphaWithSnapshot();
    const std::string manifest = readFile(inSnapshot("manifest"));
    for (const std::string line : {"receipt\t", "receipt\tx\t1", "receipt\tx\t1\t2\t3"}) {
        writeManifest(manifest + line + "\n");
        EXPECT_EQ(matching({vst3Id}), invalidManifest) << line;
    }
}

TEST(Registrations, RefuseASerialThatIsNoNumber)
{
    installAlphaWithSnapshot();
    writeFile(inSnapshot("secret"), "", {playerUid, 0600});
    for (const std::string serial : {"", "../secret", "-1", "1a", " 1", "123456789012345678901"}) {
        writeManifest("receipt\t" + vst3Id + "\t1.0\t" + serial + "\n");
        EXPECT_EQ(matching({vst3Id}), invalidManifest) << serial;
    }
}

TEST(Registrations, WithoutTheIdentitySnapshotAreRefused)
{
    installAlphaWithSnapshot();
    const std::filesystem::path identity = inSnapshot("receipts/2");
    removeAll(identity);
    EXPECT_EQ(matching({vst3Id}), missingIdentity);
    makeLink(identity, "/etc/passwd");
    EXPECT_EQ(matching({vst3Id}), missingIdentity);
    removeAll(inSnapshot("receipts"));
    EXPECT_EQ(matching({}), missingIdentity);
}

TEST(Registrations, PassTheErrorsOfTheLiveInventoryOn)
{
    installAlphaWithSnapshot();
    instructPkgutil("do exit=2\n");
    EXPECT_EQ(matching({vst3Id}), invalid("pkgutil cannot enumerate authoritative package receipts"));
}

TEST(Registrations, AreComparedByARollbackWithWhatWasPrepared)
{
    for (const std::string scope : {"user", "system"}) {
        const std::filesystem::path prepared = prepareRepair(scope);
        const std::string manifest = readFile(prepared / "manifest");
        const Ownership own{ownerOf(scope), 0600};
        const Arguments rollback = {"rollback-move", scope, "repair-alpha"};

        writeFile(prepared / "manifest", manifest + "receipt\tx\t1\n", own);
        const Tree before = takeExactTree();
        EXPECT_EQ(run(rollback), refused(invalidManifest.text));
        EXPECT_EQ(difference(before, takeExactTree()), "");

        removeAll(prepared / "manifest");
        EXPECT_EQ(run(rollback), refused(missingManifest.text));
        writeFile(prepared / "manifest", manifest, own);

        const std::string identity = readFile(prepared / "receipts/2");
        removeAll(prepared / "receipts/2");
        EXPECT_EQ(run(rollback), refused(missingIdentity.text));
        writeFile(prepared / "receipts/2", identity, own);

        unregister(scope, commonPackage().id);
        EXPECT_EQ(run(rollback), refused("pkgutil receipt registration changed; rollback cannot restore "
                                         "package registration"));
        registerPackage(scope, commonPackage());
        EXPECT_EQ(run(rollback), succeeded());
        unregisterAlpha(scope);
    }
}

TEST(ReceiptSnapshot, HoldsEveryAffectedPackageWithOneCounterForFilesAndReceipts)
{
    for (const std::string scope : {"user", "system"}) {
        install(scope, plugin("beta", "1.0"));
        const std::filesystem::path taken = prepareRepair(scope);
        const Plugin alpha = plugin("alpha", "1.0");
        const Package common = commonPackage();
        std::string manifest;
        int serial = 0;
        for (const Package* package : {&alpha.au, &alpha.vst3, &common}) {
            for (const auto& [path, content] : package->files) {
                const std::string number = std::to_string(serial++);
                manifest += path + "\t" + systemSha256(content) + "\t" + number + "\n";
                EXPECT_EQ(readFile(taken / "files" / number), content);
                EXPECT_EQ(describe(taken / "files" / number), metadataFileOf(scope));
            }
            const std::string number = std::to_string(serial++);
            manifest += "receipt\t" + package->id + "\t" + package->version + "\t" + number + "\n";
            EXPECT_EQ(readFile(taken / "receipts" / number), identityOf(*package));
            EXPECT_EQ(describe(taken / "receipts" / number), metadataFileOf(scope));
        }
        EXPECT_EQ(readFile(taken / "manifest"), manifest);
        EXPECT_EQ(describe(taken / "manifest"), metadataFileOf(scope));
        EXPECT_EQ(namesIn(taken / "files").size() + namesIn(taken / "receipts").size(), 9U);
        unregisterAlpha(scope);
    }
}

} // namespace
} // namespace maintenance::rehearsed
