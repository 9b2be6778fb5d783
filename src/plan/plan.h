#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace maintenance {

/// One package of an installation.
struct PlanComponent {
    /// Position in the plan, counted from 0.
    std::uint64_t index = 0;
    /// Identifier of the product that it belongs to, or "common" for the shared package.
    std::string product;
    std::string packageId;
    /// The product's version; for the shared package the package revision.
    std::string version;
    /// The files that it installs: path relative to the scope root, and SHA-256 digest text.
    std::vector<std::pair<std::string, std::string>> targets;
};

/// What an installer carries: which products, in which packages, with which files.
struct Plan {
    /// Identifier of the installation.
    std::string sku;
    /// Decimal, 1 to 9 digits, no leading zero.
    std::string packageRevision;
    /// Product identifier and version, strictly ascending by identifier.
    std::vector<std::pair<std::string, std::string>> products;
    /// In file order: for each product its VST3 and its Audio Unit package, last the shared package.
    std::vector<PlanComponent> components;
    /// Digest text of the whole plan file; binds a pending attempt to this plan.
    std::string sha256;
};

/// Reads the transaction plan at `path`, which must be a single-linked regular file of the effective user,
/// not writable for group or others, of 1 to 1048576 bytes, and accepts exactly one spelling of each plan.
///
/// throws  Invalid "embedded transaction plan " followed by:
///         "is missing or unsafe", "cannot be opened safely", "changed during validation", "cannot be read",
///         "changed while being read" when reading it; what parsePlanText throws
Plan parsePlan(const std::filesystem::path& path);

/// Parses the text of a transaction plan.
///
/// throws  Invalid "embedded transaction plan " followed by:
///         "is not canonical"                               empty, or no final line feed
///         "contains an invalid line"                       empty, or over 8192 bytes
///         "contains an invalid field"                      no "="
///         "contains an unknown field"
///         "fields are not canonical"                       a header line, or a product, out of order
///         "has invalid product membership"                 a bad product line, or not ascending
///         "has invalid component order or membership"      a bad component line, or a repeated package
///         "target has no component"
///         "has an invalid target file"                     a bad target line or path
///         "target order or ownership is invalid"           not ascending in its component, or repeated
///         "is incomplete"                                  a header line is missing
///         "identity is invalid"                            schema, sku, revision, or no product
///         "component membership is incomplete"             not two packages a product and the shared one
///         "component binding is invalid"                   owner, package, version, or no target
///         "target does not match its component"            outside the destination of its kind
///         "common membership is incomplete"                not exactly the two fixed executables
Plan parsePlanText(std::string_view text);

} // namespace maintenance
