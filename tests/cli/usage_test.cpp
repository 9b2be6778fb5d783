#include "support/scene.h"

#include <fstream>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const std::vector<std::string> descriptorCommands = {"inspect", "prepare-move", "commit-move",
                                                     "rollback-move", "uninstall-product"};

/// A scope with an installed product and a descriptor "probe-1" for it, so that whatever is carried out by
/// mistake would show.
void setScene()
{
    const Plugin alpha = plugin("alpha", "1.0");
    for (const std::string scope : {"user", "system"}) {
        install(scope, commonPackage());
        publish(Work(scope).brings(alpha), "probe-1");
    }
    install("user", alpha);
}

/// Requires of each command line that it is refused silently, before anything was asked or changed.
void expectUsageErrors(const std::vector<Arguments>& commandLines)
{
    setScene();
    const Tree before = takeExactTree();
    for (const Arguments& words : commandLines) {
        std::string line;
        for (const std::string& word : words)
            line += " [" + word.substr(0, 200) + "]";
        EXPECT_EQ(run(words), usageError()) << line;
    }
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(pkgutilCalls(), std::vector<std::string>{});
}

TEST(UsageError, OfNoArgumentsIsSilent)
{
    EXPECT_EQ(run({}), usageError());
    EXPECT_EQ(runWithoutName(), usageError());
}

TEST(UsageError, IsEveryOtherNumberOfArguments)
{
    std::vector<Arguments> lines = {{""},
                                    {"", ""},
                                    {"", "", ""},
                                    {"begin-install"},
                                    {"begin-install", "user", "extra"},
                                    {"begin-install", "user", "probe-1"},
                                    {"begin-install", "user", ""},
                                    {"begin-install", "user", "probe-1", "extra"},
                                    {"user"},
                                    Arguments(100, "user")};
    for (const std::string& command : descriptorCommands) {
        lines.push_back({command});
        lines.push_back({command, "user"});
        lines.push_back({command, "user", "probe-1", "extra"});
        lines.push_back({command, "user", "probe-1", ""});
        lines.push_back({command, "user", "probe-1", "a", "b"});
    }
    expectUsageErrors(lines);
}

TEST(UsageError, IsEveryWordThatIsNoCommand)
{
    std::vector<Arguments> lines;
    for (const std::string word :
         {"",         "Inspect",       "INSPECT",        "inspec", "inspect ",  " inspect",
          "inspect-", "prepare",       "prepare_move",   "commit", "rollback",  "uninstall",
          "move",     "help",          "--help",         "-h",     "--version", "-V",
          "--",       "begin-install", "begin-install\n"}) {
        lines.push_back({word, "user", "probe-1"});
        if (word != "begin-install")
            lines.push_back({word, "user"});
    }
    lines.push_back({"--help"});
    lines.push_back({"Begin-Install", "user"});
    lines.push_back({"begin-instal", "user"});
    lines.push_back({"begin_install", "user"});
    expectUsageErrors(lines);
}

TEST(UsageError, IsEveryScopeButTheTwo)
{
    std::vector<Arguments> lines;
    for (const std::string scope : {"User", "USER", "System", "none", "", "us", "users", "user ", " user",
                                    "/", "/Users/player", "user\n", "501"}) {
        lines.push_back({"begin-install", scope});
        for (const std::string& command : descriptorCommands)
            lines.push_back({command, scope, "probe-1"});
    }
    expectUsageErrors(lines);
}

TEST(UsageError, IsEveryUnsafeIdentifier)
{
    std::vector<Arguments> lines;
    for (const std::string& id : {std::string(),
                                  std::string("../x"),
                                  std::string("."),
                                  std::string(".."),
                                  std::string("a/b"),
                                  std::string("/x"),
                                  std::string("-a"),
                                  std::string("a-"),
                                  std::string("-"),
                                  std::string("A1"),
                                  std::string("Probe-1"),
                                  std::string("a_b"),
                                  std::string("a.b"),
                                  std::string("probe-1.tpmt"),
                                  std::string("probe-1 "),
                                  std::string("probe-1\n"),
                                  std::string("caf\xc3\xa9"),
                                  std::string("\xff"),
                                  std::string(129, 'a'),
                                  std::string("--help")})
        for (const std::string& command : descriptorCommands)
            lines.push_back({command, "user", id});
    expectUsageErrors(lines);
}

TEST(UsageError, IsEveryArgumentOfEnormousLength)
{
    // As long as the system passes one.
    const std::string longest(131071, 'a');
    expectUsageErrors({{longest},
                       {longest, longest, longest},
                       {"begin-install", longest},
                       {"inspect", "user", longest},
                       {"inspect", "user", "a" + std::string(131069, '-') + "a"},
                       {"inspect", longest, "probe-1"},
                       {longest, "user", "probe-1"}});
}

TEST(UsageError, IsSilentWhateverTheMachineIsLike)
{
    removeLoginManager();
    removeAll("/Users/player");
    EXPECT_EQ(run({"inspect", "User", "abc"}), usageError());
    EXPECT_EQ(run({"inspect", "user", "../x"}), usageError());
    EXPECT_EQ(run({"begin-install", "user", "extra"}), usageError());
    EXPECT_EQ(describe("/Users/player"), "nothing");
}

TEST(UsageError, HasItsStatusWithoutStandardStreams)
{
    for (const std::vector<int>& closed : std::vector<std::vector<int>>{{0}, {1}, {2}, {0, 1, 2}}) {
        Surroundings surroundings;
        surroundings.closed = closed;
        EXPECT_EQ(run({"inspect", "User", "abc"}, surroundings), usageError());
    }
}

TEST(CommandLine, TakesIdentifiersOf1And128Characters)
{
    for (const std::string& id :
         {std::string("a"), std::string(128, 'z'), "0" + std::string(126, '-') + "9"}) {
        publish(Work("user").brings(plugin("alpha", "1.0")), id);
        EXPECT_EQ(run({"inspect", "user", id}), succeeded("{\"status\":\"clean\"}\n"));
        EXPECT_EQ(run({"prepare-move", "user", id}), succeeded());
        EXPECT_EQ(run({"rollback-move", "user", id}), succeeded());
    }
}

TEST(CommandLine, DoesNotDependOnTheProgramsName)
{
    publish(Work("user").brings(plugin("alpha", "1.0")), "probe-1");
    for (const std::string& name :
         {std::string(), std::string("begin-install"), std::string("/no/where"), std::string(100000, 'n')}) {
        Surroundings surroundings;
        surroundings.name = name;
        EXPECT_EQ(run({"inspect", "user", "probe-1"}, surroundings), succeeded("{\"status\":\"clean\"}\n"));
    }
}

TEST(Inspect, SaysRepairForAnInstalledProductOfTheSameVersion)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", commonPackage());
    install("user", alpha);
    const std::string id = publish(Work("user").brings(alpha, "1.0"), "repair-1");
    const Tree before = takeExactTree();
    EXPECT_EQ(run({"inspect", "user", id}), succeeded("{\"status\":\"repair\"}\n"));
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

} // namespace
} // namespace maintenance::rehearsed
