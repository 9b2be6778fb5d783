#include "committing.h"

#include "plan/descriptor.h"
#include "transaction/rollback.h"

#include <sys/mount.h>

namespace maintenance::rehearsed {
namespace {

using RollbackIn = InScope;
using RollbackOfMoveTo = InScope;

INSTANTIATE_TEST_SUITE_P(, RollbackIn, ::testing::Values("user", "system"), nameOfScope);
INSTANTIATE_TEST_SUITE_P(, RollbackOfMoveTo, ::testing::Values("user", "system"), nameOfScope);

const Outcome registrationChanged =
    refused("pkgutil receipt registration changed; rollback cannot restore package registration");

/// The very rollback that the program makes, in the test's own process.
void rollBackHere(const Transaction& transaction)
{
    rollback(parse(transaction.work().target(), transaction.id()));
}

/// Alpha 1.0 stands in the scope and the installer, before it failed, has placed files of 2.0, removed one of
/// 1.0, and registered nothing.
Transaction prepareHalfAnUpgrade(const std::string& scope)
{
    const Plugin fresh = plugin("alpha", "2.0").withVst3File("Contents/Fresh/new.txt", "new text");
    installWithRecords(scope, {plugin("alpha", "1.0").withAuFile("Contents/Old/old.txt", "old text"),
                               plugin("beta", "1.0")});
    makeDirectories(vst3File(scope, "alpha", "Contents/Fresh"), {ownerOf(scope), 0755});
    Transaction transaction(Work(scope).brings(fresh, "1.0"));
    return transaction;
}

void installHalf(const std::string& scope)
{
    placeFiles(scope, plugin("alpha", "2.0").withVst3File("Contents/Fresh/new.txt", "new text").vst3);
    removeAll(auFile(scope, "alpha", "Contents/Old"));
    writeFile(auFile(scope, "alpha"), "half a fi", {ownerOf(scope), 0644});
}

/// What the rollback has to write anew of it.
void expectOldVersion(ExpectedDisk& expected, const std::string& scope)
{
    expected.withFile(vst3File(scope, "alpha"), "alpha vst3 code 1.0\n", metadataFileOf(scope))
        .withFile(auFile(scope, "alpha"), "alpha au code 1.0\n", metadataFileOf(scope))
        .withFile(auFile(scope, "alpha", "Contents/Old/old.txt"), "old text", metadataFileOf(scope));
}

TEST_P(RollbackIn, OfAnUntouchedPreparationChangesNoInstalledFile)
{
    const Transaction transaction = prepareRepair(scope());
    writePending(transaction.work(), transaction.id());
    const Tree bundles = exactBundles(scope(), "alpha");
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(difference(bundles, exactBundles(scope(), "alpha")), "");
    EXPECT_EQ(describe(transaction.completed()), metadataFileOf(scope()));
    EXPECT_EQ(readFile(transaction.completed()), transaction.text());
}

TEST_P(RollbackIn, OfACleanInstallationRemovesWhatWasPlaced)
{
    const Plugin alpha = plugin("alpha", "1.0");
    placeFiles(scope(), alpha);
    removeFiles(scope(), alpha);
    const Transaction transaction(Work(scope()).brings(alpha));
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    placeFiles(scope(), alpha.au);
    placeFiles(scope(), commonPackage());
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RollbackIn, OfHalfAnUpgradeBringsTheOldBytesBack)
{
    const Transaction transaction = prepareHalfAnUpgrade(scope());
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    const Tree others = exactBundles(scope(), "beta");
    installHalf(scope());

    EXPECT_EQ(transaction.rollBack(), succeeded());
    expectOldVersion(expected, scope());
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(difference(others, exactBundles(scope(), "beta")), "");
}

TEST_P(RollbackIn, OfAnAdoptionLeavesTheAdoptedFiles)
{
    const Plugin alpha = plugin("alpha", "1.0");
    placeFiles(scope(), alpha);
    const Transaction transaction(Work(scope()).deciding("adopt").brings(alpha));
    const Tree bundles = exactBundles(scope(), "alpha");
    placeFiles(scope(), commonPackage());
    ExpectedDisk expected;
    expected.withEndOf(transaction).withoutFiles(scope(), commonPackage());
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(difference(bundles, exactBundles(scope(), "alpha")), "");
}

TEST_P(RollbackIn, BringsIndexAndRecordsBack)
{
    installWithRecords(scope(), {plugin("alpha", "1.0")});
    writeFile(recordOf(scope(), "odd"), "product=odd\n", {ownerOf(scope()), 0600});
    writeFile(recordOf(scope(), "nested/deeper/odd"), "product=nested\n", {ownerOf(scope()), 0600});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0"), "1.0"));
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    removeAll(recordOf(scope(), "odd"));
    writeFile(recordOf(scope(), "alpha"), "product=alpha\nversion=9\n", {ownerOf(scope()), 0600});
    writeFile(recordOf(scope(), "new"), "product=new\n", {ownerOf(scope()), 0600});
    writeFile(indexOf(scope()), "another index\n", {ownerOf(scope()), 0600});
    setMode(maintenanceOf(scope()) / "Products", 0700);
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RollbackIn, RemovesAnIndexThatWasNotThere)
{
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0")));
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    recordProducts(scope(), {{"alpha", "1.0"}});
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RollbackIn, LeavesEveryModeAsUsualUnderAnyUmask)
{
    for (const mode_t umask : {0U, 077U}) {
        const SavedDisk empty;
        const Transaction transaction = prepareRepair(scope());
        ExpectedDisk expected;
        expected.withEndOf(transaction);
        writeFile(vst3File(scope(), "alpha"), "spoilt", {ownerOf(scope()), 0666});
        Surroundings surroundings;
        surroundings.umask = umask;
        EXPECT_EQ(transaction.rollBack(surroundings), succeeded());
        expected.withFile(vst3File(scope(), "alpha"), "alpha vst3 code 1.0\n", metadataFileOf(scope()));
        EXPECT_EQ(expected.differenceNow(), "") << umask;
        empty.bringBack();
    }
}

TEST_P(RollbackIn, LeavesThePendingAttemptOfAnotherTransaction)
{
    const Transaction transaction = prepareRepair(scope());
    writePending(transaction.work(), "install-other");
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(readFile(pendingOf(scope())), pendingText(transaction.work(), "install-other"));
}

TEST_P(RollbackIn, TouchesNothingInAScopeThatIsNotInvolved)
{
    installWithRecords(other(), {plugin("beta", "1.0")});
    const Transaction transaction = prepareRepair(scope());
    removeFiles(scope(), plugin("alpha", "1.0"));
    const std::vector<std::string> uninvolved =
        other() == "user" ? std::vector<std::string>{"/Users"}
                          : std::vector<std::string>{"/Library", "/var/db/receipts"};
    const Tree before = takeExactTree(uninvolved);
    forgetPkgutilCalls();
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(difference(before, takeExactTree(uninvolved)), "");
    for (const std::string& call : pkgutilCalls())
        EXPECT_TRUE(call.starts_with("--volume " + rootOf(scope()).native() + " ")) << call;
}

TEST(RollbackMove, CanBeMadeByTheAccountItselfInItsHome)
{
    const Transaction transaction = prepareHalfAnUpgrade("user");
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    installHalf("user");
    EXPECT_EQ(transaction.rollBack(asPlayer()), succeeded());
    expectOldVersion(expected, "user");
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RollbackOfMoveTo, BringsBothScopesBack)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha});
    placeFiles(scope(), alpha);
    removeFiles(scope(), alpha);
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    writePending(transaction.work(), transaction.id());
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    placeFiles(scope(), alpha.vst3);
    removeFiles(other(), alpha.au);
    writeFile(vst3File(other(), "alpha"), "changed", {ownerOf(other()), 0755});
    removeAll(indexOf(other()));
    removeAll(recordOf(other(), "alpha"));

    EXPECT_EQ(transaction.rollBack(), succeeded());
    expected.withFile(vst3File(other(), "alpha"), "alpha vst3 code 1.0\n", metadataFileOf(other()));
    for (const auto& [path, content] : alpha.au.files)
        expected.withFile(placeOf(other(), path), content, metadataFileOf(other()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.completed(), completedOf("system", transaction.id()));
}

// The registrations.

TEST_P(RollbackIn, IsRefusedOnceAPackageIsRegisteredAnew)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Transaction transaction(Work(scope()).brings(alpha));
    install(scope(), alpha.au);
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.rollBack(), registrationChanged);
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");

    install(scope(), alpha.vst3);
    install(scope(), commonPackage());
    EXPECT_EQ(transaction.commit(), succeeded());
}

TEST_P(RollbackIn, IsRefusedOnceARegistrationDiffers)
{
    const Transaction transaction = prepareRepair(scope());
    const Package genuine = plugin("alpha", "1.0").vst3;
    Package newer = genuine;
    newer.version = "1.0.0";
    Package more = genuine;
    more.files[vst3Path("alpha", "Contents/more.txt")] = "more";
    Package fewer = genuine;
    fewer.files.erase(vst3Path("alpha"));
    Package moved = fewer;
    moved.files[vst3Path("alpha", "Contents/moved")] = "moved";
    for (const Package& package : {newer, more, fewer, moved}) {
        registerPackage(scope(), package);
        const Tree before = takeExactTree();
        EXPECT_EQ(transaction.rollBack(), registrationChanged);
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
    unregister(scope(), genuine.id);
    EXPECT_EQ(transaction.rollBack(), registrationChanged);
    EXPECT_EQ(transaction.state(), "prepared");
    registerPackage(scope(), genuine);
    EXPECT_EQ(transaction.rollBack(), succeeded());
}

TEST_P(RollbackIn, DoesNotMindTheRegistrationsOfOtherProducts)
{
    const Transaction transaction = prepareRepair(scope());
    install(scope(), plugin("beta", "1.0"));
    const Tree others = exactBundles(scope(), "beta");
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(difference(others, exactBundles(scope(), "beta")), "");
    EXPECT_TRUE(isRegistered(scope(), plugin("beta", "1.0").au.id));
}

TEST_P(RollbackOfMoveTo, IsRefusedOnceARegistrationOfTheSourceDiffers)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    unregister(other(), commonPackage().id);
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.rollBack(), registrationChanged);
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST_P(RollbackIn, ReportsWhyTheRegistrationsCannotBeCompared)
{
    const Transaction transaction = prepareRepair(scope());
    const Tree before = takeExactTree();
    instructPkgutil("command=--files do exit=1\n");
    EXPECT_EQ(transaction.rollBack(), refused("pkgutil receipt evidence is incomplete"));
    instructPkgutil("do exit=3\n");
    EXPECT_EQ(transaction.rollBack(), refused("pkgutil cannot enumerate authoritative package receipts"));
    instructPkgutil("");
    removeAll(transaction.inside("authority-target/receipts"));
    const Tree without = takeExactTree();
    EXPECT_EQ(transaction.rollBack(), refused("receipt identity snapshot is missing"));
    EXPECT_EQ(difference(without, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");
}

// Once more.

TEST_P(RollbackOfMoveTo, OfACompletedTransactionChangesNothing)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    ASSERT_EQ(transaction.rollBack(), succeeded());
    // What happens afterwards is none of its business.
    removeFiles(other(), alpha);
    unregister(other(), alpha.au.id);

    forgetPkgutilCalls();
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(pkgutilCalls(), std::vector<std::string>());
}

TEST(RollbackMove, MakesAnotherPreparationOfItARefusedReplay)
{
    const Transaction transaction = prepareRepair("user");
    ASSERT_EQ(transaction.rollBack(), succeeded());
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.prepare(), refused("maintenance transaction replay is refused"));
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST_P(RollbackOfMoveTo, FinishesTheCleanUpOfACompletedTransaction)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    writePending(transaction.work(), transaction.id());
    writeFile(transaction.completed(), transaction.text(), {rootUid, 0600});
    removeAll(transaction.inside("prepared"));
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RollbackIn, LeavesALeaseThatChangedMeanwhile)
{
    const Transaction transaction = prepareRepair(scope());
    ExpectedDisk expected;
    instructPkgutil(ruleBefore("command=--pkgs= nth=1", "echo more >> '" + leaseOf(scope()).native() + "'"));
    EXPECT_EQ(transaction.rollBack(), refused("durable transaction lease changed before completion"));
    expected.withFile(leaseOf(scope()), transaction.text() + "more\n", metadataFileOf(scope()));
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RollbackIn, StaysPreparedWhereARestorationFailsAndCanBeRunAgain)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Transaction transaction(Work(scope()).brings(alpha));
    placeFiles(scope(), alpha);
    writeFile(vst3File(scope(), "alpha"), "half a fi", {ownerOf(scope()), 0644});
    EXPECT_EQ(transaction.rollBack(), refused("receipt-owned file hash changed"));
    EXPECT_EQ(readFile(vst3File(scope(), "alpha")), "half a fi");
    EXPECT_EQ(transaction.state(), "prepared");

    removeAll(vst3File(scope(), "alpha"));
    EXPECT_EQ(transaction.rollBack(), succeeded());
    for (const std::string& path : alpha.paths())
        EXPECT_EQ(describe(placeOf(scope(), path)), "nothing") << path;
}

TEST(RollbackMove, LeavesNoTemporaryFileOnAFullDisk)
{
    const Transaction transaction = prepareHalfAnUpgrade("user");
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    installHalf("user");
    const std::filesystem::path code = auFile("user", "alpha", "Contents/MacOS");
    mountSmallDisk(code, 65536, {playerUid, 0755});
    fillDisk(code);
    EXPECT_EQ(transaction.rollBack(), failed("cannot write fixed metadata"));
    EXPECT_EQ(namesIn(code), std::vector<std::string>{"filler"});
    EXPECT_EQ(transaction.state(), "prepared");

    ASSERT_EQ(::umount(code.c_str()), 0);
    EXPECT_EQ(transaction.rollBack(), succeeded());
    expectOldVersion(expected, "user");
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RollbackIn, BringsALargeFileBack)
{
    std::string samples;
    for (int i = 0; samples.size() < 700000; ++i)
        samples += std::to_string(i * 7919) + ",";
    installWithRecords(scope(), {plugin("alpha", "1.0").withAuFile("Contents/samples.bin", samples)});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    writeFile(auFile(scope(), "alpha", "Contents/samples.bin"), samples.substr(1), {ownerOf(scope()), 0644});
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_TRUE(readFile(auFile(scope(), "alpha", "Contents/samples.bin")) == samples);
}

TEST_P(RollbackIn, TakesOnlyAbsenceForAbsence)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(scope(), {alpha});
    // A receipt that lists no directories, which would show the link by themselves.
    for (const Package& package : {alpha.vst3, alpha.au}) {
        std::vector<std::string> files;
        for (const auto& [path, content] : package.files)
            files.push_back(path);
        writeReceipt(scope(), package.id, "1.0", files);
    }
    const Transaction transaction(Work(scope()).brings(alpha, "1.0"));
    const std::filesystem::path contents = vst3File(scope(), "alpha", "Contents");
    removeAll(contents);
    makeLink(contents, contents);
    writeFile(auFile(scope(), "alpha"), "spoilt", {ownerOf(scope()), 0644});

    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.rollBack().status, 70);
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");
    removeAll(contents);
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(readFile(vst3File(scope(), "alpha")), "alpha vst3 code 1.0\n");
}

// What commit-move and rollback-move refuse before they change anything.

/// One thing that is wrong with a transaction that moves alpha from the user scope to the system.
struct Defect {
    std::string name;
    std::string message;
    std::function<void(const Transaction&)> make;
};

std::ostream& operator<<(std::ostream& stream, const Defect& defect) { return stream << defect.name; }

void replaceIn(const std::filesystem::path& file, const std::string& what, const std::string& by, uid_t owner)
{
    std::string text = readFile(file);
    const std::size_t at = text.find(what);
    if (at == std::string::npos)
        throw std::runtime_error("no " + what);
    writeFile(file, text.replace(at, what.size(), by), {owner, 0600});
}

const std::vector<Defect>& defects()
{
    static const std::string unsafeFile = "transaction metadata contains a link or unsafe file";
    static const std::string invalidState = "prepared transaction state is invalid";
    static const std::string otherBinding = "prepared transaction descriptor binding changed";
    static const std::string missingDirectory = "fixed maintenance directory is missing or redirected";
    static const std::string staleLease = "durable transaction lease generation is stale or rebound";
    static const std::string missingState = "prepared transaction state is missing or unsafe";
    static const std::vector<Defect> all = {
        {"MissingDirectory", missingDirectory, [](const auto& t) { removeAll(t.directory()); }},
        {"LinkForTheDirectory", missingDirectory,
         [](const auto& t) {
             std::filesystem::rename(t.directory(), "/Library/real");
             makeLink(t.directory(), "/Library/real");
         }},
        {"WritableDirectory", "maintenance directory ownership or mode is unsafe",
         [](const auto& t) { setMode(t.directory(), 0770); }},
        {"WritableSnapshotDirectory", "maintenance directory ownership or mode is unsafe",
         [](const auto& t) { setMode(t.inside("authority-source/files"), 0775); }},
        {"ForeignSnapshotDirectory", "maintenance directory ownership is unsafe",
         [](const auto& t) { setOwner(t.inside("metadata-source"), playerUid); }},
        {"LinkInTheDirectory", unsafeFile,
         [](const auto& t) { makeLink(t.inside("metadata-source/link"), "/Library"); }},
        {"PipeInTheDirectory", unsafeFile, [](const auto& t) { makePipe(t.inside("target-absent/pipe")); }},
        {"SecondLinkToASnapshot", unsafeFile,
         [](const auto& t) { makeHardLink("/Library/second", t.inside("authority-source/files/0")); }},
        {"WritableSnapshot", unsafeFile,
         [](const auto& t) { setMode(t.inside("authority-source/manifest"), 0664); }},
        {"ForeignSnapshot", unsafeFile,
         [](const auto& t) { setOwner(t.inside("authority-source/manifest"), playerUid); }},
        {"MissingState", missingState, [](const auto& t) { removeAll(t.inside("prepared")); }},
        {"DirectoryForTheState", missingState,
         [](const auto& t) {
             removeAll(t.inside("prepared"));
             makeDirectories(t.inside("prepared"));
         }},
        {"StateWithAnEighthLine", invalidState,
         [](const auto& t) {
             writeFile(t.inside("prepared"), t.text() + "more=1\n", {rootUid, 0600});
         }},
        {"StateOfAnotherTransaction", otherBinding,
         [](const auto& t) { replaceIn(t.inside("prepared"), "=" + t.id(), "=other", rootUid); }},
        {"StateOfAnotherDescriptor", otherBinding,
         [](const auto& t) {
             replaceIn(t.inside("prepared"), fieldOf(t.text(), "canonicalSha256"), generationOf('c'),
                       rootUid);
         }},
        {"StateOfAnotherSource", otherBinding,
         [](const auto& t) { replaceIn(t.inside("prepared"), "Scope=user", "Scope=none", rootUid); }},
        {"ShuffledState", staleLease,
         [](const auto& t) {
             replaceIn(t.inside("prepared"), "targetScope=system\n", "", rootUid);
             writeFile(t.inside("prepared"), "targetScope=system\n" + readFile(t.inside("prepared")),
                       {rootUid, 0600});
         }},
        {"StateOfAnotherGeneration", staleLease,
         [](const auto& t) {
             replaceIn(t.inside("prepared"), fieldOf(t.text(), "generation"), generationOf('a'), rootUid);
         }},
        {"ReorderedDescriptor", otherBinding,
         [](const auto& t) {
             const std::filesystem::path file = descriptorOf("system", t.id());
             replaceIn(file, "decision=none\n", "", rootUid);
             writeFile(file, "decision=none\n" + readFile(file), {rootUid, 0600});
         }},
        {"MissingLeaseOfTheTarget", "durable transaction lease is missing or unsafe",
         [](const auto&) { removeAll(leaseOf("system")); }},
        {"MissingLeaseOfTheSource", "durable transaction lease is missing or unsafe",
         [](const auto&) { removeAll(leaseOf("user")); }},
        {"LinkForALease", "durable transaction lease is missing or unsafe",
         [](const auto&) {
             std::filesystem::rename(leaseOf("user"), "/Users/player/lease");
             makeLink(leaseOf("user"), "/Users/player/lease");
         }},
        {"WritableLease", "durable transaction lease ownership or mode is unsafe",
         [](const auto&) { setMode(leaseOf("user"), 0620); }},
        {"ForeignLease", "durable transaction lease ownership or mode is unsafe",
         [](const auto&) { setOwner(leaseOf("user"), rootUid); }},
        {"LeaseOfAnotherGeneration", staleLease,
         [](const auto& t) {
             replaceIn(leaseOf("user"), fieldOf(t.text(), "generation"), generationOf('a'), playerUid);
         }},
        {"LinkForTheCompletedRecord", missingState,
         [](const auto& t) { makeLink(t.completed(), "/Library/nowhere"); }},
        {"EmptyCompletedRecord", invalidState,
         [](const auto& t) {
             writeFile(t.completed(), "", {rootUid, 0600});
         }},
        {"WritableCompletedRecord", "prepared transaction state ownership or mode is unsafe",
         [](const auto& t) {
             writeFile(t.completed(), t.text(), {rootUid, 0666});
         }},
        {"CompletedRecordOfAnotherDescriptor", otherBinding,
         [](const auto& t) {
             writeFile(t.completed(), t.text(), {rootUid, 0600});
             replaceIn(t.completed(), fieldOf(t.text(), "descriptorSha256"), generationOf('d'), rootUid);
         }},
        {"CompletedRecordAndForeignLease", "completed transaction has a foreign active lease",
         [](const auto& t) {
             writeFile(t.completed(), t.text(), {rootUid, 0600});
             replaceIn(leaseOf("system"), fieldOf(t.text(), "generation"), generationOf('a'), rootUid);
         }},
        {"CompletedRecordAndUnsafeDirectory", unsafeFile,
         [](const auto& t) {
             writeFile(t.completed(), t.text(), {rootUid, 0600});
             makeLink(t.inside("link"), "/Library");
         }},
    };
    return all;
}

class DefectiveTransaction : public ::testing::TestWithParam<Defect> {};

INSTANTIATE_TEST_SUITE_P(, DefectiveTransaction, ::testing::ValuesIn(defects()),
                         [](const auto& defect) { return defect.param.name; });

TEST_P(DefectiveTransaction, IsNeitherCommittedNorRolledBack)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords("user", {alpha});
    const Transaction transaction(Work("system").from("user").brings(alpha, "1.0"));
    install("system", commonPackage());
    install("system", alpha);
    GetParam().make(transaction);

    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), refused(GetParam().message));
    EXPECT_EQ(transaction.rollBack(), refused(GetParam().message));
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(LockedScope, IsNeitherCommittedNorRolledBack)
{
    installWithRecords("user", {plugin("alpha", "1.0")});
    const Transaction transaction(Work("system").from("user").brings(plugin("alpha", "1.0"), "1.0"));
    for (const std::string scope : {"user", "system"}) {
        const HeldLock lock(scope);
        const Tree before = takeExactTree();
        EXPECT_EQ(transaction.commit(), refused("another maintenance transaction is active"));
        EXPECT_EQ(transaction.rollBack(), refused("another maintenance transaction is active"));
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
    EXPECT_EQ(transaction.rollBack(), succeeded());
}

// Interruptions.

/// Every fourth change each, so that they run side by side.
constexpr int shares = 4;

class InterruptedRollback : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, InterruptedRollback, ::testing::Range(1, shares + 1));

/// Kills a rollback before every change of the disk that is number `first`, `first + shares`, ..., and runs
/// it again each time: the disk must then be as after a rollback that nothing interrupted.
void interruptAndRunAgain(const Transaction& transaction, int first)
{
    const SavedDisk prepared;
    ASSERT_EQ(transaction.rollBack(), succeeded());
    const Tree end = takeTree();
    int killed = 0;
    for (int nth = first;; nth += shares, ++killed) {
        prepared.bringBack();
        const Ending ending = killedBeforeChange(nth, [&] { rollBackHere(transaction); });
        if (ending == returned())
            break;
        ASSERT_EQ(ending, (Ending{"signal", std::to_string(SIGKILL)})) << "change " << nth;
        EXPECT_NE(difference(end, takeTree()), "") << "change " << nth;
        EXPECT_EQ(transaction.rollBack(), succeeded()) << "change " << nth;
        EXPECT_EQ(difference(end, takeTree()), "") << "change " << nth;
    }
    EXPECT_EQ(difference(end, takeTree()), "");
    EXPECT_GT(killed, 5);
}

TEST_P(InterruptedRollback, OfAnUpgradeIsFinishedByTheNextRun)
{
    const Transaction transaction = prepareHalfAnUpgrade("user");
    writePending(transaction.work(), transaction.id());
    installHalf("user");
    interruptAndRunAgain(transaction, GetParam());
}

TEST_P(InterruptedRollback, OfAMoveIsFinishedByTheNextRun)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords("user", {alpha});
    const Transaction transaction(Work("system").from("user").brings(alpha, "1.0"));
    placeFiles("system", alpha);
    removeFiles("user", alpha.vst3);
    removeAll(indexOf("user"));
    recordProducts("system", {{"alpha", "1.0"}});
    interruptAndRunAgain(transaction, GetParam());
}

TEST_P(RollbackIn, KilledAtAnyCallOfPkgutilIsFinishedByTheNextRun)
{
    const Transaction transaction = prepareHalfAnUpgrade(scope());
    installHalf(scope());
    const SavedDisk prepared;
    ASSERT_EQ(transaction.rollBack(), succeeded());
    const Tree end = takeTree();
    for (const std::string call : {"1", "7", "12", "15", "20"}) {
        prepared.bringBack();
        instructPkgutil(ruleKillAfter("call=" + call));
        EXPECT_EQ(transaction.rollBack(), endedBy(SIGKILL)) << call;
        EXPECT_EQ(transaction.state(), "prepared") << call;
        instructPkgutil("");
        EXPECT_EQ(transaction.rollBack(), succeeded()) << call;
        EXPECT_EQ(difference(end, takeTree()), "") << call;
    }
}

} // namespace
} // namespace maintenance::rehearsed
