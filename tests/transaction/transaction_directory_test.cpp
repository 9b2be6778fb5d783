#include "transaction/transaction_directory.h"

#include "fs/directory_entries.h"
#include "fs/trouble.h"
#include "transaction/preparing.h"
#include "transaction/transaction_scopes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

const char* const alreadyThere = "maintenance transaction already exists";
const char* const notCreated = "cannot create maintenance transaction securely";
const char* const redirectedInCreation = "maintenance transaction was redirected during creation";
const char* const notInspected = "cannot inspect transaction directory";
const char* const changedInValidation = "transaction metadata changed during validation";
const char* const redirectedEntry = "transaction metadata contains a redirected directory";
const char* const unsafeEntry = "transaction metadata contains a link or unsafe file";
const char* const unsafeMode = "maintenance directory ownership or mode is unsafe";
const char* const unsafeOwner = "maintenance directory ownership is unsafe";
const char* const redirected = "fixed maintenance directory is missing or redirected";
const char* const replayed = "maintenance transaction replay is refused";
const char* const anotherActive = "another durable maintenance transaction is active";
const char* const missingLease = "durable transaction lease is missing or unsafe";

const Plugin alpha = plugin("alpha", "1.0");
const std::vector<std::string> changingCommands = {"prepare-move", "commit-move", "rollback-move",
                                                   "uninstall-product"};

using Plant = std::function<void(const std::filesystem::path&)>;

Descriptor descriptorFor(const Work& work) { return parse(work.target(), moveId); }

std::string textFor(const Work& work) { return work.prepared(moveId, generationOf('a')); }

/// Lays a prepared transaction out anew, with a snapshot in it.
void plantAnew(const Work& work)
{
    clearScene();
    plantTransaction(work, textFor(work));
    writeFile(directoryOf(work) / "authority-target/manifest", "", {ownerOf(work.authority()), 0600});
}

Ending creating(const Work& work)
{
    return endingOf([&] { createTransactionDirectory(descriptorFor(work)); });
}

Ending validating(const Work& work)
{
    return endingOf([&] { validateTransactionDirectory(descriptorFor(work)); });
}

/// Every command that uses an existing transaction must end so and change nothing.
void expectRefusals(const Work& work, const std::string& message, const std::string& what)
{
    const Tree before = takeTree();
    for (const std::string& word : changingCommands)
        EXPECT_EQ(command(word, work), refused(message)) << kindOf(work) << " " << what << ": " << word;
    EXPECT_EQ(changesSince(before), "") << kindOf(work) << " " << what;
}

TEST(TransactionScopes, AreTheSourceThenTheTarget)
{
    using Scopes = std::vector<std::string>;
    const std::map<std::pair<std::string, std::string>, std::pair<std::string, Scopes>> cases = {
        {{"none", "user"}, {"user", {"user"}}},
        {{"none", "system"}, {"system", {"system"}}},
        {{"user", "system"}, {"system", {"user", "system"}}},
        {{"system", "user"}, {"system", {"system", "user"}}},
    };
    for (const auto& [scopes, expected] : cases) {
        Descriptor descriptor;
        descriptor.sourceScope = scopes.first;
        descriptor.targetScope = scopes.second;
        EXPECT_EQ(authorityScope(descriptor), expected.first) << scopes.first << " " << scopes.second;
        EXPECT_EQ(involvedScopes(descriptor), expected.second) << scopes.first << " " << scopes.second;
    }
}

TEST(TransactionScopes, AreNotFreedFromRepetition)
{
    Descriptor descriptor;
    descriptor.sourceScope = "user";
    descriptor.targetScope = "user";
    EXPECT_EQ(involvedScopes(descriptor), (std::vector<std::string>{"user", "user"}));
    EXPECT_EQ(authorityScope(descriptor), "user");
}

TEST(TransactionScopes, GiveTheFixedPlacesOfATransaction)
{
    Descriptor descriptor;
    descriptor.id = "move-1";
    descriptor.sourceScope = "none";
    descriptor.targetScope = "user";
    const std::string maintenance = "Library/Application Support/Tamarind Pelican/Maintenance/";
    EXPECT_EQ(transactionRoot(descriptor), "/Users/player/" + maintenance + "Transactions/move-1");
    EXPECT_EQ(completedPath(descriptor), "/Users/player/" + maintenance + "Completed/move-1.record");
    descriptor.sourceScope = "system";
    EXPECT_EQ(transactionRoot(descriptor), "/" + maintenance + "Transactions/move-1");
    EXPECT_EQ(completedPath(descriptor), "/" + maintenance + "Completed/move-1.record");
    EXPECT_EQ(preparedPath(transactionRoot(descriptor)), transactionRoot(descriptor) / "prepared");
    EXPECT_EQ(activePath("user"), "/Users/player/" + maintenance + "ActiveTransaction");
    EXPECT_EQ(activePath("system"), "/" + maintenance + "ActiveTransaction");
}

TEST(TransactionDirectory, IsPrivateToTheOwnerOfTheAuthority)
{
    for (const mode_t mask : {mode_t{0}, mode_t{0022}, mode_t{0077}})
        for (const Work& work : everyKind(alpha)) {
            clearScene();
            publish(work, moveId);
            ::umask(mask);
            EXPECT_EQ(creating(work), returned()) << kindOf(work);
            ::umask(0022);
            EXPECT_EQ(describe(directoryOf(work)),
                      "dir " + std::to_string(ownerOf(work.authority())) + " 0700");
            EXPECT_EQ(namesIn(directoryOf(work)), std::vector<std::string>{});
        }
}

TEST(TransactionDirectory, IsCreatedByTheAccountItself)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    EXPECT_EQ(asAccount(playerUid, [&] { createTransactionDirectory(descriptorFor(work)); }), returned());
    EXPECT_EQ(describe(directoryOf(work)), "dir 501 0700");
}

TEST(TransactionDirectory, IsCreatedWithMissingDirectoriesAboveIt)
{
    for (const std::string scope : {"user", "system"}) {
        const Work work = Work(scope).brings(alpha);
        publish(work, moveId);
        const Descriptor descriptor = descriptorFor(work);
        removeAll(supportOf(scope));
        createTransactionDirectory(descriptor);
        EXPECT_EQ(describe(maintenanceOf(scope)), directoryOf(scope));
        EXPECT_EQ(describe(maintenanceOf(scope) / "Transactions"), directoryOf(scope));
    }
}

TEST(TransactionDirectory, IsNeverCreatedOverSomethingElse)
{
    const std::vector<Plant> plants = {
        [](const auto& path) { makeDirectories(path); },
        [](const auto& path) { writeFile(path / "inside", "text"); },
        [](const auto& path) { writeFile(path, "text"); },
        [](const auto& path) { makeLink(path, "nowhere"); },
        [](const auto& path) { makeLink(path, "/etc"); },
        [](const auto& path) { makePipe(path); },
        [](const auto& path) { makeSocket(path); },
    };
    for (const Work& work : everyKind(alpha)) {
        publish(work, moveId);
        for (const Plant& plant : plants) {
            plant(directoryOf(work));
            const Tree before = takeTree();
            EXPECT_EQ(creating(work), invalid(alreadyThere)) << describe(directoryOf(work));
            EXPECT_EQ(difference(before, takeTree()), "");
            removeAll(directoryOf(work));
        }
    }
}

TEST(TransactionDirectory, IsNotCreatedWhereItsNameCannotBeExamined)
{
    for (const Work& work : everyKind(alpha))
        for (const int error : {EIO, EACCES, ENAMETOOLONG}) {
            clearScene();
            installSource(work, alpha);
            publish(work, moveId);
            const Tree before = takeTree();
            const Decide decide = [=](const SystemCall& call) {
                return call.is(SYS_newfstatat, moveId) ? error : 0;
            };
            EXPECT_EQ(runStopping({SYS_newfstatat}, decide, {"prepare-move", work.target(), moveId}),
                      refused(notCreated))
                << kindOf(work) << " " << error;
            EXPECT_EQ(changesSince(before), "");
        }
}

TEST(TransactionDirectory, IsNotUsedWhenItWasExchangedDuringCreation)
{
    using std::filesystem::path;
    const std::vector<Plant> exchanges = {
        [](const path& place) { removeAll(place); },
        [](const path& place) {
            removeAll(place);
            makeLink(place, "/etc");
        },
        [](const path& place) {
            removeAll(place);
            makeLink(place, "nowhere");
        },
        [](const path& place) {
            removeAll(place);
            writeFile(place, "text");
        },
        [](const path& place) {
            removeAll(place);
            makePipe(place);
        },
    };
    for (const std::string scope : {"user", "system"}) {
        const Work work = Work(scope).brings(alpha);
        publish(work, moveId);
        for (const Plant& exchange : exchanges) {
            std::string exchanged;
            const Decide decide = [&](const SystemCall& call) {
                if (call.is(SYS_openat, moveId) && exchanged.empty() && isThere(directoryOf(work))) {
                    exchange(directoryOf(work));
                    exchanged = describe(directoryOf(work));
                }
                return 0;
            };
            EXPECT_EQ(runStopping({SYS_openat}, decide, {"prepare-move", scope, moveId}),
                      refused(redirectedInCreation))
                << scope << " " << exchanged;
            EXPECT_EQ(describe(directoryOf(work)), exchanged);
            EXPECT_FALSE(isThere(leaseOf(scope)));
            removeAll(directoryOf(work));
        }
    }
}

TEST(TransactionDirectory, ThatAnotherAccountExchangedIsNotGivenAway)
{
    for (const std::string scope : {"user", "system"}) {
        const Work work = Work(scope).brings(alpha);
        publish(work, moveId);
        bool exchanged = false;
        const Decide decide = [&](const SystemCall& call) {
            if (call.is(SYS_openat, moveId) && !exchanged) {
                exchanged = true;
                removeAll(directoryOf(work));
                makeDirectories(directoryOf(work), {502, 0755});
                writeFile(directoryOf(work) / "foreign", "text", {502, 0600});
            }
            return 0;
        };
        const Outcome outcome = runStopping({SYS_openat}, decide, {"prepare-move", scope, moveId});
        EXPECT_EQ(outcome.status, 65) << outcome;
        EXPECT_TRUE(exchanged);
        EXPECT_EQ(describe(directoryOf(work)), "dir 502 0755") << scope;
        EXPECT_EQ(describe(directoryOf(work) / "foreign"), "file 502 0600");
        EXPECT_FALSE(isThere(leaseOf(scope)));
    }
}

TEST(TransactionDirectory, IsNotCreatedInAnUnsafePlace)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        publish(work, moveId);
        const std::filesystem::path parent = maintenanceOf(work.authority()) / "Transactions";
        setMode(parent, 0775);
        expectRefusals(work, unsafeMode, "mode");
        setMode(parent, 0755);
        setOwner(parent, 502);
        expectRefusals(work, unsafeOwner, "owner");
        removeAll(parent);
        makeDirectories(rootOf(work.authority()) / "Library/elsewhere", {ownerOf(work.authority()), 0755});
        makeLink(parent, rootOf(work.authority()) / "Library/elsewhere");
        expectRefusals(work, redirected, "link");
    }
}

/// Every entry that may not stand anywhere in a transaction's directory.
std::vector<std::pair<Plant, std::string>> unsafeEntries(const Work& work)
{
    using std::filesystem::path;
    const uid_t owner = ownerOf(work.authority());
    const uid_t foreign = owner == rootUid ? playerUid : rootUid;
    const auto file = [](uid_t account, mode_t mode) {
        return [=](const path& place) { writeFile(place, "text", {account, mode}); };
    };
    const auto directory = [](uid_t account, mode_t mode) {
        return [=](const path& place) { makeDirectories(place, {account, mode}); };
    };
    return {
        {file(owner, 0664), unsafeEntry},
        {file(owner, 0620), unsafeEntry},
        {file(owner, 0602), unsafeEntry},
        {file(foreign, 0600), unsafeEntry},
        {file(502, 0600), unsafeEntry},
        {[=](const path& place) {
             writeFile(place, "text", {owner, 0600});
             makeHardLink("/Library/second-name", place);
         },
         unsafeEntry},
        {[](const path& place) { makeLink(place, "/etc/passwd"); }, unsafeEntry},
        {[](const path& place) { makeLink(place, "/etc"); }, unsafeEntry},
        {[](const path& place) { makeLink(place, "nowhere"); }, unsafeEntry},
        {[](const path& place) { makeLink(place, "."); }, unsafeEntry},
        {[=](const path& place) { makePipe(place, owner); }, unsafeEntry},
        {[=](const path& place) { makeSocket(place, owner); }, unsafeEntry},
        {directory(owner, 0775), unsafeMode},
        {directory(owner, 0707), unsafeMode},
        {directory(foreign, 0755), unsafeOwner},
        {directory(502, 0700), unsafeOwner},
    };
}

TEST(TransactionDirectory, WithAForeignEntryIsRefusedByEveryCommand)
{
    const Work work = Work("user").brings(alpha);
    for (const auto& [plant, message] : unsafeEntries(work)) {
        plantAnew(work);
        removeAll("/Library/second-name");
        const std::filesystem::path place = directoryOf(work) / "entry";
        plant(place);
        expectRefusals(work, message, describe(place));
    }
}

TEST(TransactionDirectory, IsValidatedInEveryDepth)
{
    for (const Work& work : everyKind(alpha))
        for (const auto& [plant, message] : unsafeEntries(work)) {
            plantAnew(work);
            removeAll("/Library/second-name");
            const std::filesystem::path place = directoryOf(work) / "one/two/three/entry";
            makeDirectories(place.parent_path(), {ownerOf(work.authority()), 0755});
            plant(place);
            EXPECT_EQ(validating(work), invalid(message)) << kindOf(work) << " " << describe(place);
        }
}

TEST(TransactionDirectory, MayHoldAnySafeFileAndDirectory)
{
    for (const Work& work : everyKind(alpha)) {
        plantAnew(work);
        const uid_t owner = ownerOf(work.authority());
        const std::filesystem::path directory = directoryOf(work);
        writeFile(directory / "readable", "text", {owner, 0644});
        writeFile(directory / "executable", "text", {owner, 0755});
        writeFile(directory / "closed", "text", {owner, 0});
        writeFile(directory / "empty", "", {owner, 0600});
        writeFile(directory / std::string(255, 'n'), "text", {owner, 0600});
        writeFile(directory / "new\nline", "text", {owner, 0600});
        writeFile(directory / "...", "text", {owner, 0600});
        makeDirectories(directory / "bare", {owner, 0700});
        makeDirectories(directory / ".hidden/deep", {owner, 0755});
        const Tree before = takeExactTree();
        EXPECT_EQ(validating(work), returned()) << kindOf(work);
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(TransactionDirectory, DeeperThanAnyTransactionIsRefused)
{
    const Work work = Work("user").brings(alpha);
    plantAnew(work);
    std::filesystem::path place = directoryOf(work);
    for (int depth = 0; depth < 500; ++depth)
        place /= "d";
    makeDirectories(place, {playerUid, 0755});
    expectRefusals(work, notInspected, "deep");
}

TEST(TransactionDirectory, LeavesNoDescriptorOpen)
{
    const Work work = Work("user").brings(alpha);
    plantAnew(work);
    const std::size_t before = openDescriptors();
    EXPECT_EQ(validating(work), returned());
    makeLink(directoryOf(work) / "authority-target/link", "nowhere");
    EXPECT_EQ(validating(work), invalid(unsafeEntry));
    removeTransactionDirectory([&] {
        removeAll(directoryOf(work) / "authority-target/link");
        return descriptorFor(work);
    }());
    EXPECT_EQ(creating(work), returned());
    EXPECT_EQ(creating(work), invalid(alreadyThere));
    EXPECT_EQ(openDescriptors(), before);
}

TEST(TransactionDirectory, ThatCannotBeEnumeratedIsRefused)
{
    const Work work = Work("user").brings(alpha);
    plantAnew(work);
    const Tree before = takeTree();
    for (const std::string inside : {"", "authority-target"}) {
        const std::filesystem::path directory =
            inside.empty() ? directoryOf(work) : directoryOf(work) / inside;
        const Decide list = [&](const SystemCall& call) { return fileOf(call) == directory ? EIO : 0; };
        const Decide duplicate = [&](const SystemCall& call) {
            return call.arguments.at(1) == F_DUPFD_CLOEXEC && fileOf(call) == directory ? EMFILE : 0;
        };
        for (const std::string word : {"commit-move", "rollback-move"}) {
            EXPECT_EQ(runStopping({SYS_getdents64}, list, {word, "user", moveId}), refused(notInspected))
                << word << " " << inside;
            EXPECT_EQ(runStopping({SYS_fcntl}, duplicate, {word, "user", moveId}), refused(notInspected))
                << word << " " << inside;
        }
    }
    EXPECT_EQ(changesSince(before), "");
}

TEST(TransactionDirectory, ThatChangesDuringValidationIsRefused)
{
    const Work work = Work("user").brings(alpha);
    plantAnew(work);
    const std::filesystem::path manifest = directoryOf(work) / "authority-target/manifest";
    int examined = 0;
    const Decide vanish = [&](const SystemCall& call) {
        // Looked for first where a second name may have to go.
        if (call.is(SYS_newfstatat, "manifest") && ++examined == 2)
            removeAll(manifest);
        return 0;
    };
    EXPECT_EQ(runStopping({SYS_newfstatat}, vanish, {"commit-move", "user", moveId}),
              refused(changedInValidation));
}

TEST(TransactionDirectory, WhoseEntryIsExchangedForALinkIsRefused)
{
    const Work work = Work("user").brings(alpha);
    plantAnew(work);
    const std::filesystem::path entry = directoryOf(work) / "authority-target";
    int opened = 0;
    const Decide exchange = [&](const SystemCall& call) {
        // Opened twice before, where a second name may have to go.
        if (call.is(SYS_openat, "authority-target") && ++opened == 3) {
            std::filesystem::rename(entry, "/Users/player/moved");
            makeLink(entry, "/Users/player/moved");
        }
        return 0;
    };
    EXPECT_EQ(runStopping({SYS_openat}, exchange, {"commit-move", "user", moveId}), refused(redirectedEntry));
}

TEST(TransactionDirectory, IsRemovedWithThePreparedStateFirst)
{
    const Work work = Work("user").brings(alpha);
    plantAnew(work);
    const Descriptor descriptor = descriptorFor(work);
    std::vector<std::string> steps;
    const Decide record = [&](const SystemCall& call) {
        if (call.number == SYS_unlinkat)
            steps.push_back("remove " + call.text(1));
        else
            steps.push_back("sync " + fileOf(call));
        return 0;
    };
    EXPECT_EQ(stopping({SYS_unlinkat, SYS_fsync}, record, [&] { removeTransactionDirectory(descriptor); }),
              returned());
    const std::vector<std::string> expected = {
        "remove prepared",  "sync " + directoryOf(work).native(),
        "remove manifest",  "remove authority-target",
        "remove " + moveId, "sync " + directoryOf(work).parent_path().native()};
    EXPECT_EQ(steps, expected);
    EXPECT_FALSE(isThere(directoryOf(work)));
}

TEST(TransactionDirectory, ThatHoldsALinkIsNotRemovedThroughIt)
{
    const Work work = Work("user").brings(alpha);
    plantAnew(work);
    writeFile("/Users/player/precious", "text", {playerUid, 0600});
    makeLink(directoryOf(work) / "link", "/Users/player");
    EXPECT_EQ(endingOf([&] { removeTransactionDirectory(descriptorFor(work)); }),
              invalid("fixed mutation target was redirected"));
    EXPECT_EQ(readFile("/Users/player/precious"), "text");
}

TEST(ReplayGuard, RefusesACompletedTransactionBeforeAnActiveOne)
{
    const std::vector<Plant> plants = {
        [](const auto& path) { writeFile(path, ""); },    [](const auto& path) { makeLink(path, "nowhere"); },
        [](const auto& path) { makeLink(path, "/etc"); }, [](const auto& path) { makeDirectories(path); },
        [](const auto& path) { makePipe(path); },
    };
    const auto guarding = [](const Work& work) {
        return endingOf([&] { rejectActiveOrReplay(descriptorFor(work)); });
    };
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        publish(work, moveId);
        EXPECT_EQ(guarding(work), returned()) << kindOf(work);
        for (const std::string& scope : work.involved())
            for (const Plant& plant : plants) {
                plant(leaseOf(scope));
                EXPECT_EQ(guarding(work), invalid(anotherActive)) << kindOf(work) << " " << scope;
                plant(completedOf(work));
                EXPECT_EQ(guarding(work), invalid(replayed)) << kindOf(work) << " " << scope;
                removeAll(leaseOf(scope));
                EXPECT_EQ(guarding(work), invalid(replayed)) << kindOf(work) << " " << scope;
                removeAll(completedOf(work));
            }
    }
}

PreparedState stateOf(const Work& work) { return parsePreparedText(textFor(work)); }

TEST(FinishTransaction, LeavesNothingButTheRecord)
{
    for (const Work& work : everyKind(alpha)) {
        plantAnew(work);
        Tree expected = takeTree();
        for (const std::string& scope : work.involved())
            expected.erase(leaseOf(scope).native());
        std::erase_if(expected,
                      [&](const auto& entry) { return entry.first.starts_with(directoryOf(work).native()); });
        finishTransaction(descriptorFor(work), stateOf(work));
        EXPECT_EQ(readFile(completedOf(work)), textFor(work)) << kindOf(work);
        EXPECT_EQ(describe(completedOf(work)), metadataFileOf(work.authority()));
        Tree after = takeTree();
        after.erase(completedOf(work).native());
        EXPECT_EQ(difference(expected, after), "") << kindOf(work);
    }
}

TEST(FinishTransaction, PublishesTheRecordBeforeItRemovesALease)
{
    const Work work = Work("system").from("user").brings(alpha);
    plantAnew(work);
    std::vector<std::string> steps;
    const Decide record = [&](const SystemCall& call) {
        steps.push_back(call.number == SYS_renameat ? "publish " + call.text(3) : "remove " + call.text(1));
        return 0;
    };
    const Descriptor descriptor = descriptorFor(work);
    const PreparedState state = stateOf(work);
    EXPECT_EQ(stopping({SYS_renameat, SYS_unlinkat}, record, [&] { finishTransaction(descriptor, state); }),
              returned());
    const std::vector<std::string> expected = {
        "publish move-1.record", "remove ActiveTransaction", "remove ActiveTransaction",
        "remove prepared",       "remove manifest",          "remove authority-target",
        "remove move-1"};
    EXPECT_EQ(steps, expected);
}

/// Finishing or abandoning must end so and change nothing.
void expectUnchanged(const Work& work, void (*end)(const Descriptor&, const PreparedState&),
                     const Ending& ending, const std::string& what)
{
    const Tree before = takeTree();
    EXPECT_EQ(endingOf([&] { end(descriptorFor(work), stateOf(work)); }), ending) << what;
    EXPECT_EQ(difference(before, takeTree()), "") << what;
}

void expectLeasesToMatter(void (*end)(const Descriptor&, const PreparedState&), const char* changed)
{
    for (const Work& work : everyKind(alpha))
        for (const std::string& scope : work.involved()) {
            const std::string what = kindOf(work) + " " + scope;
            for (const std::string& other :
                 {work.prepared(moveId, generationOf('b')), textFor(work) + "\n", std::string()}) {
                plantAnew(work);
                writeFile(leaseOf(scope), other, {ownerOf(scope), 0600});
                expectUnchanged(work, end, invalid(changed), what + " " + other);
            }
            removeAll(leaseOf(scope));
            expectUnchanged(work, end, invalid(missingLease), what);
            makeLink(leaseOf(scope), "nowhere");
            expectUnchanged(work, end, invalid(missingLease), what);
            removeAll(leaseOf(scope));
            writeFile(leaseOf(scope), textFor(work), {ownerOf(scope), 0666});
            expectUnchanged(work, end, invalid("durable transaction lease ownership or mode is unsafe"),
                            what);
        }
}

TEST(FinishTransaction, SettlesEveryScopeBeforeItPublishesTheRecord)
{
    const Work work = Work("system").from("user").brings(alpha);
    plantAnew(work);
    std::vector<std::string> synchronized;
    const Decide record = [&](const SystemCall& call) {
        if (!isThere(completedOf(work)))
            synchronized.push_back(openPath(call));
        return 0;
    };
    const Descriptor descriptor = descriptorFor(work);
    const PreparedState state = stateOf(work);
    EXPECT_EQ(stopping({SYS_fsync}, record, [&] { finishTransaction(descriptor, state); }), returned());
    ASSERT_EQ(synchronized.size(), 3U); // the third is of the record itself
    EXPECT_EQ(synchronized[0], "/Users/player/Library");
    EXPECT_EQ(synchronized[1], "/Library");
}

TEST(FinishTransaction, PublishesNoRecordWhenAScopeCannotBeSettled)
{
    const Work work = Work("system").from("user").brings(alpha);
    plantAnew(work);
    const Tree before = takeTree();
    const Descriptor descriptor = descriptorFor(work);
    for (const int nth : {1, 2})
        EXPECT_EQ(failing(SYS_fsync, nth, EIO, [&] { finishTransaction(descriptor, stateOf(work)); }),
                  runtimeError("cannot synchronize fixed metadata directory"));
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(FinishTransaction, ChangesNothingWhenALeaseIsNotItsOwn)
{
    expectLeasesToMatter(finishTransaction, "durable transaction lease changed before completion");
}

TEST(FinishTransaction, KeepsTheLeasesWhenTheRecordCannotBePublished)
{
    const Work work = Work("system").from("user").brings(alpha);
    plantAnew(work);
    makeLink(completedOf(work), "nowhere");
    expectUnchanged(work, finishTransaction, invalid("fixed metadata destination is unsafe"), "link");
    removeAll(completedOf(work));
    const Tree before = takeTree();
    const Descriptor descriptor = descriptorFor(work);
    EXPECT_EQ(failing(SYS_renameat, 1, EIO, [&] { finishTransaction(descriptor, stateOf(work)); }),
              runtimeError("cannot publish fixed metadata"));
    EXPECT_EQ(difference(before, takeTree()), "");
}

TEST(FinishTransaction, CountsAsDoneAsSoonAsTheRecordStandsOnDisk)
{
    const Work work = Work("user").brings(alpha);
    plantAnew(work);
    const Descriptor descriptor = descriptorFor(work);
    const PreparedState state = stateOf(work);
    EXPECT_FALSE(isRecordedAsCompleted(descriptor, state));
    plantCompleted(work, textFor(work));
    EXPECT_TRUE(isRecordedAsCompleted(descriptor, state));
    plantCompleted(work, work.prepared(moveId, generationOf('b')));
    EXPECT_FALSE(isRecordedAsCompleted(descriptor, state));
    // Nobody can tell what these hold.
    plantCompleted(work, textFor(work));
    setMode(completedOf(work), 0666);
    EXPECT_TRUE(isRecordedAsCompleted(descriptor, state));
    removeAll(completedOf(work));
    makeLink(completedOf(work), "nowhere");
    EXPECT_TRUE(isRecordedAsCompleted(descriptor, state));
}

TEST(AbandonTransaction, DropsTheLeasesAndKeepsTheRest)
{
    for (const Work& work : everyKind(alpha)) {
        plantAnew(work);
        Tree expected = takeTree();
        for (const std::string& scope : work.involved())
            expected.erase(leaseOf(scope).native());
        abandonTransaction(descriptorFor(work), stateOf(work));
        EXPECT_EQ(difference(expected, takeTree()), "") << kindOf(work);
    }
}

TEST(AbandonTransaction, DropsNoLeaseWhenOneIsNotItsOwn)
{
    expectLeasesToMatter(abandonTransaction, "durable transaction lease changed during recovery");
}

std::string attemptOf(const std::string& scope, const std::string& id)
{
    return "schema=tamarind.pelican.macos-maintenance-attempt.v1\nsku=studio-bundle\npackageRevision=7\n"
           "planSha256=" +
           generationOf('1') + "\ndescriptorSha256=" + generationOf('2') + "\ntransaction=" + id +
           "\ntargetScope=" + scope + "\n";
}

TEST(ClearPending, RemovesTheAttemptOfThisTransactionInTheTarget)
{
    for (const Work& work : everyKind(alpha)) {
        clearScene();
        publish(work, moveId);
        for (const std::string& scope : work.involved())
            writeFile(pendingOf(scope), attemptOf(scope, moveId), {ownerOf(scope), 0600});
        clearPending(descriptorFor(work));
        EXPECT_FALSE(isThere(pendingOf(work.target()))) << kindOf(work);
        if (work.source() != "none") {
            EXPECT_EQ(readFile(pendingOf(work.source())), attemptOf(work.source(), moveId));
        }
        const Tree before = takeExactTree();
        clearPending(descriptorFor(work));
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(ClearPending, LeavesTheAttemptOfAnotherTransaction)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    for (const std::string id : {"move-2", "move-10", "move", "install-move-1"}) {
        writeFile(pendingOf("user"), attemptOf("user", id), {playerUid, 0600});
        clearPending(descriptorFor(work));
        EXPECT_EQ(readFile(pendingOf("user")), attemptOf("user", id));
    }
}

TEST(ClearPending, RefusesWhatIsNoAttempt)
{
    using std::filesystem::path;
    const Ending missing = invalid("pending installation attempt is missing or unsafe");
    const std::string text = attemptOf("user", moveId);
    const std::vector<std::pair<Plant, Ending>> plants = {
        {[](const path& place) {
             writeFile(place, "text\n", {playerUid, 0600});
         },
         invalid("pending installation attempt is invalid")},
        {[&](const path& place) {
             writeFile(place, text, {rootUid, 0600});
         },
         missing},
        {[&](const path& place) {
             writeFile(place, text, {playerUid, 0620});
         },
         missing},
        {[](const path& place) { makeLink(place, "nowhere"); }, missing},
        {[](const path& place) { makePipe(place, playerUid); }, missing},
        {[](const path& place) {
             makeDirectories(place, {playerUid, 0755});
         },
         missing},
    };
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    for (const auto& [plant, ending] : plants) {
        plant(pendingOf("user"));
        const Tree before = takeTree();
        EXPECT_EQ(endingOf([&] { clearPending(descriptorFor(work)); }), ending);
        EXPECT_EQ(difference(before, takeTree()), "");
        removeAll(pendingOf("user"));
    }
}

TEST(ClearPending, EndsWhereItCannotTellWhetherAnAttemptIsThere)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    const Descriptor descriptor = descriptorFor(work);
    const Decide decide = [](const SystemCall& call) {
        return call.is(SYS_newfstatat, pendingOf("user").native()) ? EACCES : 0;
    };
    EXPECT_EQ(stopping({SYS_newfstatat}, decide, [&] { clearPending(descriptor); }),
              invalid("pending installation attempt cannot be inspected"));
}

} // namespace
} // namespace maintenance::rehearsed
