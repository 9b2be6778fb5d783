#include "transaction/prepared_state.h"

#include "fs/sha256.h"
#include "transaction/preparing.h"
#include "transaction/transaction_scopes.h"

#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

const char* const invalidState = "prepared transaction state is invalid";
const char* const missingState = "prepared transaction state is missing or unsafe";
const char* const unsafeState = "prepared transaction state ownership or mode is unsafe";
const char* const rebound = "prepared transaction descriptor binding changed";
const char* const stale = "durable transaction lease generation is stale or rebound";
const char* const missingLease = "durable transaction lease is missing or unsafe";
const char* const unsafeLease = "durable transaction lease ownership or mode is unsafe";

const std::vector<std::string> keys = {"schema",          "transaction", "generation", "descriptorSha256",
                                       "canonicalSha256", "sourceScope", "targetScope"};

const Plugin alpha = plugin("alpha", "1.0");

/// A text whose fields all differ.
std::string sampleText()
{
    return "schema=tamarind.pelican.macos-maintenance.prepared.v1\n"
           "transaction=move-1\n"
           "generation=" +
           std::string(64, '0') +
           "\n"
           "descriptorSha256=" +
           std::string(64, '1') +
           "\n"
           "canonicalSha256=" +
           std::string(64, 'f') +
           "\n"
           "sourceScope=user\n"
           "targetScope=system\n";
}

std::string without(const std::string& text, const std::string& key)
{
    const std::string line = key + "=" + fieldOf(text, key) + "\n";
    std::string changed = text;
    return changed.erase(changed.find(line), line.size());
}

/// Every text that is no prepared state, with what is wrong with it.
std::map<std::string, std::string> invalidTexts()
{
    const std::string good = sampleText();
    std::map<std::string, std::string> texts = {
        {"empty file", ""},
        {"only a line feed", "\n"},
        {"empty first line", "\n" + good},
        {"empty last line", good + "\n"},
        {"line without equals sign", good + "comment\n"},
        {"eighth key", good + "extra=1\n"},
        {"eighth key without name", good + "=\n"},
        {"carriage returns",
         [&] {
             std::string text;
             for (const char c : good)
                 text += c == '\n' ? "\r\n" : std::string(1, c);
             return text;
         }()},
        {"byte order mark", "\xEF\xBB\xBF" + good},
        {"blank before a key", " " + good},
        {"schema of version 2", withField(good, "schema", "tamarind.pelican.macos-maintenance.prepared.v2")},
        {"longer schema", withField(good, "schema", "tamarind.pelican.macos-maintenance.prepared.v11")},
        {"shorter schema", withField(good, "schema", "tamarind.pelican.macos-maintenance.prepared.v")},
        {"descriptor's schema", withField(good, "schema", "tamarind.pelican.macos-maintenance.v2")},
        {"schema in capitals", withField(good, "schema", "TAMARIND.PELICAN.MACOS-MAINTENANCE.PREPARED.V1")},
        {"empty schema", withField(good, "schema", "")},
        {"empty transaction", withField(good, "transaction", "")},
        {"transaction with a slash", withField(good, "transaction", "a/b")},
        {"transaction with dots only", withField(good, "transaction", "..")},
        {"transaction with a blank", withField(good, "transaction", "move 1")},
        {"transaction of 129 letters", withField(good, "transaction", std::string(129, 'a'))},
        {"transaction of a million letters", withField(good, "transaction", std::string(1000000, 'a'))},
        {"transaction with a zero byte", withField(good, "transaction", std::string("move-1\0", 7))},
    };
    for (const std::string& key : keys) {
        texts["repeated " + key] = good + key + "=" + fieldOf(good, key) + "\n";
        texts["repeated and different " + key] = good + key + "=other\n";
        texts["without " + key] = without(good, key);
        texts["foreign key for " + key] = without(good, key) + "foreign=" + fieldOf(good, key) + "\n";
        std::string capital = key;
        capital.front() = static_cast<char>(capital.front() - 'a' + 'A');
        texts["capital letter in " + key] = without(good, key) + capital + "=" + fieldOf(good, key) + "\n";
    }
    for (const std::string key : {"generation", "descriptorSha256", "canonicalSha256"}) {
        texts["empty " + key] = withField(good, key, "");
        texts["63 digits in " + key] = withField(good, key, std::string(63, 'a'));
        texts["65 digits in " + key] = withField(good, key, std::string(65, 'a'));
        texts["capital digits in " + key] = withField(good, key, std::string(64, 'A'));
        texts["one capital digit in " + key] = withField(good, key, std::string(63, 'a') + "F");
        texts["letter g in " + key] = withField(good, key, "g" + std::string(63, 'a'));
        texts["blank after " + key] = withField(good, key, std::string(64, 'a') + " ");
        texts["blank before " + key] = withField(good, key, " " + std::string(64, 'a'));
        texts["prefixed " + key] = withField(good, key, "0x" + std::string(62, 'a'));
        texts["zero byte in " + key] = withField(good, key, std::string(63, 'a') + std::string(1, '\0'));
    }
    return texts;
}

/// Another way for a file to be no readable metadata file, and what is then said of it.
struct UnsafeFile {
    const char* name;
    std::function<void(const std::filesystem::path&)> spoil;
    /// Said of a prepared state and of a lease.
    std::string suffix;
};

/// The ways to spoil a metadata file that belongs to `scope`.
std::vector<UnsafeFile> unsafeFiles(const std::string& scope)
{
    using std::filesystem::path;
    const std::string missing = " is missing or unsafe";
    const std::string unsafe = " ownership or mode is unsafe";
    const uid_t foreign = scope == "user" ? rootUid : playerUid;
    return {
        {"nothing", [](const path& file) { removeAll(file); }, missing},
        {"link to the same text",
         [](const path& file) {
             std::filesystem::rename(file, file.native() + ".moved");
             makeLink(file, file.native() + ".moved");
         },
         missing},
        {"dangling link",
         [](const path& file) {
             removeAll(file);
             makeLink(file, "nowhere");
         },
         missing},
        {"directory",
         [](const path& file) {
             removeAll(file);
             makeDirectories(file);
         },
         missing},
        {"pipe",
         [](const path& file) {
             removeAll(file);
             makePipe(file);
         },
         missing},
        {"socket",
         [](const path& file) {
             removeAll(file);
             makeSocket(file);
         },
         missing},
        {"two names", [](const path& file) { makeHardLink(file.native() + ".other", file); }, missing},
        {"writable for the group", [](const path& file) { setMode(file, 0620); }, unsafe},
        {"writable for all", [](const path& file) { setMode(file, 0602); }, unsafe},
        {"foreign owner", [foreign](const path& file) { setOwner(file, foreign); }, unsafe},
        {"third owner", [](const path& file) { setOwner(file, 502); }, unsafe},
        {"one byte over the limit",
         [scope](const path& file) {
             writeFile(file, std::string(1048577, 'x'), {ownerOf(scope), 0600});
         },
         unsafe},
    };
}

Ending parsing(const std::string& text)
{
    return endingOf([&] { return preparedText(parsePreparedText(text)); });
}

Descriptor descriptorFor(const Work& work) { return parse(work.target(), moveId); }

/// Verifies the transaction as commit-move and rollback-move do, but without looking at the directory first.
Ending verifying(const Work& work)
{
    return endingOf([&] { return preparedText(verifyPrepared(descriptorFor(work), directoryOf(work))); });
}

TEST(PreparedState, IsSevenLinesInTheirOrder)
{
    const PreparedState state{
        "move-1", std::string(64, '0'), std::string(64, '1'), std::string(64, 'f'), "user", "system"};
    EXPECT_EQ(preparedText(state), sampleText());
}

TEST(PreparedState, IsReadBackFromItsText)
{
    const PreparedState state = parsePreparedText(sampleText());
    EXPECT_EQ(state.transaction, "move-1");
    EXPECT_EQ(state.generation, std::string(64, '0'));
    EXPECT_EQ(state.descriptorSha256, std::string(64, '1'));
    EXPECT_EQ(state.canonicalSha256, std::string(64, 'f'));
    EXPECT_EQ(state.sourceScope, "user");
    EXPECT_EQ(state.targetScope, "system");
}

TEST(PreparedState, IsReadInAnyOrderOfItsLines)
{
    EXPECT_EQ(parsing(reversed(sampleText())), returned(sampleText()));
    for (const std::string& key : keys)
        EXPECT_EQ(parsing(without(sampleText(), key) + key + "=" + fieldOf(sampleText(), key) + "\n"),
                  returned(sampleText()))
            << key;
}

TEST(PreparedState, IsReadWithoutTheLastLineFeed)
{
    const std::string text = sampleText();
    EXPECT_EQ(parsing(text.substr(0, text.size() - 1)), returned(text));
}

TEST(PreparedState, TakesScopeValuesAsTheyStand)
{
    EXPECT_EQ(parsePreparedText(withField(sampleText(), "sourceScope", "a=b")).sourceScope, "a=b");
    EXPECT_EQ(parsePreparedText(withField(sampleText(), "targetScope", "=")).targetScope, "=");
    EXPECT_EQ(parsePreparedText(withField(sampleText(), "sourceScope", "")).sourceScope, "");
    EXPECT_EQ(parsePreparedText(withField(sampleText(), "targetScope", " system\t")).targetScope,
              " system\t");
    const std::string longest(1000000, 's');
    EXPECT_EQ(parsePreparedText(withField(sampleText(), "sourceScope", longest)).sourceScope, longest);
}

TEST(PreparedState, TakesTheLongestIdentifier)
{
    const std::string longest(128, 'a');
    EXPECT_EQ(parsePreparedText(withField(sampleText(), "transaction", longest)).transaction, longest);
}

TEST(PreparedState, WithAnyFlawIsInvalid)
{
    for (const auto& [flaw, text] : invalidTexts())
        EXPECT_EQ(parsing(text), invalid(invalidState)) << flaw;
}

TEST(PreparedState, FileIsReadFromTheScopeThatOwnsIt)
{
    for (const std::string scope : {"user", "system"}) {
        const std::filesystem::path file = maintenanceOf(scope) / "state";
        writeFile(file, sampleText(), {ownerOf(scope), 0600});
        EXPECT_EQ(endingOf([&] { return preparedText(parsePrepared(file, scope)); }), returned(sampleText()));
    }
}

TEST(PreparedState, FileThatIsUnsafeIsRefusedUnread)
{
    for (const std::string scope : {"user", "system"})
        for (const UnsafeFile& unsafe : unsafeFiles(scope)) {
            const std::filesystem::path file = maintenanceOf(scope) / "state";
            removeAll(maintenanceOf(scope));
            writeFile(file, sampleText(), {ownerOf(scope), 0600});
            unsafe.spoil(file);
            EXPECT_EQ(endingOf([&] { parsePrepared(file, scope); }),
                      invalid("prepared transaction state" + unsafe.suffix))
                << scope << " " << unsafe.name;
        }
}

TEST(PreparedState, FileOfTheLargestSizeIsRead)
{
    const std::filesystem::path file = maintenanceOf("user") / "state";
    std::string text = withField(sampleText(), "sourceScope", "");
    text = withField(text, "sourceScope", std::string(1048576 - text.size(), 's'));
    ASSERT_EQ(text.size(), 1048576U);
    writeFile(file, text, {playerUid, 0600});
    EXPECT_EQ(endingOf([&] { return preparedText(parsePrepared(file, "user")); }), returned(text));
}

TEST(PreparedState, FileThatOthersMayReadIsRead)
{
    const std::filesystem::path file = maintenanceOf("user") / "state";
    writeFile(file, sampleText(), {playerUid, 0644});
    EXPECT_EQ(endingOf([&] { return preparedText(parsePrepared(file, "user")); }), returned(sampleText()));
    setMode(file, 0);
    EXPECT_EQ(endingOf([&] { return preparedText(parsePrepared(file, "user")); }), returned(sampleText()));
}

TEST(PreparedState, FileThatCannotBeOpenedIsRefused)
{
    const std::filesystem::path file = maintenanceOf("system") / "state";
    writeFile(file, sampleText());
    const Decide decide = [](const SystemCall& call) { return call.is(SYS_openat, "state") ? EIO : 0; };
    EXPECT_EQ(stopping({SYS_openat}, decide, [&] { parsePrepared(file, "system"); }),
              invalid("prepared transaction state cannot be read"));
    const Decide failRead = [&](const SystemCall& call) { return fileOf(call) == file ? EIO : 0; };
    EXPECT_EQ(stopping({SYS_read}, failRead, [&] { parsePrepared(file, "system"); }),
              invalid("prepared transaction state cannot be read"));
}

TEST(PreparedState, FileExchangedWhileItIsReadIsRefused)
{
    const std::filesystem::path file = maintenanceOf("user") / "state";
    writeFile(file, sampleText(), {playerUid, 0600});
    writeFile(file.native() + ".other", sampleText(), {playerUid, 0600});
    const Decide exchange = [&](const SystemCall& call) {
        if (call.is(SYS_openat, "state"))
            std::filesystem::rename(file.native() + ".other", file);
        return 0;
    };
    EXPECT_EQ(stopping({SYS_openat}, exchange, [&] { parsePrepared(file, "user"); }),
              invalid("prepared transaction state changed during validation"));
    const Decide write = [&](const SystemCall& call) {
        if (fileOf(call) == file && readFile(file) == sampleText())
            writeFile(file, sampleText() + "more=1\n", {playerUid, 0600});
        return 0;
    };
    EXPECT_EQ(stopping({SYS_read}, write, [&] { parsePrepared(file, "user"); }),
              invalid("prepared transaction state changed while being read"));
}

TEST(PreparedBinding, HoldsForTheDescriptorThatWasPrepared)
{
    for (const Work& work : everyKind(alpha)) {
        publish(work, moveId);
        const PreparedState state = bindingState(descriptorFor(work));
        requireStateBinding(descriptorFor(work), state);
        EXPECT_EQ(preparedText(state), work.prepared(moveId, state.generation)) << kindOf(work);
        EXPECT_EQ(state.descriptorSha256, systemSha256(work.text()));
        EXPECT_EQ(state.canonicalSha256, systemSha256(work.canonical(moveId)));
    }
}

TEST(PreparedBinding, GetsAFreshGenerationEachTime)
{
    const Work work = Work("user").brings(alpha);
    publish(work, moveId);
    EXPECT_NE(bindingState(descriptorFor(work)).generation, bindingState(descriptorFor(work)).generation);
}

TEST(PreparedBinding, IsBrokenByEveryFieldThatDiffers)
{
    const std::map<std::string, std::string> others = {{"transaction", "move-2"},
                                                       {"sourceScope", "none"},
                                                       {"targetScope", "user"},
                                                       {"descriptorSha256", std::string(64, '0')},
                                                       {"canonicalSha256", std::string(64, '0')}};
    const Work work = Work("system").from("user").brings(alpha);
    for (const auto& [key, value] : others) {
        plantTransaction(work, withField(work.prepared(moveId, generationOf('a')), key, value));
        const Tree before = takeTree();
        EXPECT_EQ(verifying(work), invalid(rebound)) << key;
        for (const std::string word : {"commit-move", "rollback-move", "uninstall-product"})
            EXPECT_EQ(command(word, work), refused(rebound)) << key << " " << word;
        EXPECT_EQ(changesSince(before), "") << key;
    }
}

TEST(PreparedBinding, ComparesScopesByteForByte)
{
    const Work work = Work("user").brings(alpha);
    const std::string good = work.prepared(moveId, generationOf('a'));
    for (const std::string& text :
         {withField(good, "sourceScope", ""), withField(good, "sourceScope", "a=b"),
          withField(good, "sourceScope", "none "), withField(good, "sourceScope", "None"),
          withField(good, "targetScope", "user\t"), withField(good, "targetScope", "user\r")}) {
        plantTransaction(work, text);
        EXPECT_EQ(command("commit-move", work), refused(rebound)) << text;
    }
}

TEST(PreparedBinding, IsBrokenByADescriptorThatWasEditedAfterwards)
{
    const Work work = Work("user").brings(alpha);
    bringToPrepared(work);
    const std::string text = work.text();
    const std::size_t first = text.find("target=");
    const std::size_t second = text.find("target=", first + 1);
    const std::size_t third = text.find("target=", second + 1);
    const std::string sameMeaning = text.substr(0, first) + text.substr(second, third - second) +
                                    text.substr(first, second - first) + text.substr(third);
    const std::string otherMeaning = withField(text, "sku", "other-bundle");
    for (const std::string& edited : {sameMeaning, otherMeaning}) {
        publishText("user", edited, moveId);
        const Tree before = takeExactTree();
        for (const std::string word : {"prepare-move", "commit-move", "rollback-move", "uninstall-product"})
            EXPECT_EQ(command(word, work), refused(rebound)) << word;
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
    publishText("user", text, moveId);
    EXPECT_EQ(command("rollback-move", work), succeeded());
}

TEST(PreparedVerification, ReturnsTheStateWhenEveryLeaseHoldsItsText)
{
    for (const Work& work : everyKind(alpha)) {
        const std::string text = work.prepared(moveId, generationOf('a'));
        plantTransaction(work, text);
        EXPECT_EQ(verifying(work), returned(text)) << kindOf(work);
        removeAll(maintenanceOf("user"));
        removeAll(maintenanceOf("system"));
    }
}

TEST(PreparedVerification, AsksOnlyForTheTargetsLeaseWithoutASource)
{
    for (const std::string scope : {"user", "system"}) {
        const Work work = Work(scope).brings(alpha);
        const std::string text = work.prepared(moveId, generationOf('a'));
        plantTransaction(work, text);
        writeFile(leaseOf(oppositeOf(scope)), "another's\n", {ownerOf(oppositeOf(scope)), 0666});
        EXPECT_EQ(verifying(work), returned(text)) << scope;
        removeAll(maintenanceOf("user"));
        removeAll(maintenanceOf("system"));
    }
}

TEST(PreparedVerification, RefusesAnyOtherTextInALease)
{
    const Work work = Work("system").from("user").brings(alpha);
    const std::string text = work.prepared(moveId, generationOf('a'));
    const std::vector<std::string> others = {work.prepared(moveId, generationOf('b')),
                                             work.prepared("move-2", generationOf('a')),
                                             reversed(text),
                                             text + "\n",
                                             text.substr(0, text.size() - 1),
                                             "",
                                             "ActiveTransaction"};
    for (const std::string scope : {"user", "system"})
        for (const std::string& other : others) {
            plantTransaction(work, text);
            writeFile(leaseOf(scope), other, {ownerOf(scope), 0600});
            const Tree before = takeTree();
            for (const std::string word : {"commit-move", "rollback-move"})
                EXPECT_EQ(command(word, work), refused(stale)) << scope << " " << word << " " << other;
            EXPECT_EQ(changesSince(before), "");
        }
}

TEST(PreparedVerification, RefusesAnUnsafeLeaseInEveryInvolvedScope)
{
    for (const Work& work : everyKind(alpha)) {
        const std::string text = work.prepared(moveId, generationOf('a'));
        for (const std::string& scope : work.involved())
            for (const UnsafeFile& unsafe : unsafeFiles(scope)) {
                removeAll(maintenanceOf("user"));
                removeAll(maintenanceOf("system"));
                plantTransaction(work, text);
                unsafe.spoil(leaseOf(scope));
                const Tree before = takeTree();
                EXPECT_EQ(command("commit-move", work), refused("durable transaction lease" + unsafe.suffix))
                    << kindOf(work) << ": " << scope << " " << unsafe.name;
                EXPECT_EQ(verifying(work), invalid("durable transaction lease" + unsafe.suffix));
                EXPECT_EQ(changesSince(before), "");
            }
    }
}

TEST(PreparedVerification, LooksAtTheSourcesLeaseFirst)
{
    for (const std::string target : {"user", "system"}) {
        const Work work = Work(target).from(oppositeOf(target)).brings(alpha);
        plantTransaction(work, work.prepared(moveId, generationOf('a')));
        removeAll(leaseOf(work.source()));
        setMode(leaseOf(work.target()), 0666);
        EXPECT_EQ(verifying(work), invalid(missingLease)) << target;
        writeFile(leaseOf(work.source()), "another's\n", {ownerOf(work.source()), 0600});
        EXPECT_EQ(verifying(work), invalid(stale)) << target;
        plantLeases(work, work.prepared(moveId, generationOf('a')));
        setMode(leaseOf(work.target()), 0666);
        EXPECT_EQ(verifying(work), invalid(unsafeLease)) << target;
    }
}

TEST(PreparedVerification, RefusesAPreparedFileThatWasNotWrittenByThisTool)
{
    const Work work = Work("user").brings(alpha);
    const std::string text = work.prepared(moveId, generationOf('a'));
    plantTransaction(work, text);
    for (const std::string& rewritten : {reversed(text), text.substr(0, text.size() - 1)}) {
        plantPrepared(work, rewritten);
        for (const std::string& lease : {text, rewritten}) {
            plantLeases(work, lease);
            for (const std::string word : {"commit-move", "rollback-move"})
                EXPECT_EQ(command(word, work), refused(stale)) << word << ": " << rewritten;
        }
    }
}

TEST(PreparedVerification, RefusesAnInvalidPreparedFileInEveryCommand)
{
    const Work work = Work("user").brings(alpha);
    const std::string text = work.prepared(moveId, generationOf('a'));
    for (const std::string& broken :
         {std::string(), text + "\n", text + "extra=1\n", without(text, "sourceScope"),
          withField(text, "generation", generationOf('A'))}) {
        plantTransaction(work, broken);
        const Tree before = takeTree();
        for (const std::string word : {"prepare-move", "commit-move", "rollback-move", "uninstall-product"})
            EXPECT_EQ(command(word, work), refused(invalidState)) << word << ": " << broken;
        EXPECT_EQ(changesSince(before), "");
    }
}

TEST(PreparedVerification, RefusesAMissingOrUnsafePreparedFile)
{
    for (const std::string scope : {"user", "system"}) {
        const Work work = Work(scope).brings(alpha);
        for (const UnsafeFile& unsafe : unsafeFiles(scope)) {
            removeAll(maintenanceOf(scope));
            plantTransaction(work, work.prepared(moveId, generationOf('a')));
            unsafe.spoil(preparedOf(work));
            EXPECT_EQ(verifying(work), invalid("prepared transaction state" + unsafe.suffix))
                << scope << " " << unsafe.name;
        }
        removeAll(maintenanceOf(scope));
        plantTransaction(work, work.prepared(moveId, generationOf('a')));
        removeAll(preparedOf(work));
        EXPECT_EQ(command("commit-move", work), refused(missingState));
        EXPECT_EQ(command("rollback-move", work), refused(missingState));
        writeFile(preparedOf(work), std::string(1048577, 'x'), {ownerOf(scope), 0600});
        EXPECT_EQ(command("commit-move", work), refused(unsafeState));
    }
}

TEST(PreparedVerification, ReadsThePreparedFileUnderTheAuthoritysRules)
{
    for (const std::string target : {"user", "system"}) {
        const Work work = Work(target).from(oppositeOf(target)).brings(alpha);
        plantTransaction(work, work.prepared(moveId, generationOf('a')));
        EXPECT_EQ(describe(preparedOf(work)), "file 0 0600");
        setOwner(preparedOf(work), playerUid);
        EXPECT_EQ(verifying(work), invalid(unsafeState)) << target;
    }
}

} // namespace
} // namespace maintenance::rehearsed
