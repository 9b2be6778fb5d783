#pragma once

#include "kit/text/tool_file.h"

#include <map>

namespace maintenance::kit {

/// What prepare-move notes in place of the copy of a file that is not there.
inline constexpr std::string_view absenceText = "absent\n";

// The files that say what has happened. Each throws Invalid with the tool's message for content that the tool
// refuses.

ToolFile showAttempt(std::string_view text, const Paint& paint);
/// A prepared transaction, a lease or a completed record.
ToolFile showTransaction(std::string_view text, const Paint& paint);
ToolFile showProductRecord(std::string_view text, const Paint& paint);
/// The index of installed products.
ToolFile showIndex(std::string_view text, const Paint& paint);
/// The manifest of a receipt snapshot.
ToolFile showManifest(std::string_view text, const Paint& paint);
/// The identity of a receipt in such a snapshot.
ToolFile showReceipt(std::string_view text, const Paint& paint);
ToolFile showLock();
ToolFile showAbsence(std::string_view text);

/// An installed product of the index.
struct IndexedProduct {
    std::string id;
    std::string scope;
    std::string version;
};

/// Parses the index. Throws Invalid "installed-products index is invalid" for anything that the tool would
/// not have written.
std::vector<IndexedProduct> parseIndex(std::string_view text);

/// A product record.
struct ProductRecord {
    std::string product;
    std::string version;
};

/// Parses a product record. Throws Invalid "product record is invalid".
ProductRecord parseProductRecord(std::string_view text);

} // namespace maintenance::kit
