#include "transaction/second_names.h"

#include "fs/directory_entries.h"
#include "fs/fixed_directory.h"
#include "fs/leftovers.h"
#include "receipts/receipt_snapshot.h"
#include "transaction/prepared_state.h"
#include "transaction/snapshot.h"
#include "transaction/transaction_scopes.h"

#include <map>
#include <set>

namespace maintenance {

namespace {

/// Names of files by the directory that they lie in, relative to a scope root.
using FilesByDirectory = std::map<std::string, std::set<std::string>>;

/// Opens a directory of metadata; empty where there is none, or an unsafe one.
OwnedFd openMetadata(const FixedPlace& place)
{
    try {
        return openFixedDirectory(place.scope, place.relative, false, true);
    } catch (const std::exception&) {
        return OwnedFd();
    }
}

void visitTree(const std::string& scope, int directory, int depth)
{
    const auto entries = directoryEntries(directory);
    if (!entries)
        return;
    removeSecondNames(scope, directory, *entries);
    if (depth == deepestTree)
        return;
    for (const std::string& entry : *entries)
        if (const OwnedFd entered = walkOneDirectory(directory, entry))
            visitTree(scope, entered.get(), depth + 1);
}

void addFile(FilesByDirectory& files, const std::string& path)
{
    files[std::string(parentOf(path))].insert(nameOf(path));
}

void addSnapshotFiles(FilesByDirectory& files, const FixedPlace& snapshot)
{
    for (const SnapshotFile& file : snapshotManifestFiles(snapshot))
        addFile(files, file.path);
}

/// Returns the files that a restoration of the transaction may have put back: none unless it is prepared.
FilesByDirectory restorableFiles(const Descriptor& descriptor)
{
    FilesByDirectory files;
    try {
        requireStateBinding(
            descriptor, parsePrepared(preparedPath(transactionRoot(descriptor)), authorityScope(descriptor)));
        addSnapshotFiles(files, authoritySnapshot(descriptor, "target"));
        if (descriptor.sourceScope != "none")
            addSnapshotFiles(files, authoritySnapshot(descriptor, "source"));
    } catch (const std::exception&) {
        return {};
    }
    for (const File& file : descriptor.files)
        addFile(files, file.path);
    return files;
}

} // namespace

void removeSecondNames(const std::string& scope)
{
    const std::string maintenance(maintenanceDirectory);
    for (const std::string& place : {std::string(supportDirectory), maintenance, maintenance + "/Inbox",
                                     maintenance + "/Completed", maintenance + "/Products"})
        if (const OwnedFd directory = openMetadata({scope, place}))
            if (const auto entries = directoryEntries(directory.get()))
                removeSecondNames(scope, directory.get(), *entries);
}

void removeSecondNames(const Descriptor& descriptor)
{
    for (const std::string& scope : involvedScopes(descriptor))
        removeSecondNames(scope);
    const FixedPlace transaction = transactionPlace(descriptor);
    if (const OwnedFd directory = openMetadata(transaction))
        visitTree(transaction.scope, directory.get(), 1);
    const FilesByDirectory files = restorableFiles(descriptor);
    for (const std::string& scope : involvedScopes(descriptor))
        for (const auto& [directory, names] : files)
            if (const OwnedFd opened = walkFixedDirectory(scope, directory))
                if (const auto entries = directoryEntries(opened.get()))
                    removeSecondNames(scope, opened.get(), *entries, names);
}

} // namespace maintenance
