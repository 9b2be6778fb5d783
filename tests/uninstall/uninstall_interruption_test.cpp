#include "plan/descriptor.h"
#include "transaction/checkpoint.h"
#include "uninstall/uninstall.h"

#include "support/child.h"
#include "support/scene.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <ostream>

namespace maintenance {

namespace {

/// What this executable does at a checkpoint.
std::function<void(const std::string&)> atCheckpoint;

} // namespace

/// Stands in for the program's own definition, which does nothing.
void checkpoint(const std::string& name)
{
    if (atCheckpoint)
        atCheckpoint(name);
}

} // namespace maintenance

namespace maintenance::rehearsed {
namespace {

const Plugin alpha = plugin("alpha", "1.0");
const Plugin beta = plugin("beta", "2.0");
const std::string id = "remove-alpha";

/// A scope with two products, one of which is to be removed, or with that one alone.
struct Scene {
    std::string scope;
    bool withBeta;

    Work work() const { return Work(scope).brings(alpha, "1.0"); }

    void set() const
    {
        install(scope, commonPackage());
        install(scope, alpha);
        if (withBeta)
            install(scope, beta);
        publish(work(), id);
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
    }

    /// The places of every file and receipt that has to go.
    std::vector<std::string> doomed() const
    {
        std::vector<std::string> places;
        for (const std::string& path : alpha.paths())
            places.push_back(rootOf(scope) / path);
        for (const Package* package : {&alpha.vst3, &alpha.au})
            places.push_back(receiptOf(scope, package->id));
        if (withBeta)
            return places;
        for (const auto& [path, content] : commonPackage().files)
            places.push_back(rootOf(scope) / path);
        places.push_back(receiptOf(scope, commonPackage().id));
        return places;
    }

    /// Everything that a finished uninstallation changes, in order.
    std::vector<std::string> changes() const
    {
        std::vector<std::string> places = doomed();
        places.push_back(completedOf(scope, id));
        if (withBeta)
            places.insert(places.end(), {indexOf(scope), recordOf(scope, "beta")});
        std::sort(places.begin(), places.end());
        return places;
    }

    Outcome finish() const { return run({"uninstall-product", scope, id}); }

    /// Expects the disk to be as a run without interruption would have left it.
    void expectFinished(const Tree& before) const
    {
        EXPECT_EQ(changedPaths(before, takeTree()), changes());
        for (const std::string& path : doomed())
            EXPECT_EQ(describe(path), "nothing") << path;
        const std::string record = readFile(completedOf(scope, id));
        EXPECT_EQ(record, work().prepared(id, fieldOf(record, "generation")));
        EXPECT_EQ(isThere(indexOf(scope)), withBeta);
    }

    /// Expects an interrupted run to have harmed nothing: what is doomed is whole or gone, and everything
    /// else outside the tool's own bookkeeping is as it was.
    void expectUnharmed(const Tree& before) const
    {
        const std::vector<std::string> places = doomed();
        const Tree now = takeTree();
        for (const auto& [path, line] : before) {
            const bool isDoomed = std::find(places.begin(), places.end(), path) != places.end();
            const bool isBookkeeping = path.starts_with(maintenanceOf(scope).native());
            const auto found = now.find(path);
            if (isBookkeeping || (isDoomed && found == now.end()))
                continue;
            EXPECT_EQ(found == now.end() ? "nothing" : found->second, line) << path;
        }
    }
};

const Scene lastOfUser{"user", false};
const Scene lastOfSystem{"system", false};
const Scene oneOfTwo{"user", true};

/// Carries the uninstallation out in a child that is killed before the system call of this index among
/// those that change names on the disk.
Ending killedBeforeChange(const Scene& scene, int index)
{
    const Descriptor descriptor = parse(scene.scope, id);
    int seen = 0;
    return stopping(
        {SYS_unlinkat, SYS_renameat, SYS_renameat2, SYS_mkdirat},
        [&](const SystemCall&) { return seen++ == index ? killChild : 0; }, [&] { uninstall(descriptor); });
}

/// Carries the uninstallation out in a child that dies at a checkpoint.
Ending killedAt(const Scene& scene, const std::string& name)
{
    const Descriptor descriptor = parse(scene.scope, id);
    return inChild(rootUid, {}, {}, [&]() -> std::string {
        atCheckpoint = [&](const std::string& passed) {
            if (passed == name)
                ::kill(::getpid(), SIGKILL);
        };
        uninstall(descriptor);
        return {};
    });
}

const Ending killed{"signal", std::to_string(SIGKILL)};

/// A rule after which the stand-in kills the program, and itself, at the calls that `selector` selects.
std::string killingAt(const std::string& selector, const std::string& moment)
{
    const std::string killTool = moment + "=\"kill -KILL $(cut -d' ' -f4 /proc/$PPID/stat)\" ";
    return selector + " do " + killTool + (moment == "before" ? "kill=KILL\n" : "kill-after=KILL\n");
}

TEST(UninstallCheckpoints, MarkEachRemovedFileAndEachForgottenPackageInOrder)
{
    lastOfUser.set();
    std::vector<std::string> passed;
    atCheckpoint = [&](const std::string& name) { passed.push_back(name); };
    uninstall(parse("user", id));
    atCheckpoint = nullptr;
    const std::string prefix = "uninstall.receipt.com.tamarindpelican.pkg.";
    const std::vector<std::string> expected = {"prepare.lease.0",     "uninstall.0",   "uninstall.1",
                                               prefix + "alpha.vst3", "uninstall.2",   "uninstall.3",
                                               prefix + "alpha.au",   "uninstall.4",   "uninstall.5",
                                               prefix + "common",     "finish.lease.0"};
    EXPECT_EQ(passed, expected);
}

/// Where the first run dies, and where the second one does if there is one.
struct Interruption {
    std::string name;
    const Scene* scene;
    std::string first;
    std::string second;
};

std::ostream& operator<<(std::ostream& stream, const Interruption& point) { return stream << point.name; }

class InterruptedAtACheckpoint : public ::testing::TestWithParam<Interruption> {};

TEST_P(InterruptedAtACheckpoint, IsFinishedByTheNextRun)
{
    const Scene& scene = *GetParam().scene;
    scene.set();
    const Tree before = takeTree();
    EXPECT_EQ(killedAt(scene, GetParam().first), killed);
    scene.expectUnharmed(before);
    if (!GetParam().second.empty()) {
        EXPECT_EQ(killedAt(scene, GetParam().second), killed);
        scene.expectUnharmed(before);
    }
    EXPECT_EQ(scene.finish(), succeeded());
    scene.expectFinished(before);
    EXPECT_EQ(scene.finish(), succeeded());
}

const std::string vst3Forgotten = "uninstall.receipt.com.tamarindpelican.pkg.alpha.vst3";
const std::string auForgotten = "uninstall.receipt.com.tamarindpelican.pkg.alpha.au";
const std::string commonForgotten = "uninstall.receipt.com.tamarindpelican.pkg.common";

std::vector<Interruption> interruptions()
{
    std::vector<Interruption> points;
    const std::map<std::string, std::string> checkpoints = {{"PublishedLease", "prepare.lease.0"},
                                                            {"RemovedFirstFile", "uninstall.0"},
                                                            {"RemovedSecondFile", "uninstall.1"},
                                                            {"ForgotVst3", vst3Forgotten},
                                                            {"RemovedThirdFile", "uninstall.2"},
                                                            {"RemovedFourthFile", "uninstall.3"},
                                                            {"ForgotAu", auForgotten},
                                                            {"RemovedFirstSharedFile", "uninstall.4"},
                                                            {"RemovedSharedFiles", "uninstall.5"},
                                                            {"ForgotSharedPackage", commonForgotten},
                                                            {"RemovedLease", "finish.lease.0"}};
    for (const auto& [name, checkpoint] : checkpoints) {
        points.push_back({"InUser" + name, &lastOfUser, checkpoint, ""});
        points.push_back({"InSystem" + name, &lastOfSystem, checkpoint, ""});
    }
    points.push_back({"AtTwoFiles", &lastOfUser, "uninstall.0", "uninstall.1"});
    points.push_back({"AtAFileThenAReceipt", &lastOfUser, "uninstall.0", auForgotten});
    points.push_back({"AtAReceiptThenAFile", &lastOfSystem, vst3Forgotten, "uninstall.1"});
    points.push_back({"AtTwoReceipts", &lastOfUser, auForgotten, commonForgotten});
    points.push_back({"AtALeaseThenAReceipt", &oneOfTwo, "prepare.lease.0", vst3Forgotten});
    points.push_back({"AtAFileThenTheEnd", &oneOfTwo, "uninstall.1", "finish.lease.0"});
    return points;
}

INSTANTIATE_TEST_SUITE_P(Every, InterruptedAtACheckpoint, ::testing::ValuesIn(interruptions()),
                         [](const auto& instance) { return instance.param.name; });

/// Which of the changes of one uninstallation the run is killed before.
class InterruptedBeforeAChange : public ::testing::TestWithParam<int> {};

TEST_P(InterruptedBeforeAChange, IsFinishedByTheNextRun)
{
    oneOfTwo.set();
    const Tree before = takeTree();
    const Ending ending = killedBeforeChange(oneOfTwo, GetParam());
    EXPECT_TRUE(ending == killed || ending == returned()) << ending;
    oneOfTwo.expectUnharmed(before);
    EXPECT_EQ(oneOfTwo.finish(), succeeded());
    oneOfTwo.expectFinished(before);
}

/// At least as many as one uninstallation makes.
constexpr int changesOfOneUninstallation = 55;

INSTANTIATE_TEST_SUITE_P(Every, InterruptedBeforeAChange, ::testing::Range(0, changesOfOneUninstallation),
                         [](const auto& instance) { return "Change" + std::to_string(instance.param); });

TEST(InterruptedUninstall, HasNoFurtherChangeToBeInterruptedAt)
{
    oneOfTwo.set();
    EXPECT_EQ(killedBeforeChange(oneOfTwo, changesOfOneUninstallation), returned());
}

/// Where the stand-in kills the run: the calls that a rule selects, before or after they do their work.
struct PkgutilPoint {
    std::string name;
    const Scene* scene;
    std::string selector;
    std::string moment;
};

std::ostream& operator<<(std::ostream& stream, const PkgutilPoint& point) { return stream << point.name; }

class InterruptedByPkgutil : public ::testing::TestWithParam<PkgutilPoint> {};

TEST_P(InterruptedByPkgutil, IsFinishedByTheNextRun)
{
    const Scene& scene = *GetParam().scene;
    scene.set();
    const Tree before = takeTree();
    instructPkgutil(killingAt(GetParam().selector, GetParam().moment));
    EXPECT_EQ(scene.finish(), endedBy(SIGKILL));
    instructPkgutil("");
    scene.expectUnharmed(before);
    EXPECT_EQ(scene.finish(), succeeded());
    scene.expectFinished(before);
}

/// Each inventory and each forgetting of the last product's uninstallation.
std::vector<PkgutilPoint> pkgutilPoints()
{
    std::vector<PkgutilPoint> points;
    for (const Scene* scene : {&lastOfUser, &lastOfSystem}) {
        const std::string where = scene->scope == "user" ? "InUser" : "InSystem";
        for (const char* nth : {"1", "2", "3", "4", "5", "6", "7", "8", "9"})
            points.push_back(
                {where + "BeforeListing" + nth, scene, std::string("command=--pkgs= nth=") + nth, "before"});
        for (const char* nth : {"1", "2", "3"}) {
            const std::string forgetting = std::string("command=--forget nth=") + nth;
            points.push_back({where + "BeforeForgetting" + nth, scene, forgetting, "before"});
            points.push_back({where + "AfterForgetting" + nth, scene, forgetting, "after"});
        }
    }
    return points;
}

INSTANTIATE_TEST_SUITE_P(Every, InterruptedByPkgutil, ::testing::ValuesIn(pkgutilPoints()),
                         [](const auto& instance) { return instance.param.name; });

/// Which inventory of the run fails; the first three come before anything is removed.
class FailingInventory : public ::testing::TestWithParam<int> {};

TEST_P(FailingInventory, LeavesAnUninstallationThatTheNextRunFinishes)
{
    const std::map<std::string, Outcome> failures = {
        {"exit=2", refused("pkgutil cannot enumerate authoritative package receipts")},
        {"kill=KILL", refused("pkgutil cannot enumerate authoritative package receipts")},
        {"match=prefix exit=0 long-line=1048576",
         refused("pkgutil returned an unexpected package identity")}};
    lastOfUser.set();
    const Tree before = takeTree();
    int nth = GetParam();
    for (const auto& [failure, outcome] : failures) {
        instructPkgutil("command=--pkgs= nth=" + std::to_string(nth) + " do " + failure + "\n");
        EXPECT_EQ(lastOfUser.finish(), outcome) << failure;
        lastOfUser.expectUnharmed(before);
        EXPECT_TRUE(isThere(leaseOf("user")));
        nth = 1; // of the resumed run
    }
    instructPkgutil("");
    EXPECT_EQ(lastOfUser.finish(), succeeded());
    lastOfUser.expectFinished(before);
}

INSTANTIATE_TEST_SUITE_P(Each, FailingInventory, ::testing::Range(4, 10),
                         [](const auto& instance) { return "Listing" + std::to_string(instance.param); });

TEST(InterruptedUninstall, ByAPathOfAMillionLettersEndsInOrderAndIsFinishedByTheNextRun)
{
    lastOfUser.set();
    const Tree before = takeTree();
    // Three inventories of three packages come first.
    instructPkgutil("command=--files nth=10 do long-line=1048576\n");
    EXPECT_EQ(lastOfUser.finish().status, 70);
    lastOfUser.expectUnharmed(before);
    instructPkgutil("");
    EXPECT_EQ(lastOfUser.finish(), succeeded());
    lastOfUser.expectFinished(before);
}

TEST(InterruptedUninstall, ByAnotherAccountAtTheConsoleIsFinishedWhenTheFirstOneIsBack)
{
    lastOfUser.set();
    const Tree before = takeTree();
    for (const std::string moment : {"command=--pkgs= nth=2", "command=--pkgs= nth=4", "command=--forget"}) {
        const std::string seat = "ACTIVE=1\\nACTIVE_UID=502\\nSESSIONS=1\\nUIDS=502\\n";
        instructPkgutil(moment + " do after=\"printf 'IS_SEAT0=1\\n" + seat +
                        "' > /run/systemd/seats/seat0\"\n");
        EXPECT_EQ(lastOfUser.finish(), refused("cannot resolve the invoking console account")) << moment;
        lastOfUser.expectUnharmed(before);
        setConsole(playerUid);
    }
    instructPkgutil("");
    EXPECT_EQ(lastOfUser.finish(), succeeded());
    lastOfUser.expectFinished(before);
}

TEST(InterruptedUninstall, ByAnEditedFileIsFinishedWhenTheFileIsBack)
{
    lastOfUser.set();
    const Tree before = takeTree();
    const std::string edited = rootOf("user") / auPath("alpha");
    instructPkgutil("command=--forget nth=1 do after=\"echo edited > '" + edited + "'\"\n");
    EXPECT_EQ(lastOfUser.finish(), refused("receipt-owned file changed; refusing uninstall"));
    EXPECT_EQ(readFile(edited), "edited\n");
    EXPECT_TRUE(isRegistered("user", alpha.au.id));
    placeFiles("user", alpha.au);
    lastOfUser.expectUnharmed(before);
    EXPECT_EQ(lastOfUser.finish(), succeeded());
    lastOfUser.expectFinished(before);
}

} // namespace
} // namespace maintenance::rehearsed
