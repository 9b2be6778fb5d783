#include "inventory/installed_products.h"

#include "support/child.h"
#include "support/scene.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

constexpr const char* indexEnd = R"(],"schema":"tamarind.pelican.installed-products.v1"})"
                                 "\n";

/// The index of these products, each given as identifier and version, in this order.
std::string indexOfProducts(const std::string& scope,
                            const std::vector<std::pair<std::string, std::string>>& products)
{
    std::string text = R"({"products":[)";
    for (const auto& [id, version] : products) {
        if (text.back() == '}')
            text += ",";
        text += R"({"productId":")" + id + R"(","scope":")" + scope + R"(","version":")" + version + "\"}";
    }
    return text + indexEnd;
}

std::filesystem::path recordsOf(const std::string& scope) { return maintenanceOf(scope) / "Products"; }

Ending aggregating(const std::string& scope)
{
    return endingOf([&] { aggregate(scope, {}); });
}

/// Everything but the index and the records, for a check that nothing else changes.
Tree treeBesideTheIndex(const std::string& scope)
{
    Tree tree = takeExactTree();
    std::erase_if(tree, [&](const auto& entry) {
        return entry.first == indexOf(scope) || entry.first.starts_with(recordsOf(scope).native());
    });
    return tree;
}

class IndexInScope : public ::testing::TestWithParam<const char*> {
protected:
    const std::string scope = GetParam();

    void SetUp() override { makeLayout(scope); }

    /// Uninstalls delta, which this installs first: what the index holds then is up to the rest.
    Outcome rebuildByUninstalling(const Surroundings& surroundings = {}) const
    {
        install(scope, plugin("delta", "1.0"));
        publish(Work(scope).brings(plugin("delta", "1.0"), "1.0"), "remove-delta");
        return run({"uninstall-product", scope, "remove-delta"}, surroundings);
    }
};

INSTANTIATE_TEST_SUITE_P(Both, IndexInScope, ::testing::Values("user", "system"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST(InstalledProductsIndex, HasTheTextThatOtherProgramsRead)
{
    install("user", plugin("alpha", "2.1"));
    publish(Work("user").brings(plugin("delta", "1.0"), "1.0"), "remove-delta");
    install("user", plugin("delta", "1.0"));
    ASSERT_EQ(run({"uninstall-product", "user", "remove-delta"}), succeeded());
    EXPECT_EQ(readFile("/Users/player/Library/Application Support/Tamarind Pelican/installed-products.json"),
              "{\"products\":[{\"productId\":\"alpha\",\"scope\":\"user\",\"version\":\"2.1\"}],"
              "\"schema\":\"tamarind.pelican.installed-products.v1\"}\n");
    EXPECT_EQ(readFile("/Users/player/Library/Application Support/Tamarind Pelican/Maintenance/Products/"
                       "alpha.record"),
              "product=alpha\nversion=2.1\n");
}

TEST_P(IndexInScope, ListsTheInstalledProductsWithOneRecordEach)
{
    install(scope, commonPackage());
    install(scope, plugin("beta", "3.0.1"));
    install(scope, plugin("alpha", "2.1"));
    ASSERT_EQ(rebuildByUninstalling(), succeeded());
    EXPECT_EQ(readFile(indexOf(scope)), indexOfProducts(scope, {{"alpha", "2.1"}, {"beta", "3.0.1"}}));
    EXPECT_EQ(describe(indexOf(scope)), metadataFileOf(scope));
    EXPECT_EQ(namesIn(recordsOf(scope)), (std::vector<std::string>{"alpha.record", "beta.record"}));
    EXPECT_EQ(readFile(recordOf(scope, "alpha")), "product=alpha\nversion=2.1\n");
    EXPECT_EQ(readFile(recordOf(scope, "beta")), "product=beta\nversion=3.0.1\n");
    EXPECT_EQ(describe(recordOf(scope, "alpha")), metadataFileOf(scope));
    EXPECT_EQ(describe(recordsOf(scope)), directoryOf(scope));
}

TEST_P(IndexInScope, IsTheSameWhateverTheUmask)
{
    install(scope, plugin("alpha", "2.1"));
    for (const mode_t mask : {0U, 077U}) {
        Surroundings surroundings;
        surroundings.umask = mask;
        ASSERT_EQ(rebuildByUninstalling(surroundings), succeeded());
        EXPECT_EQ(describe(indexOf(scope)), metadataFileOf(scope));
        EXPECT_EQ(describe(recordOf(scope, "alpha")), metadataFileOf(scope));
        removeAll(completedOf(scope, "remove-delta"));
    }
}

TEST_P(IndexInScope, ListsProductsInAscendingOrderOfBytes)
{
    std::vector<std::pair<std::string, std::string>> products;
    for (const std::string id : {"a", "a--b", "a-b", "a0", "a1", "ab", "b"}) {
        install(scope, plugin(id, "1.0"));
        products.emplace_back(id, "1.0");
    }
    EXPECT_EQ(aggregating(scope), returned());
    EXPECT_EQ(readFile(indexOf(scope)), indexOfProducts(scope, products));
}

TEST_P(IndexInScope, IsGoneWithoutProductsWhileTheRecordDirectoryStays)
{
    install(scope, plugin("alpha", "1.0"));
    ASSERT_EQ(aggregating(scope), returned());
    ASSERT_TRUE(isThere(indexOf(scope)));
    unregister(scope, plugin("alpha", "1.0").vst3.id);
    unregister(scope, plugin("alpha", "1.0").au.id);
    install(scope, commonPackage());
    EXPECT_EQ(aggregating(scope), returned());
    EXPECT_FALSE(isThere(indexOf(scope)));
    EXPECT_EQ(describe(recordsOf(scope)), directoryOf(scope));
    EXPECT_TRUE(namesIn(recordsOf(scope)).empty());
}

TEST_P(IndexInScope, LosesTheRecordsOfProductsThatAreNotInstalled)
{
    install(scope, plugin("alpha", "1.0"));
    writeFile(recordOf(scope, "gone"), "product=gone\nversion=1\n", {ownerOf(scope), 0600});
    writeFile(recordsOf(scope) / "nested/deep/file", "x", {ownerOf(scope), 0600});
    writeFile(indexOf(scope), "old", {ownerOf(scope), 0600});
    EXPECT_EQ(aggregating(scope), returned());
    EXPECT_EQ(namesIn(recordsOf(scope)), std::vector<std::string>{"alpha.record"});
    EXPECT_EQ(readFile(indexOf(scope)), indexOfProducts(scope, {{"alpha", "1.0"}}));
}

TEST_P(IndexInScope, ChangesNothingBesideIndexAndRecords)
{
    install(scope, plugin("alpha", "1.0"));
    const Tree before = treeBesideTheIndex(scope);
    EXPECT_EQ(aggregating(scope), returned());
    EXPECT_EQ(difference(before, treeBesideTheIndex(scope)), "");
}

TEST_P(IndexInScope, OfTheOtherScopeIsLeftAlone)
{
    const std::string other = oppositeOf(scope);
    makeLayout(other);
    install(scope, plugin("alpha", "1.0"));
    install(other, plugin("beta", "1.0"));
    ASSERT_EQ(aggregating(other), returned());
    const Tree before = takeExactTree({supportOf(other)});
    EXPECT_EQ(aggregating(scope), returned());
    EXPECT_EQ(difference(before, takeExactTree({supportOf(other)})), "");
    EXPECT_EQ(readFile(indexOf(other)), indexOfProducts(other, {{"beta", "1.0"}}));
}

TEST_P(IndexInScope, IsMadeWithEveryDirectoryThatIsMissing)
{
    removeAll(supportOf(scope));
    install(scope, plugin("alpha", "1.0"));
    EXPECT_EQ(aggregating(scope), returned());
    EXPECT_EQ(describe(recordsOf(scope)), directoryOf(scope));
    EXPECT_EQ(readFile(indexOf(scope)), indexOfProducts(scope, {{"alpha", "1.0"}}));
}

TEST_P(IndexInScope, StaysAsItIsWhenTheReceiptsAreInconsistent)
{
    install(scope, plugin("alpha", "1.0"));
    ASSERT_EQ(aggregating(scope), returned());
    const Tree before = takeExactTree({supportOf(scope)});
    install(scope, plugin("beta", "1.0").au);
    EXPECT_EQ(aggregating(scope), invalid("product native receipts are incomplete or inconsistent"));
    removeFiles(scope, plugin("beta", "1.0"));
    EXPECT_EQ(aggregating(scope), invalid("pkgutil receipt-owned file is missing"));
    instructPkgutil("do exit=2\n");
    EXPECT_EQ(aggregating(scope), invalid("pkgutil cannot enumerate authoritative package receipts"));
    EXPECT_EQ(difference(before, takeExactTree({supportOf(scope)})), "");
}

TEST_P(IndexInScope, RefusesALinkInThePlaceOfTheRecords)
{
    install(scope, plugin("alpha", "1.0"));
    makeDirectories(rootOf(scope) / "Library/elsewhere", {ownerOf(scope), 0755});
    for (const std::filesystem::path& target :
         {rootOf(scope) / "Library/elsewhere", rootOf(scope) / "nowhere"}) {
        removeAll(recordsOf(scope));
        makeLink(recordsOf(scope), target);
        const Tree before = takeExactTree();
        EXPECT_EQ(aggregating(scope), invalid("fixed mutation target was redirected"));
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST_P(IndexInScope, RefusesUnsafeEntriesAmongTheRecords)
{
    install(scope, plugin("alpha", "1.0"));
    writeFile(maintenanceOf(scope) / "kept", "kept", {ownerOf(scope), 0600});
    makeHardLink(recordOf(scope, "alpha"), maintenanceOf(scope) / "kept");
    EXPECT_EQ(aggregating(scope), invalid("cannot remove unsafe fixed metadata file"));
    EXPECT_EQ(readFile(maintenanceOf(scope) / "kept"), "kept");
    removeAll(recordOf(scope, "alpha"));
    makePipe(recordOf(scope, "alpha"), ownerOf(scope));
    EXPECT_EQ(aggregating(scope), invalid("fixed mutation target has a foreign file type"));
    removeAll(recordOf(scope, "alpha"));
    makeLink(recordOf(scope, "alpha"), maintenanceOf(scope) / "kept");
    EXPECT_EQ(aggregating(scope), invalid("fixed mutation target was redirected"));
    EXPECT_EQ(readFile(maintenanceOf(scope) / "kept"), "kept");
    removeAll(recordOf(scope, "alpha"));
    EXPECT_EQ(aggregating(scope), returned());
}

TEST_P(IndexInScope, ReplacesAFileInThePlaceOfTheRecordDirectory)
{
    install(scope, plugin("alpha", "1.0"));
    removeAll(recordsOf(scope));
    writeFile(recordsOf(scope), "no directory", {ownerOf(scope), 0600});
    EXPECT_EQ(aggregating(scope), returned());
    EXPECT_EQ(namesIn(recordsOf(scope)), std::vector<std::string>{"alpha.record"});
}

TEST_P(IndexInScope, RefusesToReplaceWhatIsNoPlainIndex)
{
    install(scope, plugin("alpha", "1.0"));
    const Ending unsafe = invalid("fixed metadata destination is unsafe");
    writeFile(maintenanceOf(scope) / "kept", "kept", {ownerOf(scope), 0600});
    makeLink(indexOf(scope), maintenanceOf(scope) / "kept");
    EXPECT_EQ(aggregating(scope), unsafe);
    removeAll(indexOf(scope));
    makeHardLink(indexOf(scope), maintenanceOf(scope) / "kept");
    EXPECT_EQ(aggregating(scope), unsafe);
    EXPECT_EQ(readFile(maintenanceOf(scope) / "kept"), "kept");
    removeAll(indexOf(scope));
    makeDirectories(indexOf(scope), {ownerOf(scope), 0755});
    EXPECT_EQ(aggregating(scope), unsafe);
}

TEST_P(IndexInScope, RefusesToRemoveALinkInThePlaceOfTheIndex)
{
    writeFile(maintenanceOf(scope) / "kept", "kept", {ownerOf(scope), 0600});
    makeLink(indexOf(scope), maintenanceOf(scope) / "kept");
    EXPECT_EQ(aggregating(scope), invalid("fixed mutation target was redirected"));
    EXPECT_EQ(readFile(maintenanceOf(scope) / "kept"), "kept");
}

TEST_P(IndexInScope, StoppedAnywhereIsTheOldOneOrTheNewOneAndIsRepairedByTheNextRebuild)
{
    install(scope, plugin("alpha", "1.0"));
    ASSERT_EQ(aggregating(scope), returned());
    const std::string old = readFile(indexOf(scope));
    install(scope, plugin("beta", "2.0"));
    const std::string rebuilt = indexOfProducts(scope, {{"alpha", "1.0"}, {"beta", "2.0"}});
    // Each change of the disk that other programs could see is one of these calls.
    const std::vector<long> changes = {SYS_unlinkat, SYS_renameat, SYS_renameat2, SYS_mkdirat};
    int points = 0;
    for (bool finished = false; !finished; ++points) {
        ASSERT_LT(points, 100);
        writeFile(indexOf(scope), old, {ownerOf(scope), 0600});
        int seen = 0;
        finished = stopping(
                       changes, [&](const SystemCall&) { return seen++ == points ? killChild : 0; },
                       [&] { aggregate(scope, {}); }) == returned();
        const std::string index = readFile(indexOf(scope));
        EXPECT_TRUE(finished ? index == rebuilt : index == old || index == rebuilt) << points << index;
        EXPECT_EQ(aggregating(scope), returned()) << points;
        EXPECT_EQ(readFile(indexOf(scope)), rebuilt) << points;
        EXPECT_EQ(namesIn(recordsOf(scope)), (std::vector<std::string>{"alpha.record", "beta.record"}));
    }
    EXPECT_GT(points, 6);
}

TEST_P(IndexInScope, ThatCannotBeWrittenLeavesTheOldOneAndNoTemporaryFile)
{
    install(scope, plugin("alpha", "1.0"));
    ASSERT_EQ(aggregating(scope), returned());
    const std::string old = readFile(indexOf(scope));
    install(scope, plugin("beta", "2.0"));
    const std::vector<std::string> names = namesIn(supportOf(scope));
    const auto failIndex = [&](const SystemCall& call) {
        return call.text(3) == "installed-products.json" ? EIO : 0;
    };
    EXPECT_EQ(stopping({SYS_renameat, SYS_renameat2}, failIndex, [&] { aggregate(scope, {}); }),
              runtimeError("cannot publish fixed metadata"));
    EXPECT_EQ(readFile(indexOf(scope)), old);
    EXPECT_EQ(namesIn(supportOf(scope)), names);
}

TEST(InstalledProductsIndex, OfTheAccountsScopeIsTheSameWhenTheAccountRebuildsIt)
{
    makeLayout("user");
    install("user", plugin("alpha", "2.1"));
    publish(Work("user").brings(plugin("delta", "1.0"), "1.0"), "remove-delta");
    install("user", plugin("delta", "1.0"));
    ASSERT_EQ(run({"uninstall-product", "user", "remove-delta"}, asPlayer()), succeeded());
    EXPECT_EQ(readFile(indexOf("user")), indexOfProducts("user", {{"alpha", "2.1"}}));
    EXPECT_EQ(describe(indexOf("user")), "file 501 0600");
    EXPECT_EQ(describe(recordOf("user", "alpha")), "file 501 0600");
    EXPECT_EQ(describe(recordsOf("user")), "dir 501 0755");
}

} // namespace
} // namespace maintenance::rehearsed
