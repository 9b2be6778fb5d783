#include "plan/descriptor.h"
#include "uninstall/uninstall.h"

#include "support/child.h"
#include "support/scene.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const Plugin alpha = plugin("alpha", "1.0");
const Plugin beta = plugin("beta", "2.0");
const Outcome mismatch = refused("uninstall descriptor does not match the installed product");
const Outcome fileChanged = refused("receipt-owned file changed; refusing uninstall");
const Outcome notEnumerated = refused("pkgutil cannot enumerate authoritative package receipts");
const Outcome notForgotten = refused("pkgutil could not forget the authoritative package receipt");
const Outcome anotherActive = refused("another durable maintenance transaction is active");

class ResumedUninstall : public ::testing::TestWithParam<const char*> {
protected:
    const std::string scope = GetParam();
    const Work work = Work(scope).brings(alpha, "1.0");
    const Ownership own{ownerOf(scope), 0600};
    const Arguments removeAlpha = {"uninstall-product", scope, "remove-alpha"};
    const std::filesystem::path transaction = transactionOf(scope, "remove-alpha");
    const std::filesystem::path manifest = transaction / "authority-target/manifest";

    /// Alpha, the shared package and, unless told otherwise, beta, with everything that the run would create.
    void installProducts(bool withBeta = true) const
    {
        install(scope, commonPackage());
        install(scope, alpha);
        if (withBeta)
            install(scope, beta);
        publish(work, "remove-alpha");
        writeFile(lockOf(scope), "", own);
    }

    /// Runs alpha's uninstallation until it is prepared and nothing is removed yet.
    void prepareRemoval() const
    {
        // Three inventories prove what is to be removed; the fourth is taken when the lease stands.
        instructPkgutil("command=--pkgs= nth=4- do exit=2\n");
        ASSERT_EQ(run(removeAlpha), notEnumerated);
        instructPkgutil("");
        forgetPkgutilCalls();
        ASSERT_TRUE(isThere(transaction / "prepared"));
        ASSERT_EQ(readFile(leaseOf(scope)), readFile(transaction / "prepared"));
        for (const std::string& path : alpha.paths())
            ASSERT_TRUE(isThere(rootOf(scope) / path));
    }

    void expectUnchangedBy(const Outcome& refusal, const Arguments& arguments) const
    {
        const Tree before = takeTree();
        EXPECT_EQ(run(arguments), refusal);
        EXPECT_EQ(difference(before, takeTree()), "");
    }

    /// Expects the next run to refuse and to change nothing.
    void expectRefused(const Outcome& refusal) const { expectUnchangedBy(refusal, removeAlpha); }

    void expectAlphaGone() const
    {
        for (const std::string& path : alpha.paths())
            EXPECT_FALSE(isThere(rootOf(scope) / path)) << path;
        EXPECT_FALSE(isRegistered(scope, alpha.vst3.id));
        EXPECT_FALSE(isRegistered(scope, alpha.au.id));
        EXPECT_FALSE(isThere(leaseOf(scope)));
        EXPECT_FALSE(isThere(transaction));
        EXPECT_TRUE(isThere(completedOf(scope, "remove-alpha")));
    }

    void expectFinishedByTheNextRun() const
    {
        EXPECT_EQ(run(removeAlpha), succeeded());
        expectAlphaGone();
    }

    /// Exchanges the only occurrence of a text in the manifest.
    void editManifest(const std::string& old, const std::string& replacement) const
    {
        std::string text = readFile(manifest);
        const std::size_t place = text.find(old);
        ASSERT_NE(place, std::string::npos) << old;
        writeFile(manifest, text.replace(place, old.size(), replacement), own);
    }
};

INSTANTIATE_TEST_SUITE_P(Both, ResumedUninstall, ::testing::Values("user", "system"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST_P(ResumedUninstall, FinishesWhatWasPreparedWithoutPreparingAnew)
{
    installProducts();
    prepareRemoval();
    const std::string prepared = readFile(transaction / "prepared");
    EXPECT_EQ(prepared, work.prepared("remove-alpha", fieldOf(prepared, "generation")));
    expectFinishedByTheNextRun();
    EXPECT_EQ(readFile(completedOf(scope, "remove-alpha")), prepared);
}

TEST_P(ResumedUninstall, TakesOneInventoryBeforeItRemoves)
{
    installProducts();
    prepareRemoval();
    instructPkgutil("do match=prefix\n");
    EXPECT_EQ(run(removeAlpha), succeeded());
    const std::vector<std::string> calls = pkgutilCalls();
    ASSERT_GT(calls.size(), 11U);
    EXPECT_NE(calls[0].find("--pkgs="), std::string::npos);
    EXPECT_NE(calls[11].find("--forget com.tamarindpelican.pkg.alpha.vst3"), std::string::npos);
}

TEST_P(ResumedUninstall, PassesFilesThatAreGoneOver)
{
    installProducts();
    for (const std::string& path : alpha.paths()) {
        install(scope, alpha);
        prepareRemoval();
        removeAll(rootOf(scope) / path);
        expectFinishedByTheNextRun();
        removeAll(completedOf(scope, "remove-alpha"));
    }
    install(scope, alpha);
    prepareRemoval();
    removeAll(rootOf(scope) / "Library/Audio/Plug-Ins/Components/TP alpha.component");
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, PassesAForgottenPackageOverAndLeavesItsFiles)
{
    installProducts();
    prepareRemoval();
    unregister(scope, alpha.vst3.id);
    EXPECT_EQ(run(removeAlpha), succeeded());
    EXPECT_TRUE(isThere(rootOf(scope) / vst3Path("alpha")));
    EXPECT_FALSE(isThere(rootOf(scope) / auPath("alpha")));
    EXPECT_FALSE(isRegistered(scope, alpha.au.id));
}

TEST_P(ResumedUninstall, WithEveryPackageForgottenOnlyFinishes)
{
    installProducts(false);
    prepareRemoval();
    removeFiles(scope, alpha);
    removeFiles(scope, commonPackage());
    for (const std::string& id : {alpha.vst3.id, alpha.au.id, commonPackage().id})
        unregister(scope, id);
    writeFile(indexOf(scope), "old", own);
    expectFinishedByTheNextRun();
    EXPECT_FALSE(isThere(indexOf(scope)));
}

TEST_P(ResumedUninstall, StopsAtAChangedFileAndRemovesNothingFurther)
{
    installProducts();
    prepareRemoval();
    const std::filesystem::path edited = rootOf(scope) / auPath("alpha");
    writeFile(edited, "edited", {ownerOf(scope), 0644});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run(removeAlpha), fileChanged);
        EXPECT_EQ(readFile(edited), "edited");
        EXPECT_TRUE(isThere(rootOf(scope) / auPath("alpha", "Contents/Resources/art.txt")));
        EXPECT_FALSE(isThere(rootOf(scope) / vst3Path("alpha")));
        EXPECT_FALSE(isRegistered(scope, alpha.vst3.id));
        EXPECT_TRUE(isRegistered(scope, alpha.au.id));
        EXPECT_TRUE(isThere(leaseOf(scope)));
    }
    placeFiles(scope, alpha.au);
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, StopsAtTheFirstFileWhenThatIsTheChangedOne)
{
    installProducts();
    prepareRemoval();
    writeFile(rootOf(scope) / vst3Path("alpha"), "edited", {ownerOf(scope), 0644});
    expectRefused(fileChanged);
}

TEST_P(ResumedUninstall, StopsAtALinkOrAForeignFile)
{
    installProducts();
    prepareRemoval();
    const std::filesystem::path place = rootOf(scope) / vst3Path("alpha");
    const std::filesystem::path aside = rootOf(scope) / "Library/aside";
    std::filesystem::rename(place, aside);
    const Outcome foreign = refused("pkgutil receipt inventory contains a link or foreign file");
    makeLink(place, aside);
    expectRefused(foreign);
    removeAll(place);
    makeHardLink(place, aside);
    expectRefused(foreign);
    removeAll(place);
    makePipe(place, ownerOf(scope));
    expectRefused(foreign);
    removeAll(place);
    std::filesystem::rename(aside, place);
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, StopsAtALinkedDirectory)
{
    installProducts();
    prepareRemoval();
    const std::filesystem::path contents = (rootOf(scope) / vst3Path("alpha")).parent_path();
    std::filesystem::rename(contents, rootOf(scope) / "Library/aside");
    makeLink(contents, rootOf(scope) / "Library/aside");
    std::vector<std::string> files;
    for (const auto& [path, content] : alpha.vst3.files)
        files.push_back(path);
    writeReceipt(scope, alpha.vst3.id, "1.0", files);
    expectRefused(refused("owned path contains a symbolic link"));
}

TEST_P(ResumedUninstall, StopsAtAChangedFileOfTheSharedPackage)
{
    installProducts(false);
    prepareRemoval();
    const std::filesystem::path edited = rootOf(scope) / commonPackage().files.begin()->first;
    writeFile(edited, "edited", {ownerOf(scope), 0644});
    EXPECT_EQ(run(removeAlpha), fileChanged);
    EXPECT_EQ(readFile(edited), "edited");
    EXPECT_TRUE(isRegistered(scope, commonPackage().id));
    EXPECT_FALSE(isRegistered(scope, alpha.au.id));
    EXPECT_TRUE(isThere(leaseOf(scope)));
    placeFiles(scope, commonPackage());
    expectFinishedByTheNextRun();
    EXPECT_FALSE(isRegistered(scope, commonPackage().id));
}

TEST_P(ResumedUninstall, KeepsTheSharedPackageForAProductThatCameMeanwhile)
{
    installProducts(false);
    prepareRemoval();
    install(scope, beta);
    expectFinishedByTheNextRun();
    EXPECT_TRUE(isRegistered(scope, commonPackage().id));
    EXPECT_TRUE(isThere(recordOf(scope, "beta")));
}

TEST_P(ResumedUninstall, RefusesARegistrationThatIsNotTheRecordedOne)
{
    installProducts();
    prepareRemoval();
    Plugin other = alpha;
    for (const std::string version : {"1.0.0", "1.1"}) {
        other.vst3.version = other.au.version = version;
        registerPackage(scope, other);
        expectRefused(mismatch);
    }
    registerPackage(scope, alpha);
    Plugin more = alpha;
    more.withAuFile("Contents/more", "more");
    install(scope, more.au);
    expectRefused(mismatch);
    registerPackage(scope, alpha);
    Package less = alpha.vst3;
    less.files.erase(less.files.begin());
    registerPackage(scope, less);
    expectRefused(mismatch);
    registerPackage(scope, alpha);
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, RefusesASharedPackageThatWasRegisteredAnew)
{
    installProducts(false);
    prepareRemoval();
    install(scope, commonPackage("8"));
    expectRefused(mismatch);
    unregister(scope, commonPackage().id);
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, RefusesASharedPackageThatWasNotThereBefore)
{
    install(scope, alpha);
    publish(work, "remove-alpha");
    writeFile(lockOf(scope), "", own);
    prepareRemoval();
    install(scope, commonPackage());
    expectRefused(mismatch);
}

TEST_P(ResumedUninstall, RefusesASnapshotThatRecordsSomethingElseThanTheDescriptor)
{
    installProducts();
    prepareRemoval();
    const std::string original = readFile(manifest);
    const std::string code = vst3Path("alpha");
    const std::string digest = systemSha256(alpha.vst3.files.at(code));
    const std::vector<std::pair<std::string, std::string>> edits = {
        {code + "\t" + digest, code + "\t" + std::string(64, 'a')},
        {code + "\t", vst3Path("alpha", "Contents/other") + "\t"},
        {alpha.vst3.id + "\t1.0", alpha.vst3.id + "\t1.0.0"},
        {"receipt\t" + alpha.vst3.id, "receipt\tcom.tamarindpelican.pkg.gamma.vst3"},
        {code + "\t", auPath("alpha", "Contents/more") + "\t" + digest + "\t90\n" + code + "\t"},
    };
    for (const auto& [old, replacement] : edits) {
        SCOPED_TRACE(replacement);
        editManifest(old, replacement);
        expectRefused(mismatch);
        writeFile(manifest, original, own);
    }
    writeFile(manifest, "", own);
    expectRefused(mismatch);
    writeFile(manifest, original, own);
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, RefusesASnapshotThatCannotBeRead)
{
    installProducts();
    prepareRemoval();
    const std::string original = readFile(manifest);
    const Outcome invalidManifest = refused("receipt snapshot manifest is invalid");
    for (const std::string line : {"", "path", "a\tb\tc\td", "receipt\tx\t1", "receipt\tx\t1\t../x",
                                   "/etc/passwd\tx\t0", "path\tx\t0"}) {
        writeFile(manifest, original + line + "\n", own);
        SCOPED_TRACE(line);
        expectRefused(invalidManifest);
    }
    writeFile(manifest, original + "/etc/passwd\t" + std::string(64, 'a') + "\t0\n", own);
    expectRefused(invalidManifest);
    writeFile(manifest, original + "../up\t" + std::string(64, 'a') + "\t0\n", own);
    expectRefused(invalidManifest);
    removeAll(manifest);
    expectRefused(refused("receipt snapshot manifest is missing"));
}

TEST_P(ResumedUninstall, RefusesADescriptorThatIsNotTheOneItWasPreparedWith)
{
    installProducts();
    prepareRemoval();
    publish(Work(scope).deciding("adopt").brings(alpha, "1.0"), "remove-alpha");
    expectRefused(refused("prepared transaction descriptor binding changed"));
    publish(work, "remove-alpha");
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, RefusesAPreparedStateThatWasWrittenOtherwise)
{
    installProducts();
    prepareRemoval();
    const std::string prepared = readFile(transaction / "prepared");
    std::string shuffled = prepared;
    shuffled.erase(0, prepared.find('\n') + 1);
    shuffled += prepared.substr(0, prepared.find('\n') + 1);
    writeFile(transaction / "prepared", shuffled, own);
    expectRefused(refused("durable transaction lease generation is stale or rebound"));
    writeFile(transaction / "prepared", prepared + "\n", own);
    expectRefused(refused("prepared transaction state is invalid"));
    writeFile(transaction / "prepared", prepared, own);
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, PublishesAMissingLeaseAndFinishes)
{
    installProducts();
    prepareRemoval();
    removeAll(leaseOf(scope));
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, RefusesALeaseOfAnotherPreparation)
{
    installProducts();
    prepareRemoval();
    const std::string lease = readFile(leaseOf(scope));
    writeFile(leaseOf(scope), work.prepared("remove-alpha", generationOf('a')), own);
    expectRefused(anotherActive);
    writeFile(leaseOf(scope), lease, own);
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, RefusesAnUnsafeTransactionDirectory)
{
    installProducts();
    prepareRemoval();
    makeHardLink(transaction / "twin", transaction / "prepared");
    const Outcome unsafe = refused("transaction metadata contains a link or unsafe file");
    expectRefused(unsafe);
    removeAll(transaction / "twin");
    makeLink(transaction / "twin", "/nowhere");
    expectRefused(unsafe);
    removeAll(transaction / "twin");
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, StartsOverWhenOnlySnapshotsWereTaken)
{
    installProducts();
    prepareRemoval();
    removeAll(leaseOf(scope));
    removeAll(transaction / "prepared");
    writeFile(transaction / "left-over", "x", own);
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, RefusesALeaseWhosePreparedStateIsLost)
{
    installProducts();
    prepareRemoval();
    removeAll(transaction / "prepared");
    expectRefused(anotherActive);
}

TEST_P(ResumedUninstall, KeepsOtherUninstallationsOffTheScope)
{
    installProducts();
    prepareRemoval();
    publish(Work(scope).brings(beta, "2.0"), "remove-beta");
    expectUnchangedBy(anotherActive, {"uninstall-product", scope, "remove-beta"});
    expectFinishedByTheNextRun();
    EXPECT_EQ(run({"uninstall-product", scope, "remove-beta"}), succeeded());
}

TEST_P(ResumedUninstall, GoesOnWhereForgettingFailed)
{
    installProducts(false);
    const std::vector<std::string> order = {alpha.vst3.id, alpha.au.id, commonPackage().id};
    for (std::size_t failing = 0; failing < order.size(); ++failing) {
        instructPkgutil("command=--forget nth=1 do exit=1\n");
        EXPECT_EQ(run(removeAlpha), notForgotten);
        // The stand-in has forgotten the package although it says otherwise.
        for (std::size_t i = 0; i < order.size(); ++i)
            EXPECT_EQ(isRegistered(scope, order[i]), i > failing) << order[i];
        EXPECT_TRUE(isThere(leaseOf(scope)));
    }
    instructPkgutil("");
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, GoesOnWhereAPackageStayedRegistered)
{
    installProducts(false);
    for (const std::string& id : {alpha.vst3.id, alpha.au.id, commonPackage().id}) {
        instructPkgutil("command=--forget id=" + id + " do forget=no\n");
        EXPECT_EQ(run(removeAlpha), refused("pkgutil receipt remained registered after forget"));
        EXPECT_TRUE(isRegistered(scope, id));
    }
    instructPkgutil("");
    expectFinishedByTheNextRun();
    EXPECT_FALSE(isRegistered(scope, commonPackage().id));
}

TEST_P(ResumedUninstall, IsPutBackByARollbackWhileNoPackageIsForgotten)
{
    installProducts();
    instructPkgutil("command=--forget do kill=KILL\n");
    EXPECT_EQ(run(removeAlpha), notForgotten);
    instructPkgutil("");
    EXPECT_FALSE(isThere(rootOf(scope) / vst3Path("alpha")));
    EXPECT_EQ(run({"rollback-move", scope, "remove-alpha"}), succeeded());
    for (const Package* package : {&alpha.vst3, &alpha.au})
        for (const auto& [path, content] : package->files)
            EXPECT_EQ(readFile(rootOf(scope) / path), content);
    EXPECT_FALSE(isThere(leaseOf(scope)));
}

TEST_P(ResumedUninstall, IsCarriedForwardOnceAPackageIsForgotten)
{
    installProducts();
    instructPkgutil("command=--forget id=*.au do kill=KILL\n");
    EXPECT_EQ(run(removeAlpha), notForgotten);
    instructPkgutil("");
    expectUnchangedBy(
        refused("pkgutil receipt registration changed; rollback cannot restore package registration"),
        {"rollback-move", scope, "remove-alpha"});
    expectFinishedByTheNextRun();
}

TEST_P(ResumedUninstall, NeverRemovesAFileThatTheSnapshotDoesNotVouchFor)
{
    install(scope, alpha);
    publish(work, "remove-alpha");
    // Somebody installs the shared package just when the last product package is forgotten.
    registerPackage(scope, commonPackage());
    placeFiles(scope, commonPackage());
    const std::string receipt = receiptOf(scope, commonPackage().id);
    std::filesystem::rename(receipt, receipt + ".kept");
    instructPkgutil("command=--forget id=*.au do after=\"mv " + receipt + ".kept " + receipt + "\"\n");
    EXPECT_EQ(run(removeAlpha), succeeded());
    for (const auto& [path, content] : commonPackage().files)
        EXPECT_EQ(readFile(rootOf(scope) / path), content);
}

TEST_P(ResumedUninstall, NeverRemovesAFileThatChangesAfterItWasCompared)
{
    installProducts();
    prepareRemoval();
    const Descriptor descriptor = parse(scope, "remove-alpha");
    const std::filesystem::path place = rootOf(scope) / vst3Path("alpha");
    const std::string content = readFile(place);
    const auto atSecondOpening = [&](const std::function<void()>& change) {
        int openings = 0;
        return stopping(
            {SYS_openat},
            [&](const SystemCall& call) {
                if (call.is(SYS_openat, "plugin") && ++openings == 2)
                    change();
                return 0;
            },
            [&] { uninstall(descriptor); });
    };
    const std::string forged(content.size(), 'x');
    EXPECT_EQ(atSecondOpening([&] {
                  writeFile(place, forged, {ownerOf(scope), 0644});
              }),
              invalid("receipt-owned file hash changed"));
    EXPECT_EQ(readFile(place), forged);
    writeFile(place, content, {ownerOf(scope), 0644});
    EXPECT_EQ(atSecondOpening([&] {
                  writeFile(rootOf(scope) / "Library/other", content, {ownerOf(scope), 0644});
                  std::filesystem::rename(rootOf(scope) / "Library/other", place);
              }),
              invalid("owned mutation target changed during validation"));
    EXPECT_EQ(readFile(place), content);
    expectFinishedByTheNextRun();
}

TEST(ResumedUninstallWithASource, HasItsLeaseInBothScopesAndIsFinishedFromTheTarget)
{
    for (const std::string target : {"user", "system"}) {
        const std::string source = oppositeOf(target);
        for (const std::string scope : {"user", "system"})
            install(scope, alpha);
        const Work work = Work(target).from(source).brings(alpha, "1.0");
        const std::string id = "remove-from-" + target;
        publish(work, id);
        // Two inventories for the snapshots and two for the proof; the fifth is taken when the leases stand.
        instructPkgutil("command=--pkgs= nth=5- do exit=2\n");
        EXPECT_EQ(run({"uninstall-product", target, id}), notEnumerated);
        instructPkgutil("");
        const std::string prepared = readFile(transactionOf("system", id) / "prepared");
        EXPECT_EQ(prepared, work.prepared(id, fieldOf(prepared, "generation")));
        for (const std::string scope : {"user", "system"}) {
            EXPECT_EQ(readFile(leaseOf(scope)), prepared);
            EXPECT_EQ(describe(leaseOf(scope)), metadataFileOf(scope));
        }
        removeAll(leaseOf(source));
        EXPECT_EQ(run({"uninstall-product", target, id}), succeeded());
        EXPECT_EQ(readFile(completedOf("system", id)), prepared);
        EXPECT_FALSE(isRegistered(target, alpha.vst3.id));
        EXPECT_TRUE(isRegistered(source, alpha.vst3.id));
        for (const std::string scope : {"user", "system"})
            EXPECT_FALSE(isThere(leaseOf(scope)));
        for (const std::string& path : alpha.paths())
            EXPECT_TRUE(isThere(rootOf(source) / path)) << path;
    }
}

TEST(ForeignPreparation, OfACleanInstallationIsNeverCarriedOutAsAnUninstallation)
{
    for (const std::string scope : {"user", "system"}) {
        const std::string id = "install-" + scope;
        const Plugin gamma = plugin("gamma-" + scope, "1.0");
        publish(Work(scope).brings(gamma, "-"), id);
        ASSERT_EQ(run({"prepare-move", scope, id}), succeeded());
        const Arguments uninstallation = {"uninstall-product", scope, id};
        for (const bool isInstalled : {false, true}) {
            if (isInstalled) {
                install(scope, commonPackage());
                install(scope, gamma);
            }
            const Tree before = takeTree();
            EXPECT_EQ(run(uninstallation), mismatch);
            EXPECT_EQ(difference(before, takeTree()), "");
        }
        EXPECT_EQ(run({"commit-move", scope, id}), succeeded());
        for (const std::string& path : gamma.paths())
            EXPECT_TRUE(isThere(rootOf(scope) / path));
    }
}

TEST(ForeignPreparation, OfAnUpgradeIsNeverCarriedOutAsAnUninstallation)
{
    for (const std::string scope : {"user", "system"}) {
        const std::string id = "upgrade-" + scope;
        const std::string name = "gamma-" + scope;
        install(scope, commonPackage());
        install(scope, plugin(name, "1.0"));
        publish(Work(scope).brings(plugin(name, "2.0"), "1.0"), id);
        ASSERT_EQ(run({"prepare-move", scope, id}), succeeded());
        for (const std::string version : {"1.0", "2.0"}) {
            install(scope, plugin(name, version));
            const Tree before = takeTree();
            EXPECT_EQ(run({"uninstall-product", scope, id}), mismatch) << version;
            EXPECT_EQ(difference(before, takeTree()), "");
        }
        EXPECT_EQ(run({"commit-move", scope, id}), succeeded());
    }
}

TEST(ForeignPreparation, OfAMoveIsNeverCarriedOutAsAnUninstallation)
{
    for (const std::string target : {"user", "system"}) {
        const std::string source = oppositeOf(target);
        const std::string id = "move-to-" + target;
        const Plugin gamma = plugin("gamma-" + target, "1.0");
        install(source, commonPackage());
        install(source, gamma);
        publish(Work(target).from(source).brings(gamma, "1.0"), id);
        ASSERT_EQ(run({"prepare-move", target, id}), succeeded());
        const Tree before = takeTree();
        EXPECT_EQ(run({"uninstall-product", target, id}), mismatch);
        EXPECT_EQ(difference(before, takeTree()), "");
        EXPECT_EQ(run({"rollback-move", target, id}), succeeded());
    }
}

TEST(ForeignPreparation, OfADescriptorThatNamesOnePackageAloneIsNeverCarriedOut)
{
    const Plugin gamma = plugin("gamma", "1.0");
    std::string text;
    std::string rest = Work("user").brings(gamma, "-").text();
    while (!rest.empty()) {
        const std::string line = rest.substr(0, rest.find('\n') + 1);
        rest.erase(0, line.size());
        if (line.find(gamma.au.id) == std::string::npos)
            text += line;
    }
    install("user", commonPackage());
    install("user", gamma);
    publishText("user", text, "half");
    ASSERT_EQ(run({"prepare-move", "user", "half"}), succeeded());
    const Tree before = takeTree();
    EXPECT_EQ(run({"uninstall-product", "user", "half"}), mismatch);
    EXPECT_EQ(difference(before, takeTree()), "");
    EXPECT_EQ(run({"rollback-move", "user", "half"}), succeeded());
}

} // namespace
} // namespace maintenance::rehearsed
