#include "receipts/pkgutil.h"

#include "fs/fixed_directory.h"
#include "fs/locks.h"
#include "support/child.h"
#include "support/scene.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace maintenance::rehearsed {
namespace {

constexpr const char* pkgutilPath = "/usr/sbin/pkgutil";

/// Puts a shell script of these lines in the place of the command.
void becomes(const std::string& lines)
{
    removeAll(pkgutilPath);
    writeFile(pkgutilPath, "#!/bin/sh\n" + lines + "\n", {rootUid, 0755});
}

/// Exit status, a blank and the output.
std::string ran(const std::vector<std::string>& arguments = {})
{
    const PkgutilResult result = pkgutil(arguments);
    return std::to_string(result.status) + " " + result.output;
}

/// A scene in which every inspection has to run the command.
Outcome inspectAlpha(const Surroundings& surroundings = {})
{
    publish(Work("user").brings(plugin("alpha", "1.0"), "1.0"), "inspect-alpha");
    makeLayout("system");
    return run({"inspect", "user", "inspect-alpha"}, surroundings);
}

TEST(Pkgutil, GivesExitStatusAndOutput)
{
    becomes("echo one; exit 3");
    EXPECT_EQ(ran(), "3 one\n");
}

TEST(Pkgutil, WithoutOutputGivesItsExitStatusAlone)
{
    for (const std::string status : {"0", "1", "64", "70", "127", "128", "255"}) {
        becomes("exit " + status);
        EXPECT_EQ(ran(), status + " ");
    }
}

TEST(Pkgutil, MixesBothOutputsInTheOrderOfWriting)
{
    becomes("echo one; echo two >&2; echo three; printf four >&2");
    EXPECT_EQ(ran(), "0 one\ntwo\nthree\nfour");
}

TEST(Pkgutil, ChangesNoByteOfTheOutput)
{
    becomes(R"(printf '\000\r\n \377\t\n\n')");
    EXPECT_EQ(pkgutil({}).output, std::string("\0\r\n \xff\t\n\n", 8));
}

TEST(Pkgutil, ReturnsLongOutputWhole)
{
    for (const std::size_t size : {4095U, 4096U, 4097U, 65536U, 3000001U}) {
        std::string content(size, 'x');
        for (std::size_t i = 0; i < size; i += 997)
            content[i] = static_cast<char>('a' + i % 26);
        writeFile("/tmp/output", content);
        becomes("cat /tmp/output; exit 5");
        const PkgutilResult result = pkgutil({});
        EXPECT_EQ(result.status, 5);
        EXPECT_TRUE(result.output == content) << size;
    }
}

TEST(Pkgutil, EndedByASignalHasStatusSeventyAndKeepsItsOutput)
{
    for (const std::string signal : {"KILL", "TERM", "ABRT", "HUP"}) {
        becomes("echo begun; kill -" + signal + " $$");
        EXPECT_EQ(ran(), "70 begun\n") << signal;
    }
}

TEST(Pkgutil, GetsItsArgumentsWithoutAShellInOrder)
{
    becomes(R"(for word in "$0" "$@"; do printf '[%s]' "$word"; done)");
    EXPECT_EQ(ran({"--volume", "/a b", "$(echo x)", "*", "", "a\nb", "'\"\\"}),
              "0 [/usr/sbin/pkgutil][--volume][/a b][$(echo x)][*][][a\nb]['\"\\]");
}

TEST(Pkgutil, GetsTheEnvironmentUnchanged)
{
    ::clearenv();
    ::setenv("ONE", "1 2", 1);
    removeAll(pkgutilPath);
    std::filesystem::copy_file("/usr/bin/env", pkgutilPath);
    EXPECT_EQ(ran(), "0 ONE=1 2\n");
}

TEST(Pkgutil, IsNeverSearchedForElsewhere)
{
    removeAll(pkgutilPath);
    writeFile("/usr/local/bin/pkgutil", "#!/bin/sh\nexit 0\n", {rootUid, 0755});
    ::setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
    EXPECT_EQ(endingOf([] { return ran(); }), invalid("fixed /usr/sbin/pkgutil is unavailable"));
}

TEST(Pkgutil, ThatCannotBeStartedEndsTheRun)
{
    const Outcome unavailable = refused("fixed /usr/sbin/pkgutil is unavailable");
    const std::string content = readFile(pkgutilPath);
    removeAll(pkgutilPath);
    EXPECT_EQ(inspectAlpha(), unavailable);
    writeFile(pkgutilPath, content, {rootUid, 0644});
    EXPECT_EQ(inspectAlpha(), unavailable);
    removeAll(pkgutilPath);
    makeDirectories(pkgutilPath);
    EXPECT_EQ(inspectAlpha(), unavailable);
    removeAll(pkgutilPath);
    makeLink(pkgutilPath, "/nowhere");
    const Tree before = takeExactTree();
    EXPECT_EQ(inspectAlpha(), unavailable);
    EXPECT_EQ(changedPaths(before, takeExactTree()),
              std::vector<std::string>{descriptorOf("user", "inspect-alpha")});
}

TEST(Pkgutil, IsWaitedForAlsoWhenTheRunWasStartedWithChildSignalsIgnored)
{
    Surroundings ignoring;
    ignoring.childSignalsIgnored = true;
    EXPECT_EQ(inspectAlpha(ignoring), succeeded("{\"status\":\"clean\"}\n"));
}

TEST(Pkgutil, ThatCannotBeWaitedForIsAnError)
{
    EXPECT_EQ(failing(SYS_wait4, 1, ECHILD, [] { return ran({"--pkgs"}); }),
              invalid("cannot wait for fixed pkgutil"));
}

TEST(Pkgutil, WithoutAPipeIsAnError)
{
    EXPECT_EQ(failing(SYS_pipe2, 1, EMFILE, [] { return ran({"--pkgs"}); }),
              invalid("cannot create fixed pkgutil output pipe"));
    EXPECT_TRUE(pkgutilCalls().empty());
}

TEST(Pkgutil, WhoseOutputCannotBeReadWholeHasStatusSeventy)
{
    becomes("trap '' PIPE; echo one 2>/dev/null; exit 0");
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    const auto failInTool = [&](const SystemCall& call) {
        const auto exe = std::filesystem::read_symlink("/proc/" + std::to_string(call.process) + "/exe");
        return exe == self ? EIO : 0;
    };
    EXPECT_EQ(stopping({SYS_read}, failInTool, [] { return std::to_string(pkgutil({}).status); }),
              returned("70"));
}

TEST(Pkgutil, WhoseOutputIsInterruptedIsStillReadWhole)
{
    becomes("echo one");
    int interrupted = 0;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    const auto interrupt = [&](const SystemCall& call) {
        const auto exe = std::filesystem::read_symlink("/proc/" + std::to_string(call.process) + "/exe");
        return exe == self && ++interrupted <= 2 ? EINTR : 0;
    };
    EXPECT_EQ(stopping({SYS_read}, interrupt, [] { return ran(); }), returned("0 one\n"));
    EXPECT_GT(interrupted, 2);
}

TEST(Pkgutil, LeavesNoDescriptorOpenWhateverHappens)
{
    const std::size_t before = openDescriptors();
    ran({"--pkgs"});
    becomes("kill -KILL $$");
    ran();
    removeAll(pkgutilPath);
    EXPECT_EQ(endingOf([] { return ran(); }).kind, "Invalid");
    rlimit old = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit few{1, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    const Ending withoutPipe = endingOf([] { return ran(); });
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(withoutPipe, invalid("cannot create fixed pkgutil output pipe"));
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Pkgutil, LeavesNoProcessBehind)
{
    ran({"--pkgs"});
    becomes("exec sleep 0");
    ran();
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(Pkgutil, SeesNoFileThatTheRunHasOpen)
{
    makeLayout("user");
    const Locks locks({"user"});
    const OwnedFd directory = openFixedDirectory("user", "Library", false, false);
    becomes("readlink /proc/$$/fd/*");
    const std::string open = pkgutil({}).output;
    EXPECT_NE(open.find("pipe:"), std::string::npos) << open;
    EXPECT_EQ(open.find("/Users/player"), std::string::npos) << open;
}

} // namespace
} // namespace maintenance::rehearsed
