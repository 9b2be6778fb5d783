#include "kit.h"

#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

const std::string planFile = inWorkshop("transaction-plan.tpmp");

/// Makes a plan of a staged tree.
Outcome plan(const std::string& list, const std::string& tree, const Surroundings& surroundings = {})
{
    return kit({"plan", "-l", list, "-r", tree, "-o", planFile}, surroundings);
}

nlohmann::ordered_json planJson(const std::string& list, const std::string& tree)
{
    return kitJson({"plan", "-l", list, "-r", tree, "-o", planFile});
}

/// Stages a product, changes the tree by `spoil` and expects exactly one finding, about `place`, whose rule
/// holds `rule`; no plan is left.
template <typename Spoil>
void expectRefusal(const Spoil& spoil, const std::string& place, const std::string& rule,
                   const std::string& message = "")
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    spoil(std::filesystem::path(tree));
    const auto answer = planJson(writeList({alpha}), tree);
    EXPECT_EQ(answer.at("written"), false);
    ASSERT_EQ(answer.at("findings").size(), 1U) << answer.dump(1);
    const auto& finding = answer.at("findings").at(0);
    EXPECT_EQ(finding.at("place"), tree + "/" + place);
    EXPECT_TRUE(holds(finding.at("rule"), rule)) << finding.dump(1);
    EXPECT_EQ(finding.value("toolMessage", ""), message);
    EXPECT_FALSE(finding.at("advice").get<std::string>().empty());
    EXPECT_FALSE(isThere(planFile));
    EXPECT_EQ(plan(writeList({alpha}), tree).status, 65);
}

TEST(KitPlan, OfATreeIsTheCanonicalOneAndTheToolTakesIt)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Plugin beta = plugin("beta", "2.1");
    const std::string tree = stage({beta.vst3, beta.au, alpha.vst3, alpha.au, commonPackage()});
    const Outcome outcome = plan(writeList({beta, alpha}), tree);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(readFile(planFile), planText({alpha, beta}));
    EXPECT_EQ(describe(planFile), "file 0 0644");

    const auto tool = placeTool("system", readFile(planFile));
    Surroundings placed;
    placed.tool = tool;
    EXPECT_EQ(run({"begin-install", "system"}, placed).status, 0);
}

TEST(KitPlan, IsTheSameWhateverTheOrderUmaskAccountAndTimes)
{
    const Plugin alpha =
        plugin("alpha", "1.0").withVst3File("Contents/a-b", "1").withVst3File("Contents/a/b", "2");
    const std::string tree = stage(alpha);
    ASSERT_EQ(plan(writeList({alpha}), tree).status, 0);
    const std::string first = readFile(planFile);

    const std::string again = stage({commonPackage(), alpha.au}, "again");
    stage({alpha.vst3}, "again");
    runCommand(
        {"/bin/sh", "-c", "find " + again + " -exec touch -d @1000000 {} +; chmod -R a+rX " + workshop});
    setMode(workshop, 0777);
    removeAll(planFile);
    Surroundings other = asPlayer();
    other.umask = 0;
    ASSERT_EQ(plan(writeList({alpha}), again, other).status, 0);
    EXPECT_EQ(readFile(planFile), first);
    EXPECT_EQ(describe(planFile), "file 501 0644");
}

TEST(KitPlan, OfSeveralTreesIsThatOfTheirUnion)
{
    const Plugin alpha = plugin("alpha", "1.0");
    stage({alpha.vst3}, "one");
    stage({alpha.au}, "two");
    stage({commonPackage()}, "three");
    const Outcome outcome = kit({"plan", "-l", writeList({alpha}), "-r", inWorkshop("one"), "-r",
                                 inWorkshop("two"), "-r", inWorkshop("three"), "-o", planFile});
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(readFile(planFile), planText({alpha}));
}

TEST(KitPlan, ReplacesAnEarlierOneAtomicallyAndLeavesNothingElse)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    const std::string list = writeList({alpha});
    writeFile(planFile, "old", {rootUid, 0666});
    ASSERT_EQ(plan(list, tree).status, 0);
    EXPECT_EQ(readFile(planFile), planText({alpha}));
    EXPECT_EQ(describe(planFile), "file 0 0644");
    EXPECT_EQ(namesIn(workshop),
              (std::vector<std::string>{"products.json", "stage", "transaction-plan.tpmp"}));
}

TEST(KitPlan, ThatIsRefusedLeavesTheEarlierOne)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    writeFile(planFile, "old");
    makeLink(tree + "/" + vst3Path("alpha", "link"), "art.txt");
    EXPECT_EQ(plan(writeList({alpha}), tree).status, 65);
    EXPECT_EQ(readFile(planFile), "old");
}

TEST(KitPlan, ThatCannotBeWrittenLeavesTheEarlierOneAndNoOtherFile)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    writeFile(planFile, "old");
    Surroundings cramped;
    cramped.largestFile = 100;
    const Outcome outcome = plan(writeList({alpha}), tree, cramped);
    EXPECT_EQ(outcome.status, 73) << outcome;
    EXPECT_TRUE(holds(outcome.err, "to do: ")) << outcome;
    EXPECT_EQ(readFile(planFile), "old");
    EXPECT_EQ(namesIn(workshop).size(), 3U);
}

TEST(KitPlan, IsNeverWrittenOverALinkOrADirectory)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    makeLink(planFile, "/etc/passwd");
    EXPECT_EQ(plan(writeList({alpha}), tree).status, 73);
    EXPECT_EQ(describe(planFile), "link 0 -> /etc/passwd");
    removeAll(planFile);
    makeDirectories(planFile);
    EXPECT_EQ(plan(writeList({alpha}), tree).status, 73);
}

TEST(KitPlan, GoesToStandardOutputWhenAsked)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    EXPECT_EQ(kit({"plan", "-l", writeList({alpha}), "-r", tree, "-o", "-"}), succeeded(planText({alpha})));
}

TEST(KitPlan, RefusesASymbolicLink)
{
    expectRefusal(
        [](const auto& tree) { makeLink(tree / vst3Path("alpha", "Contents/x"), "Resources/art.txt"); },
        vst3Path("alpha", "Contents/x"), "symbolic link",
        "pkgutil receipt inventory contains a link or foreign file");
}

TEST(KitPlan, RefusesALinkInTheWayToAnotherTree)
{
    expectRefusal([](const auto& tree) { makeLink(tree / "Library/Audio/Plug-Ins/More", "/etc"); },
                  "Library/Audio/Plug-Ins/More", "symbolic link",
                  "pkgutil receipt inventory contains a link or foreign file");
}

TEST(KitPlan, RefusesAPipe)
{
    expectRefusal([](const auto& tree) { makePipe(tree / auPath("alpha", "Contents/x")); },
                  auPath("alpha", "Contents/x"), "only files and directories",
                  "pkgutil receipt inventory contains a link or foreign file");
}

TEST(KitPlan, RefusesEveryNameOfAHardLinkedFile)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    makeHardLink(tree + "/" + vst3Path("alpha", "Contents/twin"), tree + "/" + vst3Path("alpha"));
    const auto answer = planJson(writeList({alpha}), tree);
    ASSERT_EQ(answer.at("findings").size(), 2U) << answer.dump(1);
    for (const auto& finding : answer.at("findings"))
        EXPECT_TRUE(holds(finding.at("rule"), "hard links"));
}

TEST(KitPlan, RefusesTwinsOfExtendedAttributes)
{
    expectRefusal([](const auto& tree) { writeFile(tree / vst3Path("alpha", "Contents/._Info"), "x"); },
                  vst3Path("alpha", "Contents/._Info"), "extended attributes");
}

TEST(KitPlan, RefusesFindersFiles)
{
    expectRefusal([](const auto& tree) { writeFile(tree / "Library/.DS_Store", "x"); }, "Library/.DS_Store",
                  "Finder");
}

TEST(KitPlan, RefusesPathsThatDifferOnlyInCase)
{
    expectRefusal([](const auto& tree) { writeFile(tree / vst3Path("alpha", "Contents/macOS/other"), "x"); },
                  vst3Path("alpha", "Contents/macOS"), "only in case");
}

TEST(KitPlan, SaysBothOfALinkThatDiffersFromAFileOnlyInCase)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    makeLink(tree + "/" + vst3Path("alpha", "Contents/MacOS/PLUGIN"), "plugin");
    const auto answer = planJson(writeList({alpha}), tree);
    ASSERT_EQ(answer.at("findings").size(), 2U) << answer.dump(1);
    EXPECT_TRUE(holds(answer.dump(), "symbolic link"));
    EXPECT_TRUE(holds(answer.dump(), "only in case"));
}

TEST(KitPlan, RefusesFilesThatOthersMayWrite)
{
    expectRefusal([](const auto& tree) { setMode(tree / vst3Path("alpha"), 0664); }, vst3Path("alpha"),
                  "mode 0664");
    removeAll(workshop);
    expectRefusal([](const auto& tree) { setMode(tree / auPath("alpha"), 0757); }, auPath("alpha"),
                  "mode 0757");
    removeAll(workshop);
    expectRefusal([](const auto& tree) { setMode(tree / "Library/Application Support", 0775); },
                  "Library/Application Support", "mode 0775");
}

TEST(KitPlan, RefusesNamesThatTheRulesRefuse)
{
    expectRefusal([](const auto& tree) { writeFile(tree / vst3Path("alpha", "Contents/a+b"), "x"); },
                  vst3Path("alpha", "Contents/a+b"), "is +)", "owned path contains an unsafe character");
    removeAll(workshop);
    expectRefusal(
        [](const auto& tree) { makeDirectories(tree / vst3Path("alpha", "Contents/\xC3\xA4/deep")); },
        vst3Path("alpha", "Contents/\\xC3\\xA4"), "is \\xC3)", "owned path contains an unsafe character");
}

TEST(KitPlan, RefusesAForeignBundleOnce)
{
    expectRefusal(
        [](const auto& tree) {
            writeFile(tree / "Library/Audio/Plug-Ins/Components/Foreign.component/a", "x");
            writeFile(tree / "Library/Audio/Plug-Ins/Components/Foreign.component/b/c", "x");
        },
        "Library/Audio/Plug-Ins/Components/Foreign.component", "inside a bundle",
        "owned path is not a Tamarind Pelican plugin bundle");
}

TEST(KitPlan, RefusesAForeignDirectoryOnce)
{
    expectRefusal(
        [](const auto& tree) {
            writeFile(tree / "Applications/Big.app/Contents/a", "x");
            writeFile(tree / "Applications/Big.app/Contents/b", "x");
        },
        "Applications", "or is one of the two executables",
        "owned path is outside fixed Tamarind Pelican destinations");
}

TEST(KitPlan, RefusesAPlanInsideThePayload)
{
    const std::string name = "Library/Application Support/Tamarind Pelican/transaction-plan.tpmp";
    expectRefusal([&](const auto& tree) { writeFile(tree / name, "x"); }, name,
                  "or is one of the two executables",
                  "owned path is outside fixed Tamarind Pelican destinations");
}

TEST(KitPlan, RefusesPathsTooLongToBePublished)
{
    std::string deep = "Contents";
    for (int i = 0; i < 4; ++i)
        deep += "/" + std::string(200, 'd');
    expectRefusal([&](const auto& tree) { writeFile(tree / vst3Path("alpha", deep), "x"); },
                  vst3Path("alpha", deep), "a path of more than");
}

TEST(KitPlan, RefusesWhatBeginInstallCouldNotDescribe)
{
    expectRefusal([](const auto& tree) { writeFile(tree / auPath("alpha", "Contents/VST3/x"), "x"); },
                  auPath("alpha", "Contents/VST3/x"), "is taken for a file of the VST3 package",
                  "maintenance descriptor package identity drifted");
}

TEST(KitPlan, RefusesMoreFilesThanADescriptorHolds)
{
    Plugin alpha = plugin("alpha", "1.0");
    // Fits into a plan of 1 MiB, but not into the longer lines of its descriptor.
    for (int i = 0; i < 6000; ++i)
        alpha.withVst3File("Contents/Resources/" + std::to_string(i), "");
    const std::string tree = stage(alpha);
    ASSERT_LT(planText({alpha}).size(), 1048576U);
    const auto answer = planJson(writeList({alpha}), tree);
    EXPECT_EQ(answer.at("written"), false);
    EXPECT_EQ(messagesOf(answer), std::set<std::string>{"materialized maintenance descriptor is unsafe"});
}

TEST(KitPlan, NeedsBothExecutables)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    removeAll(tree + "/Library/Application Support/Tamarind Pelican/TamarindPelicanUpdater");
    const auto answer = planJson(writeList({alpha}), tree);
    ASSERT_EQ(rulesOf(answer).size(), 1U) << answer.dump(1);
    EXPECT_TRUE(holds(rulesOf(answer)[0], "the shared package must bring this file"));
}

TEST(KitPlan, NeedsBothFormatsOfAProduct)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const auto answer = planJson(writeList({alpha}), stage({alpha.vst3, commonPackage()}));
    ASSERT_EQ(rulesOf(answer).size(), 1U) << answer.dump(1);
    EXPECT_EQ(answer.at("findings").at(0).at("place"), "com.tamarindpelican.pkg.alpha.au");
}

TEST(KitPlan, NeedsAProductForEveryBundleAndABundleForEveryName)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Plugin beta = plugin("beta", "1.0");
    const std::string tree = stage({alpha.vst3, alpha.au, beta.vst3, commonPackage()});
    writeFile(
        inWorkshop("list"),
        R"({"schema": "tamarind.pelican.product-list.v1", "sku": "s", "packageRevision": 7, "products": [)"
        R"({"id": "alpha", "version": "1.0", "bundles": ["TP alpha", "TP gamma"]}]})");
    const auto answer = planJson(inWorkshop("list"), tree);
    const std::vector<std::string> rules = rulesOf(answer);
    ASSERT_EQ(rules.size(), 2U) << answer.dump(1);
    EXPECT_EQ(rules[0], "no product of the list has this bundle");
    EXPECT_EQ(rules[1], "the product alpha lists this bundle, and it has no file");
}

TEST(KitPlan, SaysEverythingThatIsWrongWithAProductList)
{
    writeFile(inWorkshop("list"),
              R"({"schema": "x", "sku": "Studio", "packageRevision": 0, "extra": 1, "products": [)"
              R"({"id": "common", "version": "01", "bundles": ["Other"]}, {"id": "b", "version": "1"},)"
              R"({"id": "b", "version": "18446744073709551616"}]})");
    const auto answer = planJson(inWorkshop("list"), workshop);
    EXPECT_EQ(rulesOf(answer).size(), 9U) << answer.dump(1);
    for (const auto& finding : answer.at("findings"))
        EXPECT_EQ(finding.at("place"), inWorkshop("list"));
}

TEST(KitPlan, SaysWhereAProductListIsNoJson)
{
    writeFile(inWorkshop("list"), "{\n \"sku\": \n");
    const Outcome broken = plan(inWorkshop("list"), workshop);
    EXPECT_EQ(broken.status, 65);
    EXPECT_TRUE(holds(broken.err, "line 3")) << broken;
    writeFile(inWorkshop("list"), R"({"sku": "a", "sku": "b"})");
    const Outcome twice = plan(inWorkshop("list"), workshop);
    EXPECT_EQ(twice.status, 65);
    EXPECT_TRUE(holds(twice.err, "\"sku\" stands twice")) << twice;
}

TEST(KitPlan, SaysWhichInputIsMissing)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Outcome list = plan(inWorkshop("none.json"), workshop);
    EXPECT_EQ(list.status, 66);
    EXPECT_TRUE(holds(list.err, "none.json")) << list;
    const Outcome tree = plan(writeList({alpha}), inWorkshop("none"));
    EXPECT_EQ(tree.status, 66);
    EXPECT_TRUE(holds(tree.err, inWorkshop("none"))) << tree;
}

/// A product list whose only product has this bundle.
std::string listWithBundle(const std::string& schema, const std::string& bundle)
{
    writeFile(inWorkshop("list"), "{" + schema +
                                      R"("sku": "s", "packageRevision": 7, "products": [{"id": "alpha", )"
                                      R"("version": "1.0", "bundles": [")" +
                                      bundle + R"("]}]})");
    return inWorkshop("list");
}

TEST(KitPlan, RefusesABundleWithItsSuffixInOneFinding)
{
    const std::string schema = R"("schema": "tamarind.pelican.product-list.v1", )";
    for (const std::string suffix : {".vst3", ".component"}) {
        const auto answer =
            planJson(listWithBundle(schema, "TP alpha" + suffix), stage(plugin("alpha", "1.0")));
        EXPECT_EQ(rulesOf(answer), std::vector<std::string>{"a bundle stands here without its suffix"});
        EXPECT_EQ(answer.at("findings")[0].at("advice"), "write \"TP alpha\"");
    }
}

TEST(KitPlan, ReportsAMissingSchemaOnce)
{
    EXPECT_EQ(rulesOf(planJson(listWithBundle("", "TP alpha"), stage(plugin("alpha", "1.0")))),
              std::vector<std::string>{"the list needs this member, a text"});
}

TEST(KitPlan, DoesNotOverwriteItsOwnInput)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string list = writeList({alpha});
    const std::string before = readFile(list);
    const std::string tree = stage(alpha);
    makeHardLink(inWorkshop("twin"), list);
    for (const std::string& output : {list, workshop + "/./products.json", inWorkshop("twin")}) {
        const Outcome outcome = kit({"plan", "-l", list, "-r", tree, "-o", output});
        EXPECT_EQ(outcome.status, 64) << outcome;
        EXPECT_TRUE(holds(outcome.err, "is an input and would be overwritten")) << outcome;
    }
    EXPECT_EQ(readFile(list), before);
    ASSERT_EQ(plan(list, tree).status, 0);
    const std::string text = readFile(planFile);
    EXPECT_EQ(
        kit({"descriptor", "move", "-s", "system", "--id", "a", "--plan", planFile, "-o", planFile}).status,
        64);
    EXPECT_EQ(readFile(planFile), text);
}

} // namespace
} // namespace maintenance::rehearsed
