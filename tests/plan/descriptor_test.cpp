#include "plan/descriptor.h"

#include "plan/edited_text.h"
#include "plan/installing.h"

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <utime.h>

namespace maintenance::rehearsed {
namespace {

const std::vector<std::string> bothScopes = {"user", "system"};
const Outcome clean = succeeded("{\"status\":\"clean\"}\n");
const std::string one(64, '1');
const std::string two(64, '2');
const std::string support = "Library/Application Support/Tamarind Pelican/";
const std::string vst3Alpha = "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/TP alpha.vst3/";
const std::string auAlpha = "Library/Audio/Plug-Ins/Components/TP alpha.component/";
const std::string vst3Line = "target=alpha\tcom.tamarindpelican.pkg.alpha.vst3\t1.0\t" + vst3Alpha;
const std::string auLine = "target=alpha\tcom.tamarindpelican.pkg.alpha.au\t1.0\t" + auAlpha;
const std::string betaLine = "target=beta\tcom.tamarindpelican.pkg.beta.au\t2.0.1\t"
                             "Library/Audio/Plug-Ins/Components/TP beta.component/";
const std::string commonLine = "target=common\tcom.tamarindpelican.pkg.common\t7\t" + support;

/// A descriptor of two products for the user scope.
const std::string sample = "schema=tamarind.pelican.macos-maintenance.v2\n"
                           "sku=studio-bundle\n"
                           "packageRevision=7\n"
                           "sourceScope=none\n"
                           "targetScope=user\n"
                           "decision=none\n"
                           "product=beta\t-\t2.0.1\n"
                           "product=alpha\t0.9\t1.0\n" +
                           vst3Line + "Contents/Info.plist\t" + one + "\n" + auLine +
                           "Contents/Info.plist\t" + two + "\n" + betaLine + "Contents/Info.plist\t" + one +
                           "\n" + commonLine + "TamarindPelicanUpdater\t" + two + "\n" + commonLine +
                           "TamarindPelicanMaintenance\t" + one + "\n";

const std::string canonicalSample =
    "tamarind.pelican.macos-maintenance.v2\n"
    "studio-bundle\n"
    "7\n"
    "none\n"
    "user\n"
    "none\n"
    "probe-1\n"
    "product\talpha\t0.9\t1.0\n"
    "product\tbeta\t-\t2.0.1\n"
    "target\tcommon\tcom.tamarindpelican.pkg.common\t7\tLibrary/Application Support/Tamarind "
    "Pelican/TamarindPelicanMaintenance\t" +
    one +
    "\n"
    "target\tcommon\tcom.tamarindpelican.pkg.common\t7\tLibrary/Application Support/Tamarind "
    "Pelican/TamarindPelicanUpdater\t" +
    two +
    "\n"
    "target\talpha\tcom.tamarindpelican.pkg.alpha.au\t1.0\tLibrary/Audio/Plug-Ins/Components/TP "
    "alpha.component/Contents/Info.plist\t" +
    two +
    "\n"
    "target\tbeta\tcom.tamarindpelican.pkg.beta.au\t2.0.1\tLibrary/Audio/Plug-Ins/Components/TP "
    "beta.component/Contents/Info.plist\t" +
    one +
    "\n"
    "target\talpha\tcom.tamarindpelican.pkg.alpha.vst3\t1.0\tLibrary/Audio/Plug-Ins/VST3/Tamarind "
    "Pelican/TP alpha.vst3/Contents/Info.plist\t" +
    one + "\n";

Outcome descriptorRefused(const std::string& reason) { return refused("maintenance descriptor " + reason); }

void writeDescriptor(const std::string& text, Ownership ownership = {playerUid, 0600})
{
    writeFile(descriptorOf("user", "probe-1"), text, ownership);
}

Outcome inspectIt() { return run({"inspect", "user", "probe-1"}); }

/// Names each of the texts to a command, and requires each time the same refusal and in the end not a trace
/// on disk.
void expectAll(const Outcome& expected, const std::vector<std::string>& texts)
{
    publishText("user", sample, "probe-1");
    const Tree before = takeTree();
    for (std::size_t i = 0; i < texts.size(); ++i) {
        writeDescriptor(texts[i]);
        EXPECT_EQ(inspectIt(), expected) << "descriptor " << i << ": " << texts[i].substr(0, 1500);
    }
    writeDescriptor(sample);
    EXPECT_EQ(difference(before, takeTree()), "");
}

void expectRefused(const std::string& reason, const std::vector<std::string>& texts)
{
    expectAll(descriptorRefused(reason), texts);
}

/// The sample with each of `values` in the line of `key`.
std::vector<std::string> with(const std::string& key, const std::vector<std::string>& values)
{
    std::vector<std::string> texts;
    for (const std::string& value : values)
        texts.push_back(withLine(sample, key + "=", key + "=" + value + "\n"));
    return texts;
}

std::string flattened(const Descriptor& descriptor)
{
    std::string text = descriptor.sku + " " + descriptor.packageRevision + " " + descriptor.sourceScope +
                       " " + descriptor.targetScope + " " + descriptor.decision + " " + descriptor.id + "\n";
    for (const Product& product : descriptor.products)
        text += product.id + " " + product.sourceVersion + " " + product.targetVersion + "\n";
    for (const File& file : descriptor.files)
        text += file.product + " " + file.packageId + " " + file.version + " " + file.path + " " +
                file.sha256.substr(0, 2) + "\n";
    return text;
}

TEST(Descriptor, IsReadInTheOrderOfItsLines)
{
    publishText("user", sample, "probe-1");
    const Descriptor descriptor = parse("user", "probe-1");
    EXPECT_EQ(flattened(descriptor),
              "studio-bundle 7 none user none probe-1\n"
              "beta - 2.0.1\n"
              "alpha 0.9 1.0\n"
              "alpha com.tamarindpelican.pkg.alpha.vst3 1.0 " +
                  vst3Alpha +
                  "Contents/Info.plist 11\n"
                  "alpha com.tamarindpelican.pkg.alpha.au 1.0 " +
                  auAlpha +
                  "Contents/Info.plist 22\n"
                  "beta com.tamarindpelican.pkg.beta.au 2.0.1 Library/Audio/Plug-Ins/Components/TP "
                  "beta.component/Contents/Info.plist 11\n"
                  "common com.tamarindpelican.pkg.common 7 " +
                  support +
                  "TamarindPelicanUpdater 22\n"
                  "common com.tamarindpelican.pkg.common 7 " +
                  support + "TamarindPelicanMaintenance 11\n");
    EXPECT_EQ(descriptor.files[0].sha256, one);
    EXPECT_EQ(descriptor.fileSha256, systemSha256(sample));
}

TEST(Descriptor, IsRenderedAsItWasRead)
{
    EXPECT_EQ(descriptorText(parseDescriptorText(sample, "user", "probe-1")), sample);
    const std::string moving =
        Work("system").from("user").deciding("adopt").brings(plugin("beta", "3")).text();
    EXPECT_EQ(descriptorText(parseDescriptorText(moving, "system", "x")), moving);
}

TEST(Descriptor, HasACanonicalText)
{
    EXPECT_EQ(canonical(parseDescriptorText(sample, "user", "probe-1")), canonicalSample);
}

TEST(Descriptor, HasACanonicalTextWithItsIdentifier)
{
    EXPECT_EQ(canonical(parseDescriptorText(sample, "user", "probe-2")),
              changed(canonicalSample, "probe-1", "probe-2"));
}

TEST(Descriptor, HasTheSameCanonicalTextInWhateverOrderItsLinesStand)
{
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < sample.size(); start = sample.find('\n', start) + 1)
        lines.push_back(sample.substr(start, sample.find('\n', start) + 1 - start));
    const std::string text = descriptorText(parseDescriptorText(sample, "user", "probe-1"));
    for (std::size_t turn = 1; turn < lines.size(); ++turn) {
        std::rotate(lines.begin(), lines.begin() + 1, lines.end());
        std::string rotated;
        for (const std::string& line : lines)
            rotated += line;
        const Descriptor descriptor = parseDescriptorText(rotated, "user", "probe-1");
        EXPECT_EQ(canonical(descriptor), canonicalSample) << rotated;
        EXPECT_EQ(descriptor.fileSha256, systemSha256(rotated));
    }
    const std::string swapped = withLinesSwapped(sample, "product=beta", "product=alpha");
    EXPECT_NE(descriptorText(parseDescriptorText(swapped, "user", "probe-1")), text);
}

TEST(Descriptor, SortsItsCanonicalTextByBytes)
{
    std::string text = sample;
    for (const char* name : {"x/a/b", "x/a", "x/a-b", "x/B", "x/aa"})
        text += auLine + name + "\t" + one + "\n";
    const std::string rendered = canonical(parseDescriptorText(text, "user", "probe-1"));
    std::vector<std::size_t> places;
    for (const char* name : {"x/B\t", "x/a\t", "x/a-b\t", "x/a/b\t", "x/aa\t"})
        places.push_back(rendered.find(auAlpha + name));
    EXPECT_TRUE(std::is_sorted(places.begin(), places.end())) << rendered;
    EXPECT_NE(places.back(), std::string::npos);
}

TEST(Descriptor, BindsATransactionByTheDigestsOfItsTwoTexts)
{
    publishText("user", changed(sample, "\t0.9\t", "\t-\t"), "probe-1");
    ASSERT_EQ(run({"prepare-move", "user", "probe-1"}), succeeded());
    const std::string lease = readFile(leaseOf("user"));
    EXPECT_EQ(fieldOf(lease, "descriptorSha256"), systemSha256(changed(sample, "\t0.9\t", "\t-\t")));
    EXPECT_EQ(fieldOf(lease, "canonicalSha256"), systemSha256(changed(canonicalSample, "\t0.9\t", "\t-\t")));
}

TEST(Descriptor, IsAcceptedInManySpellings)
{
    expectAll(clean,
              {sample, sample.substr(0, sample.size() - 1), withLinesSwapped(sample, "schema=", "decision="),
               withLinesSwapped(sample, "schema=", "product=beta"),
               withLinesSwapped(sample, "product=beta", "target=alpha"),
               withLinesSwapped(sample, "sku=", "target=common"),
               withLine(sample, "decision=", "decision=adopt\n"),
               withLine(sample, "decision=", "decision=replace\n"),
               withLine(sample, "packageRevision=", "packageRevision=999999999\n"),
               withLine(sample, "sku=", "sku=" + std::string(128, 's') + "\n"),
               changed(sample, "beta\t-\t", "beta\t18446744073709551616\t")});
}

TEST(Descriptor, MayHaveTheOtherScopeAsItsSource)
{
    publishText("user", withLine(sample, "sourceScope=", "sourceScope=system\n"), "probe-1");
    EXPECT_EQ(inspectIt(), clean);
}

TEST(Descriptor, IsAcceptedInTheSystemScope)
{
    publishText("system", changed(sample, "targetScope=user", "targetScope=system"), "probe-1");
    EXPECT_EQ(run({"inspect", "system", "probe-1"}), clean);
}

TEST(Descriptor, WithAnEmptyLineIsRefused)
{
    expectRefused("contains an invalid line",
                  {"\n", "\n" + sample, sample + "\n", withLineAfter(sample, "sku=", "\n"),
                   withLineBefore(sample, "target=beta", "\n")});
}

/// A target line of product alpha with `length` bytes.
std::string targetLine(std::size_t length)
{
    // Missing directories are never entered, so the length of a name below them is nobody's concern.
    return auLine + std::string(length - auLine.size() - 65, 'x') + "\t" + one + "\n";
}

TEST(Descriptor, MayHaveLinesOf8192Bytes)
{
    EXPECT_EQ(parseDescriptorText(sample + targetLine(8192), "user", "x").files.back().path.size(),
              8192 - 65 - auLine.size() + auAlpha.size());
    expectRefused("has an invalid product", {"product=" + std::string(8192 - 8, 'x') + "\n"});
}

TEST(Descriptor, WithALineOver8192BytesIsRefused)
{
    expectRefused("contains an invalid line",
                  {sample + targetLine(8193), std::string(8193, 'x'), "sku=" + std::string(8189, 'x') + "\n",
                   std::string(1048576, 'a'), "target=" + std::string(1048500, '\t')});
}

TEST(Descriptor, WithALineThatIsNoFieldIsRefused)
{
    expectRefused("contains an invalid field",
                  {"x", sample + "end\n", withLine(sample, "sku=", "sku\n"), std::string(8192, 'x'),
                   withLineAfter(sample, "decision=", "product\tgamma\t-\t1.0\n"), std::string(1, '\0')});
}

TEST(Descriptor, WithAnUnknownFieldIsRefused)
{
    expectRefused("contains an unknown field", {sample + "=\n", sample + "id=probe-1\n", sample + "Sku=x\n",
                                                " " + sample, sample + "component=0\tx\ty\tz\n",
                                                "\xef\xbb\xbf" + sample, std::string(1, '\0') + sample});
}

TEST(Descriptor, WithAFieldTwiceIsRefused)
{
    std::vector<std::string> texts;
    for (const std::string key :
         {"schema", "sku", "packageRevision", "sourceScope", "targetScope", "decision"}) {
        texts.push_back(sample + lineOf(sample, key + "="));
        texts.push_back(key + "=\n" + sample);
    }
    expectRefused("repeats a field", texts);
}

TEST(Descriptor, WithABadProductIsRefused)
{
    std::vector<std::string> texts;
    for (const char* value : {"",
                              "beta",
                              "beta\t-",
                              "beta\t2.0.1",
                              "beta\t-\t2.0.1\t",
                              "beta\t-\t2.0.1\tx",
                              "\t-\t2.0.1",
                              "Beta\t-\t2.0.1",
                              "beta-\t-\t2.0.1",
                              "be_ta\t-\t2.0.1",
                              "beta\t\t2.0.1",
                              "beta\t--\t2.0.1",
                              "beta\t01\t2.0.1",
                              "beta\tnone\t2.0.1",
                              "beta\t1.2.3.4.5\t2.0.1",
                              "beta\t-\t",
                              "beta\t-\t-",
                              "beta\t-\t2.0.",
                              "beta\t-\t2.0.1\r",
                              "beta -\t2.0.1",
                              "beta\t- \t2.0.1"})
        texts.push_back(withLine(sample, "product=beta", "product=" + std::string(value) + "\n"));
    texts.push_back(withLine(sample, "product=beta", "product=" + std::string(129, 'b') + "\t-\t1.0\n"));
    texts.push_back(withLineAfter(sample, "product=beta", "product=beta\t-\t2.0.1\n"));
    texts.push_back(sample + "product=alpha\t1.0\t2.0\n");
    expectRefused("has an invalid product", texts);
}

TEST(Descriptor, WithATargetThatHasNotFiveFieldsIsRefused)
{
    const std::string line = lineOf(sample, "target=beta");
    std::vector<std::string> texts;
    for (const std::string& bad :
         {std::string("target=\n"), std::string("target=beta\n"), std::string("target=\t\t\t\n"),
          std::string("target=\t\t\t\t\t\n"), changed(line, "\t2.0.1", ""),
          changed(line, "\t2.0.1", "\t2.0.1\t"), changed(line, "\n", "\t\n"), changed(line, "\t" + one, "")})
        texts.push_back(withLine(sample, "target=beta", bad));
    expectRefused("has an invalid target file", texts);
}

TEST(Descriptor, WithAPathThatNoProductMayOwnIsRefused)
{
    const std::string path = auAlpha + "Contents/Info.plist";
    const auto expect = [&](const std::string& message, const std::vector<std::string>& paths) {
        std::vector<std::string> texts;
        for (const std::string& other : paths)
            texts.push_back(changed(sample, path, other));
        expectAll(refused(message), texts);
    };
    expect("owned path is not relative", {"", "/" + path, auAlpha + "a\\b"});
    expect("owned path contains an unsafe character", {auAlpha + "caf\xc3\xa9", auAlpha + "a:b"});
    expect("owned path contains traversal or is not normalized",
           {auAlpha + "a//b", auAlpha + "./a", auAlpha + "a/../../../x", auAlpha + "a/."});
    expect("owned path is outside fixed Tamarind Pelican destinations",
           {"../" + path, "etc/passwd", support + "Maintenance/ActiveTransaction"});
    expect("owned path is not a Tamarind Pelican plugin bundle",
           {"Library/Audio/Plug-Ins/Components/TP alpha.component",
            "Library/Audio/Plug-Ins/Components/Other.component/x",
            "Library/Audio/Plug-Ins/Components/TP alpha.vst3/x"});
}

TEST(Descriptor, WithAnInvalidOrDuplicateFileIsRefused)
{
    const std::string line = lineOf(sample, "target=beta");
    std::vector<std::string> texts;
    for (const std::string& bad :
         {changed(line, "\t2.0.1", "\t"), changed(line, "\t2.0.1", "\t2.0.01"),
          changed(line, "\t2.0.1", "\t-"), changed(line, one, ""), changed(line, one, one.substr(1)),
          changed(line, one, one + "1"), changed(line, one, std::string(64, 'F')),
          changed(line, one, std::string(64, 'x')), changed(line, "\n", "\r\n")})
        texts.push_back(withLine(sample, "target=beta", bad));
    texts.push_back(sample + line);
    texts.push_back(sample + changed(line, one, two));
    texts.push_back(sample + changed(lineOf(sample, "target=common"), "target=common", "target=alpha"));
    expectRefused("has an invalid or duplicate file", texts);
}

TEST(Descriptor, IsCheckedForItsPathBeforeItsVersionAndDigest)
{
    const std::string bad =
        changed(changed(lineOf(sample, "target=beta"), "\t2.0.1", "\tx"), "Library/Audio", "/x");
    expectAll(refused("owned path is not relative"), {withLine(sample, "target=beta", bad)});
}

TEST(Descriptor, WithoutAllFieldsIsIncomplete)
{
    std::vector<std::string> texts = {"", "sku=studio-bundle", "product=alpha\t-\t1.0\n"};
    for (const std::string key :
         {"schema", "sku", "packageRevision", "sourceScope", "targetScope", "decision"})
        texts.push_back(withoutLine(sample, key + "="));
    expectRefused("is incomplete", texts);
}

TEST(Descriptor, OfAnotherSchemaIsRefused)
{
    expectRefused("binding is invalid", with("schema", {"", "tamarind.pelican.macos-maintenance.v1",
                                                        "tamarind.pelican.macos-maintenance.v2 ",
                                                        "tamarind.pelican.macos-maintenance.v2\r",
                                                        "tamarind.pelican.macos-maintenance-plan.v1"}));
}

TEST(Descriptor, WithABadSkuIsRefused)
{
    expectRefused("binding is invalid",
                  with("sku", {"", "Studio", "a_b", "-a", "a b", "a=b", "a\tb", std::string(129, 's')}));
}

TEST(Descriptor, WithABadRevisionIsRefused)
{
    expectRefused("binding is invalid",
                  with("packageRevision", {"", "0", "07", "7.0", "1234567890", "-7", "7 ", "x", "7\t"}));
}

TEST(Descriptor, OfAnotherTargetScopeIsRefused)
{
    expectRefused("binding is invalid", with("targetScope", {"", "system", "User", "none", "user "}));
    publishText("system", sample, "probe-1");
    EXPECT_EQ(run({"inspect", "system", "probe-1"}), descriptorRefused("binding is invalid"));
}

TEST(Descriptor, OfAnotherSourceScopeIsRefused)
{
    expectRefused("binding is invalid", with("sourceScope", {"", "None", "System", "system ", "all"}));
}

TEST(Descriptor, WhoseSourceIsItsTargetIsRefused)
{
    expectRefused("binding is invalid", with("sourceScope", {"user"}));
    const std::string own = changed(changed(sample, "sourceScope=none", "sourceScope=system"),
                                    "targetScope=user", "targetScope=system");
    publishText("system", own, "probe-1");
    EXPECT_EQ(run({"inspect", "system", "probe-1"}), descriptorRefused("binding is invalid"));
}

TEST(Descriptor, OfAnotherDecisionIsRefused)
{
    expectRefused("binding is invalid", with("decision", {"", "None", "keep", "adopt ", "adopt,replace"}));
}

TEST(Descriptor, WithAForeignSharedFileIsRefused)
{
    const std::string updater = lineOf(sample, commonLine + "TamarindPelicanUpdater");
    std::vector<std::string> texts;
    for (const std::string& bad :
         {changed(updater, "pkg.common", "pkg.alpha.au"), changed(updater, "pkg.common", "pkg.common.au"),
          changed(updater, "com.tamarindpelican.pkg.common", ""),
          changed(updater, "pkg.common", "pkg.Common"), changed(updater, "\t7\t", "\t7.0\t"),
          changed(updater, "\t7\t", "\t0\t"), changed(updater, "\t7\t", "\t1234567890\t")})
        texts.push_back(withLine(sample, commonLine, bad));
    expectRefused("has an invalid common component", texts);
}

TEST(Descriptor, WithSharedFilesOfSeveralRevisionsIsRefused)
{
    const std::string updater = lineOf(sample, commonLine + "TamarindPelicanUpdater");
    const std::string maintenance = lineOf(sample, commonLine + "TamarindPelicanMaintenance");
    expectRefused("has an inconsistent common revision",
                  {withLine(sample, updater, changed(updater, "\t7\t", "\t8\t")),
                   withLine(sample, maintenance, changed(maintenance, "\t7\t", "\t70\t"))});
}

TEST(Descriptor, WithAFileOfAnUnknownProductIsRefused)
{
    const std::string line = lineOf(sample, "target=beta");
    std::vector<std::string> texts = {withoutLine(sample, "product=beta")};
    for (const std::string product : {"gamma", "", "Beta", "Common", "COMMON", "beta ", "bet", "none"})
        texts.push_back(withLine(sample, "target=beta", changed(line, "target=beta", "target=" + product)));
    expectRefused("file names an unknown product", texts);
}

TEST(Descriptor, WithAFileOfAnotherPackageIsRefused)
{
    std::vector<std::string> texts;
    for (const char* package :
         {"pkg.beta.vst3", "pkg.alpha.au", "pkg.common", "pkg.beta.AU", "pkg.beta.au.au", "pkg."})
        texts.push_back(changed(sample, "pkg.beta.au", package));
    texts.push_back(changed(sample, "pkg.alpha.vst3", "pkg.alpha.au"));
    texts.push_back(changed(sample, "com.tamarindpelican.pkg.beta.au", ""));
    texts.push_back(changed(sample, "TP beta.component/Contents/", "TP beta.component/VST3/"));
    expectRefused("package identity drifted", texts);
}

TEST(Descriptor, WithAFileOfAnotherVersionIsRefused)
{
    expectRefused("target version drifted",
                  {changed(sample, "beta.au\t2.0.1", "beta.au\t2.0.2"),
                   changed(sample, "beta.au\t2.0.1", "beta.au\t2.0"),
                   changed(sample, "product=beta\t-\t2.0.1", "product=beta\t-\t2.0.1.0"),
                   changed(sample, "alpha.vst3\t1.0", "alpha.vst3\t0.9")});
}

TEST(Descriptor, WithoutExactlyTheTwoSharedExecutablesIsRefused)
{
    const std::string extra =
        "target=common\tcom.tamarindpelican.pkg.common\t7\t" + auAlpha + "x\t" + one + "\n";
    expectRefused("has an incomplete common component",
                  {withoutLine(sample, commonLine),
                   withoutLine(sample, commonLine + "TamarindPelicanMaintenance"),
                   withoutLine(withoutLine(sample, commonLine), commonLine), sample + extra,
                   withLine(sample, commonLine, extra)});
}

TEST(Descriptor, WithAProductWithoutFilesIsRefused)
{
    expectRefused("product has no files", {withoutLine(sample, "target=beta"),
                                           withLineAfter(sample, "product=beta", "product=gamma\t-\t1.0\n"),
                                           withoutLine(withoutLine(sample, "target=alpha"), "target=alpha")});
}

TEST(Descriptor, WithoutProductsIsAccepted)
{
    std::string text = sample;
    for (const char* line : {"product=", "product=", "target=alpha", "target=alpha", "target=beta"})
        text = withoutLine(text, line);
    expectAll(clean, {text});
}

TEST(Descriptor, IsCheckedLineByLineThenForItsBindingThenForItsContent)
{
    const std::string drifted = changed(sample, "beta.au\t2.0.1", "beta.au\t2.0.2");
    const std::string unbound = changed(drifted, "sku=studio", "sku=Studio");
    const std::string incomplete = withoutLine(unbound, "decision=");
    expectRefused("contains an unknown field", {incomplete + "x=\n"});
    expectRefused("is incomplete", {incomplete});
    expectRefused("binding is invalid", {unbound});
    expectRefused("target version drifted", {drifted});
}

TEST(Descriptor, IsCheckedFileByFileBeforeItsFilesAreCounted)
{
    const std::string badShared = changed(sample, commonLine + "TamarindPelicanUpdater",
                                          changed(commonLine, "\t7\t", "\t7.0\t") + "TamarindPelicanUpdater");
    const std::string unknown = changed(badShared, "target=beta", "target=gamma");
    expectRefused("file names an unknown product", {unknown});
    // The same lines, the shared one first.
    const std::string line = lineOf(unknown, "target=common\tcom.tamarindpelican.pkg.common\t7.0");
    expectRefused("has an invalid common component",
                  {withLineBefore(withoutLine(unknown, line), "target=alpha", line)});

    const std::string identity = changed(sample, "pkg.beta.au\t2.0.1", "pkg.gamma.au\t2.0.2");
    expectRefused("package identity drifted", {identity});
    const std::string fewShared = withoutLine(withoutLine(sample, commonLine), "target=beta");
    expectRefused("has an incomplete common component", {fewShared});
    expectRefused("target version drifted", {changed(fewShared, "alpha.au\t1.0", "alpha.au\t1.1")});
}

// The file.

TEST(DescriptorFile, OfAnotherOwnerOrWritableForOthersIsRefused)
{
    for (const std::string& scope : bothScopes) {
        const std::string text = Work(scope).brings(plugin("alpha", "1.0")).text();
        publishText(scope, text, "probe-1");
        const auto expect = [&](Ownership ownership, const Outcome& expected) {
            writeFile(descriptorOf(scope, "probe-1"), text, ownership);
            EXPECT_EQ(run({"inspect", scope, "probe-1"}), expected)
                << scope << " " << ownership.owner << " " << ownership.mode;
        };
        const Outcome unsafe = descriptorRefused("permissions are unsafe");
        for (const mode_t mode : {0664u, 0620u, 0602u, 0666u, 0777u})
            expect({ownerOf(scope), mode}, unsafe);
        for (const mode_t mode : {0400u, 0600u, 0644u, 0755u})
            expect({ownerOf(scope), mode}, clean);
        expect({ownerOf(oppositeOf(scope)), 0600}, unsafe);
        expect({502, 0600}, unsafe);
    }
}

/// A valid descriptor of exactly `size` bytes.
std::string descriptorOfSize(std::size_t size)
{
    std::string text = sample;
    const std::string deep = "/" + std::string(200, 'd');
    for (int i = 1000; text.size() < size; ++i) {
        const std::size_t left = size - text.size();
        const std::size_t length = left > 2 * 2000 ? 2000 : left > 2000 ? left / 2 : left;
        std::string name = std::to_string(i) + deep + deep + deep + deep + deep + deep + deep + deep + deep;
        name.resize(length - auLine.size() - 66, 'e');
        text += auLine + name + "\t" + one + "\n";
    }
    return text;
}

TEST(DescriptorFile, MayHave1048576Bytes)
{
    publishText("user", descriptorOfSize(1048576), "probe-1");
    EXPECT_EQ(std::filesystem::file_size(descriptorOf("user", "probe-1")), 1048576U);
    EXPECT_EQ(inspectIt(), clean);
}

TEST(DescriptorFile, Over1048576BytesIsRefused)
{
    publishText("user", descriptorOfSize(1048577), "probe-1");
    EXPECT_EQ(inspectIt(), descriptorRefused("permissions are unsafe"));
    std::filesystem::resize_file(descriptorOf("user", "probe-1"), 1ULL << 40);
    EXPECT_EQ(inspectIt(), descriptorRefused("permissions are unsafe"));
}

TEST(DescriptorFile, ThatCannotBeOpenedOrReadIsRefused)
{
    publishText("user", sample, "probe-1");
    for (const int error : {EIO, EACCES, EMFILE})
        EXPECT_EQ(runFailing(SYS_openat, "probe-1.tpmt", error, {"inspect", "user", "probe-1"}),
                  descriptorRefused("cannot be read"));
}

TEST(DescriptorFile, ThatTheAccountMayNotReadIsRefused)
{
    publishText("user", sample, "probe-1");
    setMode(descriptorOf("user", "probe-1"), 0200);
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, asPlayer()), descriptorRefused("cannot be read"));
}

/// Inspects while `meanwhile` happens just before the descriptor is opened.
Outcome inspectWhileItIsOpened(const std::function<void()>& meanwhile)
{
    publishText("user", sample, "probe-1");
    return runWhile(SYS_openat, "probe-1.tpmt", 1, meanwhile, {"inspect", "user", "probe-1"});
}

TEST(DescriptorFile, ExchangedBeforeItIsOpenedIsRefused)
{
    const std::filesystem::path path = descriptorOf("user", "probe-1");
    const std::filesystem::path aside = inboxOf("user") / "aside";
    const std::vector<std::function<void()>> exchanges = {
        [&] {
            writeFile(aside, sample, {playerUid, 0600});
            std::filesystem::rename(aside, path);
        },
        [&] {
            removeAll(path);
            makePipe(path, playerUid);
        },
        [&] { makeHardLink(aside, path); },
        [&] { setMode(path, 0666); },
        [&] { std::ofstream(path, std::ios::app) << "x"; },
    };
    for (std::size_t i = 0; i < exchanges.size(); ++i) {
        EXPECT_EQ(inspectWhileItIsOpened(exchanges[i]), descriptorRefused("changed during validation"))
            << "exchange " << i;
        removeAll(path);
        removeAll(aside);
    }
}

TEST(DescriptorFile, ThatBecomesALinkBeforeItIsOpenedIsRefused)
{
    const std::filesystem::path path = descriptorOf("user", "probe-1");
    EXPECT_EQ(inspectWhileItIsOpened([&] {
                  std::filesystem::rename(path, inboxOf("user") / "aside");
                  makeLink(path, "aside");
              }),
              descriptorRefused("cannot be read"));
}

TEST(DescriptorFile, ThatChangesWhileItIsReadIsRefused)
{
    const std::filesystem::path path = descriptorOf("user", "probe-1");
    const std::vector<std::function<void()>> changes = {
        [&] { std::ofstream(path, std::ios::app) << "x"; },
        [&] { std::filesystem::resize_file(path, 100); },
        [&] { std::ofstream(path) << sample; },
        [&] {
            const utimbuf times{1, 1};
            ASSERT_EQ(::utime(path.c_str(), &times), 0);
        },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        publishText("user", sample, "probe-1");
        const Outcome outcome = runWhileReading("probe-1.tpmt",
                                                [&] {
                                                    changes[i]();
                                                    return 0;
                                                },
                                                {"inspect", "user", "probe-1"});
        EXPECT_EQ(outcome, descriptorRefused("changed while being read")) << "change " << i;
    }
}

TEST(DescriptorFile, WhoseReadingFailsIsRefused)
{
    publishText("user", sample, "probe-1");
    EXPECT_EQ(runWhileReading("probe-1.tpmt", [] { return EIO; }, {"inspect", "user", "probe-1"}),
              descriptorRefused("cannot be read"));
}

TEST(DescriptorFile, ThatVanishesBetweenItsLocationAndItsExaminationIsRefused)
{
    publishText("user", sample, "probe-1");
    EXPECT_EQ(runWhile(SYS_newfstatat, "probe-1.tpmt", 1, [] { removeAll(descriptorOf("user", "probe-1")); },
                       {"inspect", "user", "probe-1"}),
              descriptorRefused("is missing or unsafe"));
}

TEST(DescriptorFile, LiesInTheInboxUnderItsIdentifier)
{
    EXPECT_EQ(descriptorPath("user", "probe-1"),
              "/Users/player/Library/Application Support/Tamarind Pelican/Maintenance/Inbox/probe-1.tpmt");
    EXPECT_EQ(descriptorPath("system", "probe-1"),
              "/Library/Application Support/Tamarind Pelican/Maintenance/Inbox/probe-1.tpmt");
}

// The layout.

TEST(Layout, IsCreatedForTheScopesOwner)
{
    for (const std::string& scope : bothScopes) {
        validateLayout(scope);
        EXPECT_EQ(
            namesIn(maintenanceOf(scope)),
            (std::vector<std::string>{"Completed", "Inbox", "NativeReceipts", "Products", "Transactions"}));
        for (const std::filesystem::directory_entry& entry :
             std::filesystem::directory_iterator(maintenanceOf(scope)))
            EXPECT_EQ(describe(entry.path()), directoryOf(scope));
        EXPECT_EQ(describe(maintenanceOf(scope)), directoryOf(scope));
        EXPECT_EQ(describe(supportOf(scope)), directoryOf(scope));
    }
}

TEST(Layout, IsCompletedAndOtherwiseLeftAsItIs)
{
    for (const std::string& scope : bothScopes) {
        makeLayout(scope);
        const Tree complete = takeExactTree();
        validateLayout(scope);
        EXPECT_EQ(difference(complete, takeExactTree()), "");
        const std::string missing = maintenanceOf(scope) / "NativeReceipts";
        removeAll(missing);
        validateLayout(scope);
        EXPECT_EQ(describe(missing), directoryOf(scope));
    }
}

TEST(Layout, IsCheckedInItsOrder)
{
    makeLayout("user");
    for (const char* name : {"Completed", "NativeReceipts", "Products", "Transactions", "Inbox"}) {
        const std::filesystem::path place = maintenanceOf("user") / name;
        removeAll(place);
        writeFile(place, "", {playerUid, 0600});
        const Tree before = takeTree();
        EXPECT_EQ(endingOf([] { validateLayout("user"); }),
                  invalid("fixed maintenance directory is missing or redirected"));
        EXPECT_EQ(difference(before, takeTree()), "");
        removeAll(place);
        makeDirectories(place, {rootUid, 0755});
        EXPECT_EQ(endingOf([] { validateLayout("user"); }),
                  invalid("maintenance directory ownership is unsafe"));
        setMode(place, 0777);
        EXPECT_EQ(endingOf([] { validateLayout("user"); }),
                  invalid("maintenance directory ownership or mode is unsafe"));
        removeAll(place);
        makeDirectories(place, {playerUid, 0755});
        // From now on this one is wrong for its owner, the next one for something else.
        setOwner(place, rootUid);
        EXPECT_EQ(endingOf([] { validateLayout("user"); }),
                  invalid("maintenance directory ownership is unsafe"));
    }
}

} // namespace
} // namespace maintenance::rehearsed
