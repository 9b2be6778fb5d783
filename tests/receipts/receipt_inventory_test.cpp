#include "receipts/receipt_inventory.h"

#include "support/child.h"
#include "support/scene.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace maintenance::rehearsed {
namespace {

const Outcome repair = succeeded("{\"status\":\"repair\"}\n");
const Outcome evidenceIncomplete = refused("pkgutil receipt evidence is incomplete");
const Outcome outsideRoot = refused("pkgutil receipt metadata is outside the fixed install root");
const Outcome fileMissing = refused("pkgutil receipt-owned file is missing");
const Outcome foreignFile = refused("pkgutil receipt inventory contains a link or foreign file");
const Outcome noFiles = refused("pkgutil receipt has no installed regular files");
const Outcome outsideDestinations = refused("owned path is outside fixed Tamarind Pelican destinations");
const std::string vst3Id = "com.tamarindpelican.pkg.alpha.vst3";
const std::string codePath = vst3Path("alpha");
const std::string artPath = vst3Path("alpha", "Contents/Resources/art.txt");

/// Installs alpha in the scope and describes it at its version.
void installAlpha(const std::string& scope = "user")
{
    const Plugin alpha = plugin("alpha", "1.0");
    install(scope, alpha);
    publish(Work(scope).brings(alpha, "1.0"), "inspect-alpha");
}

Outcome inspectAlpha(const std::string& scope = "user") { return run({"inspect", scope, "inspect-alpha"}); }

/// Registers alpha's VST3 package in the user scope with exactly these paths.
void listPaths(const std::vector<std::string>& paths) { writeReceipt("user", vst3Id, "1.0", paths); }

/// Lets every description of alpha's VST3 package be exactly `output`.
void describePackage(const std::string& output)
{
    writeFile("/tmp/description", output);
    instructPkgutil("command=--pkg-info id=*.alpha.vst3 do replace=/tmp/description\n");
}

/// What the inventory says of one package: version, then path and digest of each file.
Ending inventoryOf(const std::string& scope, const std::string& packageId, bool verify)
{
    return endingOf([&] {
        const ReceiptInventory inventory = pkgutilReceipts(scope, verify);
        const Receipt& receipt = inventory.at(packageId);
        std::string lines = receipt.packageId + " " + receipt.version + "\n";
        for (const ReceiptFile& file : receipt.files)
            lines += file.path + " " + (file.sha256.empty() ? "-" : file.sha256) + "\n";
        return lines;
    });
}

/// The same, as it is expected of a package whose files are these.
Ending recorded(const Package& package, bool hashed)
{
    std::string lines = package.id + " " + package.version + "\n";
    for (const auto& [path, content] : package.files)
        lines += path + " " + (hashed ? systemSha256(content) : "-") + "\n";
    return returned(lines);
}

TEST(ReceiptInventory, HoldsEveryFileOfBothScopesWithItsDigest)
{
    for (const std::string scope : {"user", "system"}) {
        const Plugin alpha = plugin("alpha", "1.0");
        install(scope, alpha);
        EXPECT_EQ(inventoryOf(scope, vst3Id, true), recorded(alpha.vst3, true));
        EXPECT_EQ(inventoryOf(scope, alpha.au.id, true), recorded(alpha.au, true));
        EXPECT_EQ(inventoryOf(scope, vst3Id, false), recorded(alpha.vst3, false));
    }
}

TEST(ReceiptInventory, WithoutVerificationReadsNoFile)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", alpha);
    for (const std::string& path : alpha.paths()) {
        setOwner(rootOf("user") / path, rootUid);
        setMode(rootOf("user") / path, 0);
    }
    EXPECT_EQ(asAccount(playerUid, [] { return inventoryOf("user", vst3Id, false).text; }).text,
              recorded(alpha.vst3, false).text);
}

TEST(ReceiptInventory, OfAFileThatTheAccountMayNotReadIsRefused)
{
    installAlpha();
    makeLayout("system");
    setOwner(rootOf("user") / codePath, rootUid);
    setMode(rootOf("user") / codePath, 0600);
    EXPECT_EQ(run({"inspect", "user", "inspect-alpha"}, asPlayer()), refused("cannot read an owned file"));
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(ReceiptInventory, HasOneEntryForEachLineInTheOrderOfTheListing)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", alpha);
    listPaths({artPath, "Library", codePath, artPath});
    const std::string art = systemSha256(alpha.vst3.files.at(artPath));
    const std::string code = systemSha256(alpha.vst3.files.at(codePath));
    EXPECT_EQ(inventoryOf("user", vst3Id, true),
              returned(vst3Id + " 1.0\n" + artPath + " " + art + "\n" + codePath + " " + code + "\n" +
                       artPath + " " + art + "\n"));
}

TEST(ReceiptInventory, OfTwoPackagesThatListTheSamePathKeepsItInBoth)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", alpha);
    std::vector<std::string> shared = alpha.paths();
    for (const Package* package : {&alpha.vst3, &alpha.au})
        writeReceipt("user", package->id, "1.0", shared);
    const ReceiptInventory inventory = pkgutilReceipts("user", true);
    ASSERT_EQ(inventory.size(), 2U);
    for (const auto& [id, receipt] : inventory)
        EXPECT_EQ(receipt.files.size(), shared.size()) << id;
}

TEST(ReceiptInventory, HasAnIdentityTextOfPackageVersionAndPathsInListedOrder)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", alpha);
    listPaths({"Library", codePath, artPath});
    const std::string expected =
        "pkgutil=" + vst3Id + "\nversion=1.0\nfile=" + codePath + "\nfile=" + artPath + "\n";
    for (const bool verify : {true, false})
        EXPECT_EQ(pkgutilReceipts("user", verify).at(vst3Id).text, expected);
    removeAll(rootOf("user") / codePath);
    EXPECT_EQ(pkgutilReceipts("user", false).at(vst3Id).text, expected);
}

TEST(ReceiptInventory, TakesTheSystemForEveryScopeWordButUser)
{
    install("system", plugin("alpha", "1.0"));
    for (const char* scope : {"system", "User", "none", ""})
        EXPECT_EQ(pkgutilReceipts(scope, true).size(), 2U) << scope;
    EXPECT_TRUE(pkgutilReceipts("user", true).empty());
}

TEST(ReceiptInventory, AlwaysAsksForDescriptionAndFilesBeforeItRefuses)
{
    installAlpha();
    const std::string question = "--volume /Users/player --";
    for (const std::string command : {"--pkg-info", "--files"})
        for (const std::string failure :
             {"exit=1", "exit=1 cut=0", "exit=70", "exit=255", "kill=KILL", "kill-after=SEGV"}) {
            instructPkgutil("do match=prefix\ncommand=" + command + " do " + failure + "\n");
            forgetPkgutilCalls();
            const Tree before = takeExactTree();
            EXPECT_EQ(inspectAlpha(), evidenceIncomplete) << command << failure;
            const std::vector<std::string> calls = pkgutilCalls();
            ASSERT_EQ(calls.size(), 3U) << command << failure;
            EXPECT_EQ(calls[1], question + "pkg-info com.tamarindpelican.pkg.alpha.au");
            EXPECT_EQ(calls[2], question + "files com.tamarindpelican.pkg.alpha.au");
            EXPECT_EQ(difference(before, takeExactTree()), "");
        }
}

TEST(ReceiptInventory, OfAPackageThatVanishesAfterTheListingIsRefused)
{
    installAlpha();
    instructPkgutil("call=2 do after=\"rm " + receiptOf("user", vst3Id).native() + "\"\n");
    EXPECT_EQ(inspectAlpha(), evidenceIncomplete);
}

TEST(ReceiptInventory, AcceptsAnEmptyLocationADotAndASlash)
{
    for (const std::string scope : {"user", "system"}) {
        const Plugin alpha = plugin("alpha", "1.0");
        installAlpha(scope);
        for (const std::string location : {"", ".", "/"}) {
            registerPackage(scope, alpha.vst3, location);
            EXPECT_EQ(inspectAlpha(scope), repair) << scope << location;
        }
        removeFiles(scope, alpha);
        unregister(scope, alpha.vst3.id);
        unregister(scope, alpha.au.id);
    }
}

TEST(ReceiptInventory, RefusesEveryOtherLocation)
{
    installAlpha();
    for (const std::string location : {"Applications", "/Applications", "Library", "//", "./", "..", " ",
                                       "/ ", "/Users/player", "/\r", "\t"}) {
        registerPackage("user", plugin("alpha", "1.0").vst3, location);
        const Tree before = takeExactTree();
        EXPECT_EQ(inspectAlpha(), outsideRoot) << location;
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(ReceiptInventory, AcceptsADescriptionWithoutALocation)
{
    installAlpha();
    describePackage("package-id: x\nversion: 1.0\n");
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(ReceiptInventory, AcceptsADescriptionWithoutAFinalLineFeed)
{
    installAlpha();
    describePackage("location: /\nversion: 1.0");
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(ReceiptInventory, TakesTheLaterOfTwoLinesOfADescription)
{
    installAlpha();
    describePackage("version: nonsense\nlocation: Applications\nversion: 1.0\nlocation: /\n");
    EXPECT_EQ(inspectAlpha(), repair);
    describePackage("version: 1.0\nlocation: /\nlocation: Applications\n");
    EXPECT_EQ(inspectAlpha(), outsideRoot);
    describePackage("version: 1.0\nversion: nonsense\n");
    EXPECT_EQ(inspectAlpha(), outsideRoot);
    describePackage("version: 1.0\nversion: \n");
    EXPECT_EQ(inspectAlpha(), outsideRoot);
}

TEST(ReceiptInventory, IgnoresEveryOtherLineOfADescription)
{
    installAlpha();
    describePackage(
        "noise on standard error\n\n" + std::string(1048576, 'x') +
        "\nversion\nversion:\nVersion: 9\n version: 9\nlocation:/x\nvolume: /elsewhere\nversion: 1.0\n");
    EXPECT_EQ(inspectAlpha(), repair);
}

TEST(ReceiptInventory, RefusesADescriptionWithoutAValidVersion)
{
    installAlpha();
    for (const std::string line :
         {"", "version:1.0\n", "version: \n", "version: 1.0 \n", "version: 1.0\r\n", "version:  1.0\n",
          "version: 01\n", "version: 1.\n", "version: 1.2.3.4.5\n", "version: 1a\n", "version: -1\n"}) {
        describePackage(line + "location: /\n");
        EXPECT_EQ(inspectAlpha(), outsideRoot) << line;
    }
    describePackage("version: 1." + std::string(1048576, '.') + "\nlocation: /\n");
    EXPECT_EQ(inspectAlpha(), outsideRoot);
}

TEST(ReceiptInventory, RefusesADescriptionThatIsCutShort)
{
    installAlpha();
    instructPkgutil("command=--pkg-info id=*.alpha.vst3 do cut=52\n");
    EXPECT_EQ(inspectAlpha(), outsideRoot);
    instructPkgutil("command=--pkg-info id=*.alpha.vst3 do cut=0\n");
    EXPECT_EQ(inspectAlpha(), outsideRoot);
}

TEST(ReceiptInventory, RefusesAListedPathThatIsMissing)
{
    for (const std::string scope : {"user", "system"}) {
        installAlpha(scope);
        removeAll(rootOf(scope) / artPath);
        const Tree before = takeExactTree();
        EXPECT_EQ(inspectAlpha(scope), fileMissing);
        EXPECT_EQ(difference(before, takeExactTree()), "");
        removeFiles(scope, plugin("alpha", "1.0"));
        EXPECT_EQ(inspectAlpha(scope), fileMissing);
        for (const char* kind : {"vst3", "au"})
            unregister(scope, std::string("com.tamarindpelican.pkg.alpha.") + kind);
    }
}

TEST(ReceiptInventory, RefusesAListedDirectoryThatIsMissing)
{
    installAlpha();
    listPaths({"Library", "Library/Audio/Gone", codePath});
    EXPECT_EQ(inspectAlpha(), fileMissing);
}

TEST(ReceiptInventory, RefusesAListingThatIsCutInsideAPath)
{
    installAlpha();
    instructPkgutil("command=--files id=*.alpha.vst3 do cut=" + std::to_string(300) + "\n");
    EXPECT_EQ(inspectAlpha(), fileMissing);
}

TEST(ReceiptInventory, RefusesNoiseAmongTheFiles)
{
    installAlpha();
    instructPkgutil("command=--files do stderr=\"slow database\"\n");
    EXPECT_EQ(inspectAlpha(), fileMissing);
    instructPkgutil("command=--files do stderr=\"pkgutil[7:1] slow database\"\n");
    EXPECT_EQ(inspectAlpha(), refused("owned path contains an unsafe character"));
    instructPkgutil("command=--files do long-line=1048576\n");
    EXPECT_EQ(inspectAlpha(), fileMissing);
}

TEST(ReceiptInventory, RefusesTwinEntriesThatAreNotOnDisk)
{
    installAlpha();
    instructPkgutil("do twins=yes\n");
    const Tree before = takeExactTree();
    EXPECT_EQ(inspectAlpha(), fileMissing);
    EXPECT_EQ(difference(before, takeExactTree()), "");
}

TEST(ReceiptInventory, RefusesTwinEntriesOfDirectoriesOutsideTheDestinations)
{
    installAlpha();
    listPaths({"Library", "Library/._Audio", codePath});
    writeFile(rootOf("user") / "Library/._Audio", "twin", {playerUid, 0644});
    EXPECT_EQ(inspectAlpha(), outsideDestinations);
}

TEST(ReceiptInventory, TakesTwinEntriesInsideABundleForFiles)
{
    installAlpha();
    const std::string twin = vst3Path("alpha", "Contents/MacOS/._plugin");
    listPaths({twin, codePath});
    writeFile(rootOf("user") / twin, "twin", {playerUid, 0644});
    EXPECT_EQ(inspectAlpha(), repair);
    EXPECT_NE(inventoryOf("user", vst3Id, true).text.find(twin + " " + systemSha256("twin")),
              std::string::npos);
}

TEST(ReceiptInventory, SkipsDotsBlankLinesAndDirectories)
{
    installAlpha();
    writeFile("/tmp/files", "\n.\n\nLibrary\nLibrary/Audio\n\n" + codePath + "\n.\n" + artPath);
    instructPkgutil("command=--files id=*.alpha.vst3 do replace=/tmp/files\n");
    EXPECT_EQ(inspectAlpha(), repair);
    EXPECT_EQ(pkgutilReceipts("user", true).at(vst3Id).files.size(), 2U);
}

TEST(ReceiptInventory, OfDirectoriesAloneIsRefused)
{
    installAlpha();
    for (const std::vector<std::string>& paths :
         {std::vector<std::string>{}, {"."}, {"Library", "Library/Audio"}, {"", "."}}) {
        listPaths(paths);
        EXPECT_EQ(inspectAlpha(), noFiles);
        EXPECT_EQ(inventoryOf("user", vst3Id, false), invalid(noFiles.err.substr(0, noFiles.err.size() - 1)));
    }
}

TEST(ReceiptInventory, RefusesPathsByTheRulesOfOwnedPaths)
{
    installAlpha();
    const std::map<std::string, std::string> refusals = {
        {"/" + codePath, "owned path is not relative"},
        {"Library\\Audio", "owned path is not relative"},
        {"/", "owned path is not relative"},
        {"Library/caf\xc3\xa9", "owned path contains an unsafe character"},
        {"Library/a@b", "owned path contains an unsafe character"},
        {codePath + "\r", "owned path contains an unsafe character"},
        {"Library\tAudio", "owned path contains an unsafe character"},
        {"./" + codePath, "owned path contains traversal or is not normalized"},
        {"Library//Audio", "owned path contains traversal or is not normalized"},
        {"Library/../Library", "owned path contains traversal or is not normalized"},
        {"Library/Audio/..", "owned path contains traversal or is not normalized"}};
    for (const auto& [path, message] : refusals) {
        listPaths({codePath, path});
        EXPECT_EQ(inspectAlpha(), refused(message)) << path;
        EXPECT_EQ(inventoryOf("user", vst3Id, false), invalid(message)) << path;
    }
}

TEST(ReceiptInventory, RefusesAFileOutsideTheDestinations)
{
    installAlpha();
    const std::string stray = "Library/stray";
    writeFile(rootOf("user") / stray, "stray", {playerUid, 0644});
    listPaths({codePath, stray});
    EXPECT_EQ(inspectAlpha(), outsideDestinations);
    const std::string bundle = "Library/Audio/Plug-Ins/Components/Foreign.component/file";
    writeFile(rootOf("user") / bundle, "foreign", {playerUid, 0644});
    listPaths({codePath, bundle});
    EXPECT_EQ(inspectAlpha(), refused("owned path is not a Tamarind Pelican plugin bundle"));
    writeFile("/Users/stray", "stray", {playerUid, 0644});
    listPaths({codePath, "../stray"});
    EXPECT_EQ(inspectAlpha(), outsideDestinations);
}

TEST(ReceiptInventory, RefusesEverythingButSingleLinkedRegularFiles)
{
    installAlpha();
    const std::filesystem::path place = rootOf("user") / artPath;
    const std::vector<std::pair<std::string, std::function<void()>>> plants = {
        {"link", [&] { makeLink(place, rootOf("user") / codePath); }},
        {"dangling link", [&] { makeLink(place, "/nowhere"); }},
        {"link to a directory", [&] { makeLink(place, "/Users/player/Library"); }},
        {"pipe", [&] { makePipe(place, playerUid); }},
        {"socket", [&] { makeSocket(place, playerUid); }},
        {"device", [&] { ASSERT_EQ(::mknod(place.c_str(), S_IFCHR | 0600, ::makedev(1, 3)), 0); }},
        {"hard link", [&] { makeHardLink(place, rootOf("user") / codePath); }},
    };
    for (const auto& [what, plant] : plants) {
        removeAll(place);
        plant();
        const Tree before = takeExactTree();
        EXPECT_EQ(inspectAlpha(), foreignFile) << what;
        EXPECT_EQ(inventoryOf("user", vst3Id, false),
                  invalid("pkgutil receipt inventory contains a link or foreign file"))
            << what;
        EXPECT_EQ(difference(before, takeExactTree()), "");
    }
}

TEST(ReceiptInventory, FollowsLinksInTheDirectoriesAboveAFile)
{
    installAlpha();
    std::filesystem::rename("/Users/player/Library/Audio", "/Users/player/Sounds");
    makeLink("/Users/player/Library/Audio", "/Users/player/Sounds");
    listPaths({"Library", codePath, artPath});
    const Plugin alpha = plugin("alpha", "1.0");
    writeReceipt("user", alpha.au.id, "1.0", {auPath("alpha")});
    EXPECT_EQ(inspectAlpha(), repair);
    EXPECT_EQ(inventoryOf("user", vst3Id, true), recorded(alpha.vst3, true));
}

TEST(ReceiptInventory, RefusesALinkThatTheListingNamesAsADirectory)
{
    installAlpha();
    std::filesystem::rename("/Users/player/Library/Audio", "/Users/player/Sounds");
    makeLink("/Users/player/Library/Audio", "/Users/player/Sounds");
    EXPECT_EQ(inspectAlpha(), outsideDestinations);
}

/// Tells whether a call opens the file at `place` from its directory.
bool opens(const SystemCall& call, const std::filesystem::path& place)
{
    if (!call.is(SYS_openat, place.filename()))
        return false;
    const std::string directory =
        "/proc/" + std::to_string(call.process) + "/fd/" + std::to_string(call.arguments[0]);
    return std::filesystem::read_symlink(directory) == place.parent_path();
}

TEST(ReceiptInventory, OfAFileExchangedWhileItIsOpenedIsRefused)
{
    installAlpha();
    const std::string place = rootOf("user") / codePath;
    const auto exchange = [&](const SystemCall& call) {
        if (opens(call, place)) {
            writeFile("/Users/player/other", readFile(place), {playerUid, 0644});
            std::filesystem::rename("/Users/player/other", place);
        }
        return 0;
    };
    EXPECT_EQ(stopping({SYS_openat}, exchange, [] { pkgutilReceipts("user", true); }),
              invalid("pkgutil receipt-owned file changed during validation"));
}

TEST(ReceiptInventory, OfAFileExchangedForALinkOrAPipeIsRefusedWithoutWaiting)
{
    installAlpha();
    const std::string place = rootOf("user") / codePath;
    const auto exchangingFor = [&](const std::function<void()>& plant) {
        return stopping(
            {SYS_openat},
            [&](const SystemCall& call) {
                if (opens(call, place)) {
                    removeAll(place);
                    plant();
                }
                return 0;
            },
            [] { pkgutilReceipts("user", true); });
    };
    EXPECT_EQ(exchangingFor([&] { makeLink(place, "/etc/passwd"); }), invalid("cannot read an owned file"));
    removeAll(place);
    writeFile(place, "code", {playerUid, 0644});
    EXPECT_EQ(exchangingFor([&] { makePipe(place, playerUid); }),
              invalid("pkgutil receipt-owned file changed during validation"));
}

TEST(ReceiptInventory, OfAFileThatCannotBeReadIsRefused)
{
    installAlpha();
    EXPECT_EQ(failing(SYS_pread64, 1, EIO, [] { pkgutilReceipts("user", true); }),
              invalid("cannot hash an owned file"));
}

TEST(ReceiptInventory, WithoutVerificationRecordsMissingFilesWithoutADigest)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", alpha);
    removeFiles("user", alpha);
    EXPECT_EQ(inventoryOf("user", vst3Id, false), recorded(alpha.vst3, false));
    removeAll("/Users/player/Library/Audio");
    EXPECT_EQ(inventoryOf("user", vst3Id, false), recorded(alpha.vst3, false));
}

TEST(ReceiptInventory, WithoutVerificationSkipsMissingPathsThatCannotBeOwned)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", alpha);
    listPaths({"Library/Gone", "Library/Audio/Plug-Ins/Components/Foreign.component/x", codePath,
               "../../gone", artPath});
    EXPECT_EQ(inventoryOf("user", vst3Id, false), recorded(alpha.vst3, false));
    removeFiles("user", alpha);
    EXPECT_EQ(inventoryOf("user", vst3Id, false), recorded(alpha.vst3, false));
}

TEST(ReceiptInventory, WithoutVerificationSkipsMissingPathsAboveOtherListedOnes)
{
    const Plugin alpha = plugin("alpha", "1.0");
    const std::string contents = vst3Path("alpha", "Contents");
    install("user", alpha);
    removeAll(rootOf("user") / contents);
    // Names that differ from a directory's only behind its own come between it and what lies in it.
    listPaths({contents, contents + "-old", contents + " x", contents + ".x", codePath, artPath});
    EXPECT_EQ(inventoryOf("user", vst3Id, false),
              returned(vst3Id + " 1.0\n" + contents + "-old -\n" + contents + " x -\n" + contents + ".x -\n" +
                       codePath + " -\n" + artPath + " -\n"));
    listPaths({artPath, codePath, contents});
    EXPECT_EQ(inventoryOf("user", vst3Id, false),
              returned(vst3Id + " 1.0\n" + artPath + " -\n" + codePath + " -\n"));
}

TEST(ReceiptInventory, WithoutVerificationTakesAMissingPathBelowAFileForAbsent)
{
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", alpha);
    const std::string below = codePath + "/inside";
    listPaths({artPath, below});
    EXPECT_EQ(inventoryOf("user", vst3Id, false),
              returned(vst3Id + " 1.0\n" + artPath + " -\n" + below + " -\n"));
}

TEST(ReceiptInventory, WithoutVerificationNeverTakesAnImpossibleNameForAbsence)
{
    install("user", plugin("alpha", "1.0"));
    instructPkgutil("command=--files do long-line=1048576\n");
    EXPECT_EQ(endingOf([] { pkgutilReceipts("user", false); }).kind, "system error");
    EXPECT_EQ(endingOf([] { pkgutilReceipts("user", true); }),
              invalid("pkgutil receipt-owned file is missing"));
}

TEST(ReceiptInventory, HashesFilesInADirectoryThatTheAccountMayOnlyPass)
{
    install("system", commonPackage());
    install("system", plugin("alpha", "1.0"));
    publish(Work("user").from("system").brings(plugin("alpha", "1.0"), "-"), "pass");
    const std::filesystem::path directory = (rootOf("system") / vst3Path("alpha")).parent_path();
    setMode(directory, 0711);
    EXPECT_EQ(pkgutilReceipts("system", true).size(), 3U);
    EXPECT_EQ(asAccount(playerUid, [] { return std::to_string(pkgutilReceipts("system", true).size()); }),
              returned("3"));
    setMode(directory, 0700);
    EXPECT_EQ(asAccount(playerUid, [] { pkgutilReceipts("system", true); }).kind, "Invalid");
}

TEST(ReceiptInventory, WithoutVerificationNeverTakesAnUnreadableDirectoryForAbsence)
{
    install("user", plugin("alpha", "1.0"));
    setMode("/Users/player/Library/Audio", 0);
    setOwner("/Users/player/Library/Audio", rootUid);
    EXPECT_EQ(asAccount(playerUid, [] { pkgutilReceipts("user", false); }).kind, "system error");
    EXPECT_EQ(asAccount(playerUid, [] { pkgutilReceipts("user", true); }),
              invalid("pkgutil receipt-owned file is missing"));
}

TEST(ReceiptInventory, LeavesNoDescriptorOpen)
{
    installAlpha();
    const std::size_t before = openDescriptors();
    pkgutilReceipts("user", true);
    listPaths({"Library/gone"});
    EXPECT_NE(inventoryOf("user", vst3Id, true).kind, "returned");
    EXPECT_EQ(openDescriptors(), before);
}

} // namespace
} // namespace maintenance::rehearsed
