#include "kit.h"

namespace maintenance::rehearsed {
namespace {

const std::string planFile = inWorkshop("a.tpmp");
const std::string descriptorFile = inWorkshop("repair-1.tpmt");

/// One line of a text replaced by another.
std::string with(std::string text, const std::string& line, const std::string& replacement)
{
    const std::size_t at = text.find(line);
    if (at == std::string::npos)
        throw std::runtime_error("no " + line);
    return text.replace(at, line.size(), replacement);
}

nlohmann::ordered_json checkText(const std::string& file, const std::string& text)
{
    writeFile(file, text);
    return kitJson({"check", file});
}

std::size_t lineOf(const std::string& text, const std::string& part)
{
    const auto before = text.substr(0, text.find(part));
    return 1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
}

TEST(KitCheck, AcceptsAPlanAndADescriptor)
{
    writeFile(planFile, planText({plugin("alpha", "1.0")}));
    EXPECT_EQ(kit({"check", planFile}), succeeded(planFile + ": a valid plan\n"));
    writeFile(descriptorFile, Work("system").from("user").brings(plugin("alpha", "1.0"), "0.9").text());
    EXPECT_EQ(kit({"check", descriptorFile}), succeeded(descriptorFile + ": a valid descriptor\n"));
}

TEST(KitCheck, NamesLineTextRuleAndTheToolsMessage)
{
    const std::string text = with(planText({plugin("alpha", "1.0")}), "sku=studio", "sku=Studio");
    writeFile(planFile, text);
    EXPECT_EQ(
        kit({"check", planFile}),
        (Outcome{65,
                 planFile +
                     ":2: error: an identifier has 1 to 128 lower-case letters, digits and hyphens, and "
                     "no hyphen at either end\n"
                     "    > sku=Studio-bundle\n"
                     "    the tool says: embedded transaction plan identity is invalid\n" +
                     planFile +
                     ": the tool refuses this plan: embedded transaction plan identity is invalid\n",
                 ""}));
}

TEST(KitCheck, SaysEverythingAtOnce)
{
    const Plugin alpha = plugin("alpha", "1.0");
    std::string text = planText({alpha});
    text = with(text, "packageRevision=7", "packageRevision=07");
    text =
        with(text, "target=0\t" + vst3Path("alpha"), "target=0\t" + vst3Path("alpha", "Contents/../plugin"));
    text = with(text, "target=2\t", "target=5\t");
    text += "colour=red\n";
    const auto answer = checkText(planFile, text);
    EXPECT_EQ(messagesOf(answer),
              (std::set<std::string>{"embedded transaction plan identity is invalid",
                                     "embedded transaction plan has an invalid target file",
                                     "embedded transaction plan contains an unknown field"}));
    std::set<std::size_t> lines;
    for (const auto& finding : answer.at("findings"))
        lines.insert(finding.at("line").get<std::size_t>());
    EXPECT_TRUE(lines.contains(3));
    EXPECT_TRUE(lines.contains(lineOf(text, "target=0\t")));
    EXPECT_TRUE(lines.contains(lineOf(text, "target=5\t")));
    EXPECT_TRUE(lines.contains(lineOf(text, "colour=red")));
    EXPECT_EQ(answer.at("toolMessage"), "embedded transaction plan has an invalid target file");
}

TEST(KitCheck, NeverSendsControlCharactersToATerminal)
{
    writeFile(planFile, with(planText({plugin("alpha", "1.0")}), "sku=studio", "sku=\033[2J\x07\xFF"));
    const Outcome outcome = kit({"check", planFile});
    EXPECT_TRUE(holds(outcome.out, "> sku=\\x1B[2J\\x07\\xFF-bundle")) << outcome;
    for (const char c : outcome.out)
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~'));
}

TEST(KitCheck, SaysOfWhatIsMissingWhereItWouldStand)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string text = planText({alpha});
    const std::size_t au = text.find("component=1");
    const auto answer = checkText(planFile, text.substr(0, au) + with(text.substr(text.find("component=2")),
                                                                      "component=2", "component=1"));
    EXPECT_TRUE(messagesOf(answer).contains("embedded transaction plan component membership is incomplete"));
    EXPECT_TRUE(holds(answer.dump(), "com.tamarindpelican.pkg.alpha.au"));
}

TEST(KitCheck, RefusesAPlanOfWhichBeginInstallMakesNoDescriptor)
{
    Plugin alpha = plugin("alpha", "1.0");
    alpha.withAuFile("Contents/VST3/x", "x");
    const auto answer = checkText(planFile, planText({alpha}));
    EXPECT_EQ(answer.at("accepted"), false);
    EXPECT_FALSE(answer.contains("toolMessage"));
    EXPECT_EQ(messagesOf(answer), std::set<std::string>{"materialized maintenance descriptor is unsafe"});
    const std::string listed = auPath("alpha", "Contents/VST3/x");
    for (const auto& finding : answer.at("findings")) {
        EXPECT_GT(finding.at("line"), 0) << finding;
        EXPECT_TRUE(holds(finding.at("text"), listed)) << finding;
    }
}

TEST(KitCheck, WarnsOfWhatTheToolTakesAndAnInstallationSuffersFrom)
{
    Plugin alpha = plugin("alpha", "18446744073709551616");
    alpha.withVst3File("Contents/resources/art.txt", "x").withVst3File("Contents/._x", "x");
    const auto answer = checkText(planFile, planText({alpha}));
    EXPECT_EQ(answer.at("accepted"), true);
    EXPECT_EQ(answer.at("findings").size(), 3U) << answer.dump(1);
    for (const auto& finding : answer.at("findings"))
        EXPECT_EQ(finding.at("severity"), "warning");
    EXPECT_EQ(kit({"check", planFile}).status, 0);
    EXPECT_EQ(kit({"check", "--strict", planFile}).status, 65);
}

TEST(KitCheck, RefusesAFileThatTheToolWouldNotOpen)
{
    writeFile(planFile, planText({plugin("alpha", "1.0")}), {rootUid, 0664});
    EXPECT_EQ(messagesOf(kitJson({"check", planFile})),
              std::set<std::string>{"embedded transaction plan is missing or unsafe"});
    setMode(planFile, 0644);
    makeHardLink(inWorkshop("other"), planFile);
    EXPECT_EQ(kit({"check", planFile}).status, 65);
    removeAll(inWorkshop("other"));
    makeLink(inWorkshop("link.tpmp"), planFile);
    EXPECT_EQ(kit({"check", inWorkshop("link.tpmp")}).status, 65);
    EXPECT_EQ(kit({"check", planFile}).status, 0);

    writeFile(descriptorFile, Work("user").brings(plugin("alpha", "1.0")).text(), {rootUid, 0646});
    EXPECT_EQ(messagesOf(kitJson({"check", descriptorFile})),
              std::set<std::string>{"maintenance descriptor permissions are unsafe"});
}

TEST(KitCheck, RefusesATextThatIsTooLarge)
{
    std::string text = planText({plugin("alpha", "1.0")});
    while (text.size() <= 1048576)
        text += "product=" + std::string(4000, 'a') + "\t1\n";
    EXPECT_TRUE(
        messagesOf(checkText(planFile, text)).contains("embedded transaction plan is missing or unsafe"));
}

TEST(KitCheck, HoldsADescriptorAgainstTheScopeThatItIsFor)
{
    writeFile(descriptorFile, Work("user").brings(plugin("alpha", "1.0")).text());
    EXPECT_EQ(kit({"check", descriptorFile, "--scope", "user"}).status, 0);
    EXPECT_EQ(messagesOf(kitJson({"check", descriptorFile, "--scope", "system"})),
              std::set<std::string>{"maintenance descriptor binding is invalid"});
}

TEST(KitCheck, RefusesANameThatIsNoIdentifier)
{
    const std::string text = Work("user").brings(plugin("alpha", "1.0")).text();
    writeFile(inWorkshop("Repair_1.tpmt"), text);
    EXPECT_EQ(kit({"check", inWorkshop("Repair_1.tpmt")}).status, 65);
    writeFile(inWorkshop("some-name"), text);
    const auto answer = kitJson({"check", inWorkshop("some-name")});
    EXPECT_EQ(answer.at("accepted"), true);
    EXPECT_EQ(answer.at("findings").size(), 1U);
    EXPECT_EQ(kit({"check", inWorkshop("some-name"), "--id", "repair-1"}).out,
              inWorkshop("some-name") + ": a valid descriptor\n");
}

TEST(KitCheck, SaysThatOnlyTheLineEndsMayBeWrong)
{
    std::string text = planText({plugin("alpha", "1.0")});
    for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2))
        text.insert(at, "\r");
    const auto rules = rulesOf(checkText(planFile, text));
    EXPECT_EQ(std::count(rules.begin(), rules.end(), "lines end in carriage return and line feed"), 1);
}

TEST(KitCheck, ComparesAPlanWithATree)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    writeFile(planFile, planText({alpha}));
    EXPECT_EQ(kit({"check", planFile, "-r", tree}),
              succeeded(planFile + ": a valid plan, and the payload is exactly what it lists\n"));

    writeFile(tree + "/" + vst3Path("alpha"), "changed");
    writeFile(tree + "/" + vst3Path("alpha", "Contents/new"), "new");
    removeAll(tree + "/" + auPath("alpha"));
    const Outcome outcome = kit({"check", planFile, "-r", tree});
    EXPECT_EQ(outcome.status, 65);
    EXPECT_TRUE(outcome.out.starts_with("- " + auPath("alpha") + "\n")) << outcome;
    EXPECT_TRUE(holds(outcome.out, "~ " + vst3Path("alpha") + "  (content: listed ")) << outcome;
    EXPECT_TRUE(holds(outcome.out, "+ " + vst3Path("alpha", "Contents/new") + "\n")) << outcome;
    EXPECT_TRUE(outcome.out.ends_with(": 3 differences between the plan and the payload\n")) << outcome;
}

TEST(KitCheck, ReadsStandardInputAndTellsTheKindsApart)
{
    writeFile(planFile, planText({plugin("alpha", "1.0")}));
    EXPECT_EQ(runCommand({"/bin/sh", "-c", kitProgram + " check - <" + planFile}),
              succeeded("-: a valid plan\n"));
    writeFile(inWorkshop("record"), "product=a\nversion=1\n");
    const Outcome record = kit({"check", inWorkshop("record")});
    EXPECT_EQ(record.status, 65);
    EXPECT_TRUE(holds(record.err, "neither a plan nor a descriptor")) << record;
    writeFile(planFile, "schema=nonsense\n");
    EXPECT_TRUE(holds(kit({"check", planFile}).out, "the tool refuses this plan"));
}

TEST(KitCheck, NoInputWhateverEndsItWithASignal)
{
    for (const std::string& text :
         {std::string(), std::string("\n"), std::string(1U << 20U, 'x'), std::string(1U << 20U, '='),
          std::string(100000, '\n'), std::string("component=\t\t\t\n") + std::string(1000, '\t'),
          std::string(5, '\0')})
        for (const std::string& file : {planFile, descriptorFile}) {
            writeFile(file, text);
            EXPECT_EQ(kit({"check", file}).status, 65);
        }
}

TEST(KitProgram, EndsWithTheRightStatusAndSaysWhatToDo)
{
    for (const Arguments& words : {Arguments{},
                                   {"frob"},
                                   {"plan"},
                                   {"check"},
                                   {"show"},
                                   {"history"},
                                   {"history", "none"},
                                   {"check", "a", "b"},
                                   {"plan", "-l", "a", "-r", "b", "-p", "c"},
                                   {"plan", "-l", "a"},
                                   {"status", "--frob"},
                                   {"check", "a", "--kind", "index"},
                                   {"descriptor", "move"}}) {
        const Outcome outcome = kit(words);
        EXPECT_EQ(outcome.status, 64) << outcome;
        EXPECT_EQ(outcome.out, "");
        EXPECT_TRUE(holds(outcome.err, "    to do: ")) << outcome;
    }
    for (const char* command : {"plan", "check", "descriptor", "show", "status", "verify", "history"}) {
        const Outcome help = kit({command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_TRUE(holds(help.out, std::string("Usage: tpm-kit ") + command)) << help;
    }
    EXPECT_TRUE(holds(kit({"--help"}).out, "Exit status: 0 all right"));
    EXPECT_TRUE(kit({"--version"}).out.starts_with("tpm-kit 1."));
}

TEST(KitProgram, NamesTheWrongWordFirst)
{
    EXPECT_EQ(kit({"statu"}).err, "tpm-kit: statu is no command\n    to do: tpm-kit --help\n");
    EXPECT_EQ(kit({"statu", "system"}).err, "tpm-kit: statu is no command\n    to do: tpm-kit --help\n");
    EXPECT_EQ(kit({"--bogus"}).err, "tpm-kit: --bogus is no option here\n    to do: tpm-kit --help\n");
    EXPECT_EQ(kit({"plan", "--bogus"}).err,
              "tpm-kit: --bogus is no option here\n    to do: tpm-kit plan --help\n");
    EXPECT_EQ(kit({"history", "user", "system"}).err,
              "tpm-kit: system is a word too many\n    to do: tpm-kit history --help\n");
    EXPECT_TRUE(holds(kit({"plan"}).err, "--products is required")) << kit({"plan"});
}

TEST(KitProgram, TellsAUsageFailureAsJsonWhereThatIsAskedFor)
{
    for (const Arguments& words : {Arguments{"statu", "--json"},
                                   {"--json", "status"},
                                   {"history", "--json"},
                                   {"plan", "--json", "-x"},
                                   {"statu\xff", "--json"},
                                   {"history", "\xff", "--json"}}) {
        const Outcome outcome = kit(words);
        EXPECT_EQ(outcome.status, 64) << outcome;
        const auto json = nlohmann::json::parse(outcome.out);
        EXPECT_EQ(json.at("status"), 64);
        if (words[1] == "\xff")
            continue;
        EXPECT_EQ(outcome.err, "tpm-kit: " + json.at("error").get<std::string>() +
                                   "\n    to do: " + json.at("advice").get<std::string>() + "\n");
    }
}

TEST(KitProgram, SaysWhenItsOutputIsNotTaken)
{
    writeFile(planFile, planText({plugin("alpha", "1.0")}));
    for (const Output output : {Output::FullDevice, Output::BrokenPipe}) {
        Surroundings surroundings;
        surroundings.output = output;
        const Outcome outcome = kit({"check", planFile}, surroundings);
        EXPECT_EQ(outcome.status, 74) << outcome;
        EXPECT_TRUE(holds(outcome.err, "cannot write standard output")) << outcome;
    }
}

TEST(KitProgram, AnswersAFailureInJsonAsWell)
{
    const Outcome outcome = kit({"show", "--json", "/nowhere"});
    EXPECT_EQ(outcome.status, 66);
    const auto answer = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(answer.at("status"), 66);
    EXPECT_FALSE(answer.at("advice").get<std::string>().empty());
}

} // namespace
} // namespace maintenance::rehearsed
