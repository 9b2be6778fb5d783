#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace maintenance {

/// One installed path that a package receipt owns.
struct ReceiptFile {
    /// Relative to the volume root, in the form that safeRelative returns.
    std::string path;
    /// Digest text of the content; empty without verification.
    std::string sha256;
};

/// One registered package.
struct Receipt {
    std::string packageId;
    std::string version;
    /// The registration's identity: "pkgutil=", "version=" and "file=" lines, without hashes.
    std::string text;
    /// Regular files only, in the order in which the package database lists them.
    std::vector<ReceiptFile> files;
};

/// Registered packages by identifier, in ascending byte order.
using ReceiptInventory = std::map<std::string, Receipt>;

/// Returns all packages of the maker that are registered on the scope's volume.
///
/// verify   true: every listed path must exist, and each regular file is hashed. false: a missing path is
///          recorded without a hash, unless another listed path shows that it was a directory; nothing is
///          hashed.
/// throws   Invalid "pkgutil cannot enumerate authoritative package receipts"
///          Invalid "pkgutil returned an unexpected package identity"
///          Invalid "pkgutil receipt evidence is incomplete"
///          Invalid "pkgutil receipt metadata is outside the fixed install root"
///          Invalid "pkgutil receipt-owned file is missing"
///          Invalid "pkgutil receipt inventory contains a link or foreign file"
///          Invalid "pkgutil receipt has no installed regular files"
///          Invalid "cannot read an owned file", "cannot hash an owned file",
///          "pkgutil receipt-owned file changed during validation"
///          what pkgutil, safeLexicalRelative and safeRelative throw; std::system_error without verification
///          when a path can neither be examined nor is absent
ReceiptInventory pkgutilReceipts(const std::string& scope, bool verify);

/// Returns the paths that packages of the inventory other than `packages` own. They are never removed on
/// behalf of `packages`, even where those list them too.
std::set<std::string> pathsOfOthers(const ReceiptInventory& inventory, const std::set<std::string>& packages);

} // namespace maintenance
