#include "support/scene.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const Outcome notEnumerated = refused("pkgutil cannot enumerate authoritative package receipts");
const Outcome notMakers = refused("pkgutil returned an unexpected package identity");
const Outcome clean = succeeded("{\"status\":\"clean\"}\n");
const Outcome repair = succeeded("{\"status\":\"repair\"}\n");
const std::string pattern = "--pkgs=^com\\.tamarindpelican\\.pkg\\.";
const std::string everyPattern = "command=--pkgs= do ";
const std::string everyPlain = "command=--pkgs do ";
const std::string homesPlain = "command=--pkgs volume=/Users/* do ";
const std::string controlPlain = "command=--pkgs volume=/ do ";

/// Alpha is described for the user scope; what is installed is up to the test.
std::string describeAlpha(const std::string& scope = "user")
{
    return publish(Work(scope).brings(plugin("alpha", "1.0"), "1.0"), "inspect-alpha");
}

Outcome inspectAlpha(const std::string& scope = "user") { return run({"inspect", scope, "inspect-alpha"}); }

/// The calls that an inventory of a volume makes after its listing.
void addQuestions(std::vector<std::string>& calls, const std::string& volume,
                  const std::vector<std::string>& names)
{
    for (const std::string& name : names) {
        const std::string id = " com.tamarindpelican.pkg." + name;
        calls.push_back("--volume " + volume + " --pkg-info" + id);
        calls.push_back("--volume " + volume + " --files" + id);
    }
}

/// A listing that prints exactly `output` and ends with `status`.
std::string printing(const std::string& output, int status)
{
    writeFile("/tmp/output", output);
    return "replace=/tmp/output exit=" + std::to_string(status) + "\n";
}

/// Puts alpha into the user scope and describes it.
void installAlpha()
{
    install("user", plugin("alpha", "1.0"));
    describeAlpha();
}

TEST(Listing, AsksForThePatternThenForAllThenForTheSystemWhenTheHomeIsEmpty)
{
    describeAlpha();
    EXPECT_EQ(inspectAlpha(), clean);
    const std::vector<std::string> calls = {"--volume /Users/player " + pattern,
                                            "--volume /Users/player --pkgs", "--volume / --pkgs",
                                            "--volume / " + pattern, "--volume / --pkgs"};
    EXPECT_EQ(pkgutilCalls(), calls);
}

TEST(Listing, WithoutThePatternKeepsTheMakersPackagesInTheirOrder)
{
    installAlpha();
    install("user", commonPackage());
    writeReceipt("user", "com.example.foreign", "1", {"Library"});
    writeReceipt("user", "com.tamarindpelican.pkgs.alpha.vst3", "1", {"Library"});
    writeReceipt("user", "org.com.tamarindpelican.pkg.alpha.vst3", "1", {"Library"});
    EXPECT_EQ(inspectAlpha(), repair);
    std::vector<std::string> calls = {"--volume /Users/player " + pattern, "--volume /Users/player --pkgs"};
    addQuestions(calls, "/Users/player", {"alpha.au", "alpha.vst3", "common"});
    calls.insert(calls.end(), {"--volume / " + pattern, "--volume / --pkgs"});
    EXPECT_EQ(pkgutilCalls(), calls);
}

TEST(Listing, OfThePatternIsEnoughWhereAPrefixMatches)
{
    installAlpha();
    instructPkgutil("do match=prefix\n");
    EXPECT_EQ(inspectAlpha(), repair);
    std::vector<std::string> calls = {"--volume /Users/player " + pattern};
    addQuestions(calls, "/Users/player", {"alpha.au", "alpha.vst3"});
    calls.insert(calls.end(), {"--volume / " + pattern, "--volume / --pkgs"});
    EXPECT_EQ(pkgutilCalls(), calls);
}

TEST(Listing, OfThePatternWithoutAMatchButWithSuccessIsAnEmptyInventory)
{
    describeAlpha();
    instructPkgutil("do no-match=0\n");
    EXPECT_EQ(inspectAlpha(), clean);
    const std::vector<std::string> calls = {"--volume /Users/player " + pattern, "--volume / " + pattern};
    EXPECT_EQ(pkgutilCalls(), calls);
}

TEST(Listing, GoesOnAfterBlankLinesAndWithoutAFinalLineFeed)
{
    installAlpha();
    instructPkgutil(
        "command=--pkgs= volume=/Users/* do " +
        printing("\ncom.tamarindpelican.pkg.alpha.vst3\n\n\ncom.tamarindpelican.pkg.alpha.au", 0));
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(Listing, OfAnUnexpectedIdentityIsRefused)
{
    installAlpha();
    for (const std::string wrong :
         {"com.example.foreign", "com.tamarindpelican.pkg.", "com.tamarindpelican.pkg.tools",
          "com.tamarindpelican.pkg.alpha.vst3\r", "com.tamarindpelican.pkg.alpha.vst3 ",
          " com.tamarindpelican.pkg.alpha.vst3", "com.tamarindpelican.pkg.Alpha.vst3",
          "com.tamarindpelican.pkg.alpha.component", "com.tamarindpelican.pkg.alpha.vst3.au",
          "com.tamarindpelican.pkg.common.au.au", "com/tamarindpelican/pkg/common", "warning"}) {
        instructPkgutil(everyPattern + printing("com.tamarindpelican.pkg.alpha.au\n" + wrong + "\n", 0));
        const Tree before = takeExactTree();
        forgetPkgutilCalls();
        EXPECT_EQ(inspectAlpha(), notMakers) << wrong;
        EXPECT_EQ(pkgutilCalls().size(), 1U) << wrong;
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(Listing, WithoutThePatternOfAnUnexpectedIdentityOfTheMakerIsRefused)
{
    installAlpha();
    for (const std::string wrong :
         {"com.tamarindpelican.pkg.", "com.tamarindpelican.pkg.tools", "com.tamarindpelican.pkg.Alpha.vst3",
          "com.tamarindpelican.pkg.alpha.vst3\r", "com.tamarindpelican.pkg.alpha.vst3 "}) {
        instructPkgutil(everyPlain + printing("com.example.foreign\n" + wrong + "\n", 0));
        EXPECT_EQ(inspectAlpha(), notMakers) << wrong;
    }
}

TEST(Listing, OfThePatternCutInsideAnIdentifierIsRefused)
{
    installAlpha();
    instructPkgutil("do match=prefix\ncommand=--pkgs= do cut=40\n");
    EXPECT_EQ(inspectAlpha(), notMakers);
}

TEST(Listing, OfThePatternCutBetweenTwoPackagesOfAProductIsRefused)
{
    installAlpha();
    instructPkgutil("do match=prefix\ncommand=--pkgs= do cut=33\n");
    EXPECT_EQ(inspectAlpha(), refused("product native receipts are incomplete or inconsistent"));
}

TEST(Listing, OfThePatternWithNoiseOnStandardErrorIsRefused)
{
    installAlpha();
    instructPkgutil("do match=prefix\n" + everyPattern + "stderr=\"pkgutil[7:1] slow database\"\n");
    EXPECT_EQ(inspectAlpha(), notMakers);
}

TEST(Listing, OfThePatternThatFailsIsBelievedOnlyWhenItIsSilentAndOne)
{
    installAlpha();
    for (const std::string failure :
         {"exit=2 cut=0", "exit=3", "exit=64 cut=0", "exit=70 cut=0", "exit=127 cut=0", "exit=255 cut=0",
          "kill=KILL", "kill=TERM", "kill-after=SEGV", "exit=1 stderr=\"no receipt database\" cut=0",
          "exit=1 match=prefix", "exit=2 match=prefix"}) {
        instructPkgutil(everyPattern + failure + "\n");
        forgetPkgutilCalls();
        const Tree before = takeExactTree();
        EXPECT_EQ(inspectAlpha(), notEnumerated) << failure;
        EXPECT_EQ(pkgutilCalls().size(), 1U) << failure;
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(Listing, OfThePatternThatFailsWithALineFeedAloneIsNotSilent)
{
    installAlpha();
    instructPkgutil(everyPattern + printing("\n", 1));
    EXPECT_EQ(inspectAlpha(), notEnumerated);
    EXPECT_EQ(pkgutilCalls().size(), 1U);
}

TEST(Listing, WithoutThePatternThatFailsIsRefusedUnlessItIsSilent)
{
    installAlpha();
    for (const std::string failure : {"exit=1", "exit=2 cut=0", "exit=70 cut=0", "kill=KILL",
                                      "kill-after=KILL", "exit=1 stderr=\"no receipt database\" cut=0"}) {
        instructPkgutil(homesPlain + failure + "\n");
        forgetPkgutilCalls();
        EXPECT_EQ(inspectAlpha(), notEnumerated) << failure;
        EXPECT_EQ(pkgutilCalls().size(), 2U) << failure;
    }
}

TEST(Listing, WithoutThePatternOfBlankLinesAloneIsNeitherAListingNorSilent)
{
    describeAlpha();
    for (const int status : {0, 1}) {
        instructPkgutil(homesPlain + printing("\n\n", status));
        forgetPkgutilCalls();
        EXPECT_EQ(inspectAlpha(), notEnumerated) << status;
        EXPECT_EQ(pkgutilCalls().size(), 2U) << status;
    }
}

TEST(Listing, ThatIsSilentForTheHomeIsBelievedWithEitherStatusWhileTheSystemAnswers)
{
    for (const std::string status : {"0", "1"}) {
        describeAlpha();
        instructPkgutil("do empty-home=" + status + "\n");
        forgetPkgutilCalls();
        EXPECT_EQ(inspectAlpha(), clean) << status;
        EXPECT_EQ(pkgutilCalls().at(2), "--volume / --pkgs");
    }
}

TEST(Listing, ThatIsSilentForTheHomeIsRefusedWhenTheSystemDoesNotAnswer)
{
    describeAlpha();
    for (const std::string failure :
         {"cut=0", "cut=0 exit=1", "exit=1", "exit=2", "exit=70 cut=0", "kill=KILL", "kill-after=KILL",
          "cut=0 exit=1 stderr=broken", "exit=1 stderr=broken"}) {
        instructPkgutil(controlPlain + failure + "\n");
        forgetPkgutilCalls();
        EXPECT_EQ(inspectAlpha(), notEnumerated) << failure;
        EXPECT_EQ(pkgutilCalls().size(), 3U) << failure;
    }
}

TEST(Listing, ThatIsSilentForTheHomeIsRefusedWhenTheSystemPrintsBlankLinesAlone)
{
    describeAlpha();
    instructPkgutil(controlPlain + printing("\n\n", 0));
    EXPECT_EQ(inspectAlpha(), notEnumerated);
}

TEST(Listing, ThatIsSilentForTheSystemIsRefusedWithoutAskingFurther)
{
    describeAlpha("system");
    for (const std::string status : {"0", "1"}) {
        instructPkgutil("command=--pkgs do cut=0 exit=" + status + "\n");
        forgetPkgutilCalls();
        EXPECT_EQ(inspectAlpha("system"), notEnumerated) << status;
        const std::vector<std::string> calls = {"--volume / " + pattern, "--volume / --pkgs"};
        EXPECT_EQ(pkgutilCalls(), calls);
    }
}

TEST(Listing, OfTheSystemWithOtherMakersPackagesAloneIsAnEmptyInventory)
{
    describeAlpha("system");
    EXPECT_EQ(inspectAlpha("system"), clean);
    const std::vector<std::string> calls = {"--volume / " + pattern, "--volume / --pkgs",
                                            "--volume /Users/player " + pattern,
                                            "--volume /Users/player --pkgs", "--volume / --pkgs"};
    EXPECT_EQ(pkgutilCalls(), calls);
}

TEST(Listing, WithoutThePatternMayBeNoisyAsLongAsItListsAndSucceeds)
{
    installAlpha();
    instructPkgutil(everyPlain + "stderr=\"pkgutil[7:1] slow database\"\n");
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(Listing, WithoutThePatternThatEndsInTheMiddleOfALineIsRefused)
{
    installAlpha();
    for (const std::string output : {"c", "com.example.one\ncom.tamarindpelican.p", "com.example.one"}) {
        instructPkgutil(everyPlain + printing(output, 0));
        EXPECT_EQ(inspectAlpha(), notEnumerated) << output;
    }
}

TEST(Listing, OfAMillionBytesInOneLineIsRefusedAndEndsTheRunInOrder)
{
    installAlpha();
    instructPkgutil(everyPattern + "long-line=1048576 exit=0\n");
    EXPECT_EQ(inspectAlpha(), notMakers);
    writeFile("/tmp/output", "com.tamarindpelican.pkg." + std::string(1048576, 'a') + ".au\n");
    instructPkgutil(everyPattern + "replace=/tmp/output exit=0\n");
    EXPECT_EQ(inspectAlpha(), notMakers);
    instructPkgutil(everyPlain + "replace=/tmp/output exit=0\n");
    EXPECT_EQ(inspectAlpha(), notMakers);
    instructPkgutil(everyPattern + "long-line=1048576\n");
    EXPECT_EQ(inspectAlpha(), notEnumerated);
}

TEST(Listing, WithoutThePatternMayHoldAMillionBytesInOneForeignLine)
{
    installAlpha();
    instructPkgutil(everyPlain + "long-line=1048576\n");
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(Listing, OfManyThousandPackagesIsReadWhole)
{
    installAlpha();
    // The maker's packages come last in the listing.
    instructPkgutil(everyPlain + "pad=1048576\n");
    writeReceipt("user", "zzz.last", "1", {"Library"});
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(Listing, TwiceOfOnePackageKeepsTheFirstDescription)
{
    installAlpha();
    const std::string both = "com.tamarindpelican.pkg.alpha.au\ncom.tamarindpelican.pkg.alpha.vst3\n";
    writeFile("/tmp/later", "version: 9.0\nlocation: /\n");
    instructPkgutil("command=--pkgs= volume=/Users/* do " + printing(both + both, 0) +
                    "command=--pkg-info call=6- do replace=/tmp/later\n");
    EXPECT_EQ(inspectAlpha(), repair);
    std::vector<std::string> calls = {"--volume /Users/player " + pattern};
    addQuestions(calls, "/Users/player", {"alpha.au", "alpha.vst3", "alpha.au", "alpha.vst3"});
    calls.insert(calls.end(), {"--volume / " + pattern, "--volume / --pkgs"});
    EXPECT_EQ(pkgutilCalls(), calls);
}

TEST(Listing, ForAnotherConsoleAccountThanBeforeEndsTheRun)
{
    describeAlpha();
    const std::string seat = "ACTIVE=1\\nACTIVE_UID=502\\nSESSIONS=1\\nUIDS=502\\n";
    instructPkgutil("call=1 do after=\"printf 'IS_SEAT0=1\\n" + seat + "' > /run/systemd/seats/seat0\"\n");
    EXPECT_EQ(inspectAlpha(), refused("cannot resolve the invoking console account"));
}

TEST(Listing, ByTheAccountItselfAsksTheSameQuestions)
{
    installAlpha();
    makeLayout("system");
    EXPECT_EQ(run({"inspect", "user", "inspect-alpha"}, asPlayer()), repair);
    std::vector<std::string> calls = {"--volume /Users/player " + pattern, "--volume /Users/player --pkgs"};
    addQuestions(calls, "/Users/player", {"alpha.au", "alpha.vst3"});
    calls.insert(calls.end(), {"--volume / " + pattern, "--volume / --pkgs"});
    EXPECT_EQ(pkgutilCalls(), calls);
}

} // namespace
} // namespace maintenance::rehearsed
