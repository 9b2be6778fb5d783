#include "kit.h"

namespace maintenance::rehearsed {
namespace {

const std::string planFile = inWorkshop("plan.tpmp");
const std::string output = inWorkshop("work-1.tpmt");

Outcome make(Arguments words)
{
    makeDirectories(workshop);
    words.insert(words.begin(), "descriptor");
    words.insert(words.end(), {"--id", "work-1", "-o", output});
    return kit(words);
}

/// Puts what was written into the inbox of a scope, as an installer does.
void place(const std::string& scope) { publishText(scope, readFile(output), "work-1"); }

const Plugin alpha = plugin("alpha", "1.0");
const Plugin beta = plugin("beta", "2.0");

void installBoth(const std::string& scope)
{
    install(scope, commonPackage());
    install(scope, alpha);
    install(scope, beta);
}

TEST(KitDescriptor, OfAPlanMovesAdoptsReplacesAndUninstalls)
{
    writeFile(planFile, planText({alpha}));
    ASSERT_EQ(make({"move", "-s", "system", "--plan", planFile}).status, 0);
    EXPECT_EQ(readFile(output), Work("system").from("user").brings(alpha).text());
    ASSERT_EQ(
        make({"move", "-s", "user", "--plan", planFile, "--recorded", "alpha=0.9", "--decision", "replace"})
            .status,
        0);
    EXPECT_EQ(readFile(output), Work("user").from("system").deciding("replace").brings(alpha, "0.9").text());
    ASSERT_EQ(make({"adopt", "-s", "system", "--plan", planFile}).status, 0);
    EXPECT_EQ(readFile(output), Work("system").deciding("adopt").brings(alpha).text());
    ASSERT_EQ(make({"replace", "-s", "user", "--plan", planFile}).status, 0);
    EXPECT_EQ(readFile(output), Work("user").deciding("replace").brings(alpha).text());
    ASSERT_EQ(make({"uninstall", "-s", "user", "--plan", planFile}).status, 0);
    EXPECT_EQ(readFile(output), Work("user").brings(alpha, "1.0").text());
    EXPECT_EQ(describe(output), "file 0 0644");
}

TEST(KitDescriptor, OfWhatIsInstalledIsThatOfThePlan)
{
    installBoth("user");
    ASSERT_EQ(make({"move", "-s", "system", "--sku", "studio-bundle"}).status, 0);
    EXPECT_EQ(readFile(output), Work("system").from("user").brings(alpha, "1.0").brings(beta, "2.0").text());
    ASSERT_EQ(make({"uninstall", "-s", "user", "--sku", "studio-bundle", "--product", "beta"}).status, 0);
    EXPECT_EQ(readFile(output), Work("user").brings(beta, "2.0").text());
}

TEST(KitDescriptor, CarriesAMoveThrough)
{
    install("user", commonPackage());
    install("user", alpha);
    ASSERT_EQ(make({"move", "-s", "system", "--sku", "studio-bundle"}).status, 0);
    place("system");
    ASSERT_EQ(run({"inspect", "system", "work-1"}), succeeded("{\"status\":\"move-required\"}\n"));
    ASSERT_EQ(run({"prepare-move", "system", "work-1"}), succeeded());
    install("system", commonPackage());
    install("system", alpha);
    ASSERT_EQ(run({"commit-move", "system", "work-1"}), succeeded());
    EXPECT_FALSE(isRegistered("user", alpha.vst3.id));
    EXPECT_FALSE(isThere(rootOf("user") / vst3Path("alpha")));
}

TEST(KitDescriptor, CarriesAnUninstallationThrough)
{
    installBoth("system");
    ASSERT_EQ(make({"uninstall", "-s", "system", "--sku", "studio-bundle", "--product", "alpha"}).status, 0);
    place("system");
    ASSERT_EQ(run({"uninstall-product", "system", "work-1"}), succeeded());
    EXPECT_FALSE(isRegistered("system", alpha.au.id));
    EXPECT_TRUE(isRegistered("system", beta.au.id));
}

TEST(KitDescriptor, CarriesAnAdoptionThrough)
{
    placeFiles("system", alpha);
    writeFile(planFile, planText({alpha}));
    ASSERT_EQ(make({"adopt", "-s", "system", "--plan", planFile}).status, 0);
    place("system");
    ASSERT_EQ(run({"prepare-move", "system", "work-1"}), succeeded());
    install("system", commonPackage());
    install("system", alpha);
    EXPECT_EQ(run({"commit-move", "system", "work-1"}), succeeded());
}

TEST(KitDescriptor, RefusesWhatIsNotThere)
{
    writeFile(planFile, planText({alpha}));
    const Outcome unknown = make({"uninstall", "-s", "user", "--plan", planFile, "--product", "gamma"});
    EXPECT_EQ(unknown.status, 65);
    EXPECT_TRUE(holds(unknown.err, "the product gamma is not in the plan")) << unknown;
    const Outcome nothing = make({"uninstall", "-s", "user", "--sku", "s"});
    EXPECT_EQ(nothing.status, 65);
    EXPECT_TRUE(holds(nothing.err, "no product is installed in the scope user")) << nothing;
    install("user", alpha);
    const Outcome shared = make({"uninstall", "-s", "user", "--sku", "s"});
    EXPECT_EQ(shared.status, 65);
    EXPECT_TRUE(holds(shared.err, "com.tamarindpelican.pkg.common is not installed")) << shared;
    install("user", commonPackage());
    unregister("user", alpha.au.id);
    EXPECT_TRUE(holds(make({"uninstall", "-s", "user", "--sku", "s"}).err,
                      "com.tamarindpelican.pkg.alpha.au is not"));
    EXPECT_FALSE(isThere(output));
}

TEST(KitDescriptor, SaysTheToolsMessageWhenTheInstallationIsDamaged)
{
    installBoth("user");
    removeAll(rootOf("user") / vst3Path("alpha"));
    const Outcome outcome = make({"uninstall", "-s", "user", "--sku", "s"});
    EXPECT_EQ(outcome.status, 65);
    EXPECT_TRUE(holds(outcome.err, "pkgutil receipt-owned file is missing")) << outcome;
    EXPECT_TRUE(holds(outcome.err, "tpm-kit verify user")) << outcome;
}

TEST(KitDescriptor, SaysThatItMayNotReadWhatOthersInstalled)
{
    installBoth("system");
    setMode(rootOf("system") / vst3Path("alpha"), 0600);
    makeDirectories(workshop);
    setOwner(workshop, playerUid);
    const Outcome outcome =
        kit({"descriptor", "uninstall", "-s", "system", "--sku", "s", "--id", "a", "-o", output}, asPlayer());
    EXPECT_EQ(outcome.status, 77) << outcome;
    EXPECT_TRUE(holds(outcome.err, "cannot read an owned file")) << outcome;
}

TEST(KitDescriptor, RefusesWordsThatNoCommandTakes)
{
    writeFile(planFile, planText({alpha}));
    const Arguments start = {"descriptor", "move", "-s", "user", "--plan", planFile};
    for (const Arguments& more : {Arguments{"--id", "Bad"},
                                  {"--id", "a", "--sku", "A"},
                                  {"--id", "a", "--recorded", "alpha"},
                                  {"--id", "a", "--recorded", "alpha=01"},
                                  {"--id", "a", "--product", "A"},
                                  {"--id", "a", "-o", "-", "--json"}}) {
        Arguments words = start;
        words.insert(words.end(), more.begin(), more.end());
        EXPECT_EQ(kit(words).status, 64) << more.back();
    }
    EXPECT_EQ(
        kit({"descriptor", "adopt", "-s", "user", "--plan", planFile, "--id", "a", "--decision", "none"})
            .status,
        0);
    EXPECT_EQ(
        kit({"descriptor", "adopt", "-s", "user", "--plan", planFile, "--id", "a", "--decision", "replace"})
            .status,
        64);
    EXPECT_EQ(kit({"descriptor", "uninstall", "-s", "user", "--id", "a"}).status, 64);
}

TEST(KitDescriptor, GoesToStandardOutputOrIntoAnAnswerInJson)
{
    writeFile(planFile, planText({alpha}));
    EXPECT_EQ(kit({"descriptor", "adopt", "-s", "user", "--plan", planFile, "--id", "a", "-o", "-"}),
              succeeded(Work("user").deciding("adopt").brings(alpha).text()));
    const auto answer =
        kitJson({"descriptor", "adopt", "-s", "user", "--plan", planFile, "--id", "a", "-o", output});
    EXPECT_EQ(answer.at("written"), true);
    EXPECT_EQ(answer.at("sha256"), systemSha256(readFile(output)));
}

} // namespace
} // namespace maintenance::rehearsed
