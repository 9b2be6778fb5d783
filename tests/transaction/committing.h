#pragma once

#include "fs/sha256.h"
#include "support/child.h"
#include "support/scene.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// Helpers for tests that end a prepared transaction.
namespace maintenance::rehearsed {

/// A transaction that was prepared by the real program.
class Transaction {
public:
    explicit Transaction(Work work, std::string id = "move-1", const Surroundings& surroundings = {})
        : work_(std::move(work)), id_(publish(work_, id))
    {
        const Outcome outcome = prepare(surroundings);
        if (outcome != succeeded())
            throw std::runtime_error("cannot prepare: " + outcome.err);
        text_ = readFile(inside("prepared"));
    }

    const Work& work() const { return work_; }
    const std::string& id() const { return id_; }
    /// The bytes of the prepared file, of every lease and of the completed record.
    const std::string& text() const { return text_; }
    std::filesystem::path directory() const { return transactionOf(work_.authority(), id_); }
    std::filesystem::path inside(const std::string& name) const { return directory() / name; }
    std::filesystem::path completed() const { return completedOf(work_.authority(), id_); }

    Outcome prepare(const Surroundings& surroundings = {}) const
    {
        return call("prepare-move", surroundings);
    }
    Outcome commit(const Surroundings& surroundings = {}) const { return call("commit-move", surroundings); }
    Outcome rollBack(const Surroundings& surroundings = {}) const
    {
        return call("rollback-move", surroundings);
    }

    /// "prepared", "abandoned", "completed", or a line of what is there when it is none of these.
    std::string state() const
    {
        std::string found;
        if (isThere(completed()))
            found += readFile(completed()) == text_ ? "record " : "other record ";
        if (isThere(directory()))
            found += isThere(inside("prepared")) && readFile(inside("prepared")) == text_ ? "directory "
                                                                                          : "bare directory ";
        for (const std::string& scope : work_.involved())
            if (isThere(leaseOf(scope)))
                found += (readFile(leaseOf(scope)) == text_ ? "lease in " : "other lease in ") + scope + " ";
        std::string allLeases;
        for (const std::string& scope : work_.involved())
            allLeases += "lease in " + scope + " ";
        if (found == "record ")
            return "completed";
        if (found == "directory ")
            return "abandoned";
        return found == "directory " + allLeases ? "prepared" : found;
    }

private:
    Outcome call(const std::string& command, const Surroundings& surroundings) const
    {
        return run({command, work_.target(), id_}, surroundings);
    }

    Work work_;
    std::string id_;
    std::string text_;
};

/// Products with their versions.
using Versions = std::vector<std::pair<std::string, std::string>>;

inline std::string recordText(const std::string& product, const std::string& version)
{
    return "product=" + product + "\nversion=" + version + "\n";
}

/// The index of a scope; `versions` in the order in which they stand there.
inline std::string indexText(const std::string& scope, const Versions& versions)
{
    std::string entries;
    for (const auto& [product, version] : versions)
        entries += std::string(entries.empty() ? "" : ",") + R"({"productId":")" + product +
                   R"(","scope":")" + scope + R"(","version":")" + version + R"("})";
    return R"({"products":[)" + entries + R"(],"schema":"tamarind.pelican.installed-products.v1"})" + "\n";
}

/// Writes index and records as earlier transactions have left them.
inline void recordProducts(const std::string& scope, const Versions& versions)
{
    makeLayout(scope);
    for (const auto& [product, version] : versions)
        writeFile(recordOf(scope, product), recordText(product, version), {ownerOf(scope), 0600});
    writeFile(indexOf(scope), indexText(scope, versions), {ownerOf(scope), 0600});
}

/// The pending attempt that begin-install leaves for a descriptor.
inline std::string pendingText(const Work& work, const std::string& id)
{
    return "schema=tamarind.pelican.macos-maintenance-attempt.v1\nsku=studio-bundle\npackageRevision=7\n"
           "planSha256=" +
           generationOf('a') + "\ndescriptorSha256=" + sha256OfText(work.text()) + "\ntransaction=" + id +
           "\ntargetScope=" + work.target() + "\n";
}

inline void writePending(const Work& work, const std::string& id)
{
    writeFile(pendingOf(work.target()), pendingText(work, id), {ownerOf(work.target()), 0600});
}

/// What both scopes and the package database must hold after a run: everything as it stands now, but for what
/// is told here.
class ExpectedDisk {
public:
    ExpectedDisk() : tree_(takeTree()) {}

    /// A file, or a directory with everything in it, is gone.
    ExpectedDisk& without(const std::filesystem::path& path)
    {
        std::erase_if(tree_, [&](const auto& entry) {
            return entry.first == path.native() || entry.first.starts_with(path.native() + "/");
        });
        return *this;
    }

    ExpectedDisk& withoutFiles(const std::string& scope, const Package& package)
    {
        for (const auto& [path, content] : package.files)
            without(rootOf(scope) / path);
        return *this;
    }

    /// `description` as describe() gives it.
    ExpectedDisk& withFile(const std::filesystem::path& path, const std::string& content,
                           const std::string& description)
    {
        tree_[path.native()] = description + " " + sha256OfText(content);
        return *this;
    }

    ExpectedDisk& withDirectory(const std::filesystem::path& path, const std::string& description)
    {
        tree_[path.native()] = description;
        return *this;
    }

    /// Index and records hold exactly these products.
    ExpectedDisk& withProducts(const std::string& scope, const Versions& versions)
    {
        const std::filesystem::path records = maintenanceOf(scope) / "Products";
        without(records);
        withDirectory(records, directoryOf(scope));
        for (const auto& [product, version] : versions)
            withFile(recordOf(scope, product), recordText(product, version), metadataFileOf(scope));
        if (versions.empty())
            return without(indexOf(scope));
        return withFile(indexOf(scope), indexText(scope, versions), metadataFileOf(scope));
    }

    /// The transaction has ended: its record stands, everything else of it is gone.
    ExpectedDisk& withEndOf(const Transaction& transaction)
    {
        for (const std::string& scope : transaction.work().involved())
            without(leaseOf(scope));
        without(transaction.directory());
        without(pendingOf(transaction.work().target()));
        return withFile(transaction.completed(), transaction.text(),
                        metadataFileOf(transaction.work().authority()));
    }

    /// Removes and forgets a package that the scope no longer has.
    ExpectedDisk& withoutPackage(const std::string& scope, const Package& package)
    {
        without(receiptOf(scope, package.id));
        return withoutFiles(scope, package);
    }

    ExpectedDisk& withoutProduct(const std::string& scope, const Plugin& product)
    {
        withoutPackage(scope, product.vst3);
        return withoutPackage(scope, product.au);
    }

    /// How the disk differs from the expectation; empty when it does not.
    std::string differenceNow() const { return difference(tree_, takeTree()); }

private:
    Tree tree_;
};

/// A shell command, for pkgutil rules, that kills the program that is calling pkgutil.
inline const std::string killCaller = "read -r a b c caller rest < /proc/$PPID/stat; kill -KILL $caller";

/// A pkgutil rule that runs a shell command at the calls selected by `selector`, before they do anything.
inline std::string ruleBefore(const std::string& selector, const std::string& command)
{
    return selector + " do before=\"" + command + "\"\n";
}

inline std::string ruleAfter(const std::string& selector, const std::string& command)
{
    return selector + " do after=\"" + command + "\"\n";
}

/// The same, killing the program there; pkgutil itself does nothing then.
inline std::string ruleKillBefore(const std::string& selector)
{
    return selector + " do before=\"" + killCaller + "\" kill=KILL\n";
}

/// The same, once pkgutil has done its work.
inline std::string ruleKillAfter(const std::string& selector) { return ruleAfter(selector, killCaller); }

/// Every call so far that told pkgutil to forget a package.
inline std::vector<std::string> forgottenPackages()
{
    std::vector<std::string> forgotten;
    for (const std::string& call : pkgutilCalls())
        if (call.find(" --forget ") != std::string::npos)
            forgotten.push_back(call);
    return forgotten;
}

inline std::string forgetCall(const std::string& scope, const std::string& packageId)
{
    return "--volume " + rootOf(scope).native() + " --forget " + packageId;
}

inline std::filesystem::path placeOf(const std::string& scope, const std::string& path)
{
    return rootOf(scope) / path;
}

/// A product and the shared package in a scope, with index and record.
inline void installWithRecords(const std::string& scope, const std::vector<Plugin>& products)
{
    Versions versions;
    install(scope, commonPackage());
    for (const Plugin& product : products) {
        install(scope, product);
        versions.emplace_back(product.id, product.version);
    }
    recordProducts(scope, versions);
}

/// One of the two scopes for each run of a test.
class InScope : public ::testing::TestWithParam<std::string> {
protected:
    const std::string& scope() const { return GetParam(); }
    std::string other() const { return oppositeOf(scope()); }
};

/// A transaction that moves a product into `target`.
inline Work movingTo(const std::string& target) { return std::move(Work(target).from(oppositeOf(target))); }

/// Both scopes and the package database of "/", to go back to.
class SavedDisk {
public:
    SavedDisk()
    {
        makeDirectories(store());
        copy({"/Library", "/Users", "/var/db/receipts"}, store());
    }

    void bringBack() const
    {
        for (const std::string& place : examinedPlaces())
            removeAll(place);
        copy({store() / "Library", store() / "Users"}, "/");
        copy({store() / "receipts"}, "/var/db");
    }

private:
    static std::filesystem::path store() { return "/tmp/saved-disk"; }

    static void copy(const std::vector<std::filesystem::path>& trees, const std::filesystem::path& into)
    {
        Arguments words = {"/bin/cp", "-a"};
        for (const std::filesystem::path& tree : trees)
            words.push_back(tree.native());
        words.push_back(into.native());
        const Outcome outcome = runCommand(words);
        if (outcome != succeeded())
            throw std::runtime_error("cannot copy: " + outcome.err);
    }
};

/// Carries out `call` in a process that is killed before its `nth` change of the disk. Its ending is a signal
/// unless it made fewer changes than that.
inline Ending killedBeforeChange(int nth, const std::function<void()>& call)
{
    int changes = 0;
    const auto decide = [&](const SystemCall& made) {
        // The package receipt tool inherits the stops, but its changes are not counted.
        if (readFile("/proc/" + std::to_string(made.process) + "/comm") == "pkgutil\n")
            return 0;
        return ++changes == nth ? killChild : 0;
    };
    return stopping({SYS_mkdirat, SYS_renameat, SYS_unlinkat, SYS_fchmod, SYS_fchown}, decide, call);
}

inline std::string nameOfScope(const ::testing::TestParamInfo<std::string>& info) { return info.param; }

/// A file of a product's VST3 package.
inline std::filesystem::path vst3File(const std::string& scope, const std::string& product,
                                      const std::string& path = "Contents/MacOS/plugin")
{
    return placeOf(scope, vst3Path(product, path));
}

inline std::filesystem::path auFile(const std::string& scope, const std::string& product,
                                    const std::string& path = "Contents/MacOS/plugin")
{
    return placeOf(scope, auPath(product, path));
}

/// The bundles of a product, with the identity of every file.
inline Tree exactBundles(const std::string& scope, const std::string& product)
{
    return takeExactTree(
        {placeOf(scope, vst3Path(product, "Contents")), placeOf(scope, auPath(product, "Contents"))});
}

/// Alpha is installed in the scope, with its records, and the descriptor brings the same version.
inline Transaction prepareRepair(const std::string& scope)
{
    installWithRecords(scope, {plugin("alpha", "1.0")});
    return Transaction(Work(scope).brings(plugin("alpha", "1.0"), "1.0"));
}

/// Alpha is installed in both scopes, with its records, and leaves the source for the target.
inline Transaction prepareMerging(const std::string& target)
{
    installWithRecords("user", {plugin("alpha", "1.0")});
    installWithRecords("system", {plugin("alpha", "1.0")});
    return Transaction(movingTo(target).brings(plugin("alpha", "1.0"), "1.0"));
}

/// Alpha is installed in the source only, with its records, and the installer has placed it in the target.
inline Transaction prepareMove(const std::string& target)
{
    installWithRecords(oppositeOf(target), {plugin("alpha", "1.0")});
    Transaction transaction(movingTo(target).brings(plugin("alpha", "1.0"), "1.0"));
    install(target, commonPackage());
    install(target, plugin("alpha", "1.0"));
    return transaction;
}

/// A shell command, for pkgutil rules, that tries another command on the transaction and keeps what it says.
inline std::string tryMeanwhile(const std::string& command, const Transaction& transaction)
{
    return "'" + builtTool().native() + "' " + command + " " + transaction.work().target() + " " +
           transaction.id() + " 2>> /tmp/meanwhile; true";
}

constexpr const char* forwardRecovery =
    "pkgutil receipt registration changed; transaction requires forward recovery";

} // namespace maintenance::rehearsed
