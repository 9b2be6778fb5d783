#include "kit.h"

#include <array>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace maintenance::rehearsed {
namespace {

/// Runs the kit on a terminal of its own and returns everything that it wrote there.
std::string onTerminal(const Arguments& arguments, const std::vector<std::string>& environment)
{
    int terminal = -1;
    const pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child < 0)
        throw std::runtime_error("no terminal");
    if (child == 0) {
        std::vector<std::string> words = {"/usr/bin/env", "-i"};
        words.insert(words.end(), environment.begin(), environment.end());
        words.push_back(kitProgram);
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        for (std::string& word : words)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
    std::string written;
    std::array<char, 4096> chunk;
    for (;;) {
        const ssize_t count = ::read(terminal, chunk.data(), chunk.size());
        if (count <= 0)
            break;
        written.append(chunk.data(), static_cast<std::size_t>(count));
    }
    ::waitpid(child, nullptr, 0);
    ::close(terminal);
    return written;
}

std::string writeBadPlan()
{
    writeFile(inWorkshop("a.tpmp"), "schema=x\n");
    return inWorkshop("a.tpmp");
}

TEST(KitTerminal, ShowsColoursOnATerminalOnly)
{
    const std::string file = writeBadPlan();
    EXPECT_TRUE(holds(onTerminal({"check", file}, {"TERM=xterm"}), "\033[31m"));
    EXPECT_FALSE(holds(kit({"check", file}).out, "\033"));
}

TEST(KitTerminal, StaysPlainWhenAskedToOrWhenTheTerminalIsDumb)
{
    const std::string file = writeBadPlan();
    EXPECT_FALSE(holds(onTerminal({"check", file}, {"TERM=xterm", "NO_COLOR=1"}), "\033"));
    EXPECT_TRUE(holds(onTerminal({"check", file}, {"TERM=xterm", "NO_COLOR="}), "\033[31m"));
    EXPECT_FALSE(holds(onTerminal({"check", file}, {"TERM=dumb"}), "\033"));
    EXPECT_FALSE(holds(onTerminal({"check", file}, {}), "\033"));
}

/// A tree with a file large enough that hashing it takes a while, without any room on disk.
Arguments planOfALargeTree()
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string tree = stage(alpha);
    std::filesystem::resize_file(tree + "/" + vst3Path("alpha"), 400000000);
    return {"plan", "-l", writeList({alpha}), "-r", tree, "-o", inWorkshop("plan")};
}

TEST(KitTerminal, ShowsProgressWhileHashingAndErasesIt)
{
    const std::string written = onTerminal(planOfALargeTree(), {"TERM=xterm", "NO_COLOR=1"});
    EXPECT_TRUE(holds(written, "hashing [")) << written;
    EXPECT_TRUE(holds(written, " of 400.0 MB")) << written;
    const std::size_t last = written.rfind("hashing [");
    EXPECT_NE(written.find("\r\033[Kwritten ", last), std::string::npos) << written;
}

TEST(KitTerminal, ShowsProgressWhileAuditing)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("system", commonPackage());
    install("system", alpha);
    writeFile(inWorkshop("plan"), planText({alpha}));
    std::filesystem::resize_file(rootOf("system") / vst3Path("alpha"), 400000000);
    const Arguments words = {"verify", "system", "--against", inWorkshop("plan")};
    EXPECT_TRUE(holds(onTerminal(words, {"TERM=xterm"}), "auditing ["));
    EXPECT_EQ(kit(words).err, "");
}

TEST(KitTerminal, ShowsNoProgressWhenQuietOrElsewhere)
{
    Arguments words = planOfALargeTree();
    EXPECT_EQ(kit(words).err, "");
    words.emplace_back("--quiet");
    EXPECT_FALSE(holds(onTerminal(words, {"TERM=xterm"}), "hashing"));
}

} // namespace
} // namespace maintenance::rehearsed
