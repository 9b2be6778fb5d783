#include "plan/descriptor.h"
#include "uninstall/uninstall.h"

#include "support/child.h"
#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const Plugin alpha = plugin("alpha", "1.0");
const Plugin beta = plugin("beta", "2.0");
const Outcome mismatch = refused("uninstall descriptor does not match the installed product");
const Outcome notExact = refused("native package receipt inventory is not exact");

class UninstallRefusal : public ::testing::TestWithParam<const char*> {
protected:
    const std::string scope = GetParam();
    const Arguments removeAlpha = {"uninstall-product", scope, "remove-alpha"};

    void SetUp() override
    {
        install(scope, commonPackage());
        install(scope, alpha);
        install(scope, beta);
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
        makeLayout(scope);
    }

    Work work() const { return Work(scope).brings(alpha, "1.0"); }

    /// Carries the work out and expects a refusal that changes nothing on disk and leaves no transaction.
    void expectRefused(const Work& refusedWork, const Outcome& refusal) const
    {
        expectTextRefused(refusedWork.text(), refusal);
    }

    void expectTextRefused(const std::string& descriptor, const Outcome& refusal) const
    {
        publishText(scope, descriptor, "remove-alpha");
        const Tree before = takeTree();
        EXPECT_EQ(run(removeAlpha), refusal);
        EXPECT_EQ(difference(before, takeTree()), "");
    }

    /// The text of `work` without the lines that hold `part`.
    static std::string without(const Work& work, const std::string& part)
    {
        std::string kept;
        std::string rest = work.text();
        while (!rest.empty()) {
            const std::string line = rest.substr(0, rest.find('\n') + 1);
            rest.erase(0, line.size());
            if (line.find(part) == std::string::npos)
                kept += line;
        }
        return kept;
    }
};

INSTANTIATE_TEST_SUITE_P(Both, UninstallRefusal, ::testing::Values("user", "system"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST_P(UninstallRefusal, OfAProductThatIsNotInstalled)
{
    expectRefused(Work(scope).brings(plugin("gamma", "1.0"), "-"), mismatch);
    expectRefused(work().brings(plugin("gamma", "1.0"), "-"), mismatch);
}

TEST_P(UninstallRefusal, OfAProductThatIsInstalledInTheOtherScopeAlone)
{
    install(oppositeOf(scope), plugin("gamma", "1.0"));
    expectRefused(Work(scope).brings(plugin("gamma", "1.0"), "-"), mismatch);
}

TEST_P(UninstallRefusal, OfAnotherVersionByteForByte)
{
    for (const std::string other : {"1.0.0", "1", "1.1", "0.9", "10"}) {
        Plugin otherAlpha = alpha;
        otherAlpha.version = otherAlpha.vst3.version = otherAlpha.au.version = other;
        expectRefused(Work(scope).brings(otherAlpha, other), mismatch);
    }
}

TEST_P(UninstallRefusal, OfADescriptorThatDoesNotNameBothPackages)
{
    expectTextRefused(without(work(), ".alpha.vst3"), mismatch);
    expectTextRefused(without(work(), ".alpha.au"), mismatch);
    expectTextRefused(without(work().brings(beta, "-"), ".beta.vst3"), mismatch);
}

TEST_P(UninstallRefusal, OfADescriptorThatDoesNotNameEveryFile)
{
    expectTextRefused(without(work(), vst3Path("alpha")), notExact);
    expectTextRefused(without(work(), auPath("alpha")), notExact);
}

TEST_P(UninstallRefusal, OfADescriptorThatNamesAFileMore)
{
    Plugin more = alpha;
    expectRefused(Work(scope).brings(more.withVst3File("Contents/more", "more"), "-"), notExact);
}

TEST_P(UninstallRefusal, OfAFileThatWasEdited)
{
    for (const std::string& path : alpha.paths()) {
        writeFile(rootOf(scope) / path, "edited", {ownerOf(scope), 0644});
        expectRefused(work(), notExact);
        placeFiles(scope, alpha);
    }
}

TEST_P(UninstallRefusal, OfAFileThatIsMissing)
{
    removeAll(rootOf(scope) / vst3Path("alpha"));
    expectRefused(work(), refused("pkgutil receipt-owned file is missing"));
}

TEST_P(UninstallRefusal, OfAFileThatIsALinkOrNoPlainFile)
{
    const std::filesystem::path place = rootOf(scope) / vst3Path("alpha");
    removeAll(place);
    makeLink(place, rootOf(scope) / auPath("alpha"));
    expectRefused(work(), refused("owned path contains a symbolic link"));
    removeAll(place);
    makeHardLink(place, rootOf(scope) / auPath("alpha"));
    expectRefused(work(), refused("owned path has a foreign file type"));
    removeAll(place);
    makePipe(place, ownerOf(scope));
    expectRefused(work(), refused("owned path has a foreign file type"));
}

TEST_P(UninstallRefusal, OfFilesBehindALinkedDirectory)
{
    std::filesystem::rename(rootOf(scope) / "Library/Audio", rootOf(scope) / "Library/Sounds");
    makeLink(rootOf(scope) / "Library/Audio", rootOf(scope) / "Library/Sounds");
    expectRefused(work(), refused("owned path contains a symbolic link"));
}

TEST_P(UninstallRefusal, OfIncompleteProductsAnywhereInTheScope)
{
    unregister(scope, beta.au.id);
    expectRefused(work(), refused("product native receipts are incomplete or inconsistent"));
    unregister(scope, beta.vst3.id);
    unregister(scope, alpha.au.id);
    expectRefused(work(), refused("product native receipts are incomplete or inconsistent"));
}

TEST_P(UninstallRefusal, OfEveryWrongAnswerOfPkgutilBeforeTheFirstRemoval)
{
    const std::vector<std::pair<std::string, std::string>> answers = {
        {"command=--pkgs= do exit=2", "pkgutil cannot enumerate authoritative package receipts"},
        {"do kill=KILL", "pkgutil cannot enumerate authoritative package receipts"},
        {"command=--pkg-info do exit=1", "pkgutil receipt evidence is incomplete"},
        {"command=--files do kill-after=SEGV", "pkgutil receipt evidence is incomplete"},
        {"command=--pkg-info do cut=3", "pkgutil receipt metadata is outside the fixed install root"},
        {"command=--files do cut=0", "pkgutil receipt has no installed regular files"},
        {"command=--files do twins=yes", "pkgutil receipt-owned file is missing"},
        {"command=--pkgs= do exit=0 long-line=1048576", "pkgutil returned an unexpected package identity"}};
    // One listing and two questions for each of five packages: each of these begins an inventory.
    for (const auto& [rule, message] : answers)
        for (const std::string first : {"1", "12", "23"}) {
            instructPkgutil("do match=prefix\ncall=" + first + "- " + rule + "\n");
            SCOPED_TRACE(rule + " from call " + first);
            expectRefused(work(), refused(message));
        }
}

TEST_P(UninstallRefusal, BesideAnotherRun)
{
    const HeldLock lock(scope);
    expectRefused(work(), refused("another maintenance transaction is active"));
}

TEST_P(UninstallRefusal, BesideAnotherTransaction)
{
    writeFile(leaseOf(scope), "anything", {ownerOf(scope), 0600});
    expectRefused(work(), refused("another durable maintenance transaction is active"));
    removeAll(leaseOf(scope));
    makeLink(leaseOf(scope), "/nowhere");
    expectRefused(work(), refused("another durable maintenance transaction is active"));
}

TEST_P(UninstallRefusal, BesideAnotherRunOrTransactionInTheSourceScope)
{
    const std::string source = oppositeOf(scope);
    publish(work().from(source), "remove-alpha");
    writeFile(lockOf(source), "", {ownerOf(source), 0600});
    {
        const HeldLock lock(source);
        expectRefused(work().from(source), refused("another maintenance transaction is active"));
    }
    writeFile(leaseOf(source), "anything", {ownerOf(source), 0600});
    expectRefused(work().from(source), refused("another durable maintenance transaction is active"));
}

TEST_P(UninstallRefusal, OfAnIdentifierThatWasCompletedForAnotherDescriptor)
{
    publish(work(), "remove-alpha");
    ASSERT_EQ(run(removeAlpha), succeeded());
    install(scope, alpha);
    expectRefused(Work(scope).deciding("adopt").brings(alpha, "1.0"),
                  refused("prepared transaction descriptor binding changed"));
    removeAll(completedOf(scope, "remove-alpha"));
    makeLink(completedOf(scope, "remove-alpha"), "/nowhere");
    expectRefused(work(), refused("prepared transaction state is missing or unsafe"));
    removeAll(completedOf(scope, "remove-alpha"));
    writeFile(completedOf(scope, "remove-alpha"), "nonsense\n", {ownerOf(scope), 0600});
    expectRefused(work(), refused("prepared transaction state is invalid"));
}

TEST_P(UninstallRefusal, OfACompletedIdentifierWithAForeignLease)
{
    publish(work(), "remove-alpha");
    ASSERT_EQ(run(removeAlpha), succeeded());
    writeFile(leaseOf(scope), work().prepared("remove-alpha", generationOf('a')), {ownerOf(scope), 0600});
    expectRefused(work(), refused("completed transaction has a foreign active lease"));
}

TEST_P(UninstallRefusal, OfAnUnsafeLock)
{
    setMode(lockOf(scope), 0666);
    expectRefused(work(), refused("maintenance lock is unsafe"));
    removeAll(lockOf(scope));
    makeLink(lockOf(scope), "/nowhere");
    expectRefused(work(), refused("maintenance lock is unsafe"));
}

TEST_P(UninstallRefusal, OfADescriptorThatCannotBeLocated)
{
    const Tree before = takeTree();
    EXPECT_EQ(run(removeAlpha), notLocated("maintenance descriptor is missing or unsafe"));
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST_P(UninstallRefusal, ForWantOfDiskSpaceLeavesEverythingAsItWas)
{
    publish(work(), "remove-alpha");
    // The stand-in, which runs under the same limit, would fail to write it.
    removeAll("/var/log/pkgutil-stand-in.log");
    Surroundings surroundings;
    for (const rlim_t most : {0U, 10U, 100U, 400U}) {
        surroundings.largestFile = most;
        const Tree before = takeTree();
        EXPECT_EQ(run(removeAlpha, surroundings), failed("cannot write fixed metadata")) << most;
        EXPECT_EQ(difference(before, takeTree()), "") << most;
    }
}

TEST_P(UninstallRefusal, OnAFullDiskLeavesEverythingAsItWas)
{
    const std::filesystem::path transactions = maintenanceOf(scope) / "Transactions";
    publish(work(), "remove-alpha");
    mountSmallDisk(transactions, 1024 * 1024, {ownerOf(scope), 0755});
    fillDisk(transactions);
    const Tree before = takeTree();
    EXPECT_EQ(run(removeAlpha).status, 70);
    EXPECT_EQ(difference(before, takeTree()), "");
    removeAll(transactions / "filler");
    EXPECT_EQ(run(removeAlpha), succeeded());
}

TEST_P(UninstallRefusal, OfEveryFailedPublicationBeforeTheLeaseLeavesEverythingAsItWas)
{
    publish(work(), "remove-alpha");
    const Descriptor descriptor = parse(scope, "remove-alpha");
    const std::vector<long> publications = {SYS_renameat, SYS_renameat2};
    std::string last;
    for (int nth = 1; last != "ActiveTransaction"; ++nth) {
        ASSERT_LT(nth, 60);
        int seen = 0;
        const Tree before = takeTree();
        const auto failNth = [&](const SystemCall& call) {
            if (++seen != nth)
                return 0;
            last = call.text(3);
            return EIO;
        };
        EXPECT_EQ(stopping(publications, failNth, [&] { uninstall(descriptor); }).kind, "runtime error")
            << last;
        EXPECT_EQ(difference(before, takeTree()), "") << last;
    }
}

TEST_P(UninstallRefusal, AfterALeaseThatWasVisibleButNotDurableTakesItBack)
{
    publish(work(), "remove-alpha");
    const Descriptor descriptor = parse(scope, "remove-alpha");
    bool leasePublished = false;
    const auto failSynchronization = [&](const SystemCall& call) {
        if ((call.number == SYS_renameat || call.number == SYS_renameat2) &&
            call.text(3) == "ActiveTransaction") {
            leasePublished = true;
            return 0;
        }
        const bool failing = call.number == SYS_fsync && leasePublished;
        leasePublished = leasePublished && !failing;
        return failing ? EIO : 0;
    };
    const Tree before = takeTree();
    EXPECT_EQ(stopping({SYS_renameat, SYS_renameat2, SYS_fsync}, failSynchronization,
                       [&] { uninstall(descriptor); }),
              runtimeError("cannot synchronize fixed metadata directory"));
    EXPECT_EQ(difference(before, takeTree()), "");
}

} // namespace
} // namespace maintenance::rehearsed
