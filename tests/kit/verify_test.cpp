#include "kit.h"

namespace maintenance::rehearsed {
namespace {

using Json = nlohmann::ordered_json;

const Plugin alpha = plugin("alpha", "1.0");

/// Installs a product in the system scope as the tool's own transaction.
void installProperly(const Plugin& product, const std::string& id)
{
    publish(Work("system").brings(product), id);
    const Outcome prepared = run({"prepare-move", "system", id});
    install("system", commonPackage());
    install("system", product);
    const Outcome committed = run({"commit-move", "system", id});
    if (prepared.status != 0 || committed.status != 0)
        throw std::runtime_error(prepared.err + committed.err);
}

std::filesystem::path installed(const std::string& path) { return rootOf("system") / path; }

/// What the audit finds: each place with its rule's beginning up to the first colon.
std::map<std::string, std::string> found(const Json& answer)
{
    std::map<std::string, std::string> rules;
    for (const auto& finding : answer.at("findings")) {
        const std::string rule = finding.at("rule");
        rules[finding.at("place")] = rule.substr(0, rule.find(':'));
    }
    return rules;
}

TEST(KitVerify, OfAnUntouchedInstallationIsSound)
{
    installProperly(alpha, "install-1");
    const Outcome outcome = kit({"verify", "system"});
    EXPECT_EQ(
        outcome,
        succeeded("compared with install-1\nsystem scope: 6 files in 3 packages: everything is as it was "
                  "installed\n"));
    const Json answer = kitJson({"verify", "system"});
    EXPECT_EQ(answer.at("sound"), true);
    EXPECT_EQ(answer.at("reinstall").size(), 0U);
}

TEST(KitVerify, OfNothingInstalledSaysSo)
{
    EXPECT_EQ(kit({"verify", "user"}),
              succeeded("user scope: 0 files in 0 packages: nothing is installed\n"));
}

TEST(KitVerify, TakesTheContentOfAnyCompletedDescriptorOfTheVersion)
{
    Plugin other = plugin("alpha", "1.0");
    other.withVst3File("Contents/MacOS/plugin", "another build").withVst3File("Contents/more", "x");
    publish(Work("system").brings(other), "install-0");
    ASSERT_EQ(run({"prepare-move", "system", "install-0"}), succeeded());
    ASSERT_EQ(run({"rollback-move", "system", "install-0"}), succeeded());
    installProperly(alpha, "install-1");
    const Json sound = kitJson({"verify", "system"});
    EXPECT_EQ(sound.at("sound"), true) << sound.dump(1);
    EXPECT_EQ(sound.at("comparedWith").dump(), R"(["install-0","install-1"])");
    writeFile(installed(vst3Path("alpha")), "tampered");
    const Json answer = kitJson({"verify", "system"});
    EXPECT_EQ(found(answer),
              (std::map<std::string, std::string>{{installed(vst3Path("alpha")), "the file was changed"}}));
    EXPECT_TRUE(holds(answer.dump(), " or ")) << answer.dump(1);
}

TEST(KitVerify, NamesEveryChangedAndMissingFileAndThePackagesToInstallAgain)
{
    installProperly(alpha, "install-1");
    writeFile(installed(vst3Path("alpha")), "tampered");
    removeAll(installed(auPath("alpha", "Contents/Resources/art.txt")));
    const Json answer = kitJson({"verify", "system"});
    EXPECT_EQ(found(answer),
              (std::map<std::string, std::string>{
                  {installed(vst3Path("alpha")), "the file was changed"},
                  {installed(auPath("alpha", "Contents/Resources/art.txt")), "the file is missing"}}));
    EXPECT_EQ(answer.at("reinstall").dump(),
              R"([{"packageId":"com.tamarindpelican.pkg.alpha.au","version":"1.0"},)"
              R"({"packageId":"com.tamarindpelican.pkg.alpha.vst3","version":"1.0"}])");
    const Outcome outcome = kit({"verify", "system"});
    EXPECT_EQ(outcome.status, 65);
    EXPECT_TRUE(holds(outcome.out, "to install again: com.tamarindpelican.pkg.alpha.vst3 1.0\n")) << outcome;

    install("system", alpha);
    EXPECT_EQ(kit({"verify", "system"}).status, 0);
}

TEST(KitVerify, NamesFilesOfTheSystemThatOnlyTheirOwnerCanRead)
{
    installProperly(alpha, "install-1");
    setMode(installed(vst3Path("alpha")), 0600);
    const Json answer = kitJson({"verify", "system"});
    EXPECT_EQ(found(answer), (std::map<std::string, std::string>{
                                 {installed(vst3Path("alpha")), "other accounts cannot read the file"}}));
    EXPECT_EQ(answer.at("reinstall").size(), 1U);
    EXPECT_EQ(kit({"verify", "system"}).status, 65);
}

TEST(KitVerify, NamesLinksInAFilesPlace)
{
    installProperly(alpha, "install-1");
    removeAll(installed(vst3Path("alpha")));
    makeLink(installed(vst3Path("alpha")), "/etc/passwd");
    makeHardLink("/twin", installed(auPath("alpha")));
    const auto rules = found(kitJson({"verify", "system"}));
    EXPECT_EQ(rules.at(installed(vst3Path("alpha"))),
              "a link or something else than a file stands in the file's place");
    EXPECT_EQ(rules.at(installed(auPath("alpha"))), "the file has several names (hard links)");
}

TEST(KitVerify, NamesAWholeBundleThatIsGone)
{
    installProperly(alpha, "install-1");
    removeAll(installed("Library/Audio/Plug-Ins/VST3"));
    const Json answer = kitJson({"verify", "system"});
    EXPECT_EQ(answer.at("findings").size(), 2U) << answer.dump(1);
    EXPECT_EQ(answer.at("reinstall").size(), 1U);
}

TEST(KitVerify, ComparesWithAPlanOrADescriptorThatIsNamed)
{
    install("system", commonPackage());
    install("system", alpha);
    writeFile(inWorkshop("plan"), planText({alpha}));
    writeFile(inWorkshop("a.tpmt"), Work("system").brings(alpha).text());
    for (const char* name : {"plan", "a.tpmt"}) {
        EXPECT_EQ(kit({"verify", "system", "--against", inWorkshop(name)}).status, 0);
    }
    writeFile(inWorkshop("plan"), planText({plugin("alpha", "1.1").withVst3File("Contents/new", "x")}));
    const auto rules = found(kitJson({"verify", "system", "--against", inWorkshop("plan")}));
    EXPECT_EQ(rules.at(alpha.vst3.id), "the package is registered at version 1.0, listed at version 1.1");
    EXPECT_EQ(rules.at(installed(vst3Path("alpha"))), "the file was changed");
    EXPECT_EQ(rules.at(installed(vst3Path("alpha", "Contents/new"))), "the file is missing");
}

TEST(KitVerify, NamesFilesThatAreRegisteredAndNotListedAndTheOtherWayRound)
{
    Plugin more = plugin("alpha", "1.0");
    more.withVst3File("Contents/more", "x");
    install("system", commonPackage());
    install("system", more);
    writeFile(inWorkshop("plan"), planText({alpha}));
    EXPECT_EQ(found(kitJson({"verify", "system", "--against", inWorkshop("plan")}))
                  .at(installed(vst3Path("alpha", "Contents/more"))),
              "the package is registered with a file that is not listed for it");
    install("system", alpha);
    writeFile(inWorkshop("plan"), planText({more}));
    EXPECT_EQ(found(kitJson({"verify", "system", "--against", inWorkshop("plan")}))
                  .at(installed(vst3Path("alpha", "Contents/more"))),
              "the file is there, but no package is registered with it");
}

TEST(KitVerify, SaysHowManyFilesNothingVouchesFor)
{
    install("system", commonPackage());
    install("system", alpha);
    const Outcome outcome = kit({"verify", "system"});
    EXPECT_EQ(outcome.status, 77) << outcome;
    EXPECT_TRUE(holds(outcome.out, "6 files could not be compared")) << outcome;
}

TEST(KitVerify, TakesOnlyDescriptorsThatWereCompletedForTheRegisteredVersion)
{
    installProperly(alpha, "install-1");
    publish(Work("system").brings(plugin("beta", "1.0")), "never-begun");
    installProperly(plugin("alpha", "2.0"), "install-2");
    const Json answer = kitJson({"verify", "system"});
    EXPECT_EQ(answer.at("sound"), true) << answer.dump(1);
    EXPECT_EQ(answer.at("comparedWith").dump(), R"(["install-1","install-2"])")
        << "the shared package is in both";
}

TEST(KitVerify, OfAnAccountSaysWhatItMayNotRead)
{
    installProperly(alpha, "install-1");
    const Outcome blind = kit({"verify", "system"}, asPlayer());
    EXPECT_EQ(blind.status, 77) << blind;
    EXPECT_TRUE(holds(blind.out, descriptorOf("system", "install-1").native())) << blind;
    EXPECT_TRUE(holds(blind.out, "to do: sudo tpm-kit verify system\n")) << blind;
    setMode(installed(vst3Path("alpha")), 0600);
    writeFile(inWorkshop("plan"), planText({alpha}));
    const Outcome against = kit({"verify", "system", "-a", inWorkshop("plan")}, asPlayer());
    EXPECT_EQ(against.status, 65) << against;
    EXPECT_TRUE(
        holds(against.out, "may not be read by this account: " + installed(vst3Path("alpha")).native()))
        << against;
    EXPECT_TRUE(
        holds(against.out, "to do: sudo tpm-kit verify system --against " + inWorkshop("plan") + "\n"))
        << against;
}

TEST(KitVerify, RefusesAReferenceThatTheToolWouldRefuse)
{
    writeFile(inWorkshop("plan"), "schema=tamarind.pelican.macos-maintenance-plan.v1\n");
    const Outcome outcome = kit({"verify", "system", "-a", inWorkshop("plan")});
    EXPECT_EQ(outcome.status, 65);
    EXPECT_TRUE(holds(outcome.err, "embedded transaction plan is incomplete")) << outcome;
}

TEST(KitVerify, ChangesNothing)
{
    installProperly(alpha, "install-1");
    const Tree before = takeExactTree();
    kit({"verify", "system"});
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(KitHistory, ListsWhatWasCompletedInTheOrderOfItsRecords)
{
    installProperly(alpha, "install-2");
    installProperly(plugin("alpha", "1.1"), "install-1");
    runCommand({"/usr/bin/touch", "-d", "@86400", completedOf("system", "install-2")});
    runCommand({"/usr/bin/touch", "-d", "@86461", completedOf("system", "install-1")});
    EXPECT_EQ(kit({"history", "system"}),
              succeeded("1970-01-02T00:00:00Z  install-2\n    in the system scope, alpha 1.0\n"
                        "1970-01-02T00:01:01Z  install-1\n    in the system scope, alpha 1.1\n"
                        "a record does not tell whether it was committed, rolled back or uninstalled\n"
                        "2 completed transactions in the system scope\n"));
    EXPECT_EQ(kit({"history", "user"}), succeeded("0 completed transactions in the user scope\n"));
    const Json answer = kitJson({"history", "system"});
    EXPECT_EQ(answer.at("completed")[1].at("recordedAt"), "1970-01-02T00:01:01Z");
    EXPECT_EQ(answer.at("completed")[0].at("products").dump(), R"(["alpha 1.0"])");
}

TEST(KitHistory, DoesNotDependOnTheTimeZone)
{
    installProperly(alpha, "install-1");
    EXPECT_EQ(runCommand({"/usr/bin/env", "TZ=Asia/Tokyo", kitProgram, "history", "system"}),
              runCommand({"/usr/bin/env", "TZ=America/New_York", "LANG=de_DE.UTF-8", kitProgram, "history",
                          "system"}));
}

TEST(KitHistory, SaysWhenADescriptorIsGoneAndWhenARecordIsDamaged)
{
    installProperly(alpha, "install-1");
    removeAll(descriptorOf("system", "install-1"));
    EXPECT_TRUE(holds(kit({"history", "system"}).out, "in the system scope, descriptor not available"));
    writeFile(completedOf("system", "install-1"), "nonsense", {rootUid, 0600});
    const Outcome outcome = kit({"history", "system"});
    EXPECT_EQ(outcome.status, 65);
    EXPECT_TRUE(holds(outcome.err, "prepared transaction state is invalid")) << outcome;
}

TEST(KitHistory, OfAnAccountSaysWhatItMayNotRead)
{
    installProperly(alpha, "install-1");
    const Outcome outcome = kit({"history", "system"}, asPlayer());
    EXPECT_EQ(outcome.status, 77);
    EXPECT_TRUE(
        holds(outcome.out, "may not be read by this account: " + completedOf("system", "install-1").native()))
        << outcome;
    EXPECT_TRUE(outcome.out.ends_with("to do: sudo tpm-kit history system\n"
                                      "at least 0 completed transactions in the system scope, 1 may not be "
                                      "read\n"))
        << outcome;
    EXPECT_EQ(kitJson({"history", "system"}, asPlayer()).at("advice"), "sudo tpm-kit history system");
}

TEST(KitHistory, ListsAMoveInBothScopes)
{
    install("user", commonPackage());
    install("user", alpha);
    publish(Work("system").from("user").brings(alpha, "1.0"), "move-1");
    makeLayout("user");
    ASSERT_EQ(run({"prepare-move", "system", "move-1"}), succeeded());
    ASSERT_EQ(run({"rollback-move", "system", "move-1"}), succeeded());
    for (const std::string scope : {"user", "system"}) {
        const Outcome outcome = kit({"history", scope});
        EXPECT_TRUE(holds(outcome.out, "  move-1\n    from user to system, alpha 1.0\n")) << outcome;
        EXPECT_TRUE(outcome.out.ends_with("1 completed transaction in the " + scope + " scope\n")) << outcome;
    }
}

} // namespace
} // namespace maintenance::rehearsed
