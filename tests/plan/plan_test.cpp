#include "plan/plan.h"

#include "plan/edited_text.h"
#include "plan/installing.h"

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

namespace maintenance::rehearsed {
namespace {

const std::string one(64, '1');
const std::string two(64, '2');
const std::string support = "Library/Application Support/Tamarind Pelican/";
const std::string vst3Alpha = "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP alpha.vst3/";
const std::string auAlpha = "Library/Audio/Plug-Ins/Components/TP alpha.component/";
const std::string vst3Beta = "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP beta.vst3/";
const std::string auBeta = "Library/Audio/Plug-Ins/Components/TP beta.component/";

/// A plan of two products.
const std::string sample =
    "schema=tamarind.pelican.macos-maintenance-plan.v1\n"
    "sku=studio-bundle\n"
    "packageRevision=7\n"
    "product=alpha\t1.0\n"
    "product=beta\t2.0.1\n"
    "component=0\talpha\tcom.tamarindpelican.pkg.alpha.vst3\t1.0\n"
    "target=0\t" +
    vst3Alpha + "Contents/Info.plist\t" + one + "\ntarget=0\t" + vst3Alpha + "Contents/MacOS/plugin\t" + two +
    "\ncomponent=1\talpha\tcom.tamarindpelican.pkg.alpha.au\t1.0\ntarget=1\t" + auAlpha +
    "Contents/Info.plist\t" + one +
    "\ncomponent=2\tbeta\tcom.tamarindpelican.pkg.beta.vst3\t2.0.1\ntarget=2\t" + vst3Beta +
    "Contents/Info.plist\t" + one +
    "\ncomponent=3\tbeta\tcom.tamarindpelican.pkg.beta.au\t2.0.1\ntarget=3\t" + auBeta +
    "Contents/Info.plist\t" + two + "\ncomponent=4\tcommon\tcom.tamarindpelican.pkg.common\t7\ntarget=4\t" +
    support + "TamarindPelicanMaintenance\t" + one + "\ntarget=4\t" + support + "TamarindPelicanUpdater\t" +
    two + "\n";

Outcome planRefused(const std::string& reason) { return refused("embedded transaction plan " + reason); }

/// Begins an installation in the user scope with each of the plans, and requires each time the same refusal
/// and in the end not a trace on disk.
void expectRefused(const std::string& reason, const std::vector<std::string>& plans)
{
    const Installer installer("user", sample);
    const Tree before = takeTree(placesBesideTheTool());
    for (std::size_t i = 0; i < plans.size(); ++i) {
        installer.replacePlan(plans[i]);
        EXPECT_EQ(installer.begin(), planRefused(reason)) << "plan " << i << ": " << plans[i].substr(0, 1500);
    }
    installer.replacePlan(sample);
    EXPECT_EQ(difference(before, takeTree(placesBesideTheTool())), "");
}

void expectAccepted(const std::vector<std::string>& plans)
{
    const Installer installer("user", sample);
    for (std::size_t i = 0; i < plans.size(); ++i) {
        installer.replacePlan(plans[i]);
        const Outcome outcome = installer.begin();
        EXPECT_EQ(outcome.status, 0) << "plan " << i << ": " << outcome;
        removeAll(maintenanceOf("user"));
    }
}

TEST(Plan, IsReadIntoItsProductsComponentsAndTargets)
{
    const Plan plan = parsePlanText(sample);
    EXPECT_EQ(plan.sku, "studio-bundle");
    EXPECT_EQ(plan.packageRevision, "7");
    EXPECT_EQ(plan.sha256, systemSha256(sample));
    using Pairs = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(plan.products, (Pairs{{"alpha", "1.0"}, {"beta", "2.0.1"}}));

    std::string components;
    for (const PlanComponent& component : plan.components)
        components += std::to_string(component.index) + " " + component.product + " " + component.packageId +
                      " " + component.version + "\n";
    EXPECT_EQ(components, "0 alpha com.tamarindpelican.pkg.alpha.vst3 1.0\n"
                          "1 alpha com.tamarindpelican.pkg.alpha.au 1.0\n"
                          "2 beta com.tamarindpelican.pkg.beta.vst3 2.0.1\n"
                          "3 beta com.tamarindpelican.pkg.beta.au 2.0.1\n"
                          "4 common com.tamarindpelican.pkg.common 7\n");
    EXPECT_EQ(plan.components[0].targets,
              (Pairs{{vst3Alpha + "Contents/Info.plist", one}, {vst3Alpha + "Contents/MacOS/plugin", two}}));
    EXPECT_EQ(plan.components[3].targets, (Pairs{{auBeta + "Contents/Info.plist", two}}));
    EXPECT_EQ(plan.components[4].targets, (Pairs{{support + "TamarindPelicanMaintenance", one},
                                                 {support + "TamarindPelicanUpdater", two}}));
}

TEST(Plan, OfOneOrTwoProductsIsAccepted)
{
    expectAccepted({sample, planText({plugin("alpha", "1.0")}),
                    planText({plugin("alpha", "1.0"), plugin("beta", "0"), plugin("gamma", "1.2.3.4")})});
}

TEST(Plan, MayHaveARevisionOfNineDigits)
{
    expectAccepted({planText({plugin("alpha", "1.0")}, commonPackage("999999999")),
                    planText({plugin("alpha", "1.0")}, commonPackage("1"))});
}

TEST(Plan, MayHaveASkuOf128Characters)
{
    expectAccepted({changed(sample, "studio-bundle", std::string(128, 's'))});
}

TEST(Plan, WithoutAFinalLineFeedIsNotCanonical)
{
    expectRefused("is not canonical",
                  {sample.substr(0, sample.size() - 1), "x", "\nschema",
                   lineOf(sample, "schema=") + "sku=studio-bundle", std::string(1, '\0')});
    EXPECT_EQ(endingOf([] { parsePlanText(""); }), invalid("embedded transaction plan is not canonical"));
}

TEST(Plan, WithAnEmptyLineIsRefused)
{
    expectRefused("contains an invalid line",
                  {"\n", "\n" + sample, sample + "\n", withLineBefore(sample, "product=alpha", "\n"),
                   withLineAfter(sample, "component=4", "\n")});
}

/// A VST3 target line of component 0 with `length` bytes.
std::string targetLine(std::size_t length)
{
    const std::string start = "target=0\t" + vst3Alpha + "z";
    const std::string end = "\t" + two;
    return start + std::string(length - start.size() - end.size(), 'z') + end + "\n";
}

TEST(Plan, MayHaveLinesOf8192Bytes)
{
    const std::string plan = withLineBefore(sample, "component=1", targetLine(8192));
    EXPECT_EQ(parsePlanText(plan).components[0].targets.size(), 3U);
}

TEST(Plan, WithALineOver8192BytesIsRefused)
{
    expectRefused("contains an invalid line",
                  {withLineBefore(sample, "component=1", targetLine(8193)), std::string(8193, '=') + "\n",
                   std::string(8193, 'x') + "\n", std::string(1048575, 'a') + "\n",
                   "sku=" + std::string(1048000, 'a') + "\n"});
}

TEST(Plan, WithALineThatIsNoFieldIsRefused)
{
    expectRefused("contains an invalid field",
                  {"x\n", std::string(8192, 'x') + "\n", "schema\n" + sample, sample + "end\n", " \n",
                   withLineBefore(sample, "product=beta", "product\tx\n"),
                   sample + std::string(1, '\0') + "\n"});
}

TEST(Plan, WithAnUnknownFieldIsRefused)
{
    expectRefused("contains an unknown field",
                  {"=\n", "=x\n" + sample, "Schema=x\n", " schema=x\n", "schema =x\n",
                   withLineAfter(sample, "packageRevision=", "kind=vst3\n"), sample + "targets=0\n",
                   "\xef\xbb\xbf" + sample, sample + "sourceScope=none\n", std::string(1, '\0') + sample});
}

TEST(Plan, WithHeaderFieldsOutOfOrderIsNotCanonical)
{
    const std::string schema = lineOf(sample, "schema=");
    expectRefused("fields are not canonical",
                  {withLinesSwapped(sample, "schema=", "sku="),
                   withLinesSwapped(sample, "sku=", "packageRevision="),
                   withLinesSwapped(sample, "schema=", "packageRevision="), withoutLine(sample, "schema="),
                   withoutLine(sample, "sku="), schema + sample, withLineAfter(sample, "sku=", schema),
                   withLineAfter(sample, "sku=", "sku=studio-bundle\n"),
                   withLineAfter(sample, "packageRevision=", schema),
                   withLineAfter(sample, "packageRevision=", "packageRevision=7\n")});
}

TEST(Plan, WithAHeaderFieldAfterAProductIsNotCanonical)
{
    expectRefused("fields are not canonical",
                  {withLinesSwapped(sample, "packageRevision=", "product=alpha"),
                   withLinesSwapped(sample, "schema=", "product=alpha"),
                   withLineAfter(withoutLine(sample, "packageRevision="), "target=0", "packageRevision=7\n"),
                   sample + "sku=studio-bundle\n"});
}

TEST(Plan, WithAProductAfterAComponentIsNotCanonical)
{
    expectRefused("fields are not canonical",
                  {withLineAfter(sample, "component=0", "product=gamma\t1.0\n"),
                   withLineAfter(sample, "target=4", "product=gamma\t1.0\n"), sample + "product=\n"});
}

TEST(Plan, WithABadProductLineIsRefused)
{
    std::vector<std::string> plans;
    for (const char* line :
         {"product=", "product=alpha", "product=alpha\t", "product=\t1.0", "product=alpha\t1.0\t",
          "product=alpha\t1.0\t2.0", "product=alpha 1.0", "product=Alpha\t1.0", "product=-alpha\t1.0",
          "product=al_pha\t1.0", "product= alpha\t1.0", "product=alpha\t01.0", "product=alpha\t1.0.0.0.0",
          "product=alpha\t-", "product=alpha\t1.0 ", "product=alpha\t1.0\r", "product==alpha\t1.0",
          "product=alpha\t\t1.0"})
        plans.push_back(withLine(sample, "product=alpha", std::string(line) + "\n"));
    plans.push_back(withLine(sample, "product=alpha", "product=" + std::string(129, 'a') + "\t1.0\n"));
    expectRefused("has invalid product membership", plans);
}

TEST(Plan, WithProductsThatAreNotStrictlyAscendingIsRefused)
{
    expectRefused("has invalid product membership",
                  {withLinesSwapped(sample, "product=alpha", "product=beta"),
                   withLineAfter(sample, "product=alpha", "product=alpha\t1.0\n"),
                   withLineAfter(sample, "product=alpha", "product=alpha\t2.0\n"),
                   withLineAfter(sample, "product=beta", "product=alpha\t1.0\n"),
                   withLineAfter(sample, "product=beta", "product=b\t1.0\n")});
}

TEST(Plan, OrdersProductsByTheirBytes)
{
    // In byte order "-" comes before the digits and those before the letters.
    expectAccepted({planText({plugin("a-b", "1.0"), plugin("a0", "1.0"), plugin("aa", "1.0")})});
    const std::string plan = planText({plugin("a", "1.0"), plugin("a-b", "1.0")});
    expectAccepted({plan});
    expectRefused("has invalid product membership", {withLinesSwapped(plan, "product=a\t", "product=a-b")});
}

TEST(Plan, WithABadComponentLineIsRefused)
{
    const std::string package = "com.tamarindpelican.pkg.alpha.vst3";
    std::vector<std::string> plans;
    for (const std::string& value :
         {std::string(), std::string("0"), "0\talpha\t" + package, "0\talpha\t" + package + "\t",
          "0\talpha\t" + package + "\t1.0\t", "0\talpha\t" + package + "\t1.0\tx",
          "0\talpha\t" + package + "\t01.0", "0\talpha\t" + package + "\t1.0 ",
          "0\talpha\t" + package + "\t1.0\r", std::string("0\talpha\t\t1.0"),
          std::string("0\talpha\tcom.tamarindpelican.pkg.alpha\t1.0"),
          std::string("0\talpha\tcom.tamarindpelican.pkg.alpha.component\t1.0"),
          std::string("0\talpha\tcom.tamarindpelican.pkg..vst3\t1.0"),
          std::string("0\talpha\tcom.example.pkg.alpha.vst3\t1.0"),
          std::string("0\talpha\tcom.tamarindpelican.pkg.ALPHA.vst3\t1.0")})
        plans.push_back(withLine(sample, "component=0", "component=" + value + "\n"));
    expectRefused("has invalid component order or membership", plans);
}

TEST(Plan, WithAComponentThatIsNotNumberedByItsPositionIsRefused)
{
    std::vector<std::string> plans;
    for (const char* index : {"1", "00", "+0", "-0", " 0", "0 ", "", "0x0", "18446744073709551616"})
        plans.push_back(changed(sample, "component=0\t", "component=" + std::string(index) + "\t"));
    plans.push_back(changed(sample, "component=3\t", "component=2\t"));
    plans.push_back(changed(sample, "component=3\t", "component=4\t"));
    plans.push_back(changed(sample, "component=4\t", "component=5\t"));
    expectRefused("has invalid component order or membership", plans);
}

TEST(Plan, WithAPackageTwiceIsRefused)
{
    expectRefused("has invalid component order or membership",
                  {changed(sample, "pkg.alpha.au", "pkg.alpha.vst3"),
                   changed(sample, "pkg.beta.au", "pkg.alpha.au"),
                   sample + "component=5\tcommon\tcom.tamarindpelican.pkg.common\t7\n"});
}

TEST(Plan, WithASharedComponentWhoseVersionIsNoRevisionIsRefused)
{
    std::vector<std::string> plans;
    for (const char* version : {"7.0", "0", "1234567890", "07", ""})
        plans.push_back(changed(sample, "pkg.common\t7\n", "pkg.common\t" + std::string(version) + "\n"));
    expectRefused("has invalid component order or membership", plans);
}

TEST(Plan, WithATargetBeforeTheFirstComponentIsRefused)
{
    const std::string target = lineOf(sample, "target=0");
    expectRefused("target has no component",
                  {target, target + sample, withLineAfter(sample, "packageRevision=", target),
                   withLineAfter(sample, "product=beta", target), "target=\n",
                   withLineBefore(sample, "component=0", "target=nonsense\n")});
}

TEST(Plan, WithABadTargetLineIsRefused)
{
    const std::string path = vst3Alpha + "Contents/Info.plist";
    std::vector<std::string> plans;
    for (const std::string& value :
         {std::string(), std::string("0"), "0\t" + path, "0\t" + path + "\t",
          "0\t" + path + "\t" + one + "\t", "0\t" + path + "\t" + one + "\tx", "1\t" + path + "\t" + one,
          "00\t" + path + "\t" + one, "\t" + path + "\t" + one, "0\t\t" + one,
          "0\t" + path + "\t" + one.substr(1), "0\t" + path + "\t" + one + "1",
          "0\t" + path + "\t" + std::string(64, 'A'), "0\t" + path + "\t" + std::string(64, 'g'),
          "0\t" + path + "\t" + one + "\r"})
        plans.push_back(withLine(sample, "target=0", "target=" + value + "\n"));
    plans.push_back(changed(sample, "target=1\t", "target=0\t"));
    plans.push_back(changed(sample, "target=3\t", "target=4\t"));
    expectRefused("has an invalid target file", plans);
}

TEST(Plan, WithATargetPathThatNoProductMayOwnIsRefused)
{
    std::vector<std::string> plans;
    for (const std::string& path :
         {"/" + vst3Alpha + "x", vst3Alpha + "a\\b", vst3Alpha + "caf\xc3\xa9", vst3Alpha + "a//b",
          vst3Alpha + "a/./b", vst3Alpha + "a/../b", vst3Alpha + "..", std::string("etc/passwd"),
          std::string("../etc/passwd"), support + "Maintenance/PendingInstall",
          std::string("Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP alpha.vst3"),
          std::string("Library/Audio/Plug-Ins/VST3/Tamarind Pelican/Other.vst3/x"),
          std::string("Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP alpha.component/x"),
          std::string("Library/Audio/Plug-Ins/VST3/Other/TP alpha.vst3/x")})
        plans.push_back(withLine(sample, "target=0", "target=0\t" + path + "\t" + one + "\n"));
    expectRefused("has an invalid target file", plans);
}

TEST(Plan, WithTargetsThatAreNotStrictlyAscendingInTheirComponentIsRefused)
{
    const std::string info = lineOf(sample, "target=0");
    expectRefused("target order or ownership is invalid",
                  {changed(sample, "Contents/MacOS/plugin", "Contents/A"),
                   withLineAfter(sample, "target=0", info),
                   withLineAfter(sample, "target=0", changed(info, one, two)),
                   withLinesSwapped(sample, lineOf(sample, "target=4"),
                                    "target=4\t" + support + "TamarindPelicanUpdater")});
}

TEST(Plan, WithAPathInTwoComponentsIsRefused)
{
    expectRefused("target order or ownership is invalid",
                  {changed(sample, "target=1\t" + auAlpha, "target=1\t" + vst3Alpha),
                   changed(sample, "target=2\t" + vst3Beta, "target=2\t" + vst3Alpha)});
}

TEST(Plan, OrdersTargetsByTheirBytesAndNotByTheirDirectories)
{
    const auto targets = [](const std::string& first, const std::string& second) {
        return withLine(sample, "target=1",
                        "target=1\t" + auAlpha + first + "\t" + one + "\ntarget=1\t" + auAlpha + second +
                            "\t" + one + "\n");
    };
    expectAccepted({targets("x/a-b", "x/a/b"), targets("x/a.b", "x/a/b"), targets("x/A", "x/a"),
                    targets("x/a", "x/a/b")});
    expectRefused("target order or ownership is invalid",
                  {targets("x/a/b", "x/a-b"), targets("x/a", "x/A"), targets("x/aa", "x/a")});
}

TEST(Plan, WithoutAllHeaderFieldsIsIncomplete)
{
    const std::string schema = lineOf(sample, "schema=");
    const std::string rest = sample.substr(sample.find("product=alpha"));
    expectRefused("is incomplete",
                  {schema, schema + "sku=studio-bundle\n", schema + "sku=studio-bundle\n" + rest,
                   schema + rest, rest, "product=alpha\t1.0\n"});
}

TEST(Plan, WithAnotherSchemaIsRefused)
{
    std::vector<std::string> plans;
    for (const char* schema :
         {"", "tamarind.pelican.macos-maintenance-plan.v2", "tamarind.pelican.macos-maintenance-plan.v1 ",
          "tamarind.pelican.macos-maintenance.v2", "Tamarind.Pelican.macos-maintenance-plan.v1"})
        plans.push_back(withLine(sample, "schema=", "schema=" + std::string(schema) + "\n"));
    expectRefused("identity is invalid", plans);
}

TEST(Plan, WithABadSkuIsRefused)
{
    std::vector<std::string> plans;
    for (const std::string& sku :
         {std::string(), std::string("Studio"), std::string("a_b"), std::string("-a"), std::string("a-"),
          std::string("a b"), std::string("a=b"), std::string("a\tb"), std::string(129, 's'),
          std::string(8000, 's')})
        plans.push_back(withLine(sample, "sku=", "sku=" + sku + "\n"));
    expectRefused("identity is invalid", plans);
}

TEST(Plan, WithABadRevisionIsRefused)
{
    std::vector<std::string> plans;
    for (const char* revision : {"", "0", "07", "7.0", "1234567890", "-7", "+7", "7 ", " 7", "7a", "7\t7"})
        plans.push_back(
            withLine(sample, "packageRevision=", "packageRevision=" + std::string(revision) + "\n"));
    expectRefused("identity is invalid", plans);
}

TEST(Plan, WithoutAProductIsRefused)
{
    const std::string header = sample.substr(0, sample.find("product=alpha"));
    std::string shared = sample.substr(sample.find("component=4"));
    for (std::size_t place; (place = shared.find("=4\t")) != std::string::npos;)
        shared.replace(place, 3, "=0\t");
    expectRefused("identity is invalid", {header, header + shared});
}

TEST(Plan, WithoutExactlyTheComponentsOfItsProductsIsIncomplete)
{
    const std::string header = sample.substr(0, sample.find("component=0"));
    const std::string gamma = "component=5\tgamma\tcom.tamarindpelican.pkg.gamma.vst3\t1.0\n";
    expectRefused("component membership is incomplete",
                  {header, sample.substr(0, sample.find("component=4")),
                   sample.substr(0, sample.find("component=3")), sample + gamma,
                   withLineAfter(sample, "product=beta", "product=gamma\t1.0\n"),
                   withoutLine(sample, "product=beta")});
}

/// The components of a plan of product alpha alone, in any order, numbered as they stand.
std::string planWithComponents(const std::vector<std::string>& kinds)
{
    std::string plan = sample.substr(0, sample.find("product=beta"));
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        const std::string number = std::to_string(i);
        const std::string target = "target=" + number + "\t";
        plan += "component=" + number;
        if (kinds[i] == "common")
            plan += "\tcommon\tcom.tamarindpelican.pkg.common\t7\n" + target + support +
                    "TamarindPelicanMaintenance\t" + one + "\n" + target + support +
                    "TamarindPelicanUpdater\t" + two + "\n";
        else
            plan += "\talpha\tcom.tamarindpelican.pkg.alpha." + kinds[i] + "\t1.0\n" + target +
                    (kinds[i] == "au" ? auAlpha : vst3Alpha) + "x\t" + one + "\n";
    }
    return plan;
}

TEST(Plan, WithComponentsInAnotherOrderIsRefused)
{
    expectAccepted({planWithComponents({"vst3", "au", "common"})});
    expectRefused("component binding is invalid",
                  {planWithComponents({"common", "vst3", "au"}), planWithComponents({"au", "vst3", "common"}),
                   planWithComponents({"vst3", "common", "au"})});
}

TEST(Plan, WithAComponentThatDoesNotBelongWhereItStandsIsRefused)
{
    expectRefused("component binding is invalid",
                  {changed(sample, "component=0\talpha\t", "component=0\tbeta\t"),
                   changed(sample, "component=0\talpha\t", "component=0\t\t"),
                   changed(sample, "component=0\talpha\t", "component=0\tAlpha!\t"),
                   changed(sample, "component=4\tcommon\t", "component=4\tbeta\t"),
                   changed(sample, "pkg.alpha.au", "pkg.gamma.au"),
                   changed(sample, "pkg.common", "pkg.common.au")});
}

TEST(Plan, WithAComponentOfAnotherVersionIsRefused)
{
    expectRefused("component binding is invalid",
                  {changed(sample, "alpha.vst3\t1.0", "alpha.vst3\t1.1"),
                   changed(sample, "alpha.vst3\t1.0", "alpha.vst3\t1.0.0"),
                   changed(sample, "beta.au\t2.0.1", "beta.au\t2.0"),
                   changed(sample, "product=beta\t2.0.1", "product=beta\t2.0.2"),
                   changed(sample, "pkg.common\t7", "pkg.common\t8"),
                   changed(sample, "packageRevision=7", "packageRevision=8")});
}

TEST(Plan, WithAComponentWithoutTargetsIsRefused)
{
    expectRefused("component binding is invalid",
                  {withoutLine(sample, "target=1"), withoutLine(withoutLine(sample, "target=0"), "target=0"),
                   withoutLine(withoutLine(sample, "target=4"), "target=4")});
}

TEST(Plan, WithATargetOutsideTheDestinationOfItsComponentIsRefused)
{
    const std::string updater = support + "TamarindPelicanUpdater\t";
    const std::string withoutUpdater = withoutLine(sample, "target=4\t" + updater);
    expectRefused("target does not match its component",
                  {changed(sample, "target=2\t" + vst3Beta, "target=2\t" + auAlpha + "x/"),
                   changed(sample, "target=3\t" + auBeta, "target=3\t" + vst3Alpha + "x/"),
                   withLine(withoutUpdater, "target=2", "target=2\t" + updater + one + "\n"),
                   withLine(withoutUpdater, "target=3", "target=3\t" + updater + one + "\n"),
                   withLineAfter(sample, "target=1", "target=1\t" + vst3Alpha + "x\t" + one + "\n")});
}

TEST(Plan, WhoseSharedComponentIsNotExactlyTheTwoExecutablesIsRefused)
{
    const std::string updater = "target=4\t" + support + "TamarindPelicanUpdater";
    const std::string bundled = "target=4\t" + vst3Alpha + "x\t" + one + "\n";
    expectRefused("common membership is incomplete",
                  {withoutLine(sample, updater), withoutLine(sample, "target=4"), sample + bundled,
                   withLine(sample, updater, bundled)});
}

TEST(Plan, IsCheckedLineByLineBeforeItIsCheckedAsAWhole)
{
    const std::string incomplete = withoutLine(sample, "packageRevision=");
    expectRefused("contains an unknown field", {incomplete + "end=1\n"});
    expectRefused("has invalid product membership",
                  {changed(changed(sample, "product=beta", "product=Beta"), "sku=studio", "sku=Studio")});
}

TEST(Plan, IsCheckedForItsHeaderThenItsComponentsThenTheSharedFiles)
{
    const std::string badSku = changed(sample, "sku=studio", "sku=Studio");
    expectRefused("is incomplete", {withoutLine(badSku, "packageRevision=")});
    const std::string fewComponents = badSku.substr(0, badSku.find("component=4"));
    expectRefused("identity is invalid", {fewComponents});
    const std::string badBinding = changed(sample, "alpha.vst3\t1.0", "alpha.vst3\t1.1");
    expectRefused("component membership is incomplete",
                  {badBinding.substr(0, badBinding.find("component=4"))});
    const std::string fewShared = withoutLine(sample, "target=4");
    expectRefused("component binding is invalid", {changed(fewShared, "beta.au\t2.0.1", "beta.au\t2.0.2")});
}

TEST(Plan, IsCheckedComponentByComponent)
{
    const std::string misplaced = changed(sample, "target=2\t" + vst3Beta, "target=2\t" + auAlpha + "x/");
    expectRefused("target does not match its component",
                  {changed(misplaced, "beta.au\t2.0.1", "beta.au\t2.0.2")});
    expectRefused("component binding is invalid", {changed(misplaced, "beta.vst3\t2.0.1", "beta.vst3\t2.0.2"),
                                                   changed(misplaced, "alpha.au\t1.0", "alpha.au\t1.1")});
}

// The file.

TEST(PlanFile, ThatIsNotAPlainFileIsRefused)
{
    const Installer installer("user", sample);
    const std::filesystem::path plan = planOf("user");
    const std::filesystem::path aside = supportOf("user") / "aside";
    writeFile(aside, sample);
    const std::vector<std::function<void()>> plants = {
        [] {},
        [&] { makeLink(plan, "aside"); },
        [&] { makeLink(plan, "nowhere"); },
        [&] { makeHardLink(plan, aside); },
        [&] { makeDirectories(plan); },
        [&] { makePipe(plan); },
        [&] { makeSocket(plan); },
    };
    for (const auto& plant : plants) {
        removeAll(plan);
        plant();
        const Tree before = takeTree(placesBesideTheTool());
        EXPECT_EQ(installer.begin(), planRefused("is missing or unsafe")) << describe(plan);
        EXPECT_EQ(difference(before, takeTree(placesBesideTheTool())), "");
    }
}

TEST(PlanFile, WritableForGroupOrOthersIsRefused)
{
    const Installer installer("user", sample);
    for (const mode_t mode : {0664u, 0646u, 0666u, 0620u, 0602u, 0777u}) {
        setMode(planOf("user"), mode);
        EXPECT_EQ(installer.begin(), planRefused("is missing or unsafe")) << mode;
    }
    for (const mode_t mode : {0400u, 0644u, 0755u, 04755u}) {
        setMode(planOf("user"), mode);
        EXPECT_EQ(installer.begin().status, 0) << mode;
    }
}

TEST(PlanFile, MustBelongToTheEffectiveUser)
{
    const Installer byRoot("user", sample);
    setOwner(planOf("user"), playerUid);
    EXPECT_EQ(byRoot.begin(), planRefused("is missing or unsafe"));
    EXPECT_EQ(run({"begin-install", "user"},
                  [&] {
                      Surroundings surroundings = asPlayer();
                      surroundings.tool = byRoot.surroundings.tool;
                      return surroundings;
                  }())
                  .status,
              0);
    setOwner(planOf("user"), rootUid);
    Surroundings surroundings = asPlayer();
    surroundings.tool = byRoot.surroundings.tool;
    EXPECT_EQ(run({"begin-install", "user"}, surroundings), planRefused("is missing or unsafe"));
}

/// A valid plan of exactly `size` bytes.
std::string planOfSize(std::size_t size)
{
    const std::string start = sample.substr(0, sample.find("component=1"));
    const std::string rest = sample.substr(start.size());
    std::string lines;
    std::size_t left = size - sample.size();
    for (int i = 1000; left > 0; ++i) {
        const std::string head = "target=0\t" + vst3Alpha + "Data/" + std::to_string(i);
        const std::size_t fixed = head.size() + 1 + one.size() + 1;
        const std::size_t length = left > 8192 + 500 ? 8000 : left > 8192 ? left - 500 : left;
        lines += head + std::string(length - fixed, 'd') + "\t" + one + "\n";
        left -= length;
    }
    // "Data" stands between "Contents" and the next component.
    return start + lines + rest;
}

TEST(PlanFile, MayHave1048576Bytes)
{
    writeFile("/tmp/plan", planOfSize(1048576));
    EXPECT_EQ(endingOf([] { return parsePlan("/tmp/plan").sha256; }),
              returned(systemSha256(readFile("/tmp/plan"))));
}

TEST(PlanFile, Over1048576BytesOrEmptyIsRefused)
{
    const Installer installer("user", planOfSize(1048577));
    const Tree before = takeTree(placesBesideTheTool());
    EXPECT_EQ(installer.begin(), planRefused("is missing or unsafe"));
    EXPECT_EQ(difference(before, takeTree(placesBesideTheTool())), "");
    installer.replacePlan("");
    EXPECT_EQ(installer.begin(), planRefused("is missing or unsafe"));
}

TEST(PlanFile, ThatCannotBeOpenedIsRefused)
{
    const Installer installer("user", sample);
    const Tree before = takeTree(placesBesideTheTool());
    EXPECT_EQ(runFailing(SYS_openat, planOf("user"), EIO, {"begin-install", "user"}, installer.surroundings),
              planRefused("cannot be opened safely"));
    EXPECT_EQ(difference(before, takeTree(placesBesideTheTool())), "");
}

Outcome beginWhilePlanIsOpened(const Installer& installer, const std::function<void()>& meanwhile)
{
    return runWhile(SYS_openat, planOf("user"), 1, meanwhile, {"begin-install", "user"},
                    installer.surroundings);
}

TEST(PlanFile, ThatBecomesALinkBeforeItIsOpenedIsRefused)
{
    const Installer installer("user", sample);
    EXPECT_EQ(beginWhilePlanIsOpened(installer,
                                     [] {
                                         std::filesystem::rename(planOf("user"), supportOf("user") / "aside");
                                         makeLink(planOf("user"), "aside");
                                     }),
              planRefused("cannot be opened safely"));
    EXPECT_EQ(describe(maintenanceOf("user")), "nothing");
}

TEST(PlanFile, ExchangedBeforeItIsOpenedIsRefused)
{
    const Installer installer("user", sample);
    EXPECT_EQ(beginWhilePlanIsOpened(installer,
                                     [] {
                                         writeFile(supportOf("user") / "aside", sample);
                                         std::filesystem::rename(supportOf("user") / "aside", planOf("user"));
                                     }),
              planRefused("changed during validation"));
    EXPECT_EQ(describe(maintenanceOf("user")), "nothing");
}

TEST(PlanFile, ExchangedForAPipeBeforeItIsOpenedIsRefusedAtOnce)
{
    const Installer installer("user", sample);
    EXPECT_EQ(beginWhilePlanIsOpened(installer,
                                     [] {
                                         removeAll(planOf("user"));
                                         makePipe(planOf("user"));
                                     }),
              planRefused("changed during validation"));
}

Outcome beginWhilePlanIsRead(const Installer& installer, const std::function<int()>& decide)
{
    return runWhileReading(planOf("user"), decide, {"begin-install", "user"}, installer.surroundings);
}

TEST(PlanFile, ThatCannotBeReadIsRefused)
{
    const Installer installer("user", sample);
    EXPECT_EQ(beginWhilePlanIsRead(installer, [] { return EIO; }), planRefused("cannot be read"));
    EXPECT_EQ(describe(maintenanceOf("user")), "nothing");
}

TEST(PlanFile, ThatChangesWhileItIsReadIsRefused)
{
    const Installer installer("user", sample);
    const std::vector<std::function<void()>> changes = {
        [] { std::ofstream(planOf("user"), std::ios::app) << "x"; },
        [] { std::filesystem::resize_file(planOf("user"), 10); },
        [] { std::filesystem::resize_file(planOf("user"), 0); },
        [] { std::ofstream(planOf("user")) << sample; },
        [] { setMode(planOf("user"), 0600); },
        [] {
            const utimbuf times{1, 1};
            ASSERT_EQ(::utime(planOf("user").c_str(), &times), 0);
        },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        installer.replacePlan(sample);
        EXPECT_EQ(beginWhilePlanIsRead(installer,
                                       [&] {
                                           changes[i]();
                                           return 0;
                                       }),
                  planRefused("changed while being read"))
            << "change " << i;
        EXPECT_EQ(describe(maintenanceOf("user")), "nothing");
    }
}

} // namespace
} // namespace maintenance::rehearsed
