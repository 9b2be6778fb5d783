#include "validate/owned_path.h"

#include "pattern_comparison.h"
#include "validate/invalid.h"
#include "validate/product_catalogue.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace maintenance {
namespace {

using test::PatternComparison;
using test::visible;

const std::string vst3 = "Library/Audio/Plug-Ins/VST3/Tamarind Pelican/";
const std::string components = "Library/Audio/Plug-Ins/Components/";
const std::string support = "Library/Application Support/Tamarind Pelican/";
constexpr std::size_t mebibyte = 1048576;

const std::string accepted = "accepted";
const std::string notRelative = "owned path is not relative";
const std::string unsafeCharacter = "owned path contains an unsafe character";
const std::string notNormal = "owned path contains traversal or is not normalized";
const std::string outside = "owned path is outside fixed Tamarind Pelican destinations";
const std::string noBundle = "owned path is not a Tamarind Pelican plugin bundle";

/// The bundle names that the maker uses.
const std::string productNames =
    "(?:TP [A-Za-z0-9._ -]+|Backwater Bass|Brackish Drive|Channel Marker|Drifting Delay|Driftwood Organ|"
    "Estuary Filter|Fathom Limiter|Gullwing Widener|Harbour Horns|Kelp Granulator|Lagoon Chorus|Low Tide "
    "Tape|"
    "Mangrove Reverb|Marsh Gate|Monsoon Strings|Palm Court Piano|Plume Vocoder|Rookery Drums?|Saltwind "
    "Phaser|"
    "Sandbar Compressor|Seedpod Sequencer|Tidal Equalizer|Undertow Saturator)";

using Validator = std::string (*)(std::string_view);

/// What the validator says about `text`. A path that it accepts must come back unchanged.
std::string judgement(Validator validator, std::string_view text)
{
    try {
        const std::string path = validator(text);
        return path == text ? accepted : "changed to " + path;
    } catch (const Invalid& error) {
        return error.what();
    }
}

struct Case {
    std::string text;
    std::string judgement;
};

void expectJudgements(Validator validator, const std::vector<Case>& cases)
{
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(judgement(validator, text), expected) << visible(text);
}

TEST(LexicalPath, MustBeRelativePlainAndNormal)
{
    expectJudgements(safeLexicalRelative, {{"", notRelative},
                                           {"/", notRelative},
                                           {"/Library", notRelative},
                                           {"a\\b", notRelative},
                                           {"\\", notRelative},
                                           {"a*\\", notRelative},
                                           {"/\x80", notRelative},
                                           {"a*b", unsafeCharacter},
                                           {"a\tb", unsafeCharacter},
                                           {"a\n", unsafeCharacter},
                                           {"a:b", unsafeCharacter},
                                           {"a@b", unsafeCharacter},
                                           {"a//b*", unsafeCharacter},
                                           {std::string("a\0b", 3), unsafeCharacter},
                                           {std::string(1, '\0'), unsafeCharacter},
                                           {"\x80", unsafeCharacter},
                                           {"caf\xc3\xa9", unsafeCharacter},
                                           {"a\xff", unsafeCharacter},
                                           {"a/./b", notNormal},
                                           {"a//b", notNormal},
                                           {"Library//Audio", notNormal},
                                           {"a/../b", notNormal},
                                           {"a/..", notNormal},
                                           {"./a", notNormal},
                                           {"a/.", notNormal},
                                           {"../..//a", notNormal},
                                           {"a", accepted},
                                           {"a b/c-d/e_f.g", accepted},
                                           {"a/b/", accepted},
                                           {".a", accepted},
                                           {"...", accepted},
                                           {"a..b", accepted},
                                           {".", accepted},
                                           {"..", accepted},
                                           {"../a", accepted},
                                           {"..x", accepted},
                                           {" ", accepted}});
}

TEST(LexicalPath, AllowsExactlyTheListedBytes)
{
    const std::string allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 ._-/";
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const std::string text = std::string("a") + c + "b";
        const std::string expected = c == '\\'                              ? notRelative
                                     : allowed.find(c) == std::string::npos ? unsafeCharacter
                                                                            : accepted;
        EXPECT_EQ(judgement(safeLexicalRelative, text), expected) << "byte " << byte;
    }
}

TEST(OwnedPath, LiesInsideABundleOfTheMakerAtADestination)
{
    expectJudgements(safeRelative, {{components + "TP Foo.component/Contents/Info.plist", accepted},
                                    {components + "TP Foo.component/x", accepted},
                                    {vst3 + "TP Foo.vst3/Contents/MacOS/TP Foo", accepted},
                                    {vst3 + "Low Tide Tape.vst3/x", accepted},
                                    {vst3 + "Rookery Drum.vst3/x", accepted},
                                    {vst3 + "Rookery Drums.vst3/x", accepted},
                                    {vst3 + "Rookery Drumss.vst3/x", noBundle},
                                    {vst3 + "Rookery Drums?.vst3/x", unsafeCharacter},
                                    {vst3 + "TP .vst3/x", noBundle},
                                    {vst3 + "TP  .vst3/x", accepted},
                                    {vst3 + "TP.vst3/x", noBundle},
                                    {vst3 + "tp Foo.vst3/x", noBundle},
                                    {vst3 + "TPFoo.vst3/x", noBundle},
                                    {vst3 + "TP Foo.vst3.vst3/x", accepted},
                                    {vst3 + "TP .vst3.vst3/x", accepted},
                                    {vst3 + "TP Foo.component/x", noBundle},
                                    {components + "TP Foo.vst3/x", noBundle},
                                    {components + "TP Foo.component", noBundle},
                                    {components + "Foo.component/x", noBundle},
                                    {components + "low tide tape.component/x", noBundle},
                                    {components + "Low Tide Tape .component/x", noBundle},
                                    {components + "Low Tide Tape.component.bak/x", noBundle},
                                    {components + "a/TP Foo.component/x", noBundle},
                                    {components + ".component/x", noBundle},
                                    {components + "x", noBundle},
                                    {components, noBundle},
                                    {vst3, noBundle}});
}

TEST(OwnedPath, BelowABundleMayBeAnyPlainPath)
{
    expectJudgements(safeRelative, {{components + "TP Foo.component/", noBundle},
                                    {components + "TP Foo.component/a/", noBundle},
                                    {components + "TP Foo.component/a/b/c/d.e", accepted},
                                    {components + "TP Foo.component/VST3/x", accepted},
                                    {components + "TP Foo.component/._x", accepted},
                                    {components + "TP Foo.component/../x", notNormal},
                                    {components + "TP Foo.component/..", notNormal},
                                    {components + "TP Foo.component//x", notNormal},
                                    {components + "TP Foo.component/x\r", unsafeCharacter}});
}

TEST(OwnedPath, ElsewhereIsOneOfTheTwoFixedExecutables)
{
    expectJudgements(safeRelative, {{support + "TamarindPelicanMaintenance", accepted},
                                    {support + "TamarindPelicanUpdater", accepted},
                                    {support + "TamarindPelicanUpdater/x", outside},
                                    {support + "TamarindPelicanUpdater/", outside},
                                    {support + "TamarindPelicanUpdate", outside},
                                    {support + "tamarindpelicanupdater", outside},
                                    {support + "Maintenance/PendingInstall", outside},
                                    {support + "transaction-plan.tpmp", outside},
                                    {"Library/Audio/Plug-Ins/VST3/Other/TP Foo.vst3/x", outside},
                                    {"Library/Audio/Plug-Ins/VST3/TP Foo.vst3/x", outside},
                                    {"Library/Audio/Plug-Ins/VST3/Tamarind Pelican", outside},
                                    {"Library/Audio/Plug-Ins/Components", outside},
                                    {"library/Audio/Plug-Ins/Components/TP Foo.component/x", outside},
                                    {"x/" + components + "TP Foo.component/x", outside},
                                    {"../" + components + "TP Foo.component/x", outside},
                                    {"..", outside},
                                    {".", outside},
                                    {"a", outside}});
}

TEST(OwnedPath, IsRefusedForItsFormBeforeItsPlace)
{
    expectJudgements(safeRelative, {{"", notRelative},
                                    {"/" + components + "TP Foo.component/x", notRelative},
                                    {components + "TP Foo.component\\x", notRelative},
                                    {"elsewhere/\x80", unsafeCharacter},
                                    {"elsewhere//x", notNormal}});
}

TEST(OwnedPath, OfEveryProductIsAccepted)
{
    for (const char* name :
         {"Backwater Bass",     "Brackish Drive",    "Channel Marker",  "Drifting Delay",
          "Driftwood Organ",    "Estuary Filter",    "Fathom Limiter",  "Gullwing Widener",
          "Harbour Horns",      "Kelp Granulator",   "Lagoon Chorus",   "Low Tide Tape",
          "Mangrove Reverb",    "Marsh Gate",        "Monsoon Strings", "Palm Court Piano",
          "Plume Vocoder",      "Rookery Drum",      "Rookery Drums",   "Saltwind Phaser",
          "Sandbar Compressor", "Seedpod Sequencer", "Tidal Equalizer", "Undertow Saturator"}) {
        EXPECT_EQ(judgement(safeRelative, vst3 + name + ".vst3/x"), accepted) << name;
        EXPECT_EQ(judgement(safeRelative, components + name + ".component/x"), accepted) << name;
    }
}

TEST(ProductName, IsAcceptedWhereThePatternAcceptsIt)
{
    PatternComparison comparison(isProductName, productNames);
    comparison.compareAll({"T", "P", " ", "x", ".", "_", "-", "/"}, 5);
    comparison.compareAll({"Rookery", " ", "Drum", "s", "?", "Marsh", "Gate", "TP "}, 4);
    comparison.compareMutations({"Rookery Drums", "Rookery Drum", "Low Tide Tape", "Tidal Equalizer",
                                 "TP Foo", "TP 9.x_-", "Undertow Saturator", "Backwater Bass",
                                 "Palm Court Piano"},
                                "aeiorstDPTR ._-", 40000);
    comparison.compareRandom("TP aZ0._-", 8, 10000);
    comparison.requireBothAnswers(3000, 20000);
}

TEST(OwnedPath, IsAcceptedWhereTheBundlePatternAcceptsIt)
{
    const auto acceptedByOwnedPath = [](std::string_view text) {
        return judgement(safeRelative, text) == accepted;
    };
    PatternComparison bundle(acceptedByOwnedPath, vst3 + productNames + R"(\.vst3/[A-Za-z0-9_-]+)");
    bundle.compareAll({"TP ", "Foo", ".vst3", ".component", "x"}, 5, vst3, "/x");
    bundle.compareAll({"Marsh Gate", "Rookery Drum", "s", ".vst3", "TP "}, 4, vst3, "/x");
    bundle.requireBothAnswers(150, 1000);
}

TEST(OwnedPath, NormalFormIsThatOfTheFileSystemLibrary)
{
    std::size_t normal = 0;
    std::size_t changed = 0;
    const std::vector<std::string> pieces = {"a", ".", "..", "/", "b"};
    for (std::size_t code = 0; code < 5 * 5 * 5 * 5 * 5 * 5 * 5; ++code) {
        std::string text = "a";
        for (std::size_t rest = code, i = 0; i < 7; ++i, rest /= 5)
            text += pieces[rest % 5];
        const bool isNormal = std::filesystem::path(text).lexically_normal().string() == text;
        ++(isNormal ? normal : changed);
        ASSERT_EQ(judgement(safeLexicalRelative, text), isNormal ? accepted : notNormal) << text;
    }
    EXPECT_GT(normal, 1000u);
    EXPECT_GT(changed, 1000u);
}

TEST(OwnedPath, OfAMebibyteIsJudgedWithoutHarm)
{
    const std::string letters(mebibyte, 'a');
    std::string deep;
    for (std::size_t i = 0; i < mebibyte / 2; ++i)
        deep += "a/";
    EXPECT_EQ(judgement(safeLexicalRelative, letters), accepted);
    EXPECT_EQ(judgement(safeLexicalRelative, deep), accepted);
    EXPECT_EQ(judgement(safeLexicalRelative, deep + "/"), notNormal);
    EXPECT_EQ(judgement(safeLexicalRelative, std::string(mebibyte, '.')), accepted);
    EXPECT_EQ(judgement(safeLexicalRelative, std::string(mebibyte, '/')), notRelative);
    EXPECT_EQ(judgement(safeLexicalRelative, std::string(mebibyte, '\xff')), unsafeCharacter);
    EXPECT_EQ(judgement(safeRelative, vst3 + "TP " + letters + ".vst3/x"), accepted);
    EXPECT_EQ(judgement(safeRelative, components + letters + ".component/x"), noBundle);
    EXPECT_EQ(judgement(safeRelative, components + "TP a.component/" + letters), accepted);
    EXPECT_EQ(judgement(safeRelative, letters), outside);
}

} // namespace
} // namespace maintenance
