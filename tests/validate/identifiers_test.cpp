#include "validate/identifiers.h"

#include "pattern_comparison.h"

#include <gtest/gtest.h>

namespace maintenance {
namespace {

using test::PatternComparison;
using test::visible;

const std::string nul(1, '\0');
constexpr std::size_t mebibyte = 1048576;

struct Judgement {
    std::string text;
    bool accepted;
};

void expectJudgements(bool (*predicate)(std::string_view), const std::vector<Judgement>& judgements)
{
    for (const auto& [text, accepted] : judgements)
        EXPECT_EQ(predicate(text), accepted) << visible(text);
}

TEST(Identifier, HasOneTo128LowerCaseLettersDigitsAndInnerHyphens)
{
    expectJudgements(safeId, {{"a", true},
                              {"0", true},
                              {"a-b", true},
                              {"a--b", true},
                              {"0a", true},
                              {std::string(128, 'a'), true},
                              {"a" + std::string(126, '-') + "9", true},
                              {std::string(129, 'a'), false},
                              {"", false},
                              {"-", false},
                              {"-a", false},
                              {"a-", false},
                              {"A1", false},
                              {"aB", false},
                              {"a_b", false},
                              {"a.b", false},
                              {"a b", false},
                              {"a/b", false},
                              {"..", false},
                              {"../x", false},
                              {"a\n", false},
                              {"a" + nul, false},
                              {nul, false},
                              {"a" + nul + "b", false},
                              {"\xc3\xa4", false},
                              {"a\xe9z", false}});
}

TEST(Version, HasOneToFourDecimalNumbersWithoutLeadingZeros)
{
    expectJudgements(safeVersion, {{"0", true},
                                   {"1.2.3.4", true},
                                   {"10.0", true},
                                   {"0.0.0.0", true},
                                   {"99999999999999999999999999", true},
                                   {"01", false},
                                   {"00", false},
                                   {"1.02", false},
                                   {"1.", false},
                                   {".1", false},
                                   {".", false},
                                   {"", false},
                                   {"1..2", false},
                                   {"1.2.3.4.5", false},
                                   {"1.2.3.4.", false},
                                   {"1a", false},
                                   {"a", false},
                                   {"-1", false},
                                   {"+1", false},
                                   {" 1", false},
                                   {"1 ", false},
                                   {"1\n", false},
                                   {"1" + nul, false},
                                   {"1,"
                                    "2",
                                    false},
                                   {"\xb2", false}});
}

TEST(PackageIdentifier, IsTheSharedPackageOrAProductNameWithItsFormat)
{
    const std::string prefix = "com.tamarindpelican.pkg.";
    expectJudgements(safePackageId, {{prefix + "common", true},
                                     {prefix + "my-plug.vst3", true},
                                     {prefix + "my-plug.au", true},
                                     {prefix + "common.au", true},
                                     {prefix + std::string(128, 'z') + ".vst3", true},
                                     {prefix + std::string(129, 'z') + ".vst3", false},
                                     {prefix + "my-plug.component", false},
                                     {prefix + "my-plug", false},
                                     {prefix + "my-plug.", false},
                                     {prefix + "my-plug.aux", false},
                                     {prefix + "my-plug.VST3", false},
                                     {prefix + "my.plug.au", false},
                                     {prefix + "-plug.au", false},
                                     {prefix + "plug-.au", false},
                                     {prefix + ".au", false},
                                     {prefix + "au", false},
                                     {prefix, false},
                                     {prefix + "Common", false},
                                     {prefix + "common ", false},
                                     {prefix + "common\r", false},
                                     {prefix + "commo", false},
                                     {prefix + "common" + nul, false},
                                     {"x" + prefix + "common", false},
                                     {"comxtamarindpelican.pkg.common", false},
                                     {"com.tamarindpelican.pkgxcommon", false},
                                     {"com.other.pkg.my-plug.au", false},
                                     {"", false}});
}

TEST(Revision, HasOneToNineDigitsWithoutALeadingZero)
{
    expectJudgements(isRevision, {{"1", true},
                                  {"10", true},
                                  {"999999999", true},
                                  {"1000000000", false},
                                  {"0", false},
                                  {"01", false},
                                  {"1.0", false},
                                  {"", false},
                                  {"1a", false},
                                  {"-1", false}});
}

TEST(Digest, HasExactly64LowerCaseHexadecimalDigits)
{
    const std::string digest = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
    expectJudgements(isDigest, {{digest, true},
                                {digest.substr(1), false},
                                {digest + "0", false},
                                {"A" + digest.substr(1), false},
                                {"g" + digest.substr(1), false},
                                {digest.substr(1) + "\n", false},
                                {digest.substr(1) + nul, false},
                                {"", false}});
}

TEST(SnapshotSerial, HasOneToTwentyDigits)
{
    expectJudgements(isSerial, {{"0", true},
                                {"007", true},
                                {std::string(20, '9'), true},
                                {std::string(21, '9'), false},
                                {"", false},
                                {"-1", false},
                                {"1a", false},
                                {"/", false},
                                {":", false}});
}

TEST(Identifier, AcceptsWhatItsPatternAccepts)
{
    PatternComparison comparison(safeId, "[a-z0-9](?:[a-z0-9-]{0,126}[a-z0-9])?");
    comparison.compareAll({"a", "z", "0", "9", "-", "A"}, 6);
    comparison.compareAll({"`", "{", "/", ":", ".", "_", "\xff", nul}, 2, "a", "z");
    for (std::size_t length = 0; length < 260; ++length)
        for (const char edge : {'a', '-'}) {
            comparison.compare(std::string(length, 'b') + edge);
            comparison.compare(edge + std::string(length, '-') + "0");
        }
    comparison.compareMutations({"install-0a", "a-b-c", std::string(128, 'q')}, "abz019-", 20000);
    comparison.compareRandom("az09--", 12, 30000);
    comparison.requireBothAnswers(10000, 10000);
}

TEST(Version, AcceptsWhatItsPatternAccepts)
{
    PatternComparison comparison(safeVersion, R"((?:0|[1-9][0-9]*)(?:\.(?:0|[1-9][0-9]*)){0,3})");
    comparison.compareAll({"0", "1", ".", "9"}, 8);
    comparison.compareAll({"/", ":", "a", "\xb9", nul, "\n"}, 2, "1", "");
    comparison.compareMutations({"0", "1.2.3.4", "10.20.30.40", "0.0.0.0", "1.0", "98.7.65"}, "0019..",
                                40000);
    comparison.compareRandom("01239..", 14, 30000);
    comparison.requireBothAnswers(10000, 10000);
}

TEST(PackageIdentifier, AcceptsWhatItsPatternAccepts)
{
    PatternComparison comparison(
        safePackageId,
        R"(com\.tamarindpelican\.pkg\.(?:common|[a-z0-9](?:[a-z0-9-]{0,126}[a-z0-9])?\.(?:vst3|au)))");
    comparison.compareAll({"common", "vst3", "au", ".", "a", "-", "Z", "7"}, 5, "com.tamarindpelican.pkg.");
    comparison.compareAll({"com", ".", "tamarindpelican", "pkg", "common"}, 6);
    for (std::size_t length = 120; length < 135; ++length) {
        comparison.compare("com.tamarindpelican.pkg." + std::string(length, 'x') + ".vst3");
        comparison.compare("com.tamarindpelican.pkg.a" + std::string(length, '-') + "a.au");
    }
    comparison.compareMutations({"com.tamarindpelican.pkg.common", "com.tamarindpelican.pkg.low-tide.vst3",
                                 "com.tamarindpelican.pkg.b.au", "com.tamarindpelican.pkg.vst3.au"},
                                "acmnotuvs3.-", 40000);
    comparison.requireBothAnswers(5000, 20000);
}

TEST(RevisionDigestAndSerial, AcceptWhatTheirPatternsAccept)
{
    PatternComparison revision(isRevision, "[1-9][0-9]{0,8}");
    revision.compareAll({"0", "1", "9", "a"}, 6);
    revision.compareMutations({"1", "123456789", "90", "100000000"}, "01239", 20000);
    revision.requireBothAnswers(2000, 2000);

    PatternComparison digest(isDigest, "[0-9a-f]{64}");
    const std::string sample = "00ff99aa5b6c7d8e00ff99aa5b6c7d8e00ff99aa5b6c7d8e00ff99aa5b6c7d8e";
    digest.compareMutations({sample, std::string(64, 'f'), std::string(64, '0')}, "0123456789abcdef/:`gAF",
                            30000);
    digest.requireBothAnswers(2000, 2000);

    PatternComparison serial(isSerial, "[0-9]{1,20}");
    serial.compareAll({"0", "9", "/", ":"}, 5);
    serial.compareMutations({"0", std::string(20, '1'), "123"}, "0123456789", 20000);
    serial.requireBothAnswers(2000, 2000);
}

TEST(EveryPredicate, JudgesAMebibyteOfTextWithoutHarm)
{
    const std::string digits(mebibyte, '1');
    const std::string letters(mebibyte, 'a');
    const std::string dots(mebibyte, '.');
    const std::string prefix = "com.tamarindpelican.pkg.";
    EXPECT_FALSE(safeId(letters));
    EXPECT_FALSE(safeId("a" + std::string(mebibyte, '-') + "a"));
    EXPECT_TRUE(safeVersion(digits));
    EXPECT_TRUE(safeVersion("0." + digits + ".0." + digits));
    EXPECT_FALSE(safeVersion(letters));
    EXPECT_FALSE(safeVersion(digits + "a"));
    EXPECT_FALSE(safeVersion(dots));
    EXPECT_FALSE(safePackageId(prefix + letters + ".au"));
    EXPECT_FALSE(safePackageId(letters));
    EXPECT_FALSE(isRevision(digits));
    EXPECT_FALSE(isDigest(letters));
    EXPECT_FALSE(isSerial(digits));
}

TEST(ProductPackageIdentifier, JoinsPrefixProductAndKind)
{
    EXPECT_EQ(productPackageId("low-tide", "vst3"), "com.tamarindpelican.pkg.low-tide.vst3");
    EXPECT_EQ(productPackageId("b", "au"), "com.tamarindpelican.pkg.b.au");
    EXPECT_TRUE(safePackageId(productPackageId(std::string(128, 'c'), "au")));
}

} // namespace
} // namespace maintenance
