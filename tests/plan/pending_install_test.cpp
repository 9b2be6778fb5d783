#include "plan/pending_install.h"

#include "plan/edited_text.h"
#include "plan/installing.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const std::vector<std::string> bothScopes = {"user", "system"};
const Outcome invalidAttempt = refused("pending installation attempt is invalid");
const Outcome unsafeAttempt = refused("pending installation attempt is missing or unsafe");
const std::string planDigest(64, 'a');
const std::string descriptorDigest(64, '0');
const std::string sample = "schema=tamarind.pelican.macos-maintenance-attempt.v1\n"
                           "sku=studio-bundle\n"
                           "packageRevision=7\n"
                           "planSha256=" +
                           planDigest + "\ndescriptorSha256=" + descriptorDigest +
                           "\ntransaction=install-1\n"
                           "targetScope=user\n";

/// A scope with an installation that was begun.
struct Begun {
    explicit Begun(const std::string& scope = "user")
        : installer(scope, planText({plugin("alpha", "1.0")})),
          id(identifierIn(installer.begin())),
          text(readFile(pendingOf(scope)))
    {
    }

    void write(const std::string& attempt) const
    {
        writeFile(pendingOf(installer.scope()), attempt, {ownerOf(installer.scope()), 0600});
    }

    Installer installer;
    std::string id;
    std::string text;
};

void expectInvalid(const std::vector<std::string>& attempts)
{
    removeAll(maintenanceOf("user"));
    const Begun begun;
    const Tree before = takeTree(placesBesideTheTool());
    for (const std::string& attempt : attempts) {
        begun.write(attempt);
        EXPECT_EQ(begun.installer.begin(), invalidAttempt) << attempt.substr(0, 1000);
        EXPECT_EQ(readFile(pendingOf("user")), attempt);
    }
    begun.write(begun.text);
    EXPECT_EQ(difference(before, takeTree(placesBesideTheTool())), "");
}

TEST(PendingInstall, HasOneRendering)
{
    EXPECT_EQ(pendingInstallText({"studio-bundle", "7", "install-1", planDigest, descriptorDigest, "user"}),
              sample);
}

TEST(PendingInstall, IsReadBackAsItWasWritten)
{
    const PendingInstall attempt = parsePending(sample);
    EXPECT_EQ(attempt.sku, "studio-bundle");
    EXPECT_EQ(attempt.packageRevision, "7");
    EXPECT_EQ(attempt.transaction, "install-1");
    EXPECT_EQ(attempt.planSha256, planDigest);
    EXPECT_EQ(attempt.descriptorSha256, descriptorDigest);
    EXPECT_EQ(attempt.targetScope, "user");
    EXPECT_EQ(pendingInstallText(attempt), sample);
}

TEST(PendingInstall, MayHaveItsLinesInAnyOrder)
{
    const Begun begun;
    std::vector<std::string> keys = {"descriptorSha256", "packageRevision", "planSha256", "schema", "sku",
                                     "targetScope",      "transaction"};
    for (std::size_t turn = 0; turn < keys.size(); ++turn) {
        std::rotate(keys.begin(), keys.begin() + 1, keys.end());
        std::string permuted;
        for (const std::string& key : keys)
            permuted += lineOf(begun.text, key + "=");
        begun.write(permuted);
        EXPECT_EQ(begun.installer.begin(), succeeded(begun.id + "\n")) << permuted;
        EXPECT_EQ(readFile(pendingOf("user")), permuted);
    }
}

TEST(PendingInstall, MayLackTheFinalLineFeed)
{
    const Begun begun;
    begun.write(begun.text.substr(0, begun.text.size() - 1));
    EXPECT_EQ(begun.installer.begin(), succeeded(begun.id + "\n"));
}

TEST(PendingInstall, WithALineThatIsNoFieldIsInvalid)
{
    expectInvalid({"", "\n", "nonsense", sample + "\n", "\n" + sample, withLineAfter(sample, "sku=", "\n"),
                   sample + "eighth\n", withLine(sample, "sku=", "sku\n"), std::string(sample.size(), '\0')});
}

TEST(PendingInstall, WithAFieldTwiceIsInvalid)
{
    expectInvalid({sample + "targetScope=user\n", withLineAfter(sample, "sku=", "sku=studio-bundle\n"),
                   withLine(sample, "targetScope=", "sku=studio-bundle\n"), sample + sample});
}

TEST(PendingInstall, WithoutExactlyTheSevenFieldsIsInvalid)
{
    std::vector<std::string> attempts = {sample + "extra=1\n", sample + "=\n"};
    for (const std::string key : {"schema", "sku", "packageRevision", "planSha256", "descriptorSha256",
                                  "transaction", "targetScope"}) {
        attempts.push_back(withoutLine(sample, key + "="));
        attempts.push_back(withLine(sample, key + "=", "other=x\n"));
        attempts.push_back(withLine(sample, key + "=", " " + lineOf(sample, key + "=")));
    }
    expectInvalid(attempts);
}

/// The sample with each of `values` for `key`.
std::vector<std::string> with(const std::string& key, const std::vector<std::string>& values)
{
    std::vector<std::string> attempts;
    for (const std::string& value : values)
        attempts.push_back(withLine(sample, key + "=", key + "=" + value + "\n"));
    return attempts;
}

TEST(PendingInstall, OfAnotherSchemaIsInvalid)
{
    expectInvalid(with("schema", {"", "tamarind.pelican.macos-maintenance-attempt.v2",
                                  "tamarind.pelican.macos-maintenance-attempt.v1 ",
                                  "tamarind.pelican.macos-maintenance-attempt.v1\r",
                                  "tamarind.pelican.macos-maintenance-plan.v1"}));
}

TEST(PendingInstall, WithABadSkuOrTransactionIsInvalid)
{
    const std::vector<std::string> values = {"",     "A",   "a_b", "-a", "a-",
                                             "../x", "a/b", "a b", "a=", std::string(129, 'a')};
    expectInvalid(with("sku", values));
    expectInvalid(with("transaction", values));
}

TEST(PendingInstall, WithABadRevisionIsInvalid)
{
    expectInvalid(with("packageRevision", {"", "07", "7.", "-", "1.2.3.4.5", "7a", "7\r"}));
}

TEST(PendingInstall, WithABadDigestIsInvalid)
{
    const std::vector<std::string> values = {"",
                                             std::string(63, 'a'),
                                             std::string(65, 'a'),
                                             std::string(64, 'A'),
                                             std::string(64, 'g'),
                                             " " + std::string(63, 'a'),
                                             "-"};
    expectInvalid(with("planSha256", values));
    expectInvalid(with("descriptorSha256", values));
}

TEST(PendingInstall, OfAnotherScopeThanTheTwoIsInvalid)
{
    expectInvalid(with("targetScope", {"", "System", "USER", "none", "user ", "root"}));
}

TEST(PendingInstall, MayHaveAnyVersionAsItsRevision)
{
    for (const char* revision : {"0", "1.2.3.4", "12345678901"})
        EXPECT_EQ(parsePending(with("packageRevision", {revision})[0]).packageRevision, revision);
}

TEST(PendingInstall, WithALongLineIsInvalid)
{
    expectInvalid({std::string(1048576, 'a'), "sku=" + std::string(1048000, 'a'), std::string(1048576, '=')});
}

TEST(PendingInstall, ThatIsNoSafeFileIsRefused)
{
    for (const std::string& scope : bothScopes) {
        const Begun begun(scope);
        const std::filesystem::path path = pendingOf(scope);
        const std::filesystem::path aside = maintenanceOf(scope) / "aside";
        writeFile(aside, begun.text, {ownerOf(scope), 0600});
        const std::vector<std::function<void()>> plants = {
            [&] { makeLink(path, "aside"); },
            [&] { makeLink(path, "nowhere"); },
            [&] { makeHardLink(path, aside); },
            [&] {
                makeDirectories(path, {ownerOf(scope), 0755});
            },
            [&] { makePipe(path, ownerOf(scope)); },
            [&] { makeSocket(path, ownerOf(scope)); },
            [&] {
                writeFile(path, begun.text, {ownerOf(scope), 0664});
            },
            [&] {
                writeFile(path, begun.text, {ownerOf(scope), 0602});
            },
            [&] {
                writeFile(path, begun.text, {502, 0600});
            },
            [&] {
                writeFile(path, begun.text, {scope == "user" ? rootUid : playerUid, 0600});
            },
            [&] {
                writeFile(path, std::string(1048577, 'a'), {ownerOf(scope), 0600});
            },
        };
        for (const auto& plant : plants) {
            removeAll(path);
            plant();
            const Tree before = takeExactTree(placesBesideTheTool());
            EXPECT_EQ(begun.installer.begin(), unsafeAttempt) << describe(path);
            EXPECT_EQ(difference(before, takeExactTree(placesBesideTheTool())), "");
        }
    }
}

TEST(PendingInstall, ThatCannotBeOpenedIsRefused)
{
    const Begun begun;
    EXPECT_EQ(runFailing(SYS_openat, "PendingInstall", EACCES, {"begin-install", "user"},
                         begun.installer.surroundings),
              refused("pending installation attempt cannot be opened safely"));
}

TEST(PendingInstall, ExchangedBeforeItIsOpenedIsRefused)
{
    const Begun begun;
    EXPECT_EQ(runWhile(
                  SYS_openat, "PendingInstall", 1,
                  [&] {
                      std::filesystem::rename(pendingOf("user"), maintenanceOf("user") / "before");
                      begun.write(begun.text);
                  },
                  {"begin-install", "user"}, begun.installer.surroundings),
              refused("pending installation attempt changed during validation"));
}

// When the transaction ends.

/// A completed transaction without attempt; its clean-up is all that commit-move has left to do.
struct Completed {
    explicit Completed(const std::string& target, const std::string& source = "none")
        : scope(target), work(Work(target).brings(plugin("alpha", "1.0")))
    {
        work.from(source);
        id = publish(work, "install-1");
        writeFile(completedOf(work.authority(), id), work.prepared(id, generationOf('c')),
                  {ownerOf(work.authority()), 0600});
        writeFile(lockOf(scope), "", {ownerOf(scope), 0600});
    }

    std::string attempt(const std::string& transaction) const
    {
        return withLine(withLine(sample, "transaction=", "transaction=" + transaction + "\n"),
                        "targetScope=", "targetScope=" + scope + "\n");
    }

    Outcome finish() const { return run({"commit-move", scope, id}); }

    std::string scope;
    Work work;
    std::string id;
};

TEST(PendingInstall, GoesWithItsTransaction)
{
    for (const std::string& scope : bothScopes) {
        const Completed completed(scope);
        for (const char* command : {"commit-move", "rollback-move"}) {
            writeFile(pendingOf(scope), completed.attempt(completed.id), {ownerOf(scope), 0600});
            const Tree before = takeTree();
            EXPECT_EQ(run({command, scope, completed.id}), succeeded());
            EXPECT_EQ(changedPaths(before, takeTree()), std::vector<std::string>{pendingOf(scope)});
            EXPECT_EQ(describe(pendingOf(scope)), "nothing");
        }
    }
}

TEST(PendingInstall, GoesFromTheTargetScopeOfItsTransaction)
{
    for (const std::string& scope : bothScopes) {
        const Completed completed(scope, oppositeOf(scope));
        for (const std::string& where : bothScopes)
            writeFile(pendingOf(where), completed.attempt(completed.id), {ownerOf(where), 0600});
        EXPECT_EQ(completed.finish(), succeeded());
        EXPECT_EQ(describe(pendingOf(scope)), "nothing");
        EXPECT_EQ(describe(pendingOf(oppositeOf(scope))), metadataFileOf(oppositeOf(scope)));
        removeAll(maintenanceOf("user"));
        removeAll(maintenanceOf("system"));
    }
}

TEST(PendingInstall, OfAnotherTransactionStays)
{
    for (const std::string& scope : bothScopes) {
        const Completed completed(scope);
        for (const char* other : {"install-2", "install-11", "install"}) {
            writeFile(pendingOf(scope), completed.attempt(other), {ownerOf(scope), 0600});
            const Tree before = takeExactTree();
            EXPECT_EQ(completed.finish(), succeeded());
            EXPECT_EQ(difference(before, takeExactTree()), "");
        }
    }
}

TEST(PendingInstall, NeedNotBeThereWhenItsTransactionEnds)
{
    for (const std::string& scope : bothScopes) {
        const Completed completed(scope);
        const Tree before = takeExactTree();
        EXPECT_EQ(completed.finish(), succeeded());
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(PendingInstall, ThatIsInvalidOrUnsafeStaysWhenATransactionEnds)
{
    const Completed completed("user");
    const std::filesystem::path path = pendingOf("user");
    const std::string attempt = completed.attempt(completed.id);
    const auto expect = [&](const Outcome& expected) {
        const Tree before = takeExactTree();
        EXPECT_EQ(completed.finish(), expected);
        EXPECT_EQ(difference(before, takeExactTree()), "");
        removeAll(path);
    };
    writeFile(path, attempt + "\n", {playerUid, 0600});
    expect(invalidAttempt);
    writeFile(path, attempt, {playerUid, 0664});
    expect(unsafeAttempt);
    writeFile(path, attempt, {rootUid, 0600});
    expect(unsafeAttempt);
    makeLink(path, "nowhere");
    expect(unsafeAttempt);
    makePipe(path, playerUid);
    expect(unsafeAttempt);
}

TEST(PendingInstall, ThatCannotBeExaminedWhenATransactionEndsIsRefused)
{
    for (const std::string& scope : bothScopes) {
        const Completed completed(scope);
        writeFile(pendingOf(scope), completed.attempt(completed.id), {ownerOf(scope), 0600});
        for (const int error : {EIO, EACCES})
            EXPECT_EQ(
                runFailing(SYS_newfstatat, pendingOf(scope), error, {"commit-move", scope, completed.id}),
                refused("pending installation attempt cannot be inspected"));
        EXPECT_EQ(describe(pendingOf(scope)), metadataFileOf(scope));
    }
}

} // namespace
} // namespace maintenance::rehearsed
