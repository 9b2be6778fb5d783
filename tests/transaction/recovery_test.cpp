#include "transaction/recovery.h"

#include "transaction/preparing.h"
#include "transaction/transaction_directory.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const Outcome replayed = refused("maintenance transaction replay is refused");
const Outcome anotherActive = refused("another durable maintenance transaction is active");
const Outcome foreignLease = refused("completed transaction has a foreign active lease");
const Outcome locked = refused("another maintenance transaction is active");
const Outcome noDirectory = refused("fixed maintenance directory is missing or redirected");
const Outcome noPrepared = refused("prepared transaction state is missing or unsafe");
const Outcome noLease = refused("durable transaction lease is missing or unsafe");
const Outcome invalidState = refused("prepared transaction state is invalid");
const Outcome rebound = refused("prepared transaction descriptor binding changed");
const Outcome unsafeEntry = refused("transaction metadata contains a link or unsafe file");
const Outcome notInstalled = refused("uninstall descriptor does not match the installed product");

const Plugin alpha = plugin("alpha", "1.0");

/// The commands that finish a transaction which is already completed.
const std::vector<std::string> finishingCommands = {"commit-move", "rollback-move", "uninstall-product"};
const std::vector<std::string> changingCommands = {"prepare-move", "commit-move", "rollback-move",
                                                   "uninstall-product"};

/// The three places that a recovery changes.
struct Remains {
    bool completed = false;
    bool directory = false;
    bool prepared = false;
    std::vector<std::string> leases;

    bool operator==(const Remains&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Remains& remains)
{
    stream << (remains.completed ? "record " : "") << (remains.directory ? "directory " : "")
           << (remains.prepared ? "prepared " : "") << "leases:";
    for (const std::string& scope : remains.leases)
        stream << " " << scope;
    return stream;
}

Remains remainsOf(const Work& work)
{
    Remains remains{isThere(completedOf(work)), isThere(directoryOf(work)), isThere(preparedOf(work)), {}};
    for (const std::string& scope : work.involved())
        if (isThere(leaseOf(scope)))
            remains.leases.push_back(scope);
    return remains;
}

Remains absent() { return {}; }
Remains preparedIn(const Work& work) { return {false, true, true, work.involved()}; }
Remains completed() { return {true, false, false, {}}; }

/// Scenes in which the product is about to be installed, repaired (so that it could be uninstalled as well)
/// or moved.
struct Scene {
    const char* name;
    Work work;
    std::function<void()> lay;
    /// How a commit and an uninstallation end on the prepared transaction.
    Outcome commit;
    Outcome uninstall;
};

const Outcome notExact = refused("exact native package receipt is missing or has the wrong version");

std::vector<Scene> scenes()
{
    const auto repair = [](const std::string& scope) {
        return [scope] {
            install(scope, commonPackage());
            install(scope, alpha);
        };
    };
    return {
        {"install", Work("user").brings(alpha), [] {}, notExact, notInstalled},
        {"repair", Work("user").brings(alpha, "1.0"), repair("user"), succeeded(), succeeded()},
        {"system repair", Work("system").brings(alpha, "1.0"), repair("system"), succeeded(), succeeded()},
        {"move", Work("system").from("user").brings(alpha, "1.0"), repair("user"), notExact, notInstalled},
        {"move home", Work("user").from("system").brings(alpha, "1.0"), repair("system"), notExact,
         notInstalled},
    };
}

/// A state, how a freshly prepared transaction is brought into it, and what it is.
struct State {
    const char* name;
    std::function<void(const Work&, const std::string& text)> make;
};

void removeLeases(const Work& work)
{
    for (const std::string& scope : work.involved())
        removeAll(leaseOf(scope));
}

void makeAbsent(const Work& work, const std::string&)
{
    removeLeases(work);
    removeAll(directoryOf(work));
}

void makeCreating(const Work& work, const std::string&)
{
    removeLeases(work);
    removeAll(preparedOf(work));
}

void makeCompleted(const Work& work, const std::string& text)
{
    makeAbsent(work, text);
    plantCompleted(work, text);
}

/// Lays the scene out and brings its transaction into a state; returns its prepared text.
std::string bringTo(const Scene& scene, const std::function<void(const Work&, const std::string&)>& make)
{
    clearScene();
    scene.lay();
    const std::string text = bringToPrepared(scene.work);
    make(scene.work, text);
    return text;
}

/// The pending attempt of a begun installation.
std::string attemptText(const std::string& scope, const std::string& id)
{
    return "schema=tamarind.pelican.macos-maintenance-attempt.v1\nsku=studio-bundle\npackageRevision=7\n"
           "planSha256=" +
           generationOf('1') + "\ndescriptorSha256=" + generationOf('2') + "\ntransaction=" + id +
           "\ntargetScope=" + scope + "\n";
}

void plantAttempt(const std::string& scope, const std::string& id)
{
    writeFile(pendingOf(scope), attemptText(scope, id), {ownerOf(scope), 0600});
}

/// Expects the command to end so, and the transaction to be left so.
void expectCommand(const Scene& scene, const std::string& word, const Outcome& outcome,
                   const Remains& remains)
{
    EXPECT_EQ(command(word, scene.work), outcome) << scene.name << ": " << word;
    EXPECT_EQ(remainsOf(scene.work), remains) << scene.name << ": " << word;
}

TEST(TransactionState, AbsentIsOnlyThereForPrepareAndUninstall)
{
    for (const Scene& scene : scenes()) {
        const Work& work = scene.work;
        bringTo(scene, makeAbsent);
        expectCommand(scene, "commit-move", noDirectory, absent());
        expectCommand(scene, "rollback-move", noDirectory, absent());
        expectCommand(scene, "prepare-move", succeeded(), preparedIn(work));
        bringTo(scene, makeAbsent);
        const bool installed = scene.uninstall == succeeded();
        expectCommand(scene, "uninstall-product", scene.uninstall, installed ? completed() : absent());
    }
}

TEST(TransactionState, CreatingIsDiscardedAndBegunAnewByPrepareAndUninstall)
{
    for (const Scene& scene : scenes()) {
        const Work& work = scene.work;
        const Remains creating{false, true, false, {}};
        bringTo(scene, makeCreating);
        writeFile(directoryOf(work) / "target/half", "text", {ownerOf(work.authority()), 0600});
        expectCommand(scene, "commit-move", noPrepared, creating);
        expectCommand(scene, "rollback-move", noPrepared, creating);
        expectCommand(scene, "prepare-move", succeeded(), preparedIn(work));
        EXPECT_FALSE(isThere(directoryOf(work) / "target/half"));
        bringTo(scene, makeCreating);
        const bool installed = scene.uninstall == succeeded();
        expectCommand(scene, "uninstall-product", scene.uninstall, installed ? completed() : absent());
    }
}

TEST(TransactionState, PreparedWithoutALeaseIsCompletedByPrepareAndUninstall)
{
    for (const Scene& scene : scenes()) {
        const Work& work = scene.work;
        for (const std::string& scope : work.involved()) {
            const auto make = [&](const Work&, const std::string&) { removeAll(leaseOf(scope)); };
            Remains incomplete = preparedIn(work);
            std::erase(incomplete.leases, scope);
            const std::string text = bringTo(scene, make);
            expectCommand(scene, "commit-move", noLease, incomplete);
            expectCommand(scene, "rollback-move", noLease, incomplete);
            expectCommand(scene, "prepare-move", succeeded(), preparedIn(work));
            EXPECT_EQ(readFile(leaseOf(scope)), text);
            bringTo(scene, make);
            const bool installed = scene.uninstall == succeeded();
            expectCommand(scene, "uninstall-product", scene.uninstall,
                          installed ? completed() : preparedIn(work));
        }
    }
}

TEST(TransactionState, PreparedIsKeptByPrepareAndEndedByTheOthers)
{
    const auto asItIs = [](const Work&, const std::string&) {};
    for (const Scene& scene : scenes()) {
        const Work& work = scene.work;
        bringTo(scene, asItIs);
        expectCommand(scene, "prepare-move", succeeded(), preparedIn(work));
        expectCommand(scene, "rollback-move", succeeded(), completed());
        bringTo(scene, asItIs);
        // A commit that fails restores, and abandons the transaction.
        expectCommand(scene, "commit-move", scene.commit,
                      scene.commit == succeeded() ? completed() : Remains{false, true, true, {}});
        bringTo(scene, asItIs);
        expectCommand(scene, "uninstall-product", scene.uninstall,
                      scene.uninstall == succeeded() ? completed() : preparedIn(work));
    }
}

TEST(TransactionState, AbandonedIsTakenUpAgainByPrepareAndUninstall)
{
    const auto abandon = [](const Work& work, const std::string&) { removeLeases(work); };
    for (const Scene& scene : scenes()) {
        const Work& work = scene.work;
        const Remains abandoned{false, true, true, {}};
        const std::string text = bringTo(scene, abandon);
        expectCommand(scene, "commit-move", noLease, abandoned);
        expectCommand(scene, "rollback-move", noLease, abandoned);
        expectCommand(scene, "prepare-move", succeeded(), preparedIn(work));
        for (const std::string& scope : work.involved())
            EXPECT_EQ(readFile(leaseOf(scope)), text);
        EXPECT_EQ(readFile(preparedOf(work)), text);
        bringTo(scene, abandon);
        expectCommand(scene, "uninstall-product", scene.uninstall,
                      scene.uninstall == succeeded() ? completed() : preparedIn(work));
    }
}

/// Every way in which the clean-up of a completed transaction can have been interrupted.
std::vector<State> completedStates()
{
    return {
        {"with everything", [](const Work& work, const std::string& text) { plantCompleted(work, text); }},
        {"without leases",
         [](const Work& work, const std::string& text) {
             plantCompleted(work, text);
             removeLeases(work);
         }},
        {"without the first lease",
         [](const Work& work, const std::string& text) {
             plantCompleted(work, text);
             removeAll(leaseOf(work.involved().front()));
         }},
        {"without the last lease",
         [](const Work& work, const std::string& text) {
             plantCompleted(work, text);
             removeAll(leaseOf(work.involved().back()));
         }},
        {"without directory",
         [](const Work& work, const std::string& text) {
             plantCompleted(work, text);
             removeAll(directoryOf(work));
         }},
        {"without prepared state",
         [](const Work& work, const std::string& text) {
             plantCompleted(work, text);
             makeCreating(work, text);
         }},
        {"with nothing but the record", makeCompleted},
    };
}

/// Lays a transaction out that lost most of its snapshots, in the given state; returns its text.
std::string plantState(const Work& work, const State& state)
{
    clearScene();
    const std::string text = work.prepared(moveId, generationOf('a'));
    plantTransaction(work, text);
    writeFile(directoryOf(work) / "authority-target/manifest", "", {ownerOf(work.authority()), 0600});
    state.make(work, text);
    return text;
}

TEST(TransactionState, CompletedIsFinishedByEveryCommandButPrepare)
{
    for (const Work& work : everyKind(alpha))
        for (const State& state : completedStates())
            for (const std::string& word : finishingCommands) {
                const std::string text = plantState(work, state);
                const std::string what = kindOf(work) + " " + state.name + ": " + word;
                makeCompleted(work, text);
                const Tree finished = takeTree();
                plantState(work, state);
                EXPECT_EQ(command(word, work), succeeded()) << what;
                EXPECT_EQ(changesSince(finished), "") << what;
            }
}

TEST(TransactionState, CompletedIsNeverPreparedAgain)
{
    for (const Work& work : everyKind(alpha))
        for (const State& state : completedStates()) {
            plantState(work, state);
            const Tree before = takeTree();
            EXPECT_EQ(prepareMove(work), replayed) << kindOf(work) << " " << state.name;
            EXPECT_EQ(changesSince(before), "") << kindOf(work) << " " << state.name;
        }
}

TEST(TransactionState, CompletedAndCleanedUpIsLeftAlone)
{
    for (const Scene& scene : scenes()) {
        bringTo(scene, [](const Work&, const std::string&) {});
        ASSERT_EQ(command("rollback-move", scene.work), succeeded());
        const Tree before = takeExactTree();
        for (const std::string& word : finishingCommands)
            EXPECT_EQ(command(word, scene.work), succeeded()) << scene.name << " " << word;
        EXPECT_EQ(prepareMove(scene.work), replayed) << scene.name;
        EXPECT_EQ(difference(before, takeExactTree()), "") << scene.name;
    }
}

TEST(TransactionState, DoesNotMatterToInspect)
{
    std::vector<State> states = completedStates();
    states.push_back({"absent", makeAbsent});
    states.push_back({"creating", makeCreating});
    states.push_back({"abandoned", [](const Work& work, const std::string&) { removeLeases(work); }});
    states.push_back({"prepared", [](const Work&, const std::string&) {}});
    const Work work = Work("user").brings(alpha);
    for (const State& state : states) {
        plantState(work, state);
        const HeldLock lock("user");
        const Tree before = takeExactTree();
        EXPECT_EQ(command("inspect", work), succeeded("{\"status\":\"clean\"}\n")) << state.name;
        EXPECT_EQ(difference(before, takeExactTree()), "") << state.name;
    }
}

TEST(TransactionState, OfABegunInstallationIsToldApartByBeginInstall)
{
    for (const std::string scope : {"user", "system"}) {
        clearScene();
        Surroundings surroundings;
        surroundings.tool = placeTool(scope, planText({alpha}));
        const Outcome begun = run({"begin-install", scope}, surroundings);
        ASSERT_EQ(begun.status, 0) << begun;
        const std::string id = begun.out.substr(0, begun.out.size() - 1);
        const Work work = Work(scope).brings(alpha);
        ASSERT_EQ(prepareMove(work, id), succeeded());
        const std::string text = readFile(preparedOf(work, id));
        EXPECT_EQ(text, work.prepared(id, fieldOf(text, "generation")));

        const Tree prepared = takeExactTree();
        EXPECT_EQ(run({"begin-install", scope}, surroundings), begun);
        EXPECT_EQ(difference(prepared, takeExactTree()), "");

        plantCompleted(work, text, id);
        EXPECT_EQ(run({"begin-install", scope}, surroundings), begun);
        EXPECT_TRUE(isThere(completedOf(work, id)));
        for (const auto& gone : {leaseOf(scope), directoryOf(work, id), pendingOf(scope)})
            EXPECT_FALSE(isThere(gone)) << gone;
    }
}

TEST(TransactionState, IsNotLookedAtWhileAnotherRunHoldsAnInvolvedScope)
{
    std::vector<State> states = {
        completedStates().front(),
        {"creating", makeCreating},
        {"abandoned", [](const Work& work, const std::string&) { removeLeases(work); }}};
    for (const Work& work : everyKind(alpha))
        for (const State& state : states)
            for (const std::string& scope : work.involved()) {
                plantState(work, state);
                const HeldLock lock(scope);
                const Tree before = takeTree();
                for (const std::string& word : changingCommands)
                    EXPECT_EQ(command(word, work), locked)
                        << kindOf(work) << " " << state.name << " " << scope << ": " << word;
                EXPECT_EQ(changesSince(before), "");
            }
}

const State completedWithEverything = completedStates().front();
const State preparedState = {"prepared", [](const Work&, const std::string&) {}};

/// Runs the commands, all of which must end so and change nothing.
void expectRefusals(const Work& work, const std::vector<std::string>& words, const Outcome& refusal,
                    const std::string& what)
{
    const Tree before = takeTree();
    for (const std::string& word : words)
        EXPECT_EQ(command(word, work), refusal) << kindOf(work) << " " << what << ": " << word;
    EXPECT_EQ(changesSince(before), "") << kindOf(work) << " " << what;
}

/// Texts that are not exactly the one of the work's transaction.
std::vector<std::string> otherTexts(const Work& work)
{
    const std::string text = work.prepared(moveId, generationOf('a'));
    return {work.prepared(moveId, generationOf('b')),
            work.prepared("move-10", generationOf('a')),
            reversed(text),
            text + "\n",
            text.substr(0, text.size() - 1),
            ""};
}

TEST(RecoverCompleted, RefusesAForeignLeaseInAnyInvolvedScope)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const std::string& other : otherTexts(work)) {
                plantState(work, completedWithEverything);
                writeFile(leaseOf(scope), other, {ownerOf(scope), 0600});
                expectRefusals(work, finishingCommands, foreignLease, scope + " " + other);
            }
}

TEST(RecoverCompleted, IgnoresTheLeaseOfAScopeThatIsNotInvolved)
{
    for (const std::string scope : {"user", "system"}) {
        const Work work = Work(scope).brings(alpha);
        plantState(work, completedWithEverything);
        writeFile(leaseOf(oppositeOf(scope)), "another's\n", {ownerOf(oppositeOf(scope)), 0600});
        EXPECT_EQ(command("commit-move", work), succeeded());
        EXPECT_EQ(readFile(leaseOf(oppositeOf(scope))), "another's\n");
    }
}

TEST(RecoverCompleted, RefusesAnUnsafeLease)
{
    using std::filesystem::path;
    const std::vector<std::pair<std::function<void(const path&)>, Outcome>> plants = {
        {[](const path& lease) { makeLink(lease, "/etc/passwd"); }, noLease},
        {[](const path& lease) { makeLink(lease, "nowhere"); }, noLease},
        {[](const path& lease) { makePipe(lease); }, noLease},
        {[](const path& lease) { makeSocket(lease); }, noLease},
        {[](const path& lease) { makeDirectories(lease); }, noLease},
        {[](const path& lease) {
             writeFile(lease, "text", {502, 0600});
         },
         refused("durable transaction lease ownership or mode is unsafe")},
    };
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const auto& [plant, refusal] : plants) {
                plantState(work, completedWithEverything);
                removeAll(leaseOf(scope));
                plant(leaseOf(scope));
                expectRefusals(work, {"commit-move"}, refusal, describe(leaseOf(scope)));
            }
}

TEST(RecoverCompleted, LooksAtTheLeasesInTheirOrder)
{
    const Work work = Work("user").from("system").brings(alpha);
    plantState(work, completedWithEverything);
    writeFile(leaseOf("system"), "another's\n");
    setMode(leaseOf("user"), 0666);
    expectRefusals(work, {"commit-move"}, foreignLease, "foreign source");
    removeAll(leaseOf("system"));
    expectRefusals(work, {"commit-move"}, refused("durable transaction lease ownership or mode is unsafe"),
                   "unsafe target");
}

TEST(RecoverCompleted, RefusesARecordThatIsNoneOfItsOwn)
{
    const Work work = Work("user").brings(alpha);
    const std::string text = work.prepared(moveId, generationOf('a'));
    const std::map<std::string, Outcome> records = {
        {"", invalidState},
        {"text\n", invalidState},
        {text + "\n", invalidState},
        {withField(text, "generation", generationOf('A')), invalidState},
        {work.prepared("move-2", generationOf('a')), rebound},
        {withField(text, "sourceScope", "system"), rebound},
        {withField(text, "targetScope", "system"), rebound},
        {withField(text, "descriptorSha256", generationOf('0')), rebound},
        {withField(text, "canonicalSha256", generationOf('0')), rebound},
    };
    for (const auto& [record, refusal] : records) {
        plantState(work, completedWithEverything);
        plantCompleted(work, record);
        expectRefusals(work, finishingCommands, refusal, record);
    }
}

TEST(RecoverCompleted, RefusesARecordThatIsUnsafe)
{
    using std::filesystem::path;
    const Outcome unsafe = refused("prepared transaction state ownership or mode is unsafe");
    const std::vector<std::pair<std::function<void(const path&)>, Outcome>> spoilings = {
        {[](const path& record) {
             removeAll(record);
             makeLink(record, "nowhere");
         },
         noPrepared},
        {[](const path& record) {
             std::filesystem::rename(record, record.native() + ".other");
             makeLink(record, record.native() + ".other");
         },
         noPrepared},
        {[](const path& record) {
             removeAll(record);
             makePipe(record);
         },
         noPrepared},
        {[](const path& record) {
             removeAll(record);
             makeDirectories(record);
         },
         noPrepared},
        {[](const path& record) { makeHardLink(record.native() + ".other", record); }, noPrepared},
        {[](const path& record) { setMode(record, 0660); }, unsafe},
        {[](const path& record) { setMode(record, 0606); }, unsafe},
        {[](const path& record) { setOwner(record, 502); }, unsafe},
    };
    for (const std::string scope : {"user", "system"}) {
        const Work work = Work(scope).brings(alpha);
        for (const auto& [spoil, refusal] : spoilings) {
            plantState(work, completedWithEverything);
            spoil(completedOf(work));
            expectRefusals(work, finishingCommands, refusal, describe(completedOf(work)));
        }
    }
}

TEST(RecoverCompleted, ReadsTheRecordUnderTheAuthoritysRules)
{
    for (const std::string target : {"user", "system"}) {
        const Work work = Work(target).from(oppositeOf(target)).brings(alpha);
        plantState(work, completedWithEverything);
        EXPECT_EQ(describe(completedOf(work)), "file 0 0600");
        setOwner(completedOf(work), playerUid);
        expectRefusals(work, finishingCommands,
                       refused("prepared transaction state ownership or mode is unsafe"), target);
    }
}

TEST(RecoverCompleted, RefusesADescriptorThatWasEditedSince)
{
    const Work work = Work("user").brings(alpha);
    plantState(work, completedWithEverything);
    publishText("user", withField(work.text(), "sku", "other-bundle"), moveId);
    expectRefusals(work, finishingCommands, rebound, "edited");
}

TEST(RecoverCompleted, RefusesADirectoryWithAForeignEntryBeforeAnythingIsRemoved)
{
    for (const Work& work : everyKind(alpha)) {
        plantState(work, completedWithEverything);
        makeLink(directoryOf(work) / "authority-target/link", "manifest");
        expectRefusals(work, finishingCommands, unsafeEntry, "link inside");
        removeAll(directoryOf(work));
        makeLink(directoryOf(work), "nowhere");
        expectRefusals(work, finishingCommands, noDirectory, "link");
        removeAll(directoryOf(work));
        writeFile(directoryOf(work), "text", {ownerOf(work.authority()), 0600});
        expectRefusals(work, finishingCommands, noDirectory, "file");
    }
}

TEST(RecoverCompleted, ClearsThePendingAttemptOfItsTransactionOnly)
{
    for (const Work& work : everyKind(alpha))
        for (const State& state : {completedWithEverything, completedStates().back()}) {
            plantState(work, state);
            plantAttempt(work.target(), moveId);
            if (work.source() != "none")
                plantAttempt(work.source(), moveId);
            EXPECT_EQ(command("commit-move", work), succeeded()) << kindOf(work);
            EXPECT_FALSE(isThere(pendingOf(work.target()))) << kindOf(work);
            if (work.source() != "none") {
                EXPECT_EQ(readFile(pendingOf(work.source())), attemptText(work.source(), moveId));
            }

            plantState(work, state);
            plantAttempt(work.target(), "move-10");
            EXPECT_EQ(command("commit-move", work), succeeded()) << kindOf(work);
            EXPECT_EQ(readFile(pendingOf(work.target())), attemptText(work.target(), "move-10"));
        }
}

TEST(RecoverCompleted, StopsAtAPendingAttemptThatCannotBeRead)
{
    using std::filesystem::path;
    const Outcome missing = refused("pending installation attempt is missing or unsafe");
    const std::vector<std::pair<std::function<void(const path&)>, Outcome>> attempts = {
        {[](const path& attempt) {
             writeFile(attempt, "text\n", {playerUid, 0600});
         },
         refused("pending installation attempt is invalid")},
        {[](const path& attempt) {
             writeFile(attempt, attemptText("user", moveId) + "\n", {playerUid, 0600});
         },
         refused("pending installation attempt is invalid")},
        {[](const path& attempt) {
             writeFile(attempt, attemptText("user", moveId), {playerUid, 0660});
         },
         missing},
        {[](const path& attempt) {
             writeFile(attempt, attemptText("user", moveId), {rootUid, 0600});
         },
         missing},
        {[](const path& attempt) { makeLink(attempt, "nowhere"); }, missing},
        {[](const path& attempt) { makePipe(attempt, playerUid); }, missing},
        {[](const path& attempt) {
             makeDirectories(attempt, {playerUid, 0755});
         },
         missing},
    };
    const Work work = Work("user").brings(alpha);
    for (const auto& [plant, refusal] : attempts) {
        plantState(work, completedWithEverything);
        plant(pendingOf("user"));
        const std::string what = describe(pendingOf("user"));
        EXPECT_EQ(command("commit-move", work), refusal) << what;
        EXPECT_EQ(describe(pendingOf("user")), what);
        EXPECT_EQ(remainsOf(work), completed()) << what;
        expectRefusals(work, finishingCommands, refusal, what);
        removeAll(pendingOf("user"));
        EXPECT_EQ(command("commit-move", work), succeeded());
    }
}

TEST(RecoverCompleted, StopsWhereItCannotTellWhetherAnAttemptIsPending)
{
    const Work work = Work("user").brings(alpha);
    plantState(work, completedWithEverything);
    const Decide decide = [](const SystemCall& call) {
        return call.is(SYS_newfstatat, pendingOf("user").native()) ? EIO : 0;
    };
    EXPECT_EQ(runStopping({SYS_newfstatat}, decide, {"commit-move", "user", moveId}),
              refused("pending installation attempt cannot be inspected"));
    EXPECT_EQ(remainsOf(work), completed());
}

TEST(RecoverCompleted, RemovesLeasesFirstThenThePreparedStateThenTheRest)
{
    const Work work = Work("system").from("user").brings(alpha);
    plantState(work, completedWithEverything);
    std::vector<std::string> steps;
    const Decide record = [&](const SystemCall& call) {
        if (call.number == SYS_unlinkat)
            steps.push_back("remove " + call.text(1));
        else
            steps.push_back("sync " + std::filesystem::path(fileOf(call)).filename().native());
        return 0;
    };
    EXPECT_EQ(runStopping({SYS_unlinkat, SYS_fsync}, record, {"commit-move", "system", moveId}), succeeded());
    // The lock files of both scopes are new.
    std::erase(steps, "sync maintenance.lock");
    const std::vector<std::string> expected = {
        "remove ActiveTransaction", "sync Maintenance",        "remove ActiveTransaction",
        "sync Maintenance",         "remove prepared",         "sync move-1",
        "remove manifest",          "remove authority-target", "remove move-1",
        "sync Transactions"};
    EXPECT_EQ(steps, expected);
}

TEST(RecoverCompleted, IsFinishedByTheNextRunWhereverItWasKilled)
{
    for (const Work& work : {Work("user").brings(alpha), Work("system").from("user").brings(alpha)}) {
        for (int nth = 1;; ++nth) {
            plantState(work, completedWithEverything);
            plantAttempt(work.target(), moveId);
            int count = 0;
            const Decide decide = [&](const SystemCall& call) {
                return ++count == nth ? killedInCall(call) : 0;
            };
            const Outcome outcome =
                runStopping({SYS_unlinkat, SYS_fsync}, decide, {"commit-move", work.target(), moveId});
            if (outcome == succeeded())
                break;
            ASSERT_EQ(outcome, endedBy(SIGKILL));
            ASSERT_LT(nth, 50);
            EXPECT_EQ(prepareMove(work), replayed) << nth;
            EXPECT_EQ(command("rollback-move", work), succeeded()) << nth;
            EXPECT_EQ(remainsOf(work), completed()) << nth;
            EXPECT_FALSE(isThere(pendingOf(work.target()))) << nth;
        }
    }
}

TEST(RecoverCompleted, KeepsTheRecordWhenSomethingCannotBeRemoved)
{
    const Work work = Work("system").from("user").brings(alpha);
    const std::map<std::string, Outcome> failures = {
        {"ActiveTransaction", refused("cannot remove unsafe fixed metadata file")},
        {"prepared", refused("cannot remove unsafe fixed metadata file")},
        {"manifest", refused("cannot remove unsafe fixed metadata file")},
        {"authority-target", refused("cannot remove fixed metadata directory")},
        {moveId, refused("cannot remove fixed metadata directory")},
    };
    for (const auto& failure : failures) {
        const std::string& name = failure.first;
        const std::string text = plantState(work, completedWithEverything);
        const Decide decide = [&](const SystemCall& call) { return call.text(1) == name ? EIO : 0; };
        EXPECT_EQ(runStopping({SYS_unlinkat}, decide, {"commit-move", "system", moveId}), failure.second)
            << name;
        EXPECT_EQ(readFile(completedOf(work)), text) << name;
        EXPECT_EQ(command("commit-move", work), succeeded()) << name;
        EXPECT_EQ(remainsOf(work), completed()) << name;
    }
}

TEST(RecoverCompleted, TellsWhetherThereWasSomething)
{
    const Work work = Work("user").brings(alpha);
    plantState(work, {"absent", makeAbsent});
    EXPECT_FALSE(recoverCompleted(parse("user", moveId)));
    plantState(work, preparedState);
    EXPECT_FALSE(recoverCompleted(parse("user", moveId)));
    EXPECT_EQ(remainsOf(work), preparedIn(work));
    plantState(work, completedWithEverything);
    EXPECT_TRUE(recoverCompleted(parse("user", moveId)));
    EXPECT_TRUE(recoverCompleted(parse("user", moveId)));
}

TEST(ResumePrepared, TellsWhetherThereWasSomething)
{
    const Work work = Work("user").brings(alpha);
    plantState(work, {"absent", makeAbsent});
    EXPECT_FALSE(resumePrepared(parse("user", moveId)));
    plantState(work, {"creating", makeCreating});
    EXPECT_FALSE(resumePrepared(parse("user", moveId)));
    EXPECT_EQ(remainsOf(work), absent());
    plantState(work, preparedState);
    EXPECT_TRUE(resumePrepared(parse("user", moveId)));
    EXPECT_EQ(remainsOf(work), preparedIn(work));
}

const std::vector<std::string> resumingCommands = {"prepare-move", "uninstall-product"};

TEST(ResumePrepared, RefusesAForeignLeaseInAnyInvolvedScope)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const std::string& other : otherTexts(work)) {
                plantState(work, preparedState);
                writeFile(leaseOf(scope), other, {ownerOf(scope), 0600});
                expectRefusals(work, resumingCommands, anotherActive, scope + " " + other);
            }
}

TEST(ResumePrepared, PublishesNoLeaseBesideAForeignOne)
{
    for (const Work& work : everyKind(alpha)) {
        if (work.source() == "none")
            continue;
        for (const std::string& scope : work.involved()) {
            plantState(work, preparedState);
            removeLeases(work);
            writeFile(leaseOf(scope), work.prepared(moveId, generationOf('b')), {ownerOf(scope), 0600});
            expectRefusals(work, resumingCommands, anotherActive, scope);
        }
    }
}

TEST(ResumePrepared, RefusesAnUnsafeLease)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved()) {
            plantState(work, preparedState);
            setMode(leaseOf(scope), 0662);
            expectRefusals(work, resumingCommands,
                           refused("durable transaction lease ownership or mode is unsafe"), scope);
            removeAll(leaseOf(scope));
            makeLink(leaseOf(scope), preparedOf(work));
            expectRefusals(work, resumingCommands, noLease, scope);
        }
}

TEST(ResumePrepared, RefusesAnotherDescriptorsState)
{
    const Work work = Work("user").brings(alpha);
    const std::string text = work.prepared(moveId, generationOf('a'));
    for (const std::string& other :
         {work.prepared("move-2", generationOf('a')), withField(text, "descriptorSha256", generationOf('0')),
          withField(text, "sourceScope", "system")}) {
        plantState(work, preparedState);
        plantPrepared(work, other);
        plantLeases(work, other);
        expectRefusals(work, resumingCommands, rebound, other);
    }
}

TEST(ResumePrepared, RefusesADirectoryThatIsNone)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        publish(work, moveId);
        const uid_t owner = ownerOf(work.authority());
        const std::filesystem::path place = directoryOf(work);
        makeLink(place, "nowhere");
        expectRefusals(work, changingCommands, noDirectory, "dangling link");
        removeAll(place);
        makeDirectories(place.parent_path() / "other", {owner, 0700});
        makeLink(place, "other");
        expectRefusals(work, changingCommands, noDirectory, "link");
        removeAll(place);
        writeFile(place, "text", {owner, 0600});
        expectRefusals(work, changingCommands, noDirectory, "file");
        removeAll(place);
        makePipe(place, owner);
        expectRefusals(work, changingCommands, noDirectory, "pipe");
    }
}

TEST(ResumePrepared, RefusesADirectoryThatIsUnsafe)
{
    for (const Work& work : everyKind(alpha)) {
        plantState(work, preparedState);
        setMode(directoryOf(work), 0770);
        expectRefusals(work, changingCommands, refused("maintenance directory ownership or mode is unsafe"),
                       "mode");
        setMode(directoryOf(work), 0700);
        setOwner(directoryOf(work), 502);
        expectRefusals(work, changingCommands, refused("maintenance directory ownership is unsafe"), "owner");
    }
}

TEST(ResumePrepared, RefusesADirectoryInThePreparedStatesPlace)
{
    const Work work = Work("user").brings(alpha);
    plantState(work, preparedState);
    removeAll(preparedOf(work));
    makeDirectories(preparedOf(work), {playerUid, 0755});
    expectRefusals(work, changingCommands, noPrepared, "directory");
}

TEST(ResumePrepared, DiscardsNothingWhileALeaseNamesTheTransaction)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const std::string& lease :
                 {work.prepared(moveId, generationOf('a')), work.prepared(moveId, generationOf('b')),
                  std::string("transaction=move-1"), std::string("transaction=move-1\nlater\n")}) {
                plantState(work, {"creating", makeCreating});
                writeFile(leaseOf(scope), lease, {ownerOf(scope), 0600});
                expectRefusals(work, resumingCommands, anotherActive, scope + " " + lease);
            }
}

TEST(ResumePrepared, DiscardsAnUnpreparedDirectoryThatNoLeaseNames)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const std::string& word : resumingCommands) {
                plantState(work, {"creating", makeCreating});
                const std::string lease = work.prepared("move-10", generationOf('a'));
                writeFile(leaseOf(scope), lease, {ownerOf(scope), 0600});
                EXPECT_EQ(command(word, work), anotherActive) << kindOf(work) << " " << word;
                EXPECT_EQ(remainsOf(work), (Remains{false, false, false, {scope}})) << kindOf(work);
                EXPECT_EQ(readFile(leaseOf(scope)), lease);
            }
}

TEST(ResumePrepared, DiscardsAnUnpreparedDirectoryBesideWhatIsNoLeaseOfIts)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved())
            for (const bool link : {false, true})
                for (const std::string& word : resumingCommands) {
                    plantState(work, {"creating", makeCreating});
                    if (link)
                        makeLink(leaseOf(scope), "nowhere");
                    else
                        writeFile(leaseOf(scope), "somebody's own\n", {502, 0666});
                    EXPECT_EQ(command(word, work), anotherActive) << kindOf(work) << " " << word;
                    EXPECT_FALSE(isThere(directoryOf(work))) << kindOf(work) << " " << word;
                    removeAll(leaseOf(scope));
                }
}

TEST(ResumePrepared, DiscardsNothingWhileALeaseMayBeTheTransactionsOwn)
{
    const Work work = Work("user").brings(alpha);
    const std::string own = work.prepared(moveId, generationOf('a'));
    const std::vector<std::function<void()>> leases = {
        [&] {
            writeFile(leaseOf("user"), own, {playerUid, 0666});
        },
        [&] {
            writeFile(leaseOf("user"), own, {rootUid, 0600});
        },
        [&] {
            writeFile(leaseOf("user"), std::string(1048577, 'x'), {playerUid, 0600});
        },
        [&] {
            writeFile("/Users/Shared/other", "text", {playerUid, 0600});
            makeHardLink(leaseOf("user"), "/Users/Shared/other");
        },
    };
    for (const auto& make : leases) {
        plantState(work, {"creating", makeCreating});
        removeAll(leaseOf("user"));
        make();
        EXPECT_EQ(prepareMove(work), anotherActive) << describe(leaseOf("user"));
        EXPECT_TRUE(isThere(directoryOf(work))) << describe(leaseOf("user"));
    }
}

TEST(ResumePrepared, IgnoresALeaseOfAScopeThatIsNotInvolved)
{
    const Work work = Work("user").brings(alpha);
    plantState(work, {"creating", makeCreating});
    writeFile(leaseOf("system"), work.prepared(moveId, generationOf('a')));
    EXPECT_EQ(prepareMove(work), succeeded());
    EXPECT_EQ(remainsOf(work), preparedIn(work));
}

TEST(ResumePrepared, NeverDiscardsADirectoryWithAForeignEntry)
{
    const Work work = Work("user").brings(alpha);
    plantState(work, {"creating", makeCreating});
    makeHardLink(directoryOf(work) / "second", directoryOf(work) / "authority-target/manifest");
    expectRefusals(work, resumingCommands, unsafeEntry, "hard link");
}

TEST(ResumePrepared, LeavesTheMissingLeaseMissingWhenItCannotBePublished)
{
    const Work work = Work("system").from("user").brings(alpha);
    plantState(work, preparedState);
    removeAll(leaseOf("system"));
    const Tree before = takeTree();
    const Decide decide = [](const SystemCall&) { return EIO; };
    EXPECT_EQ(runStopping({SYS_renameat}, decide, {"prepare-move", "system", moveId}),
              failed("cannot publish fixed metadata"));
    EXPECT_EQ(changesSince(before), "");
    EXPECT_EQ(prepareMove(work), succeeded());
    EXPECT_EQ(remainsOf(work), preparedIn(work));
}

/// The transaction's files with what they hold, the generation apart.
Tree undisturbed(const Work& work)
{
    Tree tree = takeTree();
    tree.at(preparedOf(work).native()) = "prepared text";
    for (const std::string& scope : work.involved())
        tree.at(leaseOf(scope).native()) = "prepared text";
    return tree;
}

/// Kills prepare-move before every call that changes the disk in turn, and lets another run follow.
void killEverywhere(const Work& work, const std::function<void()>& lay, int fewest)
{
    clearScene();
    lay();
    ASSERT_EQ(prepareMove(work), succeeded());
    const Tree expected = undisturbed(work);
    int nth = 1;
    for (;; ++nth) {
        clearScene();
        lay();
        int count = 0;
        const Decide decide = [&](const SystemCall& call) {
            const bool changes = call.number != SYS_openat || (call.arguments.at(2) & O_CREAT) != 0;
            return changes && isTools(call) && ++count == nth ? killedInCall(call) : 0;
        };
        const Outcome outcome = runStopping(
            {SYS_mkdirat, SYS_openat, SYS_fchown, SYS_fchmod, SYS_fsync, SYS_renameat, SYS_unlinkat}, decide,
            {"prepare-move", work.target(), moveId});
        if (outcome == succeeded())
            break;
        ASSERT_EQ(outcome, endedBy(SIGKILL)) << nth;
        ASSERT_LT(nth, 400);
        EXPECT_EQ(prepareMove(work), succeeded()) << nth;
        EXPECT_EQ(difference(expected, undisturbed(work)), "") << nth;
        const std::string text = readFile(preparedOf(work));
        EXPECT_EQ(text, work.prepared(moveId, fieldOf(text, "generation"))) << nth;
        for (const std::string& scope : work.involved())
            EXPECT_EQ(readFile(leaseOf(scope)), text) << nth;
    }
    EXPECT_GT(nth, fewest);
}

/// A product of one file, whose transactions are short.
Plugin leanProduct()
{
    Plugin lean = alpha;
    lean.vst3.files = {{vst3Path("alpha"), "code\n"}};
    lean.au.files.clear();
    return lean;
}

TEST(InterruptedPreparation, OfTheUserScopeIsFinishedByTheNextRun)
{
    const Work work = Work("user").brings(leanProduct());
    const auto lay = [&] {
        publish(work, moveId);
        // All but the inbox is made by the run itself.
        for (const char* name : {"Transactions", "Products", "NativeReceipts", "Completed"})
            removeAll(maintenanceOf("user") / name);
    };
    killEverywhere(work, lay, 40);
}

TEST(InterruptedPreparation, OfTheSystemScopeIsFinishedByTheNextRun)
{
    const Work work = Work("system").brings(leanProduct());
    killEverywhere(
        work, [&] { publish(work, moveId); }, 30);
}

TEST(InterruptedPreparation, BetweenTheLeasesOfAMoveIsFinishedByTheNextRun)
{
    for (const std::string target : {"user", "system"})
        for (const int leases : {0, 1}) {
            const Work work = Work(target).from(oppositeOf(target)).brings(alpha);
            clearScene();
            installSource(work, alpha);
            publish(work, moveId);
            int published = 0;
            const Decide decide = [&](const SystemCall& call) {
                return call.text(3) == "ActiveTransaction" && published++ == leases ? killedInCall(call) : 0;
            };
            EXPECT_EQ(runStopping({SYS_renameat}, decide, {"prepare-move", target, moveId}),
                      endedBy(SIGKILL));
            Remains incomplete = preparedIn(work);
            incomplete.leases.resize(static_cast<std::size_t>(leases));
            EXPECT_EQ(remainsOf(work), incomplete) << target << " " << leases;
            const std::string text = readFile(preparedOf(work));
            EXPECT_EQ(command("commit-move", work), noLease);
            EXPECT_EQ(command("rollback-move", work), noLease);
            EXPECT_EQ(prepareMove(work), succeeded());
            EXPECT_EQ(remainsOf(work), preparedIn(work));
            for (const std::string& scope : work.involved()) {
                EXPECT_EQ(readFile(leaseOf(scope)), text);
                for (const std::string& name : namesIn(maintenanceOf(scope)))
                    EXPECT_EQ(name.find(".new."), std::string::npos) << name;
            }
            EXPECT_EQ(command("rollback-move", work), succeeded());
        }
}

TEST(InterruptedPreparation, ThatWasBeingDiscardedIsDiscardedByTheNextRun)
{
    const Work work = Work("user").brings(leanProduct());
    for (int nth = 1;; ++nth) {
        plantState(work, {"creating", makeCreating});
        writeFile(directoryOf(work) / "target-absent/0", "absent\n", {playerUid, 0600});
        int count = 0;
        const Decide decide = [&](const SystemCall& call) {
            return isTools(call) && ++count == nth ? killedInCall(call) : 0;
        };
        const Outcome outcome = runStopping({SYS_unlinkat}, decide, {"prepare-move", "user", moveId});
        if (outcome == succeeded()) {
            // Two files, two directories and the transaction's own.
            EXPECT_EQ(nth, 5 + 1);
            return;
        }
        ASSERT_EQ(outcome, endedBy(SIGKILL));
        ASSERT_LT(nth, 50);
        EXPECT_EQ(prepareMove(work), succeeded()) << nth;
        EXPECT_EQ(remainsOf(work), preparedIn(work)) << nth;
    }
}

} // namespace
} // namespace maintenance::rehearsed
