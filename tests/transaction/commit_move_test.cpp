#include "committing.h"

#include "plan/descriptor.h"
#include "transaction/checkpoint.h"
#include "transaction/commit.h"

#include <sys/mount.h>

namespace maintenance::rehearsed {
namespace {

using CommitTo = InScope;
using CommitMoveTo = InScope;

INSTANTIATE_TEST_SUITE_P(, CommitTo, ::testing::Values("user", "system"), nameOfScope);
INSTANTIATE_TEST_SUITE_P(, CommitMoveTo, ::testing::Values("user", "system"), nameOfScope);

/// As long as it lives, every checkpoint that is passed in this process is told to `watch`.
class WatchedCheckpoints {
public:
    explicit WatchedCheckpoints(std::function<void(const std::string&)> watch) { watcher = std::move(watch); }
    WatchedCheckpoints(const WatchedCheckpoints&) = delete;
    WatchedCheckpoints& operator=(const WatchedCheckpoints&) = delete;
    ~WatchedCheckpoints() { watcher = nullptr; }

    static inline std::function<void(const std::string&)> watcher;
};

/// The very commit that the program makes, in the test's own process.
void commitHere(const Transaction& transaction)
{
    commit(parse(transaction.work().target(), transaction.id()));
}

// Into one scope.

TEST_P(CommitTo, RecordsACleanInstallationAndEndsTheTransaction)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Transaction transaction(Work(scope()).brings(alpha));
    writePending(transaction.work(), transaction.id());
    install(scope(), commonPackage());
    install(scope(), alpha);

    ExpectedDisk expected;
    expected.withEndOf(transaction).withProducts(scope(), {{"alpha", "1.0"}});
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(describe(transaction.completed()), metadataFileOf(scope()));
    EXPECT_EQ(readFile(transaction.completed()), transaction.text());
    EXPECT_EQ(readFile(indexOf(scope())), indexText(scope(), {{"alpha", "1.0"}}));
    EXPECT_EQ(readFile(recordOf(scope(), "alpha")), "product=alpha\nversion=1.0\n");
}

TEST_P(CommitTo, RemovesFilesThatTheNewVersionLacks)
{
    const Plugin old = plugin("alpha", "1.0")
                           .withVst3File("Contents/Resources/Presets/old.bin", "old presets")
                           .withAuFile("Contents/Resources/old.txt", "old text");
    const Plugin fresh = plugin("alpha", "2.0").withVst3File("Contents/Resources/new.txt", "new text");
    const Plugin beta = plugin("beta", "1.0");
    installWithRecords(scope(), {old, beta});
    const Transaction transaction(Work(scope()).brings(fresh, "1.0"));
    install(scope(), fresh);

    const Tree others = exactBundles(scope(), "beta");
    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .without(vst3File(scope(), "alpha", "Contents/Resources/Presets/old.bin"))
        .without(auFile(scope(), "alpha", "Contents/Resources/old.txt"))
        .withProducts(scope(), {{"alpha", "2.0"}, {"beta", "1.0"}});
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(difference(others, exactBundles(scope(), "beta")), "");
    EXPECT_EQ(describe(vst3File(scope(), "alpha", "Contents/Resources/Presets")), directoryOf(scope()));
}

TEST_P(CommitTo, PassesOverAStaleFileThatTheInstallerHasRemoved)
{
    installWithRecords(scope(), {plugin("alpha", "1.0").withAuFile("Contents/Old/old.txt", "old text")});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    install(scope(), plugin("alpha", "2.0"));
    removeAll(auFile(scope(), "alpha", "Contents/Old"));

    ExpectedDisk expected;
    expected.withEndOf(transaction).withProducts(scope(), {{"alpha", "2.0"}});
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitTo, LeavesAChangedStaleFileAndTheTransactionPrepared)
{
    const std::string stale = "Contents/Resources/old.txt";
    installWithRecords(scope(), {plugin("alpha", "1.0").withAuFile(stale, "old text")});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    install(scope(), plugin("alpha", "2.0"));
    const std::filesystem::path changed = auFile(scope(), "alpha", stale);
    writeFile(changed, "text of the user's own", {ownerOf(scope()), 0644});

    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");

    writeFile(changed, "old text", {ownerOf(scope()), 0644});
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_FALSE(isThere(changed));
    EXPECT_EQ(transaction.state(), "completed");
}

TEST_P(CommitTo, NeitherFollowsNorRemovesALinkInAStaleFilesPlace)
{
    const std::string stale = "Contents/Resources/old.txt";
    installWithRecords(scope(), {plugin("alpha", "1.0").withAuFile(stale, "old text")});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    install(scope(), plugin("alpha", "2.0"));
    writeFile("/Users/Shared/elsewhere", "old text");
    removeAll(auFile(scope(), "alpha", stale));
    makeLink(auFile(scope(), "alpha", stale), "/Users/Shared/elsewhere");

    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST_P(CommitTo, SparesAStalePathThatLeadsToANewFile)
{
    // As on a file system that ignores case: two spellings, one file.
    const Plugin old = plugin("alpha", "1.0").withAuFile("Contents/DATA/samples.bin", "samples");
    const Plugin fresh = plugin("alpha", "2.0").withAuFile("Contents/Data/samples.bin", "samples");
    installWithRecords(scope(), {old});
    const Transaction transaction(Work(scope()).brings(fresh, "1.0"));
    install(scope(), fresh);
    removeAll(auFile(scope(), "alpha", "Contents/DATA/samples.bin"));
    ASSERT_EQ(::mount(auFile(scope(), "alpha", "Contents/Data").c_str(),
                      auFile(scope(), "alpha", "Contents/DATA").c_str(), nullptr, MS_BIND, nullptr),
              0);

    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(readFile(auFile(scope(), "alpha", "Contents/Data/samples.bin")), "samples");
}

TEST_P(CommitTo, SparesAStaleFileThatAnotherProductsPackageListsToo)
{
    const std::string shared = auPath("alpha", "Contents/Resources/shared.txt");
    const Plugin old = plugin("alpha", "1.0").withAuFile("Contents/Resources/shared.txt", "shared text");
    Plugin beta = plugin("beta", "1.0");
    beta.au.files[shared] = "shared text";
    installWithRecords(scope(), {old, beta});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    install(scope(), plugin("alpha", "2.0"));

    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(readFile(placeOf(scope(), shared)), "shared text");
}

TEST_P(CommitTo, CompletesARepair)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(scope(), {alpha});
    writeFile(vst3File(scope(), "alpha"), "damaged", {ownerOf(scope()), 0644});
    removeAll(indexOf(scope()));
    const Transaction transaction(Work(scope()).brings(alpha, "1.0"));
    install(scope(), alpha);

    ExpectedDisk expected;
    expected.withEndOf(transaction).withProducts(scope(), {{"alpha", "1.0"}});
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitTo, RebuildsIndexAndRecordsFromTheReceiptsAlone)
{
    const std::vector<Plugin> arriving = {plugin("b", "2.0"), plugin("alpha-2", "1.10")};
    install(scope(), plugin("alpha", "1.9"));
    install(scope(), commonPackage());
    recordProducts(scope(), {{"gone", "3.0"}});
    Work work(scope());
    for (const Plugin& product : arriving)
        work.brings(product);
    const Transaction transaction(work);
    for (const Plugin& product : arriving)
        install(scope(), product);

    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.9"}, {"alpha-2", "1.10"}, {"b", "2.0"}});
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitTo, TouchesNothingInAScopeThatIsNotInvolved)
{
    installWithRecords(other(), {plugin("beta", "1.0")});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0")));
    install(scope(), commonPackage());
    install(scope(), plugin("alpha", "1.0"));
    const std::vector<std::string> uninvolved =
        other() == "user" ? std::vector<std::string>{"/Users"}
                          : std::vector<std::string>{"/Library", "/var/db/receipts"};
    const Tree before = takeExactTree(uninvolved);
    forgetPkgutilCalls();

    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(difference(before, takeExactTree(uninvolved)), "");
    for (const std::string& call : pkgutilCalls())
        EXPECT_TRUE(call.starts_with("--volume " + rootOf(scope()).native() + " ")) << call;
}

TEST_P(CommitTo, LeavesThePendingAttemptOfAnotherTransaction)
{
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0")));
    writePending(transaction.work(), "install-other");
    install(scope(), commonPackage());
    install(scope(), plugin("alpha", "1.0"));
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(readFile(pendingOf(scope())), pendingText(transaction.work(), "install-other"));
}

TEST_P(CommitTo, PublishesPrivateMetadataUnderAnyUmask)
{
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0")));
    install(scope(), commonPackage());
    install(scope(), plugin("alpha", "1.0"));
    Surroundings surroundings;
    surroundings.umask = 0;
    EXPECT_EQ(transaction.commit(surroundings), succeeded());
    for (const auto& file : {transaction.completed(), indexOf(scope()), recordOf(scope(), "alpha")})
        EXPECT_EQ(describe(file), metadataFileOf(scope()));
    EXPECT_EQ(describe(maintenanceOf(scope()) / "Products"), directoryOf(scope()));
}

TEST(CommitMove, CanBeMadeByTheAccountItselfInItsHome)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords("user", {plugin("alpha", "0.9").withAuFile("Contents/old.txt", "old")});
    const Transaction transaction(Work("user").brings(alpha, "0.9"), "move-1", asPlayer());
    install("user", alpha);
    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .without(auFile("user", "alpha", "Contents/old.txt"))
        .withProducts("user", {{"alpha", "1.0"}});
    EXPECT_EQ(transaction.commit(asPlayer()), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitTo, TakesManuallyInstalledFilesOver)
{
    const Plugin alpha = plugin("alpha", "1.0");
    placeFiles(scope(), alpha);
    const Transaction transaction(Work(scope()).deciding("adopt").brings(alpha));
    install(scope(), commonPackage());
    registerPackage(scope(), alpha);
    ExpectedDisk expected;
    expected.withEndOf(transaction).withProducts(scope(), {{"alpha", "1.0"}});
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitTo, OfTheSharedPackageAloneRecordsNoProduct)
{
    const Transaction transaction{Work(scope())};
    install(scope(), commonPackage());
    ExpectedDisk expected;
    expected.withEndOf(transaction).withProducts(scope(), {});
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

// From one scope to the other.

TEST_P(CommitMoveTo, DropsTheSharedPackageThatNothingUsesAnyMore)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    writePending(transaction.work(), transaction.id());
    install(scope(), commonPackage());
    install(scope(), alpha);
    forgetPkgutilCalls();

    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}})
        .withProducts(other(), {})
        .withoutProduct(other(), alpha)
        .withoutPackage(other(), commonPackage());
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(forgottenPackages(),
              (std::vector{forgetCall(other(), alpha.vst3.id), forgetCall(other(), alpha.au.id),
                           forgetCall(other(), commonPackage().id)}));
    EXPECT_EQ(describe(vst3File(other(), "alpha", "Contents/MacOS")), directoryOf(other()));
    EXPECT_EQ(transaction.completed(), completedOf("system", transaction.id()));
}

TEST_P(CommitMoveTo, KeepsTheSharedPackageForAnotherProduct)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha, plugin("beta", "3.1")});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    install(scope(), commonPackage());
    install(scope(), alpha);
    const Tree others = exactBundles(other(), "beta");

    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}})
        .withProducts(other(), {{"beta", "3.1"}})
        .withoutProduct(other(), alpha);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(difference(others, exactBundles(other(), "beta")), "");
}

TEST_P(CommitMoveTo, UpgradesWhatItMoves)
{
    const Plugin old = plugin("alpha", "1.0").withVst3File("Contents/old.txt", "old text");
    const Plugin fresh = plugin("alpha", "2.0").withAuFile("Contents/new.txt", "new text");
    installWithRecords(other(), {old});
    const Transaction transaction(movingTo(scope()).with(commonPackage("8")).brings(fresh, "1.0"));
    install(scope(), commonPackage("8"));
    install(scope(), fresh);

    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "2.0"}})
        .withProducts(other(), {})
        .withoutProduct(other(), old)
        .withoutPackage(other(), commonPackage());
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitMoveTo, MovesTwoProductsAtOnce)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Plugin beta = plugin("beta", "2.0");
    installWithRecords(other(), {alpha, beta});
    const Transaction transaction(movingTo(scope()).brings(beta, "2.0").brings(alpha, "-"));
    install(scope(), commonPackage());
    install(scope(), alpha);
    install(scope(), beta);
    forgetPkgutilCalls();

    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}, {"beta", "2.0"}})
        .withProducts(other(), {})
        .withoutProduct(other(), alpha)
        .withoutProduct(other(), beta)
        .withoutPackage(other(), commonPackage());
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(forgottenPackages(),
              (std::vector{forgetCall(other(), beta.vst3.id), forgetCall(other(), beta.au.id),
                           forgetCall(other(), alpha.vst3.id), forgetCall(other(), alpha.au.id),
                           forgetCall(other(), commonPackage().id)}));
}

TEST_P(CommitMoveTo, ClearsTheSourceOfAProductThatBothScopesHad)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords("user", {alpha});
    installWithRecords("system", {alpha});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));

    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}})
        .withProducts(other(), {})
        .withoutProduct(other(), alpha)
        .withoutPackage(other(), commonPackage());
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitMoveTo, PassesOverWhatAnEarlierRunHasRemovedFromTheSource)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    install(scope(), commonPackage());
    install(scope(), alpha);
    // One package is quite gone, of the other one a file.
    removeFiles(other(), alpha.vst3);
    unregister(other(), alpha.vst3.id);
    removeAll(auFile(other(), "alpha"));

    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}})
        .withProducts(other(), {})
        .withoutProduct(other(), alpha)
        .withoutPackage(other(), commonPackage());
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitMoveTo, RemovesASourceFileThatWasUnknownWhenPreparing)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    install(scope(), commonPackage());
    install(scope(), alpha);
    Plugin grown = alpha;
    install(other(), grown.withVst3File("Contents/late.txt", "late"));

    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_FALSE(isThere(vst3File(other(), "alpha", "Contents/late.txt")));
    EXPECT_FALSE(isRegistered(other(), alpha.vst3.id));
}

TEST_P(CommitMoveTo, SparesASourceFileThatAnotherProductsPackageListsToo)
{
    const std::string shared = auPath("alpha", "Contents/Resources/art.txt");
    const Plugin alpha = plugin("alpha", "1.0");
    Plugin beta = plugin("beta", "1.0");
    beta.au.files[shared] = alpha.au.files.at(shared);
    installWithRecords(other(), {alpha, beta});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    install(scope(), commonPackage());
    install(scope(), alpha);

    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(readFile(placeOf(other(), shared)), alpha.au.files.at(shared));
    EXPECT_FALSE(isThere(auFile(other(), "alpha")));
}

TEST_P(CommitMoveTo, HasNothingToDropWhereTheSourceLacksTheSharedPackage)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install(other(), alpha);
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    install(scope(), commonPackage());
    install(scope(), alpha);

    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}})
        .withProducts(other(), {})
        .withoutProduct(other(), alpha);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitMoveTo, KeepsTheSharedPackageForASinglePackageOfAnotherProduct)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha, plugin("beta", "1.0")});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    install(scope(), commonPackage());
    install(scope(), alpha);
    unregister(other(), plugin("beta", "1.0").au.id);

    // Half a product keeps the index from being rebuilt, but not before the shared package was spared.
    EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
    EXPECT_TRUE(isRegistered(other(), commonPackage().id));
    EXPECT_TRUE(isThere(supportOf(other()) / "TamarindPelicanUpdater"));
    EXPECT_FALSE(isRegistered(other(), alpha.au.id));
    EXPECT_EQ(transaction.state(), "prepared");

    registerPackage(other(), plugin("beta", "1.0").au);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(readFile(indexOf(other())), indexText(other(), {{"beta", "1.0"}}));
}

// Once more, and what stands in the way.

TEST_P(CommitMoveTo, OfACompletedTransactionChangesNothing)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords(other(), {alpha});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    install(scope(), commonPackage());
    install(scope(), alpha);
    ASSERT_EQ(transaction.commit(), succeeded());

    forgetPkgutilCalls();
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(pkgutilCalls(), std::vector<std::string>());
}

TEST(CommitMove, FinishesTheCleanUpOfACompletedTransaction)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords("user", {alpha});
    const Transaction transaction(Work("system").from("user").brings(alpha, "1.0"));
    writePending(transaction.work(), transaction.id());
    // Ended right after its record was published.
    writeFile(transaction.completed(), transaction.text(), {rootUid, 0600});
    removeAll(leaseOf("user"));

    ExpectedDisk expected;
    expected.withEndOf(transaction);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

// Failures that leave the package database as it was: everything is put back, the transaction given up.

const Outcome receiptMissing = refused("exact native package receipt is missing or has the wrong version");
const Outcome receiptNotExact = refused("native package receipt inventory is not exact");

/// The disk as it stands now, without the transaction's leases.
ExpectedDisk withoutLeases(const Transaction& transaction)
{
    ExpectedDisk expected;
    for (const std::string& scope : transaction.work().involved())
        expected.without(leaseOf(scope));
    return expected;
}

TEST_P(CommitTo, GivesUpWhereNothingWasInstalled)
{
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0")));
    writePending(transaction.work(), transaction.id());
    ExpectedDisk expected = withoutLeases(transaction);
    EXPECT_EQ(transaction.commit(), receiptMissing);
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitTo, TakesBackWhatAnInstallerPlacedBeforeItFailed)
{
    const Plugin alpha = plugin("alpha", "1.0");
    placeFiles(scope(), alpha);
    removeFiles(scope(), alpha);
    const Transaction transaction(Work(scope()).brings(alpha));
    ExpectedDisk expected = withoutLeases(transaction);
    placeFiles(scope(), alpha.vst3);
    placeFiles(scope(), commonPackage());

    EXPECT_EQ(transaction.commit(), receiptMissing);
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitTo, StaysPreparedWhereAPlacedFileIsNotTheDescriptors)
{
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0")));
    placeFiles(scope(), plugin("alpha", "1.0").vst3);
    writeFile(auFile(scope(), "alpha"), "half a fi", {ownerOf(scope()), 0644});
    EXPECT_EQ(transaction.commit(), refused("receipt-owned file hash changed"));
    EXPECT_EQ(readFile(auFile(scope(), "alpha")), "half a fi");
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST_P(CommitTo, PutsTheOldVersionBackWhereTheNewOneIsNotRegistered)
{
    const Plugin fresh = plugin("alpha", "2.0").withVst3File("Contents/new.txt", "new text");
    installWithRecords(scope(), {plugin("alpha", "1.0")});
    const Transaction transaction(Work(scope()).brings(fresh, "1.0"));
    ExpectedDisk expected = withoutLeases(transaction);
    placeFiles(scope(), fresh);

    EXPECT_EQ(transaction.commit(), receiptMissing);
    // What was replaced comes back as a private file; what was not stays as it is.
    expected.withFile(vst3File(scope(), "alpha"), "alpha vst3 code 1.0\n", metadataFileOf(scope()))
        .withFile(auFile(scope(), "alpha"), "alpha au code 1.0\n", metadataFileOf(scope()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitTo, PutsBackAFileOfTheOldVersionThatTheInstallerHasRemoved)
{
    installWithRecords(scope(), {plugin("alpha", "1.0").withAuFile("Contents/Old/old.txt", "old text")});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    ExpectedDisk expected = withoutLeases(transaction);
    removeAll(auFile(scope(), "alpha", "Contents/Old"));

    EXPECT_EQ(transaction.commit(), refused("pkgutil receipt-owned file is missing"));
    expected.withFile(auFile(scope(), "alpha", "Contents/Old/old.txt"), "old text", metadataFileOf(scope()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitTo, PutsBackWhatARepairHasSpoilt)
{
    const Transaction transaction = prepareRepair(scope());
    ExpectedDisk expected = withoutLeases(transaction);
    writeFile(vst3File(scope(), "alpha"), "spoilt", {ownerOf(scope()), 0644});

    EXPECT_EQ(transaction.commit(), receiptNotExact);
    expected.withFile(vst3File(scope(), "alpha"), "alpha vst3 code 1.0\n", metadataFileOf(scope()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitTo, NoticesAFileThatChangesAfterItsReceiptWasVerified)
{
    const Transaction transaction = prepareRepair(scope());
    ExpectedDisk expected = withoutLeases(transaction);
    // The shared package comes last; both packages of the product have been hashed then.
    instructPkgutil(ruleAfter("command=--files id=*.common nth=1",
                              "echo changed > '" + vst3File(scope(), "alpha").native() + "'"));

    EXPECT_EQ(transaction.commit(), refused("package-installed file hash is wrong"));
    expected.withFile(vst3File(scope(), "alpha"), "alpha vst3 code 1.0\n", metadataFileOf(scope()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitTo, NoticesAFileThatVanishesAfterItsReceiptWasVerified)
{
    const Transaction transaction = prepareRepair(scope());
    instructPkgutil(
        ruleAfter("command=--files id=*.common nth=1", "rm '" + vst3File(scope(), "alpha").native() + "'"));
    EXPECT_EQ(transaction.commit(), refused("owned file is missing"));
    EXPECT_EQ(readFile(vst3File(scope(), "alpha")), "alpha vst3 code 1.0\n");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitTo, PutsIndexAndRecordsBack)
{
    installWithRecords(scope(), {plugin("alpha", "1.0")});
    writeFile(recordOf(scope(), "odd"), "product=odd\n", {ownerOf(scope()), 0644});
    writeFile(indexOf(scope()), "an index of old\n", {ownerOf(scope()), 0644});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0"), "1.0"));
    ExpectedDisk expected = withoutLeases(transaction);

    // The very last step before the end, when index and records have been rebuilt.
    const auto failAtRecord = [&](const SystemCall& made) {
        const bool isRecord = made.number == SYS_renameat && made.text(3) == transaction.id() + ".record";
        return isRecord ? EIO : 0;
    };
    EXPECT_EQ(stopping({SYS_renameat}, failAtRecord, [&] { commitHere(transaction); }),
              runtimeError("cannot publish fixed metadata"));
    expected.withFile(recordOf(scope(), "odd"), "product=odd\n", metadataFileOf(scope()))
        .withFile(indexOf(scope()), "an index of old\n", metadataFileOf(scope()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST(CommitMove, RemovesTheIndexAgainWhereThereWasNone)
{
    install("user", commonPackage());
    install("user", plugin("alpha", "1.0"));
    const Transaction transaction(Work("user").brings(plugin("alpha", "1.0"), "1.0"));
    ExpectedDisk expected = withoutLeases(transaction);
    const std::filesystem::path completed = maintenanceOf("user") / "Completed";
    mountSmallDisk(completed, 65536, {playerUid, 0755});
    fillDisk(completed);
    const Tree full = takeTree({completed});

    EXPECT_EQ(transaction.commit(), failed("cannot write fixed metadata"));
    EXPECT_EQ(difference(full, takeTree({completed})), "");
    ASSERT_EQ(::umount(completed.c_str()), 0);
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitMoveTo, PutsTheSourceBackWhereAForgetDoesNothing)
{
    const Transaction transaction = prepareMerging(scope());
    ExpectedDisk expected = withoutLeases(transaction);
    instructPkgutil("command=--forget do forget=no\n");

    EXPECT_EQ(transaction.commit(), refused("pkgutil receipt remained registered after forget"));
    for (const auto& [path, content] : plugin("alpha", "1.0").vst3.files)
        expected.withFile(placeOf(other(), path), content, metadataFileOf(other()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitMoveTo, PutsTheSourceBackWhereAForgetFails)
{
    const Transaction transaction = prepareMerging(scope());
    ExpectedDisk expected = withoutLeases(transaction);
    instructPkgutil("command=--forget do forget=no exit=1 stderr=\"No such package\"\n");

    EXPECT_EQ(transaction.commit(), refused("pkgutil could not forget the authoritative package receipt"));
    for (const auto& [path, content] : plugin("alpha", "1.0").vst3.files)
        expected.withFile(placeOf(other(), path), content, metadataFileOf(other()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitMoveTo, PutsTheSourceBackWhereAForgetDies)
{
    const Transaction transaction = prepareMerging(scope());
    instructPkgutil("command=--forget do kill=TERM\n");
    EXPECT_EQ(transaction.commit(), refused("pkgutil could not forget the authoritative package receipt"));
    for (const auto& [path, content] : plugin("alpha", "1.0").vst3.files)
        EXPECT_EQ(readFile(placeOf(other(), path)), content);
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitMoveTo, PutsAChangedSourceFileBack)
{
    const Transaction transaction = prepareMerging(scope());
    ExpectedDisk expected = withoutLeases(transaction);
    writeFile(vst3File(other(), "alpha"), "changed", {ownerOf(other()), 0644});

    EXPECT_EQ(transaction.commit(), refused("source receipt inventory changed during maintenance"));
    expected.withFile(vst3File(other(), "alpha"), "alpha vst3 code 1.0\n", metadataFileOf(other()));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitMoveTo, DoesNotMindWhatPkgutilSaysWhenForgetting)
{
    const Transaction transaction = prepareMove(scope());
    instructPkgutil("command=--forget do stderr=\"No receipt for that\"\n");
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(transaction.state(), "completed");
}

TEST_P(CommitTo, ThatWasGivenUpCanBePreparedAgainAndRolledBack)
{
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0")));
    ASSERT_EQ(transaction.commit(), receiptMissing);
    ASSERT_EQ(transaction.state(), "abandoned");

    const Outcome noLease = refused("durable transaction lease is missing or unsafe");
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), noLease);
    EXPECT_EQ(transaction.rollBack(), noLease);
    EXPECT_EQ(difference(before, takeExactTree()), "");

    EXPECT_EQ(transaction.prepare(), succeeded());
    EXPECT_EQ(transaction.state(), "prepared");
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(transaction.state(), "completed");
}

TEST_P(CommitTo, ThatWasGivenUpCanBePreparedAgainAndCommitted)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Transaction transaction(Work(scope()).brings(alpha));
    ASSERT_EQ(transaction.commit(), receiptMissing);
    EXPECT_EQ(transaction.prepare(), succeeded());
    install(scope(), commonPackage());
    install(scope(), alpha);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(transaction.state(), "completed");
    EXPECT_EQ(readFile(indexOf(scope())), indexText(scope(), {{"alpha", "1.0"}}));
}

// Failures that cannot be put back.

TEST_P(CommitTo, RequiresForwardRecoveryOnceTheInstallerHasRegisteredPackages)
{
    installWithRecords(scope(), {plugin("alpha", "1.0")});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    install(scope(), plugin("alpha", "2.0"));
    writeFile(vst3File(scope(), "alpha"), "spoilt", {ownerOf(scope()), 0644});

    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");

    install(scope(), plugin("alpha", "2.0"));
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(transaction.state(), "completed");
}

TEST_P(CommitTo, NeedsEveryPackageRegistered)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Transaction transaction(Work(scope()).brings(alpha));
    install(scope(), commonPackage());
    install(scope(), alpha);
    for (const Package& package : {alpha.vst3, alpha.au, commonPackage()}) {
        unregister(scope(), package.id);
        const Tree before = takeExactTree();
        EXPECT_EQ(transaction.commit(), refused(forwardRecovery)) << package.id;
        EXPECT_EQ(difference(before, takeExactTree()), "") << package.id;
        registerPackage(scope(), package);
    }
    EXPECT_EQ(transaction.commit(), succeeded());
}

TEST_P(CommitTo, NeedsEveryPackageToListExactlyTheDescriptorsFiles)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Transaction transaction(Work(scope()).brings(alpha));
    install(scope(), commonPackage());
    install(scope(), alpha);
    Package more = alpha.au;
    more.files[auPath("alpha", "Contents/more.txt")] = "more";
    Package fewer = alpha.au;
    fewer.files.erase(auPath("alpha"));
    Package newer = alpha.au;
    newer.version = "1.0.0";
    for (const Package& package : {more, fewer, newer}) {
        install(scope(), package);
        const Tree before = takeExactTree();
        EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
    registerPackage(scope(), alpha.au);
    EXPECT_EQ(transaction.commit(), succeeded());
}

TEST_P(CommitMoveTo, GoesOnAfterAForgetThatDidNothing)
{
    const Transaction transaction = prepareMove(scope());
    instructPkgutil("command=--forget do forget=no\n");
    EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
    EXPECT_EQ(transaction.state(), "prepared");
    EXPECT_TRUE(isRegistered(other(), plugin("alpha", "1.0").vst3.id));
    EXPECT_EQ(describe(vst3File(other(), "alpha")), "nothing");
    EXPECT_EQ(describe(auFile(other(), "alpha")), "file " + std::to_string(ownerOf(other())) + " 0644");
    EXPECT_EQ(transaction.rollBack(),
              refused("pkgutil receipt registration changed; rollback cannot restore package registration"));

    instructPkgutil("");
    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}})
        .withProducts(other(), {})
        .withoutProduct(other(), plugin("alpha", "1.0"))
        .withoutPackage(other(), commonPackage());
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitMoveTo, GoesOnAfterAForgetThatReportedAFailureOfItsOwn)
{
    const Transaction transaction = prepareMerging(scope());
    instructPkgutil("command=--forget do exit=1\n");
    EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
    EXPECT_EQ(transaction.state(), "prepared");
    EXPECT_FALSE(isRegistered(other(), plugin("alpha", "1.0").vst3.id));
    instructPkgutil("");
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(transaction.state(), "completed");
}

TEST_P(CommitMoveTo, GoesOnAfterALaterForgetThatFailed)
{
    for (const std::string& failing : {plugin("alpha", "1.0").au.id, commonPackage().id}) {
        const SavedDisk empty;
        const Transaction transaction = prepareMove(scope());
        instructPkgutil("command=--forget id=" + failing + " do forget=no exit=1\n");
        EXPECT_EQ(transaction.commit(), refused(forwardRecovery)) << failing;
        EXPECT_EQ(transaction.state(), "prepared");
        EXPECT_TRUE(isRegistered(other(), failing));
        instructPkgutil("");
        EXPECT_EQ(transaction.commit(), succeeded()) << failing;
        EXPECT_FALSE(isRegistered(other(), failing));
        empty.bringBack();
    }
}

TEST_P(CommitMoveTo, StopsAtALaterSourceFileThatWasChanged)
{
    const Transaction transaction = prepareMove(scope());
    writeFile(auFile(other(), "alpha"), "changed", {ownerOf(other()), 0644});
    EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
    EXPECT_EQ(readFile(auFile(other(), "alpha")), "changed");
    EXPECT_TRUE(isThere(auFile(other(), "alpha", "Contents/Resources/art.txt")));
    EXPECT_TRUE(isRegistered(other(), plugin("alpha", "1.0").au.id));
    EXPECT_TRUE(isRegistered(other(), commonPackage().id));
    EXPECT_EQ(transaction.state(), "prepared");

    placeFiles(other(), plugin("alpha", "1.0").au);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_FALSE(isThere(auFile(other(), "alpha")));
}

TEST_P(CommitMoveTo, LeavesAChangedFileOfTheSharedPackage)
{
    const Transaction transaction = prepareMove(scope());
    const std::filesystem::path updater = supportOf(other()) / "TamarindPelicanUpdater";
    writeFile(updater, "changed", {ownerOf(other()), 0644});
    EXPECT_EQ(transaction.commit(), refused(forwardRecovery));
    EXPECT_EQ(readFile(updater), "changed");
    EXPECT_TRUE(isRegistered(other(), commonPackage().id));
    EXPECT_EQ(transaction.state(), "prepared");

    removeAll(updater);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_FALSE(isRegistered(other(), commonPackage().id));
}

TEST_P(CommitMoveTo, FollowsNoLinkInASourceFilesPlace)
{
    const Transaction transaction = prepareMerging(scope());
    writeFile("/Users/Shared/elsewhere", "alpha vst3 code 1.0\n");
    removeAll(vst3File(other(), "alpha"));
    makeLink(vst3File(other(), "alpha"), "/Users/Shared/elsewhere");
    // The registrations cannot even be compared then.
    EXPECT_EQ(transaction.commit(), refused("pkgutil receipt inventory contains a link or foreign file"));
    EXPECT_EQ(describe(vst3File(other(), "alpha")), "link 0 -> /Users/Shared/elsewhere");
    EXPECT_EQ(readFile("/Users/Shared/elsewhere"), "alpha vst3 code 1.0\n");
    EXPECT_TRUE(isRegistered(other(), plugin("alpha", "1.0").vst3.id));
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST_P(CommitMoveTo, FollowsNoLinkAboveASourceFile)
{
    const Plugin alpha = plugin("alpha", "1.0");
    installWithRecords("user", {alpha});
    installWithRecords("system", {alpha});
    // A receipt that lists no directories, which would show the link by themselves.
    writeReceipt(other(), alpha.vst3.id, "1.0",
                 {vst3Path("alpha"), vst3Path("alpha", "Contents/Resources/art.txt")});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0"));
    const std::filesystem::path contents = vst3File(other(), "alpha", "Contents");
    makeDirectories("/Users/Shared");
    std::filesystem::rename(contents, "/Users/Shared/Contents");
    makeLink(contents, "/Users/Shared/Contents");
    const Tree outside = takeExactTree({"/Users/Shared"});
    EXPECT_EQ(transaction.commit(), refused("owned path contains a symbolic link"));
    EXPECT_EQ(difference(outside, takeExactTree({"/Users/Shared"})), "");
    EXPECT_TRUE(isRegistered(other(), alpha.vst3.id));
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST_P(CommitMoveTo, StopsWhenAnotherAccountComesToTheConsole)
{
    const Transaction transaction = prepareMove(scope());
    const SavedDisk prepared;
    ASSERT_EQ(transaction.commit(), succeeded());
    const Tree end = takeTree();
    prepared.bringBack();
    const Tree others = takeExactTree({"/Users/other"});
    instructPkgutil(ruleAfter("command=--forget nth=2", "sed -i s/501/502/g /run/systemd/seats/seat0"));
    // The system's registrations need no account, and they have changed.
    EXPECT_EQ(transaction.commit(),
              refused(scope() == "user" ? "cannot resolve the invoking console account" : forwardRecovery));
    EXPECT_EQ(difference(others, takeExactTree({"/Users/other"})), "");
    EXPECT_EQ(transaction.state(), "prepared");

    setConsole(playerUid);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(difference(end, takeTree()), "");
}

TEST_P(CommitTo, ReportsWhyTheRegistrationsCannotBeCompared)
{
    const Transaction transaction = prepareRepair(scope());
    instructPkgutil("command=--pkg-info nth=1 do exit=1\ncommand=--pkgs= nth=2- do exit=5\n");
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), refused("pkgutil cannot enumerate authoritative package receipts"));
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST_P(CommitTo, KeepsTheReasonWhereTheComparisonWorksAgain)
{
    const Transaction transaction = prepareRepair(scope());
    instructPkgutil("command=--pkg-info nth=1 do exit=1\n");
    ExpectedDisk expected = withoutLeases(transaction);
    EXPECT_EQ(transaction.commit(), refused("pkgutil receipt evidence is incomplete"));
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.state(), "abandoned");
}

TEST_P(CommitTo, LeavesEverythingWhereTheSnapshotsManifestIsMissing)
{
    const Transaction transaction = prepareRepair(scope());
    removeAll(transaction.inside("authority-target/manifest"));
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), refused("receipt snapshot manifest is missing"));
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST_P(CommitTo, LeavesEverythingWhereTheSnapshotsIdentityIsMissing)
{
    const Transaction transaction = prepareRepair(scope());
    writeFile(vst3File(scope(), "alpha"), "spoilt", {ownerOf(scope()), 0644});
    removeAll(transaction.inside("authority-target/receipts"));
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.commit(), refused("receipt identity snapshot is missing"));
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST(CommitMove, ActsOnNoPathThatAForgedManifestNames)
{
    const Transaction transaction = prepareRepair("user");
    writeFile("/Library/Audio/Plug-Ins/Components/TP beta.component/Contents/x", "system's");
    writeFile("/Users/player/Documents/letter", "dear", {playerUid, 0644});
    const std::filesystem::path manifest = transaction.inside("authority-target/manifest");
    const std::string genuine = readFile(manifest);
    for (const std::string path :
         {"../../Library/Audio/Plug-Ins/Components/TP beta.component/Contents/x",
          "/Library/Audio/Plug-Ins/Components/TP beta.component/Contents/x",
          "Library/Audio/Plug-Ins/Components/../../../Documents/letter", "Documents/letter"}) {
        const std::string hash = sha256OfText(path.ends_with("letter") ? "dear" : "system's");
        writeFile(manifest, path + "\t" + hash + "\t90\n" + genuine, {playerUid, 0600});
        const Tree before = takeExactTree();
        EXPECT_EQ(transaction.commit(), refused("receipt snapshot manifest is invalid")) << path;
        EXPECT_EQ(difference(before, takeExactTree()), "") << path;
        EXPECT_EQ(transaction.state(), "prepared");
    }
}

TEST_P(CommitTo, LeavesALeaseThatChangedMeanwhile)
{
    const Transaction transaction = prepareRepair(scope());
    ExpectedDisk expected;
    instructPkgutil(ruleBefore("command=--pkgs= nth=1", "echo more >> '" + leaseOf(scope()).native() + "'"));
    EXPECT_EQ(transaction.commit(), refused("durable transaction lease changed during recovery"));
    expected.withFile(leaseOf(scope()), transaction.text() + "more\n", metadataFileOf(scope()));
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitMoveTo, HoldsTheLocksFromTheFirstToTheLastCallOfPkgutil)
{
    const Transaction transaction = prepareMove(scope());
    instructPkgutil("");
    forgetPkgutilCalls();
    const SavedDisk prepared;
    ASSERT_EQ(transaction.commit(), succeeded());
    const std::string last = std::to_string(pkgutilCalls().size());
    prepared.bringBack();
    instructPkgutil(ruleBefore("call=1", tryMeanwhile("rollback-move", transaction)) +
                    ruleAfter("call=" + last, tryMeanwhile("commit-move", transaction)));
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(readFile("/tmp/meanwhile"),
              "another maintenance transaction is active\nanother maintenance transaction is active\n");
}

TEST_P(CommitTo, HoldsTheLockWhileItPutsBack)
{
    const Transaction transaction = prepareRepair(scope());
    // The comparison of the registrations is the second inventory of a commit that fails at once, the
    // restoration's own is the third.
    instructPkgutil("command=--pkg-info nth=1 do exit=1\n" +
                    ruleBefore("command=--pkgs= nth=3", tryMeanwhile("commit-move", transaction)));
    EXPECT_EQ(transaction.commit(), refused("pkgutil receipt evidence is incomplete"));
    EXPECT_EQ(readFile("/tmp/meanwhile"), "another maintenance transaction is active\n");
}

// Once the completed record stands, the transaction is done.

TEST_P(CommitTo, IsDoneThoughThePendingAttemptCannotBeRead)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Transaction transaction(Work(scope()).brings(alpha));
    install(scope(), commonPackage());
    install(scope(), alpha);
    writePending(transaction.work(), transaction.id());
    setMode(pendingOf(scope()), 0664);
    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}})
        .withFile(pendingOf(scope()), pendingText(transaction.work(), transaction.id()),
                  "file " + std::to_string(ownerOf(scope())) + " 0664");

    const Outcome unsafe = refused("pending installation attempt is missing or unsafe");
    EXPECT_EQ(transaction.commit(), unsafe);
    EXPECT_EQ(expected.differenceNow(), "");
    EXPECT_EQ(transaction.commit(), unsafe);
    EXPECT_EQ(expected.differenceNow(), "");

    setMode(pendingOf(scope()), 0600);
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(describe(pendingOf(scope())), "nothing");
}

TEST_P(CommitTo, IsDoneThoughThePublicationOfItsRecordReportedAFailure)
{
    const Transaction transaction = prepareRepair(scope());
    bool justPublished = false;
    const auto failAfterRecord = [&](const SystemCall& made) {
        if (made.number == SYS_renameat)
            justPublished = made.text(3) == transaction.id() + ".record";
        return made.number == SYS_fsync && std::exchange(justPublished, false) ? EIO : 0;
    };
    EXPECT_EQ(stopping({SYS_renameat, SYS_fsync}, failAfterRecord, [&] { commitHere(transaction); }),
              runtimeError("cannot synchronize fixed metadata directory"));
    EXPECT_EQ(readFile(transaction.completed()), transaction.text());
    EXPECT_EQ(transaction.state(), "record directory lease in " + scope() + " ");

    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(transaction.state(), "completed");
}

TEST_P(CommitMoveTo, IsDoneThoughALeaseCannotBeRemoved)
{
    const Transaction transaction = prepareMove(scope());
    const auto failAtLease = [&](const SystemCall& made) {
        return made.is(SYS_unlinkat, "ActiveTransaction") && made.count > 0 ? EIO : 0;
    };
    EXPECT_EQ(stopping({SYS_unlinkat}, failAtLease, [&] { commitHere(transaction); }),
              invalid("cannot remove unsafe fixed metadata file"));
    EXPECT_EQ(transaction.state(), "record directory lease in " + other() + " lease in " + scope() + " ");
    EXPECT_EQ(readFile(indexOf(scope())), indexText(scope(), {{"alpha", "1.0"}}));

    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(transaction.state(), "completed");
}

// The boundaries between its steps.

TEST_P(CommitMoveTo, PassesItsCheckpointsInOrder)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Plugin beta = plugin("beta", "1.0");
    installWithRecords(other(), {alpha, beta});
    const Transaction transaction(movingTo(scope()).brings(alpha, "1.0").brings(beta, "1.0"));
    install(scope(), commonPackage());
    install(scope(), alpha);
    install(scope(), beta);
    // The first package was removed by an earlier run; it keeps its number.
    removeFiles(other(), alpha.vst3);
    unregister(other(), alpha.vst3.id);

    std::vector<std::string> expected;
    for (int i = 0; i < 10; ++i)
        expected.push_back("publish." + std::to_string(i));
    for (const std::string name :
         {"source.receipt.1", "source.receipt.2", "source.receipt.3", "finish.lease.0", "finish.lease.1"})
        expected.push_back(name);
    std::vector<std::string> passed;
    const WatchedCheckpoints watched([&](const std::string& name) { passed.push_back(name); });
    commitHere(transaction);
    EXPECT_EQ(passed, expected);
}

TEST_P(CommitMoveTo, DoesOneStepAfterTheOther)
{
    const Transaction transaction = prepareMove(scope());
    const Plugin alpha = plugin("alpha", "1.0");
    int checked = 0;
    const WatchedCheckpoints watched([&](const std::string& name) {
        const bool first = name == "source.receipt.0";
        if (name == "publish.5") {
            // The new files are proven before the source is touched.
            EXPECT_TRUE(isThere(vst3File(other(), "alpha")));
            EXPECT_FALSE(isThere(recordOf(scope(), "alpha")));
        } else if (first || name == "source.receipt.1") {
            EXPECT_FALSE(isThere(vst3File(other(), "alpha")));
            EXPECT_FALSE(isRegistered(other(), alpha.vst3.id));
            EXPECT_EQ(isThere(auFile(other(), "alpha")), first);
            EXPECT_EQ(isRegistered(other(), alpha.au.id), first);
            EXPECT_TRUE(isRegistered(other(), commonPackage().id));
            EXPECT_EQ(readFile(recordOf(scope(), "alpha")), recordText("alpha", "1.0"));
            EXPECT_FALSE(isThere(indexOf(scope())));
            EXPECT_TRUE(isThere(indexOf(other())));
            EXPECT_EQ(transaction.state(), "prepared");
        } else if (name.starts_with("finish.")) {
            EXPECT_FALSE(isRegistered(other(), commonPackage().id));
            EXPECT_TRUE(isThere(indexOf(scope())));
            EXPECT_FALSE(isThere(indexOf(other())));
            EXPECT_EQ(transaction.state(),
                      "record directory " + (name.back() == '0' ? "lease in " + scope() + " " : ""));
        } else {
            return;
        }
        ++checked;
    });
    commitHere(transaction);
    EXPECT_EQ(checked, 5);
}

// Interruptions.

/// Kills a commit before every change of the disk that is number `first`, `first + step`, ..., and runs it
/// again each time: the disk must then be as after a commit that nothing interrupted.
void interruptAndRunAgain(const Transaction& transaction, int first, int step)
{
    const SavedDisk prepared;
    ASSERT_EQ(transaction.commit(), succeeded());
    const Tree end = takeTree();
    int killed = 0;
    for (int nth = first;; nth += step, ++killed) {
        prepared.bringBack();
        const Ending ending = killedBeforeChange(nth, [&] { commitHere(transaction); });
        if (ending == returned())
            break;
        ASSERT_EQ(ending, (Ending{"signal", std::to_string(SIGKILL)})) << "change " << nth;
        EXPECT_NE(difference(end, takeTree()), "") << "change " << nth;
        EXPECT_EQ(transaction.commit(), succeeded()) << "change " << nth;
        EXPECT_EQ(difference(end, takeTree()), "") << "change " << nth;
    }
    EXPECT_EQ(difference(end, takeTree()), "");
    EXPECT_GT(killed, 5);
}

/// Every fourth change each, so that they run side by side.
constexpr int shares = 4;

class InterruptedCommit : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, InterruptedCommit, ::testing::Range(1, shares + 1));

TEST_P(InterruptedCommit, OfAMoveToTheSystemIsFinishedByTheNextRun)
{
    interruptAndRunAgain(prepareMove("system"), GetParam(), shares);
}

TEST_P(InterruptedCommit, OfAMoveToTheUserIsFinishedByTheNextRun)
{
    interruptAndRunAgain(prepareMove("user"), GetParam(), shares);
}

TEST_P(InterruptedCommit, OfAnUpgradeIsFinishedByTheNextRun)
{
    installWithRecords("user", {plugin("alpha", "1.0").withAuFile("Contents/old.txt", "old text")});
    const Transaction transaction(Work("user").brings(plugin("alpha", "2.0"), "1.0"));
    writePending(transaction.work(), transaction.id());
    install("user", plugin("alpha", "2.0"));
    interruptAndRunAgain(transaction, GetParam(), shares);
}

/// Kills the program at chosen calls of pkgutil, then runs it again.
TEST_P(CommitMoveTo, KilledAroundAForgetIsFinishedByTheNextRun)
{
    const Transaction transaction = prepareMove(scope());
    const SavedDisk prepared;
    ASSERT_EQ(transaction.commit(), succeeded());
    const Tree end = takeTree();
    for (const std::string nth : {"1", "2", "3"}) {
        for (const std::string& rule :
             {ruleKillBefore("command=--forget nth=" + nth), ruleKillAfter("command=--forget nth=" + nth)}) {
            prepared.bringBack();
            instructPkgutil(rule);
            EXPECT_EQ(transaction.commit(), endedBy(SIGKILL)) << rule;
            EXPECT_EQ(transaction.state(), "prepared") << rule;
            instructPkgutil("");
            EXPECT_EQ(transaction.commit(), succeeded()) << rule;
            EXPECT_EQ(difference(end, takeTree()), "") << rule;
        }
    }
}

TEST_P(CommitMoveTo, KilledAtOneCallAfterTheOtherGetsThereInTheEnd)
{
    const Transaction transaction = prepareMove(scope());
    ExpectedDisk expected;
    expected.withEndOf(transaction)
        .withProducts(scope(), {{"alpha", "1.0"}})
        .withProducts(other(), {})
        .withoutProduct(other(), plugin("alpha", "1.0"))
        .withoutPackage(other(), commonPackage());
    Outcome outcome;
    int runs = 0;
    for (int nth = 1; outcome != succeeded() || runs == 0; nth += 5, ++runs) {
        ASSERT_LT(runs, 30);
        instructPkgutil(ruleKillAfter("call=" + std::to_string(nth)));
        outcome = transaction.commit();
        ASSERT_TRUE(outcome == succeeded() || outcome == endedBy(SIGKILL)) << outcome;
    }
    EXPECT_GT(runs, 3);
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitMoveTo, KilledBeforeAReceiptWasForgottenCanBeRolledBack)
{
    const Transaction transaction = prepareMerging(scope());
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    instructPkgutil(ruleKillBefore("command=--forget nth=1"));
    ASSERT_EQ(transaction.commit(), endedBy(SIGKILL));
    ASSERT_EQ(describe(vst3File(other(), "alpha")), "nothing");

    instructPkgutil("");
    EXPECT_EQ(transaction.rollBack(), succeeded());
    for (const auto& [path, content] : plugin("alpha", "1.0").vst3.files)
        expected.withFile(placeOf(other(), path), content, metadataFileOf(other()));
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(CommitMoveTo, KilledAfterAReceiptWasForgottenCanOnlyGoForward)
{
    const Transaction transaction = prepareMerging(scope());
    instructPkgutil(ruleKillAfter("command=--forget nth=1"));
    ASSERT_EQ(transaction.commit(), endedBy(SIGKILL));
    instructPkgutil("");
    EXPECT_EQ(transaction.rollBack(),
              refused("pkgutil receipt registration changed; rollback cannot restore package registration"));
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(transaction.state(), "completed");
}

/// A failing commit is killed while it puts things back; the next one puts back what is still missing.
TEST_P(InterruptedCommit, ThatPutsBackIsFinishedByTheNextRun)
{
    installWithRecords("user", {plugin("alpha", "1.0").withAuFile("Contents/old.txt", "old text")});
    const Transaction transaction(Work("user").brings(plugin("alpha", "2.0"), "1.0"));
    placeFiles("user", plugin("alpha", "2.0"));
    const SavedDisk prepared;
    ASSERT_EQ(transaction.commit(), receiptMissing);
    ASSERT_EQ(transaction.state(), "abandoned");
    const Tree end = takeTree();
    int killed = 0;
    for (int nth = GetParam();; nth += shares, ++killed) {
        prepared.bringBack();
        const Ending ending = killedBeforeChange(nth, [&] { commitHere(transaction); });
        if (ending == invalid(receiptMissing.err.substr(0, receiptMissing.err.size() - 1)))
            break;
        ASSERT_EQ(ending, (Ending{"signal", std::to_string(SIGKILL)})) << "change " << nth;
        EXPECT_EQ(transaction.commit(), receiptMissing) << "change " << nth;
        EXPECT_EQ(difference(end, takeTree()), "") << "change " << nth;
    }
    EXPECT_GT(killed, 2);
}

} // namespace

void tellCheckpoint(const std::string& name)
{
    if (WatchedCheckpoints::watcher)
        WatchedCheckpoints::watcher(name);
}

} // namespace maintenance::rehearsed

/// Takes the place of the program's own, which does nothing.
[[gnu::weak]] void maintenance::checkpoint(const std::string& name) { rehearsed::tellCheckpoint(name); }
