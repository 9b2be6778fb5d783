#pragma once

#include "receipts/receipt_inventory.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace maintenance {

/// Product identifier to installed version, in ascending byte order.
using InstalledProducts = std::map<std::string, std::string>;

/// Major, minor, patch and build; missing components are 0. Compared component by component.
using Version = std::array<std::uint64_t, 4>;

/// The products of the scopes that have been asked about so far, so that one loop of a command over several
/// products reads each scope's receipts once.
using ProductLookup = std::map<std::string, InstalledProducts>;

/// Returns the product that a package belongs to: what stands between the maker's prefix and the last ".".
/// Empty for the shared package and for a package without a "." behind the prefix.
/// Throws Invalid "native receipt package identity is invalid" for a package that is not the maker's.
std::string productFromPackage(std::string_view packageId);

/// Returns the shared package when no product uses it any more, else a null pointer. A listing that the
/// package database cut short must neither make the shared package look unused nor leave anything behind for
/// good.
///
/// before   the scope's receipts before anything was removed
/// after    the same, read anew; the result belongs to it
/// removed  the product packages that the run has removed
/// throws   Invalid "pkgutil receipt remained registered after forget" when one of them is listed still
///          Invalid "pkgutil cannot enumerate authoritative package receipts" when the shared package was
///          listed before and is not listed now
///          Invalid "pkgutil receipt evidence is incomplete" when it was registered otherwise before
///          what productFromPackage throws
const Receipt* unusedSharedPackage(const ReceiptInventory& before, const ReceiptInventory& after,
                                   const std::set<std::string>& removed);

/// Returns the products that packages of the inventory other than `packages` belong to. Throws what
/// productFromPackage throws.
std::set<std::string> productsBeside(const ReceiptInventory& inventory,
                                     const std::set<std::string>& packages);

/// Returns the products that are installed natively in the scope, from its verified receipts. A product is
/// exactly one ".vst3" and one ".au" package of byte-identical version.
///
/// throws  Invalid "product native receipts are incomplete or inconsistent"
///         what pkgutilReceipts throws
InstalledProducts receiptProducts(const std::string& scope);

/// Returns the version at which a product is installed natively in the scope, or nothing. The scope's
/// products are read when `lookup` does not hold them yet. Throws what receiptProducts throws.
std::optional<std::string> installed(ProductLookup& lookup, const std::string& scope,
                                     const std::string& product);

/// Returns the value of a version text that passes safeVersion.
/// Throws std::out_of_range for a component beyond 64 bits.
Version version(std::string_view text);

/// Refuses to replace the scope's shared package by an older one.
///
/// incoming  the version about to be installed
/// returns   the scope's verified receipts, among which it has looked
/// throws    Invalid "installed common package revision is newer; common downgrade is refused"
///           what pkgutilReceipts and version throw
ReceiptInventory rejectCommonDowngrade(const std::string& scope, const std::string& incoming);

/// Tells whether the scope's receipts can be consulted: always for "system"; for "user" when the invoking
/// account's home is a directory and no link. Throws what invokingHome throws, except Invalid, and what
/// linkStatus throws.
bool scopeAvailableForDuplicateCheck(const std::string& scope);

} // namespace maintenance
