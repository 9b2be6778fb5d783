#include "kit.h"

namespace maintenance::rehearsed {
namespace {

using Json = nlohmann::ordered_json;

const Plugin alpha = plugin("alpha", "1.0");

/// What `status` says of one transaction; null when it does not know it.
Json transactionIn(const Json& answer, const std::string& id)
{
    for (const auto& transaction : answer.at("transactions"))
        if (transaction.at("id") == id)
            return transaction;
    return nullptr;
}

Json scopeIn(const Json& answer, const std::string& scope)
{
    for (const auto& one : answer.at("scopes"))
        if (one.at("scope") == scope)
            return one;
    return nullptr;
}

std::string stateOf(const std::string& id, const Surroundings& surroundings = {})
{
    const Json transaction = transactionIn(kitJson({"status"}, surroundings), id);
    return transaction.is_null() ? "unknown" : transaction.at("state").get<std::string>();
}

/// The commands of the first way out with this effect.
std::vector<std::string> commandsTo(const std::string& effect, const std::string& id,
                                    const Surroundings& surroundings = {})
{
    const Json transaction = transactionIn(kitJson({"status"}, surroundings), id);
    for (const auto& way : transaction.at("waysOut"))
        if (way.at("effect") == effect)
            return way.at("commands");
    return {};
}

/// Runs commands exactly as they were told.
void follow(const std::vector<std::string>& commands)
{
    ASSERT_FALSE(commands.empty());
    placeSudo();
    for (const std::string& command : commands)
        EXPECT_EQ(inShell(command), succeeded()) << command;
}

/// Forgets and removes everything that an installation or a transaction can have left.
void startAnew()
{
    for (const std::string scope : {"user", "system"}) {
        for (const std::string& id : {commonPackage().id, alpha.vst3.id, alpha.au.id})
            if (isRegistered(scope, id))
                unregister(scope, id);
        removeAll(supportOf(scope));
        removeAll(rootOf(scope) / "Library/Audio");
    }
}

const std::string toolPath = "Library/Application Support/Tamarind Pelican/TamarindPelicanMaintenance";

/// The shared package as it is: with the very program that the commands run.
Package realCommon()
{
    Package common = commonPackage();
    common.files[toolPath] = readFile(builtTool());
    return common;
}

/// The tool in its place, and a product in the home that is to be moved to the system scope.
void makeMove()
{
    placeTool("system", planText({alpha}));
    install("user", commonPackage());
    setMode(rootOf("user") / toolPath, 0755);
    install("user", alpha);
    publish(Work("system").from("user").brings(alpha, "1.0").with(realCommon()), "move-1");
}

void prepareMove()
{
    makeMove();
    ASSERT_EQ(run({"prepare-move", "system", "move-1"}), succeeded());
}

void installCommon()
{
    install("system", realCommon());
    setMode(rootOf("system") / toolPath, 0755);
}

void installInSystem()
{
    installCommon();
    install("system", alpha);
}

/// A begun installation; returns its identifier.
std::string begin()
{
    Surroundings placed;
    placed.tool = placeTool("system", planText({alpha}, realCommon()));
    const Outcome begun = run({"begin-install", "system"}, placed);
    if (begun.status != 0)
        throw std::runtime_error(begun.err);
    return begun.out.substr(0, begun.out.size() - 1);
}

// Every state that is open, as it comes about; each returns the transaction's identifier.

std::string begun() { return begin(); }

std::string begunWithoutDescriptor()
{
    const std::string id = begin();
    removeAll(descriptorOf("system", id));
    return id;
}

std::string installedUnprepared()
{
    const std::string id = begin();
    installInSystem();
    return id;
}

std::string creatingMove()
{
    makeMove();
    makeDirectories(transactionOf("system", "move-1") / "target", {rootUid, 0700});
    return "move-1";
}

std::string creatingUninstallation()
{
    installInSystem();
    publish(Work("system").brings(alpha, "1.0").with(realCommon()), "gone-1");
    makeDirectories(transactionOf("system", "gone-1") / "target", {rootUid, 0700});
    return "gone-1";
}

std::string preparedMove()
{
    prepareMove();
    return "move-1";
}

std::string installedMove()
{
    prepareMove();
    installInSystem();
    return "move-1";
}

std::string halfInstalledMove()
{
    prepareMove();
    installCommon();
    return "move-1";
}

std::string incompleteMove()
{
    prepareMove();
    removeAll(leaseOf("system"));
    return "move-1";
}

std::string incompleteInstalledMove()
{
    const std::string id = installedMove();
    removeAll(leaseOf("system"));
    return id;
}

std::string abandonedMove()
{
    prepareMove();
    run({"commit-move", "system", "move-1"});
    return "move-1";
}

std::string interruptedUninstallation()
{
    installInSystem();
    publish(Work("system").brings(alpha, "1.0").with(realCommon()), "gone-1");
    instructPkgutil("command=--forget do kill=KILL");
    run({"uninstall-product", "system", "gone-1"});
    instructPkgutil("");
    return "gone-1";
}

/// prepare-move for the same descriptor leaves the same files as an uninstallation killed before it removes.
std::string untouchedRepair()
{
    installInSystem();
    publish(Work("system").brings(alpha, "1.0").with(realCommon()), "repair-1");
    run({"prepare-move", "system", "repair-1"});
    return "repair-1";
}

std::string pendingCleanUp()
{
    prepareMove();
    writeFile(completedOf("system", "move-1"), readFile(leaseOf("system")), {rootUid, 0600});
    return "move-1";
}

std::string pendingCleanUpOfAnUninstallation()
{
    installInSystem();
    publish(Work("system").brings(alpha, "1.0").with(realCommon()), "gone-1");
    run({"uninstall-product", "system", "gone-1"});
    makeDirectories(transactionOf("system", "gone-1") / "target", {rootUid, 0700});
    placeTool("system", planText({alpha}));
    return "gone-1";
}

/// One of the ways out that must be told in a situation.
struct Way {
    std::string effect;
    std::string condition;
    /// The tool's commands, without what stands around them.
    std::vector<std::string> verbs;
};

struct Situation {
    const char* name;
    std::string (*arise)();
    std::string state;
    std::vector<Way> ways;
};

const std::string between = "install the packages before the last command";
const std::string ifUninstalling = "if it was begun by uninstall-product";
const std::string onceInstalled = "once the installer has installed the packages";

const std::vector<Situation> situations = {
    {"Begun",
     begun,
     "absent",
     {{"finish", between, {"prepare-move", "commit-move"}}, {"undo", "", {"prepare-move", "rollback-move"}}}},
    {"BegunWithoutDescriptor",
     begunWithoutDescriptor,
     "absent",
     {{"finish", between, {"begin-install", "prepare-move", "commit-move"}},
      {"undo", "", {"begin-install", "prepare-move", "rollback-move"}}}},
    {"InstalledUnprepared", installedUnprepared, "absent", {{"finish", "", {"prepare-move", "commit-move"}}}},
    {"CreatingMove",
     creatingMove,
     "creating",
     {{"finish", between, {"prepare-move", "commit-move"}}, {"undo", "", {"prepare-move", "rollback-move"}}}},
    {"CreatingUninstallation",
     creatingUninstallation,
     "creating",
     {{"finish", ifUninstalling, {"uninstall-product"}},
      {"finish", between, {"prepare-move", "commit-move"}},
      {"undo", "", {"prepare-move", "rollback-move"}}}},
    {"PreparedMove",
     preparedMove,
     "prepared",
     {{"finish", onceInstalled, {"commit-move"}}, {"undo", "", {"rollback-move"}}}},
    {"InstalledMove", installedMove, "prepared", {{"finish", "", {"commit-move"}}}},
    {"HalfInstalledMove", halfInstalledMove, "prepared", {{"finish", onceInstalled, {"commit-move"}}}},
    {"IncompleteMove",
     incompleteMove,
     "prepared, leases incomplete",
     {{"finish", onceInstalled, {"prepare-move", "commit-move"}},
      {"undo", "", {"prepare-move", "rollback-move"}}}},
    {"IncompleteInstalledMove",
     incompleteInstalledMove,
     "prepared, leases incomplete",
     {{"finish", "", {"prepare-move", "commit-move"}}}},
    {"AbandonedMove",
     abandonedMove,
     "abandoned",
     {{"finish", between, {"prepare-move", "commit-move"}},
      {"undo",
       "while no package has been registered or forgotten since",
       {"prepare-move", "rollback-move"}}}},
    {"InterruptedUninstallation",
     interruptedUninstallation,
     "prepared",
     {{"finish", ifUninstalling, {"uninstall-product"}},
      {"finish", "if it was begun by prepare-move, " + onceInstalled, {"commit-move"}},
      {"undo", "", {"rollback-move"}}}},
    {"UntouchedRepair",
     untouchedRepair,
     "prepared",
     {{"finish", ifUninstalling, {"uninstall-product"}},
      {"finish", "if it was begun by prepare-move, " + onceInstalled, {"commit-move"}},
      {"undo", "", {"rollback-move"}}}},
    {"PendingCleanUp", pendingCleanUp, "completed, clean-up pending", {{"finish", "", {"commit-move"}}}},
    {"PendingCleanUpOfAnUninstallation",
     pendingCleanUpOfAnUninstallation,
     "completed, clean-up pending",
     {{"finish", "", {"commit-move"}}}}};

/// The tool's command in a line for the shell.
std::string verbOf(const std::string& command)
{
    const std::size_t start = command.rfind("' ") + 2;
    return command.substr(start, command.find(' ', start) - start);
}

class KitWaysOut : public ::testing::TestWithParam<Situation> {};

/// Runs a way's commands as they were told; what the condition asks for is done when its time has come.
void carryOut(const Json& way)
{
    const std::vector<std::string> commands = way.at("commands");
    const std::string condition = way.value("condition", "");
    if (holds(condition, onceInstalled))
        installInSystem();
    for (std::size_t i = 0; i < commands.size(); ++i) {
        if (condition == between && i + 1 == commands.size())
            installInSystem();
        const Outcome outcome = inShell(commands[i]);
        EXPECT_EQ(outcome.status, 0) << commands[i] << outcome;
    }
}

TEST_P(KitWaysOut, AreAllToldAndEachLeadsOut)
{
    const Situation& situation = GetParam();
    placeSudo();
    for (std::size_t i = 0; i < situation.ways.size(); ++i) {
        const std::string id = situation.arise();
        const Json transaction = transactionIn(kitJson({"status"}), id);
        ASSERT_EQ(transaction.at("state"), situation.state);
        ASSERT_EQ(transaction.at("waysOut").size(), situation.ways.size()) << transaction.dump(1);
        const Json way = transaction.at("waysOut")[i];
        EXPECT_EQ(way.at("effect"), situation.ways[i].effect);
        EXPECT_EQ(way.value("condition", ""), situation.ways[i].condition);
        std::vector<std::string> verbs;
        for (const std::string command : way.at("commands"))
            verbs.push_back(verbOf(command));
        EXPECT_EQ(verbs, situation.ways[i].verbs);
        carryOut(way);
        EXPECT_EQ(stateOf(id), "completed") << way.dump(1);
        startAnew();
    }
}

INSTANTIATE_TEST_SUITE_P(Of, KitWaysOut, ::testing::ValuesIn(situations),
                         [](const auto& situation) { return std::string(situation.param.name); });

TEST(KitStatus, OfCompletedTransactionsIsNotConfusedByAnActiveOne)
{
    prepareMove();
    ASSERT_EQ(run({"rollback-move", "system", "move-1"}), succeeded());
    publish(Work("system").from("user").brings(alpha, "1.0").with(realCommon()), "move-2");
    ASSERT_EQ(run({"prepare-move", "system", "move-2"}), succeeded());
    EXPECT_EQ(stateOf("move-1"), "completed");
    EXPECT_EQ(stateOf("move-2"), "prepared");
}

TEST(KitStatus, OfATransactionBehindAnActiveOneSaysWhichIsToBeEndedFirst)
{
    ASSERT_EQ(abandonedMove(), "move-1");
    publish(Work("system").from("user").brings(alpha, "1.0").with(realCommon()), "move-2");
    ASSERT_EQ(run({"prepare-move", "system", "move-2"}), succeeded());
    const Json abandoned = transactionIn(kitJson({"status"}), "move-1");
    EXPECT_EQ(abandoned.at("state"), "abandoned");
    EXPECT_EQ(abandoned.at("waysOut").size(), 0U);
    EXPECT_TRUE(holds(abandoned.dump(), "the transaction move-2 is active; end that one first")) << abandoned;
    follow(commandsTo("undo", "move-2"));
    follow(commandsTo("undo", "move-1"));
    EXPECT_EQ(stateOf("move-1"), "completed");
}

TEST(KitStatus, OfAnInterruptedPreparationWaitsForTheRunThatHoldsTheLock)
{
    ASSERT_EQ(creatingMove(), "move-1");
    writeFile(lockOf("system"), "", {rootUid, 0600});
    const HeldLock lock("system");
    EXPECT_EQ(stateOf("move-1"), "in progress");
}

TEST(KitStatus, SaysWhenTheToolThatTheCommandsNeedIsGone)
{
    ASSERT_EQ(preparedMove(), "move-1");
    const std::string note = "the tool is not in its place; copy it there";
    EXPECT_FALSE(holds(kit({"status"}).out, note));
    removeAll(rootOf("system") / toolPath);
    EXPECT_FALSE(holds(kit({"status"}).out, note)) << "the home has one";
    removeAll(rootOf("user") / toolPath);
    EXPECT_TRUE(holds(kit({"status"}).out, note)) << kit({"status"});
}

TEST(KitStatus, OfAFreshMachineHasNothingOpenAndChangesNothing)
{
    const Tree before = takeExactTree();
    const Outcome outcome = kit({"status"});
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_TRUE(outcome.out.ends_with("nothing is open\n")) << outcome;
    EXPECT_EQ(difference(before, takeExactTree()), "");
    const Json answer = kitJson({"status"});
    EXPECT_EQ(answer.at("attention"), false);
    EXPECT_EQ(answer.at("complete"), true);
    EXPECT_EQ(answer.at("scopes").size(), 2U);
    EXPECT_EQ(kitJson({"status", "user"}).at("scopes").size(), 1U);
}

TEST(KitStatus, NamesTheProductsAndTheSharedPackageOfEachScope)
{
    install("user", commonPackage("12"));
    install("user", alpha);
    const Json answer = kitJson({"status"});
    EXPECT_EQ(scopeIn(answer, "user").at("products").dump(), R"([{"id":"alpha","version":"1.0"}])");
    EXPECT_EQ(scopeIn(answer, "user").at("sharedPackage"), "12");
    EXPECT_EQ(scopeIn(answer, "system").at("products").dump(), "[]");
}

TEST(KitStatus, OfAPreparedMoveNamesTheCommandThatUndoesIt)
{
    prepareMove();
    EXPECT_EQ(stateOf("move-1"), "prepared");
    EXPECT_EQ(kit({"status"}).status, 65);
    const Json answer = kitJson({"status"});
    EXPECT_EQ(scopeIn(answer, "user").at("lease"), "move-1");
    EXPECT_EQ(scopeIn(answer, "system").at("lease"), "move-1");
    EXPECT_EQ(transactionIn(answer, "move-1").at("products").dump(), R"(["alpha 1.0"])");
    follow(commandsTo("undo", "move-1"));
    EXPECT_EQ(stateOf("move-1"), "completed");
}

TEST(KitStatus, OfAnInstalledMoveNamesTheCommandThatFinishesItAndNoOther)
{
    prepareMove();
    installInSystem();
    EXPECT_EQ(commandsTo("undo", "move-1"), std::vector<std::string>());
    follow(commandsTo("finish", "move-1"));
    EXPECT_EQ(stateOf("move-1"), "completed");
    EXPECT_EQ(kit({"status"}).status, 0) << kit({"status"});
}

TEST(KitStatus, OfAHalfInstalledMoveSaysThatItMustBeFinishedFirst)
{
    prepareMove();
    installCommon();
    EXPECT_EQ(commandsTo("undo", "move-1"), std::vector<std::string>());
    EXPECT_TRUE(holds(kit({"status"}).out, "the installation must be finished before"));
    ASSERT_EQ(inShell(commandsTo("finish", "move-1").at(0)).status, 65);
    install("system", alpha);
    follow(commandsTo("finish", "move-1"));
}

TEST(KitStatus, OfMissingLeasesNamesTheCommandsThatLeadOut)
{
    for (const std::string scope : {"user", "system"}) {
        prepareMove();
        removeAll(leaseOf(scope));
        EXPECT_EQ(stateOf("move-1"), "prepared, leases incomplete");
        const auto commands = commandsTo("undo", "move-1");
        EXPECT_EQ(commands.size(), 2U);
        follow(commands);
        EXPECT_EQ(stateOf("move-1"), "completed");
        removeAll(maintenanceOf("user"));
        removeAll(maintenanceOf("system"));
    }
}

TEST(KitStatus, OfAnAbandonedTransactionNamesTheCommandsThatEndIt)
{
    prepareMove();
    ASSERT_EQ(run({"commit-move", "system", "move-1"}).status, 65);
    EXPECT_EQ(stateOf("move-1"), "abandoned");
    follow(commandsTo("undo", "move-1"));
    EXPECT_EQ(stateOf("move-1"), "completed");
}

TEST(KitStatus, OfAPendingCleanUpNamesTheCommandThatDoesIt)
{
    prepareMove();
    writeFile(completedOf("system", "move-1"), readFile(leaseOf("system")), {rootUid, 0600});
    EXPECT_EQ(stateOf("move-1"), "completed, clean-up pending");
    follow(commandsTo("finish", "move-1"));
    EXPECT_EQ(stateOf("move-1"), "completed");
    EXPECT_EQ(kit({"status"}).status, 65) << "the books of an installation by hand are not written";
}

TEST(KitStatus, OfABegunInstallationNamesItsAttemptAndTheCommandsThatEndIt)
{
    const std::string id = begin();
    const Json answer = kitJson({"status"});
    EXPECT_EQ(scopeIn(answer, "system").at("pending").at("transaction"), id);
    EXPECT_EQ(transactionIn(answer, id).at("state"), "absent");
    EXPECT_EQ(transactionIn(answer, id).at("open"), true);
    follow(commandsTo("undo", id));
    EXPECT_EQ(stateOf(id), "completed");
    EXPECT_FALSE(isThere(pendingOf("system")));
    EXPECT_EQ(kit({"status"}).status, 0);
}

TEST(KitStatus, OfAnUpgradeInstalledWithoutPreparationNamesTheFileThatKeepsOthersOut)
{
    installCommon();
    install("system", plugin("alpha", "0.9"));
    const std::string id = begin();
    install("system", alpha);
    const Json transaction = transactionIn(kitJson({"status"}), id);
    EXPECT_EQ(transaction.at("waysOut").size(), 0U);
    EXPECT_EQ(
        transaction.at("notes"),
        Json::array({"an installation was begun, and its packages were installed without prepare-move; "
                     "no command acts on it any more. Remove '" +
                     pendingOf("system").native() + "', which keeps nothing, then run the installer again"}));
    EXPECT_EQ(run({"prepare-move", "system", id}).err, "installed version changed before maintenance\n");
    removeAll(pendingOf("system"));
    EXPECT_NE(begin(), id);
}

TEST(KitStatus, OfADescriptorThatNobodyBeganIsAbsentAndNotOpen)
{
    makeMove();
    const Json transaction = transactionIn(kitJson({"status"}), "move-1");
    EXPECT_EQ(transaction.at("state"), "absent");
    EXPECT_EQ(transaction.at("open"), false);
    EXPECT_EQ(transaction.at("waysOut").size(), 0U);
}

TEST(KitStatus, OfAnUninstallationThatWasInterruptedNamesTheCommandThatFinishesIt)
{
    installInSystem();
    publish(Work("system").brings(alpha, "1.0").with(realCommon()), "gone-1");
    instructPkgutil("command=--forget do kill=KILL");
    ASSERT_EQ(run({"uninstall-product", "system", "gone-1"}).status, 65);
    instructPkgutil("");
    EXPECT_EQ(stateOf("gone-1"), "prepared");
    follow(commandsTo("finish", "gone-1"));
    EXPECT_EQ(stateOf("gone-1"), "completed");
    EXPECT_FALSE(isRegistered("system", alpha.vst3.id));
}

TEST(KitStatus, WhileARunGoesOnSaysSoAndOffersNothing)
{
    prepareMove();
    writeFile(lockOf("system"), "", {rootUid, 0600});
    const HeldLock lock("system");
    writeFile(maintenanceOf("system") / ".ActiveTransaction.new.77", "", {rootUid, 0600});
    const Json answer = kitJson({"status"});
    EXPECT_TRUE(scopeIn(answer, "system").contains("runningProcess"));
    EXPECT_EQ(scopeIn(answer, "system").at("leftovers").size(), 0U);
    EXPECT_EQ(transactionIn(answer, "move-1").at("state"), "in progress");
    EXPECT_EQ(transactionIn(answer, "move-1").at("waysOut").size(), 0U);
}

TEST(KitStatus, OffersNothingWhereFilesContradictEachOther)
{
    prepareMove();
    const std::string lease = readFile(leaseOf("user"));
    writeFile(leaseOf("user"),
              lease.substr(0, lease.find("generation=")) + "generation=" + generationOf('b') +
                  lease.substr(lease.find("\ndescriptorSha256")),
              {playerUid, 0600});
    EXPECT_EQ(stateOf("move-1"), "contradictory");
    EXPECT_EQ(transactionIn(kitJson({"status"}), "move-1").at("waysOut").size(), 0U);
    writeFile(leaseOf("user"), lease, {playerUid, 0600});
    EXPECT_EQ(stateOf("move-1"), "prepared");
    removeAll(transactionOf("system", "move-1"));
    EXPECT_EQ(stateOf("move-1"), "contradictory");
}

TEST(KitStatus, SaysWhenTheDescriptorOfATransactionIsGoneOrAnother)
{
    prepareMove();
    const std::string text = readFile(descriptorOf("system", "move-1"));
    removeAll(descriptorOf("system", "move-1"));
    EXPECT_TRUE(holds(kit({"status"}).out, "its descriptor is not in the inbox"));
    publishText("system", Work("system").from("user").brings(alpha, "-").with(realCommon()).text(), "move-1");
    EXPECT_TRUE(holds(kit({"status"}).out,
                      "its descriptor was exchanged since (SHA-256 of the right one: " + systemSha256(text)));
}

TEST(KitStatus, FindsWhatKilledRunsLeft)
{
    makeLayout("system");
    const std::vector<std::filesystem::path> leftovers = {
        maintenanceOf("system") / ".PendingInstall.new.4711",
        maintenanceOf("system") / "Inbox/.a.tpmt.new.12",
        supportOf("system") / ".installed-products.json.new.5", maintenanceOf("system") / "Products/strange"};
    for (const auto& path : leftovers)
        writeFile(path, "", {rootUid, 0600});
    writeFile(supportOf("system") / ".hidden", "not the tool's business");
    const Json answer = kitJson({"status"});
    EXPECT_EQ(scopeIn(answer, "system").at("leftovers").size(), leftovers.size());
    for (const auto& path : leftovers)
        EXPECT_TRUE(holds(answer.dump(), path.native())) << path;
    EXPECT_EQ(kit({"status"}).status, 65);
    const Json view = scopeIn(answer, "system");
    for (const auto& finding : view.at("findings")) {
        const std::string advice = finding.at("advice");
        EXPECT_EQ(inShell(advice.substr(advice.find("rm "))), succeeded());
    }
    EXPECT_EQ(kit({"status"}).status, 0);
}

TEST(KitStatus, FindsUnsafeOwnersModesAndLinksAndTellsTheCommandThatMendsThem)
{
    makeLayout("system");
    makeLayout("user");
    setMode(maintenanceOf("system"), 0775);
    setOwner(inboxOf("user"), rootUid);
    publishText("system", Work("system").brings(alpha).text(), "a");
    setMode(descriptorOf("system", "a"), 0666);
    removeAll(maintenanceOf("user") / "Products");
    makeLink(maintenanceOf("user") / "Products", "/etc");
    const Json answer = kitJson({"status"});
    std::vector<std::string> places;
    for (const std::string scope : {"user", "system"}) {
        const Json view = scopeIn(answer, scope);
        for (const auto& finding : view.at("findings"))
            places.push_back(finding.at("place"));
    }
    EXPECT_EQ(places, (std::vector<std::string>{inboxOf("user"), maintenanceOf("user") / "Products",
                                                maintenanceOf("system"), descriptorOf("system", "a")}));
    const Json view = scopeIn(answer, "system");
    EXPECT_EQ(inShell(view.at("findings")[0].at("advice")), succeeded());
    EXPECT_EQ(inShell(view.at("findings")[1].at("advice")), succeeded());
    EXPECT_EQ(scopeIn(kitJson({"status"}), "system").at("findings").size(), 0U);
}

TEST(KitStatus, FindsProgramsAndAPlanThatOthersMayWriteOrThatAreNotTheScopesOwn)
{
    placeTool("system", planText({alpha}));
    const std::string updater = (supportOf("system") / "TamarindPelicanUpdater").native();
    const std::string plan = (supportOf("system") / "transaction-plan.tpmp").native();
    const std::string tool = (rootOf("system") / toolPath).native();
    writeFile(updater, "updater", {rootUid, 0755});
    EXPECT_EQ(kit({"status", "system"}).status, 0) << kit({"status", "system"});
    for (const std::string& path : {tool, updater, plan}) {
        setMode(path, 0775);
        setOwner(path, playerUid);
    }
    const Json view = scopeIn(kitJson({"status", "system"}), "system");
    EXPECT_EQ(view.at("findings").size(), 6U) << view.dump(1);
    for (const auto& finding : view.at("findings")) {
        EXPECT_EQ(finding.value("toolMessage", ""),
                  finding.at("place") == plan ? "embedded transaction plan is missing or unsafe" : "");
        placeSudo();
        EXPECT_EQ(inShell(finding.at("advice")), succeeded());
    }
    EXPECT_EQ(kit({"status", "system"}).status, 0) << kit({"status", "system"});
    for (const std::string& path : {tool, updater, plan}) {
        removeAll(path);
        makeLink(path, "/etc/passwd");
    }
    EXPECT_EQ(scopeIn(kitJson({"status", "system"}), "system").at("findings").size(), 3U);
    removeAll(plan);
    writeFile(plan, planText({alpha}));
    makeHardLink(supportOf("system") / "twin", plan);
    EXPECT_TRUE(holds(kit({"status", "system"}).out, plan + ": error: has several names (hard links)"));
}

TEST(KitStatus, QuotesTheMessageThatTheToolHasForEachUnsafeFile)
{
    prepareMove();
    publish(Work("system").brings(alpha), "a");
    publish(Work("system").brings(alpha), "b");
    writeFile(lockOf("system"), "", {rootUid, 0600});
    setMode(lockOf("system"), 0666);
    setMode(leaseOf("system"), 0666);
    setMode(transactionOf("system", "move-1") / "prepared", 0666);
    setMode(descriptorOf("system", "a"), 0666);
    removeAll(descriptorOf("system", "b"));
    makeLink(descriptorOf("system", "b"), "/etc/passwd");
    writeFile(pendingOf("system"), "x", {rootUid, 0666});
    setMode(pendingOf("system"), 0666);
    writeFile(recordOf("system", "alpha"), "product=alpha\nversion=1.0\n", {playerUid, 0644});
    const Json view = scopeIn(kitJson({"status", "system"}), "system");
    std::map<std::string, std::string> said;
    for (const auto& finding : view.at("findings"))
        if (finding.contains("toolMessage") && finding.at("rule") != "the content is not valid")
            said[finding.at("place")] = finding.at("toolMessage");
    EXPECT_EQ(said, (std::map<std::string, std::string>{
                        {lockOf("system"), "maintenance lock is unsafe"},
                        {leaseOf("system"), "durable transaction lease ownership or mode is unsafe"},
                        {transactionOf("system", "move-1") / "prepared",
                         "prepared transaction state ownership or mode is unsafe"},
                        {descriptorOf("system", "a"), "maintenance descriptor permissions are unsafe"},
                        {descriptorOf("system", "b"), "maintenance descriptor is missing or unsafe"},
                        {pendingOf("system"), "pending installation attempt is missing or unsafe"},
                        {recordOf("system", "alpha"), "fixed metadata destination is unsafe"}}))
        << view.dump(1);
}

TEST(KitStatus, OfADamagedDescriptorNamesTheCommandThatSaysWhatIsWrong)
{
    publishText("system", "nonsense\n", "a");
    const Json view = scopeIn(kitJson({"status", "system"}), "system");
    const std::string advice = view.at("findings")[0].at("advice");
    EXPECT_EQ(advice, "tpm-kit check '" + descriptorOf("system", "a").native() + "' says more");
    const Outcome check = kit({"check", descriptorOf("system", "a")});
    EXPECT_EQ(check.status, 65);
    EXPECT_TRUE(holds(check.out + check.err, "maintenance descriptor")) << check;
}

TEST(KitStatus, FindsAToolThatARollbackLeftWithoutTheRightToBeRun)
{
    installInSystem();
    publish(Work("system").brings(alpha, "1.0").with(realCommon()), "repair-1");
    ASSERT_EQ(run({"prepare-move", "system", "repair-1"}), succeeded());
    writeFile(rootOf("system") / toolPath, "half a tool");
    ASSERT_EQ(run({"rollback-move", "system", "repair-1"}), succeeded());
    const Json answer = kitJson({"status", "system"});
    const std::string path = (rootOf("system") / toolPath).native();
    EXPECT_TRUE(holds(answer.dump(), "the tool cannot be run: mode 0600, as after a rollback"))
        << answer.dump(1);
    EXPECT_TRUE(holds(answer.dump(), "chmod 755 '" + path + "'"));
}

TEST(KitStatus, FindsBooksThatAreNotWhatIsRegistered)
{
    installInSystem();
    makeLayout("system");
    const Json answer = kitJson({"status", "system"});
    EXPECT_EQ(scopeIn(answer, "system").at("findings").size(), 2U) << answer.dump(1);
    EXPECT_TRUE(holds(answer.dump(), "installed-products.json does not list what is registered"));
}

TEST(KitStatus, FindsProductsThatAreNotWhole)
{
    installInSystem();
    unregister("system", alpha.au.id);
    const Json answer = kitJson({"status", "system"});
    EXPECT_TRUE(holds(answer.dump(), "product native receipts are incomplete or inconsistent"));
    EXPECT_TRUE(holds(answer.dump(), "its Audio Unit package is missing"));
    EXPECT_EQ(scopeIn(answer, "system").at("products").size(), 0U);
}

TEST(KitStatus, GoesOnWhereTheToolsInventoryRefuses)
{
    installInSystem();
    const auto path = rootOf("system") / vst3Path("alpha");
    removeAll(path);
    makeLink(path, "/etc/passwd");
    const Json answer = kitJson({"status", "system"});
    EXPECT_TRUE(holds(answer.dump(), "pkgutil receipt inventory contains a link or foreign file"));
    EXPECT_EQ(scopeIn(answer, "system").at("products").dump(), R"([{"id":"alpha","version":"1.0"}])");
}

TEST(KitStatus, GoesOnWithoutAPackageDatabase)
{
    makeLayout("system");
    removeAll("/usr/sbin/pkgutil");
    const Json answer = kitJson({"status"});
    EXPECT_EQ(answer.at("complete"), false);
    EXPECT_TRUE(holds(answer.dump(), "fixed /usr/sbin/pkgutil is unavailable"));
}

TEST(KitStatus, GoesOnWithoutAConsoleAccount)
{
    installInSystem();
    setNobodyAtConsole();
    const Json answer = kitJson({"status"});
    EXPECT_TRUE(holds(answer.dump(), "cannot resolve the invoking console account"));
    EXPECT_EQ(scopeIn(answer, "system").at("products").size(), 1U);
}

TEST(KitStatus, OfAnAccountSaysWhatItMayNotReadAndGoesOn)
{
    prepareMove();
    const Outcome outcome = kit({"status"}, asPlayer());
    EXPECT_EQ(outcome.status, 65) << outcome;
    EXPECT_TRUE(holds(outcome.out, "may not be read by this account: " + leaseOf("system").native()))
        << outcome;
    EXPECT_TRUE(holds(outcome.out, "move-1: unreadable, from user to system")) << outcome;
    const Json answer = kitJson({"status"}, asPlayer());
    EXPECT_EQ(scopeIn(answer, "user").at("products").size(), 1U);
    EXPECT_EQ(answer.at("complete"), false);
}

TEST(KitStatus, OfAnAccountEndsWith77WhenNothingIsWrongButNotEverythingCouldBeRead)
{
    publish(Work("system").brings(alpha), "a");
    const Outcome outcome = kit({"status"}, asPlayer());
    EXPECT_EQ(outcome.status, 77) << outcome;
    EXPECT_TRUE(outcome.out.ends_with("nothing is open, as far as this account may read\n")) << outcome;
    EXPECT_TRUE(holds(outcome.out, "to do: sudo tpm-kit status system\n")) << outcome;
}

TEST(KitStatus, OfAnAccountSaysThatSomethingIsOpenWhereItMayNotReadWhat)
{
    const auto expectOpen = [] {
        const Outcome outcome = kit({"status", "system"}, asPlayer());
        EXPECT_EQ(outcome.status, 65) << outcome;
        EXPECT_TRUE(outcome.out.ends_with("to do: sudo tpm-kit status system\n"
                                          "something needs attention, see above\n"))
            << outcome;
        const Json answer = kitJson({"status", "system"}, asPlayer());
        EXPECT_EQ(answer.at("attention"), true);
        EXPECT_EQ(answer.at("complete"), false);
        EXPECT_EQ(answer.at("advice"), "sudo tpm-kit status system");
    };
    const std::string id = begin();
    expectOpen();
    EXPECT_TRUE(scopeIn(kitJson({"status", "system"}, asPlayer()), "system").at("pending").is_null());
    ASSERT_EQ(run({"prepare-move", "system", id}), succeeded());
    expectOpen();
    removeAll(pendingOf("system"));
    expectOpen();
    removeAll(leaseOf("system"));
    expectOpen();
}

TEST(KitStatus, OfAnAbandonedInstallationSaysThatItKeepsOthersOut)
{
    const std::string id = begin();
    ASSERT_EQ(run({"prepare-move", "system", id}), succeeded());
    ASSERT_EQ(run({"commit-move", "system", id}).status, 65);
    const Json transaction = transactionIn(kitJson({"status"}), id);
    EXPECT_EQ(transaction.at("state"), "abandoned");
    EXPECT_TRUE(holds(transaction.dump(), "its attempt keeps every other installer out")) << transaction;
    EXPECT_FALSE(holds(transaction.dump(), "blocks nothing")) << transaction;
    Surroundings other;
    other.tool = placeTool("system", planText({plugin("alpha", "1.1")}));
    EXPECT_EQ(run({"begin-install", "system"}, other),
              refused("pending installation attempt is bound to another plan"));
    ASSERT_EQ(abandonedMove(), "move-1");
    EXPECT_TRUE(holds(transactionIn(kitJson({"status"}), "move-1").dump(), "blocks nothing"));
}

TEST(KitStatus, OfTheAccountsOwnScopeNamesCommandsThatItCanRun)
{
    placeTool("user", planText({alpha}), playerUid);
    publish(Work("user").brings(alpha), "install-1");
    ASSERT_EQ(run({"prepare-move", "user", "install-1"}, asPlayer()), succeeded());
    const auto commands = commandsTo("undo", "install-1", asPlayer());
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_EQ(runCommand({"/bin/sh", "-c", commands[0]}, asPlayer()), succeeded());
    EXPECT_TRUE(isThere(completedOf("user", "install-1")));
    EXPECT_EQ(stateOf("install-1", asPlayer()), "completed");
}

TEST(KitStatus, OfAnAccountsScopeTellsRootToTakeItsPlace)
{
    placeTool("user", planText({alpha}), playerUid);
    publish(Work("user").brings(alpha), "install-1");
    ASSERT_EQ(run({"prepare-move", "user", "install-1"}, asPlayer()), succeeded());
    const auto commands = commandsTo("undo", "install-1");
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_TRUE(commands[0].starts_with("sudo -u '#501' '/Users/player/Library/Application Support/"))
        << commands[0];
    follow(commands);
    EXPECT_EQ(stateOf("install-1"), "completed");
}

TEST(KitStatus, IsTheSameTwice)
{
    prepareMove();
    EXPECT_EQ(kit({"status"}), kit({"status"}));
    EXPECT_EQ(kit({"status", "--json"}), kit({"status", "--json"}));
}

} // namespace
} // namespace maintenance::rehearsed
