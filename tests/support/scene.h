#pragma once

#include "support/disk.h"
#include "support/run.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

/// Setting a scene: packages on disk and in the package database, descriptors, plans, transactions.
///
/// A test reads like this:
///
///     const Plugin alpha = plugin("alpha", "1.0");
///     install("user", commonPackage());
///     install("user", alpha);
///     const std::string id = publish(Work("user").brings(alpha, "1.0"), "repair-1");
///     EXPECT_EQ(run({"inspect", "user", id}), succeeded("{\"status\":\"repair\"}\n"));
namespace maintenance::rehearsed {

// Scopes and their fixed places. A scope is the word "user" or "system".

std::filesystem::path rootOf(const std::string& scope);
uid_t ownerOf(const std::string& scope);
std::string oppositeOf(const std::string& scope);
/// What describe() says of a metadata file and of a directory that the program made in the scope.
std::string metadataFileOf(const std::string& scope);
std::string directoryOf(const std::string& scope);
std::filesystem::path supportOf(const std::string& scope);
std::filesystem::path maintenanceOf(const std::string& scope);
std::filesystem::path inboxOf(const std::string& scope);
std::filesystem::path descriptorOf(const std::string& scope, const std::string& id);
std::filesystem::path lockOf(const std::string& scope);
std::filesystem::path leaseOf(const std::string& scope);
std::filesystem::path pendingOf(const std::string& scope);
std::filesystem::path indexOf(const std::string& scope);
std::filesystem::path recordOf(const std::string& scope, const std::string& product);
std::filesystem::path transactionOf(const std::string& scope, const std::string& id);
std::filesystem::path completedOf(const std::string& scope, const std::string& id);
std::filesystem::path receiptOf(const std::string& scope, const std::string& packageId);

/// Makes the maintenance directory with its five subdirectories.
void makeLayout(const std::string& scope);

// Packages.

/// One package; paths are relative to the scope root.
struct Package {
    std::string id;
    std::string version;
    /// A product, or "common".
    std::string product;
    std::map<std::string, std::string> files;
};

/// The shared package with short texts in the place of the two executables.
Package commonPackage(const std::string& revision = "7");

/// A product with two files in each of its packages; contents differ between products and versions, except
/// that of "Contents/Resources/art.txt", which every version has.
struct Plugin {
    std::string id;
    std::string version;
    Package vst3;
    Package au;

    /// Adds a file to the VST3 package; `path` is relative to the bundle.
    Plugin& withVst3File(const std::string& path, const std::string& content);
    Plugin& withAuFile(const std::string& path, const std::string& content);
    /// The paths of all files, relative to the scope root, in byte order.
    std::vector<std::string> paths() const;
};

Plugin plugin(const std::string& id, const std::string& version);
/// The place of a file in a product's bundle, relative to the scope root.
std::string vst3Path(const std::string& product, const std::string& path = "Contents/MacOS/plugin");
std::string auPath(const std::string& product, const std::string& path = "Contents/MacOS/plugin");

/// Places the files with the scope's owner and mode 0644, and registers the package. Files of an earlier
/// version that the package lacks stay.
void install(const std::string& scope, const Package& package);
void install(const std::string& scope, const Plugin& product);
/// Places the files only.
void placeFiles(const std::string& scope, const Package& package);
void placeFiles(const std::string& scope, const Plugin& product);
void removeFiles(const std::string& scope, const Package& package);
void removeFiles(const std::string& scope, const Plugin& product);
/// Writes the receipt only: the files' paths and every directory above them.
void registerPackage(const std::string& scope, const Package& package, const std::string& location = "/");
void registerPackage(const std::string& scope, const Plugin& product);
void unregister(const std::string& scope, const std::string& packageId);
bool isRegistered(const std::string& scope, const std::string& packageId);
/// Writes a receipt line by line, for receipts that no package would leave.
void writeReceipt(const std::string& scope, const std::string& packageId, const std::string& version,
                  const std::vector<std::string>& paths, const std::string& location = "/");

// Descriptors.

/// The text of a maintenance descriptor in the making.
class Work {
public:
    /// A descriptor for `target` without source, with decision "none", bringing the shared package "7".
    explicit Work(std::string target) : target_(std::move(target)) {}

    Work& from(const std::string& source);
    Work& deciding(const std::string& decision);
    /// Brings another shared package; its version is the package revision too.
    Work& with(const Package& common);
    /// Adds a product and the version recorded as installed, or "-".
    Work& brings(const Plugin& product, const std::string& recorded = "-");

    const std::string& target() const { return target_; }
    const std::string& source() const { return source_; }
    /// The scope that holds the transaction.
    std::string authority() const;
    /// The scopes that get a lease, in the order in which they get it.
    std::vector<std::string> involved() const;
    std::string text() const;
    /// The text that a transaction is bound to.
    std::string canonical(const std::string& id) const;
    /// The seven lines of a prepared transaction.
    std::string prepared(const std::string& id, const std::string& generation) const;

private:
    std::vector<std::string> fileLines() const;

    std::string target_;
    std::string source_ = "none";
    std::string decision_ = "none";
    Package common_ = commonPackage();
    std::vector<std::pair<Plugin, std::string>> products_;
};

/// Lays the maintenance directories out and puts the descriptor into the inbox; returns `id`.
std::string publish(const Work& work, const std::string& id);
/// The same with a text of the caller's own.
std::string publishText(const std::string& scope, const std::string& text, const std::string& id);

// Plans.

/// The text of a transaction plan; products are put into order.
std::string planText(std::vector<Plugin> products, const Package& common = commonPackage(),
                     const std::string& sku = "studio-bundle");

/// Puts the built program and a plan into their fixed place in the scope, both owned by `owner`; returns the
/// program's path.
std::filesystem::path placeTool(const std::string& scope, const std::string& plan, uid_t owner = rootUid);

// Transactions by hand.

/// A generation of 64 equal digits.
std::string generationOf(char digit);
/// The value of a line of a prepared text.
std::string fieldOf(const std::string& text, const std::string& key);

// Surroundings.

/// The account at the console from now on; 0 is root, as at a login screen without an account of its own.
void setConsole(uid_t account);
void setNobodyAtConsole();
void removeLoginManager();

/// Gives the pkgutil stand-in its rules and counts its calls anew; see rehearsal/README.md.
void instructPkgutil(const std::string& rules);
/// Every call so far: its arguments separated by blanks.
std::vector<std::string> pkgutilCalls();
void forgetPkgutilCalls();

/// Another process that holds a scope's maintenance lock as long as this object lives.
class HeldLock {
public:
    explicit HeldLock(const std::string& scope);
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;
    ~HeldLock();

private:
    pid_t holder_ = -1;
};

/// Makes a directory a file system of its own, with room for `bytes`, owned as given.
void mountSmallDisk(const std::filesystem::path& directory, std::size_t bytes, Ownership ownership);
/// Fills the file system of a directory to the last byte with a file named "filler".
void fillDisk(const std::filesystem::path& directory);

} // namespace maintenance::rehearsed
