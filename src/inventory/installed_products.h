#pragma once

#include <filesystem>
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
/// throws  what receiptProducts throws, before anything is changed; what removeFixedPath, openFixedDirectory
///         and text throw
void aggregate(const std::string& scope);

} // namespace maintenance
