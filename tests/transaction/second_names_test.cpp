#include "committing.h"

#include <chrono>
#include <functional>

namespace maintenance::rehearsed {
namespace {

using SecondNameIn = InScope;
INSTANTIATE_TEST_SUITE_P(, SecondNameIn, ::testing::Values("user", "system"), nameOfScope);

/// What a rename leaves that lost its second half; returns the temporary name.
std::filesystem::path renamedByHalf(const std::filesystem::path& file)
{
    const std::filesystem::path second = file.parent_path() / ("." + file.filename().native() + ".new.4711");
    makeHardLink(second, file);
    return second;
}

TEST_P(SecondNameIn, OfAnyFileOfAPreparedTransactionIsTakenAway)
{
    for (const std::string name :
         {"prepared", "authority-target/manifest", "authority-target/files/0", "target/0"})
        for (const bool finish : {false, true}) {
            SCOPED_TRACE(name);
            const Transaction transaction = prepareRepair(scope());
            const std::filesystem::path second = renamedByHalf(transaction.inside(name));
            if (finish)
                install(scope(), plugin("alpha", "1.0"));
            EXPECT_EQ(finish ? transaction.commit() : transaction.rollBack(), succeeded());
            EXPECT_EQ(transaction.state(), "completed");
            removeAll(supportOf(scope()));
        }
}

TEST_P(SecondNameIn, OfALeaseOrRecordIsTakenAway)
{
    const Transaction transaction = prepareRepair(scope());
    const std::filesystem::path lease = renamedByHalf(leaseOf(scope()));
    EXPECT_EQ(transaction.prepare(), succeeded());
    EXPECT_FALSE(isThere(lease));
    EXPECT_EQ(transaction.rollBack(), succeeded());
    const std::filesystem::path record = renamedByHalf(transaction.completed());
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_FALSE(isThere(record));
    EXPECT_TRUE(isThere(transaction.completed()));
}

TEST_P(SecondNameIn, OfAnAttemptOrItsDescriptorIsTakenAwayByBeginInstall)
{
    Surroundings placed;
    placed.tool = placeTool(scope(), planText({plugin("alpha", "1.0")}));
    const Outcome begun = run({"begin-install", scope()}, placed);
    const std::string id = begun.out.substr(0, begun.out.size() - 1);
    for (const std::filesystem::path& file : {pendingOf(scope()), descriptorOf(scope(), id)}) {
        const std::filesystem::path second = renamedByHalf(file);
        EXPECT_EQ(run({"begin-install", scope()}, placed), begun) << file;
        EXPECT_FALSE(isThere(second)) << file;
        EXPECT_TRUE(isThere(file)) << file;
    }
}

TEST_P(SecondNameIn, OfARestoredFileIsTakenAwayAlsoWhereOnlyTheSnapshotListsIt)
{
    installWithRecords(scope(), {plugin("alpha", "1.0").withAuFile("Contents/dropped.txt", "dropped")});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    const std::filesystem::path listed = renamedByHalf(vst3File(scope(), "alpha"));
    const std::filesystem::path dropped = renamedByHalf(auFile(scope(), "alpha", "Contents/dropped.txt"));
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_FALSE(isThere(listed));
    EXPECT_FALSE(isThere(dropped));
}

TEST_P(SecondNameIn, ThatIsNoTemporaryOneStays)
{
    const Transaction transaction = prepareRepair(scope());
    const std::filesystem::path file = transaction.inside("prepared");
    const std::vector<std::pair<std::string, std::string>> names = {
        {"prepared.new.4711", "transaction metadata contains a link or unsafe file"},
        {".prepared.new.", "transaction metadata contains a link or unsafe file"},
        {".other.new.4711", "transaction metadata contains a link or unsafe file"},
        {"target/.prepared.new.4711", "transaction metadata contains a link or unsafe file"}};
    for (const auto& [name, message] : names) {
        makeHardLink(transaction.inside(name), file);
        EXPECT_EQ(transaction.rollBack(), refused(message)) << name;
        EXPECT_TRUE(isThere(transaction.inside(name))) << name;
        removeAll(transaction.inside(name));
    }
    // A third name may be anybody's.
    renamedByHalf(file);
    makeHardLink("/Library/third", file);
    EXPECT_EQ(transaction.rollBack(), refused("transaction metadata contains a link or unsafe file"));
    removeAll("/Library/third");
    EXPECT_EQ(transaction.rollBack(), succeeded());
}

TEST_P(SecondNameIn, ThatIsAnOwnedFileItselfStays)
{
    const std::string likeATemporary = "Contents/Resources/.art.txt.new.4711";
    Plugin odd = plugin("alpha", "1.0");
    odd.withAuFile(likeATemporary, odd.au.files.at(auPath("alpha", "Contents/Resources/art.txt")));
    installWithRecords(scope(), {odd});
    const std::filesystem::path second = auFile(scope(), "alpha", likeATemporary);
    const auto unite = [&] {
        removeAll(second);
        EXPECT_EQ(renamedByHalf(auFile(scope(), "alpha", "Contents/Resources/art.txt")), second);
    };
    unite();
    const Outcome link = refused("pkgutil receipt inventory contains a link or foreign file");
    // Nothing is known yet of what the older release owned.
    publish(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"), "upgrade");
    EXPECT_EQ(run({"prepare-move", scope(), "upgrade"}), link);
    EXPECT_TRUE(isThere(second));
    removeAll(second);
    writeFile(second, odd.au.files.at(auPath("alpha", likeATemporary)), {ownerOf(scope()), 0644});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    unite();
    EXPECT_EQ(transaction.rollBack(), link);
    EXPECT_TRUE(isThere(second));
}

TEST_P(SecondNameIn, BesidesAProductStaysUnlessTheTransactionIsPrepared)
{
    const Transaction transaction = prepareRepair(scope());
    const std::filesystem::path second = renamedByHalf(vst3File(scope(), "alpha"));
    const std::string state = readFile(transaction.inside("prepared"));
    writeFile(transaction.inside("prepared"), "nonsense", {ownerOf(scope()), 0600});
    EXPECT_NE(transaction.rollBack(), succeeded());
    EXPECT_TRUE(isThere(second));
    writeFile(transaction.inside("prepared"), state, {ownerOf(scope()), 0600});
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_FALSE(isThere(second));
}

TEST(SecondName, ThatNobodyHasDoesNotHoldUpARun)
{
    const Transaction transaction = prepareRepair("user");
    const std::filesystem::path records = completedOf("user", "any").parent_path();
    constexpr int pairs = 20000;
    for (int i = 0; i < pairs; ++i) {
        const std::string number = std::to_string(i);
        writeFile(records / ("x" + number), "", {playerUid, 0600});
        makeHardLink(records / (".y" + number + ".new.4711"), records / ("x" + number));
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST(SecondName, IsTakenAwayWithTheAccountsPowerOnly)
{
    const Transaction transaction = prepareRepair("user");
    const std::filesystem::path second = renamedByHalf(leaseOf("user"));
    setOwner(leaseOf("user"), rootUid);
    EXPECT_EQ(transaction.rollBack(), refused("durable transaction lease is missing or unsafe"));
    EXPECT_TRUE(isThere(second));
    setOwner(leaseOf("user"), playerUid);
    setOwner(maintenanceOf("user"), rootUid);
    EXPECT_EQ(transaction.rollBack(), refused("maintenance directory ownership is unsafe"));
    EXPECT_TRUE(isThere(second));
}

TEST(SecondName, BesidesAProductIsTakenAwayForOwnedNamesOnly)
{
    const Transaction transaction = prepareRepair("user");
    const std::filesystem::path own = vst3File("user", "alpha").parent_path() / "notes";
    writeFile(own, "my own", {playerUid, 0644});
    const std::filesystem::path second = renamedByHalf(own);
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_TRUE(isThere(own));
    EXPECT_TRUE(isThere(second));
}

} // namespace
} // namespace maintenance::rehearsed
