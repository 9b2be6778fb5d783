#pragma once

#include "fs/scope.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace maintenance {

/// One product that a descriptor works on.
struct Product {
    std::string id;
    /// The version installed when the descriptor was made, or "-".
    std::string sourceVersion;
    std::string targetVersion;
};

/// One file that a descriptor owns.
struct File {
    /// A product identifier, or "common".
    std::string product;
    std::string packageId;
    std::string version;
    /// Digest text of the content.
    std::string sha256;
    /// Relative to the scope root, as safeRelative returns it.
    std::string path;
};

/// A maintenance descriptor: one piece of maintenance work on one scope.
struct Descriptor {
    std::string sku;
    std::string packageRevision;
    /// "none", "user" or "system"; never the target scope.
    std::string sourceScope;
    /// "user" or "system"; the scope whose inbox holds the descriptor.
    std::string targetScope;
    /// "none", "adopt" or "replace".
    std::string decision;
    /// The file's name without ".tpmt".
    std::string id;
    std::vector<Product> products;
    std::vector<File> files;
    /// Digest text of the bytes that were parsed: the descriptor file's, or its rendered text's.
    std::string fileSha256;
};

/// Where a descriptor lies.
FixedPlace descriptorPlace(const std::string& scope, const std::string& id);

/// The absolute path of a descriptor.
std::filesystem::path descriptorPath(const std::string& scope, const std::string& id);

/// Opens, creating what is missing, the scope's maintenance directory and its five subdirectories, each
/// checked for owner and mode. Throws what openFixedDirectory throws.
void validateLayout(const std::string& scope);

/// Reads and validates the descriptor `id` in the inbox of `scope`.
///
/// throws  Invalid "maintenance descriptor is missing or unsafe"     no single-linked regular file
///         Invalid "maintenance descriptor permissions are unsafe"   mode, owner, or over 1048576 bytes
///         Invalid "maintenance descriptor cannot be read", "maintenance descriptor changed during
///         validation", "maintenance descriptor changed while being read"
///         what parseDescriptorText throws
Descriptor parse(const std::string& scope, const std::string& id);

/// Parses and validates the text of a descriptor stored under `id` in `scope`.
///
/// throws  Invalid "maintenance descriptor " followed by:
///         "contains an invalid line"               empty, or over 8192 bytes
///         "contains an invalid field"              no "="
///         "contains an unknown field"
///         "repeats a field"
///         "has an invalid product"
///         "has an invalid target file"             not five fields
///         "has an invalid or duplicate file"       version, digest, or a path listed twice
///         "is incomplete"                          a field is missing
///         "binding is invalid"                     schema, sku, revision, scopes or decision
///         "has an invalid common component"        a shared file's package or version
///         "has an inconsistent common revision"    shared files of several versions
///         "file names an unknown product"
///         "package identity drifted"               package does not follow from product and destination
///         "target version drifted"                 version is not the product's
///         "has an incomplete common component"     the shared files are not exactly the two executables
///         "product has no files"
///         what safeRelative throws for a path
Descriptor parseDescriptorText(std::string_view text, const std::string& scope, const std::string& id);

/// Returns the descriptor's file text: every line key "=" value and a line feed, products and files in list
/// order; the identifier is not in it.
std::string descriptorText(const Descriptor& descriptor);

/// Returns the descriptor's canonical text, whose digest binds a prepared transaction to its content: it
/// does not depend on the order of products and files.
std::string canonical(const Descriptor& descriptor);

} // namespace maintenance
