#include "plan/installing.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const std::vector<std::string> bothScopes = {"user", "system"};
const Outcome clean = succeeded("{\"status\":\"clean\"}\n");
const Outcome notPrinted = failed("cannot write standard output");

Plugin alpha() { return plugin("alpha", "1.0"); }

Surroundings withClosed(const std::vector<int>& closed)
{
    Surroundings surroundings;
    surroundings.closed = closed;
    return surroundings;
}

Surroundings printingTo(Output output)
{
    Surroundings surroundings;
    surroundings.output = output;
    return surroundings;
}

// Standard output.

TEST(StandardOutput, ThatTakesNothingFailsInspect)
{
    publish(Work("user").brings(alpha()), "probe-1");
    const Tree before = takeExactTree();
    for (const Output output : {Output::FullDevice, Output::BrokenPipe})
        EXPECT_EQ(run({"inspect", "user", "probe-1"}, printingTo(output)), notPrinted);
    for (const std::vector<int>& closed : std::vector<std::vector<int>>{{1}, {0, 1}})
        EXPECT_EQ(run({"inspect", "user", "probe-1"}, withClosed(closed)), notPrinted);
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(StandardOutput, ThatTakesNothingFailsBeginInstallWhichIsContinuedByTheNextRun)
{
    Installer installer("user", planText({alpha()}));
    std::string id;
    for (const Output output : {Output::FullDevice, Output::BrokenPipe}) {
        installer.surroundings.output = output;
        EXPECT_EQ(installer.begin(), notPrinted);
        const std::string now = fieldOf(readFile(pendingOf("user")), "transaction");
        EXPECT_TRUE(id.empty() || id == now);
        id = now;
    }
    installer.surroundings.output = Output::Captured;
    installer.surroundings.closed = {1};
    EXPECT_EQ(installer.begin(), notPrinted);
    installer.surroundings.closed = {};
    EXPECT_EQ(installer.begin(), succeeded(id + "\n"));
}

TEST(StandardOutput, IsNotNeededByTheOtherCommands)
{
    for (const std::string& scope : bothScopes) {
        const std::string id = publish(Work(scope).brings(alpha()), "probe-1");
        EXPECT_EQ(run({"prepare-move", scope, id}, printingTo(Output::FullDevice)), succeeded());
        EXPECT_EQ(run({"prepare-move", scope, id}, printingTo(Output::BrokenPipe)), succeeded());
        EXPECT_EQ(run({"prepare-move", scope, id}, withClosed({1})), succeeded());
        EXPECT_EQ(run({"rollback-move", scope, id}, withClosed({0, 1})), succeeded());
    }
}

TEST(StandardOutput, IsNotTouchedByAFailure)
{
    makeLayout("user");
    const Outcome missing = notLocated("maintenance descriptor is missing or unsafe");
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, printingTo(Output::FullDevice)), missing);
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, printingTo(Output::BrokenPipe)), missing);
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, withClosed({1})), missing);
}

TEST(StandardError, ThatTakesNothingChangesNoStatus)
{
    makeLayout("user");
    const std::string tool = "'" + builtTool().native() + "' inspect user ";
    for (const char* redirection : {"2>/dev/full", "2>&-", "2</dev/null"}) {
        const std::string command = tool + "probe-1 " + redirection + "; echo $?";
        EXPECT_EQ(runCommand({"/bin/sh", "-c", command}), succeeded("66\n")) << redirection;
    }
}

// Closed descriptors.

const std::vector<std::vector<int>> closings = {{0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}};

bool contains(const std::vector<int>& list, int value)
{
    return std::find(list.begin(), list.end(), value) != list.end();
}

/// What is left of an outcome that writes to standard streams some of which are closed.
Outcome asSeen(Outcome expected, const std::vector<int>& closed)
{
    if (!expected.out.empty() && contains(closed, 1))
        expected = notPrinted;
    if (contains(closed, 2))
        expected.err.clear();
    return expected;
}

TEST(ClosedDescriptors, LeaveResultMessageAndStatusAsTheyAre)
{
    publish(Work("user").brings(alpha()), "probe-1");
    publishText("user", "nonsense\n", "probe-2");
    const Tree before = takeExactTree();
    for (const std::vector<int>& closed : closings) {
        const Surroundings surroundings = withClosed(closed);
        SCOPED_TRACE(testing::PrintToString(closed));
        EXPECT_EQ(run({"inspect", "user", "probe-1"}, surroundings), asSeen(clean, closed));
        EXPECT_EQ(run({"inspect", "user", "probe-2"}, surroundings),
                  asSeen(refused("maintenance descriptor contains an invalid field"), closed));
        EXPECT_EQ(run({"inspect", "user", "probe-3"}, surroundings),
                  asSeen(notLocated("maintenance descriptor is missing or unsafe"), closed));
    }
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(ClosedDescriptors, NeverLetAMessageOrResultGetIntoAFile)
{
    for (const std::string& scope : bothScopes)
        for (const std::vector<int>& closed : std::vector<std::vector<int>>{{1}, {2}, {0, 1, 2}}) {
            SCOPED_TRACE(testing::PrintToString(closed));
            Installer installer(scope, planText({alpha()}));
            installer.surroundings.closed = closed;
            const Outcome outcome = installer.begin();
            EXPECT_EQ(outcome, asSeen(succeeded(outcome.out.empty() ? "x" : outcome.out), closed));
            const std::string attempt = readFile(pendingOf(scope));
            const std::string id = fieldOf(attempt, "transaction");
            const std::string descriptor = Work(scope).brings(alpha()).text();
            EXPECT_EQ(readFile(descriptorOf(scope, id)), descriptor);
            EXPECT_EQ(fieldOf(attempt, "descriptorSha256"), systemSha256(descriptor));
            EXPECT_TRUE(attempt.ends_with("\ntargetScope=" + scope + "\n"));
            EXPECT_EQ(readFile(lockOf(scope)), "");

            EXPECT_EQ(run({"prepare-move", scope, id}, withClosed(closed)), succeeded());
            const std::string lease = readFile(leaseOf(scope));
            EXPECT_EQ(lease, Work(scope).brings(alpha()).prepared(id, fieldOf(lease, "generation")));
            writeFile(leaseOf(scope), lease + "\n", {ownerOf(scope), 0600});
            EXPECT_EQ(run({"commit-move", scope, id}, withClosed(closed)),
                      asSeen(refused("durable transaction lease generation is stale or rebound"), closed));
            EXPECT_EQ(readFile(leaseOf(scope)), lease + "\n");
            removeAll(maintenanceOf(scope));
        }
}

TEST(ClosedDescriptors, AreOpenForThePackageToolToo)
{
    publish(Work("user").brings(alpha()), "probe-1");
    instructPkgutil("do before=\"ls -l /proc/self/fd > /tmp/descriptors\"\n");
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, withClosed({0, 1, 2})).status, 70);
    const std::string listing = readFile("/tmp/descriptors");
    for (const char* descriptor : {" 0 -> ", " 1 -> ", " 2 -> "})
        EXPECT_NE(listing.find(descriptor), std::string::npos) << listing;
}

// Signals, limits, umask.

TEST(Process, WaitsForItsChildrenWhereItsParentIgnoredThem)
{
    install("user", alpha());
    publish(Work("user").brings(alpha(), "1.0"), "probe-1");
    Surroundings surroundings;
    surroundings.childSignalsIgnored = true;
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, surroundings), succeeded("{\"status\":\"repair\"}\n"));
    Installer installer("user", planText({alpha()}));
    installer.surroundings.childSignalsIgnored = true;
    EXPECT_EQ(installer.begin().status, 0);
}

TEST(Process, FailsVisiblyWhereAFileMayNotGrow)
{
    const std::string id = publish(Work("user").brings(alpha()), "probe-1");
    removeAll("/var/log/pkgutil-stand-in.log");
    writeFile(lockOf("user"), "", {playerUid, 0600});
    Surroundings surroundings;
    surroundings.largestFile = 0;
    const Tree before = takeExactTree();
    EXPECT_EQ(run({"prepare-move", "user", id}, surroundings), failed("cannot write fixed metadata"));
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(run({"prepare-move", "user", id}), succeeded());
}

TEST(Process, WritesMetadataOfMode0600WhateverTheUmask)
{
    for (const std::string& scope : bothScopes)
        for (const mode_t mask : {0u, 027u, 077u, 0777u}) {
            Surroundings surroundings;
            surroundings.umask = mask;
            const std::string id = publish(Work(scope).brings(alpha()), "probe-1");
            EXPECT_EQ(run({"prepare-move", scope, id}, surroundings), succeeded()) << mask;
            for (const std::filesystem::path& path :
                 {leaseOf(scope), lockOf(scope), transactionOf(scope, id) / "prepared"})
                EXPECT_EQ(describe(path), metadataFileOf(scope)) << path << " " << mask;
            EXPECT_EQ(run({"rollback-move", scope, id}, surroundings), succeeded()) << mask;
            removeAll(supportOf(scope));
        }
}

TEST(Process, EndsWithAMessageOnA1MiBLineFromThePackageTool)
{
    install("user", alpha());
    publish(Work("user").brings(alpha(), "1.0"), "probe-1");
    const auto expect = [](const std::string& command, const std::string& message) {
        instructPkgutil("command=" + command + " do long-line=1048576\n");
        EXPECT_EQ(run({"inspect", "user", "probe-1"}), refused(message)) << command;
    };
    instructPkgutil("do match=prefix\ncommand=--pkgs= do long-line=1048576\n");
    EXPECT_EQ(run({"inspect", "user", "probe-1"}),
              refused("pkgutil returned an unexpected package identity"));
    expect("--files", "pkgutil receipt-owned file is missing");
    instructPkgutil("command=--pkg-info do replace=/tmp/version\n");
    writeFile("/tmp/version", "version: " + std::string(1048576, '1') + "\nlocation: /\n", {rootUid, 0644});
    const Outcome outcome = run({"inspect", "user", "probe-1"});
    EXPECT_TRUE(outcome.status == 65 || outcome.status == 70) << outcome;
    EXPECT_LT(outcome.err.size(), 200U);
    writeFile("/tmp/version", "version: " + std::string(1048576, '.') + "\nlocation: /\n", {rootUid, 0644});
    EXPECT_EQ(run({"inspect", "user", "probe-1"}),
              refused("pkgutil receipt metadata is outside the fixed install root"));
}

TEST(Process, DoesNotWaitForAnEmptyStandardInput)
{
    publish(Work("user").brings(alpha()), "probe-1");
    instructPkgutil("do before=\"read line; true\"\n");
    // The package tool gets no input either; otherwise this would have to be stopped.
    EXPECT_EQ(run({"inspect", "user", "probe-1"}, withClosed({0})), clean);
}

} // namespace
} // namespace maintenance::rehearsed
