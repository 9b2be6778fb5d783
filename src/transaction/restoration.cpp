#include "transaction/restoration.h"

#include "fs/copy.h"
#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/leftovers.h"
#include "fs/removal.h"
#include "fs/sha256.h"
#include "inventory/installed_products.h"
#include "receipts/package_contents.h"
#include "receipts/receipt_inventory.h"
#include "receipts/receipt_snapshot.h"
#include "transaction/owned_removal.h"
#include "transaction/snapshot.h"
#include "validate/invalid.h"

#include <map>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace maintenance {

namespace {

constexpr const char* snapshotSubject = "transaction source";

/// A scope of the transaction and the name of its snapshots, "target" or "source".
struct Role {
    std::string scope;
    std::string name;
};

std::vector<Role> involvedRoles(const Descriptor& descriptor)
{
    std::vector<Role> roles = {{descriptor.targetScope, "target"}};
    if (descriptor.sourceScope != "none")
        roles.push_back({descriptor.sourceScope, "source"});
    return roles;
}

/// What there was in the place of one target file: its digest, or nothing.
using TargetContent = std::optional<std::string>;

/// Everything that a restoration relies on, proven to be there before anything is changed.
struct ProvenSnapshots {
    /// The manifest's files, by role name.
    std::map<std::string, std::vector<SnapshotFile>> authorities;
    /// For each target file of the descriptor.
    std::vector<TargetContent> targets;
};

std::string hashSnapshot(const FixedPlace& place)
{
    const OpenFile copy = openExamined(regular(place, snapshotSubject), "cannot read transaction source",
                                       "transaction source is missing or unsafe");
    return sha256(copy.descriptor.get(), copy.status.st_size);
}

std::vector<SnapshotFile> proveAuthority(const FixedPlace& snapshot)
{
    std::vector<SnapshotFile> files = snapshotManifestFiles(snapshot);
    for (const SnapshotFile& file : files)
        if (hashSnapshot(snapshotFilePlace(snapshot, file.serial)) != file.sha256)
            throw Invalid("transaction source hash is wrong");
    return files;
}

TargetContent proveTarget(const Descriptor& descriptor, std::size_t index)
{
    const FixedPlace copy = targetSnapshot(descriptor, index);
    if (somethingStandsAt(absolutePath(copy)))
        return hashSnapshot(copy);
    regular(targetAbsence(descriptor, index), snapshotSubject);
    return std::nullopt;
}

ProvenSnapshots proveSnapshots(const Descriptor& descriptor)
{
    ProvenSnapshots proven;
    for (const Role& role : involvedRoles(descriptor))
        proven.authorities[role.name] = proveAuthority(authoritySnapshot(descriptor, role.name));
    for (std::size_t i = 0; i < descriptor.files.size(); ++i)
        proven.targets.push_back(proveTarget(descriptor, i));
    return proven;
}

/// What stands in an owned file's place: nothing, the expected bytes, a file that a publication can replace,
/// or something that has to be removed first (a link, or a file of another owner).
enum class Standing { Nothing, ExpectedFile, Replaceable, Foreign };

/// Tells whether this process may not read its own file, so that nobody can tell what it holds. A read that
/// fails for another reason is no reason to replace anything.
bool isClosed(const struct stat& status)
{
    return status.st_uid != 0 && status.st_uid == ::geteuid() && (status.st_mode & S_IRUSR) == 0;
}

Standing examinePlace(const FixedPlace& place, const std::string& expectedHash)
{
    const auto status = linkStatus(absolutePath(place));
    if (!status)
        return Standing::Nothing;
    if (!S_ISREG(status->st_mode) || status->st_nlink != 1)
        return Standing::Foreign;
    if (isClosed(*status))
        return Standing::Replaceable;
    if (hashOwnedFile(place) == expectedHash)
        return Standing::ExpectedFile;
    return status->st_uid == scopeOwner(place.scope) ? Standing::Replaceable : Standing::Foreign;
}

/// Paths of files that a restoration keeps or puts back, relative to the scope root.
using KeptPaths = std::set<std::string>;

/// Removes what a killed restoration has left beside a place, unless a file of `kept` is called like it. A
/// copy does not look for leftovers by itself, as most copies go to a new directory.
void clearLeftovers(const FixedPlace& place, const KeptPaths& kept = {})
{
    const std::string above(parentOf(place.relative));
    const OwnedFd directory = walkFixedDirectory(place.scope, above);
    if (!directory)
        return;
    removeLeftovers(place.scope, directory.get(), nameOf(place.relative),
                    [&](const std::string& entry) { return kept.contains(above + "/" + entry); });
}

/// Brings a place back to the snapshot's bytes. A file is replaced in one step; only what cannot be replaced
/// is removed first.
void restoreFile(const FixedPlace& place, const FixedPlace& copy, const std::string& hash,
                 const KeptPaths& kept)
{
    const Standing standing = examinePlace(place, hash);
    if (standing == Standing::ExpectedFile)
        return;
    if (standing == Standing::Foreign)
        removeOwned(place, "", Links::Remove);
    clearLeftovers(place, kept);
    copyFixed(copy, place, hash);
}

/// Removes the files of the affected packages that the snapshot does not list, and brings back those that it
/// lists. What another package owns is left alone, whatever the manifest says of it. Returns the paths of
/// both.
KeptPaths restoreAuthorityFiles(const std::string& scope, const FixedPlace& snapshot,
                                const std::vector<SnapshotFile>& files, const std::set<std::string>& packages)
{
    const ReceiptInventory live = pkgutilReceipts(scope, false);
    KeptPaths kept = pathsOfOthers(live, packages);
    std::vector<SnapshotFile> restored;
    for (const SnapshotFile& file : files)
        if (kept.insert(file.path).second)
            restored.push_back(file);
    for (const std::string& packageId : packages)
        if (const auto receipt = live.find(packageId); receipt != live.end())
            for (const ReceiptFile& file : receipt->second.files)
                if (!kept.contains(file.path))
                    removeOwned({scope, file.path}, "", Links::Remove);
    for (const SnapshotFile& file : restored)
        restoreFile({scope, file.path}, snapshotFilePlace(snapshot, file.serial), file.sha256, kept);
    return kept;
}

/// kept  paths of the target scope; the descriptor's own are added
void restoreTargets(const Descriptor& descriptor, const std::vector<TargetContent>& targets, KeptPaths kept)
{
    for (const File& file : descriptor.files)
        kept.insert(file.path);
    for (std::size_t i = 0; i < targets.size(); ++i) {
        const File& file = descriptor.files[i];
        const FixedPlace place{descriptor.targetScope, file.path};
        if (targets[i])
            restoreFile(place, targetSnapshot(descriptor, i), *targets[i], kept);
        else
            removeOwned(place, file.sha256, Links::Refuse);
    }
}

void restoreMetadata(const std::string& scope, const FixedPlace& snapshot)
{
    const FixedPlace records = placeInScope(scope, productRecords(scope));
    removeFixedPath(absolutePath(records));
    // The layout always has this directory, also when the snapshot holds no record.
    const OwnedFd directory = openFixedDirectory(scope, records.relative, true, true);
    copyTree(below(snapshot, "Products"), records);
    if (::fchmod(directory.get(), 0755) != 0)
        throw Invalid("maintenance directory ownership or mode is unsafe");

    const std::filesystem::path index = installedProductsIndex(scope);
    const std::filesystem::path copy = absolutePath(below(snapshot, indexName));
    removeFixedPath(index);
    clearLeftovers(placeInScope(scope, index));
    if (somethingStandsAt(copy))
        copyRegular(copy, index, std::nullopt);
}

} // namespace

bool registrationsUnchanged(const Descriptor& descriptor)
{
    const std::set<std::string> packages = affectedPackages(descriptor);
    for (const Role& role : involvedRoles(descriptor))
        if (!registrationsMatchSnapshot(role.scope, authoritySnapshot(descriptor, role.name), packages))
            return false;
    return true;
}

void restore(const Descriptor& descriptor)
{
    const ProvenSnapshots proven = proveSnapshots(descriptor);
    const std::vector<Role> roles = involvedRoles(descriptor);
    std::map<std::string, KeptPaths> kept;
    for (const Role& role : roles)
        kept[role.scope] =
            restoreAuthorityFiles(role.scope, authoritySnapshot(descriptor, role.name),
                                  proven.authorities.at(role.name), affectedPackages(descriptor));
    restoreTargets(descriptor, proven.targets, kept.at(descriptor.targetScope));
    for (const Role& role : roles)
        restoreMetadata(role.scope, metadataSnapshot(descriptor, role.name));
}

} // namespace maintenance
