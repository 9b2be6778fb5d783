#pragma once

#include "kit/report/finding.h"

#include <string>
#include <string_view>
#include <vector>

namespace maintenance::kit {

/// One product of a product list.
struct ListedProduct {
    std::string id;
    std::string version;
    /// Names of its bundles, without ".vst3" and ".component".
    std::vector<std::string> bundles;
};

/// What a maker says about an installation and its payload cannot tell.
struct ProductList {
    std::string sku;
    std::string packageRevision;
    /// In byte order of the identifiers.
    std::vector<ListedProduct> products;
};

/// Reads a product list:
///
///     { "schema": "tamarind.pelican.product-list.v1", "sku": "heron-installer", "packageRevision": 7,
///       "products": [ { "id": "heron", "version": "1.0.0", "bundles": ["TP Heron"] } ] }
///
/// "bundles" may be left out where the payload comes from packages.
///
/// place     the file's name for messages
/// findings  gets what is wrong with the values
/// throws    Failure (Findings) when it is no JSON text
ProductList readProductList(std::string_view text, const std::string& place, FindingList& findings);

} // namespace maintenance::kit
