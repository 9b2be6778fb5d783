#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>

namespace maintenance {

/// The index's name in the maker's directory of a scope.
inline constexpr std::string_view indexName = "installed-products.json";

/// Returns the absolute path of the scope's index of installed products.
std::filesystem::path installedProductsIndex(const std::string& scope);

/// Returns the absolute path of the directory of the scope's product records.
std::filesystem::path productRecords(const std::string& scope);

/// Publishes the record of one product: "product=" identifier and "version=" version, each with a line feed.
/// Throws what text throws.
void publishProductRecord(const std::string& scope, const std::string& product, const std::string& version);

/// Rebuilds the scope's index and product records from its receipts alone. Interrupted, it leaves the
/// previous index and some of the records; the next rebuild repairs both.
///
/// known   products that the run knows to be installed; an answer of the package database that leaves one
///         out is not recorded
/// throws  Invalid "pkgutil cannot enumerate authoritative package receipts" when one of them is not listed,
///         what receiptProducts throws, both before anything is changed; what removeFixedPath,
///         openFixedDirectory and text throw
void aggregate(const std::string& scope, const std::set<std::string>& known);

} // namespace maintenance
