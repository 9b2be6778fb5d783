#include "platform/executable_path.h"

#include "support/child.h"
#include "support/scene.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

namespace stdfs = std::filesystem;

TEST(ExecutablePath, LeadsToTheRunningProgram)
{
    const auto path = runningExecutablePath();
    ASSERT_TRUE(path);
    EXPECT_TRUE(path->is_absolute());
    EXPECT_EQ(path->filename(), "platform_tests");
    EXPECT_TRUE(stdfs::equivalent(*path, "/proc/self/exe"));
}

TEST(ExecutablePath, IsTheSameInAnyDirectoryAndForAnyAccount)
{
    const auto path = runningExecutablePath();
    ASSERT_TRUE(path);
    EXPECT_EQ(asAccount(playerUid,
                        [] {
                            stdfs::current_path("/Users/player");
                            return runningExecutablePath().value_or("").native();
                        }),
              returned(path->native()));
}

TEST(ExecutablePath, ThatThePlatformCannotTellIsNone)
{
    const auto ask = [] { return runningExecutablePath() ? "known" : "unknown"; };
    for (const int error : {ENOENT, EACCES, EIO}) {
        const auto fail = [=](const SystemCall&) { return error; };
        EXPECT_EQ(stopping({SYS_readlink, SYS_readlinkat}, fail, ask), returned("unknown"));
    }
}

/// The plan is looked for beside the program that really runs, whatever led to it.
TEST(ExecutablePath, OfTheRealProgramIsFollowedThroughLinksAndFirstArguments)
{
    const stdfs::path tool = placeTool("system", planText({plugin("alpha", "1.0")}));
    makeDirectories("/srv/elsewhere");
    makeLink("/srv/elsewhere/tool", tool);
    Surroundings surroundings;
    surroundings.tool = "/srv/elsewhere/tool";
    surroundings.name = "/srv/elsewhere/tool";
    const Outcome outcome = run({"begin-install", "system"}, surroundings);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(isThere(pendingOf("system")));
}

TEST(ExecutablePath, OfTheRealProgramElsewhereLeadsToNoPlan)
{
    const stdfs::path tool = placeTool("system", planText({plugin("alpha", "1.0")}));
    makeDirectories("/srv/elsewhere");
    stdfs::copy_file(tool, "/srv/elsewhere/tool");
    Surroundings surroundings;
    surroundings.tool = "/srv/elsewhere/tool";
    surroundings.name = tool.native();
    EXPECT_EQ(run({"begin-install", "system"}, surroundings),
              refused("embedded transaction plan is missing or unsafe"));
    EXPECT_FALSE(isThere(pendingOf("system")));
}

} // namespace
} // namespace maintenance::rehearsed
