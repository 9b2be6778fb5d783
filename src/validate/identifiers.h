#pragma once

#include <string>
#include <string_view>

namespace maintenance {

/// The package shared by all products of the maker.
inline constexpr std::string_view commonPackageId = "com.tamarindpelican.pkg.common";

/// What every package identifier of the maker begins with.
inline constexpr std::string_view packageIdPrefix = "com.tamarindpelican.pkg.";

/// The product name under which a plan or descriptor lists the files of the shared package.
inline constexpr std::string_view commonProduct = "common";

// The predicates below accept exactly the texts that the quoted ECMAScript pattern matches as a whole.
// They are written out by hand because the standard library's matcher recurses once per character and
// overflows the stack on long input. None of them throws.

/// Descriptor, product or transaction identifier: `[a-z0-9](?:[a-z0-9-]{0,126}[a-z0-9])?`.
bool safeId(std::string_view text);

/// Version: `(?:0|[1-9][0-9]*)(?:\.(?:0|[1-9][0-9]*)){0,3}`.
bool safeVersion(std::string_view text);

/// Package identifier:
/// `com\.tamarindpelican\.pkg\.(?:common|[a-z0-9](?:[a-z0-9-]{0,126}[a-z0-9])?\.(?:vst3|au))`.
bool safePackageId(std::string_view text);

/// Revision of an installation or of the shared package: `[1-9][0-9]{0,8}`.
bool isRevision(std::string_view text);

/// SHA-256 digest or generation: `[0-9a-f]{64}`.
bool isDigest(std::string_view text);

/// Serial number of a snapshot entry: `[0-9]{1,20}`.
bool isSerial(std::string_view text);

/// Returns the identifier of a product's package: the maker's prefix, the product, "." and the kind
/// ("vst3" or "au").
std::string productPackageId(std::string_view product, std::string_view kind);

} // namespace maintenance
