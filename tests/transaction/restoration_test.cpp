#include "transaction/restoration.h"

#include "committing.h"

#include "plan/descriptor.h"

namespace maintenance::rehearsed {
namespace {

using RestorationIn = InScope;
INSTANTIATE_TEST_SUITE_P(, RestorationIn, ::testing::Values("user", "system"), nameOfScope);

const Outcome missingCopy = refused("transaction source is missing or unsafe");
const Outcome wrongCopy = refused("transaction source hash is wrong");
const Outcome invalidManifest = refused("receipt snapshot manifest is invalid");
const Outcome missingManifest = refused("receipt snapshot manifest is missing");
const Outcome missingIdentity = refused("receipt identity snapshot is missing");
const Outcome linkOrForeign = refused("owned mutation target is a link or foreign file");

/// Alpha stands in its place without a receipt, as copied there by hand, and is to be replaced.
Transaction prepareReplacement(const std::string& scope)
{
    for (const std::string& path : plugin("alpha", "1.0").paths())
        writeFile(placeOf(scope, path), "by hand: " + path, {ownerOf(scope), 0755});
    return Transaction(Work(scope).deciding("replace").brings(plugin("alpha", "1.0")));
}

// Single files.

TEST_P(RestorationIn, LeavesAFileAloneThatHoldsTheSnapshotsBytes)
{
    installWithRecords(scope(), {plugin("alpha", "1.0")});
    setMode(vst3File(scope(), "alpha"), 0755);
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    setMode(auFile(scope(), "alpha"), 0640);
    const Tree before = exactBundles(scope(), "alpha");
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(difference(before, exactBundles(scope(), "alpha")), "");
}

TEST_P(RestorationIn, MakesMissingDirectoriesAnew)
{
    const Transaction transaction = prepareRepair(scope());
    ExpectedDisk expected;
    expected.withEndOf(transaction);
    removeAll(placeOf(scope(), "Library/Audio"));
    EXPECT_EQ(transaction.rollBack(), succeeded());
    for (const Package& package : {plugin("alpha", "1.0").vst3, plugin("alpha", "1.0").au})
        for (const auto& [path, content] : package.files)
            expected.withFile(placeOf(scope(), path), content, metadataFileOf(scope()));
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RestorationIn, ReplacesAFileInOneStep)
{
    const Transaction transaction = prepareRepair(scope());
    const std::filesystem::path file = vst3File(scope(), "alpha");
    writeFile(file, "spoilt", {ownerOf(scope()), 0644});
    int replaced = 0;
    const auto watch = [&](const SystemCall& made) {
        EXPECT_FALSE(made.is(SYS_unlinkat, "plugin"));
        if (made.number == SYS_renameat && made.text(3) == "plugin") {
            ++replaced;
            EXPECT_EQ(readFile(file), "spoilt");
        }
        return 0;
    };
    const Descriptor descriptor = parse(scope(), transaction.id());
    EXPECT_EQ(stopping({SYS_unlinkat, SYS_renameat}, watch, [&] { restore(descriptor); }), returned());
    EXPECT_EQ(replaced, 1);
    EXPECT_EQ(readFile(file), "alpha vst3 code 1.0\n");
}

TEST_P(RestorationIn, ReplacesALinkAndLeavesWhatItLeadsTo)
{
    const Transaction transaction = prepareReplacement(scope());
    writeFile("/Users/Shared/elsewhere", "of no concern");
    removeAll(vst3File(scope(), "alpha"));
    makeLink(vst3File(scope(), "alpha"), "/Users/Shared/elsewhere");
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(describe(vst3File(scope(), "alpha")), metadataFileOf(scope()));
    EXPECT_EQ(readFile(vst3File(scope(), "alpha")), "by hand: " + vst3Path("alpha"));
    EXPECT_EQ(readFile("/Users/Shared/elsewhere"), "of no concern");
}

TEST(Restoration, ReplacesAFileOfAnotherOwner)
{
    const Transaction transaction = prepareRepair("user");
    writeFile(vst3File("user", "alpha"), "of an installer that ran as root", {rootUid, 0644});
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(describe(vst3File("user", "alpha")), "file 501 0600");
    EXPECT_EQ(readFile(vst3File("user", "alpha")), "alpha vst3 code 1.0\n");
}

TEST_P(RestorationIn, StopsAtWhatIsNoSingleLinkedFile)
{
    const Transaction transaction = prepareReplacement(scope());
    const std::filesystem::path file = vst3File(scope(), "alpha");
    writeFile("/Users/Shared/twin", "by hand: " + vst3Path("alpha"));
    const std::vector<std::function<void()>> others = {[&] { makeHardLink(file, "/Users/Shared/twin"); },
                                                       [&] { makePipe(file); },
                                                       [&] { makeDirectories(file); }};
    for (const auto& make : others) {
        removeAll(file);
        make();
        const std::string before = describe(file);
        EXPECT_EQ(transaction.rollBack(), linkOrForeign) << before;
        EXPECT_EQ(describe(file), before);
        EXPECT_EQ(transaction.state(), "prepared");
    }
    removeAll(file);
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(readFile(file), "by hand: " + vst3Path("alpha"));
}

TEST(Restoration, ReplacesAFileThatTheAccountCannotRead)
{
    const Transaction transaction = prepareRepair("user");
    const std::filesystem::path file = vst3File("user", "alpha");
    const std::string content = readFile(file);
    setMode(file, 0);
    EXPECT_EQ(transaction.rollBack(asPlayer()), succeeded());
    EXPECT_EQ(readFile(file), content);
    EXPECT_EQ(describe(file), "file 501 0600");
}

TEST(Restoration, ReplacesNothingBecauseAReadFailed)
{
    const Transaction transaction = prepareRepair("user");
    const std::filesystem::path file = vst3File("user", "alpha");
    const Tree before = exactBundles("user", "alpha");
    const auto fail = [&](const SystemCall& call) {
        const std::string opened =
            "/proc/" + std::to_string(call.process) + "/fd/" + std::to_string(call.arguments[0]);
        return std::filesystem::read_symlink(opened) == file ? EIO : 0;
    };
    const Descriptor descriptor = parse("user", transaction.id());
    EXPECT_EQ(stopping({SYS_pread64}, fail, [&] { restore(descriptor); }),
              invalid("cannot hash an owned file"));
    EXPECT_EQ(difference(before, exactBundles("user", "alpha")), "");
}

TEST_P(RestorationIn, TakesNoOwnedFileForALeftover)
{
    // The name that a killed restoration by process 5 would have left for art.txt.
    const std::string likeALeftover = "Contents/Resources/.art.txt.new.5";
    const auto older = [&] { return plugin("alpha", "1.0").withAuFile(likeALeftover, "owned"); };
    Plugin other = plugin("beta", "1.0");
    other.au.files[auPath("alpha", "Contents/Resources/.art.txt.new.6")] = "another product's";
    installWithRecords(scope(), {older(), other});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    writeFile(auFile(scope(), "alpha", "Contents/Resources/art.txt"), "spoilt", {ownerOf(scope()), 0644});
    writeFile(auFile(scope(), "alpha", "Contents/Resources/.art.txt.new.7"), "left over",
              {ownerOf(scope()), 0600});
    const auto name = [&](const std::string& number) {
        return auFile(scope(), "alpha", "Contents/Resources/.art.txt.new." + number);
    };
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(readFile(name("5")), "owned");
    EXPECT_EQ(readFile(name("6")), "another product's");
    EXPECT_FALSE(isThere(name("7")));
    EXPECT_EQ(readFile(auFile(scope(), "alpha", "Contents/Resources/art.txt")),
              plugin("alpha", "1.0").au.files.at(auPath("alpha", "Contents/Resources/art.txt")));
}

TEST_P(RestorationIn, TakesNoFileThatTheDescriptorListsForALeftover)
{
    Plugin brought = plugin("alpha", "1.0");
    brought.withVst3File("Contents/MacOS/.plugin.new.5", "brought");
    const std::filesystem::path likeALeftover = vst3File(scope(), "alpha", "Contents/MacOS/.plugin.new.5");
    for (const std::string& path : brought.paths())
        writeFile(placeOf(scope(), path), "by hand: " + path, {ownerOf(scope()), 0755});
    const Transaction transaction(Work(scope()).deciding("replace").brings(brought));
    writeFile(vst3File(scope(), "alpha"), "spoilt", {ownerOf(scope()), 0755});
    const Tree before = exactBundles(scope(), "alpha");
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(readFile(vst3File(scope(), "alpha")), "by hand: " + vst3Path("alpha"));
    EXPECT_EQ(describe(likeALeftover), "file " + std::to_string(ownerOf(scope())) + " 0755");
}

TEST_P(RestorationIn, FollowsNoLinkAboveAFile)
{
    const Transaction transaction = prepareReplacement(scope());
    const std::filesystem::path contents = vst3File(scope(), "alpha", "Contents");
    makeDirectories("/Users/Shared");
    std::filesystem::rename(contents, "/Users/Shared/Contents");
    makeLink(contents, "/Users/Shared/Contents");
    const Tree outside = takeExactTree({"/Users/Shared"});
    EXPECT_EQ(transaction.rollBack(), refused("owned path contains a symbolic link"));
    EXPECT_EQ(difference(outside, takeExactTree({"/Users/Shared"})), "");

    removeAll("/Users/Shared/Contents");
    makeDirectories("/Users/Shared/Contents", {ownerOf(scope()), 0755});
    EXPECT_EQ(transaction.rollBack(), refused("fixed maintenance directory is missing or redirected"));
    EXPECT_EQ(namesIn("/Users/Shared/Contents"), std::vector<std::string>());
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST_P(RestorationIn, RemovesNoLinkFromAPlaceThatWasEmpty)
{
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "1.0")));
    writeFile("/Users/Shared/elsewhere", "alpha vst3 code 1.0\n");
    makeDirectories(vst3File(scope(), "alpha").parent_path(), {ownerOf(scope()), 0755});
    makeLink(vst3File(scope(), "alpha"), "/Users/Shared/elsewhere");
    EXPECT_EQ(transaction.rollBack(), linkOrForeign);
    EXPECT_TRUE(isThere(vst3File(scope(), "alpha")));
    EXPECT_TRUE(isThere("/Users/Shared/elsewhere"));
    EXPECT_EQ(transaction.state(), "prepared");
}

TEST_P(RestorationIn, RemovesTheTemporaryFilesOfAKilledRun)
{
    const Transaction transaction = prepareRepair(scope());
    writeFile(vst3File(scope(), "alpha"), "spoilt", {ownerOf(scope()), 0644});
    const std::filesystem::path leftover = vst3File(scope(), "alpha", "Contents/MacOS/.plugin.new.99999");
    writeFile(leftover, "alpha vst3 co", {ownerOf(scope()), 0600});
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_FALSE(isThere(leftover));
}

TEST_P(RestorationIn, RemovesARegisteredFileThatTheSnapshotDoesNotList)
{
    const Plugin old = plugin("alpha", "1.0").withAuFile("Contents/added.txt", "added");
    installWithRecords(scope(), {old});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    const std::filesystem::path manifest = transaction.inside("authority-target/manifest");
    std::string text = readFile(manifest);
    const std::size_t line = text.find(auPath("alpha", "Contents/added.txt"));
    writeFile(manifest, text.erase(line, text.find('\n', line) + 1 - line), {ownerOf(scope()), 0600});
    writeFile(auFile(scope(), "alpha", "Contents/added.txt"), "changed", {ownerOf(scope()), 0644});
    ExpectedDisk expected;
    expected.withEndOf(transaction).without(auFile(scope(), "alpha", "Contents/added.txt"));
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(expected.differenceNow(), "");
}

TEST_P(RestorationIn, SparesAnUnlistedFileThatAnotherProductsPackageListsToo)
{
    const std::string shared = auPath("alpha", "Contents/shared.txt");
    const Plugin old = plugin("alpha", "1.0").withAuFile("Contents/shared.txt", "shared");
    Plugin beta = plugin("beta", "1.0");
    beta.au.files[shared] = "shared";
    installWithRecords(scope(), {old, beta});
    const Transaction transaction(Work(scope()).brings(plugin("alpha", "2.0"), "1.0"));
    const std::filesystem::path manifest = transaction.inside("authority-target/manifest");
    std::string text = readFile(manifest);
    const std::size_t line = text.find(shared);
    writeFile(manifest, text.erase(line, text.find('\n', line) + 1 - line), {ownerOf(scope()), 0600});
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(readFile(placeOf(scope(), shared)), "shared");
}

TEST_P(RestorationIn, MayBeRepeated)
{
    const Transaction transaction = prepareRepair(scope());
    const Descriptor descriptor = parse(scope(), transaction.id());
    const Tree before = takeTree();
    removeFiles(scope(), plugin("alpha", "1.0").vst3);
    writeFile(auFile(scope(), "alpha"), "spoilt", {ownerOf(scope()), 0644});
    removeAll(recordOf(scope(), "alpha"));
    writeFile(indexOf(scope()), "spoilt", {ownerOf(scope()), 0600});
    EXPECT_EQ(endingOf([&] { restore(descriptor); }), returned());
    const Tree once = takeTree();
    const Tree bundles = exactBundles(scope(), "alpha");
    for (const std::string& path : plugin("alpha", "1.0").paths())
        EXPECT_EQ(systemSha256(readFile(placeOf(scope(), path))),
                  before.at(placeOf(scope(), path)).substr(before.at(placeOf(scope(), path)).rfind(' ') + 1));

    EXPECT_EQ(endingOf([&] { restore(descriptor); }), returned());
    EXPECT_EQ(difference(once, takeTree()), "");
    EXPECT_EQ(difference(bundles, exactBundles(scope(), "alpha")), "");
}

// Metadata.

TEST_P(RestorationIn, StopsAtALinkAmongTheRecords)
{
    const Transaction transaction = prepareRepair(scope());
    makeLink(recordOf(scope(), "linked"), "/Users/Shared/elsewhere");
    writeFile("/Users/Shared/elsewhere", "of no concern");
    const Outcome redirected = refused("fixed mutation target was redirected");
    EXPECT_EQ(transaction.rollBack(), redirected);
    EXPECT_TRUE(isThere(recordOf(scope(), "linked")));
    EXPECT_TRUE(isThere("/Users/Shared/elsewhere"));
    EXPECT_EQ(transaction.state(), "prepared");

    removeAll(recordOf(scope(), "linked"));
    removeAll(indexOf(scope()));
    makeLink(indexOf(scope()), "/Users/Shared/elsewhere");
    EXPECT_EQ(transaction.rollBack(), redirected);
    EXPECT_EQ(readFile("/Users/Shared/elsewhere"), "of no concern");

    removeAll(indexOf(scope()));
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(readFile(recordOf(scope(), "alpha")), recordText("alpha", "1.0"));
    EXPECT_EQ(readFile(indexOf(scope())), indexText(scope(), {{"alpha", "1.0"}}));
}

TEST(Restoration, KeepsTheRecordsDirectoryWhereThereWasNoRecord)
{
    const Transaction transaction(Work("user").brings(plugin("alpha", "1.0")));
    recordProducts("user", {{"alpha", "1.0"}});
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(describe(maintenanceOf("user") / "Products"), "dir 501 0755");
    EXPECT_EQ(namesIn(maintenanceOf("user") / "Products"), std::vector<std::string>());
}

// What has to be proven before anything is changed.

/// Something that keeps a restoration from succeeding.
struct Obstacle {
    std::string name;
    Outcome outcome;
    /// Role "target" or "source".
    std::function<void(const Transaction&, const std::string& role)> make;
};

std::ostream& operator<<(std::ostream& stream, const Obstacle& obstacle) { return stream << obstacle.name; }

std::string authority(const std::string& role, const std::string& entry)
{
    return "authority-" + role + "/" + entry;
}

const std::vector<Obstacle>& obstacles()
{
    const auto spoilCopy = [](const Transaction& t, const std::string& role) {
        writeFile(t.inside(authority(role, "files/1")), "another text", {rootUid, 0600});
    };
    static const std::vector<Obstacle> all = {
        {"MissingManifest", missingManifest,
         [](const auto& t, const auto& role) { removeAll(t.inside(authority(role, "manifest"))); }},
        {"DirectoryForTheManifest", missingManifest,
         [](const auto& t, const auto& role) {
             removeAll(t.inside(authority(role, "manifest")));
             makeDirectories(t.inside(authority(role, "manifest")));
         }},
        {"MissingAuthority", missingManifest,
         [](const auto& t, const auto& role) { removeAll(t.inside("authority-" + role)); }},
        {"MissingIdentity", missingIdentity,
         [](const auto& t, const auto& role) { removeAll(t.inside(authority(role, "receipts/2"))); }},
        {"MissingCopy", missingCopy,
         [](const auto& t, const auto& role) { removeAll(t.inside(authority(role, "files/0"))); }},
        {"DirectoryForACopy", missingCopy,
         [](const auto& t, const auto& role) {
             removeAll(t.inside(authority(role, "files/0")));
             makeDirectories(t.inside(authority(role, "files/0")));
         }},
        {"MissingCopies", missingCopy,
         [](const auto& t, const auto& role) { removeAll(t.inside(authority(role, "files"))); }},
        {"AlteredCopy", wrongCopy, spoilCopy},
        {"EmptyCopy", wrongCopy,
         [](const auto& t, const auto& role) {
             writeFile(t.inside(authority(role, "files/1")), "", {rootUid, 0600});
         }},
        {"MissingTargetCopy", missingCopy,
         [](const auto& t, const auto&) { removeAll(t.inside("target/3")); }},
        {"DirectoryForATargetCopy", missingCopy,
         [](const auto& t, const auto&) {
             removeAll(t.inside("target/0"));
             makeDirectories(t.inside("target/0"));
         }},
        {"MissingTargetCopies", missingCopy,
         [](const auto& t, const auto&) { removeAll(t.inside("target")); }},
    };
    return all;
}

/// What a line of a manifest becomes; fields are joined by tabs.
using Fields = std::vector<std::string>;
using Rewrite = std::function<void(Fields&)>;

/// One way in which a manifest's line breaks the rules.
struct BrokenLine {
    std::string name;
    bool ofReceipt;
    Rewrite rewrite;
};

Rewrite field(std::size_t index, const std::string& value)
{
    return [=](Fields& fields) { fields.at(index) = value; };
}

std::string joined(const Fields& fields)
{
    std::string text;
    for (const std::string& each : fields)
        text += (text.empty() && &each == &fields.front() ? "" : "\t") + each;
    return text;
}

Fields fieldsOf(const std::string& line)
{
    Fields fields(1);
    for (const char c : line) {
        if (c == '\t')
            fields.emplace_back();
        else
            fields.back() += c;
    }
    return fields;
}

/// Rewrites the first file line or the first receipt line of a manifest.
void breakManifest(const std::filesystem::path& manifest, const BrokenLine& broken, uid_t owner)
{
    const std::string text = readFile(manifest);
    const std::size_t start = broken.ofReceipt ? text.find("receipt\t") : 0;
    const std::size_t end = text.find('\n', start);
    Fields fields = fieldsOf(text.substr(start, end - start));
    broken.rewrite(fields);
    writeFile(manifest, text.substr(0, start) + joined(fields) + text.substr(end), {owner, 0600});
}

const std::vector<BrokenLine>& brokenLines()
{
    const std::string hash = sha256OfText("x");
    constexpr bool ofFile = false;
    constexpr bool ofReceipt = true;
    static const std::vector<BrokenLine> all = {
        {"FileLineOfTwoFields", ofFile, [](Fields& fields) { fields.pop_back(); }},
        {"FileLineOfFourFields", ofFile, [](Fields& fields) { fields.emplace_back("0"); }},
        {"FileLineWithAnEmptyFourthField", ofFile, [](Fields& fields) { fields.emplace_back(); }},
        {"EmptyLine", ofFile, [](Fields& fields) { fields = {""}; }},
        {"LineOfOneWord", ofFile, [](Fields& fields) { fields = {"receipt"}; }},
        {"ReceiptLineOfThreeFields", ofReceipt, [](Fields& fields) { fields.pop_back(); }},
        {"ReceiptLineOfFiveFields", ofReceipt, [](Fields& fields) { fields.emplace_back("0"); }},
        {"ReceiptLineWithoutSerial", ofReceipt, field(3, "")},
        {"ReceiptLineWithAWordForASerial", ofReceipt, field(3, "two")},
        {"ReceiptLineWithAPathForASerial", ofReceipt, field(3, "../receipts/2")},
        {"ReceiptLineWithASerialOf21Digits", ofReceipt, field(3, std::string(20, '0') + "2")},
        {"FileLineWithoutSerial", ofFile, field(2, "")},
        {"FileLineWithAWordForASerial", ofFile, field(2, "0x0")},
        {"FileLineWithASignedSerial", ofFile, field(2, "+0")},
        {"FileLineWithABlankInItsSerial", ofFile, field(2, " 0")},
        {"FileLineWithACarriageReturn", ofFile, field(2, "0\r")},
        {"FileLineWithAPathForASerial", ofFile, field(2, "../files/0")},
        {"FileLineWithASerialOf21Digits", ofFile, field(2, std::string(21, '0'))},
        {"FileLineWithoutDigest", ofFile, field(1, "")},
        {"FileLineWithADigestOf63Digits", ofFile, field(1, hash.substr(1))},
        {"FileLineWithADigestOf65Digits", ofFile, field(1, hash + "0")},
        {"FileLineWithAnUpperCaseDigest", ofFile, field(1, "ABCDEF" + hash.substr(6))},
        {"FileLineWithoutPath", ofFile, field(0, "")},
        {"AbsolutePath", ofFile, field(0, "/" + auPath("alpha"))},
        {"PathThatClimbsOut", ofFile, field(0, "../" + auPath("alpha"))},
        {"PathThatClimbsWithin", ofFile, field(0, auPath("alpha", "Contents/../Contents/MacOS/plugin"))},
        {"PathWithADoubleSlash", ofFile, field(0, auPath("alpha", "Contents//plugin"))},
        {"PathWithABackslash", ofFile, field(0, auPath("alpha", "Contents\\plugin"))},
        {"PathWithAnUnsafeCharacter", ofFile, field(0, auPath("alpha", "Contents/plu*in"))},
        {"PathOutsideTheProductsPlaces", ofFile, field(0, "Library/LaunchDaemons/some.plist")},
        {"PathOfAnotherMakersBundle", ofFile,
         field(0, "Library/Audio/Plug-Ins/Components/Other.component/x")},
        {"PathOfABundleItself", ofFile, field(0, "Library/Audio/Plug-Ins/Components/TP alpha.component")},
    };
    return all;
}

/// Alpha stands in both scopes. In both, a file and the index have been spoilt since, which a restoration
/// would put right.
Transaction prepareSpoiltMerging()
{
    const Transaction transaction = prepareMerging("system");
    for (const std::string scope : {"user", "system"}) {
        writeFile(auFile(scope, "alpha"), "spoilt", {ownerOf(scope), 0644});
        writeFile(indexOf(scope), "spoilt", {ownerOf(scope), 0600});
    }
    return transaction;
}

void expectNothingRestored(const Transaction& transaction, const Outcome& expected)
{
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.rollBack(), expected);
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.commit(), expected);
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");
}

class RestorationWith : public ::testing::TestWithParam<Obstacle> {};
INSTANTIATE_TEST_SUITE_P(, RestorationWith, ::testing::ValuesIn(obstacles()),
                         [](const auto& obstacle) { return obstacle.param.name; });

TEST_P(RestorationWith, ChangesNothing)
{
    const Transaction transaction = prepareSpoiltMerging();
    const SavedDisk genuine;
    for (const std::string role : {"target", "source"}) {
        GetParam().make(transaction, role);
        expectNothingRestored(transaction, GetParam().outcome);
        genuine.bringBack();
    }
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(readFile(auFile("user", "alpha")), "alpha au code 1.0\n");
    EXPECT_EQ(readFile(auFile("system", "alpha")), "alpha au code 1.0\n");
}

class RestorationFromAManifestWith : public ::testing::TestWithParam<BrokenLine> {};
INSTANTIATE_TEST_SUITE_P(, RestorationFromAManifestWith, ::testing::ValuesIn(brokenLines()),
                         [](const auto& broken) { return broken.param.name; });

TEST_P(RestorationFromAManifestWith, ChangesNothing)
{
    const Transaction transaction = prepareSpoiltMerging();
    for (const std::string role : {"target", "source"}) {
        const std::filesystem::path manifest = transaction.inside(authority(role, "manifest"));
        const std::string genuine = readFile(manifest);
        breakManifest(manifest, GetParam(), rootUid);
        expectNothingRestored(transaction, invalidManifest);
        writeFile(manifest, genuine, {rootUid, 0600});
    }
    EXPECT_EQ(transaction.rollBack(), succeeded());
}

TEST(Restoration, NeedsToKnowOfEveryTargetFileWhetherItWasThere)
{
    const Transaction transaction(Work("user").brings(plugin("alpha", "1.0")));
    placeFiles("user", plugin("alpha", "1.0"));
    removeAll(transaction.inside("target-absent/2"));
    const Tree before = takeExactTree();
    EXPECT_EQ(transaction.rollBack(), missingCopy);
    EXPECT_EQ(transaction.commit(), missingCopy);
    EXPECT_EQ(difference(before, takeExactTree()), "");
    EXPECT_EQ(transaction.state(), "prepared");

    makeDirectories(transaction.inside("target-absent/2"), {playerUid, 0755});
    EXPECT_EQ(transaction.rollBack(), missingCopy);
    removeAll(transaction.inside("target-absent/2"));
    writeFile(transaction.inside("target-absent/2"), "absent\n", {playerUid, 0600});
    EXPECT_EQ(transaction.rollBack(), succeeded());
}

TEST(Restoration, AcceptsASerialOfTwentyDigitsAndALastLineWithoutLineFeed)
{
    const Transaction transaction = prepareRepair("user");
    removeFiles("user", plugin("alpha", "1.0").au);
    const std::filesystem::path manifest = transaction.inside("authority-target/manifest");
    const std::string serial = "09999999999999999999";
    breakManifest(manifest, {"", false, field(2, serial)}, playerUid);
    std::filesystem::rename(transaction.inside("authority-target/files/0"),
                            transaction.inside("authority-target/files/" + serial));
    const std::string text = readFile(manifest);
    writeFile(manifest, text.substr(0, text.size() - 1), {playerUid, 0600});
    EXPECT_EQ(transaction.rollBack(), succeeded());
    for (const auto& [path, content] : plugin("alpha", "1.0").au.files)
        EXPECT_EQ(readFile(placeOf("user", path)), content);
}

// A transaction in the user's home can be forged by the account.

/// Adds a file line, with a matching copy, at the head of a manifest in the user's home.
void forgeFile(const Transaction& transaction, const std::string& path, const std::string& content)
{
    const std::filesystem::path manifest = transaction.inside("authority-target/manifest");
    writeFile(transaction.inside("authority-target/files/90"), content, {playerUid, 0600});
    writeFile(manifest, path + "\t" + sha256OfText(content) + "\t90\n" + readFile(manifest),
              {playerUid, 0600});
}

class ForgedPath : public ::testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(, ForgedPath,
                         ::testing::Values("../../" + auPath("beta"), "/" + auPath("beta"),
                                           "Library/Audio/Plug-Ins/Components/../../../../../" +
                                               auPath("beta"),
                                           "../../etc/cron.d/forged", "/etc/cron.d/forged",
                                           ".ssh/authorized_keys", "Library/LaunchAgents/forged.plist",
                                           "Library/Application Support/Tamarind Pelican/Maintenance/forged",
                                           "/Users/other/" + auPath("beta"), "../other/" + auPath("beta")));

TEST_P(ForgedPath, IsNeitherWrittenNorRemoved)
{
    install("system", plugin("beta", "1.0"));
    const Transaction transaction = prepareRepair("user");
    forgeFile(transaction, GetParam(), "forged");
    const std::vector<std::string> places = {"/Library", "/Users", "/var/db/receipts", "/etc/cron.d"};
    const Tree before = takeExactTree(places);
    EXPECT_EQ(transaction.rollBack(), invalidManifest);
    EXPECT_EQ(transaction.commit(), invalidManifest);
    EXPECT_EQ(difference(before, takeExactTree(places)), "");
}

TEST(ForgedManifest, ReachesTheUsersScopeOnly)
{
    const Transaction transaction = prepareRepair("user");
    install("system", plugin("alpha", "1.0"));
    const std::vector<std::string> systems = {"/Library", "/var/db/receipts"};
    const Tree before = takeExactTree(systems);
    forgeFile(transaction, auPath("alpha", "Contents/forged"), "forged");
    EXPECT_EQ(transaction.rollBack(), succeeded());
    EXPECT_EQ(difference(before, takeExactTree(systems)), "");
    EXPECT_EQ(describe(auFile("user", "alpha", "Contents/forged")), "file 501 0600");
}

TEST(ForgedManifest, ReachesNoFileOfAnotherProduct)
{
    const Plugin beta = plugin("beta", "1.0");
    const Transaction transaction = prepareRepair("user");
    install("user", beta);
    forgeFile(transaction, auPath("beta"), "forged");
    const Tree others = exactBundles("user", "beta");
    transaction.rollBack();
    EXPECT_EQ(difference(others, exactBundles("user", "beta")), "");
}

TEST(ForgedManifest, MakesNoFileOfAnotherProductAStaleOne)
{
    const Plugin beta = plugin("beta", "1.0");
    const Transaction transaction = prepareRepair("user");
    install("user", beta);
    forgeFile(transaction, auPath("beta"), beta.au.files.at(auPath("beta")));
    const Tree others = exactBundles("user", "beta");
    EXPECT_EQ(transaction.commit(), succeeded());
    EXPECT_EQ(difference(others, exactBundles("user", "beta")), "");
}

} // namespace
} // namespace maintenance::rehearsed
