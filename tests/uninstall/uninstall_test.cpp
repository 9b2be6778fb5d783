#include "support/scene.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const std::string prefix = "com.tamarindpelican.pkg.";

/// Alpha 1.0 as it is installed and described everywhere here; beta is the other product.
const Plugin alpha = plugin("alpha", "1.0");
const Plugin beta = plugin("beta", "2.0");

std::string indexWithBeta(const std::string& scope)
{
    return R"({"products":[{"productId":"beta","scope":")" + scope +
           R"(","version":"2.0"}],"schema":"tamarind.pelican.installed-products.v1"})"
           "\n";
}

/// The paths of the files of a package or product on disk.
std::vector<std::string> placesOf(const std::string& scope, const Package& package)
{
    std::vector<std::string> places;
    for (const auto& [path, content] : package.files)
        places.push_back(rootOf(scope) / path);
    return places;
}

std::vector<std::string> placesOf(const std::string& scope, const Plugin& product)
{
    std::vector<std::string> places;
    for (const std::string& path : product.paths())
        places.push_back(rootOf(scope) / path);
    return places;
}

/// A pending installation attempt as begin-install writes it.
std::string attemptOf(const std::string& scope, const std::string& transaction)
{
    return "schema=tamarind.pelican.macos-maintenance-attempt.v1\nsku=studio-bundle\npackageRevision=7"
           "\nplanSha256=" +
           std::string(64, 'a') + "\ndescriptorSha256=" + std::string(64, 'b') +
           "\ntransaction=" + transaction + "\ntargetScope=" + scope + "\n";
}

template <typename List> void add(std::vector<std::string>& all, const List& more)
{
    all.insert(all.end(), more.begin(), more.end());
}

/// What a completed uninstallation of alpha removes, without the shared package.
std::vector<std::string> removedWithAlpha(const std::string& scope)
{
    std::vector<std::string> removed = placesOf(scope, alpha);
    removed.push_back(receiptOf(scope, alpha.vst3.id));
    removed.push_back(receiptOf(scope, alpha.au.id));
    return removed;
}

class UninstallInScope : public ::testing::TestWithParam<const char*> {
protected:
    const std::string scope = GetParam();
    const Work work = Work(scope).brings(alpha, "1.0");
    const Arguments removeAlpha = {"uninstall-product", scope, "remove-alpha"};

    /// Describes alpha and leaves nothing for the run to create but its own records.
    void describeAlpha() const
    {
        publish(work, "remove-alpha");
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
    }

    /// The text that the completed record has to hold.
    std::string completedText() const
    {
        return work.prepared("remove-alpha",
                             fieldOf(readFile(completedOf(scope, "remove-alpha")), "generation"));
    }

    void expectNothingOfTheTransactionLeft() const
    {
        EXPECT_FALSE(isThere(leaseOf(scope)));
        EXPECT_TRUE(namesIn(maintenanceOf(scope) / "Transactions").empty());
    }
};

INSTANTIATE_TEST_SUITE_P(Both, UninstallInScope, ::testing::Values("user", "system"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST_P(UninstallInScope, OfOneOfTwoProductsChangesExactlyItsFilesReceiptsAndTheIndex)
{
    install(scope, commonPackage());
    install(scope, alpha);
    install(scope, beta);
    describeAlpha();
    const Tree before = takeTree();
    EXPECT_EQ(run(removeAlpha), succeeded());

    std::vector<std::string> changed = removedWithAlpha(scope);
    add(changed, std::vector<std::string>{indexOf(scope), recordOf(scope, "beta"),
                                          completedOf(scope, "remove-alpha")});
    std::sort(changed.begin(), changed.end());
    EXPECT_EQ(changedPaths(before, takeTree()), changed);
    for (const std::string& path : removedWithAlpha(scope))
        EXPECT_EQ(describe(path), "nothing") << path;
    EXPECT_EQ(readFile(indexOf(scope)), indexWithBeta(scope));
    EXPECT_EQ(readFile(completedOf(scope, "remove-alpha")), completedText());
    EXPECT_EQ(describe(completedOf(scope, "remove-alpha")), metadataFileOf(scope));
    expectNothingOfTheTransactionLeft();
}

TEST_P(UninstallInScope, OfTheLastProductTakesTheSharedPackageAndTheIndexAlong)
{
    install(scope, commonPackage());
    install(scope, alpha);
    describeAlpha();
    writeFile(indexOf(scope), "old", {ownerOf(scope), 0600});
    writeFile(recordOf(scope, "alpha"), "old", {ownerOf(scope), 0600});
    const Tree before = takeTree();
    EXPECT_EQ(run(removeAlpha), succeeded());

    std::vector<std::string> removed = removedWithAlpha(scope);
    add(removed, placesOf(scope, commonPackage()));
    add(removed, std::vector<std::string>{receiptOf(scope, commonPackage().id), indexOf(scope),
                                          recordOf(scope, "alpha")});
    for (const std::string& path : removed)
        EXPECT_EQ(describe(path), "nothing") << path;
    std::vector<std::string> changed = removed;
    changed.push_back(completedOf(scope, "remove-alpha"));
    std::sort(changed.begin(), changed.end());
    EXPECT_EQ(changedPaths(before, takeTree()), changed);
    EXPECT_EQ(describe(maintenanceOf(scope) / "Products"), directoryOf(scope));
    expectNothingOfTheTransactionLeft();
}

TEST_P(UninstallInScope, OfOneAfterTheOtherEndsWithNothingInstalled)
{
    install(scope, commonPackage());
    install(scope, alpha);
    install(scope, beta);
    describeAlpha();
    publish(Work(scope).brings(beta, "2.0"), "remove-beta");
    EXPECT_EQ(run({"uninstall-product", scope, "remove-beta"}), succeeded());
    EXPECT_TRUE(isRegistered(scope, commonPackage().id));
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_FALSE(isRegistered(scope, commonPackage().id));
    EXPECT_FALSE(isThere(indexOf(scope)));
    for (const std::string& path : placesOf(scope, commonPackage()))
        EXPECT_FALSE(isThere(path)) << path;
}

TEST_P(UninstallInScope, OfSeveralProductsInOneDescriptorRemovesThemAll)
{
    install(scope, commonPackage());
    for (const Plugin& product : {alpha, beta, plugin("gamma", "3.0"), plugin("delta", "4.0")})
        install(scope, product);
    publish(Work(scope)
                .brings(plugin("gamma", "3.0"), "-")
                .brings(alpha, "-")
                .brings(plugin("delta", "4.0"), "-"),
            "remove-three");
    EXPECT_EQ(run({"uninstall-product", scope, "remove-three"}), succeeded());
    for (const Plugin& product : {alpha, plugin("gamma", "3.0"), plugin("delta", "4.0")}) {
        for (const std::string& path : placesOf(scope, product))
            EXPECT_FALSE(isThere(path)) << path;
        EXPECT_FALSE(isRegistered(scope, product.vst3.id));
        EXPECT_FALSE(isRegistered(scope, product.au.id));
    }
    for (const std::string& path : placesOf(scope, beta))
        EXPECT_TRUE(isThere(path)) << path;
    EXPECT_EQ(readFile(indexOf(scope)), indexWithBeta(scope));
    EXPECT_TRUE(isRegistered(scope, commonPackage().id));
}

TEST_P(UninstallInScope, OfTheLastProductRemovesTheToolThatRuns)
{
    install(scope, alpha);
    const Surroundings itself = [&] {
        Surroundings surroundings;
        surroundings.tool = placeTool(scope, planText({alpha}));
        return surroundings;
    }();
    Package common = commonPackage();
    for (auto& [path, content] : common.files) {
        const std::filesystem::path place = rootOf(scope) / path;
        if (isThere(place))
            content = readFile(place);
        else
            writeFile(place, content, {rootUid, 0755});
    }
    registerPackage(scope, common);
    publish(Work(scope).with(common).brings(alpha, "1.0"), "remove-alpha");
    EXPECT_EQ(run(removeAlpha, itself), succeeded());
    EXPECT_EQ(describe(itself.tool), "nothing");
    EXPECT_FALSE(isRegistered(scope, common.id));
    EXPECT_TRUE(isThere(supportOf(scope) / "transaction-plan.tpmp"));
    EXPECT_EQ(run(removeAlpha), succeeded());
}

TEST_P(UninstallInScope, LeavesTheEmptiedDirectories)
{
    install(scope, alpha);
    describeAlpha();
    EXPECT_EQ(run(removeAlpha), succeeded());
    for (const std::string& path : placesOf(scope, alpha))
        EXPECT_EQ(describe(std::filesystem::path(path).parent_path()), directoryOf(scope));
}

TEST_P(UninstallInScope, LeavesFilesThatNoReceiptLists)
{
    install(scope, alpha);
    describeAlpha();
    const std::filesystem::path preset = rootOf(scope) / vst3Path("alpha", "Contents/Resources/preset");
    writeFile(preset, "own", {ownerOf(scope), 0600});
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_EQ(readFile(preset), "own");
}

TEST_P(UninstallInScope, DoesNotNeedTheSharedPackage)
{
    install(scope, alpha);
    describeAlpha();
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_FALSE(isRegistered(scope, alpha.au.id));
}

TEST_P(UninstallInScope, TakesASharedPackageOfAnotherRevisionAlong)
{
    Package newer = commonPackage("8");
    install(scope, newer);
    install(scope, alpha);
    describeAlpha();
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_FALSE(isRegistered(scope, newer.id));
    for (const std::string& path : placesOf(scope, newer))
        EXPECT_FALSE(isThere(path)) << path;
}

TEST_P(UninstallInScope, TakesNoNoticeOfTheRecordedVersionOrTheDecision)
{
    install(scope, alpha);
    for (const std::string recorded : {"-", "9.9"})
        for (const std::string decision : {"adopt", "replace"}) {
            install(scope, alpha);
            const std::string id = "remove-" + decision + (recorded == "-" ? "" : "-other");
            publish(Work(scope).deciding(decision).brings(alpha, recorded), id);
            EXPECT_EQ(run({"uninstall-product", scope, id}), succeeded());
            EXPECT_FALSE(isRegistered(scope, alpha.au.id));
        }
}

TEST_P(UninstallInScope, LeavesTheSameProductInTheOtherScope)
{
    const std::string other = oppositeOf(scope);
    for (const std::string both : {"user", "system"}) {
        install(both, commonPackage());
        install(both, alpha);
    }
    describeAlpha();
    const std::vector<std::string> otherFiles = placesOf(other, alpha);
    EXPECT_EQ(run(removeAlpha), succeeded());
    for (const std::string& path : otherFiles)
        EXPECT_TRUE(isThere(path)) << path;
    EXPECT_TRUE(isRegistered(other, alpha.vst3.id));
    EXPECT_TRUE(isRegistered(other, commonPackage().id));
    EXPECT_FALSE(isThere(maintenanceOf(other)));
}

TEST_P(UninstallInScope, RemovesAPathThatItsReceiptListsTwice)
{
    install(scope, alpha);
    std::vector<std::string> twice;
    for (const auto& [path, content] : alpha.vst3.files)
        twice.insert(twice.end(), {path, path});
    writeReceipt(scope, alpha.vst3.id, "1.0", twice);
    describeAlpha();
    EXPECT_EQ(run(removeAlpha), succeeded());
    for (const std::string& path : placesOf(scope, alpha))
        EXPECT_FALSE(isThere(path)) << path;
}

TEST_P(UninstallInScope, KeepsAFileThatAnotherProductOwnsToo)
{
    install(scope, commonPackage());
    install(scope, alpha);
    Plugin sharing = beta;
    sharing.vst3.files[vst3Path("alpha")] = alpha.vst3.files.at(vst3Path("alpha"));
    install(scope, sharing);
    describeAlpha();
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_EQ(readFile(rootOf(scope) / vst3Path("alpha")), alpha.vst3.files.at(vst3Path("alpha")));
    EXPECT_FALSE(isThere(rootOf(scope) / auPath("alpha")));
    EXPECT_EQ(readFile(indexOf(scope)), indexWithBeta(scope));
}

TEST_P(UninstallInScope, AsksPkgutilExactlyThisMuch)
{
    install(scope, commonPackage());
    install(scope, alpha);
    describeAlpha();
    instructPkgutil("do match=prefix no-match=0\n");
    forgetPkgutilCalls();
    EXPECT_EQ(run(removeAlpha), succeeded());

    std::vector<std::string> expected;
    const std::string volume = "--volume " + rootOf(scope).native() + " ";
    const auto inventoryOf = [&](const std::vector<std::string>& names) {
        expected.push_back(volume + "--pkgs=^com\\.tamarindpelican\\.pkg\\.");
        for (const std::string& name : names) {
            expected.push_back(volume + "--pkg-info " + prefix + name);
            expected.push_back(volume + "--files " + prefix + name);
        }
    };
    const std::vector<std::string> all = {"alpha.au", "alpha.vst3", "common"};
    inventoryOf(all); // for the snapshot
    inventoryOf(all); // which product is installed
    inventoryOf(all); // whether its receipts are exact
    inventoryOf(all); // what there is to remove
    expected.push_back(volume + "--forget " + prefix + "alpha.vst3");
    inventoryOf({"alpha.au", "common"});
    expected.push_back(volume + "--forget " + prefix + "alpha.au");
    inventoryOf({"common"}); // whether it is forgotten
    inventoryOf({"common"}); // whether anything needs the shared package
    expected.push_back(volume + "--forget " + prefix + "common");
    inventoryOf({}); // whether it is forgotten
    inventoryOf({}); // for the index
    EXPECT_EQ(pkgutilCalls(), expected);
}

TEST_P(UninstallInScope, ReadsTheReceiptsNoMoreOftenForManyProducts)
{
    Work three(scope);
    for (const std::string id : {"a", "b", "c"}) {
        install(scope, plugin(id, "1.0"));
        three.brings(plugin(id, "1.0"), "1.0");
    }
    publish(three, "remove-three");
    instructPkgutil("do match=prefix no-match=0\n");
    forgetPkgutilCalls();
    EXPECT_EQ(run({"uninstall-product", scope, "remove-three"}), succeeded());
    const std::vector<std::string> calls = pkgutilCalls();
    const auto listings = std::count_if(calls.begin(), calls.end(), [](const std::string& call) {
        return call.find("--pkgs=") != std::string::npos;
    });
    // Four before the first file, one after each forgotten package, one for the shared package and the index.
    EXPECT_EQ(listings, 4 + 6 + 2);
}

TEST_P(UninstallInScope, WorksWithEveryWayOfListing)
{
    for (const std::string way : {"match=whole empty-home=0", "match=prefix", "match=anywhere no-match=0"}) {
        install(scope, commonPackage());
        install(scope, alpha);
        describeAlpha();
        instructPkgutil("do " + way + "\n");
        EXPECT_EQ(run(removeAlpha), succeeded()) << way;
        EXPECT_FALSE(isRegistered(scope, commonPackage().id)) << way;
        removeAll(completedOf(scope, "remove-alpha"));
    }
}

TEST_P(UninstallInScope, GivesTheRecordsTheirOwnerAndModeWhateverTheUmask)
{
    for (const mode_t mask : {0U, 077U}) {
        Surroundings surroundings;
        surroundings.umask = mask;
        install(scope, alpha);
        install(scope, beta);
        publish(work, "remove-alpha");
        removeAll(lockOf(scope));
        EXPECT_EQ(run(removeAlpha, surroundings), succeeded());
        for (const std::filesystem::path& path :
             {completedOf(scope, "remove-alpha"), indexOf(scope), lockOf(scope), recordOf(scope, "beta")})
            EXPECT_EQ(describe(path), metadataFileOf(scope)) << path;
        removeAll(completedOf(scope, "remove-alpha"));
    }
}

TEST_P(UninstallInScope, EndsThePendingAttemptThatBelongsToItAndNoOther)
{
    install(scope, alpha);
    describeAlpha();
    writeFile(pendingOf(scope), attemptOf(scope, "another"), {ownerOf(scope), 0600});
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_EQ(readFile(pendingOf(scope)), attemptOf(scope, "another"));
    writeFile(pendingOf(scope), attemptOf(scope, "remove-alpha"), {ownerOf(scope), 0600});
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_FALSE(isThere(pendingOf(scope)));
}

TEST_P(UninstallInScope, IsDoneAlsoWhenAnUnreadablePendingAttemptCannotBeCleared)
{
    install(scope, alpha);
    describeAlpha();
    writeFile(pendingOf(scope), "nonsense\n", {ownerOf(scope), 0600});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run(removeAlpha), refused("pending installation attempt is invalid"));
        EXPECT_EQ(readFile(completedOf(scope, "remove-alpha")), completedText());
        expectNothingOfTheTransactionLeft();
    }
    removeAll(pendingOf(scope));
    EXPECT_EQ(run(removeAlpha), succeeded());
}

TEST_P(UninstallInScope, OfACompletedIdentifierDoesNothingMore)
{
    install(scope, commonPackage());
    install(scope, alpha);
    describeAlpha();
    ASSERT_EQ(run(removeAlpha), succeeded());
    install(scope, alpha);
    forgetPkgutilCalls();
    const Tree before = takeExactTree();
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_TRUE(pkgutilCalls().empty());
}

TEST_P(UninstallInScope, OfACompletedIdentifierFinishesTheCleanUp)
{
    install(scope, alpha);
    describeAlpha();
    ASSERT_EQ(run(removeAlpha), succeeded());
    const std::string text = readFile(completedOf(scope, "remove-alpha"));
    const Tree before = takeTree();
    const Ownership own{ownerOf(scope), 0600};
    writeFile(leaseOf(scope), text, own);
    makeDirectories(transactionOf(scope, "remove-alpha"), {ownerOf(scope), 0700});
    writeFile(transactionOf(scope, "remove-alpha") / "prepared", text, own);
    writeFile(transactionOf(scope, "remove-alpha") / "target/0", "x", own);
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(UninstallOfTheUserScope, WorksForTheAccountItself)
{
    install("user", commonPackage());
    install("user", alpha);
    install("user", beta);
    publish(Work("user").brings(alpha, "1.0"), "remove-alpha");
    EXPECT_EQ(run({"uninstall-product", "user", "remove-alpha"}, asPlayer()), succeeded());
    EXPECT_EQ(readFile(indexOf("user")), indexWithBeta("user"));
    EXPECT_EQ(describe(completedOf("user", "remove-alpha")), "file 501 0600");
    EXPECT_EQ(describe(lockOf("user")), "file 501 0600");
    publish(Work("user").brings(beta, "2.0"), "remove-beta");
    EXPECT_EQ(run({"uninstall-product", "user", "remove-beta"}, asPlayer()), succeeded());
    EXPECT_FALSE(isRegistered("user", commonPackage().id));
}

TEST(UninstallOfTheUserScope, RefusesAFileThatTheAccountCannotRead)
{
    install("user", commonPackage());
    install("user", alpha);
    publish(Work("user").brings(alpha, "1.0"), "remove-alpha");
    setMode(rootOf("user") / vst3Path("alpha"), 0);
    EXPECT_EQ(run({"uninstall-product", "user", "remove-alpha"}, asPlayer()),
              refused("cannot read transaction source"));
    EXPECT_FALSE(isThere(transactionOf("user", "remove-alpha")));
    EXPECT_EQ(run({"uninstall-product", "user", "remove-alpha"}), succeeded());
}

TEST(UninstallOfTheSystemScope, IsNotForAnAccount)
{
    install("system", commonPackage());
    install("system", alpha);
    publish(Work("system").brings(alpha, "1.0"), "remove-alpha");
    writeFile(lockOf("system"), "", {rootUid, 0600});
    const Tree before = takeTree();
    EXPECT_EQ(run({"uninstall-product", "system", "remove-alpha"}, asPlayer()),
              refused("maintenance descriptor cannot be read"));
    setMode(descriptorOf("system", "remove-alpha"), 0644);
    EXPECT_EQ(run({"uninstall-product", "system", "remove-alpha"}, asPlayer()),
              refused("cannot open the maintenance lock"));
    setMode(descriptorOf("system", "remove-alpha"), 0600);
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(UninstallOfTheSystemScope, DoesNotNeedAnAccountAtTheConsole)
{
    install("system", commonPackage());
    install("system", alpha);
    publish(Work("system").brings(alpha, "1.0"), "remove-alpha");
    setNobodyAtConsole();
    const Outcome outcome = run({"uninstall-product", "system", "remove-alpha"});
    EXPECT_EQ(outcome, succeeded());
}

TEST(Uninstall, WithASourceScopeRecordsAndLocksInBothAndRemovesFromTheTargetAlone)
{
    for (const std::string target : {"user", "system"}) {
        const std::string source = oppositeOf(target);
        for (const std::string scope : {"user", "system"}) {
            install(scope, commonPackage());
            install(scope, alpha);
        }
        const Work work = Work(target).from(source).brings(alpha, "1.0");
        publish(work, "remove-alpha");
        EXPECT_EQ(run({"uninstall-product", target, "remove-alpha"}), succeeded());
        EXPECT_FALSE(isRegistered(target, alpha.vst3.id));
        EXPECT_TRUE(isRegistered(source, alpha.vst3.id));
        EXPECT_TRUE(isRegistered(source, commonPackage().id));
        EXPECT_TRUE(isThere(rootOf(source) / vst3Path("alpha")));
        EXPECT_TRUE(isThere(completedOf("system", "remove-alpha")));
        EXPECT_FALSE(isThere(completedOf("user", "remove-alpha")));
        for (const std::string scope : {"user", "system"}) {
            EXPECT_FALSE(isThere(leaseOf(scope)));
            EXPECT_TRUE(namesIn(maintenanceOf(scope) / "Transactions").empty());
            EXPECT_EQ(describe(lockOf(scope)), metadataFileOf(scope));
        }
        removeAll(completedOf("system", "remove-alpha"));
    }
}

} // namespace
} // namespace maintenance::rehearsed
