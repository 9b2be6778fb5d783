#pragma once

#include "plan/descriptor.h"

#include <set>
#include <string>

namespace maintenance {

/// Returns the place of the transaction's directory in its authority scope.
FixedPlace transactionPlace(const Descriptor& descriptor);

// The snapshots inside a transaction's directory.
FixedPlace targetSnapshot(const Descriptor& descriptor, std::size_t index);
FixedPlace targetAbsence(const Descriptor& descriptor, std::size_t index);
/// role  "target" or "source"
FixedPlace authoritySnapshot(const Descriptor& descriptor, const std::string& role);
FixedPlace metadataSnapshot(const Descriptor& descriptor, const std::string& role);

/// Copies each target file of the descriptor to "target"/i, or notes in "target-absent"/i that its place is
/// empty. Throws what safeFile, copyFixed and text throw.
void snapshotFiles(const Descriptor& descriptor);

/// Copies the verified receipts of `packages` in the scope, with the files that they own, to the snapshot
/// directory `snapshot` and writes their manifest. Its directory of files is there also without a receipt.
/// Throws what openFixedDirectory, pkgutilReceipts, copyFixed and text throw.
void snapshotAuthority(const std::string& scope, const FixedPlace& snapshot,
                       const std::set<std::string>& packages);

/// Copies the scope's product records and its index of installed products, where there is one, to the
/// snapshot directory `snapshot`. Throws what copyTree and copyRegular throw.
void snapshotMetadata(const std::string& scope, const FixedPlace& snapshot);

/// Takes every snapshot that a restoration of the descriptor's transaction needs: its target files, then
/// receipts and metadata of the target scope, then those of the source scope unless that is "none".
void snapshotScopes(const Descriptor& descriptor);

} // namespace maintenance
