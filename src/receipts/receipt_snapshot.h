#pragma once

#include "fs/scope.h"
#include "receipts/package_contents.h"
#include "receipts/receipt_inventory.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace maintenance {

// A receipt snapshot is a directory of a transaction: "manifest", "files"/<serial> and "receipts"/<serial>.
// Each manifest line ends in a line feed and has fields separated by tabs. A file line holds path, digest
// text and serial; a receipt line, which follows the file lines of its package, holds "receipt", package
// identifier, version and serial.

/// One file of a receipt snapshot.
struct SnapshotFile {
    /// Relative to the scope root.
    std::string path;
    std::string sha256;
    /// Its name below "files".
    std::string serial;
};

/// Where the snapshots of all files lie in a snapshot directory.
FixedPlace snapshotFilesPlace(const FixedPlace& snapshot);
/// Where the snapshot of a file, or of a receipt's identity text, lies in a snapshot directory.
FixedPlace snapshotFilePlace(const FixedPlace& snapshot, const std::string& serial);
FixedPlace snapshotReceiptPlace(const FixedPlace& snapshot, const std::string& serial);
/// Where the manifest lies in a snapshot directory.
FixedPlace snapshotManifestPlace(const FixedPlace& snapshot);

/// Returns path to digest text of the manifest's file lines; a path listed twice keeps its first digest.
///
/// snapshot  the snapshot directory
/// throws    Invalid "receipt snapshot manifest is missing"  it cannot be opened safely
///           Invalid "receipt snapshot manifest is invalid"  a file line without exactly three fields,
///                                                             or without a digest
std::map<std::string, std::string> snapshotInventory(const FixedPlace& snapshot);

/// Returns the manifest's file lines in order, each of them proven: an owned path, a digest, a serial; the
/// receipt lines are proven too.
///
/// throws  Invalid "receipt snapshot manifest is missing", "receipt snapshot manifest is invalid"
std::vector<SnapshotFile> snapshotManifestFiles(const FixedPlace& snapshot);

/// Returns what the snapshot recorded of each package: version, paths and digests.
/// Throws what snapshotManifestFiles throws.
PackageContents snapshotPackages(const FixedPlace& snapshot);

/// Tells whether a registered package has the version and the paths that a snapshot recorded of it.
bool isRecordedRegistration(const Receipt& live, const PackageContents& recorded);

/// Tells whether every package of `packages` is registered in the scope as the snapshot recorded it: same
/// version and same set of paths, or registered in neither.
///
/// throws  Invalid "receipt snapshot manifest is missing"
///         Invalid "receipt snapshot manifest is invalid"  a receipt line without four fields or a serial
///         Invalid "receipt identity snapshot is missing"
///         what pkgutilReceipts throws
bool registrationsMatchSnapshot(const std::string& scope, const FixedPlace& snapshot,
                                const std::set<std::string>& packages);

} // namespace maintenance
