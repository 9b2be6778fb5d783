#include "kit.h"

namespace maintenance::rehearsed {
namespace {

const std::string planFile = inWorkshop("transaction-plan.tpmp");

void execute(const Arguments& words)
{
    const Outcome outcome = runCommand(words);
    if (outcome.status != 0)
        throw std::runtime_error(words[0] + ": " + outcome.err);
}

/// Builds a component package as a maker does.
std::string build(const Package& package, const Arguments& options = {})
{
    const std::string tree = inWorkshop(package.id + ".tree");
    if (!isThere(tree))
        stage({package}, package.id + ".tree");
    Arguments words = {"/bin/bash",    std::string(REHEARSAL_TOOLS) + "/pkgbuild",
                       "--root",       tree,
                       "--identifier", package.id,
                       "--version",    package.version};
    words.insert(words.end(), options.begin(), options.end());
    words.push_back(inWorkshop(package.id + ".pkg"));
    execute(words);
    return words.back();
}

std::vector<std::string> buildAll(const Plugin& product)
{
    return {build(product.vst3), build(product.au), build(commonPackage())};
}

Arguments planWords(const std::string& list, const std::vector<std::string>& packages)
{
    Arguments words = {"plan", "-l", list, "-o", planFile};
    for (const std::string& package : packages)
        words.insert(words.end(), {"-p", package});
    return words;
}

TEST(KitPlanOfPackages, IsTheSameAsThatOfTheirTrees)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const Outcome outcome = kit(planWords(writeList({alpha}), buildAll(alpha)));
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(readFile(planFile), planText({alpha}));
}

TEST(KitPlanOfPackages, ReadsAProductArchiveAndPassesOverScripts)
{
    const Plugin alpha = plugin("alpha", "1.0");
    buildAll(alpha);
    std::string references;
    for (const Package& package : {alpha.vst3, alpha.au, commonPackage()})
        references += "<pkg-ref id=\"" + package.id + "\">#" + package.id + ".pkg</pkg-ref>\n";
    writeFile(inWorkshop("distribution"),
              "<installer-gui-script>\n" + references + "</installer-gui-script>\n");
    execute({"/bin/bash", std::string(REHEARSAL_TOOLS) + "/productbuild", "--distribution",
             inWorkshop("distribution"), "--package-path", workshop, inWorkshop("product.pkg")});
    const Outcome outcome = kit(planWords(writeList({alpha}), {inWorkshop("product.pkg")}));
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(readFile(planFile), planText({alpha}));
}

TEST(KitPlanOfPackages, NeedsNoBundleNames)
{
    const Plugin alpha = plugin("alpha", "1.0");
    writeFile(
        inWorkshop("list"),
        R"({"schema": "tamarind.pelican.product-list.v1", "sku": "studio-bundle", "packageRevision": 7, )"
        R"("products": [{"id": "alpha", "version": "1.0"}]})");
    EXPECT_EQ(kit(planWords(inWorkshop("list"), buildAll(alpha))).status, 0);
    EXPECT_EQ(readFile(planFile), planText({alpha}));
}

TEST(KitPlanOfPackages, RefusesVersionsThatTheListDoesNotSay)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const auto packages = buildAll(alpha);
    const auto answer = kitJson(planWords(writeList({plugin("alpha", "1.1")}), packages));
    ASSERT_EQ(rulesOf(answer).size(), 2U) << answer.dump(1);
    EXPECT_EQ(rulesOf(answer)[0], "the package has version \"1.0\", the list says \"1.1\"");
}

TEST(KitPlanOfPackages, RefusesAnotherInstallLocation)
{
    const Plugin alpha = plugin("alpha", "1.0");
    auto packages = buildAll(alpha);
    build(alpha.au, {"--install-location", "/opt"});
    const auto answer = kitJson(planWords(writeList({alpha}), packages));
    EXPECT_EQ(messagesOf(answer),
              std::set<std::string>{"pkgutil receipt metadata is outside the fixed install root"});
}

TEST(KitPlanOfPackages, RefusesLinksWritableFilesAndTwins)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage({alpha.vst3}, alpha.vst3.id + ".tree") + "/";
    makeLink(tree + vst3Path("alpha", "Contents/link"), "Resources");
    makeHardLink(tree + vst3Path("alpha", "Contents/twin"), tree + vst3Path("alpha"));
    setMode(tree + vst3Path("alpha", "Contents/Resources/art.txt"), 0666);
    writeFile(tree + vst3Path("alpha", "Contents/._x"), "x");
    const auto answer = kitJson(planWords(writeList({alpha}), buildAll(alpha)));
    EXPECT_EQ(answer.at("written"), false);
    EXPECT_EQ(rulesOf(answer).size(), 5U) << answer.dump(1);
}

TEST(KitPlanOfPackages, RefusesAFileThatTwoPackagesBring)
{
    const Plugin alpha = plugin("alpha", "1.0");
    stage({alpha.vst3, alpha.au}, alpha.au.id + ".tree");
    const auto answer = kitJson(planWords(writeList({alpha}), buildAll(alpha)));
    EXPECT_EQ(answer.at("written"), false);
    std::set<std::string> rules;
    for (const std::string& rule : rulesOf(answer))
        rules.insert(rule);
    EXPECT_TRUE(rules.contains("the path is there twice")) << answer.dump(1);
}

TEST(KitPlanOfPackages, RefusesAPackageOfNoProduct)
{
    const Plugin alpha = plugin("alpha", "1.0");
    auto packages = buildAll(alpha);
    packages.push_back(build(plugin("beta", "1.0").au));
    const auto answer = kitJson(planWords(writeList({alpha}), packages));
    ASSERT_EQ(rulesOf(answer).size(), 1U) << answer.dump(1);
    EXPECT_EQ(rulesOf(answer)[0], "no product of the list has the package com.tamarindpelican.pkg.beta.au");
}

TEST(KitPlanOfPackages, RefusesWhatTheInstallerMightPlaceElsewhere)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const auto packages = buildAll(alpha);
    const std::string flat = inWorkshop("flat");
    makeDirectories(flat);
    execute({"/usr/bin/bsdtar", "-xf", packages[0], "-C", flat});
    writeFile(flat + "/PackageInfo",
              "<?xml version=\"1.0\"?>\n<!-- <pkg-info identifier=\"no\"/> -->\n<pkg-info "
              "identifier='com.tamarindpelican.pkg.alpha.vst3' version=\"1.0\" "
              "install-location=\"/\">\n<bundle-version/>\n<relocate><bundle id=\"x\"/>"
              "</relocate></pkg-info>\n");
    execute({"/usr/bin/bsdtar", "--format=xar", "-cf", packages[0], "-C", flat, "PackageInfo", "Payload"});
    const auto answer = kitJson(planWords(writeList({alpha}), packages));
    ASSERT_EQ(rulesOf(answer).size(), 1U) << answer.dump(1);
    EXPECT_TRUE(holds(rulesOf(answer)[0], "relocatable"));
}

TEST(KitPlanOfPackages, SaysWhatIsNoPackage)
{
    const Plugin alpha = plugin("alpha", "1.0");
    writeFile(inWorkshop("text.pkg"), "no archive");
    writeFile(inWorkshop("empty.pkg"), "");
    for (const char* name : {"text.pkg", "empty.pkg"}) {
        const Outcome outcome = kit(planWords(writeList({alpha}), {inWorkshop(name)}));
        EXPECT_EQ(outcome.status, 65) << outcome;
        EXPECT_TRUE(holds(outcome.err, "is no flat package")) << outcome;
    }
    EXPECT_EQ(kit(planWords(writeList({alpha}), {inWorkshop("none.pkg")})).status, 66);
    EXPECT_EQ(kit(planWords(writeList({alpha}), {workshop})).status, 66);
}

TEST(KitPlanOfPackages, NeverTakesADamagedPackageForAWholeOne)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const auto packages = buildAll(alpha);
    const std::string whole = readFile(packages[0]);
    // The archives of bsdtar end with twenty bytes that nothing refers to.
    constexpr std::size_t unused = 20;
    for (std::size_t size = 0; size < whole.size() - unused; size += 1 + whole.size() / 40) {
        writeFile(packages[0], whole.substr(0, size));
        const Outcome outcome = kit(planWords(writeList({alpha}), packages));
        EXPECT_EQ(outcome.status, 65) << size << outcome;
        EXPECT_FALSE(isThere(planFile));
    }
}

TEST(KitCheck, ComparesAPlanWithPackages)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const auto packages = buildAll(alpha);
    writeFile(planFile, planText({alpha}));
    Arguments words = {"check", planFile};
    for (const std::string& package : packages)
        words.insert(words.end(), {"-p", package});
    EXPECT_EQ(kit(words).status, 0) << kit(words);

    writeFile(planFile, planText({plugin("alpha", "1.1")}));
    const auto answer = kitJson(words);
    EXPECT_EQ(answer.at("accepted"), false);
    std::set<std::string> differences;
    for (const auto& difference : answer.at("differences"))
        differences.insert(difference.at("difference"));
    EXPECT_EQ(differences, (std::set<std::string>{"content", "version"}));
}

} // namespace
} // namespace maintenance::rehearsed
